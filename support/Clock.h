#pragma once

#include <cstdint>

namespace keywarden {

/// The only reader of the clocks. Tests link another definition of these functions in its place.
class Clock {
  public:
    /// Wall clock, whole seconds since the epoch, UTC.
    [[nodiscard]] static std::int64_t now();

    /// Wall clock, milliseconds since the epoch, UTC.
    [[nodiscard]] static std::int64_t nowMilliseconds();

    /// A clock that no one sets: milliseconds since some moment, the time asleep (suspend) not counted.
    [[nodiscard]] static std::int64_t monotonicMilliseconds();
};

}  // namespace keywarden
