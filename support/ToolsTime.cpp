#include <array>

#include "support/Clock.h"
#include "support/Tools.h"

namespace keywarden {

namespace {

// Years are carried in 64 bits, so that no tm, however odd, overflows on its way to seconds.
constexpr bool isLeap(std::int64_t year) {
    return year % 400 == 0 || (year % 100 != 0 && year % 4 == 0);
}

constexpr std::int64_t floorDivide(std::int64_t value, std::int64_t divisor) {
    return value / divisor - (value % divisor < 0 ? 1 : 0);
}

constexpr std::int64_t daysFromYear1(std::int64_t year) {
    const std::int64_t before = year - 1;
    return 365 * before + floorDivide(before, 4) - floorDivide(before, 100) + floorDivide(before, 400);
}

constexpr std::int64_t kDaysFrom1To1970 = daysFromYear1(1970);
static_assert(kDaysFrom1To1970 == 719162);

std::int64_t daysFromJanuary(std::int64_t year, std::size_t month, std::int64_t day) {
    static constexpr std::array<std::array<std::int32_t, 12>, 2> kDaysBefore{{
        {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334},
        {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335},
    }};
    return kDaysBefore[isLeap(year) ? 1 : 0].at(month - 1) + day - 1;
}

}  // namespace

bool Tools::is_leap(int year) {
    return isLeap(year);
}

int Tools::days_from_0(int year) {
    return static_cast<int>(daysFromYear1(year));
}

int Tools::days_from_1970(int year) {
    return static_cast<int>(daysFromYear1(year) - kDaysFrom1To1970);
}

int Tools::days_from_1jan(int year, int month, int day) {
    return static_cast<int>(daysFromJanuary(year, static_cast<std::size_t>(month), day));
}

std::int64_t Tools::getInternalTimeGmt(const std::tm* time) {
    std::int64_t year = std::int64_t{time->tm_year} + 1900;
    std::int64_t month = time->tm_mon;
    if (month >= 12) {
        const std::int64_t carry = month / 12;
        year += carry;
        month -= 12 * carry;
    } else if (month < 0) {
        const std::int64_t borrow = (11 - month) / 12;
        year -= borrow;
        month += 12 * borrow;
    }
    const std::int64_t days = daysFromYear1(year) - kDaysFrom1To1970 +
                              daysFromJanuary(year, static_cast<std::size_t>(month) + 1, time->tm_mday);
    return time->tm_sec + std::int64_t{60} * time->tm_min + std::int64_t{3600} * time->tm_hour + 86400 * days;
}

std::int32_t Tools::getSecondBeforeReachTimestamp(std::int32_t timestamp) {
    return static_cast<std::int32_t>(timestamp - Clock::now());
}

}  // namespace keywarden
