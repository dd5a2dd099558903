#include "support/Cancellation.h"

#include <pthread.h>

#include <cerrno>
#include <ctime>

#include "support/ThreadStack.h"

#ifdef __SANITIZE_ADDRESS__
extern "C" void __asan_handle_no_return();
#endif

namespace keywarden {

namespace {

// Leaves the state as it was, so that a thread that nobody cancels (main) can use the same waits.
// Not a guard object: the forced unwinding of a cancelled thread would run its destructor for nothing.
int enableCancellation() {
    int before = PTHREAD_CANCEL_DISABLE;
    ::pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &before);
    return before;
}

void restoreCancellation(int before) {
    ::pthread_setcancelstate(before, nullptr);
}

/// For builds with the address sanitizer, whose map of the stack must be told that a cancelled thread leaves
/// all its frames at once. Nothing in any other build.
class StackMap {
  public:
    StackMap() = default;
    StackMap(const StackMap&) = delete;
    StackMap& operator=(const StackMap&) = delete;
    ~StackMap() {
#ifdef __SANITIZE_ADDRESS__
        if (!cameBack_)
            __asan_handle_no_return();
#endif
    }
    void comeBack() {
        cameBack_ = true;
    }

  private:
    [[maybe_unused]] bool cameBack_ = false;
};

#ifdef __SANITIZE_THREAD__
// The thread sanitizer stands between these waits and the C library, and takes a thread that is cancelled
// there for one that is still inside: what it closes while it unwinds would go unseen, and the next owner of
// the descriptor would seem to race with it. This name of poll is the C library's own.
extern "C" int __poll(pollfd* descriptors, nfds_t count, int timeoutMilliseconds);

int waitForDescriptors(pollfd* descriptors, nfds_t count, int timeoutMilliseconds) {
    return __poll(descriptors, count, timeoutMilliseconds);
}

int waitForTime(const timespec& wait) {
    const std::int64_t milliseconds = wait.tv_sec * INT64_C(1000) + wait.tv_nsec / 1000000;
    return __poll(nullptr, 0, static_cast<int>(milliseconds));
}
#else
int waitForDescriptors(pollfd* descriptors, nfds_t count, int timeoutMilliseconds) {
    return ::poll(descriptors, count, timeoutMilliseconds);
}

int waitForTime(const timespec& wait) {
    return ::clock_nanosleep(CLOCK_MONOTONIC, 0, &wait, nullptr);
}
#endif

constexpr std::int64_t kLockSliceMilliseconds = 10;
constexpr std::int64_t kLongWaitMilliseconds = 60000;

}  // namespace

bool Cancellation::prepareThread() {
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    // Harmless: cancelling is off, and the next call takes it back.
    // NOLINTNEXTLINE(cert-pos47-c,concurrency-thread-canceltype-asynchronous)
    const bool set = ::pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr) == 0;
    return ::pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr) == 0 && set;
}

int Cancellation::poll(pollfd* descriptors, nfds_t count, int timeoutMilliseconds) {
    if (timeoutMilliseconds < 0 || timeoutMilliseconds >= kLongWaitMilliseconds)
        ThreadStack::giveBackUnused();
    StackMap map;
    const int before = enableCancellation();
    const int result = waitForDescriptors(descriptors, count, timeoutMilliseconds);
    restoreCancellation(before);
    map.comeBack();
    return result;
}

bool Cancellation::sleep(std::int64_t milliseconds) {
    timespec wait{};
    wait.tv_sec = static_cast<time_t>(milliseconds / 1000);
    wait.tv_nsec = static_cast<long>(milliseconds % 1000) * 1000000L;
    if (milliseconds >= kLongWaitMilliseconds)
        ThreadStack::giveBackUnused();
    StackMap map;
    const int before = enableCancellation();
    const int result = waitForTime(wait);
    restoreCancellation(before);
    map.comeBack();
    return result == 0;
}

bool Cancellation::wait(sem_t& semaphore, std::int64_t milliseconds) {
    timespec end{};
    ::clock_gettime(CLOCK_MONOTONIC, &end);
    const std::int64_t nanoseconds = end.tv_nsec + milliseconds % 1000 * 1000000;
    end.tv_sec += static_cast<time_t>(milliseconds / 1000 + nanoseconds / 1000000000);
    end.tv_nsec = static_cast<long>(nanoseconds % 1000000000);
    StackMap map;
    const int before = enableCancellation();
    const bool timedOut = ::sem_clockwait(&semaphore, CLOCK_MONOTONIC, &end) != 0 && errno == ETIMEDOUT;
    restoreCancellation(before);
    map.comeBack();
    return !timedOut;
}

void Cancellation::lock(std::mutex& mutex) {
    // Slices instead of a timed wait: they need no clock that somebody may set, and run only while another
    // thread of the service is at work.
    while (!mutex.try_lock())
        sleep(kLockSliceMilliseconds);
}

}  // namespace keywarden
