#include "testsupport/TestClock.h"

#include <atomic>
#include <chrono>

#include "support/Clock.h"

namespace {

constexpr std::int64_t kNotSet = INT64_MIN;
std::atomic<std::int64_t> fixedTime{kNotSet};
std::atomic<std::int64_t> shiftSeconds{0};
std::atomic<std::int64_t> monotonicExtra{0};

template <typename ClockType>
std::int64_t milliseconds() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(ClockType::now().time_since_epoch()).count();
}

}  // namespace

namespace keywarden {

std::int64_t Clock::now() {
    return fixedTime == kNotSet ? nowMilliseconds() / 1000 : fixedTime.load();
}

std::int64_t Clock::nowMilliseconds() {
    return fixedTime == kNotSet ? milliseconds<std::chrono::system_clock>() + shiftSeconds * 1000
                                : fixedTime * 1000;
}

std::int64_t Clock::monotonicMilliseconds() {
    return milliseconds<std::chrono::steady_clock>() + monotonicExtra;
}

}  // namespace keywarden

namespace testsupport {

void TestClock::set(std::int64_t secondsSinceEpoch) {
    fixedTime = secondsSinceEpoch;
}

void TestClock::shift(std::int64_t seconds) {
    fixedTime = kNotSet;
    shiftSeconds = seconds;
}

void TestClock::reset() {
    fixedTime = kNotSet;
    shiftSeconds = 0;
}

void TestClock::passMonotonic(std::int64_t milliseconds) {
    monotonicExtra += milliseconds;
}

}  // namespace testsupport
