#include "server/ServerStore.h"

#include <cstddef>
#include <stdexcept>
#include <utility>

#include "server/ServerEvents.h"
#include "server/StoreFiles.h"
#include "support/Debug.h"
#include "support/Failure.h"
#include "support/FileWriteError.h"
#include "support/KeywardenDaemonException.h"
#include "support/Log.h"
#include "x509/Description.h"

namespace keywarden {

namespace {

constexpr unsigned kFolderMode = 0711;
constexpr unsigned kOverwrittenDataMode = 0664;

}  // namespace

ServerStore::ServerStore(const ServiceConfiguration& configuration,
                         std::shared_ptr<ServiceCallbacks> callbacks)
    : configuration_(configuration),
      callbacks_(std::move(callbacks)),
      accessor_(configuration, "server"),
      folders_({accessor_.certificateDirectoryPath(), accessor_.cachedDirectoryPath(),
                accessor_.tmpDirectoryPath()}),
      journal_(folders_, kDurableFolders) {}

bool ServerStore::start() {
    updateFolders();
    recover();
    updateFileSystem();
    removeCsr();
    const bool isPresent = isCertificatePresent() && loadActiveCertificate();
    if (!isPresent && journal_.isUnfinished())
        throw std::runtime_error("The store of the service '" + name() +
                                 "' holds a change that was interrupted and cannot be finished now.");
    warnOfUnnamedFiles();
    tellAgain();
    return isPresent;
}

std::string ServerStore::activeId() const {
    if (!folders_.exists(accessor_.activePath()))
        return {};
    constexpr std::size_t kLargestActiveFile = 4096;
    constexpr std::size_t kLongestId = 200;
    try {
        const std::string content = folders_.read(accessor_.activePath(), kLargestActiveFile);
        const std::string id = content.substr(0, content.find('\n'));
        // What can be no file's name names nothing.
        return id.size() <= kLongestId && id.find_first_of(std::string("/\0", 2)) == std::string::npos &&
                       id != "." && id != ".."
                   ? id
                   : std::string();
    } catch (const FileWriteError&) {
        throw;
    } catch (const std::runtime_error&) {
        // Something else in its place names nothing.
        return {};
    }
}

bool ServerStore::isCertificatePresent() const {
    return !activeId().empty();
}

FileAttributes ServerStore::managedFile(unsigned mode) const {
    FileAttributes attributes;
    attributes.mode = static_cast<mode_t>(mode);
    attributes.group = configuration_.getManagementGroup();
    attributes.inOwnFolder = true;
    return attributes;
}

FileAttributes ServerStore::keyFile() const {
    FileAttributes attributes = managedFile(0640);
    attributes.group = configuration_.getKeyGroup();
    return attributes;
}

void ServerStore::updateFileSystem() {
    updateFolders();
    if (!folders_.exists(accessor_.activePath()))
        updateActiveFile("");
    folders_.setGroup(accessor_.activePath(), configuration_.getManagementGroup());
    folders_.setMode(accessor_.activePath(), 0644);
    const std::string id = activeId();
    if (!id.empty()) {
        try {
            updateCertificateFiles(id);
            debugTrace("certificate " + id + " Ok.");
        } catch (...) {
            debugTrace("certificate " + id + " not ok !!!!!!!!!!!!");
        }
    }
    debugTrace("Update file Server system for " + name() + "... Done.");
}

void ServerStore::updateFolders() {
    for (std::size_t place = 0; place < folders_.size(); ++place)
        folders_.prepare(place, kFolderMode, configuration_.getManagementGroup(), place == kTemporaryFolder);
}

void ServerStore::updateCertificateFiles(const std::string& id) {
    debugTrace("Check certificate " + id);
    const X509_T certificate = storedCertificate(id);
    folders_.setMode(accessor_.certPath(id), 0644);
    folders_.setGroup(accessor_.certPath(id), configuration_.getManagementGroup());
    folders_.setMode(accessor_.certKeyPath(id), 0640);
    folders_.setGroup(accessor_.certKeyPath(id), configuration_.getKeyGroup());
    FileTransaction change(journal_);
    stageInfo(change, certificate, id);
    change.commit();
    writeDetails(certificate, id);
    const std::string overwrittenData = accessor_.certOverwrittenDataPath(id);
    if (!folders_.exists(overwrittenData)) {
        FileTransaction creation(journal_);
        creation.stage(overwrittenData, "", managedFile(kOverwrittenDataMode));
        creation.commit();
    }
    folders_.setMode(overwrittenData, kOverwrittenDataMode);
    folders_.setGroup(overwrittenData, configuration_.getManagementGroup());
}

std::vector<std::string> ServerStore::filesOf(const std::string& id) const {
    return {accessor_.certPath(id),        accessor_.certKeyPath(id),
            accessor_.certInfoPath(id),    accessor_.certNetworkPath(id),
            accessor_.certDetailsPath(id), accessor_.certOverwrittenDataPath(id)};
}

void ServerStore::removeCertificate(const std::string& id) {
    for (const std::string& path : filesOf(id))
        folders_.remove(path);
}

void ServerStore::removeCsr() {
    for (const std::string& path : {accessor_.csrPath(), accessor_.csrNetworkPath(), accessor_.csrKeyPath()})
        folders_.remove(path);
}

void ServerStore::revokeCrt() {
    debugTrace(" Revoke the certificate...");
    const std::string id = activeId();
    if (!id.empty()) {
        debugTrace("Remove the active certificate: " + id);
        FileTransaction change(journal_);
        for (const std::string& path : filesOf(id))
            change.remove(path);
        // On a full disk, too, a certificate can be revoked.
        change.commitAtAnyRate();
        if (folders_.exists(accessor_.certPath(id)) || folders_.exists(accessor_.certKeyPath(id)))
            throw KeywardenDaemonException("The files of the certificate '" + id + "' of service '" + name() +
                                           "' cannot be removed.");
    }
    debugTrace(" Removed certificate files with " + id + "... Done.");
}

std::string ServerStore::getCertInfo(const std::string& path) {
    try {
        return getCertDataString(readCertificateFile(path));
    } catch (...) {
        throw KeywardenDaemonException(
            Failure::current().message("Std exception caught while getting server certificate data: ",
                                       "Unknown exception caught while getting server certificate data."));
    }
}

void ServerStore::savePendingRequest(const EVP_PKEY_T& key, const X509_REQ_T& request,
                                     const NetworkInfo& network) {
    folders_.noticeWhetherThere();
    FileTransaction change(journal_);
    debugTrace(" -> Save the key...");
    stageKey(change, accessor_.csrKeyPath(), key);
    debugTrace(" -> Save the CSR...");
    stageFile(change, accessor_.csrPath(), x509CsrToPem(request) + "\n", managedFile());
    debugTrace(" -> Save the Network...");
    stageNetwork(change, accessor_.csrNetworkPath(), network);
    change.commit();
}

X509_REQ_T ServerStore::pendingRequest() const {
    return readRequest(folders_, accessor_.csrPath());
}

EVP_PKEY_T ServerStore::pendingKey() const {
    return readKey(folders_, accessor_.csrKeyPath());
}

NetworkInfo ServerStore::pendingNetwork() const {
    return readNetwork(folders_, accessor_.csrNetworkPath());
}

std::optional<NetworkInfo> ServerStore::recordedNetwork() const {
    const std::string path = accessor_.certNetworkPath(activeId());
    if (!folders_.exists(path)) {
        Log::write(SeverityNotice, path + " file not found.");
        return std::nullopt;
    }
    debugTrace("Reading network information from the " + path + " file.");
    return readNetwork(folders_, path);
}

bool ServerStore::isCertificateSelfSigned() const {
    return certificateInfo_ && certificateInfo_->isSelfSigned;
}

bool ServerStore::isCertificateCASigned() const {
    return certificateInfo_ && !certificateInfo_->isSelfSigned;
}

}  // namespace keywarden
