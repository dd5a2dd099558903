#pragma once

#include <string>

#include "ctl/Deadline.h"
#include "ctl/Device.h"
#include "ctl/HeldSignals.h"
#include "support/UniqueFd.h"

namespace keywardctl {

/// The lock that keeps the requesters of one service apart, held for its life (flock(2) on "<service>.lock").
///
/// While a request of ours is unanswered the file holds a mark, which a requester that is killed or gives up
/// leaves there: the daemon may still answer it, and its successor must not take that answer for its own.
class RequesterLock {
  public:
    /// Waits until the lock is free. Throws Problem at the deadline, and when there is no lock file or the
    /// user may not use it; Interrupted.
    RequesterLock(const Device& device, const std::string& service, const Deadline& deadline,
                  const HeldSignals& signals);

    /// Whether the holder before left a request unanswered.
    [[nodiscard]] bool isMarked() const;
    /// Throws Problem.
    void mark() const;
    void unmark() const;

  private:
    [[nodiscard]] keywarden::UniqueFd open(const Device& device, const std::string& service) const;

    std::string path_;
    keywarden::UniqueFd file_;
};

}  // namespace keywardctl
