#include "service/AnswerOutput.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>

#include "channel/PipeFiles.h"
#include "support/Cancellation.h"
#include "support/FileStatus.h"
#include "support/StopRequest.h"

namespace keywarden {

namespace {

constexpr int kYields = 4;
constexpr std::int64_t kLongestRetryMilliseconds = 20;

// An input fifo that somebody moved to the place of an output would make requests of answers, without end.
bool isRequestersFifo(const FileStatus& status) {
    return status.isFifo() && !(status.uid == ::geteuid() && status.permissions() == kInputFifoMode);
}

// Says nothing against the fifo: only this process, or the whole device, has no room for it now.
bool isScarcity(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM;
}

// Opening one fails like opening a fifo without a reader.
bool isSocket(const Folder& folder, const std::string& name) {
    const auto status = folder.status(name);
    return status && status->isSocket();
}

/// The fifo that an answer waits to be opened. Kept, so that its number is given to no other file meanwhile:
/// a fifo that later stands in its place is the next requester's, who must not get this answer.
class AwaitedFifo {
  public:
    AwaitedFifo(const Folder& folder, const std::string& name) : folder_(folder), name_(name) {}

    // False, with errno ENOENT, when something else stands in its place by now; or with another errno when it
    // cannot be looked at.
    bool isStillThere() {
        if (!fifo_)
            fifo_ = UniqueFd(::openat(folder_.get(), name_.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        // Without a descriptor to spare its number has to do.
        if (!known_)
            known_ = fifo_ ? statusOf(fifo_.get()) : folder_.status(name_);
        const auto there = known_ ? folder_.status(name_) : std::nullopt;
        if (!there)
            return false;
        const bool same = there->isSameFile(*known_);
        errno = same ? errno : ENOENT;
        return same;
    }

    // The same for a fifo that has just been opened.
    [[nodiscard]] bool isThis(const FileStatus& opened) const {
        return !known_ || opened.isSameFile(*known_);
    }

  private:
    const Folder& folder_;
    const std::string& name_;
    UniqueFd fifo_;
    std::optional<FileStatus> known_;
};

// What was opened, unless it is none that may be answered; errno tells why.
UniqueFd judged(UniqueFd output, const AwaitedFifo& awaited, const Patience& patience) {
    auto status = statusOf(output.get());
    // Open meanwhile: its requester would take the closing for an empty answer.
    while (!status && isScarcity(errno) && !patience.isOver()) {
        Cancellation::sleep(kLongestRetryMilliseconds);
        status = statusOf(output.get());
    }
    const bool isFifo = status && isRequestersFifo(*status);
    if (isFifo && awaited.isThis(*status))
        return output;
    output.reset();
    errno = isFifo ? ENOENT : EINVAL;
    return {};
}

// One that is just about to open its fifo is first given the processor, then more and more time.
void pauseBefore(int attempt) {
    if (attempt <= kYields)
        ::sched_yield();
    else
        Cancellation::sleep(
            std::min(std::int64_t{1} << std::min(attempt - kYields - 1, 10), kLongestRetryMilliseconds));
}

}  // namespace

bool Patience::isOver() const {
    const std::int64_t spent = Clock::monotonicMilliseconds() - start_;
    return spent >= limit_ || StopRequest::millisecondsOfStop(start_) >= kMillisecondsAtTheEnd;
}

UniqueFd openForAnswer(const Folder& folder, const std::string& name, const Patience& patience) {
    AwaitedFifo awaited(folder, name);
    bool there = true;
    for (int attempt = 1;; ++attempt) {
        UniqueFd output;
        if (there)
            output = UniqueFd(
                ::openat(folder.get(), name.c_str(), O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
        if (output)
            return judged(std::move(output), awaited, patience);
        const int error = errno;
        const bool isReaderMissing = error == ENXIO && !isSocket(folder, name);
        if (patience.isOver() || !(isReaderMissing || isScarcity(error))) {
            errno = error;
            return {};
        }
        // Before the pause, to know it again, and before it is opened: the next requester would take the
        // closing for an empty answer.
        if (!awaited.isStillThere() && !isScarcity(errno))
            return {};
        pauseBefore(attempt);
        there = awaited.isStillThere();
    }
}

bool writeAnswer(int output, const std::string& answer, const Patience& patience) {
    std::size_t done = 0;
    while (done < answer.size()) {
        const ssize_t count = ::write(output, answer.data() + done, answer.size() - done);
        if (count >= 0) {
            done += static_cast<std::size_t>(count);
        } else if (errno == EAGAIN && !patience.isOver()) {
            pollfd waiting{output, POLLOUT, 0};
            Cancellation::poll(&waiting, 1, static_cast<int>(kLongestRetryMilliseconds));
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

}  // namespace keywarden
