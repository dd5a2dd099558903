#include "cnf/CnfConfiguration.h"

#include <sstream>

#include "support/Debug.h"

namespace keywarden {

std::string CnfConfiguration::isConfigPresent(const std::map<std::string, std::string>& map,
                                              const std::string& key) {
    const auto found = map.find(key);
    return found == map.end() ? std::string() : found->second;
}

void CnfConfiguration::loadConfiguration(const std::map<std::string, std::string>& map) {
    debugTrace("Contents of the configuration:");
    for (const auto& [key, value] : map) {
        debugTrace(std::string("\t'").append(key).append("' : '").append(value).append("'"));
    }
    emailAddress_ = isConfigPresent(map, "emailAddress");
    keyType_ = isConfigPresent(map, "CONFIG_KEY");
    bits_ = isConfigPresent(map, "default_bits");
    digest_ = isConfigPresent(map, "default_md");
    subjectKeyIdentifier_ = isConfigPresent(map, "subjectKeyIdentifier");
    basicConstraints_ = isConfigPresent(map, "basicConstraints");
    keyUsage_ = isConfigPresent(map, "keyUsage");
    extendedKeyUsage_ = isConfigPresent(map, "extendedKeyUsage");
    country_ = isConfigPresent(map, "C");
    state_ = isConfigPresent(map, "ST");
    city_ = isConfigPresent(map, "L");
    company_ = isConfigPresent(map, "O");
    division_ = isConfigPresent(map, "OU");
    commonName_ = isConfigPresent(map, "CN");
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
