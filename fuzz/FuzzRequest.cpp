// A signing request (PEM, and DER wrapped in it): described, and signed by a CA.
#include <stdexcept>

#include "fuzz/Fuzz.h"
#include "fuzz/Pem.h"
#include "x509/Description.h"
#include "x509/EVP_PKEY_T.h"
#include "x509/KeyTypes.h"
#include "x509/Signing.h"
#include "x509/Validation.h"

using namespace keywarden;

namespace {

struct Authority {
    EVP_PKEY_T key;
    X509_T certificate;

    Authority() {
        kwdata::CCertificateData settings;
        settings.public_key_type = KEY_PRIME256V1;
        settings.subject.common_name = "Authority";
        settings.issuer = settings.subject;
        settings.validNotBeforeDate = 1700000000;
        settings.validNotAfterDate = 1800000000;
        key = EVP_PKEY_T(settings);
        certificate = createX509SelfSignedCertificate(settings, key);
    }
};

void sign(const X509_REQ_T& request) {
    static const Authority authority;
    try {
        const X509_T signedOne =
            signX509WithCA(authority.certificate, authority.key, request, 1700000000, 1750000000, 50000000);
        fuzz::require(validateCsrAndCrt(request, signedOne), "what was signed belongs to the request");
    } catch (const std::runtime_error&) {
        // a request that cannot be signed
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        const X509_REQ_T request(fuzz::fileWith(fuzz::asPem(data, size, "CERTIFICATE REQUEST")));
        sign(request);
        (void)getCsrDataString(request);
    } catch (const std::runtime_error&) {
        // not a request
    }
    return 0;
}
