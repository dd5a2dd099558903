#include "server/Server.h"

#include <cstddef>
#include <stdexcept>

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

Server::Server(const ServiceConfiguration& serviceConfiguration,
               std::shared_ptr<ServiceCallbacks> serviceCallbacks)
    : configuration(serviceConfiguration),
      callbacks(std::move(serviceCallbacks)),
      accessor(serviceConfiguration, "server"),
      folders(
          {accessor.certificateDirectoryPath(), accessor.cachedDirectoryPath(), accessor.tmpDirectoryPath()}),
      journal(folders, kDurableFolders) {
    Log::open();
    updateFolders();
    recover();
    updateFileSystem();
    removeCsr();
    const bool isPresent = isCertificatePresent() && loadActiveCertificate();
    if (!isPresent && journal.isUnfinished())
        throw std::runtime_error("The store of the service '" + name() +
                                 "' holds a change that was interrupted and cannot be finished now.");
    warnOfUnnamedFiles();
    tellAgain();
    if (isPresent) {
        Log::write(SeverityInfo, "Server certificate found for service: " + name());
        checkNetworkInfo();
    } else {
        Log::write(SeverityInfo, "Server certificate not found for service: " + name());
        createCertificate();
    }
    if (isCertificatePresent())
        checkTimeValidity(false);
}

void Server::checkNetworkInfo() {
    if (isNetworkInfoValid())
        return;
    // "fo" is how the text goes.
    Log::write(SeverityNotice, "Network information fo the server certificate for service '" + name() +
                                   "' are not valid anymore.");
    if (isCertificateSelfSigned() || configuration.isNetworkInvalidRevokePKIcert())
        createCertificate();
}

std::string Server::activeId() const {
    if (!folders.exists(accessor.activePath()))
        return {};
    constexpr std::size_t kLargestActiveFile = 4096;
    constexpr std::size_t kLongestId = 200;
    try {
        const std::string content = folders.read(accessor.activePath(), kLargestActiveFile);
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

bool Server::isCertificatePresent() const {
    return !activeId().empty();
}

FileAttributes Server::managedFile(unsigned mode) const {
    FileAttributes attributes;
    attributes.mode = static_cast<mode_t>(mode);
    attributes.group = configuration.getManagementGroup();
    attributes.inOwnFolder = true;
    return attributes;
}

FileAttributes Server::keyFile() const {
    FileAttributes attributes = managedFile(0640);
    attributes.group = configuration.getKeyGroup();
    return attributes;
}

void Server::updateFileSystem() {
    updateFolders();
    if (!folders.exists(accessor.activePath()))
        updateActiveFile("");
    folders.setGroup(accessor.activePath(), configuration.getManagementGroup());
    folders.setMode(accessor.activePath(), 0644);
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

void Server::updateFolders() {
    for (std::size_t place = 0; place < folders.size(); ++place)
        folders.prepare(place, kFolderMode, configuration.getManagementGroup(), place == kTemporaryFolder);
}

void Server::updateCertificateFiles(const std::string& id) {
    debugTrace("Check certificate " + id);
    const X509_T certificate = storedCertificate(id);
    folders.setMode(accessor.certPath(id), 0644);
    folders.setGroup(accessor.certPath(id), configuration.getManagementGroup());
    folders.setMode(accessor.certKeyPath(id), 0640);
    folders.setGroup(accessor.certKeyPath(id), configuration.getKeyGroup());
    FileTransaction change(journal);
    stageInfo(change, certificate, id);
    change.commit();
    writeDetails(certificate, id);
    const std::string overwrittenData = accessor.certOverwrittenDataPath(id);
    if (!folders.exists(overwrittenData)) {
        FileTransaction creation(journal);
        creation.stage(overwrittenData, "", managedFile(kOverwrittenDataMode));
        creation.commit();
    }
    folders.setMode(overwrittenData, kOverwrittenDataMode);
    folders.setGroup(overwrittenData, configuration.getManagementGroup());
}

std::vector<std::string> Server::filesOf(const std::string& id) const {
    return {accessor.certPath(id),        accessor.certKeyPath(id),     accessor.certInfoPath(id),
            accessor.certNetworkPath(id), accessor.certDetailsPath(id), accessor.certOverwrittenDataPath(id)};
}

void Server::removeCertificate(const std::string& id) {
    for (const std::string& path : filesOf(id))
        folders.remove(path);
}

void Server::removeCsr() {
    for (const std::string& path : {accessor.csrPath(), accessor.csrNetworkPath(), accessor.csrKeyPath()})
        folders.remove(path);
}

void Server::revokeCrt() {
    debugTrace(" Revoke the certificate...");
    const std::string id = activeId();
    if (!id.empty()) {
        debugTrace("Remove the active certificate: " + id);
        FileTransaction change(journal);
        for (const std::string& path : filesOf(id))
            change.remove(path);
        // On a full disk, too, a certificate can be revoked.
        change.commitAtAnyRate();
        if (folders.exists(accessor.certPath(id)) || folders.exists(accessor.certKeyPath(id)))
            throw KeywardenDaemonException("The files of the certificate '" + id + "' of service '" + name() +
                                           "' cannot be removed.");
    }
    debugTrace(" Removed certificate files with " + id + "... Done.");
}

std::string Server::getCertInfo(const std::string& path) {
    try {
        return getCertDataString(readCertificateFile(path));
    } catch (...) {
        throw KeywardenDaemonException(
            Failure::current().message("Std exception caught while getting server certificate data: ",
                                       "Unknown exception caught while getting server certificate data."));
    }
}

bool Server::isSelfSignedGeneration() const {
    return configuration.isSelfSignedGeneration();
}

bool Server::isCASignedGeneration() const {
    return configuration.isCASignedGeneration();
}

bool Server::isCertificateSelfSigned() const {
    return certificateInfo && certificateInfo->isSelfSigned;
}

bool Server::isCertificateCASigned() const {
    return certificateInfo && !certificateInfo->isSelfSigned;
}

}  // namespace keywarden
