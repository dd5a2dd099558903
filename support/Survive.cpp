#include "support/Survive.h"

#include <syslog.h>

#include <string>

#include "support/Log.h"

namespace keywarden {

void logFailureAnyhow(const char* what, const char* why) noexcept {
    try {
        Log::write(SeverityError, std::string(what) + " failed: " + why);
    } catch (const std::exception&) {
        ::syslog(LOG_ERR, "%s failed", what);
    }
}

}  // namespace keywarden
