#include "daemon/Daemonize.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "daemon/DaemonConfiguration.h"
#include "daemon/Exit.h"
#include "daemon/PidFile.h"
#include "support/Debug.h"
#include "support/Log.h"
#include "support/StopRequest.h"
#include "support/UniqueFd.h"

namespace keywarden {

namespace {

struct Pipe {
    UniqueFd readEnd;
    UniqueFd writeEnd;
};

Pipe makePipe() {
    std::array<int, 2> ends{-1, -1};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0)
        exitDaemon(ExitFailure, std::string("pipe failed: ") + std::strerror(errno), true);
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

// A child that fails at once must not remove the pid file before the parent has made it. The parent says one
// byte when it has; nothing comes when it failed and took the files away.
void awaitPidFile(Pipe pipe) {
    pipe.writeEnd.reset();
    char said = 0;
    ssize_t count = 0;
    do
        count = ::read(pipe.readEnd.get(), &said, 1);
    while (count < 0 && errno == EINTR);
    if (count != 1)
        ::_exit(ExitFailure);
}

void becomeBackgroundProcess() {
    static_cast<void>(::signal(SIGCHLD, SIG_DFL));
    for (const int ignored : {SIGTSTP, SIGTTOU, SIGTTIN, SIGHUP})
        static_cast<void>(::signal(ignored, SIG_IGN));
}

// A stop that reached the parent while it forked was meant for the daemon.
void passOnPendingStop(pid_t child) {
    if (StopRequest::isRaised())
        ::kill(child, SIGTERM);
}

[[noreturn]] void leaveParent(pid_t child, const Pipe& pipe) {
    const DaemonConfiguration& configuration = DaemonConfiguration::getInstance();
    const std::string path = configuration.getPidFile();
    try {
        writePidFile(path, child, configuration.getDaemonUser());
    } catch (...) {
        Log::write(SeverityError, "PID File '" + path + "' open failed");
        exitDaemon(ExitFailure, "", true);
    }
    Log::write(SeverityInfo, "Parent process terminating after successfull fork.");
    const char done = 1;
    static_cast<void>(!::write(pipe.writeEnd.get(), &done, 1));
    passOnPendingStop(child);
    // Not exit(): what the parent has set up now belongs to the child.
    ::_exit(0);
}

}  // namespace

void daemonize() {
    debugTrace("Are we already a deamon ?");
    if (::getppid() == 1)
        return;
    debugTrace("Are we already a deamon ? No. Create a daemon.");
    Pipe pipe = makePipe();
    const pid_t child = ::fork();
    if (child < 0) {
        Log::write(SeverityError, std::string("Daemon Failure: Fork failed ") + std::strerror(errno));
        exitDaemon(ExitFailure, "", true);
    }
    if (child > 0)
        leaveParent(child, pipe);
    awaitPidFile(std::move(pipe));
    becomeBackgroundProcess();
}

}  // namespace keywarden
