#include "service/TimerControl.h"

namespace keywarden {

namespace {

// While another thread of the service is at work.
constexpr std::int64_t kLockSliceMilliseconds = 10;
constexpr std::int64_t kParkedMilliseconds = INT64_C(86400000);

}  // namespace

TimerControl::~TimerControl() {
    end();
}

TimerControl::Started TimerControl::start(void* (*body)(void*), void* argument) {
    const std::lock_guard<std::mutex> guard(users_);
    if (isStarted())
        return Started::Before;
    {
        const std::lock_guard<std::mutex> state(state_);
        started_ = true;
        parked_ = false;
    }
    if (thread_ != 0) {
        wakeup_.give();
    } else if (::pthread_create(&thread_, nullptr, body, argument) != 0) {
        thread_ = 0;
        const std::lock_guard<std::mutex> state(state_);
        started_ = false;
        return Started::Impossible;
    }
    return Started::Now;
}

bool TimerControl::stop() {
    const std::lock_guard<std::mutex> guard(users_);
    std::unique_lock<std::mutex> state(state_);
    if (!started_)
        return false;
    started_ = false;
    wakeup_.give();
    parking_.wait(state, [this] { return parked_; });
    return true;
}

bool TimerControl::end() {
    const std::lock_guard<std::mutex> guard(users_);
    if (thread_ != 0) {
        ::pthread_cancel(thread_);
        ::pthread_join(thread_, nullptr);
        thread_ = 0;
    }
    const std::lock_guard<std::mutex> state(state_);
    const bool was = started_;
    started_ = false;
    return was;
}

bool TimerControl::isStarted() {
    const std::lock_guard<std::mutex> state(state_);
    return started_;
}

void TimerControl::waitForStart() {
    for (;;) {
        {
            const std::lock_guard<std::mutex> state(state_);
            if (started_)
                return;
            parked_ = true;
            parking_.notify_all();
        }
        wakeup_.wait(kParkedMilliseconds);
    }
}

bool TimerControl::sleep(std::int64_t milliseconds) {
    return !wakeup_.wait(milliseconds);
}

bool TimerControl::lock(std::mutex& mutex) {
    while (isStarted()) {
        if (mutex.try_lock())
            return true;
        wakeup_.wait(kLockSliceMilliseconds);
    }
    return false;
}

}  // namespace keywarden
