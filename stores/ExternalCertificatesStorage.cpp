#include "stores/ExternalCertificatesStorage.h"

#include <fcntl.h>
#include <unistd.h>

#include <sstream>
#include <stdexcept>

#include "config/ServiceConfiguration.h"
#include "stores/CertificateId.h"
#include "stores/CertificateInfo.h"
#include "stores/CertificateInfoStorage.h"
#include "stores/RegularFile.h"
#include "support/Common.h"
#include "support/Debug.h"
#include "support/Failure.h"
#include "support/FileWriteError.h"
#include "support/KeywardenDaemonException.h"
#include "support/Tools.h"
#include "support/UniqueFd.h"
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

// A certificate that was revoked must not come back with a power cut.
void syncFolder(const std::string& path) {
    const UniqueFd folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder)
        ::fsync(folder.get());
}

}  // namespace

ExternalCertificatesStorage::ExternalCertificatesStorage(const ServiceConfiguration& configuration,
                                                         const std::string& storeName)
    : storeName_(storeName), configuration_(configuration), accessor_(configuration, storeName) {
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
    debugTrace(" -> Copy the certificate...");
    FileWriter::write(accessor_.certPath(id), source.text(), attributes());
    debugTrace(" -> Create Info file...");
    CertificateInfoStorage(certificate).writeIntoFile(accessor_.certInfoPath(id), attributes());
    debugTrace(" -> Create details file...");
    writeDetails(certificate, id);
    debugTrace(" -> Update list and map...");
    idCnMap_.set(id, subjectCommonName(certificate));
    writeIndexes();
    debugTrace(task + "... Done.");
    return id;
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
    X509_T stored;
    try {
        stored = storedCertificate(id);
    } catch (...) {
        // Gone or damaged behind our back: nothing that the new one could be the same as.
        debugTrace(Failure::current().text());
        return;
    }
    if (sameEncoding(stored, certificate))
        throw KeywardenDaemonException(kAlreadyPresent, "Certificate already present" + place());
}

bool ExternalCertificatesStorage::revoke(const std::string& id) {
    const std::string task = "Remove " + id + " for " + service();
    debugTrace(task);
    if (!idCnMap_.certificateIdExist(id)) {
        debugTrace(task + " Failed. Certificate Id doesn't exist.");
        return false;
    }
    removeCertificateFiles(id);
    syncFolder(accessor_.certificateDirectoryPath());
    idCnMap_.remove(id);
    debugTrace(task + " done.");
    return true;
}

CertificateIdList ExternalCertificatesStorage::revoke(const std::vector<std::string>& ids) {
    CertificateIdList revoked;
    for (const std::string& id : ids)
        if (revoke(id))
            revoked.add(id);
    writeIndexes();
    return revoked;
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
        FileWriter::write(path, details, attributes());
    } catch (const FileWriteError&) {
        throw std::runtime_error("Not able to open details file '" + path + "' for writing for service '" +
                                 service() + "'.");
    }
}

void ExternalCertificatesStorage::removeCertificateFiles(const std::string& id) const {
    Common::removeFile(accessor_.certInfoPath(id));
    Common::removeFile(accessor_.certDetailsPath(id));
    Common::removeFile(accessor_.certOverwrittenDataPath(id));
    Common::removeFile(accessor_.certPath(id));
}

X509_T ExternalCertificatesStorage::storedCertificate(const std::string& id) const {
    return X509_T::fromPem(readRegularFile(accessor_.certPath(id), kLargestCertificateFile));
}

void ExternalCertificatesStorage::writeIndexes() const {
    const std::string& group = configuration_.getManagementGroup();
    idCnMap_.toCertificateIdList().writeIntoFile(accessor_.listPath(), true, group);
    idCnMap_.writeIntoFile(accessor_.cnMapPath(), true, group);
}

FileAttributes ExternalCertificatesStorage::attributes() const {
    return {0644, configuration_.getManagementGroup(), std::string(), true};
}

const std::string& ExternalCertificatesStorage::service() const {
    return configuration_.getServiceId();
}

std::string ExternalCertificatesStorage::place() const {
    return " inside " + storeName_ + " for " + service();
}

}  // namespace keywarden
