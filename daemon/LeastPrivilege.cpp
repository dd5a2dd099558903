// What is left of root's power when the identity alone has been changed.
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include "config/DaemonConfiguration.h"
#include "daemon/StartUp.h"
#include "support/Accounts.h"
#include "support/Log.h"

namespace keywarden {

namespace {

void logFailure(const std::string& what) {
    Log::write(SeverityError, "Failed to " + what + ", err: " + std::strerror(errno));
}

// Until the kernel knows no further one: it may be newer or older than the headers of this build.
bool emptyBoundingSet() {
    for (unsigned long capability = 0; ::prctl(PR_CAPBSET_READ, capability, 0, 0, 0) >= 0; ++capability) {
        if (::prctl(PR_CAPBSET_READ, capability, 0, 0, 0) == 1 &&
            ::prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) != 0)
            return false;
    }
    return true;
}

// The C library has no name for this call. With the inheritable set the ambient one goes as well.
bool emptyCapabilitySets() {
    __user_cap_header_struct header{};
    header.version = _LINUX_CAPABILITY_VERSION_3;
    const std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> none{};
    return ::syscall(SYS_capset, &header, none.data()) == 0;
}

}  // namespace

void limitCapabilities() {
    if (::geteuid() != 0 || userIdOf(DaemonConfiguration::getInstance().getDaemonUser()) == uid_t{0})
        return;
    if (!emptyBoundingSet())
        logFailure("empty the bounding set of capabilities");
}

void giveUpPrivileges() {
    // A daemon user who is root is meant to be mighty; so are the scripts that run as this user.
    if (::geteuid() != 0 && !emptyCapabilitySets())
        logFailure("give up the capabilities");
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1UL, 0UL, 0UL, 0UL) != 0)
        logFailure("forbid new privileges");
    // Not by a limit, which scripts would inherit. Some systems do it at every change of the user, some do
    // not.
    if (::prctl(PR_SET_DUMPABLE, 0UL, 0UL, 0UL, 0UL) != 0)
        logFailure("switch core dumps off");
}

}  // namespace keywarden
