// The command channel: the pipe files, the reader thread and the answers.
#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "service/Commands.h"
#include "service/Service.h"
#include "support/Accounts.h"
#include "support/Cancellation.h"
#include "support/Clock.h"
#include "support/Debug.h"
#include "support/Failure.h"
#include "support/FifoReader.h"
#include "support/KeywardenDaemonException.h"
#include "support/Log.h"
#include "support/StopRequest.h"
#include "support/Tools.h"
#include "support/UniqueFd.h"

namespace keywarden {

namespace {

constexpr unsigned kPipesMode = 0770;
constexpr mode_t kInputMode = 0720;
constexpr mode_t kLockMode = 0760;
constexpr std::size_t kChunk = 1023;
constexpr std::size_t kLongestRequest = 65536;
// A requester that opens the input fifo and hangs would otherwise keep the channel from all others.
constexpr FifoLimits kRequestLimits{10000, 60000};
constexpr std::int64_t kPatienceMilliseconds = 30000;
constexpr std::int64_t kPatienceAtTheEndMilliseconds = 1000;
constexpr int kYields = 4;
constexpr std::int64_t kLongestRetryMilliseconds = 20;

// An input fifo that somebody moved to the place of an output would make requests of answers, without end.
bool isRequestersFifo(int descriptor) {
    struct stat info {};
    return ::fstat(descriptor, &info) == 0 && S_ISFIFO(info.st_mode) &&
           !(info.st_uid == ::geteuid() && (info.st_mode & 07777U) == kInputMode);
}

// Opening one fails like opening a fifo without a reader. Leaves errno as that failure set it.
bool isSocket(const std::string& path) {
    struct stat info {};
    const bool socket = ::lstat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode);
    errno = ENXIO;
    return socket;
}

/// How long an answer may wait for its requester; a stop of the daemon cuts it short.
class Patience {
  public:
    explicit Patience(std::int64_t milliseconds) : limit_(milliseconds) {}

    [[nodiscard]] bool isOver() const {
        const std::int64_t spent = Clock::monotonicMilliseconds() - start_;
        return spent >= limit_ || (StopRequest::isRaised() && StopRequest::millisecondsLeft() == 0);
    }

  private:
    std::int64_t limit_;
    std::int64_t start_ = Clock::monotonicMilliseconds();
};

/// The fifo that an answer waits to be opened. Kept, so that its number is given to no other file meanwhile:
/// a fifo that later stands in its place is the next requester's, who must not get this answer.
class AwaitedFifo {
  public:
    // False, with errno ENOENT, when something else stands in its place by now.
    bool isStillAt(const std::string& path) {
        if (!fifo_)
            fifo_ = UniqueFd(::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        struct stat info {};
        return ::lstat(path.c_str(), &info) == 0 && isThis(info);
    }

    // The same for a fifo that has just been opened.
    [[nodiscard]] bool isThis(int descriptor) const {
        struct stat info {};
        return !fifo_ || (::fstat(descriptor, &info) == 0 && isThis(info));
    }

  private:
    [[nodiscard]] bool isThis(const struct stat& other) const {
        struct stat own {};
        const bool same = fifo_ && ::fstat(fifo_.get(), &own) == 0 && own.st_dev == other.st_dev &&
                          own.st_ino == other.st_ino;
        errno = same ? errno : ENOENT;
        return same;
    }

    UniqueFd fifo_;
};

// Nobody may be held up by a requester who made its fifo and does not read: so never a blocking open. One
// that is just about to open it is first given the processor, then more and more time. errno tells why there
// is none.
UniqueFd openForAnswer(const std::string& path, const Patience& patience) {
    AwaitedFifo awaited;
    std::int64_t wait = 1;
    for (int attempt = 0;; ++attempt) {
        UniqueFd output(::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
        if (output && !isRequestersFifo(output.get())) {
            errno = EINVAL;
            output.reset();
        } else if (output && !awaited.isThis(output.get())) {
            output.reset();
        }
        if (output || errno != ENXIO || patience.isOver() || isSocket(path) || !awaited.isStillAt(path))
            return output;
        if (attempt < kYields) {
            ::sched_yield();
        } else {
            Cancellation::sleep(wait);
            wait = std::min(2 * wait, kLongestRetryMilliseconds);
        }
        // Before it is opened: the next requester would take the closing for an empty answer.
        if (!awaited.isStillAt(path))
            return {};
    }
}

// Of the open file, not of its path: members of the group may put a link there.
void giveToGroup(int file, const std::string& path, const std::string& group) {
    const auto gid = groupIdOf(group);
    if (gid && ::fchown(file, static_cast<uid_t>(-1), *gid) != 0)
        throw std::runtime_error("Impossible to change the group for " + path);
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

}  // namespace

void Service::startHandler() {
    startHandler(Stop::ForGood);
}

void Service::startHandler(Stop before) {
    const std::string& id = getServiceId();
    const std::string directory = pipesDirectory();
    Tools::createDirectory(directory, kPipesMode);
    try {
        Tools::changeGroup(directory, getManagementGroup());
    } catch (...) {
        Log::write(SeverityError,
                   "Failed to change group of temporary file " + directory + " for service " + id);
    }
    if (::chmod(directory.c_str(), kPipesMode) != 0)
        throw KeywardenDaemonException(
            "Failed to assign required permissions to temporary file for service " + id);
    const std::string input = inputPath();
    ::unlink(input.c_str());
    if (::mkfifo(input.c_str(), kInputMode) != 0)
        throw KeywardenDaemonException("Failed to create Fifo IN for service " + id);
    // The group's members may write the folder: a link that one of them puts here is not followed.
    const auto group = groupIdOf(getManagementGroup());
    if (group && ::lchown(input.c_str(), static_cast<uid_t>(-1), *group) != 0)
        Log::write(SeverityError,
                   "Change the group of file: " + input + " to:" + getManagementGroup() + "' failed.");
    if (!FifoReader::setMode(input, kInputMode))
        throw KeywardenDaemonException("Error to assign required permissions to file '" + input +
                                       "' for service: " + id);
    // At a reload the requester may hold the lock of the file that is there.
    if (before == Stop::ForGood || !Tools::fileExist(lockPath()))
        makeLockFile(lockPath());
    if (::pthread_create(&readerThread_, nullptr, commandLineAnalyser, this) != 0) {
        readerThread_ = 0;
        throw KeywardenDaemonException("Impossible to start the handler for service " + id);
    }
}

void Service::makeLockFile(const std::string& path) const {
    const std::string& id = getServiceId();
    ::unlink(path.c_str());
    const UniqueFd lock(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!lock)
        throw KeywardenDaemonException("Failed create the lock file: '" + path + "' for service: " + id);
    try {
        giveToGroup(lock.get(), path, getManagementGroup());
    } catch (...) {
        const std::string of = " caught during changing group of lock file: ";
        const std::string file = path + " for service '" + id + "'";
        Log::write(SeverityError, Failure::current().runtimeMessage("Runtime exception" + of + file + " ",
                                                                    "Std exception" + of + file + " ",
                                                                    "Unknown exception" + of + file + "."));
    }
    if (::fchmod(lock.get(), kLockMode) != 0)
        throw KeywardenDaemonException("Failed to assign required permissions to path lock file '" + path +
                                       "' for service " + id);
}

void Service::stopHandler() {
    stopHandler(Stop::ForGood);
}

void Service::stopHandler(Stop stop) {
    if (readerThread_ != 0) {
        ::pthread_cancel(readerThread_);
        ::pthread_join(readerThread_, nullptr);
        readerThread_ = 0;
    }
    const auto remove = [](const std::string& path) {
        if (Tools::removeFile(path) != 0)
            Log::write(SeverityError, "Error to remove file: '" + path + "'.");
    };
    remove(inputPath());
    if (stop == Stop::ForReload)
        return;
    respond(AnswerNotPossible, "The daemon just terminate", kPatienceAtTheEndMilliseconds);
    remove(lockPath());
    Tools::removeFiles(pipesDirectory());
}

void* Service::commandLineAnalyser(void* service) {
    Cancellation::prepareThread();
    static_cast<Service*>(service)->readRequests();
    return nullptr;
}

void Service::readRequests() {
    Log::open();
    Log::write(SeverityInfo, "Entering the command line analyzer for service " + getServiceId());
    FifoReader reader(inputPath(), kInputMode, getManagementGroup(), kRequestLimits);
    bool usable = reader.open();
    while (usable) {
        Request request;
        usable = readRequest(reader, request);
        debugTrace("Received: " + request.text);
        if (!request.text.empty())
            answerRequest(request);
    }
    Log::write(SeverityError, "Error during opening file: " + inputPath() +
                                  ". Hence, exiting the command analyzer for service: " + getServiceId());
}

bool Service::readRequest(FifoReader& reader, Request& request) const {
    std::array<char, kChunk> chunk;
    for (;;) {
        const ssize_t count = reader.read(chunk.data(), chunk.size());
        request.overdue = count == FifoReader::kOverdue;
        if (count <= 0)
            return count == 0 || request.overdue;
        // One byte over the limit is kept, so that the request is seen to be too long.
        const std::size_t room = kLongestRequest + 1 - request.text.size();
        request.text.append(chunk.data(), std::min(static_cast<std::size_t>(count), room));
    }
}

void Service::answerRequest(const Request& request) {
    std::optional<Answer> answer;
    Cancellation::lock(serviceMutex_);
    {
        const std::lock_guard<std::mutex> guard(serviceMutex_, std::adopt_lock);
        answer = processRequest(request);
    }
    if (answer)
        sendResponse(answer->code, answer->text);
}

std::optional<Answer> Service::processRequest(const Request& request) {
    try {
        if (request.text.size() > kLongestRequest)
            throw std::runtime_error("Bad format for command. The request is longer than " +
                                     std::to_string(kLongestRequest) + " bytes.");
        // What came may look like a whole command and be the beginning of another one.
        if (request.overdue)
            throw std::runtime_error("Bad format for command. The request was not ended in time.");
        Commands command(request.text);
        return execCmd(command);
    } catch (...) {
        const Failure failure = Failure::current();
        const std::string of =
            " caught while creating command structure for service '" + getServiceId() + "'";
        Log::write(SeverityError,
                   failure.message("std::exception" + of + " ", "Unknown exception" + of + "."));
        return Answer{AnswerBadCommand, failure.text()};
    }
}

void Service::sendResponse(int code, const std::string& text) const {
    respond(code, text, kPatienceMilliseconds);
}

void Service::respond(int code, const std::string& text, std::int64_t patienceMilliseconds) const {
    debugTrace("Send: " + std::to_string(code) + " - " + text);
    const std::string path = outputPath();
    const std::string answer = std::to_string(code) + " " + text;
    const Patience patience(patienceMilliseconds);
    const UniqueFd output = openForAnswer(path, patience);
    if (output) {
        debugTrace("Sending: " + answer);
        if (!writeAnswer(output.get(), answer, patience))
            Log::write(SeverityError, "Error during communication of: " + answer);
    } else if (errno == ENOENT) {
        Log::write(SeverityWarning,
                   "'" + path +
                       "' file not found.\nLooks like the requester is no more present to receive the "
                       "response back!");
    } else {
        releaseRequesterLock();
    }
}

void Service::releaseRequesterLock() const {
    const std::string path = lockPath();
    const UniqueFd lock(
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC, kLockMode));
    if (lock)
        ::flock(lock.get(), LOCK_UN);
    else
        Log::write(SeverityNotice, "Unable to open lock file '" + path + "'.");
}

}  // namespace keywarden
