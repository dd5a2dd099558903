#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "callbacks/Delivery.h"
#include "callbacks/ServiceCallbacks.h"

namespace keywarden {

/// Forwards every event to the object of a loaded library, which exports with C linkage
/// `ServiceCallbacks* create(const std::string& serviceId)` and `void destroy(ServiceCallbacks*)`.
/// What the object throws from an event passes through unchanged: catch it while this wrapper lives, because
/// the exception's type may live in the library.
///
/// The library works in a thread of its own for each call, while the caller waits. When the daemon stops it
/// has a short grace (StopRequest::kGraceMilliseconds) for each; one that takes longer is given up, with an
/// ERR line: its object is not called any more and never released. From the stop on no library is unloaded,
/// for threads of its own may still run.
class LibraryWrapperServiceCallbacks : public ServiceCallbacks, public Delivery {
  public:
    /// Throws std::runtime_error when the library cannot be loaded or gives no object.
    LibraryWrapperServiceCallbacks(const std::string& serviceId, const std::string& libraryPath);
    LibraryWrapperServiceCallbacks(const LibraryWrapperServiceCallbacks&) = delete;
    LibraryWrapperServiceCallbacks& operator=(const LibraryWrapperServiceCallbacks&) = delete;
    ~LibraryWrapperServiceCallbacks() override;

    void started() override;
    void stopped() override;
    void allStarted() override;
    void newGeneratedCertificate(const std::string& id) override;
    void updateValidityGeneratedCertificate(int validIn, int expireIn) override;
    void newExternalCertificate(const std::string& store, const std::string& id) override;
    void revokedExternalCertificate(const std::string& store, const std::string& id) override;
    void revokedExternalCertificate(const std::string& store, const std::vector<std::string>& ids) override;

    [[nodiscard]] bool lastEventWasDelivered() const override { return !givenUp_; }

    /// The version of the interface that the library was built for: an operation that was appended later is
    /// not there to be called.
    [[nodiscard]] int version() const { return version_; }

  private:
    using Create = ServiceCallbacks* (*)(const std::string&);
    using Destroy = void (*)(ServiceCallbacks*);

    /// Calls the object. Copies what the operation needs: it may outlive the call.
    void tell(const std::string& event, std::function<void(ServiceCallbacks&)> operation);
    void giveUp(const std::string& what);

    std::string serviceId_;
    std::string libraryPath_;
    ServiceCallbacks* object_ = nullptr;  ///< made by create_, released by destroy_
    void* handle_ = nullptr;
    Create create_ = nullptr;
    Destroy destroy_ = nullptr;
    int version_ = 1;
    std::atomic<bool> givenUp_{false};
};

/// Some library is loaded, or being loaded. What it registered for the end of the process must not run then:
/// threads of its own, or one that was given up, may still use it.
[[nodiscard]] bool isCallbackLibraryLoaded();

}  // namespace keywarden
