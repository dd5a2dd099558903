#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ctl/check/Rules.h"
#include "ctl/check/RunningDaemon.h"
#include "support/FileStatus.h"

namespace keywardctl::check {

namespace {

std::string ownerOf(const std::string& pidFile) {
    if (!keywarden::linkStatusOfPath(pidFile) && errno == ENOENT)
        return "there is no pid file";
    return "no daemon has the process id of the pid file";
}

}  // namespace

void checkLock(const Subject& subject, Report& report) {
    const std::string lock = subject.daemon.values.text(DaemonKey::LockFile);
    const std::string pidFile = subject.daemon.values.text(DaemonKey::PidFile);
    if (lock.empty() || pidFile.empty() || !keywarden::linkStatusOfPath(lock))
        return;
    if (::access(pidFile.c_str(), R_OK) != 0 && errno == EACCES) {
        report.addNotLookedAt(pidFile, std::strerror(EACCES));
        return;
    }
    if (runningDaemon(subject) == 0)
        report.add(Code::StaleLock, {lock},
                   "the lock of a daemon that no longer runs (" + ownerOf(pidFile) +
                       "): the next one does not start",
                   "Make sure that no keywardd runs, then remove it with 'rm " + lock + "'.");
}

}  // namespace keywardctl::check
