#pragma once

#include <string>
#include <vector>

namespace keywarden {

/// The version of the interface below, one more with each operation that is appended. A library may export
/// the one that it was built for,
///
///     extern "C" const int keywarden_callbacks_version = keywarden::kCallbacksVersion;
///
/// and is not told of events that came later. One that exports none was built for version 1.
constexpr int kCallbacksVersion = 1;

/// How a service's owner is told of certificate events. The order of the operations is the interface of
/// callback libraries: append, never reorder.
class ServiceCallbacks {
  public:
    virtual ~ServiceCallbacks() = default;

    virtual void started() = 0;
    virtual void stopped() = 0;
    /// Every configured service has started.
    virtual void allStarted() = 0;
    virtual void newGeneratedCertificate(const std::string& id) = 0;
    /// Days until the server certificate is valid and until it ends; either may be negative.
    virtual void updateValidityGeneratedCertificate(int validIn, int expireIn) = 0;
    /// The store is "ca" or "client".
    virtual void newExternalCertificate(const std::string& store, const std::string& id) = 0;
    virtual void revokedExternalCertificate(const std::string& store, const std::string& id) = 0;
    virtual void revokedExternalCertificate(const std::string& store,
                                            const std::vector<std::string>& ids) = 0;
};

}  // namespace keywarden
