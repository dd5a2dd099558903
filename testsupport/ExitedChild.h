#pragma once

#include <functional>
#include <string>
#include <vector>

#include "testsupport/CapturedLog.h"

namespace testsupport {

/// What became of a process that was forked to do something final.
struct ExitedChild {
    int waitStatus = 0;
    std::vector<LogLine> log;   ///< from the fork on
    std::string standardError;  ///< with the debug traces, which are on in the child

    [[nodiscard]] bool exitedWith(int code) const;
    [[nodiscard]] bool logged(keywarden::Severity severity, const std::string& text) const;
    /// Everything, for the message of a failed assertion.
    [[nodiscard]] std::string dump() const;
};

/// Runs `body` in a forked child until it calls exit(), from whichever thread. A body that returns ends the
/// child with status 0, one that throws with 99. The child's own static objects are not destroyed, since they
/// stand for things that the parent still uses.
ExitedChild runToExit(const std::function<void()>& body);

}  // namespace testsupport
