#include "stores/ExternalCertificatesStorage.h"

#include <sstream>
#include <stdexcept>

#include "config/ServiceConfiguration.h"
#include "stores/CertificateId.h"
#include "stores/CertificateInfo.h"
#include "stores/CertificateInfoStorage.h"
#include "stores/IndexFile.h"
#include "stores/RegularFile.h"
#include "support/Common.h"
#include "support/Debug.h"
#include "support/Failure.h"
#include "support/FileWriteError.h"
#include "support/KeywardenDaemonException.h"
#include "support/Log.h"
#include "support/TemporaryFile.h"
#include "support/Tools.h"
#include "x509/Inspection.h"
#include "x509/Secret.h"

namespace keywarden {

namespace {

constexpr int kSourceMissing = 1;
constexpr int kNotValid = 9;
constexpr int kFull = 42;
constexpr int kAlreadyPresent = 43;

Secret readSource(const std::string& path) {
    if (!Tools::fileExist(path))
        throw KeywardenDaemonException(kSourceMissing, "Certificate does not exist for " + path);
    try {
        return Secret(readRegularFile(path, kLargestCertificateFile));
    } catch (...) {
        throw KeywardenDaemonException(kSourceMissing, Failure::current().text());
    }
}

std::runtime_error unwritableDetails(const std::string& path, const std::string& service) {
    return std::runtime_error("Not able to open details file '" + path + "' for writing for service '" +
                              service + "'.");
}

}  // namespace

ExternalCertificatesStorage::ExternalCertificatesStorage(const ServiceConfiguration& configuration,
                                                         const std::string& storeName)
    : storeName_(storeName),
      configuration_(configuration),
      accessor_(configuration, storeName),
      journal_({accessor_.certificateDirectoryPath(), accessor_.cachedDirectoryPath()}) {
    journal_.recover();
    removeTemporaries(accessor_.tmpDirectoryPath());
    // Must not ask for a policy: the subclass does not exist yet.
    updateFileSystem();
}

std::string ExternalCertificatesStorage::add(const std::string& sourcePath) {
    const std::string task = "Add certificate" + place();
    debugTrace(task);
    refuseWhenFull();
    const Secret source = readSource(sourcePath);
    debugTrace(" -> Load the certificate...");
    const X509_T certificate = loadSource(source.text());
    debugTrace(" -> Check the certificate...");
    if (!isValidCertificate(certificate))
        throw KeywardenDaemonException(kNotValid, "No valid certificate found.");
    debugTrace(" -> Get the certificate name...");
    std::string id = newIdOf(certificate);
    saveFiles(id, certificate, source.text());
    debugTrace(task + "... Done.");
    return id;
}

void ExternalCertificatesStorage::saveFiles(const std::string& id, const X509_T& certificate,
                                            std::string_view content) {
    FileTransaction change(journal_);
    debugTrace(" -> Copy the certificate...");
    change.stage(accessor_.certPath(id), content, attributes());
    try {
        stageDescription(change, certificate, id);
        debugTrace(" -> Update list and map...");
        idCnMap_.set(id, subjectCommonName(certificate));
        stageIndexes(change, idCnMap_);
    } catch (...) {
        // No roll-back: what was staged before the failing step goes into the store.
        change.commitAtAnyRate();
        throw;
    }
    try {
        change.commit();
    } catch (...) {
        if (!isStoredAs(id, certificate))
            idCnMap_.remove(id);
        throw;
    }
}

void ExternalCertificatesStorage::stageDescription(FileTransaction& change, const X509_T& certificate,
                                                   const std::string& id) const {
    debugTrace(" -> Create Info file...");
    const std::string infoPath = accessor_.certInfoPath(id);
    try {
        change.stage(infoPath, CertificateInfoStorage(certificate).toJson(), attributes());
    } catch (const FileWriteError& error) {
        throw CertificateInfoStorage::unwritable(infoPath, error);
    }
    debugTrace(" -> Create details file...");
    const std::string detailsPath = accessor_.certDetailsPath(id);
    try {
        change.stage(detailsPath, printedText(certificate), attributes());
    } catch (const FileWriteError&) {
        throw unwritableDetails(detailsPath, service());
    }
}

void ExternalCertificatesStorage::stageIndexes(FileTransaction& change, const CertificateIdCnMap& map) const {
    const auto stage = [&](const std::string& path, const std::string& lines) {
        try {
            change.stage(path, lines, attributes());
        } catch (const FileWriteError&) {
            failToOpenIndex(path);
        }
    };
    stage(accessor_.listPath(), map.toCertificateIdList().toLines());
    stage(accessor_.cnMapPath(), map.toLines());
}

void ExternalCertificatesStorage::refuseWhenFull() const {
    const unsigned maximum = getMaxNumberOfCertificates();
    if (maximum != 0 && maximum <= idCnMap_.size())
        throw KeywardenDaemonException(kFull,
                                       "Too many certificates found while adding certificate" + place());
}

X509_T ExternalCertificatesStorage::loadSource(const std::string& content) const {
    // The copy will be readable by everybody.
    if (content.find("PRIVATE KEY-----") != std::string::npos)
        throw KeywardenDaemonException(kNotValid, "The certificate file holds a private key.");
    try {
        return X509_T::fromPem(content);
    } catch (...) {
        throw KeywardenDaemonException(kNotValid, "No valid certificate found.");
    }
}

std::string ExternalCertificatesStorage::newIdOf(const X509_T& certificate) const {
    const std::string hash = subjectNameHash(certificate);
    return hashMustBeUnique() ? onlyIdOf(hash, certificate) : nextIdOf(hash, certificate);
}

std::string ExternalCertificatesStorage::onlyIdOf(const std::string& hash, const X509_T& certificate) const {
    std::string id = certificateId(hash, 0);
    if (idCnMap_.certificateIdExist(id))
        refuseWhenStoredAs(id, certificate);
    return id;
}

std::string ExternalCertificatesStorage::nextIdOf(const std::string& hash, const X509_T& certificate) const {
    std::string id;
    for (unsigned suffix = 0; suffix < kIdsPerHash; ++suffix) {
        const std::string candidate = certificateId(hash, suffix);
        if (idCnMap_.certificateIdExist(candidate))
            refuseWhenStoredAs(candidate, certificate);
        else if (id.empty())
            id = candidate;
    }
    if (id.empty())
        throw KeywardenDaemonException(kFull, "Reached maximum limit of certificates with same hash.");
    return id;
}

void ExternalCertificatesStorage::refuseWhenStoredAs(const std::string& id, const X509_T& certificate) const {
    if (isStoredAs(id, certificate))
        throw KeywardenDaemonException(kAlreadyPresent, "Certificate already present" + place());
}

bool ExternalCertificatesStorage::isStoredAs(const std::string& id, const X509_T& certificate) const {
    try {
        return sameEncoding(storedCertificate(id), certificate);
    } catch (...) {
        // Gone or damaged behind our back: nothing that another could be the same as.
        debugTrace(Failure::current().text());
        return false;
    }
}

bool ExternalCertificatesStorage::revoke(const std::string& id) {
    FileTransaction change(journal_);
    CertificateIdList revoked;
    addRemoval(change, id, idCnMap_.certificateIdExist(id), revoked);
    // On a full disk, too, a certificate can be revoked.
    change.commitAtAnyRate();
    return !revoked.empty();
}

// The traces come in their turn, and the certificate leaves the map only when it is gone.
void ExternalCertificatesStorage::addRemoval(FileTransaction& change, const std::string& id, bool isThere,
                                             CertificateIdList& revoked) {
    const std::string task = "Remove " + id + " for " + service();
    change.call([task] { debugTrace(task); });
    if (!isThere) {
        change.call([task] { debugTrace(task + " Failed. Certificate Id doesn't exist."); });
        return;
    }
    for (const std::string& path : filesOf(id))
        change.remove(path);
    change.call([this, task, id, &revoked] {
        if (Tools::fileExist(accessor_.certPath(id)))
            return;
        idCnMap_.remove(id);
        revoked.add(id);
        debugTrace(task + " done.");
    });
}

CertificateIdList ExternalCertificatesStorage::revoke(const std::vector<std::string>& ids) {
    CertificateIdList revoked;
    if (revokeTogether(ids, revoked))
        return revoked;
    for (const std::string& id : ids)
        if (idCnMap_.certificateIdExist(id) && revoke(id))
            revoked.add(id);
    writeIndexes();
    return revoked;
}

// False when it could not be done so: on a full disk the new indexes cannot be staged, but certificates be
// removed.
bool ExternalCertificatesStorage::revokeTogether(const std::vector<std::string>& ids,
                                                 CertificateIdList& revoked) {
    try {
        FileTransaction change(journal_);
        CertificateIdCnMap remaining = idCnMap_;
        for (const std::string& id : ids) {
            addRemoval(change, id, remaining.certificateIdExist(id), revoked);
            remaining.remove(id);
        }
        stageIndexes(change, remaining);
        change.commit();
        return remaining.size() == idCnMap_.size();
    } catch (const std::runtime_error& error) {
        Log::write(SeverityError,
                   "Revoking certificates" + place() + " one by one, not all at once: " + error.what());
        return false;
    }
}

std::string ExternalCertificatesStorage::getCertInfo(const std::string& id) const {
    // Asked for by a requester: only an id of the store may become a path.
    if (!idCnMap_.certificateIdExist(id))
        throw KeywardenDaemonException("Certificate '" + id + "' doesn't exist" + place());
    try {
        std::ostringstream text;
        text << CertificateInfo(accessor_.certInfoPath(id));
        return text.str();
    } catch (...) {
        const std::string subject = "exception caught while getting certificate data" + place();
        throw KeywardenDaemonException(
            Failure::current().message("Std " + subject + ": ", "Unknown " + subject + "."));
    }
}

void ExternalCertificatesStorage::writeDetails(const X509_T& certificate, const std::string& id) const {
    const std::string path = accessor_.certDetailsPath(id);
    const std::string details = printedText(certificate);
    try {
        FileWriter::write(path, details, derivedAttributes());
    } catch (const FileWriteError&) {
        throw unwritableDetails(path, service());
    }
}

void ExternalCertificatesStorage::removeCertificateFiles(const std::string& id) const {
    for (const std::string& path : filesOf(id))
        Common::removeFile(path);
}

std::vector<std::string> ExternalCertificatesStorage::filesOf(const std::string& id) const {
    return {accessor_.certInfoPath(id), accessor_.certDetailsPath(id), accessor_.certOverwrittenDataPath(id),
            accessor_.certPath(id)};
}

X509_T ExternalCertificatesStorage::storedCertificate(const std::string& id) const {
    return X509_T::fromPem(readRegularFile(accessor_.certPath(id), kLargestCertificateFile));
}

void ExternalCertificatesStorage::writeIndexes() const {
    FileTransaction change(journal_);
    stageIndexes(change, idCnMap_);
    change.commit();
}

FileAttributes ExternalCertificatesStorage::attributes() const {
    return {0644, configuration_.getManagementGroup(), std::string(), true, true};
}

FileAttributes ExternalCertificatesStorage::derivedAttributes() const {
    FileAttributes derived = attributes();
    derived.synced = false;
    return derived;
}

const std::string& ExternalCertificatesStorage::service() const {
    return configuration_.getServiceId();
}

std::string ExternalCertificatesStorage::place() const {
    return " inside " + storeName_ + " for " + service();
}

}  // namespace keywarden
