#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "config/ExternalCertificatesAccessor.h"
#include "stores/CertificateIdCnMap.h"
#include "stores/CertificateIdList.h"
#include "support/FileTransaction.h"
#include "support/FileWriter.h"
#include "support/FolderSet.h"
#include "support/Journal.h"
#include "x509/X509_T.h"

namespace keywarden {

class ServiceConfiguration;

/// A store of certificates that the service did not issue. No lock of its own: its service serialises it.
///
/// A certificate's id is its subject-name hash (8 lower-case hexadecimal digits), "." and a digit; its PEM
/// file in the certificate folder is named so. Everything else (records, details, list, map) is made from
/// those files at start-up.
class ExternalCertificatesStorage {
  public:
    /// The configuration must outlive the store. Finishes or discards what an earlier run was cut short in,
    /// and runs updateFileSystem().
    ExternalCertificatesStorage(const ServiceConfiguration& configuration, const std::string& storeName);
    ExternalCertificatesStorage(const ExternalCertificatesStorage&) = delete;
    ExternalCertificatesStorage& operator=(const ExternalCertificatesStorage&) = delete;
    virtual ~ExternalCertificatesStorage() = default;

    virtual unsigned getMaxNumberOfCertificates() const = 0;  ///< 0: no limit
    virtual bool isValidCertificate(const X509_T& certificate) const = 0;
    virtual bool hashMustBeUnique() const = 0;

    /// Copies a file whose first PEM certificate fits the store, byte for byte, and returns the certificate's
    /// id. The file is read once, must be a regular one of at most 1 MiB and must hold no private key: what
    /// is stored is readable by everybody. The owner is to be told; told() strikes that out.
    ///
    /// Throws KeywardenDaemonException: AnswerFailure when the file is missing or cannot be read,
    /// AnswerCertificateInvalid when it holds no certificate for this store, AnswerStoreFull when the store
    /// or the row of ids with one hash is full, AnswerAlreadyPresent when the certificate is there already.
    /// Throws std::runtime_error when a file of the store cannot be written; what was written before it
    /// stays, and is then listed, counted and can be revoked: after every failure the store knows what its
    /// folder holds. A power cut at any moment leaves the store with the certificate or without it, or with
    /// the one that it replaces.
    std::string add(const std::string& sourcePath);

    /// Removes one certificate; the list and map files are not rewritten. Returns whether it was there and is
    /// gone. Throws std::runtime_error when it is not sure to stay away in a power cut.
    bool revoke(const std::string& id);
    /// Removes several, rewrites the list and map files, and returns the ids really removed. A power cut at
    /// any moment leaves all of them or none. Throws std::runtime_error when one of the two files cannot be
    /// written.
    CertificateIdList revoke(const std::vector<std::string>& ids);

    /// Brings folders, rights and derived files into line with the certificates that are there. Throws
    /// nothing: failures are logged.
    ///
    /// A file that is named like an id but is not the certificate of that name is logged and kept, yet is no
    /// part of the store: an addition that gets its id takes its place.
    void updateFileSystem();

    /// What the owner has not been told of yet, oldest first: of this run, or of an earlier one that was cut
    /// off.
    /// {"new", id} or {"revoke", id, ...}.
    [[nodiscard]] std::vector<std::vector<std::string>> toBeTold() const;
    /// The owner has been told of all of it.
    void told();

    /// The record of one stored certificate as text. Throws KeywardenDaemonException.
    std::string getCertInfo(const std::string& id) const;

    /// Throws std::runtime_error.
    void writeDetails(const X509_T& certificate, const std::string& id) const;
    /// What is not there counts as removed; failures are logged.
    void removeCertificateFiles(const std::string& id) const;

    [[nodiscard]] const std::string& storeName() const { return storeName_; }

  protected:
    [[nodiscard]] const ServiceConfiguration& configuration() const { return configuration_; }

  private:
    // add(), step by step.
    void refuseWhenFull() const;
    [[nodiscard]] X509_T loadSource(const std::string& content, const std::string& path) const;
    [[nodiscard]] std::string newIdOf(const X509_T& certificate) const;
    [[nodiscard]] std::string onlyIdOf(const std::string& hash, const X509_T& certificate) const;
    [[nodiscard]] std::string nextIdOf(const std::string& hash, const X509_T& certificate) const;
    void refuseWhenStoredAs(const std::string& id, const X509_T& certificate) const;
    [[nodiscard]] bool isStoredAs(const std::string& id, const X509_T& certificate) const;
    void saveFiles(const std::string& id, const X509_T& certificate, std::string_view content);
    void stageFiles(FileTransaction& change, const std::string& id, const X509_T& certificate) const;
    void settle();
    void learnAgain();
    void rememberToTell(const Journal::Event& event);
    void stageDescription(FileTransaction& change, const X509_T& certificate, const std::string& id) const;
    void stageIndexes(FileTransaction& change, const CertificateIdCnMap& map) const;

    // revoke()
    [[nodiscard]] bool isGone(const std::string& id) const;
    bool revokeTogether(const std::vector<std::string>& ids, CertificateIdList& revoked);
    void addRemoval(FileTransaction& change, const std::string& id, bool isThere, CertificateIdList& revoked);

    // updateFileSystem(), step by step.
    void prepareFolders();
    void learnFolder();
    void learnChanges();
    void rebuild();
    void tryToRebuild();
    [[nodiscard]] std::vector<std::string> idsOfFiles() const;
    void restore(const std::string& id);
    void writeInfo(const X509_T& certificate, const std::string& id) const;
    [[nodiscard]] X509_T checkedCertificate(const std::string& id) const;

    [[nodiscard]] X509_T storedCertificate(const std::string& id) const;
    void writeIndexes();
    [[nodiscard]] FileAttributes attributes() const;
    /// Of what is made again at every start.
    [[nodiscard]] FileAttributes derivedAttributes() const;
    [[nodiscard]] std::vector<std::string> filesOf(const std::string& id) const;
    [[nodiscard]] const std::string& service() const;
    /// " inside <store> for <service>"
    [[nodiscard]] std::string place() const;

    std::string storeName_;
    const ServiceConfiguration& configuration_;
    ExternalCertificatesAccessor accessor_;
    FolderSet folders_;
    Journal journal_;
    CertificateIdCnMap idCnMap_;
    bool isKnown_ = true;     ///< the map says what the folder holds
    bool hasLearnt_ = false;  ///< the folder has been read once
    bool isAllRead_ = true;   ///< no file was left out only because it could not be read then
};

}  // namespace keywarden
