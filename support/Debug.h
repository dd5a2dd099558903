#pragma once

#include <string>

namespace keywarden {

/// Set once by the start-up, before any thread exists, when the daemon runs with "-d".
extern bool gDebug;

/// A line on standard error while gDebug is set; never in the system log.
void debugTrace(const std::string& message);

}  // namespace keywarden
