#pragma once

#include <csignal>

#include "support/UniqueFd.h"

namespace keywardctl {

/// Thrown by a wait that a signal ended. The signal itself takes effect when the HeldSignals are destroyed.
class Interrupted {};

/// Holds back SIGINT, SIGTERM and SIGHUP for its life, so that what must not stay behind (a fifo, a copy of a
/// file) is removed before they end the process. Waits in between have to be its own.
class HeldSignals {
  public:
    /// Throws Problem.
    HeldSignals();
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;
    ~HeldSignals();

    /// poll(2) of one descriptor (-1: none). The events it has, 0 after the time-out. Throws Interrupted when
    /// a signal came.
    short poll(int descriptor, short events, int timeoutMilliseconds) const;
    void sleep(int milliseconds) const { poll(-1, 0, milliseconds); }

  private:
    sigset_t before_{};
    keywarden::UniqueFd arrived_;
};

}  // namespace keywardctl
