#pragma once

namespace keywardctl {

/// What scripts and monitoring can tell apart.
enum class ExitCode {
    Done = 0,              ///< or there was nothing to do
    Failed = 1,            ///< also: "check" found something
    Usage = 2,             ///< the command line is wrong
    DaemonNotRunning = 3,  ///< nobody answers
    Refused = 4,           ///< the daemon answered, and said no; its text is on standard error
};

}  // namespace keywardctl
