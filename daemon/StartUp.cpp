#include "daemon/StartUp.h"

#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "channel/PipeFiles.h"
#include "config/DaemonConfiguration.h"
#include "config/ServiceConfiguration.h"
#include "daemon/DaemonState.h"
#include "daemon/Exit.h"
#include "daemon/MonitorThread.h"
#include "daemon/NotificationThread.h"
#include "daemon/Privileges.h"
#include "daemon/SignalThread.h"
#include "network/NetworkConfiguration.h"
#include "service/Service.h"
#include "support/Accounts.h"
#include "support/Debug.h"
#include "support/Failure.h"
#include "support/FileWriteError.h"
#include "support/Folder.h"
#include "support/KeywardenDaemonException.h"
#include "support/Log.h"
#include "support/StopRequest.h"
#include "support/Tools.h"
#include "support/UniqueFd.h"
#include "x509/Inspection.h"

namespace keywarden {

namespace {

constexpr mode_t kLockMode = 0640;
constexpr unsigned kTreeMode = 0711;

// Set once, by the main thread. What is there otherwise belongs to another instance.
bool lockIsOurs = false;

// The daemon user's name is also the name of the group that its files are given to.
void giveToDaemonUser(const Folder& folder) {
    const std::string user = DaemonConfiguration::getInstance().getDaemonUser();
    folder.setUser(user);
    folder.setGroup(user);
}

// Of the open file: by its path it could be somebody else's by now.
void giveToDaemonUser(int file, const std::string& path) {
    const std::string user = DaemonConfiguration::getInstance().getDaemonUser();
    const auto uid = userIdOf(user);
    const auto gid = groupIdOf(user);
    if (uid && ::fchown(file, *uid, static_cast<gid_t>(-1)) != 0)
        throw std::runtime_error("Impossible to change the user for " + path);
    if (gid && ::fchown(file, static_cast<uid_t>(-1), *gid) != 0)
        throw std::runtime_error("Impossible to change the group for " + path);
}

[[noreturn]] void failStart(const Failure& failure, const std::string& text, bool removeFiles = true) {
    Log::write(SeverityError, text);
    exitDaemon(ExitFailure, failure.textOrNothing(), removeFiles);
}

}  // namespace

void openLogAndReadOptions(int argc, char* const argv[]) {
    try {
        Log::open();
        if (argc == 2 && std::strcmp(argv[1], "-d") == 0)
            gDebug = true;
        debugTrace("Start the daemon");
    } catch (...) {
        const Failure failure = Failure::current();
        failStart(failure, failure.message("Daemon exception caught while starting daemon:",
                                           "Std exception caught while starting daemon:",
                                           "Unknown exception caught while starting daemon."));
    }
}

namespace {

// A service with all its stores holds a dozen descriptors open: its folders and its fifo. A hundred of them
// need more than the usual 1024. The ceiling is the administrator's, and stays.
void allowDescriptors() {
    constexpr rlim_t kWanted = 4096;
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= kWanted)
        return;
    limit.rlim_cur = std::min(limit.rlim_max, kWanted);
    static_cast<void>(::setrlimit(RLIMIT_NOFILE, &limit));
}

}  // namespace

void prepareProcess() {
    allowDescriptors();
    for (int descriptor = ::open("/dev/null", O_RDWR); descriptor >= 0; descriptor = ::dup(descriptor)) {
        if (descriptor > STDERR_FILENO) {
            ::close(descriptor);
            break;
        }
    }
    static_cast<void>(!::chdir("/"));
    for (const int ignored : {SIGPIPE, SIGHUP})
        static_cast<void>(::signal(ignored, SIG_IGN));
    const sigset_t stops = StopRequest::signals();
    ::sigprocmask(SIG_BLOCK, &stops, nullptr);
    // Many threads that mostly sleep: one heap for all of them instead of one each.
    ::mallopt(M_ARENA_MAX, 1);
    try {
        initialiseCrypto(true);
    } catch (const std::bad_alloc&) {
        // It would take the keys in force for bad ones for as long as this process lives, and make others.
        exitDaemon(ExitFailure, "There is not enough memory to start.", false);
    }
}

void initCheck() {
    try {
        DaemonConfiguration::getInstance();
    } catch (...) {
        exitDaemon(ExitFailure,
                   Failure::current().message(
                       "Std exception caught while loading the daemon configuration file. Error: ",
                       "Unknown exception caught while loading the daemon configuration file."),
                   false);
    }
    const DaemonConfiguration& configuration = DaemonConfiguration::getInstance();
    const std::string user = configuration.getDaemonUser();
    const std::string group = configuration.getNotificationGroup();
    if (!Tools::isUserExist(user))
        exitDaemon(ExitFailure, "The user: " + user + " doesn't exist", false);
    if (!Tools::isGroupExist(group))
        exitDaemon(ExitFailure, "The group for notifier: " + group + " doesn't exist", false);
    if (!Tools::isUserMemberOfGroup(user, group))
        exitDaemon(ExitFailure, "The user: " + user + " is not member of the group " + group, false);
}

namespace {

// One call decides between two daemons that start at the same moment.
UniqueFd newLockFile(const std::string& path) {
    try {
        return Folder::at(folderOfPath(path), Folder::Owner::Anybody)
            ->create(splitPath(path).second, kLockMode);
    } catch (const FileWriteError& error) {
        errno = error.errorNumber();
        return {};
    }
}

}  // namespace

void checkLock() {
    const std::string path = DaemonConfiguration::getInstance().getLockFile();
    debugTrace("Get the lock...");
    const UniqueFd lock = newLockFile(path);
    if (!lock && errno == EEXIST) {
        debugTrace("Get the lock... Failed. Lock file already present.");
        exitDaemon(ExitAlreadyRunning, "keywardd already running", false);
    }
    if (!lock) {
        const std::string failure = "Failed to open lock file '" + path + "', err: " + std::strerror(errno);
        Log::write(SeverityError, failure);
        exitDaemon(ExitFailure, failure, true);
    }
    lockIsOurs = true;
    giveToDaemonUser(lock.get(), path);
    debugTrace("Get the lock... Done.");
}

void lockInstance() {
    try {
        checkLock();
    } catch (...) {
        const Failure failure = Failure::current();
        failStart(failure,
                  failure.runtimeMessage("Runtime error caught while checking lock:",
                                         "Std exception caught while checking lock:",
                                         "Unknown exception caught while checking lock."),
                  lockIsOurs);
    }
}

void runToTheEnd(const std::function<void()>& steps) {
    try {
        steps();
    } catch (const std::exception& error) {
        exitDaemon(ExitFailure, error.what(), lockIsOurs);
    }
}

namespace {

// Whether nobody but root can have put something in the path's place.
bool isPlacedByRoot(const std::string& path) {
    const FolderPtr parent = Folder::at(folderOfPath(withoutEndingSlashes(path)), Folder::Owner::Anybody);
    const auto status = statusOf(parent->get());
    return status && status->uid == 0 && (status->mode & 0022U) == 0;
}

// A folder of root's with something in it may be quite another one, which the daemon user moved there.
void refuseMovedFolder(const Folder& folder) {
    const auto status = statusOf(folder.get());
    const auto user = userIdOf(DaemonConfiguration::getInstance().getDaemonUser());
    const bool isTakenOver = ::geteuid() == 0 && user && *user != 0 && status && status->uid == 0;
    if (isTakenOver && !isPlacedByRoot(folder.path()) && !folder.names().empty())
        throw std::runtime_error(
            "The folder '" + folder.path() +
            "' belongs to root, is not empty, and stands where others can put one. Remove it, or "
            "give it to the daemon user.");
}

// Of a link that is refused nobody would think; what is merely missing needs no words.
std::string reasonWhyNot(const std::string& path) {
    try {
        static_cast<void>(Folder::at(path, Folder::Owner::Anybody));
    } catch (const FileWriteError& error) {
        if (error.errorNumber() == EPERM)
            return std::string(": ") + error.what();
    }
    return {};
}

FolderPtr ownFolder(const std::string& path, mode_t mode) {
    FolderPtr folder = createFolder(path, mode);
    if (!folder)
        throw std::runtime_error("Impossible to change the user for " + path + reasonWhyNot(path));
    refuseMovedFolder(*folder);
    return folder;
}

// Members of services' groups had these folders in their hands: with root's power a removal could be led to
// what only root may remove.
void emptyAsDaemonUser(const Folder& pipes) {
    std::optional<std::string> left;
    {
        const ActingAs user(DaemonConfiguration::getInstance().getDaemonUser());
        left = pipes.empty();
    }
    if (left && ::geteuid() == 0) {
        pipes.emptyOfRoots();
        const std::vector<std::string> names = pipes.names();
        left = names.empty() ? std::nullopt : std::make_optional(pipes.pathOf(names.front()));
    }
    if (left)
        Log::write(SeverityWarning, "What an earlier run left could not be removed: " + *left);
}

}  // namespace

void prepareDirectories() {
    try {
        giveToDaemonUser(*ownFolder(DaemonConfiguration::getKeywardDirectory(), 0755));
        // Now, still as root: the daemon user may not be allowed to make it.
        const FolderPtr pipes = ownFolder(DaemonConfiguration::getNamePipesDirectory(), kTreeMode);
        giveToDaemonUser(*pipes);
        emptyAsDaemonUser(*pipes);
    } catch (...) {
        const Failure failure = Failure::current();
        const std::string text =
            failure.message("Std exception caught while removing or creating directory:",
                            "Unknown exception caught while removing or creating directories.");
        Log::write(SeverityError, text);
        exitDaemon(ExitFailure, text, true);
    }
}

void runGuarded(const std::function<void()>& rest) {
    try {
        rest();
    } catch (...) {
        const Failure failure = Failure::current();
        failStart(failure, failure.message("Daemon Exception occured during daemon setup: ",
                                           "Std exception occured while setup of daemon: ",
                                           "Unknown exception is occured during daemon setup."));
    }
}

void checkNetworkScript() {
    const DaemonConfiguration& configuration = DaemonConfiguration::getInstance();
    const std::string script = configuration.getScriptsDirectory() + "/network.sh";
    if (::access(script.c_str(), X_OK) != 0)
        exitDaemon(ExitFailure,
                   "The script " + script + " cannot be run with the daemon user " +
                       configuration.getDaemonUser() + ". ",
                   true);
}

void createFileArchitecture() {
    Tools::createDirectory(DaemonConfiguration::getNamePipesDirectory(), kTreeMode);
    debugTrace("Create the file architecture");
    Tools::createDirectory(DaemonConfiguration::getKeywardDirectory(), kTreeMode);
}

std::vector<std::string> orderedServiceNames() {
    // Before any service, since they all ask it.
    NetworkConfiguration::getInstance();
    const std::vector<std::string> names = ServiceConfiguration::getServiceList();
    return pkiFirst(names);
}

std::vector<std::string> pkiFirst(const std::vector<std::string>& names) {
    std::vector<std::string> ordered = names;
    std::stable_partition(ordered.begin(), ordered.end(),
                          [](const std::string& name) { return name.compare(0, 3, "pki") == 0; });
    return ordered;
}

void constructServices(const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        // Making keys takes long on a small device; a stop does not wait for all of them.
        shutdownIfAsked();
        try {
            services().push_back(std::make_shared<Service>(name));
        } catch (...) {
            Log::write(SeverityError,
                       Failure::current().message("Error during starting " + name + ": ",
                                                  "Unkown exception occured during starting " + name));
        }
    }
    shutdownIfAsked();
    if (services().empty())
        throw KeywardenDaemonException("No service loaded!");
}

namespace {

// Its group may have put something in the way.
void startHandler(Service& service) {
    try {
        service.startHandler();
    } catch (const PipesNotMade& failure) {
        Log::write(SeverityError, failure.what());
        service.startHandlerLater();
    }
}

}  // namespace

void startServices() {
    for (const auto& service : services())
        service->initTimer();
    for (const auto& service : services())
        startHandler(*service);
}

void createNotificationFifo() {
    const std::string path = notificationFifoPath();
    const std::string group = DaemonConfiguration::getInstance().getNotificationGroup();
    const FolderPtr folder = createFolder(DaemonConfiguration::getNamePipesDirectory(), kTreeMode);
    if (!folder || !folder->makeFifo(splitPath(path).second, kInputFifoMode, group)) {
        const std::string failure = "Error to create Fifo IN: " + path;
        Log::write(SeverityError, failure);
        throw KeywardenDaemonException(failure);
    }
}

namespace {

void startMonitor() {
    static thread_arguments arguments;
    if (!CheckIfThreadConfigParamValid(&arguments))
        return;
    pthread_t thread = 0;
    if (::pthread_create(&thread, nullptr, MonitorTimeNetworkConfig, &arguments) != 0)
        throw KeywardenDaemonException("Impossible to start the monitor of time and network");
    threadMonitorTimeNetworkConfig = thread;
}

}  // namespace

void startThreads() {
    pthread_t thread = 0;
    if (::pthread_create(&thread, nullptr, notificationHandler, nullptr) != 0)
        throw KeywardenDaemonException("Impossible to start the notification handler");
    threadNotificationHandler = thread;
    startMonitor();
    if (::pthread_create(&thread, nullptr, MonitorShutdownSigReceived, nullptr) != 0)
        throw KeywardenDaemonException("Unable to start the fatal signal handler thread.");
    threadMonitorShutdownSigReceived = thread;
}

void announce() {
    debugTrace(">>>>>>>>>>> Ready for actions! ");
    Log::write(SeverityNotice, "The daemon is running.");
    for (const auto& service : services()) {
        if (StopRequest::isRaised())
            break;
        service->notifyAllServicesStarted();
    }
    ready();
    giveBackStartUpMemory();
}

namespace {

void logJoinFailure(int error, const std::string& name) {
    switch (error) {
        case EDEADLK:
            Log::write(SeverityError,
                       "A deadlock was detected (e.g., two threads tried to join with each other); or thread "
                       "specifies the calling thread.");
            break;
        case EINVAL:
            Log::write(
                SeverityError,
                name +
                    " thread is not a joinable thread or Another thread is already waiting to join with this "
                    "thread.");
            break;
        case ESRCH:
            Log::write(SeverityError, "No thread with the ID " + name + " could be found. ");
            break;
        default:
            break;
    }
}

// A handle of 0 is no thread: joining it would crash, so it is reported as the thread that was not found.
void joinThread(std::atomic<pthread_t>& thread, const std::string& name) {
    const pthread_t handle = thread;
    const int error = handle == 0 ? ESRCH : ::pthread_join(handle, nullptr);
    if (error != 0)
        logJoinFailure(error, name);
    thread = 0;
}

}  // namespace

void joinThreads() {
    joinThread(threadNotificationHandler, "threadNotificationHandler");
    joinThread(threadMonitorTimeNetworkConfig, "threadMonitorTimeNetworkConfig");
    // The watcher has cancelled both and is done.
    if (threadMonitorShutdownSigReceived != 0)
        ::pthread_join(threadMonitorShutdownSigReceived, nullptr);
    threadMonitorShutdownSigReceived = 0;
}

}  // namespace keywarden
