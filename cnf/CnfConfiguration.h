#pragma once

#include <map>
#include <string>

#include "cnf/CCertificateData.h"

namespace keywarden {

class ConfigKey;

/// The settings a service's keys, requests and certificates are made from: the base of both their sources.
class CnfConfiguration {
  public:
    virtual ~CnfConfiguration() = default;

    /// The value under `key`, or the empty string.
    static std::string isConfigPresent(const std::map<std::string, std::string>& map, const std::string& key);

    [[nodiscard]] kwdata::CCertificateData getCCertificateData() const;

    /// The common name to use.
    [[nodiscard]] virtual std::string getCN() const;

  protected:
    CnfConfiguration() = default;
    CnfConfiguration(const CnfConfiguration&) = default;
    CnfConfiguration& operator=(const CnfConfiguration&) = default;

    /// As isConfigPresent(), for a key that there is.
    static std::string valueOf(const std::map<std::string, std::string>& map, const ConfigKey& key);
    void loadConfiguration(const std::map<std::string, std::string>& map);

    std::string sourceName_;
    std::string keyType_;
    std::string bits_;
    std::string digest_;
    std::string commonName_;
    std::string subjectKeyIdentifier_;
    std::string basicConstraints_;
    std::string keyUsage_;
    std::string extendedKeyUsage_;
    std::string country_;
    std::string state_;
    std::string city_;
    std::string company_;
    std::string division_;
    std::string emailAddress_;
};

}  // namespace keywarden
