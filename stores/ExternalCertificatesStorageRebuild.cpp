// How a store comes up: everything but the certificates themselves is made anew from their files.

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include "config/ServiceConfiguration.h"
#include "stores/CertificateId.h"
#include "stores/CertificateInfoStorage.h"
#include "stores/ExternalCertificatesStorage.h"
#include "support/Debug.h"
#include "support/Failure.h"
#include "support/Log.h"
#include "support/Tools.h"
#include "x509/Inspection.h"

namespace keywarden {

namespace {

constexpr unsigned kFolderMode = 0711;
constexpr unsigned kCertificateMode = 0644;

}  // namespace

void ExternalCertificatesStorage::updateFileSystem() {
    const std::string task = "Update file " + storeName_ + " system for " + service();
    debugTrace(task);
    try {
        prepareFolders();
        idCnMap_ = CertificateIdCnMap();
        for (const std::string& id : idsOfFiles())
            restore(id);
        writeIndexes();
    } catch (...) {
        const std::string subject =
            "exception caught while updating file '" + storeName_ + "' system for '" + service() + "'";
        Log::write(SeverityError,
                   Failure::current().message("Std " + subject + ": ", "Unknown " + subject + "."));
    }
    debugTrace(task + "... Done.");
}

void ExternalCertificatesStorage::prepareFolders() const {
    for (const std::string& folder : {accessor_.certificateDirectoryPath(), accessor_.cachedDirectoryPath(),
                                      accessor_.tmpDirectoryPath()}) {
        Tools::createDirectory(folder, kFolderMode);
        Tools::changeGroup(folder, configuration_.getManagementGroup());
    }
}

std::vector<std::string> ExternalCertificatesStorage::idsOfFiles() const {
    std::vector<std::string> ids;
    for (const auto& entry : std::filesystem::directory_iterator(accessor_.certificateDirectoryPath()))
        if (std::string name = entry.path().filename().string(); isCertificateId(name))
            ids.push_back(std::move(name));
    std::sort(ids.begin(), ids.end());
    return ids;
}

void ExternalCertificatesStorage::restore(const std::string& id) {
    const std::string check = "Check certificate " + id;
    try {
        const X509_T certificate = checkedCertificate(id);
        // From here on it belongs to the store, whatever becomes of its rights and records.
        idCnMap_.set(id, subjectCommonName(certificate));
        CertificateInfoStorage(certificate).writeIntoFile(accessor_.certInfoPath(id), derivedAttributes());
        writeDetails(certificate, id);
        Tools::changeMode(accessor_.certPath(id), kCertificateMode);
        Tools::changeGroup(accessor_.certPath(id), configuration_.getManagementGroup());
        debugTrace(check + " Ok.");
    } catch (...) {
        Log::write(SeverityError,
                   "The certificate " + id + place() + " is not ok: " + Failure::current().text());
        debugTrace(check + " not ok.");
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
