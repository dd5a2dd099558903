#include "ctl/check/RequestProbe.h"

#include <utility>

#include "cnf/CCSRData.h"
#include "cnf/CnfConfiguration.h"
#include "ctl/check/KeySearch.h"
#include "x509/Description.h"
#include "x509/EVP_PKEY_T.h"
#include "x509/Inspection.h"
#include "x509/KeyTypes.h"
#include "x509/Signing.h"
#include "x509/X509_REQ_T.h"

namespace keywardctl::check {

using keywarden::ConfigKey;
using keywarden::SettingsKey;

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

std::vector<ConfigKey> RequestProbe::refusedExtensions() const {
    std::vector<ConfigKey> refused;
    for (const kwdata::v3Ext& extension : data_.v3Extention) {
        kwdata::CCertificateData single = data_;
        single.v3Extention = {extension};
        // It is named like its key.
        const KeyRow* const key = findKey(keywarden::settingsKeys(), extension.obj_id);
        if (key != nullptr && !extension.short_name.empty() && requested(single).v3Extention.empty())
            refused.emplace_back(*key);
    }
    return refused;
}

std::vector<ConfigKey> RequestProbe::refusedSubject() const {
    const kwdata::CDistinguishedName& asked = data_.subject;
    const kwdata::CDistinguishedName got = requested(data_).subject;
    const std::string division = got.divisions.empty() ? std::string() : got.divisions.front();
    const std::vector<std::pair<SettingsKey, bool>> parts = {
        {SettingsKey::Country, !asked.country.empty() && got.country.empty()},
        {SettingsKey::State, !asked.state.empty() && got.state.empty()},
        {SettingsKey::City, !asked.city.empty() && got.city.empty()},
        {SettingsKey::Company, !asked.company.empty() && got.company.empty()},
        {SettingsKey::Division, !asked.divisions.front().empty() && division.empty()},
        {SettingsKey::CommonName, !asked.common_name.empty() && got.common_name.empty()},
        {SettingsKey::EmailAddress, !asked.email_address.empty() && got.email_address.empty()},
    };
    std::vector<ConfigKey> refused;
    for (const auto& [key, isRefused] : parts) {
        if (isRefused)
            refused.emplace_back(key);
    }
    return refused;
}

bool RequestProbe::makesAuthority() const {
    return keywarden::isCertificateAuthority(keywarden::createX509SelfSignedCertificate(data_, probeKey()));
}

}  // namespace keywardctl::check
