#include "ctl/Text.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

using namespace keywardctl;

namespace {

TEST(PrintableText, ControlsAndWhatIsNoUtf8BecomeQuestionMarks) {
    EXPECT_EQ(printable("plain M\xc3\xbcnchen \xe2\x82\xac \xf0\x9f\x98\x80"),
              "plain M\xc3\xbcnchen \xe2\x82\xac \xf0\x9f\x98\x80");
    EXPECT_EQ(printable("a\x1b[31m\n\t\x7f"), "a?[31m???");
    EXPECT_EQ(printable("\xc2\x9b"), "?");             // a control sequence's start in one character
    EXPECT_EQ(printable("\xff\xc3"), "??");            // cut off
    EXPECT_EQ(printable("\xc0\xaf"), "??");            // overlong
    EXPECT_EQ(printable("\xe0\x80\xaf"), "???");       // overlong
    EXPECT_EQ(printable("\xed\xa0\x80"), "???");       // a surrogate
    EXPECT_EQ(printable("\xf4\x90\x80\x80"), "????");  // beyond the last character
    EXPECT_EQ(printable(std::string("a\0b", 3)), "a?b");
}

TEST(ValidUtf8, ControlsStay) {
    EXPECT_EQ(validUtf8("a\n\x1b"), "a\n\x1b");
    EXPECT_EQ(validUtf8("a\xfe"), "a?");
}

TEST(UtcText, MomentsNearAndFar) {
    EXPECT_EQ(utcText(0), "1970-01-01 00:00:00 UTC");
    EXPECT_EQ(utcText(951782399), "2000-02-28 23:59:59 UTC");
    EXPECT_EQ(utcText(951868800), "2000-03-01 00:00:00 UTC");
    EXPECT_EQ(utcText(-1), "1969-12-31 23:59:59 UTC");
    EXPECT_EQ(utcText(4107542399), "2100-02-28 23:59:59 UTC");
    EXPECT_EQ(utcText(4107542400), "2100-03-01 00:00:00 UTC");
    EXPECT_EQ(utcText(253402300799), "9999-12-31 23:59:59 UTC");
    EXPECT_EQ(utcText(-2208988800), "1900-01-01 00:00:00 UTC");
}

TEST(DaysUntil, RoundsDown) {
    EXPECT_EQ(daysUntil(86400, 0), 1);
    EXPECT_EQ(daysUntil(86399, 0), 0);
    EXPECT_EQ(daysUntil(0, 0), 0);
    EXPECT_EQ(daysUntil(-1, 0), -1);
    EXPECT_EQ(daysUntil(-86400, 0), -1);
    EXPECT_EQ(daysUntil(-86401, 0), -2);
    EXPECT_EQ(daysUntil(253402300799, 0), 2932896);
}

TEST(Joined, NothingBeforeTheFirst) {
    EXPECT_EQ(joined({}, ", "), "");
    EXPECT_EQ(joined({"a", "b"}, ", "), "a, b");
}

}  // namespace
