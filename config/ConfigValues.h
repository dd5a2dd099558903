#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace keywarden {

/// The values of one configuration file by key. A missing key and an empty value are the same.
class ConfigValues {
  public:
    explicit ConfigValues(std::map<std::string, std::string> values);

    [[nodiscard]] std::string text(const std::string& key) const;
    [[nodiscard]] bool has(const std::string& key) const { return !text(key).empty(); }
    /// True only for exactly "yes".
    [[nodiscard]] bool isYes(const std::string& key) const { return text(key) == "yes"; }

    /// Decimal, text after the number ignored, as std::stoull reads it. Throws std::invalid_argument when the
    /// value is no number and std::out_of_range when it does not fit.
    [[nodiscard]] std::uint64_t number(const std::string& key) const;
    [[nodiscard]] std::uint16_t shortNumber(const std::string& key) const;

    /// `absent` unless the value starts with a number of at least 1; a number beyond the type is its highest.
    [[nodiscard]] std::int32_t positiveNumber(const std::string& key, std::int32_t absent) const;

  private:
    std::map<std::string, std::string> values_;
};

}  // namespace keywarden
