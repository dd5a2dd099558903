// How a store comes up: everything but the certificates themselves is made anew from their files.

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <new>
#include <stdexcept>

#include "config/ServiceConfiguration.h"
#include "stores/CertificateId.h"
#include "stores/CertificateInfoStorage.h"
#include "stores/ExternalCertificatesStorage.h"
#include "support/Debug.h"
#include "support/Failure.h"
#include "support/FileWriteError.h"
#include "support/FileWriter.h"
#include "support/Log.h"
#include "support/StopRequest.h"
#include "support/TemporaryFile.h"
#include "x509/Inspection.h"

namespace keywarden {

namespace {

constexpr unsigned kFolderMode = 0711;
constexpr unsigned kCertificateMode = 0644;

// Inside a catch block: what was caught says nothing against the file; a disk failed, or there was no memory.
bool isOfTheMoment() {
    try {
        throw;
    } catch (const FileWriteError& error) {
        return error.errorNumber() != ENOENT && error.errorNumber() != EPERM && error.errorNumber() != EACCES;
    } catch (const std::bad_alloc&) {
        return true;
    } catch (...) {
        return false;
    }
}
constexpr std::size_t kTemporaryFolder = 2;

}  // namespace

void ExternalCertificatesStorage::updateFileSystem() {
    const std::string task = "Update file " + storeName_ + " system for " + service();
    debugTrace(task);
    try {
        rebuild();
    } catch (...) {
        const std::string subject =
            "exception caught while updating file '" + storeName_ + "' system for '" + service() + "'";
        Log::write(SeverityError,
                   Failure::current().message("Std " + subject + ": ", "Unknown " + subject + "."));
        tryToRebuild();
    }
    debugTrace(task + "... Done.");
}

void ExternalCertificatesStorage::rebuild() {
    isKnown_ = false;
    prepareFolders();
    journal_.recover();
    removeTemporaries(*folders_.folder(kTemporaryFolder));
    learnFolder();
    hasLearnt_ = true;
    writeIndexes();
    isKnown_ = isAllRead_ && !journal_.isUnfinished();
}

// What failed may have failed for a moment only; else the next command tries again.
void ExternalCertificatesStorage::tryToRebuild() {
    try {
        rebuild();
    } catch (const std::exception& error) {
        debugTrace(error.what());
    }
}

void ExternalCertificatesStorage::prepareFolders() {
    for (std::size_t place = 0; place < folders_.size(); ++place)
        folders_.prepare(place, kFolderMode, configuration_.getManagementGroup(), place == kTemporaryFolder);
}

void ExternalCertificatesStorage::learnFolder() {
    idCnMap_ = CertificateIdCnMap();
    isAllRead_ = true;
    for (const std::string& id : idsOfFiles()) {
        // Certificates can be made to take long; nobody waits for them who stops.
        if (StopRequest::isRaised()) {
            isAllRead_ = false;
            return;
        }
        restore(id);
    }
}

// A certificate that is known and still there has not changed its name; only the others are read.
void ExternalCertificatesStorage::learnChanges() {
    const std::vector<std::string> ids = idsOfFiles();
    for (const std::string& known : idCnMap_.toCertificateIdList().toArray())
        if (!std::binary_search(ids.begin(), ids.end(), known))
            idCnMap_.remove(known);
    isAllRead_ = true;
    for (const std::string& id : ids)
        if (!idCnMap_.certificateIdExist(id))
            restore(id);
}

std::vector<std::string> ExternalCertificatesStorage::idsOfFiles() const {
    std::vector<std::string> ids = folders_.folder(0)->names();
    ids.erase(std::remove_if(ids.begin(), ids.end(),
                             [](const std::string& name) { return !isCertificateId(name); }),
              ids.end());
    std::sort(ids.begin(), ids.end());
    return ids;
}

void ExternalCertificatesStorage::restore(const std::string& id) {
    const std::string check = "Check certificate " + id;
    try {
        const X509_T certificate = checkedCertificate(id);
        // From here on it belongs to the store, whatever becomes of its rights and records.
        idCnMap_.set(id, subjectCommonName(certificate));
        writeInfo(certificate, id);
        writeDetails(certificate, id);
        folders_.setMode(accessor_.certPath(id), kCertificateMode);
        folders_.setGroup(accessor_.certPath(id), configuration_.getManagementGroup());
        debugTrace(check + " Ok.");
    } catch (...) {
        isAllRead_ = isAllRead_ && !isOfTheMoment();
        Log::write(SeverityError,
                   "The certificate " + id + place() + " is not ok: " + Failure::current().text());
        debugTrace(check + " not ok.");
    }
}

void ExternalCertificatesStorage::writeInfo(const X509_T& certificate, const std::string& id) const {
    const std::string path = accessor_.certInfoPath(id);
    try {
        FileWriter writer(folders_);
        writer.stage(path, CertificateInfoStorage(certificate).toJson(), derivedAttributes());
        writer.commit();
    } catch (const FileWriteError& error) {
        throw CertificateInfoStorage::unwritable(path, error);
    }
}

X509_T ExternalCertificatesStorage::checkedCertificate(const std::string& id) const {
    X509_T certificate = storedCertificate(id);
    const std::string hash = subjectNameHash(certificate);
    if (hash != hashOfId(id))
        throw std::runtime_error("The hash of its subject name is " + hash);
    return certificate;
}

}  // namespace keywarden
