#pragma once

#include <poll.h>
#include <semaphore.h>

#include <cstdint>
#include <mutex>

namespace keywarden {

/// How the daemon's threads can be stopped with pthread_cancel without harm. A cancelled thread unwinds by
/// force, which must not meet a `catch (...)` that keeps the exception, a destructor, a noexcept function or
/// a held lock. So cancelling is switched off in the whole thread and on only inside the operations below,
/// which callers invoke with no lock held and
/// outside every `try` but those that catch std::exception alone. A thread that begins a long wait gives
/// back the stack that its work has left behind.
class Cancellation {
  public:
    /// The first thing a thread does. Asks for the asynchronous type, as reader threads once needed it, and
    /// then for the deferred one, with which it works. False when the type could not be set.
    static bool prepareThread();

    /// poll(2). timeoutMilliseconds -1 waits for ever.
    static int poll(pollfd* descriptors, nfds_t count, int timeoutMilliseconds);

    /// Sleeps on the monotonic clock. False when the sleep was cut short by a signal.
    static bool sleep(std::int64_t milliseconds);

    /// Waits on the monotonic clock until the semaphore is given. False when the time has passed before; true
    /// too when a signal cut the wait short.
    static bool wait(sem_t& semaphore, std::int64_t milliseconds);

    /// Takes the mutex; gives up only by being cancelled.
    static void lock(std::mutex& mutex);
};

}  // namespace keywarden
