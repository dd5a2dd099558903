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
      accessor(serviceConfiguration, "server") {
    Log::open();
    updateFileSystem();
    removeCsr();
    if (isCertificatePresent() && loadCertificateInfo()) {
        Log::write(SeverityInfo, "Server certificate found for service: " + name());
        checkNetworkInfo();
    } else {
        Log::write(SeverityInfo, "Server certificate not found for service: " + name());
        createCertificate();
    }
    if (isCertificatePresent())
        checkTimeValidity();
}

// The active file keeps a revoked certificate's id, and files can be lost: the service starts all the same.
bool Server::loadCertificateInfo() {
    const std::string id = accessor.getActive();
    try {
        certificateInfo = std::make_shared<CertificateInfo>(accessor.certInfoPath(id));
        return true;
    } catch (...) {
        Log::write(SeverityError,
                   "The certificate '" + id + "' of service '" + name() +
                       "' cannot be loaded, going on without it: " + Failure::current().text());
        return false;
    }
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
    FileWriter writer;
    stageInfo(writer, certificate, id);
    writer.commit();
    writeDetails(certificate, id);
    const std::string overwrittenData = accessor.certOverwrittenDataPath(id);
    if (!Tools::fileExist(overwrittenData))
        FileWriter::write(overwrittenData, "", managedFile(kOverwrittenDataMode));
    Tools::changeMode(overwrittenData, kOverwrittenDataMode);
    Tools::changeGroup(overwrittenData, configuration.getManagementGroup());
}

void Server::removeCertificate(const std::string& id) {
    for (const std::string& path :
         {accessor.certPath(id), accessor.certKeyPath(id), accessor.certInfoPath(id),
          accessor.certNetworkPath(id), accessor.certDetailsPath(id), accessor.certOverwrittenDataPath(id)})
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
        removeCertificate(id);
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
