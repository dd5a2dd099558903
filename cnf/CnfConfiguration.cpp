#include "cnf/CnfConfiguration.h"

#include <sstream>

#include "config/ConfigKeys.h"
#include "support/Debug.h"

namespace keywarden {

std::string CnfConfiguration::isConfigPresent(const std::map<std::string, std::string>& map,
                                              const std::string& key) {
    const auto found = map.find(key);
    return found == map.end() ? std::string() : found->second;
}

std::string CnfConfiguration::valueOf(const std::map<std::string, std::string>& map, const ConfigKey& key) {
    return isConfigPresent(map, key.name());
}

void CnfConfiguration::loadConfiguration(const std::map<std::string, std::string>& map) {
    debugTrace("Contents of the configuration:");
    for (const auto& [key, value] : map) {
        debugTrace(std::string("\t'").append(key).append("' : '").append(value).append("'"));
    }
    emailAddress_ = valueOf(map, SettingsKey::EmailAddress);
    keyType_ = valueOf(map, SettingsKey::KeyType);
    bits_ = valueOf(map, SettingsKey::Bits);
    digest_ = valueOf(map, SettingsKey::Digest);
    subjectKeyIdentifier_ = valueOf(map, SettingsKey::SubjectKeyIdentifier);
    basicConstraints_ = valueOf(map, SettingsKey::BasicConstraints);
    keyUsage_ = valueOf(map, SettingsKey::KeyUsage);
    extendedKeyUsage_ = valueOf(map, SettingsKey::ExtendedKeyUsage);
    country_ = valueOf(map, SettingsKey::Country);
    state_ = valueOf(map, SettingsKey::State);
    city_ = valueOf(map, SettingsKey::City);
    company_ = valueOf(map, SettingsKey::Company);
    division_ = valueOf(map, SettingsKey::Division);
    commonName_ = valueOf(map, SettingsKey::CommonName);
}

kwdata::CCertificateData CnfConfiguration::getCCertificateData() const {
    kwdata::CCertificateData data;
    data.subject =
        kwdata::CDistinguishedName(country_, state_, city_, company_, {division_}, getCN(), emailAddress_);
    if (!bits_.empty()) {
        // A text that does not start with a number gives 0, which key generation refuses.
        std::istringstream stream(bits_);
        stream.exceptions(std::ios::badbit);  // no memory is not a missing number
        stream >> data.public_key_size_bits;
    }
    data.v3Extention = {
        {"subjectKeyIdentifier", subjectKeyIdentifier_, subjectKeyIdentifier_, ""},
        {"basicConstraints", basicConstraints_, basicConstraints_, ""},
        {"keyUsage", keyUsage_, keyUsage_, ""},
        {"extendedKeyUsage", extendedKeyUsage_, extendedKeyUsage_, ""},
    };
    data.public_key_type = keyType_;
    data.signatureAlgorithm_type = digest_;
    return data;
}

std::string CnfConfiguration::getCN() const {
    return commonName_;
}

}  // namespace keywarden
