// What a service does while there is no thread or no fifo to be had: it tries again.
#include "service/Service.h"
#include "support/Cancellation.h"
#include "support/Clock.h"
#include "support/Failure.h"
#include "support/GrowingPause.h"
#include "support/KeywardenDaemonException.h"
#include "support/Log.h"
#include "support/Survive.h"

namespace keywarden {

namespace {

constexpr int kFewAttempts = 5;
// Milliseconds.
constexpr std::int64_t kFirstPauseWithoutFifo = 1000;
constexpr std::int64_t kLongReading = 60000;

}  // namespace

bool Service::succeeds(const std::function<bool()>& attempt, Attempts attempts, const std::string& failure) {
    GrowingPause pause;
    for (int made = 1; !attempt(); ++made) {
        if (attempts == Attempts::One || (attempts == Attempts::Few && made == kFewAttempts))
            return false;
        const std::int64_t wait = pause.next();
        Log::write(SeverityError, failure + ". It is tried again in " + std::to_string(wait) + " ms.");
        // Not a wait that can be cancelled: callers are in the middle of their work.
        std::unique_lock<std::mutex> guard(serviceMutex_);
        if (endingBegins_.wait_for(guard, std::chrono::milliseconds(wait), [this] { return ending_; }))
            return false;
    }
    return true;
}

void Service::startReader(Attempts attempts, void* (*body)(void*)) {
    const std::string failure = "Impossible to start the handler for service " + getServiceId();
    pthread_t thread = 0;
    const auto attempt = [&] { return ::pthread_create(&thread, nullptr, body, this) == 0; };
    if (!succeeds(attempt, attempts, failure))
        throw KeywardenDaemonException(failure);
    readerThread_ = thread;
}

// What took the fifo away may end.
void Service::keepReading() {
    GrowingPause pause(kFirstPauseWithoutFifo);
    for (;;) {
        const std::int64_t begin = Clock::monotonicMilliseconds();
        survives("Reading requests", [this] { readRequests(); });
        if (Clock::monotonicMilliseconds() - begin > kLongReading)
            pause = GrowingPause(kFirstPauseWithoutFifo);
        Cancellation::sleep(pause.next());
    }
}

// Without a reader nobody could ask for the status any more.
void Service::listenAfterAll() {
    for (GrowingPause pause; readerThread_ == 0;) {
        Cancellation::sleep(pause.next());
        survives("Listening again", [this] {
            try {
                startHandler(Stop::ForReload, Attempts::One);
            } catch (...) {
                Log::write(SeverityError, Failure::current().text());
            }
        });
    }
}

void* Service::pipesMaker(void* service) {
    Cancellation::prepareThread();
    auto* const self = static_cast<Service*>(service);
    bool made = false;
    for (GrowingPause pause(kFirstPauseWithoutFifo); !made;) {
        Cancellation::sleep(pause.next());
        made = survives("Making the pipe files of a service", [self] { self->makePipes(Stop::ForGood); });
    }
    self->keepReading();
}

}  // namespace keywarden
