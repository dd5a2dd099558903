#include "config/ExternalCertificatesAccessor.h"

#include "config/DaemonConfiguration.h"
#include "config/ServiceConfiguration.h"

namespace keywarden {

ExternalCertificatesAccessor::ExternalCertificatesAccessor(const std::string& serviceId,
                                                           const std::string& storeName)
    : certificateDirectory_(DaemonConfiguration::getKeywardDirectory() + "/" + serviceId + "/" + storeName),
      cachedDirectory_(certificateDirectory_ + "/.cacheddata"),
      listFile_(cachedDirectory_ + "/list.txt"),
      temporaryDirectory_(DaemonConfiguration::getNamePipesDirectory() + "/" + serviceId + "/" + storeName),
      cnMapFile_(temporaryDirectory_ + "/id_cn.map") {}

ExternalCertificatesAccessor::ExternalCertificatesAccessor(const ServiceConfiguration& configuration,
                                                           const std::string& storeName)
    : ExternalCertificatesAccessor(configuration.getServiceId(), storeName) {}

std::string ExternalCertificatesAccessor::certificateDirectoryPath() const {
    return certificateDirectory_ + "/";
}

std::string ExternalCertificatesAccessor::cachedDirectoryPath() const {
    return cachedDirectory_;
}

std::string ExternalCertificatesAccessor::tmpDirectoryPath() const {
    return temporaryDirectory_;
}

std::string ExternalCertificatesAccessor::listPath() const {
    return listFile_;
}

std::string ExternalCertificatesAccessor::cnMapPath() const {
    return cnMapFile_;
}

std::string ExternalCertificatesAccessor::certPath(const std::string& id) const {
    return certificateDirectory_ + "/" + id;
}

std::string ExternalCertificatesAccessor::certInfoPath(const std::string& id) const {
    return temporaryDirectory_ + "/" + id + ".info";
}

std::string ExternalCertificatesAccessor::certDetailsPath(const std::string& id) const {
    return temporaryDirectory_ + "/" + id + ".detail";
}

std::string ExternalCertificatesAccessor::certOverwrittenDataPath(const std::string& id) const {
    return cachedDirectory_ + "/" + id + ".overwrite";
}

}  // namespace keywarden
