#pragma once

#include <cxxtools/serializationinfo.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace keywardctl {

/// One JSON object, its members in the order in which they were added. docs/keywardctl-json.md has the
/// shapes.
class Json {
  public:
    Json();
    /// The object of an answer: its first member is the version of the shapes.
    [[nodiscard]] static Json answer();

    Json& text(const std::string& name, const std::string& value);
    Json& text(const std::string& name, const char* value) { return text(name, std::string(value)); }
    Json& number(const std::string& name, std::int64_t value);
    Json& flag(const std::string& name, bool value);
    Json& null(const std::string& name);
    Json& texts(const std::string& name, const std::vector<std::string>& values);
    Json& object(const std::string& name, const Json& value);
    Json& objects(const std::string& name, const std::vector<Json>& values);

    // Null for none.
    Json& text(const std::string& name, const std::optional<std::string>& value);
    Json& number(const std::string& name, const std::optional<std::int64_t>& value);
    Json& flag(const std::string& name, const std::optional<bool>& value);

    /// Compact, on one line, with its line feed; ASCII only.
    [[nodiscard]] std::string line() const;

  private:
    cxxtools::SerializationInfo info_;
};

}  // namespace keywardctl
