#pragma once

#include <algorithm>
#include <cstdint>

namespace keywarden {

/// The pauses between attempts at something that fails for want of memory, threads or descriptors: each is
/// twice as long as the one before, so that waiting costs the device ever less.
class GrowingPause {
  public:
    /// In milliseconds.
    explicit constexpr GrowingPause(std::int64_t first = 100, std::int64_t longest = 60000)
        : next_(first), longest_(longest) {}

    /// Milliseconds to wait before the next attempt.
    constexpr std::int64_t next() {
        const std::int64_t pause = next_;
        next_ = std::min(2 * next_, longest_);
        return pause;
    }

  private:
    std::int64_t next_;
    std::int64_t longest_;
};

}  // namespace keywarden
