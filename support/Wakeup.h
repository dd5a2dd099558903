#pragma once

#include <semaphore.h>

#include <cstdint>

#include "support/Cancellation.h"

namespace keywarden {

/// Cuts another thread's wait short. Needs no descriptor, so that there is always one to be had.
class Wakeup {
  public:
    Wakeup() { ::sem_init(&given_, 0, 0); }
    Wakeup(const Wakeup&) = delete;
    Wakeup& operator=(const Wakeup&) = delete;
    ~Wakeup() { ::sem_destroy(&given_); }

    /// Ends one wait, the present or the next one.
    void give() { ::sem_post(&given_); }

    /// True when it was cut short, by give() or by a signal. One of the waits of Cancellation.h.
    bool wait(std::int64_t milliseconds) { return Cancellation::wait(given_, milliseconds); }

  private:
    sem_t given_{};
};

}  // namespace keywarden
