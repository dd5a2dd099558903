#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "cnf/CnfConfiguration.h"
#include "config/ServiceConfiguration.h"
#include "server/ServerStore.h"

namespace keywarden {

/// Makes a service's certificates and requests: their names, self-signed ones, ones that an authority of the
/// device signs, and the pending request of an external PKI. What it makes it gives to the store; nothing is
/// written before.
class ServerIssuer {
  public:
    struct OverrideStaticConfig {
        bool excludeIpForAllNetworkInterfaces = false;
    };

    /// Both must outlive this.
    ServerIssuer(const ServiceConfiguration& configuration, ServerStore& store);
    ServerIssuer(const ServerIssuer&) = delete;
    ServerIssuer& operator=(const ServerIssuer&) = delete;

    // Subject alternative names (AltNames.h). Failures of the settings pass through.
    [[nodiscard]] std::map<std::string, std::string> buildAltName() const;
    [[nodiscard]] std::map<std::string, std::string> buildAltName(const OverrideStaticConfig& override) const;
    [[nodiscard]] kwdata::CCertificateData readCnfConfiguration(CnfConfiguration& cnf) const;
    [[nodiscard]] kwdata::CCertificateData readCnfConfiguration(CnfConfiguration& cnf,
                                                                const OverrideStaticConfig& override) const;

    /// Generates the configured kind of certificate; failures are logged, never thrown.
    void createCertificate();
    /// Throw KeywardenDaemonException, or std::runtime_error from the request settings, the signing by the CA
    /// and the installation.
    void createAndApplySelfSigned();
    void createAndApplyCASigned();
    /// The period of a new certificate, cut to whole UTC days: seconds since the epoch, validSeconds a
    /// length. Throws KeywardenDaemonException when it ends before it starts or starts before 1999-12-30
    /// 12:00 UTC.
    void setValidSeconds(bool selfSigned, std::uint64_t& validFrom, std::uint64_t& validUntil,
                         std::uint64_t& validSeconds) const;

    // External PKI. Failures are KeywardenDaemonException, with code 9, 21 or 26 where a requester is told
    // one.
    /// Replaces the pending request; a failure leaves none.
    void createCsr();
    void createCsr(const OverrideStaticConfig& override);
    [[nodiscard]] std::string getCsrInfo() const;
    /// Installs the certificate in a file of any folder with the pending request's key. One that is refused
    /// leaves the active certificate as it was.
    void applyCrt(const std::string& path);

  private:
    [[nodiscard]] const std::string& name() const { return configuration_.getServiceId(); }
    [[nodiscard]] std::unique_ptr<CnfConfiguration> requestSettings(bool selfSigned) const;
    void createPendingRequest(const std::function<kwdata::CCertificateData(CnfConfiguration&)>& readSettings);
    [[nodiscard]] X509_T readCertificateToApply(const std::string& path) const;
    [[nodiscard]] std::pair<X509_REQ_T, EVP_PKEY_T> readPendingRequest();

    const ServiceConfiguration& configuration_;
    ServerStore& store_;
};

}  // namespace keywarden
