#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "callbacks/ServiceCallbacks.h"
#include "cnf/CnfConfiguration.h"
#include "config/InternalCertificatesAccessor.h"
#include "config/ServiceConfiguration.h"
#include "network/NetworkInfo.h"
#include "stores/CertificateInfo.h"
#include "support/FileTransaction.h"
#include "support/FileWriter.h"
#include "support/FolderSet.h"
#include "support/Journal.h"
#include "x509/EVP_PKEY_T.h"
#include "x509/X509_REQ_T.h"
#include "x509/X509_T.h"

namespace keywarden {

/// The one server certificate, with its private key, of one service: made, requested, installed, watched,
/// renewed. No lock of its own: its service serialises every call. "Service name" in every path, text and
/// hook argument is the service's identifier.
class Server {
  public:
    struct OverrideStaticConfig {
        bool excludeIpForAllNetworkInterfaces = false;
    };

    /// Runs the store's start-up: an interrupted change finished or discarded, housekeeping, a pending
    /// request discarded, an owner told of what it was not told before, a certificate generated where none is
    /// present or the network identity went stale, an expiry check. `configuration` must outlive this;
    /// `callbacks` is never null. Throws std::runtime_error when the store's folders cannot be used, or an
    /// interrupted change has left a pair that does not match and cannot be finished: nothing is generated
    /// over it. A certificate that cannot be made is only logged.
    Server(const ServiceConfiguration& configuration, std::shared_ptr<ServiceCallbacks> callbacks);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // The store (Server.cpp; installation in ServerInstallation.cpp).
    /// Whether the active file names a certificate; its files are not looked at. Throws FileWriteError when
    /// the active file is there and cannot be read.
    [[nodiscard]] bool isCertificatePresent() const;
    /// Brings folders and the active certificate's files to their rights and writes its derived files again.
    /// Throws std::runtime_error for the folders and the active file; trouble with the certificate's own
    /// files is only traced.
    void updateFileSystem();
    /// Stores the pair as the active one, tells the owner, then removes the earlier certificate's files.
    /// Throws what the failing step throws: a failed pair changes nothing, a later failure leaves the steps
    /// before it done and the active pointer where it was. A power cut at any moment leaves the earlier pair
    /// or the new one.
    void installCertificate(const X509_T& certificate, const EVP_PKEY_T& key, const NetworkInfo& network);
    /// Throws KeywardenDaemonException.
    void updateActiveFile(const std::string& id);
    void removeCertificate(const std::string& id);
    void removeCsr();
    /// Removes the active certificate's files. The active file keeps naming it, so that a certificate counts
    /// as present until the next one is installed. Throws KeywardenDaemonException when the certificate or
    /// its key is still there.
    void revokeCrt();
    /// Throws std::runtime_error.
    void writeDetails(const X509_T& certificate, const std::string& id);
    /// The description of the certificate in a file of any folder. Throws KeywardenDaemonException.
    std::string getCertInfo(const std::string& path);
    [[nodiscard]] bool isSelfSignedGeneration() const;
    [[nodiscard]] bool isCASignedGeneration() const;
    [[nodiscard]] bool isCertificateSelfSigned() const;
    [[nodiscard]] bool isCertificateCASigned() const;

    // Subject alternative names (ServerAltNames.cpp). Failures of the settings pass through.
    /// "DNS.<n>" and "IP.<n>" to name or address, ordered as texts ("DNS.10" before "DNS.2"); never empty.
    std::map<std::string, std::string> buildAltName();
    std::map<std::string, std::string> buildAltName(const OverrideStaticConfig& override);
    kwdata::CCertificateData readCnfConfiguration(CnfConfiguration& cnf);
    kwdata::CCertificateData readCnfConfiguration(CnfConfiguration& cnf,
                                                  const OverrideStaticConfig& override);

    // Generation (ServerGeneration.cpp, ServerCaSigned.cpp). Nothing is written before the installation.
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
                         std::uint64_t& validSeconds);
    /// Despite the name: whether the CA's certificate file is newer than this service's, so that a new
    /// certificate is due.
    [[nodiscard]] bool isCertificateMatchingCA() const;
    /// The change time of a service's active certificate file, seconds since the epoch; 0 when there is none.
    [[nodiscard]] std::int64_t getServerCertificateTimestamp(const std::string& service) const;

    // External PKI (ServerRequest.cpp). Failures are KeywardenDaemonException, with the code that a
    // requester is to know them by (channel/Answer.h).
    /// Replaces the pending request; a failure leaves none.
    void createCsr();
    void createCsr(const OverrideStaticConfig& override);
    [[nodiscard]] std::string getCsrInfo() const;
    /// Installs the certificate in a file of any folder with the pending request's key. One that is refused
    /// leaves the active certificate as it was.
    void applyCrt(const std::string& path);

    // Expiry (ServerExpiry.cpp).
    /// Reports the days left to the owner and generates a new certificate where one is due; failures of a
    /// generation are logged, never thrown.
    void checkTimeValidity();
    /// Whether the device's present identity is covered by the one recorded with the active certificate;
    /// false when none was recorded.
    [[nodiscard]] bool isNetworkInfoValid();
    /// timestamp - now, in seconds; both in seconds since the epoch.
    [[nodiscard]] std::int64_t getTimeBeforeTimestamp(std::int64_t timestamp) const;

  private:
    /// Days until the certificate is valid and until it counts as expired; single precision.
    struct DaysLeft {
        float validIn;
        float expireIn;
    };

    [[nodiscard]] const std::string& name() const { return configuration.getServiceId(); }
    /// What the active file says; throws FileWriteError when it is there and cannot be read, which must not
    /// look like a store without a certificate.
    [[nodiscard]] std::string activeId() const;
    [[nodiscard]] FileAttributes managedFile(unsigned mode = 0644) const;
    [[nodiscard]] FileAttributes keyFile() const;

    /// Whether the active id names a pair that can be used. Its record is then loaded: made from the
    /// certificate itself, never from a file that others may have written. What is wrong is logged. Throws
    /// FileWriteError or std::bad_alloc when it cannot be told now: nothing may then be made over it.
    [[nodiscard]] bool loadActiveCertificate();
    [[nodiscard]] std::vector<std::string> filesOf(const std::string& id) const;
    [[nodiscard]] X509_T storedCertificate(const std::string& id) const;
    void keepUnnamedPair(const std::string& id) const;
    void warnOfUnnamedFiles() const;
    void addUnnamed(const std::string& folder, std::set<std::string>& found) const;
    void recover();
    /// A start has looked at the pair itself.
    void checkTimeValidity(bool healing);
    void healBeforeCheck();
    void loadRecordAfterFailure(const X509_T& certificate, const std::string& id);
    void announce(const std::string& id, const std::string& previous);
    void tellAgain();
    void tell(const std::string& id, const std::string& previous);
    void checkNetworkInfo();
    void updateFolders();
    void updateCertificateFiles(const std::string& id);

    void saveCertificateFiles(const X509_T& certificate, const EVP_PKEY_T& key, const NetworkInfo& network,
                              const std::string& id, const std::string& previous);
    void stagePair(FileTransaction& change, const X509_T& certificate, const EVP_PKEY_T& key,
                   const std::string& id) const;
    void stageDescription(FileTransaction& change, const X509_T& certificate, const NetworkInfo& network,
                          const std::string& id) const;
    void stageKey(FileTransaction& change, const std::string& path, const EVP_PKEY_T& key) const;
    void stageInfo(FileTransaction& change, const X509_T& certificate, const std::string& id) const;
    void stageDetails(FileTransaction& change, const X509_T& certificate, const std::string& id) const;
    void stageNetwork(FileTransaction& change, const std::string& path, const NetworkInfo& network) const;
    void stageActive(FileTransaction& change, const std::string& id) const;

    std::map<std::string, std::string> buildAltName(const ServiceConfiguration& interfaces) const;
    void addAltName(kwdata::CCertificateData& data, const std::map<std::string, std::string>& names) const;
    [[nodiscard]] std::unique_ptr<CnfConfiguration> requestSettings(bool selfSigned) const;
    void createPendingRequest(const std::function<kwdata::CCertificateData(CnfConfiguration&)>& readSettings);
    void savePendingRequest(const EVP_PKEY_T& key, const X509_REQ_T& request, const NetworkInfo& network);
    [[nodiscard]] X509_T readCertificateToApply(const std::string& path) const;
    [[nodiscard]] std::pair<X509_REQ_T, EVP_PKEY_T> readPendingRequest();

    [[nodiscard]] DaysLeft daysLeft() const;
    void logDays(const DaysLeft& days) const;
    void reportDays(const DaysLeft& days, const std::string& word, float figure);
    void handleNotYetValid(const DaysLeft& days);
    void handleExpired(const DaysLeft& days);
    void followCA();

    const ServiceConfiguration& configuration;
    std::shared_ptr<ServiceCallbacks> callbacks;
    InternalCertificatesAccessor accessor;
    FolderSet folders;
    Journal journal;
    std::shared_ptr<CertificateInfo> certificateInfo;
    bool isAnnounced = false;  ///< the installation under way has come to its owner
};

}  // namespace keywarden
