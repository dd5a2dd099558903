#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "callbacks/ServiceCallbacks.h"
#include "config/ServiceConfiguration.h"
#include "server/ServerIssuer.h"
#include "server/ServerStore.h"

namespace keywarden {

/// Whether a service's certificate is still the right one: its period, the device's network identity, and its
/// CA. Has the issuer make another where one is due, and tells the owner the days.
class ServerRenewal {
  public:
    /// All of them must outlive this; `callbacks` is never null.
    ServerRenewal(const ServiceConfiguration& configuration, ServerStore& store, ServerIssuer& issuer,
                  std::shared_ptr<ServiceCallbacks> callbacks);
    ServerRenewal(const ServerRenewal&) = delete;
    ServerRenewal& operator=(const ServerRenewal&) = delete;

    /// What a start makes of the store that it has found: a certificate where no pair is in force or the
    /// network identity went stale, then the check of the time. A certificate that cannot be made is only
    /// logged.
    void checkAtStart(bool isPresent);
    /// Reports the days left to the owner and generates a new certificate where one is due; failures of a
    /// generation are logged, never thrown.
    void checkTimeValidity();
    /// Whether the device's present identity is covered by the one recorded with the active certificate;
    /// false when none was recorded.
    [[nodiscard]] bool isNetworkInfoValid() const;
    /// timestamp - now, in seconds; both in seconds since the epoch.
    [[nodiscard]] std::int64_t getTimeBeforeTimestamp(std::int64_t timestamp) const;
    /// Despite the name: whether the CA's certificate file is newer than this service's, so that a new
    /// certificate is due.
    [[nodiscard]] bool isCertificateMatchingCA() const;
    /// The change time of a service's active certificate file, seconds since the epoch; 0 when there is none.
    [[nodiscard]] std::int64_t getServerCertificateTimestamp(const std::string& service) const;

  private:
    /// Days until the certificate is valid and until it counts as expired; single precision.
    struct DaysLeft {
        float validIn;
        float expireIn;
    };
    enum class Healing { No, Yes };

    [[nodiscard]] const std::string& name() const { return configuration_.getServiceId(); }
    void checkNetworkInfo();
    /// A start has looked at the pair itself.
    void checkTimeValidity(Healing healing);
    void healBeforeCheck();
    [[nodiscard]] DaysLeft daysLeft(const CertificateInfo& record) const;
    void logDays(const DaysLeft& days) const;
    void reportDays(const DaysLeft& days, const std::string& word, float figure);
    void handleNotYetValid(const DaysLeft& days);
    void handleExpired(const DaysLeft& days);
    void followCA();

    const ServiceConfiguration& configuration_;
    ServerStore& store_;
    ServerIssuer& issuer_;
    std::shared_ptr<ServiceCallbacks> callbacks_;
};

}  // namespace keywarden
