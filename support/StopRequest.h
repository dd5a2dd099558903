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

    /// How long a program or a library of others may still go on: one that is at work when the stop is asked
    /// for from then on, one that is started later (it is told of the stop) from its start on. Each has its
    /// own.
    static constexpr std::int64_t kGraceMilliseconds = 2000;

    /// Any thread, any number of times; the first call is the moment of the stop.
    static void raise();

    /// raise() was called, or one of the signals is blocked and pending: the start-up works for a while
    /// before the thread that takes them runs.
    [[nodiscard]] static bool isRaised();

    /// Readable from raise() on. Owned by this class.
    [[nodiscard]] static int raisedDescriptor();
    /// Readable while one of the signals is pending. Owned by this class.
    [[nodiscard]] static int pendingSignalDescriptor();

    /// Milliseconds that have gone by since the stop was asked for or, if that is later, since `start` (as
    /// Clock::monotonicMilliseconds() gave it). 0 when none was asked for.
    [[nodiscard]] static std::int64_t millisecondsOfStop(std::int64_t start);
};

}  // namespace keywarden
