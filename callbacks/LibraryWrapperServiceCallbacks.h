#pragma once

#include <string>
#include <vector>

#include "callbacks/ServiceCallbacks.h"

namespace keywarden {

/// Forwards every event to the object of a loaded library, which exports with C linkage
/// `ServiceCallbacks* create(const std::string& serviceId)` and `void destroy(ServiceCallbacks*)`.
/// What the object throws from an event passes through unchanged: catch it while this wrapper lives, because
/// the exception's type may live in the library.
class LibraryWrapperServiceCallbacks : public ServiceCallbacks {
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

  private:
    using Create = ServiceCallbacks* (*)(const std::string&);
    using Destroy = void (*)(ServiceCallbacks*);

    std::string serviceId_;
    std::string libraryPath_;
    ServiceCallbacks* object_ = nullptr;  ///< made by create_, released by destroy_
    void* handle_ = nullptr;
    Create create_ = nullptr;
    Destroy destroy_ = nullptr;
};

}  // namespace keywarden
