#pragma once

#include <pthread.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "support/Wakeup.h"

namespace keywarden {

/// The thread of a service's timer. Stopped, it is parked: it waits without doing anything until it is
/// started again. So only the first start needs a new thread, and a restart cannot fail for want of one.
///
/// Those who start and stop it are serialised here, by a leaf lock of its own. They may hold the service
/// mutex, which the timer takes by lock() alone.
class TimerControl {
  public:
    enum class Started { Now, Before, Impossible };

    TimerControl() = default;
    TimerControl(const TimerControl&) = delete;
    TimerControl& operator=(const TimerControl&) = delete;
    /// Ends the thread.
    ~TimerControl();

    /// `body` is run with `argument` by the thread that the first start makes. Impossible: there was no
    /// thread to be had.
    [[nodiscard]] Started start(void* (*body)(void*), void* argument);
    /// Parks the thread; returns when it does nothing any more. False when it was not started.
    bool stop();
    /// Cancels and joins the thread; nothing when there is none. False when it was not started.
    bool end();

    // For the thread itself. Each may be where it is cancelled (Cancellation.h).

    /// Returns as long as the timer is started; the place where a stopped one waits.
    void waitForStart();
    /// False when it was stopped meanwhile, or when something else cut the sleep short.
    [[nodiscard]] bool sleep(std::int64_t milliseconds);
    /// False, without the mutex, when the timer was stopped meanwhile.
    [[nodiscard]] bool lock(std::mutex& mutex);

  private:
    [[nodiscard]] bool isStarted();

    std::mutex users_;
    pthread_t thread_ = 0;  // 0: no thread
    Wakeup wakeup_;
    std::mutex state_;
    std::condition_variable parking_;
    bool started_ = false;
    bool parked_ = false;
};

}  // namespace keywarden
