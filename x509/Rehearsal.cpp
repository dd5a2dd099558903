#include "x509/Rehearsal.h"

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>

#include "support/Debug.h"
#include "x509/Description.h"
#include "x509/Inspection.h"
#include "x509/KeyTypes.h"
#include "x509/Secret.h"
#include "x509/Signing.h"
#include "x509/Validation.h"

namespace keywarden {

namespace {

// 2026-01-01 00:00:00: whatever the clock shows, it can be written into a certificate.
constexpr std::uint64_t kStart = 1767225600;
constexpr std::uint64_t kLength = 60;  // seconds

/// Traces are for what the daemon was asked for.
class NoTraces {
  public:
    NoTraces() { gDebug = false; }
    NoTraces(const NoTraces&) = delete;
    NoTraces& operator=(const NoTraces&) = delete;
    ~NoTraces() { gDebug = before_; }

  private:
    const bool before_ = gDebug;
};

kwdata::CCertificateData rehearsedSettings() {
    kwdata::CCertificateData settings;
    settings.subject.setToDefault();
    settings.public_key_type = KEY_PRIME256V1;
    settings.validNotBeforeDate = kStart;
    settings.validNotAfterDate = kStart + kLength;
    for (const auto& [name, value] : {std::pair(V3EXT_SUBJ_KEY_IDENTIFIER, "hash"),
                                      std::pair(V3EXT_BASIC_CONSTRAINTS, "critical,CA:TRUE"),
                                      std::pair(V3EXT_KEY_USAGE, "critical,keyCertSign"),
                                      std::pair(V3EXT_SUBJ_ALT_NAME, "DNS.1:device,IP.1:10.0.0.1")}) {
        settings.v3Extention.emplace_back(name, value, value, "");
    }
    return settings;
}

void require(bool isTrue) {
    if (!isTrue) {
        throw std::runtime_error("A rehearsed certificate is not what it should be.");
    }
}

}  // namespace

void rehearseCrypto() {
    const NoTraces noTraces;
    const kwdata::CCertificateData settings = rehearsedSettings();
    const EVP_PKEY_T made(settings);
    const Secret keyText(privateKeyToPem(made));
    const EVP_PKEY_T key = EVP_PKEY_T::fromPem(keyText.text());
    const X509_T authority = X509_T::fromPem(createX509SelfSignedCertificate(settings, key).toPem());
    const X509_REQ_T request = X509_REQ_T::fromPem(x509CsrToPem(X509_REQ_T(settings, key)));
    const X509_T certificate = signX509WithCA(authority, key, request, kStart, kStart + kLength, kLength);
    require(isSelfSignedCertificate(authority) && isCertificateAuthority(authority));
    require(keyMatchesCertificate(key, certificate) && validateCsrAndCrt(request, certificate));
    require(!subjectNameHash(certificate).empty() && !alternativeNamesOf(certificate).ips.empty());
    static_cast<void>(getCertDataString(certificate));
    static_cast<void>(getCsrDataString(request));
    static_cast<void>(printedText(certificate));
}

}  // namespace keywarden
