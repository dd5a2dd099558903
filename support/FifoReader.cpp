#include "support/FifoReader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include "support/Accounts.h"
#include "support/Cancellation.h"
#include "support/Clock.h"
#include "support/Log.h"
#include "support/Tools.h"

namespace keywarden {

namespace {

constexpr int kAttempts = 3;
constexpr std::int64_t kBackOffMilliseconds = 500;
constexpr unsigned kRandomNameLength = 8;

// Says nothing against the fifo: it is there, only this process has no room to open it.
bool isScarcity(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM;
}

}  // namespace

FifoReader::FifoReader(std::string path, mode_t mode, std::string group, FifoLimits limits)
    : path_(std::move(path)), mode_(mode), group_(std::move(group)), limits_(limits) {}

bool FifoReader::make(const std::string& path, mode_t mode, const std::string& group) {
    if (::mkfifo(path.c_str(), mode) != 0)
        return false;
    const auto gid = groupIdOf(group);
    if (gid && ::lchown(path.c_str(), static_cast<uid_t>(-1), *gid) != 0)
        return false;
    return setMode(path, mode);
}

// Others may write the folder: what they put in the fifo's place meanwhile is not touched. Where the mode is
// right already, as it is while the umask is 0, the call is saved: the C library makes it by way of /proc,
// which a chroot may lack.
bool FifoReader::setMode(const std::string& path, mode_t mode) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0)
        return false;
    if (!S_ISFIFO(info.st_mode)) {
        errno = EINVAL;
        return false;
    }
    return (info.st_mode & 07777U) == mode ||
           ::fchmodat(AT_FDCWD, path.c_str(), mode, AT_SYMLINK_NOFOLLOW) == 0;
}

UniqueFd FifoReader::openEnd(const std::string& path) {
    UniqueFd end(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW));
    struct stat info {};
    if (end && (::fstat(end.get(), &info) != 0 || !S_ISFIFO(info.st_mode))) {
        end.reset();
        errno = EINVAL;
    }
    return end;
}

bool FifoReader::open() {
    for (int attempt = 1;; ++attempt) {
        UniqueFd next = openEnd(path_);
        if (next) {
            end_ = std::move(next);
            return true;
        }
        const bool scarce = isScarcity(errno);
        if (attempt == kAttempts)
            return false;
        if (attempt > 1 || scarce)
            Cancellation::sleep(kBackOffMilliseconds);
        if (scarce)
            continue;
        if (attempt == 1)
            Log::write(SeverityError, "The path " + path_ + " is not a fifo any more. Making it again.");
        ::unlink(path_.c_str());
        make(path_, mode_, group_);
    }
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
               "A writer holds the fifo " + path_ + " and does not end its text. Making it again.");
    inText_ = false;
    if (!replace())
        Log::write(SeverityError, "The fifo " + path_ + " could not be made again: " + std::strerror(errno));
    return kOverdue;
}

// A name that nobody can have taken before: others may write the folder.
bool FifoReader::replace() {
    const std::string fresh = path_ + "." + Tools::getRandomName(kRandomNameLength);
    UniqueFd next;
    if (make(fresh, mode_, group_))
        next = openEnd(fresh);
    if (next && ::rename(fresh.c_str(), path_.c_str()) == 0) {
        end_ = std::move(next);
        return true;
    }
    const int reason = errno;
    ::unlink(fresh.c_str());
    errno = reason;
    return false;
}

}  // namespace keywarden
