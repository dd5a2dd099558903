#pragma once

#include <cstdint>

namespace testsupport {

/// Takes the place of the wall clock in test programs (a link-time seam). Not set: the real time.
class TestClock {
  public:
    /// Seconds since the epoch; the clock then stands still.
    static void set(std::int64_t secondsSinceEpoch);
    static void reset();
};

}  // namespace testsupport
