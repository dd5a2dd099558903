// Stands in the place of the daemon's clock: the wall clock is moved by the seconds that a file next to the
// daemon's configuration holds, read again at every look.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include "support/Clock.h"

namespace keywarden {

namespace {

constexpr const char* kOffsetPath = "/etc/keywarden/test-clock-offset";

std::int64_t milliseconds(clockid_t clock) {
    timespec reading{};
    ::clock_gettime(clock, &reading);
    return static_cast<std::int64_t>(reading.tv_sec) * 1000 + reading.tv_nsec / 1000000;
}

std::int64_t offsetMilliseconds() {
    std::FILE* file = std::fopen(kOffsetPath, "re");
    if (file == nullptr)
        return 0;
    double seconds = 0;
    if (std::fscanf(file, "%lf", &seconds) != 1)
        seconds = 0;
    std::fclose(file);
    return std::llround(seconds * 1000);
}

}  // namespace

std::int64_t Clock::now() {
    return nowMilliseconds() / 1000;
}

std::int64_t Clock::nowMilliseconds() {
    return milliseconds(CLOCK_REALTIME) + offsetMilliseconds();
}

std::int64_t Clock::monotonicMilliseconds() {
    return milliseconds(CLOCK_MONOTONIC);
}

}  // namespace keywarden
