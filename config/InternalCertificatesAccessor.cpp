#include "config/InternalCertificatesAccessor.h"

#include <fstream>

#include "config/ServiceConfiguration.h"
#include "daemon/DaemonConfiguration.h"

namespace keywarden {

InternalCertificatesAccessor::InternalCertificatesAccessor(const std::string& serviceId,
                                                           const std::string& storeName)
    : certificateDirectory_(DaemonConfiguration::getKeywardDirectory() + "/" + serviceId + "/" + storeName),
      cachedDirectory_(certificateDirectory_ + "/.cacheddata"),
      activeFile_(cachedDirectory_ + "/active.txt"),
      temporaryDirectory_(DaemonConfiguration::getNamePipesDirectory() + "/" + serviceId + "/" + storeName),
      requestDirectory_(temporaryDirectory_) {}

InternalCertificatesAccessor::InternalCertificatesAccessor(const ServiceConfiguration& configuration,
                                                           const std::string& storeName)
    : InternalCertificatesAccessor(configuration.getServiceId(), storeName) {}

std::string InternalCertificatesAccessor::certificateDirectoryPath() const {
    return certificateDirectory_ + "/";
}

std::string InternalCertificatesAccessor::cachedDirectoryPath() const {
    return cachedDirectory_;
}

std::string InternalCertificatesAccessor::tmpDirectoryPath() const {
    return temporaryDirectory_;
}

std::string InternalCertificatesAccessor::activePath() const {
    return activeFile_;
}

// A pending request outlives a reboot, its key and its network identity do not.
std::string InternalCertificatesAccessor::csrPath() const {
    return cachedDirectory_ + "/csr.csr";
}

std::string InternalCertificatesAccessor::csrNetworkPath() const {
    return requestDirectory_ + "/csr.network";
}

std::string InternalCertificatesAccessor::csrKeyPath() const {
    return requestDirectory_ + "/csr.key";
}

std::string InternalCertificatesAccessor::certPath(const std::string& id) const {
    return certificateDirectory_ + "/" + id;
}

std::string InternalCertificatesAccessor::certKeyPath(const std::string& id) const {
    return certificateDirectory_ + "/" + id + ".key";
}

std::string InternalCertificatesAccessor::certNetworkPath(const std::string& id) const {
    return cachedDirectory_ + "/" + id + ".network";
}

std::string InternalCertificatesAccessor::certInfoPath(const std::string& id) const {
    return temporaryDirectory_ + "/" + id + ".info";
}

std::string InternalCertificatesAccessor::certDetailsPath(const std::string& id) const {
    return temporaryDirectory_ + "/" + id + ".detail";
}

std::string InternalCertificatesAccessor::certOverwrittenDataPath(const std::string& id) const {
    return cachedDirectory_ + "/" + id + ".overwrite";
}

std::string InternalCertificatesAccessor::getActive() const {
    std::ifstream file(activeFile_);
    std::string id;
    std::getline(file, id);
    return id;
}

}  // namespace keywarden
