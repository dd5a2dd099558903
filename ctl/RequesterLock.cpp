#include "ctl/RequesterLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>

#include "channel/PipeFiles.h"
#include "ctl/Problem.h"
#include "support/FileStatus.h"

namespace keywardctl {

namespace {

constexpr int kRetryMilliseconds = 10;
constexpr std::string_view kMark = "unanswered";

// The daemon makes the file anew at its start: one that was locked may be another by then.
bool standsAt(const std::string& path, int file) {
    const auto there = keywarden::linkStatusOfPath(path);
    const auto ours = keywarden::statusOf(file);
    return there && ours && there->isSameFile(*ours);
}

// The folder's group may write it: what is written into must be no other file that somebody linked there.
bool isLockFile(const keywarden::FileStatus& file, const std::string& folder) {
    const auto owner = keywarden::statusOfPath(folder);
    return file.isRegular() && file.links == 1 && owner &&
           (file.uid == owner->uid || file.uid == ::geteuid());
}

}  // namespace

RequesterLock::RequesterLock(const Device& device, const std::string& service, const Deadline& deadline,
                             const HeldSignals& signals)
    : path_(Device::pipesFolder(service) + "/" + keywarden::requesterLockOf(service)) {
    for (;;) {
        file_ = open(device, service);
        while (::flock(file_.get(), LOCK_EX | LOCK_NB) != 0) {
            if (errno != EWOULDBLOCK && errno != EINTR)
                throw Problem(ExitCode::Failed, fileProblem("cannot lock", path_, errno));
            if (deadline.isOver())
                throw Problem(ExitCode::Failed, "another requester has held '" + path_ + "' for " +
                                                    std::to_string(deadline.seconds()) +
                                                    " s; 'fuser -v' names the process");
            signals.sleep(deadline.slice(kRetryMilliseconds));
        }
        if (standsAt(path_, file_.get()))
            return;
    }
}

keywarden::UniqueFd RequesterLock::open(const Device& device, const std::string& service) const {
    keywarden::UniqueFd file(::open(path_.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    const int error = errno;
    const std::string folder = Device::pipesFolder(service);
    const auto status = file ? keywarden::statusOf(file.get()) : std::nullopt;
    if (status && isLockFile(*status, folder))
        return file;
    if (file)
        throw Problem(ExitCode::Failed, "'" + path_ + "' is not the daemon's lock file; restart the daemon");
    if (error == ENOENT && device.daemon())
        throw Problem(ExitCode::DaemonNotRunning,
                      "the daemon runs, but nobody answers for the service '" + service + "': '" + path_ +
                          "' does not exist; the daemon's log tells why the service was not started");
    if (error == ENOENT)
        device.throwNotRunning("'" + path_ + "' does not exist");
    std::string text = fileProblem("cannot open", path_, error);
    const auto owner = keywarden::statusOfPath(folder);
    if (error == EACCES && owner)
        text += "; " + membershipAdvice(owner->gid, "command the service '" + service + "'");
    throw Problem(ExitCode::Failed, text);
}

bool RequesterLock::isMarked() const {
    std::array<char, kMark.size()> content{};
    const ssize_t count = ::pread(file_.get(), content.data(), content.size(), 0);
    return count == static_cast<ssize_t>(kMark.size()) &&
           std::string_view(content.data(), content.size()) == kMark;
}

void RequesterLock::mark() const {
    if (::pwrite(file_.get(), kMark.data(), kMark.size(), 0) != static_cast<ssize_t>(kMark.size()))
        throw Problem(ExitCode::Failed, fileProblem("cannot write", path_, errno));
}

void RequesterLock::unmark() const {
    if (::ftruncate(file_.get(), 0) != 0)
        throw Problem(ExitCode::Failed, fileProblem("cannot write", path_, errno));
}

}  // namespace keywardctl
