#include "daemon/Daemonize.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <string>
#include <utility>

#include "config/DaemonConfiguration.h"
#include "daemon/Exit.h"
#include "daemon/PidFile.h"
#include "daemon/StartUp.h"
#include "support/Cancellation.h"
#include "support/Debug.h"
#include "support/Log.h"
#include "support/RegularFile.h"
#include "support/StopRequest.h"
#include "support/Tools.h"
#include "support/UniqueFd.h"

namespace keywarden {

namespace {

constexpr int kTransfers = 100;
constexpr std::int64_t kPauseMilliseconds = 10;
constexpr int kLooks = 500;
constexpr std::size_t kLongestPidFile = 32;

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

// The result of the last attempt.
template <typename Transfer>
ssize_t tryAgain(Transfer&& transfer) {
    ssize_t count = transfer();
    for (int made = 1; count < 0 && (errno == EINTR || errno == EAGAIN) && made < kTransfers; ++made) {
        if (errno == EAGAIN)
            Cancellation::sleep(kPauseMilliseconds);
        count = transfer();
    }
    return count;
}

bool pidFileNames(pid_t process) {
    const DaemonConfiguration& configuration = DaemonConfiguration::getInstance();
    try {
        return readRegularFile(configuration.getPidFile(), kLongestPidFile) == std::to_string(process);
    } catch (const std::exception&) {
        return false;
    }
}

// The parent writes the pid file at once, or takes the lock away and ends.
void awaitPidFileItself() {
    const std::string lock = DaemonConfiguration::getInstance().getLockFile();
    for (int looks = 0; looks < kLooks && !pidFileNames(::getpid()); ++looks) {
        if (!Tools::fileExist(lock))
            ::_exit(ExitFailure);
        Cancellation::sleep(kPauseMilliseconds);
    }
}

// A child that fails at once must not remove the pid file before the parent has made it. The parent says one
// byte when it has; nothing comes when it failed and took the files away, or when it could not say it.
void awaitPidFile(Pipe pipe) {
    pipe.writeEnd.reset();
    char said = 0;
    const ssize_t count = tryAgain([&] { return ::read(pipe.readEnd.get(), &said, 1); });
    if (count < 0) {
        Log::write(SeverityError,
                   std::string("The parent process cannot be heard, err: ") + std::strerror(errno));
        awaitPidFileItself();
    } else if (count == 0 && !pidFileNames(::getpid())) {
        ::_exit(ExitFailure);
    }
}

// Refused where the process leads its group already, as one whose parent is process 1 may.
void leaveStarter() {
    static_cast<void>(::setsid());
    releaseStandardStreams();
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
    // Without it the child looks for itself when this process has ended.
    static_cast<void>(tryAgain([&] { return ::write(pipe.writeEnd.get(), &done, 1); }));
    passOnPendingStop(child);
    // Not exit(): what the parent has set up now belongs to the child.
    ::_exit(0);
}

}  // namespace

void daemonize() {
    debugTrace("Are we already a deamon ?");
    if (::getppid() == 1) {
        leaveStarter();
        return;
    }
    debugTrace("Are we already a deamon ? No. Create a daemon.");
    Pipe pipe = makePipe();
    const pid_t child = ::fork();
    if (child < 0) {
        Log::write(SeverityError, std::string("Daemon Failure: Fork failed ") + std::strerror(errno));
        exitDaemon(ExitFailure, "", true);
    }
    if (child > 0)
        leaveParent(child, pipe);
    // First of all: what happens to the starter's terminal is no business of the child's.
    leaveStarter();
    awaitPidFile(std::move(pipe));
    becomeBackgroundProcess();
}

}  // namespace keywarden
