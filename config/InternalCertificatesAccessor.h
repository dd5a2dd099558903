#pragma once

#include <string>

namespace keywarden {

class ServiceConfiguration;

/// Every path of a service's server store. Plain concatenation: nothing is checked, nothing is made.
class InternalCertificatesAccessor {
  public:
    InternalCertificatesAccessor(const std::string& serviceId, const std::string& storeName);
    InternalCertificatesAccessor(const ServiceConfiguration& configuration, const std::string& storeName);

    [[nodiscard]] std::string certificateDirectoryPath() const;
    [[nodiscard]] std::string cachedDirectoryPath() const;
    [[nodiscard]] std::string tmpDirectoryPath() const;
    [[nodiscard]] std::string activePath() const;
    [[nodiscard]] std::string csrPath() const;
    [[nodiscard]] std::string csrNetworkPath() const;
    [[nodiscard]] std::string csrKeyPath() const;
    [[nodiscard]] std::string certPath(const std::string& id) const;
    [[nodiscard]] std::string certKeyPath(const std::string& id) const;
    [[nodiscard]] std::string certNetworkPath(const std::string& id) const;
    [[nodiscard]] std::string certInfoPath(const std::string& id) const;
    [[nodiscard]] std::string certDetailsPath(const std::string& id) const;
    [[nodiscard]] std::string certOverwrittenDataPath(const std::string& id) const;

    /// The first line of the active file; empty when it cannot be read.
    [[nodiscard]] std::string getActive() const;

  private:
    std::string certificateDirectory_;
    std::string cachedDirectory_;
    std::string activeFile_;
    std::string temporaryDirectory_;
    std::string requestDirectory_;
};

}  // namespace keywarden
