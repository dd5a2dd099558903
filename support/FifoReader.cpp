#include "support/FifoReader.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include "support/Cancellation.h"
#include "support/Clock.h"
#include "support/Log.h"

namespace keywarden {

namespace {

constexpr int kAttempts = 3;
constexpr std::int64_t kFirstPauseMilliseconds = 500;
constexpr std::int64_t kLongestPauseMilliseconds = 30000;

// Says nothing against the fifo: it is there, only this process has no room to open it.
bool isScarcity(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM;
}

}  // namespace

FifoReader::FifoReader(FolderPtr folder, std::string name, mode_t mode, std::string group, FifoLimits limits)
    : folder_(std::move(folder)),
      name_(std::move(name)),
      mode_(mode),
      group_(std::move(group)),
      limits_(limits) {}

bool FifoReader::open() {
    bool isSaid = false;
    int failures = 0;
    for (std::int64_t pause = kFirstPauseMilliseconds;;
         pause = std::min(2 * pause, kLongestPauseMilliseconds)) {
        if (openOrReplace(isSaid))
            return true;
        // Nothing can be made in a folder that was removed.
        if (errno == ENOENT)
            return false;
        if (!isScarcity(errno) && ++failures == kAttempts)
            return false;
        Cancellation::sleep(pause);
    }
}

bool FifoReader::openOrReplace(bool& isSaid) {
    UniqueFd next = folder_->openFifo(name_);
    if (next) {
        end_ = std::move(next);
        return true;
    }
    if (isScarcity(errno))
        return false;
    if (!std::exchange(isSaid, true))
        Log::write(SeverityError, "The path " + path() + " is not a fifo any more. Making it again.");
    return replace();
}

bool FifoReader::replace() {
    UniqueFd next = folder_->makeFifo(name_, mode_, group_);
    if (!next)
        return false;
    end_ = std::move(next);
    return true;
}

ssize_t FifoReader::read(char* buffer, std::size_t capacity) {
    // A fresh read end reports nothing until a writer has come: this is the wait for the writer's open. Once
    // text has come, its end is looked for without a wait: of a writer that came and left between the last
    // end and the opening of this read end, only the text is reported.
    bool waits = !inText_;
    for (;;) {
        const std::int64_t left = millisecondsLeft();
        if (left == 0)
            return leaveWriterBehind();
        pollfd waiting{end_.get(), POLLIN, 0};
        if (Cancellation::poll(&waiting, 1, waits ? static_cast<int>(left) : 0) < 0 && errno == EINTR)
            continue;
        const ssize_t count = ::read(end_.get(), buffer, capacity);
        if (count > 0) {
            noteText();
            return count;
        }
        if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
            waits = waits || errno == EAGAIN;
            continue;
        }
        inText_ = false;
        return open() ? 0 : -1;
    }
}

// Until a limit is reached, at most what poll(2) takes; -1 when none is running.
std::int64_t FifoReader::millisecondsLeft() const {
    constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();
    const auto endOf = [](std::int64_t limit, std::int64_t begin) {
        return limit == FifoLimits::kUnlimited ? kNever : begin + limit;
    };
    const std::int64_t end = std::min(endOf(limits_.silence, lastByteAt_), endOf(limits_.text, firstByteAt_));
    if (!inText_ || end == kNever)
        return -1;
    const std::int64_t most = std::numeric_limits<int>::max();
    return std::clamp<std::int64_t>(end - Clock::monotonicMilliseconds(), 0, most);
}

void FifoReader::noteText() {
    lastByteAt_ = Clock::monotonicMilliseconds();
    if (!inText_)
        firstByteAt_ = lastByteAt_;
    inText_ = true;
}

ssize_t FifoReader::leaveWriterBehind() {
    Log::write(SeverityError,
               "A writer holds the fifo " + path() + " and does not end its text. Making it again.");
    inText_ = false;
    if (!replace())
        Log::write(SeverityError, "The fifo " + path() + " could not be made again: " + std::strerror(errno));
    return kOverdue;
}

}  // namespace keywarden
