// The daily expiry check.
#include "server/Server.h"
#include "service/Service.h"
#include "support/Cancellation.h"
#include "support/Clock.h"
#include "support/Failure.h"
#include "support/KeywardenDaemonException.h"
#include "support/Log.h"
#include "support/ShortThread.h"
#include "support/Survive.h"

namespace keywarden {

namespace {

constexpr std::int64_t kSecondsPerDay = 86400;

}  // namespace

void Service::initTimer() {
    initTimer(Attempts::Few);
}

void Service::initTimer(Attempts attempts) {
    if (isServer())
        startTimer(attempts);
    else
        timer_.end();
}

void Service::startTimer() {
    startTimer(Attempts::One);
}

void Service::startTimer(Attempts attempts) {
    const std::string starting = "The service " + getServiceId() + " is starting his timer...";
    const std::string failure = "Impossible to start the timer for the service " + getServiceId();
    Log::write(SeverityInfo, starting);
    TimerControl::Started started = TimerControl::Started::Impossible;
    const auto attempt = [&] {
        started = timer_.start(timer, this);
        return started != TimerControl::Started::Impossible;
    };
    if (!succeeds(attempt, attempts, failure))
        throw KeywardenDaemonException(failure);
    Log::write(SeverityInfo, started == TimerControl::Started::Before
                                 ? starting + " already running."
                                 : "The service " + getServiceId() + " started his timer.");
}

// A restart finds the thread of the first start. Where there is none yet a reload is waiting for it: that is
// no failure of what asks for the restart.
void Service::startTimerAgain() {
    try {
        startTimer();
    } catch (const KeywardenDaemonException& error) {
        Log::write(SeverityError, error.what());
    }
}

void Service::restartTimer() {
    stopTimer();
    startTimerAgain();
}

void Service::stopTimer() {
    Log::write(SeverityInfo, "The service " + getServiceId() + " is stopping its timer...");
    if (timer_.stop())
        Log::write(SeverityInfo, "The service " + getServiceId() + " stopped its timer.");
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
        timer_.waitForStart();
        const std::int64_t wait = secondsUntilCheck(Clock::now(), getCertDailyExpiryChkTimeOffsetSecs());
        if (!timer_.sleep(wait * 1000) || !isServer() || !timer_.lock(serviceMutex_))
            continue;
        const std::lock_guard<std::mutex> guard(serviceMutex_, std::adopt_lock);
        survives("The daily check of a service", [this] { runInShortThread([this] { checkAtTimer(); }); });
    }
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
