#pragma once

#include <csignal>
#include <cstdint>

namespace keywarden {

/// The request to stop the daemon, for everything that waits or takes long: running scripts, answers to slow
/// requesters, a series of services to start or to notify.
class StopRequest {
  public:
    /// SIGINT, SIGTERM and SIGQUIT.
    [[nodiscard]] static sigset_t signals();

    /// Any thread, any number of times; the first call starts the budget.
    static void raise();

    /// raise() was called, or one of the signals is blocked and pending: the start-up works for a while
    /// before the thread that takes them runs.
    [[nodiscard]] static bool isRaised();

    /// Readable from raise() on. Owned by this class.
    [[nodiscard]] static int raisedDescriptor();
    /// Readable while one of the signals is pending. Owned by this class.
    [[nodiscard]] static int pendingSignalDescriptor();

    /// Milliseconds that an orderly stop may still spend on waiting for others; the whole budget before it.
    [[nodiscard]] static std::int64_t millisecondsLeft();
};

}  // namespace keywarden
