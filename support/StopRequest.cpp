#include "support/StopRequest.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "support/Clock.h"

namespace keywarden {

namespace {

constexpr std::int64_t kNotRaised = -1;

std::atomic<std::int64_t> raisedAt{kNotRaised};

bool isSignalPending() {
    sigset_t pending;
    ::sigemptyset(&pending);
    ::sigpending(&pending);
    return ::sigismember(&pending, SIGINT) == 1 || ::sigismember(&pending, SIGTERM) == 1 ||
           ::sigismember(&pending, SIGQUIT) == 1;
}

// A forked child shares its parent's descriptors, and neither may wake the other.
void takeOwnDescriptor() {
    const int own = ::eventfd(raisedAt == kNotRaised ? 0 : 1, EFD_CLOEXEC | EFD_NONBLOCK);
    if (own < 0)
        return;
    ::dup3(own, StopRequest::raisedDescriptor(), O_CLOEXEC);
    ::close(own);
}

}  // namespace

sigset_t StopRequest::signals() {
    sigset_t set;
    ::sigemptyset(&set);
    ::sigaddset(&set, SIGINT);
    ::sigaddset(&set, SIGTERM);
    ::sigaddset(&set, SIGQUIT);
    return set;
}

void StopRequest::raise() {
    std::int64_t expected = kNotRaised;
    if (!raisedAt.compare_exchange_strong(expected, Clock::monotonicMilliseconds()))
        return;
    const std::uint64_t one = 1;
    static_cast<void>(!::write(raisedDescriptor(), &one, sizeof one));
}

bool StopRequest::isRaised() {
    if (raisedAt == kNotRaised && isSignalPending())
        raise();
    return raisedAt != kNotRaised;
}

int StopRequest::raisedDescriptor() {
    static const int descriptor = [] {
        ::pthread_atfork(nullptr, nullptr, takeOwnDescriptor);
        return ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    }();
    return descriptor;
}

int StopRequest::pendingSignalDescriptor() {
    static const int descriptor = [] {
        const sigset_t set = signals();
        return ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    }();
    return descriptor;
}

std::int64_t StopRequest::millisecondsOfStop(std::int64_t start) {
    if (!isRaised())
        return 0;
    return std::max<std::int64_t>(0,
                                  Clock::monotonicMilliseconds() - std::max<std::int64_t>(raisedAt, start));
}

}  // namespace keywarden
