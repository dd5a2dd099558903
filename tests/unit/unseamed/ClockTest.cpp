#include "support/Clock.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

using keywarden::Clock;

TEST(Clock, WallClockReadsSecondsAndMillisecondsOfTheSameTime) {
    using std::chrono::system_clock;
    const auto before = system_clock::to_time_t(system_clock::now());
    const std::int64_t seconds = Clock::now();
    const std::int64_t milliseconds = Clock::nowMilliseconds();
    const auto after = system_clock::to_time_t(system_clock::now());
    EXPECT_LE(before, seconds);
    EXPECT_LE(seconds, milliseconds / 1000);
    EXPECT_LE(milliseconds / 1000, after);
}

TEST(Clock, MonotonicClockNeverGoesBack) {
    std::int64_t last = Clock::monotonicMilliseconds();
    for (int round = 0; round < 1000; ++round) {
        const std::int64_t next = Clock::monotonicMilliseconds();
        ASSERT_LE(last, next);
        last = next;
    }
}

}  // namespace
