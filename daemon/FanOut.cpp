// A network or time change, told to every service.
#include <functional>

#include "config/DaemonConfiguration.h"
#include "daemon/DaemonState.h"
#include "daemon/Exit.h"
#include "daemon/NotificationThread.h"
#include "service/Service.h"
#include "support/Failure.h"
#include "support/Log.h"
#include "support/ShortThread.h"
#include "support/StopRequest.h"

namespace keywarden {

namespace {

using Notify = std::function<void(const std::shared_ptr<Service>&)>;

bool isPki(const Service& service) {
    return service.getServiceId().compare(0, 3, "pki") == 0;
}

void notifyAll(bool pki, const Notify& notify) {
    for (const std::shared_ptr<Service>& service : services()) {
        if (StopRequest::isRaised())
            return;
        if (service && isPki(*service) == pki)
            notify(service);
    }
}

// Local CAs are renewed before the services that have their certificates signed by them.
void fanOut(const std::string& what, const Notify& notify) {
    Log::write(SeverityInfo, "Handling reload " + what + ".");
    runInShortThread([&notify] {
        notifyAll(true, notify);
        notifyAll(false, notify);
    });
    Log::write(SeverityInfo,
               (what == "network" ? "Network" : "Time") + std::string(" reload operation completed"));
}

bool isPassedOver() {
    // A failure while the daemon stops is a consequence of the stop: scripts were ended, not services broken.
    return StopRequest::isRaised() || DaemonConfiguration::getInstance().isContinueOnServiceFailure();
}

void failFor(const Service& service, const std::string& reason) {
    if (!isPassedOver())
        exitDaemon(ExitFailure, reason, true);
    Log::write(SeverityError, reason.empty() ? "The service " + service.getServiceId() +
                                                   " failed in a notification without a reason."
                                             : reason);
}

}  // namespace

void networkNotificationHandler() {
    fanOut("network", notifiyNetworkChanged);
}

void timeNotificationHandler() {
    fanOut("time", notifiyTimeChanged);
}

void notifiyNetworkChanged(const std::shared_ptr<Service>& service) {
    std::string reason;
    try {
        service->networkChanged();
        return;
    } catch (...) {
        const Failure failure = Failure::current();
        if (failure.kind() == Failure::Kind::Unknown)
            reason = "Unknown exception caught while network reload operation.";
        else if (failure.textOrNothing().empty())
            reason.clear();
        else if (failure.kind() == Failure::Kind::Runtime)
            reason = "Runtime error caught while network reload: " + failure.text();
        else
            reason = failure.message("Daemon exception caught while network reload: ",
                                     "std::exception caught while network reload: ", "");
    }
    failFor(*service, reason);
}

void notifiyTimeChanged(const std::shared_ptr<Service>& service) {
    std::string reason;
    try {
        service->timeChanged();
        return;
    } catch (...) {
        const Failure failure = Failure::current();
        if (failure.kind() == Failure::Kind::Unknown || !failure.textOrNothing().empty())
            reason = failure.message(
                "Daemon exception caught while time reload: ", "std::exception caught while time reload: ",
                "Unknown exception caught while time reload operation.");
    }
    failFor(*service, reason);
}

}  // namespace keywarden
