#include "support/Log.h"

#include <syslog.h>

#include "support/Debug.h"

namespace keywarden {

std::atomic<bool> Log::s_open{false};

void Log::open() {
    if (s_open)
        return;
    ::openlog("key-warden", LOG_PID, LOG_DAEMON);
    s_open = true;
}

bool Log::write(Severity severity, const std::string& message) {
    if (!s_open)
        return false;
    ::syslog(severity, "%s", message.c_str());
    debugTrace(message);
    return true;
}

void Log::close() {
    if (!s_open)
        return;
    ::closelog();
    s_open = false;
}

}  // namespace keywarden
