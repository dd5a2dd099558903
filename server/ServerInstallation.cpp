// Installing a certificate: its files, the active pointer, the owner told, the earlier files removed.

#include <memory>
#include <new>
#include <stdexcept>

#include "callbacks/Delivery.h"
#include "server/Server.h"
#include "server/ServerEvents.h"
#include "server/StoreFiles.h"
#include "stores/CertificateInfoStorage.h"
#include "support/Debug.h"
#include "support/FileWriteError.h"
#include "support/KeywardenDaemonException.h"
#include "support/Log.h"
#include "x509/Inspection.h"
#include "x509/Secret.h"

namespace keywarden {

namespace {

[[noreturn]] void failActiveFile(const std::string& path) {
    throw KeywardenDaemonException("Failed to open active file: '" + path + "' file.");
}

}  // namespace

void Server::installCertificate(const X509_T& certificate, const EVP_PKEY_T& key,
                                const NetworkInfo& network) {
    debugTrace(" Generate the certificate id...");
    // Two certificates with the same subject have the same id and so the same files.
    const std::string id = subjectNameHash(certificate) + ".0";
    const std::string previous = activeId();
    folders.noticeWhetherThere();
    isAnnounced = false;
    if (id != previous)
        keepUnnamedPair(id);
    try {
        saveCertificateFiles(certificate, key, network, id, previous);
        announce(id, previous);
    } catch (...) {
        loadRecordAfterFailure(certificate, id);
        throw;
    }
    certificateInfo = std::make_shared<CertificateInfo>(CertificateInfoStorage(certificate));
    debugTrace(" Save the certificate files with " + id + "... Done.");
}

void Server::announce(const std::string& id, const std::string& previous) {
    removeCsr();
    Log::write(SeverityNotice, "New certificate with id '" + id + "' for service '" + name() +
                                   "' has been installed. Calling the callback script...");
    isAnnounced = true;
    tell(id, previous);
}

// The event is struck out only when the owner has it: cut off by a stop, it is told at the next start.
void Server::tell(const std::string& id, const std::string& previous) {
    try {
        callbacks->newGeneratedCertificate(id);
    } catch (const std::bad_alloc&) {
        throw;  // perhaps before anybody was told
    } catch (...) {
        // A library that throws was told all the same.
        journal.told();
        throw;
    }
    if (!wasDelivered(*callbacks))
        return;
    // Only now: the owner may use the earlier files until it has been told.
    if (!previous.empty() && previous != id && previous != activeId()) {
        debugTrace("Remove the previous certificate: " + previous);
        removeCertificate(previous);
        try {
            // Else a power cut could bring them back after the journal, which says that they are too many.
            folders.folder(kCertificateFolder)->sync();
        } catch (const FileWriteError& error) {
            Log::write(SeverityError, std::string("An event will be told once more: ") + error.what());
            return;
        }
    }
    journal.told();
}

// What the store holds is in force, whichever step failed; and what is in force the owner has to know.
void Server::loadRecordAfterFailure(const X509_T& certificate, const std::string& id) {
    try {
        if (!isCertificatePresent() || !loadActiveCertificate())
            return;
        if (!isAnnounced && activeId() == id && sameEncoding(storedCertificate(id), certificate))
            announce(id, id);
    } catch (const std::exception& error) {
        Log::write(SeverityError, "The certificate of service '" + name() +
                                      "' cannot be looked at after a failed installation: " + error.what());
    }
}

void Server::saveCertificateFiles(const X509_T& certificate, const EVP_PKEY_T& key,
                                  const NetworkInfo& network, const std::string& id,
                                  const std::string& previous) {
    debugTrace(" Save the certificate files for " + id + "...");
    FileTransaction change(journal);
    stagePair(change, certificate, key, id);
    change.together(accessor.certKeyPath(id), accessor.certPath(id));
    try {
        stageDescription(change, certificate, network, id);
    } catch (...) {
        // No roll-back: what was staged before the failing step goes into the store, the active pointer not.
        change.commitAtAnyRate();
        throw;
    }
    change.tell({kNewEvent, id, previous.empty() ? kNone : previous});
    change.commit();
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
        folders.setMode(path, 0644);
        folders.setGroup(path, configuration.getManagementGroup());
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
