#include "config/InternalCertificatesAccessor.h"

#include <cstddef>
#include <stdexcept>

#include "config/DaemonConfiguration.h"
#include "config/ServiceConfiguration.h"
#include "support/Debug.h"
#include "support/RegularFile.h"

namespace keywarden {

namespace {

// An id is ten bytes.
constexpr std::size_t kLargestActiveFile = 4096;

}  // namespace

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

// A disk that fails for a moment is asked once more: an empty answer means a store without a certificate.
std::string InternalCertificatesAccessor::getActive() const {
    for (int attempt = 0; attempt < 2; ++attempt) {
        try {
            const std::string content = readRegularFile(activeFile_, kLargestActiveFile);
            return content.substr(0, content.find('\n'));
        } catch (const std::runtime_error& error) {
            debugTrace(error.what());
        }
    }
    return {};
}

}  // namespace keywarden
