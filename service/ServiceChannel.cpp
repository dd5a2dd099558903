#include "service/ServiceChannel.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>

#include "channel/PipeFiles.h"
#include "config/DaemonConfiguration.h"
#include "config/ServiceConfiguration.h"
#include "service/AnswerOutput.h"
#include "support/Accounts.h"
#include "support/Cancellation.h"
#include "support/Clock.h"
#include "support/Debug.h"
#include "support/Failure.h"
#include "support/FifoReader.h"
#include "support/FileWriteError.h"
#include "support/GrowingPause.h"
#include "support/KeywardenDaemonException.h"
#include "support/Log.h"
#include "support/Survive.h"

namespace keywarden {

namespace {

constexpr std::size_t kChunk = 1023;
constexpr std::size_t kLongestRequest = 65536;
// A requester that opens the input fifo and hangs would otherwise keep the channel from all others.
constexpr FifoLimits kRequestLimits{10000, 60000};
constexpr std::int64_t kPatienceMilliseconds = 30000;
// Of writing one answer, when there was no memory for it.
constexpr int kAnswerAttempts = 4;
constexpr std::int64_t kFirstAnswerPauseMilliseconds = 20;
constexpr std::int64_t kFirstPauseWithoutFifo = 1000;
constexpr std::int64_t kLongReadingMilliseconds = 60000;

// Of the open file, not of its path: members of the group may put a link there.
void giveToGroup(int file, const std::string& path, const std::string& group) {
    const auto gid = groupIdOf(group);
    if (gid && ::fchown(file, static_cast<uid_t>(-1), *gid) != 0)
        throw std::runtime_error("Impossible to change the group for " + path);
}

}  // namespace

ServiceChannel::ServiceChannel(const ServiceConfiguration& configuration, std::mutex& serviceMutex,
                               Retry& retry, Execute execute)
    : configuration_(configuration),
      serviceMutex_(serviceMutex),
      retry_(retry),
      execute_(std::move(execute)) {}

ServiceChannel::~ServiceChannel() {
    endReader();
}

// Only root and the daemon user can have put something else in its place.
void ServiceChannel::makeFolder() {
    const std::string root = DaemonConfiguration::getNamePipesDirectory();
    pipes_ = Folder::at(root, Folder::Owner::Anybody)->makeAnyway(id(), kPipesFolderMode);
    // A daemon user who is no member may not give the group away; the check that follows says so by name.
    try {
        pipes_->setGroup(configuration_.getManagementGroup());
    } catch (...) {
        Log::write(SeverityError, Failure::current().text());
    }
}

void ServiceChannel::start(Stop before, Retry::Attempts attempts) {
    makePipes(before);
    startReader(attempts, commandLineAnalyser);
}

void ServiceChannel::startLater() {
    startReader(Retry::Attempts::Few, pipesMaker);
}

void ServiceChannel::makePipes(Stop before) {
    const std::string directory = folderPath();
    pipes_ = Folder::at(DaemonConfiguration::getNamePipesDirectory(), Folder::Owner::Anybody)
                 ->makeAnyway(id(), kPipesFolderMode);
    try {
        pipes_->setGroup(configuration_.getManagementGroup());
    } catch (...) {
        Log::write(SeverityError,
                   "Failed to change group of temporary file " + directory + " for service " + id());
    }
    try {
        pipes_->setMode(kPipesFolderMode);
    } catch (...) {
        throw KeywardenDaemonException(
            "Failed to assign required permissions to temporary file for service " + id());
    }
    makeInputFifo();
    // At a reload the requester may hold the lock of the file that is there.
    if (before == Stop::ForGood || !pipes_->has(lockName()))
        makeLockFile();
}

void ServiceChannel::makeInputFifo() {
    const std::string input = pathOf(inputName());
    const UniqueFd end = pipes_->makeFifo(inputName(), kInputFifoMode, std::string());
    if (!end)
        throw PipesNotMade("Failed to create Fifo IN for service " + id());
    try {
        giveToGroup(end.get(), input, configuration_.getManagementGroup());
    } catch (...) {
        Log::write(SeverityError, "Change the group of file: " + input +
                                      " to:" + configuration_.getManagementGroup() + "' failed.");
    }
    if (::fchmod(end.get(), kInputFifoMode) != 0)
        throw KeywardenDaemonException("Error to assign required permissions to file '" + input +
                                       "' for service: " + id());
}

// Under a name of its own first: what others put in its place again and again is replaced all the same.
void ServiceChannel::makeLockFile() const {
    const std::string path = pathOf(lockName());
    const std::string fresh = Folder::nameBeside(lockName());
    const UniqueFd lock = pipes_->create(fresh);
    if (!lock)
        throw PipesNotMade("Failed create the lock file: '" + path + "' for service: " + id());
    try {
        giveToGroup(lock.get(), path, configuration_.getManagementGroup());
    } catch (...) {
        const std::string of = " caught during changing group of lock file: ";
        const std::string file = path + " for service '" + id() + "'";
        Log::write(SeverityError, Failure::current().runtimeMessage("Runtime exception" + of + file + " ",
                                                                    "Std exception" + of + file + " ",
                                                                    "Unknown exception" + of + file + "."));
    }
    const bool hasMode = ::fchmod(lock.get(), kRequesterLockMode) == 0;
    if (hasMode && pipes_->putInPlace(fresh, lockName()))
        return;
    static_cast<void>(pipes_->remove(fresh));
    if (hasMode)
        throw PipesNotMade("Failed create the lock file: '" + path + "' for service: " + id());
    throw KeywardenDaemonException("Failed to assign required permissions to path lock file '" + path +
                                   "' for service " + id());
}

void ServiceChannel::stop(Stop stop) {
    endReader();
    const auto remove = [this](const std::string& name) {
        if (!pipes_ || !pipes_->remove(name))
            Log::write(SeverityError, "Error to remove file: '" + pathOf(name) + "'.");
    };
    remove(inputName());
    if (stop == Stop::ForReload)
        return;
    survives("The last answer",
             [this] { respond(AnswerNotPossible, kTerminationText, Patience::kMillisecondsAtTheEnd); });
    remove(lockName());
    if (pipes_)
        static_cast<void>(removeFolder());
}

void ServiceChannel::endReader() {
    if (reader_ == 0)
        return;
    ::pthread_cancel(reader_);
    ::pthread_join(reader_, nullptr);
    reader_ = 0;
}

void ServiceChannel::removeFiles(Stop stop) {
    std::optional<std::string> left;
    if (stop == Stop::ForGood)
        left = removeFolder() ? std::make_optional(folderPath()) : std::nullopt;
    else if (pipes_)
        left = pipes_->empty({outputName(), lockName()});
    if (left)
        Log::write(SeverityNotice, "Failed to remove file '" + *left + "' for service-" + id());
}

// Returns what could not be removed.
std::optional<std::string> ServiceChannel::removeFolder() {
    pipes_.reset();
    try {
        return Folder::at(DaemonConfiguration::getNamePipesDirectory(), Folder::Owner::Anybody)
            ->removeTree(id());
    } catch (const FileWriteError& error) {
        return error.errorNumber() == ENOENT ? std::nullopt : std::make_optional(folderPath());
    }
}

void ServiceChannel::startReader(Retry::Attempts attempts, void* (*body)(void*)) {
    const std::string failure = "Impossible to start the handler for service " + id();
    // Known before the thread runs: a reload that it is asked for at once has to end it.
    const auto attempt = [&] {
        if (::pthread_create(&reader_, nullptr, body, this) == 0)
            return true;
        reader_ = 0;
        return false;
    };
    if (!retry_.succeeds(attempt, attempts, failure))
        throw KeywardenDaemonException(failure);
}

// What took the fifo away may end.
void ServiceChannel::keepReading() {
    GrowingPause pause(kFirstPauseWithoutFifo);
    for (;;) {
        const std::int64_t begin = Clock::monotonicMilliseconds();
        survives("Reading requests", [this] { readRequests(); });
        if (Clock::monotonicMilliseconds() - begin > kLongReadingMilliseconds)
            pause = GrowingPause(kFirstPauseWithoutFifo);
        Cancellation::sleep(pause.next());
    }
}

// Without a reader nobody could ask for the status any more.
void ServiceChannel::listenAfterAll() {
    for (GrowingPause pause; reader_ == 0;) {
        Cancellation::sleep(pause.next());
        survives("Listening again", [this] {
            try {
                start(Stop::ForReload, Retry::Attempts::One);
            } catch (...) {
                Log::write(SeverityError, Failure::current().text());
            }
        });
    }
}

void* ServiceChannel::pipesMaker(void* channel) {
    Cancellation::prepareThread();
    auto* const self = static_cast<ServiceChannel*>(channel);
    bool made = false;
    for (GrowingPause pause(kFirstPauseWithoutFifo); !made;) {
        Cancellation::sleep(pause.next());
        made = survives("Making the pipe files of a service", [self] { self->makePipes(Stop::ForGood); });
    }
    self->keepReading();
}

void* ServiceChannel::commandLineAnalyser(void* channel) {
    Cancellation::prepareThread();
    static_cast<ServiceChannel*>(channel)->keepReading();
}

void ServiceChannel::readRequests() {
    Log::open();
    Log::write(SeverityInfo, "Entering the command line analyzer for service " + id());
    FifoReader reader(pipes_, inputName(), kInputFifoMode, configuration_.getManagementGroup(),
                      kRequestLimits);
    bool usable = reader.open();
    while (usable) {
        Request request;
        usable = readRequest(reader, request);
        if (!request.text.empty() || request.isLost)
            answerRequest(request);
        else
            debugTrace("Received: ");
    }
    Log::write(SeverityError, "Error during opening file: " + pathOf(inputName()) +
                                  ". Hence, exiting the command analyzer for service: " + id());
}

bool ServiceChannel::readRequest(FifoReader& reader, Request& request) const {
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

void ServiceChannel::answerRequest(const Request& request) {
    std::optional<Answer> given;
    const auto handle = [&] {
        debugTrace("Received: " + request.text);
        Cancellation::lock(serviceMutex_);
        const std::lock_guard<std::mutex> guard(serviceMutex_, std::adopt_lock);
        given = processRequest(request);
    };
    if (request.isLost || !survives("Handling a request", handle))
        given = Answer{AnswerFailure, "Out of memory"};
    if (given)
        answer(given->code, given->text);
}

std::optional<Answer> ServiceChannel::processRequest(const Request& request) {
    try {
        if (request.text.size() > kLongestRequest)
            throw std::runtime_error("Bad format for command. The request is longer than " +
                                     std::to_string(kLongestRequest) + " bytes.");
        // What came may look like a whole command and be the beginning of another one.
        if (request.overdue)
            throw std::runtime_error("Bad format for command. The request was not ended in time.");
        Commands command(request.text);
        return execute_(command);
    } catch (...) {
        const Failure failure = Failure::current();
        const std::string of = " caught while creating command structure for service '" + id() + "'";
        Log::write(SeverityError,
                   failure.message("std::exception" + of + " ", "Unknown exception" + of + "."));
        return Answer{AnswerBadCommand, failure.text()};
    }
}

// What fails by an exception has not begun to write.
void ServiceChannel::answer(int code, const std::string& text) const {
    GrowingPause pause(kFirstAnswerPauseMilliseconds);
    const auto attempt = [&] { respond(code, text, kPatienceMilliseconds); };
    for (int made = 1; !survives("Answering a request", attempt) && made < kAnswerAttempts; ++made)
        Cancellation::sleep(pause.next());
}

void ServiceChannel::respond(int code, const std::string& text, std::int64_t patienceMilliseconds) const {
    debugTrace("Send: " + std::to_string(code) + " - " + text);
    const std::string path = pathOf(outputName());
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

void ServiceChannel::releaseRequesterLock() const {
    const std::string path = pathOf(lockName());
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

const std::string& ServiceChannel::id() const {
    return configuration_.getServiceId();
}

std::string ServiceChannel::folderPath() const {
    return DaemonConfiguration::getNamePipesDirectory() + "/" + id();
}

std::string ServiceChannel::pathOf(const std::string& name) const {
    return folderPath() + "/" + name;
}

}  // namespace keywarden
