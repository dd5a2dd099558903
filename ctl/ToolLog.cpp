// Takes the place of the daemon's log (a link-time seam): what the daemon's classes report while this program
// uses them is no business of the system log, least of all under the daemon's name.
#include "support/Debug.h"
#include "support/Log.h"

namespace keywarden {

std::atomic<bool> Log::s_open{false};

void Log::open() {
    s_open = true;
}

bool Log::write(Severity /*severity*/, const std::string& message) {
    debugTrace(message);
    return s_open;
}

void Log::close() {
    s_open = false;
}

}  // namespace keywarden
