#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "callbacks/ServiceCallbacks.h"
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

/// The files of a service's server certificate: which one is in force, what was installed and interrupted,
/// and that the owner knows of it. It decides about no certificate. Its service serialises every call.
class ServerStore {
  public:
    enum class Health {
        WithoutCertificate,  ///< the active file names none
        Settled,             ///< it names a pair that is in force, or one that was revoked
        Broken               ///< it names a pair that is none, and nothing is left to be finished
    };

    /// Touches no file. `configuration` must outlive this; `callbacks` is never null. Throws
    /// std::runtime_error when a folder cannot be named.
    ServerStore(const ServiceConfiguration& configuration, std::shared_ptr<ServiceCallbacks> callbacks);
    ServerStore(const ServerStore&) = delete;
    ServerStore& operator=(const ServerStore&) = delete;

    /// An interrupted change finished or discarded, housekeeping, a pending request discarded, an owner told
    /// of what it was not told before. Whether a pair that can be used is in force. Throws std::runtime_error
    /// when the folders cannot be used, or an interrupted change has left a pair that does not match and
    /// cannot be finished.
    [[nodiscard]] bool start();
    /// Finishes what an earlier change left undone, and looks at the pair in force again.
    [[nodiscard]] Health heal();
    /// Of what an earlier run could not tell.
    void tellAgain();

    /// Whether the active file names a certificate; its files are not looked at. Throws FileWriteError when
    /// the active file is there and cannot be read.
    [[nodiscard]] bool isCertificatePresent() const;
    /// The record of the certificate that was last installed or found in force; null when there is none.
    [[nodiscard]] const CertificateInfo* record() const { return certificateInfo_.get(); }
    [[nodiscard]] bool isCertificateSelfSigned() const;
    [[nodiscard]] bool isCertificateCASigned() const;
    /// The network identity that was recorded with the active certificate. None, after a NOTICE, when there
    /// is no file of it.
    [[nodiscard]] std::optional<NetworkInfo> recordedNetwork() const;
    /// The description of the certificate in a file of any folder. Throws KeywardenDaemonException.
    [[nodiscard]] static std::string getCertInfo(const std::string& path);

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
    /// Removes the active certificate's files. The active file keeps naming it, so that a certificate counts
    /// as present until the next one is installed. Throws KeywardenDaemonException when the certificate or
    /// its key is still there.
    void revokeCrt();
    /// Throws std::runtime_error.
    void writeDetails(const X509_T& certificate, const std::string& id);

    // The pending request: its file, its key, and the network identity at its time. The readers of request
    // and key throw std::runtime_error; a network that is missing or unreadable is an empty one.
    void savePendingRequest(const EVP_PKEY_T& key, const X509_REQ_T& request, const NetworkInfo& network);
    [[nodiscard]] X509_REQ_T pendingRequest() const;
    [[nodiscard]] EVP_PKEY_T pendingKey() const;
    [[nodiscard]] NetworkInfo pendingNetwork() const;
    void removeCsr();

  private:
    [[nodiscard]] const std::string& name() const { return configuration_.getServiceId(); }
    /// What the active file says; throws FileWriteError when it is there and cannot be read, which must not
    /// look like a store without a certificate.
    [[nodiscard]] std::string activeId() const;
    [[nodiscard]] FileAttributes managedFile(unsigned mode = 0644) const;
    [[nodiscard]] FileAttributes keyFile() const;
    [[nodiscard]] std::vector<std::string> filesOf(const std::string& id) const;
    [[nodiscard]] X509_T storedCertificate(const std::string& id) const;
    void updateFolders();
    void updateCertificateFiles(const std::string& id);

    // ServerStoreRecovery.cpp
    /// Whether the active id names a pair that can be used. Its record is then loaded: made from the
    /// certificate itself, never from a file that others may have written. What is wrong is logged. Throws
    /// FileWriteError or std::bad_alloc when it cannot be told now: nothing may then be made over it.
    [[nodiscard]] bool loadActiveCertificate();
    void recover();
    void keepUnnamedPair(const std::string& id) const;
    void warnOfUnnamedFiles() const;
    void addUnnamed(const std::string& folder, std::set<std::string>& found) const;

    // ServerStoreInstallation.cpp
    void loadRecordAfterFailure(const X509_T& certificate, const std::string& id);
    void announce(const std::string& id, const std::string& previous);
    void tell(const std::string& id, const std::string& previous);
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

    const ServiceConfiguration& configuration_;
    std::shared_ptr<ServiceCallbacks> callbacks_;
    InternalCertificatesAccessor accessor_;
    FolderSet folders_;
    Journal journal_;
    std::unique_ptr<CertificateInfo> certificateInfo_;
    bool isAnnounced_ = false;  ///< the installation under way has come to its owner
};

}  // namespace keywarden
