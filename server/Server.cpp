#include "server/Server.h"

#include "server/StoreFiles.h"
#include "support/Common.h"
#include "support/Debug.h"
#include "support/Failure.h"
#include "support/KeywardenDaemonException.h"
#include "support/Log.h"
#include "support/Tools.h"
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
      journal({accessor.certificateDirectoryPath(), accessor.cachedDirectoryPath()}) {
    Log::open();
    recover();
    // Without the file it is not known which certificate was in force, nor then which files are left over.
    const bool isActiveKnown = Tools::fileExist(accessor.activePath());
    updateFileSystem();
    removeCsr();
    const bool isPresent = isCertificatePresent() && loadActiveCertificate();
    if (isActiveKnown && (isPresent || !isCertificatePresent()))
        removeUnfinished(accessor.getActive());
    if (isPresent) {
        Log::write(SeverityInfo, "Server certificate found for service: " + name());
        checkNetworkInfo();
    } else {
        Log::write(SeverityInfo, "Server certificate not found for service: " + name());
        createCertificate();
    }
    if (isCertificatePresent())
        checkTimeValidity();
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

bool Server::isCertificatePresent() const {
    return !accessor.getActive().empty();
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
    if (!Tools::fileExist(accessor.activePath()))
        FileWriter::write(accessor.activePath(), "", managedFile());
    Tools::changeGroup(accessor.activePath(), configuration.getManagementGroup());
    Tools::changeMode(accessor.activePath(), 0644);
    const std::string id = accessor.getActive();
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
    for (const std::string& folder :
         {accessor.certificateDirectoryPath(), accessor.cachedDirectoryPath(), accessor.tmpDirectoryPath()}) {
        Tools::createDirectory(folder, kFolderMode);
        Tools::changeGroup(folder, configuration.getManagementGroup());
    }
}

void Server::updateCertificateFiles(const std::string& id) {
    debugTrace("Check certificate " + id);
    const X509_T certificate(accessor.certPath(id));
    Tools::changeMode(accessor.certPath(id), 0644);
    Tools::changeGroup(accessor.certPath(id), configuration.getManagementGroup());
    Tools::changeMode(accessor.certKeyPath(id), 0640);
    Tools::changeGroup(accessor.certKeyPath(id), configuration.getKeyGroup());
    FileTransaction change(journal);
    stageInfo(change, certificate, id);
    change.commit();
    writeDetails(certificate, id);
    const std::string overwrittenData = accessor.certOverwrittenDataPath(id);
    if (!Tools::fileExist(overwrittenData))
        FileWriter::write(overwrittenData, "", managedFile(kOverwrittenDataMode));
    Tools::changeMode(overwrittenData, kOverwrittenDataMode);
    Tools::changeGroup(overwrittenData, configuration.getManagementGroup());
}

std::vector<std::string> Server::filesOf(const std::string& id) const {
    return {accessor.certPath(id),        accessor.certKeyPath(id),     accessor.certInfoPath(id),
            accessor.certNetworkPath(id), accessor.certDetailsPath(id), accessor.certOverwrittenDataPath(id)};
}

void Server::removeCertificate(const std::string& id) {
    for (const std::string& path : filesOf(id))
        Common::removeFile(path);
}

void Server::removeCsr() {
    for (const std::string& path : {accessor.csrPath(), accessor.csrNetworkPath(), accessor.csrKeyPath()})
        Common::removeFile(path);
}

void Server::revokeCrt() {
    debugTrace(" Revoke the certificate...");
    const std::string id = accessor.getActive();
    if (!id.empty()) {
        debugTrace("Remove the active certificate: " + id);
        FileTransaction change(journal);
        for (const std::string& path : filesOf(id))
            change.remove(path);
        // On a full disk, too, a certificate can be revoked.
        change.commitAtAnyRate();
        if (Tools::fileExist(accessor.certPath(id)) || Tools::fileExist(accessor.certKeyPath(id)))
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
