#include "support/Exec.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>
#include <system_error>

#include "support/Clock.h"
#include "support/StopRequest.h"
#include "support/UniqueFd.h"

extern char** environ;

namespace zlk {

namespace {

using keywarden::Clock;
using keywarden::StopRequest;
using keywarden::UniqueFd;

constexpr std::size_t kKeptBytes = std::size_t{1024} * 1024;
constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();
// Only where the kernel offers no descriptor for a process (before 5.3).
constexpr std::int64_t kExitCheckMilliseconds = 20;

// "<what>: <the system's reason>".
std::system_error failure(int error, const std::string& what) {
    return {error, std::generic_category(), what};
}

/// One output of the program.
struct Drain {
    UniqueFd readEnd;
    std::string kept;
    bool truncated = false;

    // One read; false when there is nothing more to be had now.
    bool readOnce() {
        std::array<char, 16384> chunk;
        const ssize_t count = ::read(readEnd.get(), chunk.data(), chunk.size());
        if (count < 0)
            return errno == EINTR;
        if (count == 0) {
            readEnd.reset();
            return false;
        }
        const auto size = static_cast<std::size_t>(count);
        const std::size_t room = kKeptBytes - kept.size();
        try {
            kept.append(chunk.data(), std::min(size, room));
            truncated = truncated || size > room;
        } catch (const std::exception&) {
            // Without the memory for it the rest goes where what is too much goes: the program still has to
            // be seen to its end.
            truncated = true;
        }
        return true;
    }

    // What the program left in the pipe; bounded, since a background child may go on printing.
    void readRest() {
        for (std::size_t reads = 0; readEnd && reads < kKeptBytes / 16384 && readOnce(); ++reads) {
        }
    }
};

/// The attributes and file actions of posix_spawn(3), released together.
class SpawnPlan {
  public:
    SpawnPlan() {
        ::posix_spawn_file_actions_init(&actions_);
        ::posix_spawnattr_init(&attributes_);
    }
    SpawnPlan(const SpawnPlan&) = delete;
    SpawnPlan& operator=(const SpawnPlan&) = delete;
    ~SpawnPlan() {
        ::posix_spawn_file_actions_destroy(&actions_);
        ::posix_spawnattr_destroy(&attributes_);
    }

    void connect(int input, int output, int error) {
        require(::posix_spawn_file_actions_adddup2(&actions_, input, STDIN_FILENO));
        require(::posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO));
        require(::posix_spawn_file_actions_adddup2(&actions_, error, STDERR_FILENO));
        require(::posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1));
    }

    void ownGroupAndPlainSignals() {
        sigset_t none;
        ::sigemptyset(&none);
        sigset_t all;
        ::sigfillset(&all);
        ::posix_spawnattr_setflags(&attributes_,
                                   POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        ::posix_spawnattr_setpgroup(&attributes_, 0);
        ::posix_spawnattr_setsigmask(&attributes_, &none);
        ::posix_spawnattr_setsigdefault(&attributes_, &all);
    }

    pid_t spawn(const std::vector<std::string>& arguments) {
        std::vector<char*> pointers;
        pointers.reserve(arguments.size() + 1);
        for (const std::string& argument : arguments)
            pointers.push_back(const_cast<char*>(argument.c_str()));
        pointers.push_back(nullptr);
        pid_t pid = -1;
        const int error =
            ::posix_spawn(&pid, arguments.front().c_str(), &actions_, &attributes_, pointers.data(), environ);
        if (error != 0)
            throw failure(error, "Cannot run " + arguments.front());
        return pid;
    }

  private:
    // Otherwise it would run with the daemon's own descriptors.
    static void require(int error) {
        if (error != 0)
            throw failure(error, "Cannot connect a program");
    }

    posix_spawn_file_actions_t actions_{};
    posix_spawnattr_t attributes_{};
};

UniqueFd makePipe(Drain& drain) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0)
        throw failure(errno, "Cannot make a pipe");
    drain.readEnd = UniqueFd(ends[0]);
    ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
    return UniqueFd(ends[1]);
}

// A file in memory instead of a pipe: a program that does not read its input cannot block anyone.
UniqueFd makeInput(const std::string& text) {
    if (text.empty())
        return UniqueFd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    UniqueFd input(::memfd_create("input", MFD_CLOEXEC));
    if (input && (::write(input.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
                  ::lseek(input.get(), 0, SEEK_SET) != 0))
        input.reset();
    return input;
}

/// The running program: drains its outputs until it ends, is killed at the time-out, or is ended by a stop.
class Run {
  public:
    Run(pid_t pid, Drain& output, Drain& error, unsigned timeoutSeconds)
        : pid_(pid),
          exit_(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0))),
          output_(output),
          error_(error),
          start_(Clock::monotonicMilliseconds()),
          deadline_(timeoutSeconds == 0 ? kNever : start_ + timeoutSeconds * INT64_C(1000)) {
        if (exit_)
            ::fcntl(exit_.get(), F_SETFD, FD_CLOEXEC);
    }

    void untilEnd() {
        while (!hasEnded()) {
            noticeStop();
            const std::int64_t now = Clock::monotonicMilliseconds();
            if (now >= std::min(deadline_, graceEnd_)) {
                timedOut_ = deadline_ <= graceEnd_;
                interrupted_ = !timedOut_;
                killGroup();
                break;
            }
            waitForNews(std::min(deadline_, graceEnd_) - now);
        }
        output_.readRest();
        error_.readRest();
    }

    [[nodiscard]] bool timedOut() const { return timedOut_; }
    [[nodiscard]] bool interrupted() const { return interrupted_; }
    [[nodiscard]] int waitStatus() const { return waitStatus_; }

  private:
    bool hasEnded() {
        const pid_t result = ::waitpid(pid_, &waitStatus_, WNOHANG);
        // ECHILD: somebody made the kernel reap children by itself; the status is then not to be had.
        return result == pid_ || (result < 0 && errno == ECHILD);
    }

    void noticeStop() {
        if (graceEnd_ != kNever || !StopRequest::isRaised())
            return;
        const std::int64_t left = StopRequest::kGraceMilliseconds - StopRequest::millisecondsOfStop(start_);
        graceEnd_ = Clock::monotonicMilliseconds() + std::max<std::int64_t>(0, left);
    }

    void killGroup() {
        ::kill(-pid_, SIGKILL);
        // The program itself may have moved to another group; without this its end would be waited for.
        ::kill(pid_, SIGKILL);
        while (::waitpid(pid_, &waitStatus_, 0) < 0 && errno == EINTR) {
        }
    }

    void waitForNews(std::int64_t milliseconds) {
        if (!exit_)
            milliseconds = std::min(milliseconds, kExitCheckMilliseconds);
        const bool stopKnown = graceEnd_ != kNever;
        std::array<pollfd, 5> waiting{{{output_.readEnd.get(), POLLIN, 0},
                                       {error_.readEnd.get(), POLLIN, 0},
                                       {exit_.get(), POLLIN, 0},
                                       {stopKnown ? -1 : StopRequest::raisedDescriptor(), POLLIN, 0},
                                       {stopKnown ? -1 : StopRequest::pendingSignalDescriptor(), POLLIN, 0}}};
        const auto most = static_cast<std::int64_t>(std::numeric_limits<int>::max());
        ::poll(waiting.data(), waiting.size(), milliseconds > most ? -1 : static_cast<int>(milliseconds));
        if (waiting[0].revents != 0)
            output_.readOnce();
        if (waiting[1].revents != 0)
            error_.readOnce();
    }

    pid_t pid_;
    UniqueFd exit_;
    Drain& output_;
    Drain& error_;
    std::int64_t start_;
    std::int64_t deadline_;
    std::int64_t graceEnd_ = kNever;
    int waitStatus_ = 0;
    bool timedOut_ = false;
    bool interrupted_ = false;
};

// Without memory that is the system's reason as well.
pid_t start(const std::vector<std::string>& arguments, const std::string& input, Drain& output,
            Drain& error) {
    try {
        const UniqueFd standardInput = makeInput(input);
        if (!standardInput)
            throw failure(errno, "Cannot prepare the input of " + arguments.front());
        const UniqueFd outputEnd = makePipe(output);
        const UniqueFd errorEnd = makePipe(error);
        SpawnPlan plan;
        plan.connect(standardInput.get(), outputEnd.get(), errorEnd.get());
        plan.ownGroupAndPlainSignals();
        return plan.spawn(arguments);
    } catch (const std::bad_alloc&) {
        throw failure(ENOMEM, "Cannot run " + arguments.front());
    }
}

}  // namespace

Exec::Exec(const std::vector<std::string>& arguments, unsigned timeoutSeconds) {
    run(arguments, std::string(), timeoutSeconds);
}

Exec::Exec(const std::vector<std::string>& arguments, const std::string& input, unsigned timeoutSeconds) {
    run(arguments, input, timeoutSeconds);
}

void Exec::run(const std::vector<std::string>& arguments, const std::string& input, unsigned timeoutSeconds) {
    if (arguments.empty())
        throw std::runtime_error("Cannot run a program without a name");
    program_ = arguments.front();
    Drain output;
    Drain error;
    const pid_t pid = start(arguments, input, output, error);
    Run running(pid, output, error, timeoutSeconds);
    running.untilEnd();
    waitStatus_ = running.waitStatus();
    truncated_ = output.truncated;
    interrupted_ = running.interrupted();
    output_.str(output.kept);
    error_.str(error.kept);
    if (running.timedOut())
        throw ExecTimeout(program_ + " did not end within " + std::to_string(timeoutSeconds) +
                          " seconds and was killed");
}

std::stringstream& Exec::wholeOutput() {
    if (interrupted_)
        throw std::runtime_error(program_ + " was ended by the stop of the daemon");
    if (truncated_)
        throw std::runtime_error(program_ + " printed more than " + std::to_string(kKeptBytes) + " bytes");
    return output_;
}

std::string Exec::failureText() const {
    if (WIFSIGNALED(waitStatus_))
        return "signal " + std::to_string(WTERMSIG(waitStatus_));
    if (WIFEXITED(waitStatus_) && WEXITSTATUS(waitStatus_) != 0)
        return "exit status " + std::to_string(WEXITSTATUS(waitStatus_));
    return {};
}

}  // namespace zlk
