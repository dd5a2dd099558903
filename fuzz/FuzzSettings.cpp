// Request settings, as a file or as a hook prints them, to a signed request and a self-signed certificate.
#include <stdexcept>

#include "cnf/CnfFileConfiguration.h"
#include "cnf/CnfHookConfiguration.h"
#include "fuzz/Fuzz.h"
#include "x509/Description.h"
#include "x509/EVP_PKEY_T.h"
#include "x509/KeyTypes.h"
#include "x509/Signing.h"
#include "x509/Validation.h"

using namespace keywarden;

namespace {

// Making keys is the slow part, and the settings' key type is read by nothing but a comparison.
const EVP_PKEY_T& theKey() {
    static const EVP_PKEY_T key = [] {
        kwdata::CCertificateData settings;
        settings.public_key_type = KEY_PRIME256V1;
        return EVP_PKEY_T(settings);
    }();
    return key;
}

void makeRequest(const kwdata::CCertificateData& settings) {
    try {
        const X509_REQ_T request(settings, theKey());
        fuzz::require(!x509CsrToPem(request).empty(), "a request can be written");
        (void)getCsrDataString(request);
    } catch (const std::runtime_error&) {
        // the settings cannot be encoded
    }
}

void makeCertificate(kwdata::CCertificateData settings) {
    settings.issuer = settings.subject;
    settings.validNotBeforeDate = 1700000000;
    settings.validNotAfterDate = 1800000000;
    try {
        const X509_T certificate = createX509SelfSignedCertificate(settings, theKey());
        fuzz::require(X509_T::fromPem(certificate.toPem()) == certificate,
                      "a certificate that was made reads back");
        (void)getCertDataString(certificate);
    } catch (const std::runtime_error&) {
        // as above
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = fuzz::textOf(data, size);
    fuzz::setProgramOutput(text);
    const CnfFileConfiguration file(fuzz::fileWith(text));
    const CnfHookConfiguration hook("/hook", "web", true);
    makeRequest(file.getCCertificateData());
    makeCertificate(hook.getCCertificateData());
    return 0;
}
