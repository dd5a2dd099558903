#include "service/ServiceTimer.h"

#include "config/ServiceConfiguration.h"
#include "support/Cancellation.h"
#include "support/Clock.h"
#include "support/KeywardenDaemonException.h"
#include "support/Log.h"
#include "support/ShortThread.h"
#include "support/Survive.h"

namespace keywarden {

namespace {

constexpr std::int64_t kSecondsPerDay = 86400;

}  // namespace

ServiceTimer::ServiceTimer(const ServiceConfiguration& configuration, std::mutex& serviceMutex, Retry& retry,
                           std::function<void()> check)
    : configuration_(configuration), serviceMutex_(serviceMutex), retry_(retry), check_(std::move(check)) {}

void ServiceTimer::init(Retry::Attempts attempts) {
    if (configuration_.isServer())
        start(attempts);
    else
        end();
}

void ServiceTimer::start(Retry::Attempts attempts) {
    const std::string& id = configuration_.getServiceId();
    const std::string starting = "The service " + id + " is starting his timer...";
    const std::string failure = "Impossible to start the timer for the service " + id;
    Log::write(SeverityInfo, starting);
    TimerControl::Started started = TimerControl::Started::Impossible;
    const auto attempt = [&] {
        started = control_.start(body, this);
        return started != TimerControl::Started::Impossible;
    };
    if (!retry_.succeeds(attempt, attempts, failure))
        throw KeywardenDaemonException(failure);
    Log::write(SeverityInfo, started == TimerControl::Started::Before
                                 ? starting + " already running."
                                 : "The service " + id + " started his timer.");
}

// A restart finds the thread of the first start. Where there is none yet a reload is waiting for it: that is
// no failure of what asks for the restart.
void ServiceTimer::startAgain() {
    try {
        start(Retry::Attempts::One);
    } catch (const KeywardenDaemonException& error) {
        Log::write(SeverityError, error.what());
    }
}

void ServiceTimer::restart() {
    stop();
    startAgain();
}

void ServiceTimer::stop() {
    const std::string& id = configuration_.getServiceId();
    Log::write(SeverityInfo, "The service " + id + " is stopping its timer...");
    if (control_.stop())
        Log::write(SeverityInfo, "The service " + id + " stopped its timer.");
}

void ServiceTimer::park() {
    control_.stop();
}

void ServiceTimer::end() {
    control_.end();
}

std::int64_t ServiceTimer::secondsUntilCheck(std::int64_t now, std::uint32_t offset) {
    const std::int64_t wait = kSecondsPerDay - now % kSecondsPerDay - static_cast<std::int64_t>(offset);
    return wait > 0 ? wait : wait + kSecondsPerDay;
}

void* ServiceTimer::body(void* timer) {
    Cancellation::prepareThread();
    static_cast<ServiceTimer*>(timer)->run();
    return nullptr;
}

void ServiceTimer::run() {
    for (;;) {
        control_.waitForStart();
        const std::uint32_t offset = configuration_.getCertDailyExpiryChkTimeOffsetSecs();
        const std::int64_t wait = secondsUntilCheck(Clock::now(), offset);
        if (!control_.sleep(wait * 1000) || !configuration_.isServer() || !control_.lock(serviceMutex_))
            continue;
        const std::lock_guard<std::mutex> guard(serviceMutex_, std::adopt_lock);
        survives("The daily check of a service", [this] { runInShortThread(check_); });
    }
}

}  // namespace keywarden
