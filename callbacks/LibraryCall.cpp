#include "callbacks/LibraryCall.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <exception>
#include <memory>
#include <utility>

#include "support/Cancellation.h"
#include "support/Clock.h"
#include "support/StopRequest.h"
#include "support/UniqueFd.h"

namespace keywarden {

namespace {

/// Shared by the one that waits and the thread that works: either may be the last that needs it.
struct Call {
    std::function<void()> body;
    std::exception_ptr failure;
    UniqueFd ended;  ///< readable from the end on
};

void* perform(void* argument) {
    const std::unique_ptr<std::shared_ptr<Call>> own(static_cast<std::shared_ptr<Call>*>(argument));
    Call& call = **own;
    Cancellation::prepareThread();
    try {
        call.body();
    } catch (...) {
        call.failure = std::current_exception();
    }
    const std::uint64_t one = 1;
    static_cast<void>(!::write(call.ended.get(), &one, sizeof one));
    return nullptr;
}

// False: its grace is over.
bool awaitEnd(const Call& call) {
    const std::int64_t start = Clock::monotonicMilliseconds();
    for (;;) {
        const bool stop = StopRequest::isRaised();
        const std::int64_t left = std::max<std::int64_t>(
            0, StopRequest::kGraceMilliseconds - StopRequest::millisecondsOfStop(start));
        std::array<pollfd, 3> waiting{{{call.ended.get(), POLLIN, 0},
                                       {stop ? -1 : StopRequest::raisedDescriptor(), POLLIN, 0},
                                       {stop ? -1 : StopRequest::pendingSignalDescriptor(), POLLIN, 0}}};
        ::poll(waiting.data(), waiting.size(), stop ? static_cast<int>(left) : -1);
        if (waiting[0].revents != 0)
            return true;
        if (stop && left == 0)
            return false;
    }
}

}  // namespace

bool runOrGiveUp(std::function<void()> body) {
    const auto call = std::make_shared<Call>();
    call->body = std::move(body);
    call->ended = UniqueFd(::eventfd(0, EFD_CLOEXEC));
    auto forThread = std::make_unique<std::shared_ptr<Call>>(call);
    pthread_t thread = 0;
    if (!call->ended || ::pthread_create(&thread, nullptr, perform, forThread.get()) != 0) {
        call->body();
        return true;
    }
    static_cast<void>(forThread.release());  // the thread's own now
    if (!awaitEnd(*call)) {
        ::pthread_detach(thread);
        return false;
    }
    // Nothing of the library is left on any stack after this.
    ::pthread_join(thread, nullptr);
    if (call->failure)
        std::rethrow_exception(std::exchange(call->failure, nullptr));
    return true;
}

}  // namespace keywarden
