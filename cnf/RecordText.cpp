#include "cnf/RecordText.h"

#include <algorithm>
#include <sstream>

namespace kwdata {

namespace {

const std::string kExtensionKey = "v3Extention";

}  // namespace

void appendLine(std::string& text, const std::string& key, const std::string& value) {
    text += key + " " + value + "\n";
}

void appendExtensions(std::string& text, const std::vector<v3Ext>& extensions) {
    for (std::size_t index = 0; index < extensions.size(); ++index) {
        std::string extension;
        extensions[index].to(extension);
        text.append(kExtensionKey).append(std::to_string(index)).append(" ").append(extension);
    }
}

bool isExtensionKey(const std::string& key) {
    return key.size() > kExtensionKey.size() && key.compare(0, kExtensionKey.size(), kExtensionKey) == 0 &&
           key.find_first_not_of("0123456789", kExtensionKey.size()) == std::string::npos;
}

std::vector<std::pair<std::string, std::string>> splitRecord(const std::string& text,
                                                             const std::vector<std::string>& keys) {
    std::vector<std::pair<std::string, std::string>> entries;
    std::istringstream lines(text);
    lines.exceptions(std::ios::badbit);  // no memory for a line is not the end of the record
    std::string line;
    while (std::getline(lines, line)) {
        const std::size_t blank = line.find(' ');
        const std::string key = blank == std::string::npos ? std::string() : line.substr(0, blank);
        if (isExtensionKey(key) || std::find(keys.begin(), keys.end(), key) != keys.end()) {
            entries.emplace_back(key, line.substr(blank + 1));
        } else if (!entries.empty()) {
            entries.back().second += "\n" + line;
        }
    }
    return entries;
}

int numberOr(const std::string& text, int fallback) {
    std::istringstream stream(text);
    stream.exceptions(std::ios::badbit);  // no memory is not a missing number
    int number = 0;
    return stream >> number ? number : fallback;
}

}  // namespace kwdata
