#pragma once

#include <algorithm>
#include <cstdint>

#include "support/Clock.h"

namespace keywardctl {

/// The moment at which a command gives up.
class Deadline {
  public:
    explicit Deadline(std::int64_t seconds)
        : seconds_(seconds), end_(keywarden::Clock::monotonicMilliseconds() + seconds * 1000) {}

    /// What was allowed in all.
    [[nodiscard]] std::int64_t seconds() const { return seconds_; }
    [[nodiscard]] bool isOver() const { return millisecondsLeft() == 0; }
    [[nodiscard]] std::int64_t millisecondsLeft() const {
        return std::max<std::int64_t>(0, end_ - keywarden::Clock::monotonicMilliseconds());
    }
    /// The time left, but no more than `most`: for one poll(2).
    [[nodiscard]] int slice(int most) const {
        return static_cast<int>(std::min<std::int64_t>(millisecondsLeft(), most));
    }

  private:
    std::int64_t seconds_;
    std::int64_t end_;
};

}  // namespace keywardctl
