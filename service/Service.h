#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "channel/Answer.h"
#include "channel/Commands.h"
#include "channel/PipeFiles.h"
#include "config/ServiceConfiguration.h"
#include "service/TimerControl.h"
#include "support/Folder.h"
#include "support/KeywardenDaemonException.h"

namespace keywarden {

/// What may be the doing of the service's group, who share the folder of the pipe files: no reason to end the
/// daemon.
class PipesNotMade : public KeywardenDaemonException {
  public:
    using KeywardenDaemonException::KeywardenDaemonException;
};

class CertificateAuthority;
class ExternalCertificatesStorage;
class FifoReader;
class Server;
class ServiceCallbacks;
class TrustedCertificate;

/// One managed service: its configuration, its certificates, its owner's callbacks, its daily expiry timer
/// and its command channel.
///
/// Locks: the service mutex is held by whoever works on the certificates; the timer control, a leaf, by
/// whoever starts or stops the timer. A thread that holds the service mutex may stop the timer, which then
/// gives up waiting for that mutex.
class Service : public ServiceConfiguration {
  public:
    /// Reads the service's file and loads it. Throws KeywardenDaemonException, or what reading the file
    /// throws.
    explicit Service(const std::string& serviceId);
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    /// Stops what runs, as unload() does.
    ~Service();

    // Lifecycle (Service.cpp). All but reloadFunc throw on failure.
    void load();
    void unload();
    void reload();
    /// Starts a reload in a thread of its own, which answers the requester; dropped while one runs.
    void reloadFunc();
    void notifyAllServicesStarted();
    void shutdown() {}
    [[nodiscard]] bool isLoaded() const { return loaded_; }

    // Events (ServiceEvents.cpp).
    void networkChanged();
    void timeChanged();

    // Timer (ServiceTimer.cpp).
    /// Starts the timer of a service with a server; waits a moment for a thread when there is none.
    void initTimer();
    /// Throws KeywardenDaemonException when there is no thread to be had. Only the first start needs one.
    void startTimer();
    void stopTimer();
    /// Seconds from `now` (since the epoch) to the next daily check, which is due `offset` seconds before
    /// midnight UTC.
    [[nodiscard]] static std::int64_t secondsUntilCheck(std::int64_t now, std::uint32_t offset);

    // Command channel (ServiceChannel.cpp) and dispatch (ServiceDispatch.cpp).
    /// Throws KeywardenDaemonException; PipesNotMade when it is the pipe files that cannot be made.
    void startHandler();
    /// After that: the reader's own thread makes them as soon as that is possible. Throws when there is no
    /// thread.
    void startHandlerLater();
    void stopHandler();
    void sendResponse(int code, const std::string& text) const;
    /// Runs one command; the service mutex is held. Nothing when the answer comes later (a reload).
    std::optional<Answer> execCmd(Commands& command);

  private:
    /// Why a handler stops: at a reload the requester still waits for its answer, so its output fifo and the
    /// lock it holds stay.
    enum class Stop { ForGood, ForReload };

    /// How often a thread is asked for when there is none to be had, with growing pauses: Few takes a second
    /// or two, Endless is as long as the service lives.
    enum class Attempts { One, Few, Endless };

    struct Request {
        std::string text;
        bool overdue = false;  ///< its writer was given up before it had ended
        bool isLost = false;   ///< there was no memory for it
    };

    void loadCallbacks();
    void preparePipesDirectory();
    void checkServiceConfig() const;
    void checkServiceDirectory() const;
    void requireMembership(const std::string& group, const std::string& ending) const;
    void requireReadable(const std::string& path) const;
    void loadStores();
    void unload(Stop stop);
    void unloadAtTheEnd();
    void stopThreads();
    void releaseObjects();
    void removePipes(Stop stop);
    std::optional<std::string> removePipesFolder();
    void tellAgain();
    void tellAgain(ExternalCertificatesStorage* store);
    /// Whether the owner has it.
    [[nodiscard]] bool tellAgain(ExternalCertificatesStorage& store, const std::string& event,
                                 const std::vector<std::string>& ids);
    void tell(ExternalCertificatesStorage& store, bool isOnly, const std::function<void()>& event) const;
    [[nodiscard]] Answer reloadForRequester();
    void endReloadThread();
    static void* threadReloadFunc(void* service);

    void renewForNetwork();
    void checkAndStartTimer();
    void restartTimer();
    void startTimerAgain();

    void initTimer(Attempts attempts);
    void startTimer(Attempts attempts);
    static void* timer(void* service);
    void runTimer();
    void checkAtTimer();

    void startHandler(Stop before, Attempts attempts);
    void stopHandler(Stop stop);
    void makePipes(Stop before);
    void makeInputFifo();
    void makeLockFile() const;
    void startReader(Attempts attempts, void* (*body)(void*));
    void listenAfterAll();
    /// Waits between the attempts, each failure of which is logged; false when the last one failed too.
    [[nodiscard]] bool succeeds(const std::function<bool()>& attempt, Attempts attempts,
                                const std::string& failure);
    [[noreturn]] static void* commandLineAnalyser(void* service);
    [[noreturn]] static void* pipesMaker(void* service);
    [[noreturn]] void keepReading();
    void readRequests();
    [[nodiscard]] bool readRequest(FifoReader& reader, Request& request) const;
    void answerRequest(const Request& request);
    [[nodiscard]] std::optional<Answer> processRequest(const Request& request);
    void respond(int code, const std::string& text, std::int64_t patienceMilliseconds) const;
    void releaseRequesterLock() const;

    /// What is done for which command (ServiceDispatch.cpp).
    struct Handlers;
    [[nodiscard]] static const Handlers& handlersOf(Commands::Command command);

    [[nodiscard]] std::optional<Answer> dispatch(const Commands& command);
    [[nodiscard]] std::optional<Answer> execConfig(const Commands& command);
    [[nodiscard]] std::optional<Answer> tellStatus();
    [[nodiscard]] std::optional<Answer> startReload();
    [[nodiscard]] Answer execServer(const Commands& command);
    [[nodiscard]] Answer describeRequest(const Commands& command);
    [[nodiscard]] Answer describeFile(const Commands& command);
    [[nodiscard]] Answer createCsr(const Commands& command);
    [[nodiscard]] Answer applyCrt(const Commands& command);
    [[nodiscard]] Answer revokeServer(const Commands& command);
    [[nodiscard]] Answer execStore(const Commands& command, ExternalCertificatesStorage* store,
                                   const std::string& missing, const std::string& badCommand);
    [[nodiscard]] Answer addTo(const Commands& command, ExternalCertificatesStorage& store);
    [[nodiscard]] Answer revokeFrom(const Commands& command, ExternalCertificatesStorage& store);
    [[nodiscard]] Answer describeStored(const Commands& command, ExternalCertificatesStorage& store);

    [[nodiscard]] std::string pipesDirectory() const;
    [[nodiscard]] std::string inputName() const { return inputFifoOf(getServiceId()); }
    [[nodiscard]] std::string outputName() const { return outputFifoOf(getServiceId()); }
    [[nodiscard]] std::string lockName() const { return requesterLockOf(getServiceId()); }
    [[nodiscard]] std::string inputPath() const;
    [[nodiscard]] std::string outputPath() const;
    [[nodiscard]] std::string lockPath() const;

    std::atomic<bool> loaded_{false};
    /// The service's pipes folder, which its management group may write: held open while the service has one,
    /// so that nothing there is reached by a path.
    FolderPtr pipes_;
    std::shared_ptr<ServiceCallbacks> callbacks_;
    std::unique_ptr<Server> server_;
    std::unique_ptr<TrustedCertificate> trustedClients_;
    std::unique_ptr<CertificateAuthority> caStore_;
    std::mutex serviceMutex_;
    TimerControl timer_;
    // 0: no thread.
    pthread_t readerThread_ = 0;
    pthread_t reloadThread_ = 0;
    std::atomic<bool> reloadRuns_{false};
    bool ending_ = false;  ///< being destroyed; guarded by the service mutex
    std::condition_variable endingBegins_;
};

}  // namespace keywarden
