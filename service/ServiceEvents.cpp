// What a service does every day, and when the network or the clock has changed.
#include "server/Server.h"
#include "service/Service.h"
#include "support/Failure.h"
#include "support/Log.h"

namespace keywarden {

void Service::networkChanged() {
    const std::string& id = getServiceId();
    const std::lock_guard<std::mutex> guard(serviceMutex_);
    if (!loaded_ || !server_)
        return;
    Log::write(SeverityNotice,
               "The service " + id + " is checking server certificate because network changed...");
    if (!server_->isNetworkInfoValid())
        renewForNetwork();
    Log::write(SeverityNotice, "The service " + id + " checked server certificate because network changed.");
}

void Service::renewForNetwork() {
    const std::string& id = getServiceId();
    if (isCASignedGeneration() && server_->isCertificateCASigned()) {
        Log::write(SeverityNotice,
                   "Create and Apply CA-Signed certificate for service '" + id + "' as the network changed.");
        server_->createAndApplyCASigned();
    } else if (isSelfSignedGeneration() && server_->isCertificateSelfSigned()) {
        Log::write(SeverityNotice, "Create and Apply SelfSigned certificate for service '" + id +
                                       "' as the network changed.");
        server_->createAndApplySelfSigned();
    } else if (isNetworkInvalidRevokePKIcert()) {
        Log::write(SeverityNotice,
                   "Create and Apply SelfSigned certificate for service '" + id +
                       "' as the network changed and revoke PKI certificate on network invaid flag is "
                       "set True.");
        server_->createAndApplySelfSigned();
    } else {
        return;
    }
    // The next daily check is computed afresh.
    timer_.restart();
}

void Service::timeChanged() {
    const std::string& id = getServiceId();
    {
        const std::lock_guard<std::mutex> guard(serviceMutex_);
        if (!loaded_ || !server_)
            return;
    }
    Log::write(SeverityNotice, "The service " + id + " is checking server certificate because time changed.");
    stopTimer();
    {
        const std::lock_guard<std::mutex> guard(serviceMutex_);
        // A reload may have come in between.
        if (!loaded_ || !server_)
            return;
        checkAndStartTimer();
    }
    Log::write(SeverityNotice, "The service " + id + " checked server certificate because time changed.");
}

void Service::checkAndStartTimer() {
    try {
        server_->checkTimeValidity();
    } catch (...) {
        // The daemon may go on after the failure, and then so does the daily check.
        timer_.startAgain();
        throw;
    }
    timer_.startAgain();
}

void Service::checkAtTimer() {
    try {
        if (server_)
            server_->checkTimeValidity();
        if (callbacks_)
            tellAgain();
    } catch (...) {
        const Failure failure = Failure::current();
        const std::string text = failure.textOrNothing();
        Log::write(SeverityError, "Daemon exception during timer thread execution for service '" +
                                      getServiceId() + "'" + (text.empty() ? "Unknown" : text));
    }
}

}  // namespace keywarden
