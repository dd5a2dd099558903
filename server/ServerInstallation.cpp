// Installing a certificate: its files, the active pointer, the owner told, the earlier files removed.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "server/Server.h"
#include "server/StoreFiles.h"
#include "stores/CertificateInfoStorage.h"
#include "support/Common.h"
#include "support/Debug.h"
#include "support/Failure.h"
#include "support/FileWriteError.h"
#include "support/KeywardenDaemonException.h"
#include "support/Log.h"
#include "support/Tools.h"
#include "support/UniqueFd.h"
#include "x509/Inspection.h"
#include "x509/Secret.h"

namespace keywarden {

namespace {

// Keeps what the name stands for now, also when another file gets the name. None when there is no such file.
UniqueFd openEarlierKey(const std::string& path) {
    return UniqueFd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
}

// A key file is far smaller; more than this is no key.
constexpr std::size_t kLargestKeyFile = 65536;

// At its full size from the start: a text that grows would leave copies of the key behind.
std::string contentOf(int file) {
    std::string content(kLargestKeyFile, '\0');
    const ssize_t size = ::pread(file, content.data(), content.size(), 0);
    if (size < 0)
        throw std::runtime_error("The earlier key cannot be read");
    content.resize(static_cast<std::size_t>(size));
    return content;
}

bool belongTogether(const std::string& keyPath, const std::string& certificatePath) {
    try {
        return keyMatchesCertificate(EVP_PKEY_T(keyPath), X509_T(certificatePath));
    } catch (const std::exception&) {
        return false;
    }
}

[[noreturn]] void failActiveFile(const std::string& path) {
    throw KeywardenDaemonException("Failed to open active file: '" + path + "' file.");
}

}  // namespace

void Server::installCertificate(const X509_T& certificate, const EVP_PKEY_T& key,
                                const NetworkInfo& network) {
    debugTrace(" Generate the certificate id...");
    // Two certificates with the same subject have the same id and so the same files.
    const std::string id = subjectNameHash(certificate) + ".0";
    const std::string previous = accessor.getActive();
    saveCertificateFiles(certificate, key, network, id);
    removeCsr();
    Log::write(SeverityNotice, "New certificate with id '" + id + "' for service '" + name() +
                                   "' has been installed. Calling the callback script...");
    callbacks->newGeneratedCertificate(id);
    // Only now: the owner may use the earlier files until it has been told.
    if (!previous.empty() && previous != id) {
        debugTrace("Remove the previous certificate: " + previous);
        removeCertificate(previous);
    }
    certificateInfo = std::make_shared<CertificateInfo>(accessor.certInfoPath(id));
    debugTrace(" Save the certificate files with " + id + "... Done.");
}

void Server::saveCertificateFiles(const X509_T& certificate, const EVP_PKEY_T& key,
                                  const NetworkInfo& network, const std::string& id) const {
    debugTrace(" Save the certificate files for " + id + "...");
    FileTransaction change(journal);
    stagePair(change, certificate, key, id);
    const UniqueFd earlierKey = openEarlierKey(accessor.certKeyPath(id));
    change.onFailure([&] { restorePair(id, earlierKey.get()); });
    try {
        stageDescription(change, certificate, network, id);
    } catch (...) {
        // No roll-back: what was staged before the failing step goes into the store, the active pointer not.
        change.commitAtAnyRate();
        throw;
    }
    change.commit();
}

// The renames of key and certificate are not one step: when the second fails (a broken disk, a mount point in
// its place), the store gets back the key that fits its certificate.
void Server::restorePair(const std::string& id, int earlierKey) const {
    const std::string keyPath = accessor.certKeyPath(id);
    if (belongTogether(keyPath, accessor.certPath(id)))
        return;
    if (earlierKey < 0) {
        Common::removeFile(keyPath);
        return;
    }
    try {
        FileWriter::write(keyPath, Secret(contentOf(earlierKey)).text(), keyFile());
    } catch (...) {
        Log::write(SeverityError, "Failed to put the earlier key of '" + id + "' for service '" + name() +
                                      "' back: " + Failure::current().text());
    }
}

void Server::stagePair(FileTransaction& change, const X509_T& certificate, const EVP_PKEY_T& key,
                       const std::string& id) const {
    const std::string certificatePem = certificate.toPem() + "\n";
    debugTrace(" -> Save the key...");
    stageKey(change, accessor.certKeyPath(id), key);
    debugTrace(" -> Save the certificate...");
    stageFile(change, accessor.certPath(id), certificatePem, managedFile());
}

void Server::stageKey(FileTransaction& change, const std::string& path, const EVP_PKEY_T& key) const {
    Secret pem(privateKeyToPem(key));
    pem.append("\n");
    stageFile(change, path, pem.text(), keyFile());
}

void Server::stageDescription(FileTransaction& change, const X509_T& certificate, const NetworkInfo& network,
                              const std::string& id) const {
    debugTrace(" -> Create Info file...");
    stageInfo(change, certificate, id);
    debugTrace(" -> Create details file...");
    stageDetails(change, certificate, id);
    debugTrace(" -> Save the network Info...");
    stageNetwork(change, accessor.certNetworkPath(id), network);
    debugTrace(" -> Update active list.");
    stageActive(change, id);
}

void Server::stageInfo(FileTransaction& change, const X509_T& certificate, const std::string& id) const {
    const std::string path = accessor.certInfoPath(id);
    try {
        stageFile(change, path, CertificateInfoStorage(certificate).toJson(), managedFile());
    } catch (const FileWriteError& error) {
        throw CertificateInfoStorage::unwritable(path, error);
    }
}

void Server::stageDetails(FileTransaction& change, const X509_T& certificate, const std::string& id) const {
    const std::string path = accessor.certDetailsPath(id);
    try {
        stageFile(change, path, printedText(certificate), managedFile());
    } catch (const FileWriteError&) {
        throw std::runtime_error("Not able to open details file '" + path + "' for writing for service '" +
                                 name() + "'.");
    }
}

// A network file that cannot be opened is only logged; setting the rights of the missing file then throws.
void Server::stageNetwork(FileTransaction& change, const std::string& path,
                          const NetworkInfo& network) const {
    try {
        stageFile(change, path, network.toText(), managedFile());
    } catch (const FileWriteError&) {
        Log::write(SeverityError,
                   "Failed to open network file: " + path + " for saving network information.");
        Tools::changeMode(path, 0644);
        Tools::changeGroup(path, configuration.getManagementGroup());
    }
}

// No line end: readers compare the whole content with an id.
void Server::stageActive(FileTransaction& change, const std::string& id) const {
    try {
        stageFile(change, accessor.activePath(), id, managedFile());
    } catch (const FileWriteError&) {
        failActiveFile(accessor.activePath());
    }
}

void Server::updateActiveFile(const std::string& id) {
    FileTransaction change(journal);
    stageActive(change, id);
    try {
        change.commit();
    } catch (const FileWriteError&) {
        failActiveFile(accessor.activePath());
    }
}

void Server::writeDetails(const X509_T& certificate, const std::string& id) {
    FileTransaction change(journal);
    stageDetails(change, certificate, id);
    change.commit();
}

}  // namespace keywarden
