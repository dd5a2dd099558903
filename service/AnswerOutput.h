#pragma once

#include <cstdint>
#include <string>

#include "support/Clock.h"
#include "support/Folder.h"
#include "support/UniqueFd.h"

namespace keywarden {

/// How long an answer may wait for its requester; a stop of the daemon cuts it short.
class Patience {
  public:
    /// Of an answer that is given while its service stops.
    static constexpr std::int64_t kMillisecondsAtTheEnd = 1000;

    explicit Patience(std::int64_t milliseconds) : limit_(milliseconds) {}

    [[nodiscard]] bool isOver() const;

  private:
    std::int64_t limit_;
    std::int64_t start_ = Clock::monotonicMilliseconds();
};

/// The requester's fifo, once it reads it. Nobody may be held up by a requester who made its fifo and does
/// not read: so never a blocking open. A want of descriptors or memory is waited out in the same way. errno
/// tells why there is none, ENOENT that the requester is gone. Its waits can be cancelled.
[[nodiscard]] UniqueFd openForAnswer(const Folder& folder, const std::string& name, const Patience& patience);

/// False when it was not written to its end. Its waits can be cancelled.
[[nodiscard]] bool writeAnswer(int output, const std::string& answer, const Patience& patience);

}  // namespace keywarden
