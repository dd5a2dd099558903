// The pid file, and giving up root.
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "daemon/DaemonConfiguration.h"
#include "daemon/PidFile.h"
#include "daemon/StartUp.h"
#include "support/Accounts.h"
#include "support/Common.h"
#include "support/Debug.h"
#include "support/FileWriteError.h"
#include "support/KeywardenDaemonException.h"
#include "support/Log.h"
#include "support/Tools.h"

namespace keywarden {

namespace {

constexpr mode_t kPidFileMode = 0664;

void makePidFile(const std::string& path, const std::string& user) {
    Common::removeFile(path);
    try {
        writePidFile(path, ::getpid(), user);
    } catch (const FileWriteError& error) {
        const std::string failure =
            "Failed to open pid file '" + path + "', err: " + std::strerror(error.errorNumber());
        Log::write(SeverityError, failure);
        throw KeywardenDaemonException(failure);
    }
    if (::chmod(path.c_str(), kPidFileMode) != 0) {
        Log::write(SeverityError, "Error to assign required permissions to: " + path);
        throw KeywardenDaemonException("Failed to assign required permissions to file: " + path);
    }
}

// Each step is tried for itself; a failure is logged and the next one follows.
void report(int result, const std::string& failure, const std::string& success) {
    if (result != 0)
        Log::write(SeverityError, failure + std::strerror(errno));
    else
        debugTrace(success);
}

void becomeUser(const std::string& user) {
    debugTrace("Change the user... ");
    const std::vector<gid_t> groups = Tools::getGroups(user);
    if (!groups.empty())
        report(::setgroups(groups.size(), groups.data()),
               "Failed to set groups ID, err: ", " -> Set Groups done.");
    else if (::setgroups(0, nullptr) != 0)  // those of root must not stay
        Log::write(SeverityError, std::string("Failed to set groups ID, err: ") + std::strerror(errno));
    if (const auto gid = groupIdOf(user))
        report(::setregid(*gid, *gid), "Failed to set group ID, err: ", " -> Set main group done.");
    if (const auto uid = userIdOf(user))
        report(::setreuid(*uid, *uid), "Failed to set user ID, err: ", " -> Set user done.");
    debugTrace("Change the user... done.");
}

}  // namespace

void initDaemon() {
    const DaemonConfiguration& configuration = DaemonConfiguration::getInstance();
    makePidFile(configuration.getPidFile(), configuration.getDaemonUser());
    if (::getuid() == 0 || ::geteuid() == 0)
        becomeUser(configuration.getDaemonUser());
}

}  // namespace keywarden
