#pragma once

#include <string>

namespace keywarden {

class ServiceConfiguration;

/// Every path of a service's CA or trusted-clients store. Plain concatenation: nothing is checked or made.
class ExternalCertificatesAccessor {
  public:
    ExternalCertificatesAccessor(const std::string& serviceId, const std::string& storeName);
    ExternalCertificatesAccessor(const ServiceConfiguration& configuration, const std::string& storeName);

    [[nodiscard]] std::string certificateDirectoryPath() const;
    [[nodiscard]] std::string cachedDirectoryPath() const;
    [[nodiscard]] std::string tmpDirectoryPath() const;
    [[nodiscard]] std::string listPath() const;
    [[nodiscard]] std::string cnMapPath() const;
    [[nodiscard]] std::string certPath(const std::string& id) const;
    [[nodiscard]] std::string certInfoPath(const std::string& id) const;
    [[nodiscard]] std::string certDetailsPath(const std::string& id) const;
    [[nodiscard]] std::string certOverwrittenDataPath(const std::string& id) const;

  private:
    std::string certificateDirectory_;
    std::string cachedDirectory_;
    std::string listFile_;
    std::string temporaryDirectory_;
    std::string cnMapFile_;
};

}  // namespace keywarden
