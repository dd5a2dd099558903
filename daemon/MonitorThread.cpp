#include "daemon/MonitorThread.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <mutex>
#include <string>

#include "config/DaemonConfiguration.h"
#include "daemon/DaemonState.h"
#include "daemon/NotificationThread.h"
#include "network/NetworkConfiguration.h"
#include "support/Cancellation.h"
#include "support/Clock.h"
#include "support/Common.h"
#include "support/Debug.h"
#include "support/Failure.h"
#include "support/Log.h"
#include "support/NeverDestroyed.h"
#include "support/Survive.h"

namespace keywarden {

namespace {

using NetworkMap = std::map<std::string, std::string>;

/// As last seen by the monitor; guarded by lock1.
NetworkMap& LastNetworkConfigInfo() {
    static NeverDestroyed<NetworkMap> last;
    return *last;
}

struct Clocks {
    std::int64_t wall = Clock::nowMilliseconds();
    std::int64_t monotonic = Clock::monotonicMilliseconds();
};

double driftMilliseconds(const Clocks& reference, const Clocks& now) {
    const std::int64_t wallElapsed = now.wall - reference.wall;
    const std::int64_t monotonicElapsed = now.monotonic - reference.monotonic;
    return static_cast<double>(wallElapsed - monotonicElapsed);
}

void reloadTimeForDrift(double driftSeconds) {
    Log::write(SeverityNotice, "Detected time drift of " + std::to_string(driftSeconds) + " Sec ");
    Log::write(SeverityNotice, "Time drift is detected so reload the time.");
    try {
        const std::lock_guard<std::mutex> guard(lock1);
        timeNotificationHandler();
    } catch (...) {
        Log::write(SeverityError, Failure::current().message(
                                      "Daemon exception received while reloading time for time drift: ",
                                      "Standard exception received while reloading time for time drift: ",
                                      "Unknown exception received while reloading time for time drift."));
        return;
    }
    Log::write(SeverityNotice, "Time reload completed");
}

void lookAtNetwork() {
    try {
        if (!CheckChangeInNetworkConfig())
            return;
        if (Common::isDateOld()) {
            Log::write(SeverityInfo, "Ignoring the ChangeInNetworkConfigs the system date is invalid.");
            return;
        }
        Log::write(SeverityNotice, "Change in network configuration detected.");
        const std::lock_guard<std::mutex> guard(lock1);
        networkNotificationHandler();
    } catch (...) {
        Log::write(SeverityError,
                   Failure::current().message(
                       "Daemon exception received while reloading network for change in network config: ",
                       "Std exception received while reloading network for change in network config: ",
                       "Unknown exception received while reloading network for change in network config"));
        return;
    }
    Log::write(SeverityNotice, "reload network completed");
}

// One pass of the monitor; the next one starts after the sleep.
void look(Clocks& reference, std::int32_t threshold) {
    const Clocks now;
    const double drift = driftMilliseconds(reference, now);
    reference = now;
    if (std::abs(drift) > threshold * 1000.0) {
        if (Common::isDateOld()) {
            Log::write(SeverityInfo, "Ignoring the time drift as the system date is invalid.");
            return;
        }
        reloadTimeForDrift(drift / 1000.0);
    }
    lookAtNetwork();
}

}  // namespace

bool CheckIfThreadConfigParamValid(thread_arguments* arguments) {
    const DaemonConfiguration& configuration = DaemonConfiguration::getInstance();
    arguments->thresholdValue = configuration.getTimeDriftThresholdValue();
    arguments->sleepTime = configuration.getTimeDriftSleepTime();
    if (arguments->sleepTime == 0) {
        Log::write(SeverityError,
                   "value for TimeDrfitSleepIntervalSec is " + std::to_string(arguments->sleepTime));
        return false;
    }
    if (arguments->thresholdValue == 0) {
        Log::write(SeverityError,
                   "value for ThresholdValInSec is " + std::to_string(arguments->thresholdValue));
        return false;
    }
    return true;
}

bool CheckChangeInNetworkConfig() {
    const std::lock_guard<std::mutex> guard(lock1);
    NetworkMap fresh = NetworkConfiguration::getInstance().reload();
    if (fresh == LastNetworkConfigInfo())
        return false;
    LastNetworkConfigInfo() = std::move(fresh);
    return true;
}

void* MonitorTimeNetworkConfig(void* arguments) {
    const bool prepared = Cancellation::prepareThread();
    const auto* const settings = static_cast<const thread_arguments*>(arguments);
    {
        const std::lock_guard<std::mutex> guard(lock1);
        LastNetworkConfigInfo().clear();
    }
    Log::open();
    if (!prepared)
        Log::write(SeverityError, "MonitorTimeNetworkConfig thread pthread_setcanceltype failed\n");
    debugTrace("Monitor the change in network configuration and time");
    // A negative setting must not make the loop spin.
    const std::int64_t sleepSeconds = std::max(1, settings->sleepTime);
    Clocks reference;
    for (;;) {
        survives("A look of the monitor", [&] { look(reference, settings->thresholdValue); });
        Cancellation::sleep(sleepSeconds * 1000);
    }
}

}  // namespace keywarden
