// Installing a certificate: its files, the active pointer, the owner told, the earlier files removed.

#include <memory>
#include <new>
#include <stdexcept>

#include "callbacks/Delivery.h"
#include "server/ServerEvents.h"
#include "server/ServerStore.h"
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

void ServerStore::installCertificate(const X509_T& certificate, const EVP_PKEY_T& key,
                                     const NetworkInfo& network) {
    debugTrace(" Generate the certificate id...");
    // Two certificates with the same subject have the same id and so the same files.
    const std::string id = subjectNameHash(certificate) + ".0";
    const std::string previous = activeId();
    folders_.noticeWhetherThere();
    isAnnounced_ = false;
    if (id != previous)
        keepUnnamedPair(id);
    try {
        saveCertificateFiles(certificate, key, network, id, previous);
        announce(id, previous);
    } catch (...) {
        loadRecordAfterFailure(certificate, id);
        throw;
    }
    certificateInfo_ = std::make_unique<CertificateInfo>(CertificateInfoStorage(certificate));
    debugTrace(" Save the certificate files with " + id + "... Done.");
}

void ServerStore::announce(const std::string& id, const std::string& previous) {
    removeCsr();
    Log::write(SeverityNotice, "New certificate with id '" + id + "' for service '" + name() +
                                   "' has been installed. Calling the callback script...");
    isAnnounced_ = true;
    tell(id, previous);
}

// The event is struck out only when the owner has it: cut off by a stop, it is told at the next start.
void ServerStore::tell(const std::string& id, const std::string& previous) {
    try {
        callbacks_->newGeneratedCertificate(id);
    } catch (const std::bad_alloc&) {
        throw;  // perhaps before anybody was told
    } catch (...) {
        // A library that throws was told all the same.
        journal_.told();
        throw;
    }
    if (!wasDelivered(*callbacks_))
        return;
    // Only now: the owner may use the earlier files until it has been told.
    if (!previous.empty() && previous != id && previous != activeId()) {
        debugTrace("Remove the previous certificate: " + previous);
        removeCertificate(previous);
        try {
            // Else a power cut could bring them back after the journal, which says that they are too many.
            folders_.folder(kCertificateFolder)->sync();
        } catch (const FileWriteError& error) {
            Log::write(SeverityError, std::string("An event will be told once more: ") + error.what());
            return;
        }
    }
    journal_.told();
}

// What the store holds is in force, whichever step failed; and what is in force the owner has to know.
void ServerStore::loadRecordAfterFailure(const X509_T& certificate, const std::string& id) {
    try {
        if (!isCertificatePresent() || !loadActiveCertificate())
            return;
        if (!isAnnounced_ && activeId() == id && sameEncoding(storedCertificate(id), certificate))
            announce(id, id);
    } catch (const std::exception& error) {
        Log::write(SeverityError, "The certificate of service '" + name() +
                                      "' cannot be looked at after a failed installation: " + error.what());
    }
}

void ServerStore::saveCertificateFiles(const X509_T& certificate, const EVP_PKEY_T& key,
                                       const NetworkInfo& network, const std::string& id,
                                       const std::string& previous) {
    debugTrace(" Save the certificate files for " + id + "...");
    FileTransaction change(journal_);
    stagePair(change, certificate, key, id);
    change.together(accessor_.certKeyPath(id), accessor_.certPath(id));
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

void ServerStore::stagePair(FileTransaction& change, const X509_T& certificate, const EVP_PKEY_T& key,
                            const std::string& id) const {
    const std::string certificatePem = certificate.toPem() + "\n";
    debugTrace(" -> Save the key...");
    stageKey(change, accessor_.certKeyPath(id), key);
    debugTrace(" -> Save the certificate...");
    stageFile(change, accessor_.certPath(id), certificatePem, managedFile());
}

void ServerStore::stageKey(FileTransaction& change, const std::string& path, const EVP_PKEY_T& key) const {
    Secret pem(privateKeyToPem(key));
    pem.append("\n");
    stageFile(change, path, pem.text(), keyFile());
}

void ServerStore::stageDescription(FileTransaction& change, const X509_T& certificate,
                                   const NetworkInfo& network, const std::string& id) const {
    debugTrace(" -> Create Info file...");
    stageInfo(change, certificate, id);
    debugTrace(" -> Create details file...");
    stageDetails(change, certificate, id);
    debugTrace(" -> Save the network Info...");
    stageNetwork(change, accessor_.certNetworkPath(id), network);
    debugTrace(" -> Update active list.");
    stageActive(change, id);
}

void ServerStore::stageInfo(FileTransaction& change, const X509_T& certificate, const std::string& id) const {
    const std::string path = accessor_.certInfoPath(id);
    try {
        stageFile(change, path, CertificateInfoStorage(certificate).toJson(), managedFile());
    } catch (const FileWriteError& error) {
        throw CertificateInfoStorage::unwritable(path, error);
    }
}

void ServerStore::stageDetails(FileTransaction& change, const X509_T& certificate,
                               const std::string& id) const {
    const std::string path = accessor_.certDetailsPath(id);
    try {
        stageFile(change, path, printedText(certificate), managedFile());
    } catch (const FileWriteError&) {
        throw std::runtime_error("Not able to open details file '" + path + "' for writing for service '" +
                                 name() + "'.");
    }
}

// A network file that cannot be opened is only logged; setting the rights of the missing file then throws.
void ServerStore::stageNetwork(FileTransaction& change, const std::string& path,
                               const NetworkInfo& network) const {
    try {
        stageFile(change, path, network.toText(), managedFile());
    } catch (const FileWriteError&) {
        Log::write(SeverityError,
                   "Failed to open network file: " + path + " for saving network information.");
        folders_.setMode(path, 0644);
        folders_.setGroup(path, configuration_.getManagementGroup());
    }
}

// No line end: readers compare the whole content with an id.
void ServerStore::stageActive(FileTransaction& change, const std::string& id) const {
    try {
        stageFile(change, accessor_.activePath(), id, managedFile());
    } catch (const FileWriteError&) {
        failActiveFile(accessor_.activePath());
    }
}

void ServerStore::updateActiveFile(const std::string& id) {
    FileTransaction change(journal_);
    stageActive(change, id);
    try {
        change.commit();
    } catch (const FileWriteError&) {
        failActiveFile(accessor_.activePath());
    }
}

void ServerStore::writeDetails(const X509_T& certificate, const std::string& id) {
    FileTransaction change(journal_);
    stageDetails(change, certificate, id);
    change.commit();
}

}  // namespace keywarden
