#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <stdexcept>

#include "check/Rules.h"
#include "stores/RegularFile.h"

namespace keywardctl::check {

namespace {

constexpr std::size_t kLargestPidFile = 64;
constexpr const char* kDaemonName = "keywardd";

// A number may have gone to another program since. Where there is no /proc, being there has to do.
bool isDaemon(pid_t pid) {
    if (pid <= 0 || (::kill(pid, 0) != 0 && errno != EPERM))
        return false;
    std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    return !std::getline(file, name) || name.compare(0, std::string(kDaemonName).size(), kDaemonName) == 0;
}

/// 0 for a file that holds none.
pid_t pidIn(const std::string& path) {
    try {
        const long number =
            std::strtol(keywarden::readRegularFile(path, kLargestPidFile).c_str(), nullptr, 10);
        return number > 0 && number <= std::numeric_limits<pid_t>::max() ? static_cast<pid_t>(number) : 0;
    } catch (const std::runtime_error&) {
        return 0;
    }
}

std::string ownerOf(const std::string& pidFile) {
    struct stat info {};
    if (::lstat(pidFile.c_str(), &info) != 0 && errno == ENOENT)
        return "there is no pid file";
    return "no daemon has the process id of the pid file";
}

}  // namespace

void checkLock(const Subject& subject, Report& report) {
    const std::string lock = subject.daemon.values.text("lockFile");
    const std::string pidFile = subject.daemon.values.text("pidFile");
    struct stat info {};
    if (lock.empty() || pidFile.empty() || ::lstat(lock.c_str(), &info) != 0)
        return;
    if (::access(pidFile.c_str(), R_OK) != 0 && errno == EACCES) {
        report.addNotLookedAt(pidFile, std::strerror(EACCES));
        return;
    }
    if (!isDaemon(pidIn(pidFile)))
        report.add(Code::StaleLock, {lock},
                   "the lock of a daemon that no longer runs (" + ownerOf(pidFile) +
                       "): the next one does not start",
                   "Make sure that no keywardd runs, then remove it with 'rm " + lock + "'.");
}

}  // namespace keywardctl::check
