#include <gtest/gtest.h>

#include <climits>
#include <ctime>
#include <stdexcept>

#include "support/Tools.h"
#include "testsupport/TestClock.h"

namespace {

using keywarden::Tools;

std::tm date(int year, int month, int day) {
    std::tm time{};
    time.tm_year = year - 1900;
    time.tm_mon = month - 1;
    time.tm_mday = day;
    return time;
}

std::int64_t seconds(const std::tm& time) {
    return Tools::getInternalTimeGmt(&time);
}

int monthLength(int year, int month) {
    static constexpr int kLengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return kLengths[month - 1] + (month == 2 && Tools::is_leap(year) ? 1 : 0);
}

TEST(ToolsTime, LeapYearsFollowTheGregorianRule) {
    EXPECT_FALSE(Tools::is_leap(1900));
    EXPECT_TRUE(Tools::is_leap(2000));
    EXPECT_TRUE(Tools::is_leap(2024));
    EXPECT_FALSE(Tools::is_leap(2023));
    EXPECT_FALSE(Tools::is_leap(2100));
    EXPECT_TRUE(Tools::is_leap(0));
    EXPECT_TRUE(Tools::is_leap(-4));
    EXPECT_FALSE(Tools::is_leap(-100));
    EXPECT_TRUE(Tools::is_leap(-400));
}

TEST(ToolsTime, DaysAreCountedFromYearOne) {
    EXPECT_EQ(Tools::days_from_0(1), 0);
    EXPECT_EQ(Tools::days_from_0(2), 365);
    EXPECT_EQ(Tools::days_from_0(5), 1461);
    EXPECT_EQ(Tools::days_from_0(1970), 719162);
}

TEST(ToolsTime, YearsBeforeYearOneComeOutRight) {
    EXPECT_EQ(Tools::days_from_0(0), -366);
    EXPECT_EQ(Tools::days_from_0(-1), -731);
    EXPECT_EQ(Tools::days_from_0(-399), -146097);
}

TEST(ToolsTime, DaysAreCountedFromTheEpoch) {
    EXPECT_EQ(Tools::days_from_1970(1970), 0);
    EXPECT_EQ(Tools::days_from_1970(1971), 365);
    EXPECT_EQ(Tools::days_from_1970(1969), -365);
    EXPECT_EQ(Tools::days_from_1970(1973), 1096);
    EXPECT_EQ(Tools::days_from_1970(2000), 10957);
}

TEST(ToolsTime, EveryMonthStartsAtItsDayOfTheYear) {
    static constexpr int kCommon[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
    static constexpr int kLeap[] = {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335};
    for (int month = 1; month <= 12; ++month) {
        EXPECT_EQ(Tools::days_from_1jan(2023, month, 1), kCommon[month - 1]) << month;
        EXPECT_EQ(Tools::days_from_1jan(2024, month, 1), kLeap[month - 1]) << month;
    }
    EXPECT_EQ(Tools::days_from_1jan(2023, 12, 31), 364);
    EXPECT_EQ(Tools::days_from_1jan(2024, 12, 31), 365);
}

TEST(ToolsTime, MonthOutsideTheYearIsRefused) {
    EXPECT_THROW(static_cast<void>(Tools::days_from_1jan(2023, 0, 1)), std::out_of_range);
    EXPECT_THROW(static_cast<void>(Tools::days_from_1jan(2023, 13, 1)), std::out_of_range);
}

TEST(ToolsTime, FirstOfMarch2000) {
    EXPECT_EQ(seconds(date(2000, 3, 1)), 951868800);
}

TEST(ToolsTime, TimeOfDayIsAdded) {
    std::tm time = date(1970, 1, 2);
    time.tm_hour = 3;
    time.tm_min = 4;
    time.tm_sec = 5;
    EXPECT_EQ(seconds(time), 86400 + 3 * 3600 + 4 * 60 + 5);
}

TEST(ToolsTime, Month12IsJanuaryOfTheNextYear) {
    EXPECT_EQ(seconds(date(1999, 13, 1)), seconds(date(2000, 1, 1)));
    EXPECT_EQ(seconds(date(1999, 13, 1)), 946684800);
    EXPECT_EQ(seconds(date(1999, 12 + 15, 7)), seconds(date(2001, 3, 7)));
}

TEST(ToolsTime, MonthMinus1IsDecemberOfTheYearBefore) {
    EXPECT_EQ(seconds(date(2000, 0, 1)), seconds(date(1999, 12, 1)));
    EXPECT_EQ(seconds(date(2000, 0, 1)), 944006400);
    EXPECT_EQ(seconds(date(2000, -11, 5)), seconds(date(1999, 1, 5)));
    EXPECT_EQ(seconds(date(2000, -12, 5)), seconds(date(1998, 12, 5)));
}

TEST(ToolsTime, SecondsMinutesHoursAndDaysAreTakenAsTheyStand) {
    std::tm time = date(2001, 1, 0);
    EXPECT_EQ(seconds(time), 978307200 - 86400);
    time.tm_mday = 32;
    time.tm_hour = 24;
    time.tm_min = -1;
    time.tm_sec = 61;
    EXPECT_EQ(seconds(time), 978307200 + 31 * 86400 + 86400 - 60 + 61);
}

TEST(ToolsTime, WeekdayDayOfYearAndSummerTimeAreIgnored) {
    std::tm time = date(2024, 7, 1);
    const std::int64_t expected = seconds(time);
    time.tm_wday = 5;
    time.tm_yday = 300;
    time.tm_isdst = 1;
    EXPECT_EQ(seconds(time), expected);
}

TEST(ToolsTime, DatesBeyond32BitsOfSecondsComeOutRight) {
    EXPECT_EQ(seconds(date(2038, 1, 20)), 2147558400);
    EXPECT_EQ(seconds(date(9999, 12, 31)), 253402214400);
    EXPECT_EQ(seconds(date(1900, 1, 1)), -2208988800);
}

TEST(ToolsTime, ExtremeDatesDoNotOverflow) {
    std::tm time{};
    time.tm_year = INT_MAX;
    time.tm_mon = INT_MAX;
    time.tm_mday = INT_MAX;
    time.tm_hour = INT_MAX;
    time.tm_min = INT_MAX;
    time.tm_sec = INT_MAX;
    EXPECT_GT(seconds(time), std::int64_t{67000000000000000});
    time.tm_year = INT_MIN;
    time.tm_mon = INT_MIN;
    EXPECT_LT(seconds(time), std::int64_t{-67000000000000000});
}

TEST(ToolsTime, EveryDayOfACalendarCycleIs86400SecondsAfterTheOneBefore) {
    std::int64_t expected = seconds(date(-1, 1, 1));
    for (int year = -1; year <= 2200; ++year)
        for (int month = 1; month <= 12; ++month)
            for (int day = 1; day <= monthLength(year, month); ++day, expected += 86400)
                ASSERT_EQ(seconds(date(year, month, day)), expected) << year << '-' << month << '-' << day;
}

TEST(ToolsTime, EveryMomentReadsAsTheCLibraryWouldSay) {
    for (std::int64_t moment = INT32_MIN; moment < INT32_MAX - 100003; moment += 100003) {
        const auto known = static_cast<std::time_t>(moment);
        std::tm time{};
        ::gmtime_r(&known, &time);
        ASSERT_EQ(seconds(time), moment);
    }
}

TEST(ToolsTime, SecondsBeforeATimestampCountDownAndGoNegative) {
    testsupport::TestClock::set(1700000000);
    EXPECT_EQ(Tools::getSecondBeforeReachTimestamp(1700000100), 100);
    EXPECT_EQ(Tools::getSecondBeforeReachTimestamp(1700000000), 0);
    EXPECT_EQ(Tools::getSecondBeforeReachTimestamp(1699999990), -10);
    testsupport::TestClock::reset();
}

}  // namespace
