#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "callbacks/ServiceCallbacks.h"
#include "cnf/CnfConfiguration.h"
#include "config/ServiceConfiguration.h"
#include "network/NetworkInfo.h"
#include "server/ServerIssuer.h"
#include "server/ServerRenewal.h"
#include "server/ServerStore.h"
#include "x509/EVP_PKEY_T.h"
#include "x509/X509_T.h"

namespace keywarden {

/// The one server certificate, with its private key, of one service: made, requested, installed, watched,
/// renewed. No lock of its own: its service serialises every call. "Service name" in every path, text and
/// hook argument is the service's identifier.
///
/// Three classes do the work, and their headers say what each operation does: the store keeps the files, the
/// issuer makes certificates and requests, the renewal judges the certificate in force.
class Server {
  public:
    using OverrideStaticConfig = ServerIssuer::OverrideStaticConfig;

    /// Runs the store's start-up: an interrupted change finished or discarded, housekeeping, a pending
    /// request discarded, an owner told of what it was not told before, a certificate generated where none is
    /// present or the network identity went stale, an expiry check. `configuration` must outlive this;
    /// `callbacks` is never null. Throws std::runtime_error when the store's folders cannot be used, or an
    /// interrupted change has left a pair that does not match and cannot be finished: nothing is generated
    /// over it. A certificate that cannot be made is only logged.
    Server(const ServiceConfiguration& configuration, const std::shared_ptr<ServiceCallbacks>& callbacks);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    [[nodiscard]] bool isSelfSignedGeneration() const { return configuration_.isSelfSignedGeneration(); }
    [[nodiscard]] bool isCASignedGeneration() const { return configuration_.isCASignedGeneration(); }

    // The store.
    [[nodiscard]] bool isCertificatePresent() const { return store_.isCertificatePresent(); }
    [[nodiscard]] bool isCertificateSelfSigned() const { return store_.isCertificateSelfSigned(); }
    [[nodiscard]] bool isCertificateCASigned() const { return store_.isCertificateCASigned(); }
    void updateFileSystem() { store_.updateFileSystem(); }
    void installCertificate(const X509_T& certificate, const EVP_PKEY_T& key, const NetworkInfo& network) {
        store_.installCertificate(certificate, key, network);
    }
    void updateActiveFile(const std::string& id) { store_.updateActiveFile(id); }
    void removeCertificate(const std::string& id) { store_.removeCertificate(id); }
    void removeCsr() { store_.removeCsr(); }
    void revokeCrt() { store_.revokeCrt(); }
    void writeDetails(const X509_T& certificate, const std::string& id) {
        store_.writeDetails(certificate, id);
    }
    static std::string getCertInfo(const std::string& path) { return ServerStore::getCertInfo(path); }

    // The issuer.
    std::map<std::string, std::string> buildAltName() { return issuer_.buildAltName(); }
    std::map<std::string, std::string> buildAltName(const OverrideStaticConfig& override) {
        return issuer_.buildAltName(override);
    }
    kwdata::CCertificateData readCnfConfiguration(CnfConfiguration& cnf) {
        return issuer_.readCnfConfiguration(cnf);
    }
    kwdata::CCertificateData readCnfConfiguration(CnfConfiguration& cnf,
                                                  const OverrideStaticConfig& override) {
        return issuer_.readCnfConfiguration(cnf, override);
    }
    void createCertificate() { issuer_.createCertificate(); }
    void createAndApplySelfSigned() { issuer_.createAndApplySelfSigned(); }
    void createAndApplyCASigned() { issuer_.createAndApplyCASigned(); }
    void setValidSeconds(bool selfSigned, std::uint64_t& validFrom, std::uint64_t& validUntil,
                         std::uint64_t& validSeconds) {
        issuer_.setValidSeconds(selfSigned, validFrom, validUntil, validSeconds);
    }
    void createCsr() { issuer_.createCsr(); }
    void createCsr(const OverrideStaticConfig& override) { issuer_.createCsr(override); }
    [[nodiscard]] std::string getCsrInfo() const { return issuer_.getCsrInfo(); }
    void applyCrt(const std::string& path) { issuer_.applyCrt(path); }

    // The renewal.
    void checkTimeValidity() { renewal_.checkTimeValidity(); }
    [[nodiscard]] bool isNetworkInfoValid() const { return renewal_.isNetworkInfoValid(); }
    [[nodiscard]] std::int64_t getTimeBeforeTimestamp(std::int64_t timestamp) const {
        return renewal_.getTimeBeforeTimestamp(timestamp);
    }
    [[nodiscard]] bool isCertificateMatchingCA() const { return renewal_.isCertificateMatchingCA(); }
    [[nodiscard]] std::int64_t getServerCertificateTimestamp(const std::string& service) const {
        return renewal_.getServerCertificateTimestamp(service);
    }

  private:
    const ServiceConfiguration& configuration_;
    ServerStore store_;
    ServerIssuer issuer_;
    ServerRenewal renewal_;
};

}  // namespace keywarden
