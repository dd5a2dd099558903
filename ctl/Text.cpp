#include "ctl/Text.h"

#include <array>
#include <cstdio>

namespace keywardctl {

namespace {

constexpr std::int64_t kDay = 86400;

bool isContinuation(unsigned char byte) {
    return (byte & 0xC0U) == 0x80U;
}

/// How many bytes the character at the place has; 0 when it is not UTF-8 (RFC 3629).
std::size_t characterLength(const std::string& text, std::size_t place) {
    const auto at = [&](std::size_t offset) {
        return place + offset < text.size() ? static_cast<unsigned char>(text[place + offset]) : 0U;
    };
    const unsigned first = at(0);
    if (first < 0x80U)
        return 1;
    const std::size_t length = first >= 0xC2U && first <= 0xDFU   ? 2
                               : first >= 0xE0U && first <= 0xEFU ? 3
                               : first >= 0xF0U && first <= 0xF4U ? 4
                                                                  : 0;
    for (std::size_t offset = 1; offset < length; ++offset) {
        if (!isContinuation(static_cast<unsigned char>(at(offset))))
            return 0;
    }
    const unsigned second = at(1);
    const bool overlong = (first == 0xE0U && second < 0xA0U) || (first == 0xF0U && second < 0x90U);
    const bool outside = (first == 0xEDU && second > 0x9FU) || (first == 0xF4U && second > 0x8FU);
    return overlong || outside ? 0 : length;
}

/// Of one whole character: the C0 and C1 controls and DEL.
bool isControl(const std::string& character) {
    const auto first = static_cast<unsigned char>(character[0]);
    return first < 0x20U || first == 0x7FU ||
           (character.size() == 2 && first == 0xC2U && static_cast<unsigned char>(character[1]) < 0xA0U);
}

std::string filtered(const std::string& text, bool controls) {
    std::string result;
    for (std::size_t place = 0; place < text.size();) {
        const std::size_t length = characterLength(text, place);
        const std::string character = text.substr(place, length);
        result += length == 0 || (controls && isControl(character)) ? "?" : character;
        place += length == 0 ? 1 : length;
    }
    return result;
}

/// The civil date of a day count since the epoch, in the proleptic Gregorian calendar; no time_t of the
/// platform is involved.
struct Date {
    std::int64_t year;
    unsigned month;
    unsigned day;
};

bool isLeap(std::int64_t year) {
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

Date dateOf(std::int64_t days) {
    constexpr std::int64_t kDaysIn400Years = 146097;
    Date date{1970 + 400 * (days / kDaysIn400Years), 1, 1};
    for (days %= kDaysIn400Years; days < 0; --date.year)
        days += isLeap(date.year - 1) ? 366 : 365;
    for (; days >= (isLeap(date.year) ? 366 : 365); ++date.year)
        days -= isLeap(date.year) ? 366 : 365;
    const std::array<int, 12> lengths{31, isLeap(date.year) ? 29 : 28, 31, 30, 31, 30, 31, 31, 30, 31, 30,
                                      31};
    for (; days >= lengths.at(date.month - 1); ++date.month)
        days -= lengths.at(date.month - 1);
    date.day = static_cast<unsigned>(days) + 1;
    return date;
}

}  // namespace

std::string printable(const std::string& text) {
    return filtered(text, true);
}

std::string validUtf8(const std::string& text) {
    return filtered(text, false);
}

std::int64_t daysUntil(std::int64_t moment, std::int64_t now) {
    const std::int64_t seconds = moment - now;
    return seconds / kDay - (seconds % kDay < 0 ? 1 : 0);
}

std::string utcText(std::int64_t seconds) {
    const std::int64_t days = daysUntil(seconds, 0);
    const auto rest = static_cast<unsigned>(seconds - days * kDay);
    const Date date = dateOf(days);
    std::array<char, 64> text{};
    (void)std::snprintf(text.data(), text.size(), "%04lld-%02u-%02u %02u:%02u:%02u UTC",
                        static_cast<long long>(date.year), date.month, date.day, rest / 3600, rest / 60 % 60,
                        rest % 60);
    return text.data();
}

std::string joined(const std::vector<std::string>& parts, const std::string& separator) {
    std::string text;
    for (const std::string& part : parts)
        text += (text.empty() ? "" : separator) + part;
    return text;
}

}  // namespace keywardctl
