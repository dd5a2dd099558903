#include "ctl/AnswerFifo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "channel/PipeFiles.h"
#include "ctl/Problem.h"
#include "support/FileStatus.h"

namespace keywardctl {

namespace {

constexpr mode_t kMode = 0660;
constexpr std::size_t kChunk = 65536;

}  // namespace

AnswerFifo::AnswerFifo(const std::string& folder, const std::string& service)
    : path_(folder + "/" + keywarden::outputFifoOf(service)) {
    removePredecessor();
    try {
        make(folder);
    } catch (...) {
        ::unlink(path_.c_str());
        throw;
    }
}

AnswerFifo::~AnswerFifo() {
    // After a restart of the daemon another requester's may stand there.
    const auto there = keywarden::linkStatusOfPath(path_);
    const auto ours = keywarden::statusOf(end_.get());
    if (there && ours && there->isSameFile(*ours))
        ::unlink(path_.c_str());
}

void AnswerFifo::removePredecessor() {
    const auto earlier = keywarden::linkStatusOfPath(path_);
    if (!earlier)
        return;
    if (!earlier->isFifo())
        throw Problem(ExitCode::Failed, "'" + path_ +
                                            "' is in the way: it is not a fifo that a requester left behind; "
                                            "look who made it and remove it");
    if (::unlink(path_.c_str()) != 0 && errno != ENOENT)
        throw Problem(ExitCode::Failed,
                      fileProblem("cannot remove the fifo of an earlier requester,", path_, errno));
    replacedAnother_ = true;
}

// The folder belongs to the service's management group, which the daemon user is a member of. Its other
// members may write it as well: rights are given to the opened fifo, not to what its path names by then.
void AnswerFifo::make(const std::string& folder) {
    const auto owner = keywarden::statusOfPath(folder);
    if (!owner)
        throw Problem(ExitCode::Failed, fileProblem("cannot use", folder, errno));
    if (::mkfifo(path_.c_str(), 0600) != 0)
        throw Problem(ExitCode::Failed, fileProblem("cannot make the fifo for the answer,", path_, errno));
    end_ = open();
    const bool given = ::fchown(end_.get(), static_cast<uid_t>(-1), owner->gid) == 0;
    if (!given && ::geteuid() != owner->uid)
        throw Problem(ExitCode::Failed,
                      fileProblem("cannot give the fifo to the group of its folder,", path_, errno));
    if (::fchmod(end_.get(), kMode) != 0)
        throw Problem(ExitCode::Failed, fileProblem("cannot set the rights of", path_, errno));
}

keywarden::UniqueFd AnswerFifo::open() const {
    keywarden::UniqueFd end(::open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    const auto status = end ? keywarden::statusOf(end.get()) : std::nullopt;
    if (!status)
        throw Problem(ExitCode::Failed, fileProblem("cannot read", path_, errno));
    if (!status->isFifo() || status->uid != ::geteuid())
        throw Problem(ExitCode::Failed, "'" + path_ + "' was replaced by somebody else's file");
    return end;
}

bool AnswerFifo::read(std::string& text) const {
    std::array<char, kChunk> chunk;
    for (;;) {
        const ssize_t count = ::read(end_.get(), chunk.data(), chunk.size());
        if (count > 0)
            text.append(chunk.data(), static_cast<std::size_t>(count));
        else if (count == 0)
            return false;
        else if (errno == EAGAIN)
            return true;
        else if (errno != EINTR)
            throw Problem(ExitCode::Failed, fileProblem("cannot read", path_, errno));
    }
}

void AnswerFifo::reopen() {
    // The new end first: a text that is just being written must not lose its last reader.
    end_ = open();
}

}  // namespace keywardctl
