#include "ctl/HeldSignals.h"

#include <poll.h>
#include <sys/signalfd.h>

#include <array>
#include <cerrno>

#include "ctl/Problem.h"

namespace keywardctl {

HeldSignals::HeldSignals() {
    sigset_t held;
    ::sigemptyset(&held);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        ::sigaddset(&held, signal);
    arrived_ = keywarden::UniqueFd(::signalfd(-1, &held, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!arrived_ || ::pthread_sigmask(SIG_BLOCK, &held, &before_) != 0)
        throw Problem(ExitCode::Failed, std::string("signals cannot be held back: ") + std::strerror(errno));
}

HeldSignals::~HeldSignals() {
    // The signal was never taken from the queue: it takes effect here.
    ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

short HeldSignals::poll(int descriptor, short events, int timeoutMilliseconds) const {
    std::array<pollfd, 2> waiting{{{arrived_.get(), POLLIN, 0}, {descriptor, events, 0}}};
    const int count = ::poll(waiting.data(), waiting.size(), timeoutMilliseconds);
    if (count < 0 && errno != EINTR)
        throw Problem(ExitCode::Failed, std::string("poll: ") + std::strerror(errno));
    if (count > 0 && waiting[0].revents != 0)
        throw Interrupted();
    return count > 0 ? waiting[1].revents : static_cast<short>(0);
}

}  // namespace keywardctl
