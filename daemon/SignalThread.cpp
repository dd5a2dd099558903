#include "daemon/SignalThread.h"

#include <signal.h>

#include <cstring>
#include <string>

#include "daemon/DaemonState.h"
#include "daemon/Exit.h"
#include "support/Cancellation.h"
#include "support/Log.h"
#include "support/StopRequest.h"
#include "support/Survive.h"

namespace keywarden {

namespace {

void cancel(const std::atomic<pthread_t>& thread, const char* name) {
    const pthread_t handle = thread;
    if (handle != 0 && ::pthread_cancel(handle) != 0)
        survives(name, [name] {
            Log::write(SeverityError, std::string(name) + " thread cancellation clean up handler failed");
        });
}

}  // namespace

void* MonitorShutdownSigReceived(void*) {
    Cancellation::prepareThread();
    Log::open();
    const sigset_t set = StopRequest::signals();
    if (::pthread_sigmask(SIG_BLOCK, &set, nullptr) != 0)
        exitDaemon(ExitFailure, "sigprocmask() returned error", true);
    int signal = 0;
    if (::sigwait(&set, &signal) != 0)
        exitDaemon(ExitFailure, "sigwait() returned error", true);
    // Before the threads are cancelled: a script that one of them waits for ends by this.
    StopRequest::raise();
    // None of what is said may keep the threads from being cancelled.
    survives("Saying which signal was received", [signal] {
        Log::write(SeverityInfo, std::string("Received fatal signal : ") + ::strsignal(signal));
    });
    cancel(threadNotificationHandler, "threadNotificationHandler");
    cancel(threadMonitorTimeNetworkConfig, "threadMonitorTimeNetworkConfig");
    return nullptr;
}

}  // namespace keywarden
