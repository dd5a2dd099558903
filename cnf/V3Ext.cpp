#include "cnf/V3Ext.h"

#include <utility>

namespace kwdata {

namespace {

// A marker of the text form that is only looked for behind the one before it.
struct Field {
    const char* marker;
    std::string v3Ext::*value;
};

const Field kFields[] = {
    {"obj_id ", &v3Ext::obj_id},
    {"|short_name ", &v3Ext::short_name},
    {"|long_name ", &v3Ext::long_name},
    {"|comment ", &v3Ext::comment},
};

}  // namespace

v3Ext::v3Ext(std::string objId, std::string shortName, std::string longName, std::string commentText)
    : obj_id(std::move(objId)),
      short_name(std::move(shortName)),
      long_name(std::move(longName)),
      comment(std::move(commentText)) {}

void v3Ext::to(std::string& text) const {
    text.clear();
    for (const Field& field : kFields) {
        text += field.marker + this->*field.value;
    }
    text += "\n";
}

v3Ext v3Ext::from(const std::string& text) {
    v3Ext extension;
    const std::string line = text.substr(0, text.size() - (!text.empty() && text.back() == '\n' ? 1 : 0));
    std::size_t position = 0;
    std::string* open = nullptr;
    for (const Field& field : kFields) {
        const std::size_t found = line.find(field.marker, position);
        if (found == std::string::npos) {
            continue;
        }
        if (open != nullptr) {
            *open = line.substr(position, found - position);
        }
        open = &(extension.*field.value);
        position = found + std::string(field.marker).size();
    }
    if (open != nullptr) {
        *open = line.substr(position);
    }
    return extension;
}

}  // namespace kwdata
