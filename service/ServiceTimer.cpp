// The daily expiry check.
#include "server/Server.h"
#include "service/Service.h"
#include "support/Cancellation.h"
#include "support/Clock.h"
#include "support/Failure.h"
#include "support/KeywardenDaemonException.h"
#include "support/Log.h"

namespace keywarden {

namespace {

constexpr std::int64_t kSecondsPerDay = 86400;

}  // namespace

void Service::initTimer() {
    if (isServer())
        startTimer();
}

void Service::startTimer() {
    const std::string starting = "The service " + getServiceId() + " is starting his timer...";
    Log::write(SeverityInfo, starting);
    const std::lock_guard<std::mutex> guard(timerControl_);
    if (timerThread_ != 0) {
        Log::write(SeverityInfo, starting + " already running.");
        return;
    }
    if (::pthread_create(&timerThread_, nullptr, timer, this) != 0) {
        timerThread_ = 0;
        throw KeywardenDaemonException("Impossible to start the timer for the service " + getServiceId());
    }
    Log::write(SeverityInfo, "The service " + getServiceId() + " started his timer.");
}

void Service::stopTimer() {
    Log::write(SeverityInfo, "The service " + getServiceId() + " is stopping its timer...");
    if (haltTimer())
        Log::write(SeverityInfo, "The service " + getServiceId() + " stopped its timer.");
}

bool Service::haltTimer() {
    const std::lock_guard<std::mutex> guard(timerControl_);
    if (timerThread_ == 0)
        return false;
    ::pthread_cancel(timerThread_);
    ::pthread_join(timerThread_, nullptr);
    timerThread_ = 0;
    return true;
}

std::int64_t Service::secondsUntilCheck(std::int64_t now, std::uint32_t offset) {
    const std::int64_t wait = kSecondsPerDay - now % kSecondsPerDay - static_cast<std::int64_t>(offset);
    return wait > 0 ? wait : wait + kSecondsPerDay;
}

void* Service::timer(void* service) {
    Cancellation::prepareThread();
    static_cast<Service*>(service)->runTimer();
    return nullptr;
}

void Service::runTimer() {
    for (;;) {
        const std::int64_t wait = secondsUntilCheck(Clock::now(), getCertDailyExpiryChkTimeOffsetSecs());
        if (!Cancellation::sleep(wait * 1000) || !isServer())
            continue;
        Cancellation::lock(serviceMutex_);
        const std::lock_guard<std::mutex> guard(serviceMutex_, std::adopt_lock);
        checkAtTimer();
    }
}

void Service::checkAtTimer() {
    try {
        if (server_)
            server_->checkTimeValidity();
    } catch (...) {
        const Failure failure = Failure::current();
        const std::string text = failure.textOrNothing();
        Log::write(SeverityError, "Daemon exception during timer thread execution for service '" +
                                      getServiceId() + "'" + (text.empty() ? "Unknown" : text));
    }
}

}  // namespace keywarden
