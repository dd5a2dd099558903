#include "ctl/Json.h"

#include <cxxtools/jsonserializer.h>
#include <cxxtools/utf8codec.h>

#include <sstream>

#include "ctl/Text.h"

namespace keywardctl {

namespace {

constexpr int kVersion = 1;

// The formatter takes the bytes of a std::string for characters.
cxxtools::String decoded(const std::string& text) {
    return cxxtools::Utf8Codec::decode(validUtf8(text));
}

}  // namespace

Json::Json() {
    info_.setCategory(cxxtools::SerializationInfo::Object);
}

Json Json::answer() {
    Json json;
    json.number("version", kVersion);
    return json;
}

Json& Json::text(const std::string& name, const std::string& value) {
    info_.addMember(name).setValue(decoded(value));
    return *this;
}

Json& Json::number(const std::string& name, std::int64_t value) {
    info_.addMember(name).setValue(static_cast<long long>(value));
    return *this;
}

Json& Json::flag(const std::string& name, bool value) {
    info_.addMember(name).setValue(value);
    return *this;
}

Json& Json::null(const std::string& name) {
    info_.addMember(name).setNull();
    return *this;
}

Json& Json::texts(const std::string& name, const std::vector<std::string>& values) {
    cxxtools::SerializationInfo& list = info_.addMember(name);
    list.setCategory(cxxtools::SerializationInfo::Array);
    for (const std::string& value : values)
        list.addMember().setValue(decoded(value));
    return *this;
}

Json& Json::object(const std::string& name, const Json& value) {
    cxxtools::SerializationInfo& member = info_.addMember(name);
    member = value.info_;
    member.setName(name);
    return *this;
}

Json& Json::objects(const std::string& name, const std::vector<Json>& values) {
    cxxtools::SerializationInfo& list = info_.addMember(name);
    list.setCategory(cxxtools::SerializationInfo::Array);
    for (const Json& value : values)
        list.addMember() = value.info_;
    return *this;
}

Json& Json::text(const std::string& name, const std::optional<std::string>& value) {
    return value ? text(name, *value) : null(name);
}

Json& Json::number(const std::string& name, const std::optional<std::int64_t>& value) {
    return value ? number(name, *value) : null(name);
}

Json& Json::flag(const std::string& name, const std::optional<bool>& value) {
    return value ? flag(name, *value) : null(name);
}

std::string Json::line() const {
    std::ostringstream out;
    cxxtools::JsonSerializer serializer(out);
    serializer.serialize(info_).finish();
    return out.str() + "\n";
}

}  // namespace keywardctl
