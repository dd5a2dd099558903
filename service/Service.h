#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "channel/Answer.h"
#include "channel/Commands.h"
#include "config/ServiceConfiguration.h"
#include "service/Retry.h"
#include "service/ServiceChannel.h"
#include "service/ServiceTimer.h"

namespace keywarden {

class CertificateAuthority;
class ExternalCertificatesStorage;
class Server;
class ServiceCallbacks;
class TrustedCertificate;

/// One managed service: its configuration, its certificates, its owner's callbacks, and what is done with
/// them: by its daily expiry timer (ServiceTimer.h), for the requests that come through its command channel
/// (ServiceChannel.h), at a notification and at a reload.
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

    // Timer.
    /// Starts the timer of a service with a server; waits a moment for a thread when there is none.
    void initTimer() { timer_.init(Retry::Attempts::Few); }
    /// Throws KeywardenDaemonException when there is no thread to be had. Only the first start needs one.
    void startTimer() { timer_.start(Retry::Attempts::One); }
    void stopTimer() { timer_.stop(); }
    /// Seconds from `now` (since the epoch) to the next daily check, which is due `offset` seconds before
    /// midnight UTC.
    [[nodiscard]] static std::int64_t secondsUntilCheck(std::int64_t now, std::uint32_t offset) {
        return ServiceTimer::secondsUntilCheck(now, offset);
    }

    // Command channel, and dispatch (ServiceDispatch.cpp).
    /// Throws KeywardenDaemonException; PipesNotMade when it is the pipe files that cannot be made.
    void startHandler() { channel_.start(Stop::ForGood, Retry::Attempts::Few); }
    /// After that: the reader's own thread makes them as soon as that is possible. Throws when there is no
    /// thread.
    void startHandlerLater() { channel_.startLater(); }
    void stopHandler() { channel_.stop(Stop::ForGood); }
    void sendResponse(int code, const std::string& text) const { channel_.answer(code, text); }
    /// Runs one command; the service mutex is held. Nothing when the answer comes later (a reload).
    std::optional<Answer> execCmd(Commands& command);

  private:
    using Stop = ServiceChannel::Stop;

    void loadCallbacks();
    void checkServiceConfig() const;
    void checkServiceDirectory() const;
    void requireMembership(const std::string& group, const std::string& ending) const;
    void requireReadable(const std::string& path) const;
    void loadStores();
    void unload(Stop stop);
    void unloadAtTheEnd();
    void stopThreads();
    void releaseObjects();
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
    void checkAtTimer();

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

    std::atomic<bool> loaded_{false};
    std::shared_ptr<ServiceCallbacks> callbacks_;
    std::unique_ptr<Server> server_;
    std::unique_ptr<TrustedCertificate> trustedClients_;
    std::unique_ptr<CertificateAuthority> caStore_;
    std::mutex serviceMutex_;
    Retry retry_;
    ServiceTimer timer_;
    ServiceChannel channel_;
    pthread_t reloadThread_ = 0;  // 0: no thread
    std::atomic<bool> reloadRuns_{false};
    bool ending_ = false;  ///< being destroyed; guarded by the service mutex
};

}  // namespace keywarden
