#pragma once

#include <string>

namespace keywarden {

/// The exit status of the daemon. A parent that has forked leaves with 0.
enum ExitCode : int {
    ExitOrderlyStop = 10,
    ExitFailure = 12,
    ExitAlreadyRunning = 13,
};

/// Creates the readiness marker /var/run/ready/<pid>; a failure is only logged.
void ready();
void unready();

/// Writes the last log line and ends the process; removeFiles takes the lock and pid files away. Any thread
/// may call it; only the first caller ends the process, any other waits for that.
[[noreturn]] void exitDaemon(int code, const std::string& reason, bool removeFiles);

/// Stops every service, removes the notification fifo and the named-pipes directory, and exits with code 10.
/// The main thread only.
[[noreturn]] void shutdown();

/// Where the start-up may be left: does nothing unless a stop was asked for, which then is an orderly one.
void shutdownIfAsked();

}  // namespace keywarden
