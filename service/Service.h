#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "config/ServiceConfiguration.h"
#include "service/Answer.h"

namespace keywarden {

class CertificateAuthority;
class Commands;
class ExternalCertificatesStorage;
class FifoReader;
class Server;
class ServiceCallbacks;
class TrustedCertificate;

/// One managed service: its configuration, its certificates, its owner's callbacks, its daily expiry timer
/// and its command channel.
///
/// Locks: the service mutex is held by whoever works on the certificates; the timer control, a leaf, by
/// whoever starts or stops the timer thread. A thread that holds the service mutex may stop the timer: the
/// timer waits for that mutex in a way that can be cancelled.
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
    void initTimer();
    void startTimer();
    void stopTimer();
    /// Seconds from `now` (since the epoch) to the next daily check, which is due `offset` seconds before
    /// midnight UTC.
    [[nodiscard]] static std::int64_t secondsUntilCheck(std::int64_t now, std::uint32_t offset);

    // Command channel (ServiceChannel.cpp) and dispatch (ServiceDispatch.cpp).
    void startHandler();
    void stopHandler();
    void sendResponse(int code, const std::string& text) const;
    /// Runs one command; the service mutex is held. Nothing when the answer comes later (a reload).
    std::optional<Answer> execCmd(Commands& command);

  private:
    /// Why a handler stops: at a reload the requester still waits for its answer, so its output fifo and the
    /// lock it holds stay.
    enum class Stop { ForGood, ForReload };

    struct Request {
        std::string text;
        bool overdue = false;  ///< its writer was given up before it had ended
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
    void removePipes(Stop stop) const;
    [[nodiscard]] Answer reloadForRequester();
    void endReloadThread();
    static void* threadReloadFunc(void* service);

    void renewForNetwork();
    void restartTimer();

    /// False when no timer ran.
    bool haltTimer();
    static void* timer(void* service);
    void runTimer();
    void checkAtTimer();

    void startHandler(Stop before);
    void stopHandler(Stop stop);
    void makeLockFile(const std::string& path) const;
    static void* commandLineAnalyser(void* service);
    void readRequests();
    [[nodiscard]] bool readRequest(FifoReader& reader, Request& request) const;
    void answerRequest(const Request& request);
    [[nodiscard]] std::optional<Answer> processRequest(const Request& request);
    void respond(int code, const std::string& text, std::int64_t patienceMilliseconds) const;
    void releaseRequesterLock() const;

    [[nodiscard]] std::optional<Answer> dispatch(const Commands& command);
    [[nodiscard]] std::optional<Answer> execConfig(const Commands& command);
    [[nodiscard]] Answer execServer(const Commands& command);
    [[nodiscard]] Answer createCsr(const Commands& command);
    [[nodiscard]] Answer applyCrt(const Commands& command);
    [[nodiscard]] Answer revokeServer();
    [[nodiscard]] Answer execStore(const Commands& command, ExternalCertificatesStorage* store,
                                   const std::string& missing, const std::string& badCommand);

    [[nodiscard]] std::string pipesDirectory() const;
    [[nodiscard]] std::string inputPath() const;
    [[nodiscard]] std::string outputPath() const;
    [[nodiscard]] std::string lockPath() const;

    std::atomic<bool> loaded_{false};
    std::shared_ptr<ServiceCallbacks> callbacks_;
    std::unique_ptr<Server> server_;
    std::unique_ptr<TrustedCertificate> trustedClients_;
    std::unique_ptr<CertificateAuthority> caStore_;
    std::mutex serviceMutex_;
    std::mutex timerControl_;
    // 0: no thread.
    pthread_t readerThread_ = 0;
    pthread_t timerThread_ = 0;
    pthread_t reloadThread_ = 0;
    std::atomic<bool> reloadRuns_{false};
    bool ending_ = false;  ///< being destroyed; guarded by the service mutex
};

}  // namespace keywarden
