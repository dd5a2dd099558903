// Built with 64-bit time on every target: nothing but fixed-width integers may leave this file.
#include "support/Clock.h"

#include <ctime>

namespace keywarden {

namespace {

std::int64_t milliseconds(clockid_t clock) {
    timespec reading{};
    ::clock_gettime(clock, &reading);
    return static_cast<std::int64_t>(reading.tv_sec) * 1000 + reading.tv_nsec / 1000000;
}

}  // namespace

std::int64_t Clock::now() {
    timespec reading{};
    ::clock_gettime(CLOCK_REALTIME, &reading);
    return reading.tv_sec;
}

std::int64_t Clock::nowMilliseconds() {
    return milliseconds(CLOCK_REALTIME);
}

std::int64_t Clock::monotonicMilliseconds() {
    return milliseconds(CLOCK_MONOTONIC);
}

}  // namespace keywarden
