#include "ctl/check/RequestProbe.h"

#include <utility>

#include "cnf/CCSRData.h"
#include "cnf/CnfConfiguration.h"
#include "x509/Description.h"
#include "x509/EVP_PKEY_T.h"
#include "x509/Inspection.h"
#include "x509/KeyTypes.h"
#include "x509/Signing.h"
#include "x509/X509_REQ_T.h"

namespace keywardctl::check {

namespace {

constexpr const char* kStandIn = "name";

/// The settings as the daemon holds them, without a file that could be anything.
class Settings : public keywarden::CnfConfiguration {
  public:
    explicit Settings(const std::map<std::string, std::string>& values) { loadConfiguration(values); }

    [[nodiscard]] std::string getCN() const override { return commonName_.empty() ? kStandIn : commonName_; }
};

// Whether an extension is taken does not depend on the kind of key; this kind is made at once.
const keywarden::EVP_PKEY_T& probeKey() {
    static const keywarden::EVP_PKEY_T key = [] {
        kwdata::CCertificateData data;
        data.public_key_type = keywarden::KEY_PRIME256V1;
        return keywarden::EVP_PKEY_T(data);
    }();
    return key;
}

kwdata::CCSRData requested(const kwdata::CCertificateData& data) {
    kwdata::CCSRData described;
    static_cast<void>(keywarden::createCCSRData(keywarden::X509_REQ_T(data, probeKey()), described));
    return described;
}

}  // namespace

RequestProbe::RequestProbe(const std::map<std::string, std::string>& settings)
    : data_(Settings(settings).getCCertificateData()) {}

std::vector<std::string> RequestProbe::refusedExtensions() const {
    std::vector<std::string> refused;
    for (const kwdata::v3Ext& extension : data_.v3Extention) {
        kwdata::CCertificateData single = data_;
        single.v3Extention = {extension};
        if (!extension.short_name.empty() && requested(single).v3Extention.empty())
            refused.push_back(extension.obj_id);
    }
    return refused;
}

std::vector<std::string> RequestProbe::refusedSubject() const {
    const kwdata::CDistinguishedName& asked = data_.subject;
    const kwdata::CDistinguishedName got = requested(data_).subject;
    const std::string division = got.divisions.empty() ? std::string() : got.divisions.front();
    const std::vector<std::pair<std::string, bool>> parts = {
        {"C", !asked.country.empty() && got.country.empty()},
        {"ST", !asked.state.empty() && got.state.empty()},
        {"L", !asked.city.empty() && got.city.empty()},
        {"O", !asked.company.empty() && got.company.empty()},
        {"OU", !asked.divisions.front().empty() && division.empty()},
        {"CN", !asked.common_name.empty() && got.common_name.empty()},
        {"emailAddress", !asked.email_address.empty() && got.email_address.empty()},
    };
    std::vector<std::string> refused;
    for (const auto& [key, isRefused] : parts) {
        if (isRefused)
            refused.push_back(key);
    }
    return refused;
}

bool RequestProbe::makesAuthority() const {
    return keywarden::isCertificateAuthority(keywarden::createX509SelfSignedCertificate(data_, probeKey()));
}

}  // namespace keywardctl::check
