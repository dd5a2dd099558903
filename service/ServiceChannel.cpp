// The command channel: the pipe files, the reader thread and the answers.
#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "channel/Commands.h"
#include "channel/PipeFiles.h"
#include "config/DaemonConfiguration.h"
#include "service/Service.h"
#include "support/Accounts.h"
#include "support/Cancellation.h"
#include "support/Clock.h"
#include "support/Debug.h"
#include "support/Failure.h"
#include "support/FifoReader.h"
#include "support/FileStatus.h"
#include "support/GrowingPause.h"
#include "support/KeywardenDaemonException.h"
#include "support/Log.h"
#include "support/StopRequest.h"
#include "support/Survive.h"
#include "support/UniqueFd.h"

namespace keywarden {

namespace {

constexpr std::size_t kChunk = 1023;
constexpr std::size_t kLongestRequest = 65536;
// A requester that opens the input fifo and hangs would otherwise keep the channel from all others.
constexpr FifoLimits kRequestLimits{10000, 60000};
constexpr std::int64_t kPatienceMilliseconds = 30000;
constexpr std::int64_t kPatienceAtTheEndMilliseconds = 1000;
constexpr int kYields = 4;
// Of writing one answer, when there was no memory for it.
constexpr int kAnswerAttempts = 4;
constexpr std::int64_t kFirstAnswerPauseMilliseconds = 20;
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

/// How long an answer may wait for its requester; a stop of the daemon cuts it short.
class Patience {
  public:
    explicit Patience(std::int64_t milliseconds) : limit_(milliseconds) {}

    [[nodiscard]] bool isOver() const {
        const std::int64_t spent = Clock::monotonicMilliseconds() - start_;
        return spent >= limit_ || StopRequest::millisecondsOfStop(start_) >= kPatienceAtTheEndMilliseconds;
    }

  private:
    std::int64_t limit_;
    std::int64_t start_ = Clock::monotonicMilliseconds();
};

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

// Nobody may be held up by a requester who made its fifo and does not read: so never a blocking open. A want
// of descriptors or memory is waited out in the same way. errno tells why there is none.
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
    startHandler(Stop::ForGood, Attempts::Few);
}

void Service::startHandler(Stop before, Attempts attempts) {
    makePipes(before);
    startReader(attempts, commandLineAnalyser);
}

void Service::startHandlerLater() {
    startReader(Attempts::Few, pipesMaker);
}

void Service::makePipes(Stop before) {
    const std::string& id = getServiceId();
    const std::string directory = pipesDirectory();
    pipes_ = Folder::at(DaemonConfiguration::getNamePipesDirectory(), Folder::Owner::Anybody)
                 ->makeAnyway(id, kPipesFolderMode);
    try {
        pipes_->setGroup(getManagementGroup());
    } catch (...) {
        Log::write(SeverityError,
                   "Failed to change group of temporary file " + directory + " for service " + id);
    }
    try {
        pipes_->setMode(kPipesFolderMode);
    } catch (...) {
        throw KeywardenDaemonException(
            "Failed to assign required permissions to temporary file for service " + id);
    }
    makeInputFifo();
    // At a reload the requester may hold the lock of the file that is there.
    if (before == Stop::ForGood || !pipes_->has(lockName()))
        makeLockFile();
}

void Service::makeInputFifo() {
    const std::string input = inputPath();
    const UniqueFd end = pipes_->makeFifo(inputName(), kInputFifoMode, std::string());
    if (!end)
        throw PipesNotMade("Failed to create Fifo IN for service " + getServiceId());
    try {
        giveToGroup(end.get(), input, getManagementGroup());
    } catch (...) {
        Log::write(SeverityError,
                   "Change the group of file: " + input + " to:" + getManagementGroup() + "' failed.");
    }
    if (::fchmod(end.get(), kInputFifoMode) != 0)
        throw KeywardenDaemonException("Error to assign required permissions to file '" + input +
                                       "' for service: " + getServiceId());
}

// Under a name of its own first: what others put in its place again and again is replaced all the same.
void Service::makeLockFile() const {
    const std::string& id = getServiceId();
    const std::string path = lockPath();
    const std::string fresh = Folder::nameBeside(lockName());
    const UniqueFd lock = pipes_->create(fresh);
    if (!lock)
        throw PipesNotMade("Failed create the lock file: '" + path + "' for service: " + id);
    try {
        giveToGroup(lock.get(), path, getManagementGroup());
    } catch (...) {
        const std::string of = " caught during changing group of lock file: ";
        const std::string file = path + " for service '" + id + "'";
        Log::write(SeverityError, Failure::current().runtimeMessage("Runtime exception" + of + file + " ",
                                                                    "Std exception" + of + file + " ",
                                                                    "Unknown exception" + of + file + "."));
    }
    const bool hasMode = ::fchmod(lock.get(), kRequesterLockMode) == 0;
    if (hasMode && pipes_->putInPlace(fresh, lockName()))
        return;
    static_cast<void>(pipes_->remove(fresh));
    if (hasMode)
        throw PipesNotMade("Failed create the lock file: '" + path + "' for service: " + id);
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
    const auto remove = [this](const std::string& name) {
        if (!pipes_ || !pipes_->remove(name))
            Log::write(SeverityError, "Error to remove file: '" + pipesDirectory() + "/" + name + "'.");
    };
    remove(inputName());
    if (stop == Stop::ForReload)
        return;
    survives("The last answer",
             [this] { respond(AnswerNotPossible, kTerminationText, kPatienceAtTheEndMilliseconds); });
    remove(lockName());
    if (pipes_)
        static_cast<void>(removePipesFolder());
}

void* Service::commandLineAnalyser(void* service) {
    Cancellation::prepareThread();
    static_cast<Service*>(service)->keepReading();
}

void Service::readRequests() {
    Log::open();
    Log::write(SeverityInfo, "Entering the command line analyzer for service " + getServiceId());
    FifoReader reader(pipes_, inputName(), kInputFifoMode, getManagementGroup(), kRequestLimits);
    bool usable = reader.open();
    while (usable) {
        Request request;
        usable = readRequest(reader, request);
        if (!request.text.empty() || request.isLost)
            answerRequest(request);
        else
            debugTrace("Received: ");
    }
    Log::write(SeverityError, "Error during opening file: " + inputPath() +
                                  ". Hence, exiting the command analyzer for service: " + getServiceId());
}

bool Service::readRequest(FifoReader& reader, Request& request) const {
    std::array<char, kChunk> chunk;
    for (;;) {
        ssize_t count = 0;
        const auto readOn = [&] {
            count = reader.read(chunk.data(), chunk.size());
            // One byte over the limit is kept, so that the request is seen to be too long.
            const std::size_t room = kLongestRequest + 1 - request.text.size();
            if (count > 0)
                request.text.append(chunk.data(), std::min(static_cast<std::size_t>(count), room));
        };
        // The rest is read all the same: it must not become the beginning of the next one.
        if (!survives("Reading a request", readOn))
            request.isLost = true;
        request.overdue = count == FifoReader::kOverdue;
        if (count <= 0)
            return count == 0 || request.overdue;
    }
}

void Service::answerRequest(const Request& request) {
    std::optional<Answer> answer;
    const auto handle = [&] {
        debugTrace("Received: " + request.text);
        Cancellation::lock(serviceMutex_);
        const std::lock_guard<std::mutex> guard(serviceMutex_, std::adopt_lock);
        answer = processRequest(request);
    };
    if (request.isLost || !survives("Handling a request", handle))
        answer = Answer{AnswerFailure, "Out of memory"};
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

// What fails by an exception has not begun to write.
void Service::sendResponse(int code, const std::string& text) const {
    GrowingPause pause(kFirstAnswerPauseMilliseconds);
    const auto answer = [&] { respond(code, text, kPatienceMilliseconds); };
    for (int made = 1; !survives("Answering a request", answer) && made < kAnswerAttempts; ++made)
        Cancellation::sleep(pause.next());
}

void Service::respond(int code, const std::string& text, std::int64_t patienceMilliseconds) const {
    debugTrace("Send: " + std::to_string(code) + " - " + text);
    const std::string path = outputPath();
    const std::string answer = std::to_string(code) + " " + text;
    // All that needs memory is made before the fifo is open: its closing would be an empty answer.
    const std::string sending = "Sending: " + answer;
    const Patience patience(patienceMilliseconds);
    const FolderPtr folder = pipes_;
    errno = ENOENT;
    const UniqueFd output = folder ? openForAnswer(*folder, outputName(), patience) : UniqueFd();
    if (output) {
        debugTrace(sending);
        if (!writeAnswer(output.get(), answer, patience))
            survives("Answering a request",
                     [&answer] { Log::write(SeverityError, "Error during communication of: " + answer); });
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
    const FolderPtr folder = pipes_;
    const UniqueFd lock(folder ? ::openat(folder->get(), lockName().c_str(),
                                          O_WRONLY | O_CREAT | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC,
                                          kRequesterLockMode)
                               : -1);
    if (lock)
        ::flock(lock.get(), LOCK_UN);
    else
        Log::write(SeverityNotice, "Unable to open lock file '" + path + "'.");
}

}  // namespace keywarden
