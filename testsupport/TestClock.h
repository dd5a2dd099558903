#pragma once

#include <cstdint>

namespace testsupport {

/// Takes the place of the wall clock in test programs (a link-time seam). Not set: the real time.
class TestClock {
  public:
    /// Seconds since the epoch; the clock then stands still.
    static void set(std::int64_t secondsSinceEpoch);
    /// The clock runs on, this many seconds off the real time.
    static void shift(std::int64_t seconds);
    static void reset();

    /// More time has passed, all at once, on the clock that no one sets.
    static void passMonotonic(std::int64_t milliseconds);
};

}  // namespace testsupport
