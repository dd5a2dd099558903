#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "config/ConfigKeys.h"

namespace keywarden {

/// The values of one configuration file by key.
class ConfigValues {
  public:
    explicit ConfigValues(std::map<std::string, std::string> values);

    /// Empty for a missing key, too.
    [[nodiscard]] std::string text(const ConfigKey& key) const;
    [[nodiscard]] bool has(const ConfigKey& key) const { return !text(key).empty(); }
    /// Whether a line sets the key, be it to an empty value.
    [[nodiscard]] bool isSet(const ConfigKey& key) const { return values_.count(key.name()) != 0; }
    /// True only for exactly "yes".
    [[nodiscard]] bool isYes(const ConfigKey& key) const { return text(key) == "yes"; }

    /// Decimal, text after the number ignored, as std::stoull reads it. Throws std::invalid_argument when the
    /// value is no number and std::out_of_range when it does not fit; the key's own range is not looked at.
    [[nodiscard]] std::uint64_t number(const ConfigKey& key) const;
    /// The same within the range of the key; what counts without the key when it is missing.
    [[nodiscard]] std::uint16_t shortNumber(const ConfigKey& key) const;

    /// Never fails: a number that the key's row allows, or the one that counts without the key. A text that
    /// begins with no number is a 0; of a number beyond the highest the highest counts, unless such a one is
    /// ignored.
    [[nodiscard]] std::int32_t lenientNumber(const ConfigKey& key) const;

  private:
    std::map<std::string, std::string> values_;
};

}  // namespace keywarden
