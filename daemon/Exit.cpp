#include "daemon/Exit.h"

#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "callbacks/LibraryWrapperServiceCallbacks.h"
#include "config/DaemonConfiguration.h"
#include "daemon/DaemonState.h"
#include "daemon/NotificationThread.h"
#include "service/Service.h"
#include "support/Common.h"
#include "support/Debug.h"
#include "support/Failure.h"
#include "support/Folder.h"
#include "support/Log.h"
#include "support/StopRequest.h"
#include "support/Survive.h"
#include "support/UniqueFd.h"

namespace keywarden {

namespace {

// As system(3) does it, but with SIGINT and SIGQUIT left as they are: system ignores them meanwhile, and so
// throws away the one that asks the daemon to stop.
// cppcheck-suppress passedByValue ; the argument list wants a text that may be written to
bool runCommand(std::string command) {
    posix_spawnattr_t attributes;
    ::posix_spawnattr_init(&attributes);
    sigset_t none;
    ::sigemptyset(&none);
    ::posix_spawnattr_setsigmask(&attributes, &none);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    std::string shell = "sh";
    std::string option = "-c";
    const std::array<char*, 4> arguments{shell.data(), option.data(), command.data(), nullptr};
    pid_t pid = -1;
    errno = ::posix_spawn(&pid, "/bin/sh", &actions, &attributes, arguments.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::posix_spawnattr_destroy(&attributes);
    if (pid < 0)
        return false;
    pid_t ended = -1;
    do
        ended = ::waitpid(pid, nullptr, 0);
    while (ended < 0 && errno == EINTR);
    return ended == pid;
}

// A shell command with the process id, as the platform's readiness convention wants it.
bool runForPid(const char* format) {
    std::array<char, 32> command{};
    // The longest id fits.
    static_cast<void>(std::snprintf(command.data(), command.size(), format, static_cast<int>(::getpid())));
    return runCommand(command.data());
}

void removeInstanceFiles() {
    try {
        const DaemonConfiguration& configuration = DaemonConfiguration::getInstance();
        Common::removeFile(configuration.getLockFile());
        Common::removeFile(configuration.getPidFile());
    } catch (...) {
        Log::write(SeverityEmergency,
                   Failure::current().message(
                       "Std exception caught while removing the files while exiting the daemon: ",
                       "Unknown exception caught while removing the files while exiting the daemon"));
    }
    ::sync();
}

void logTakenSignal() {
    const sigset_t set = StopRequest::signals();
    timespec atOnce{};
    const int taken = ::sigtimedwait(&set, nullptr, &atOnce);
    if (taken > 0)
        Log::write(SeverityInfo, std::string("Received fatal signal : ") + ::strsignal(taken));
}

// The process has no umask, and a file that everybody may write is a way to fill the file system.
void narrowMarker() {
    try {
        const FolderPtr folder = Folder::at("/var/run/ready", Folder::Owner::Anybody);
        const UniqueFd marker = folder->openRegular(std::to_string(::getpid()));
        if (marker)
            static_cast<void>(::fchmod(marker.get(), 0644));
    } catch (const std::exception& error) {
        debugTrace(error.what());  // there is none
    }
}

}  // namespace

void ready() {
    if (!runForPid("touch /var/run/ready/%d"))
        Log::write(SeverityError,
                   std::string("ready(): Failed to touch /var/run/ready PID, err: ") + std::strerror(errno));
    narrowMarker();
}

void unready() {
    // Says "touch" too.
    if (!runForPid("rm -f /var/run/ready/%d"))
        Log::write(SeverityError, std::string("unready(): Failed to touch /var/run/ready PID, err: ") +
                                      std::strerror(errno));
}

void exitDaemon(int code, const std::string& reason, bool removeFiles) {
    static std::atomic_flag leaving = ATOMIC_FLAG_INIT;
    while (leaving.test_and_set())
        ::pause();
    if (removeFiles)
        survives("Removing the files of the daemon", removeInstanceFiles);
    const Severity severity = code == ExitOrderlyStop ? SeverityNotice : SeverityEmergency;
    const auto sayWhy = [&] {
        const std::string line = "Stopping with the code " + std::to_string(code) +
                                 (reason.empty() ? std::string("...") : " due to " + reason + "...");
        debugTrace(line);
        Log::write(severity, line);
    };
    if (!survives("The last line of the daemon", sayWhy))
        ::syslog(severity, "Stopping with the code %d%s%s...", code, reason.empty() ? "" : " due to ",
                 reason.c_str());
    Log::close();
    survives("Taking the readiness marker away", unready);
    // Not exit(): it would run what the library registered for the end, beside threads that still use it.
    if (isCallbackLibraryLoaded())
        std::quick_exit(code);
    std::exit(code);
}

void shutdown() {
    StopRequest::raise();
    for (const auto& service : services()) {
        try {
            service->shutdown();
        } catch (...) {
            Log::write(SeverityError, "Unknown exception caught while shutdowning the service '" +
                                          service->getServiceId() + "'.");
        }
    }
    for (auto& service : services())
        service.reset();
    Common::removeFile(notificationFifoPath());
    Common::removeDir(DaemonConfiguration::getNamePipesDirectory());
    exitDaemon(ExitOrderlyStop, "", true);
}

void shutdownIfAsked() {
    if (!StopRequest::isRaised())
        return;
    logTakenSignal();
    shutdown();
}

}  // namespace keywarden
