#include "config/ConfigValues.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <utility>

namespace keywarden {

ConfigValues::ConfigValues(std::map<std::string, std::string> values) : values_(std::move(values)) {}

std::string ConfigValues::text(const ConfigKey& key) const {
    const auto found = values_.find(key.name());
    return found == values_.end() ? std::string() : found->second;
}

std::uint64_t ConfigValues::number(const ConfigKey& key) const {
    // Not stoul: its range is the platform's, and on a 32-bit one a large number would be another failure.
    return std::stoull(text(key));
}

std::uint16_t ConfigValues::shortNumber(const ConfigKey& key) const {
    if (!has(key))
        return static_cast<std::uint16_t>(key.row().absent);
    const auto lowest = static_cast<std::uint64_t>(std::max<std::int64_t>(key.row().lowest, 0));
    const auto highest = static_cast<std::uint64_t>(
        std::min<std::int64_t>(key.row().highest, std::numeric_limits<std::uint16_t>::max()));
    const std::uint64_t value = number(key);
    if (value < lowest || value > highest)
        throw std::out_of_range("'" + text(key) + "' is not between " + std::to_string(lowest) + " and " +
                                std::to_string(highest));
    return static_cast<std::uint16_t>(value);
}

std::int32_t ConfigValues::lenientNumber(const ConfigKey& key) const {
    const KeyRow& row = key.row();
    const auto highest = std::min<std::int64_t>(row.highest, std::numeric_limits<std::int32_t>::max());
    // strtoll gives 0 for a text without a number and its own highest for one beyond it.
    const std::int64_t value = std::strtoll(text(key).c_str(), nullptr, 10);
    const bool counts = value >= row.lowest && (value <= highest || row.bad != BadValue::Ignored);
    return static_cast<std::int32_t>(counts ? std::min(value, highest) : row.absent);
}

}  // namespace keywarden
