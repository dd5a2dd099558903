#include "support/UtcText.h"

#include <array>
#include <ctime>

namespace keywarden {

namespace {

constexpr std::uint64_t kSecondsPerDay = 86400;
// 9999-12-31 23:59:59, the last moment with a four-digit year.
constexpr std::uint64_t kLastWritable = 253402300799ULL;

// Days since the epoch to year, month and day: the era of 400 years repeats exactly, and a year that starts
// on 1 March keeps the leap day last.
void setDate(std::tm& parts, std::uint64_t daysSinceEpoch) {
    const std::uint64_t days = daysSinceEpoch + 719468;
    const std::uint64_t era = days / 146097;
    const std::uint64_t dayOfEra = days % 146097;
    const std::uint64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const std::uint64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const std::uint64_t month = (5 * dayOfYear + 2) / 153;
    const bool nextYear = month >= 10;
    parts.tm_mday = static_cast<int>(dayOfYear - (153 * month + 2) / 5 + 1);
    parts.tm_mon = static_cast<int>(nextYear ? month - 10 : month + 2);
    parts.tm_year = static_cast<int>(yearOfEra + era * 400 + (nextYear ? 1 : 0)) - 1900;
    parts.tm_wday = static_cast<int>((daysSinceEpoch + 4) % 7);
}

}  // namespace

std::string utcText(std::uint64_t secondsSinceEpoch) {
    if (secondsSinceEpoch > kLastWritable)
        return std::to_string(secondsSinceEpoch) + " seconds since the epoch\n";
    std::tm parts{};
    const std::uint64_t secondOfDay = secondsSinceEpoch % kSecondsPerDay;
    setDate(parts, secondsSinceEpoch / kSecondsPerDay);
    parts.tm_hour = static_cast<int>(secondOfDay / 3600);
    parts.tm_min = static_cast<int>(secondOfDay / 60 % 60);
    parts.tm_sec = static_cast<int>(secondOfDay % 60);
    std::array<char, 64> text{};
    return ::asctime_r(&parts, text.data()) != nullptr ? std::string(text.data()) : std::string();
}

}  // namespace keywarden
