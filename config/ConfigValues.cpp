#include "config/ConfigValues.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <utility>

namespace keywarden {

ConfigValues::ConfigValues(std::map<std::string, std::string> values) : values_(std::move(values)) {}

std::string ConfigValues::text(const std::string& key) const {
    const auto found = values_.find(key);
    return found == values_.end() ? std::string() : found->second;
}

std::uint64_t ConfigValues::number(const std::string& key) const {
    // Not stoul: its range is the platform's, and on a 32-bit one a large number would be another failure.
    return std::stoull(text(key));
}

std::uint16_t ConfigValues::shortNumber(const std::string& key) const {
    constexpr std::uint64_t kHighest = std::numeric_limits<std::uint16_t>::max();
    const std::uint64_t value = number(key);
    if (value > kHighest)
        throw std::out_of_range("'" + text(key) + "' is not between 0 and " + std::to_string(kHighest));
    return static_cast<std::uint16_t>(value);
}

std::int32_t ConfigValues::positiveNumber(const std::string& key, std::int32_t absent) const {
    constexpr long long kHighest = std::numeric_limits<std::int32_t>::max();
    // strtoll gives 0 for a text without a number and its own highest for one beyond it.
    const long long value = std::strtoll(text(key).c_str(), nullptr, 10);
    return value < 1 ? absent : static_cast<std::int32_t>(std::min(value, kHighest));
}

}  // namespace keywarden
