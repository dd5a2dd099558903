#include "support/UtcText.h"

#include <gtest/gtest.h>

#include <array>
#include <ctime>

namespace {

using keywarden::utcText;

TEST(UtcText, MomentsReadWithTheirLineFeed) {
    EXPECT_EQ(utcText(0), "Thu Jan  1 00:00:00 1970\n");
    EXPECT_EQ(utcText(946555200), "Thu Dec 30 12:00:00 1999\n");
    EXPECT_EQ(utcText(951782399), "Mon Feb 28 23:59:59 2000\n");
    EXPECT_EQ(utcText(951782400), "Tue Feb 29 00:00:00 2000\n");
    EXPECT_EQ(utcText(951868800), "Wed Mar  1 00:00:00 2000\n");
}

TEST(UtcText, MomentsBeyond32BitsReadOnEveryPlatform) {
    EXPECT_EQ(utcText(2147483648), "Tue Jan 19 03:14:08 2038\n");
    EXPECT_EQ(utcText(4294967296), "Sun Feb  7 06:28:16 2106\n");
}

TEST(UtcText, LastFourDigitYearIsTheLastWrittenAsADate) {
    EXPECT_EQ(utcText(253402300799), "Fri Dec 31 23:59:59 9999\n");
    EXPECT_EQ(utcText(253402300800), "253402300800 seconds since the epoch\n");
    EXPECT_EQ(utcText(UINT64_MAX), "18446744073709551615 seconds since the epoch\n");
}

TEST(UtcText, EveryMomentReadsAsTheCLibraryWouldSay) {
    for (std::uint64_t moment = 0; moment < INT32_MAX; moment += 700001) {
        const auto known = static_cast<std::time_t>(moment);
        std::tm parts{};
        std::array<char, 64> text{};
        ::gmtime_r(&known, &parts);
        ::asctime_r(&parts, text.data());
        ASSERT_EQ(utcText(moment), text.data());
    }
}

}  // namespace
