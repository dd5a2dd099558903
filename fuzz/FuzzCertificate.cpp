// Certificate text (PEM, and DER wrapped in it) through description, records and comparison.
#include <cxxtools/jsonformatter.h>

#include <stdexcept>

#include "fuzz/Fuzz.h"
#include "fuzz/Pem.h"
#include "stores/CertificateInfo.h"
#include "stores/CertificateInfoStorage.h"
#include "x509/Description.h"
#include "x509/EVP_PKEY_T.h"
#include "x509/Inspection.h"
#include "x509/Validation.h"

using namespace keywarden;

namespace {

// One that can be parsed can be stored: its record reads back.
void recordReadsBack(const X509_T& certificate) {
    const std::string record = CertificateInfoStorage(certificate).toJson();
    const CertificateInfo info(fuzz::fileWith(record));
    fuzz::require(info.isCA == isCertificateAuthority(certificate), "the record tells a CA");
    fuzz::require(info.validUntil == notAfterOf(certificate), "the record tells the end");
}

void inspect(const X509_T& certificate) {
    (void)subjectNameHash(certificate);
    (void)subjectCommonName(certificate);
    (void)issuerCommonName(certificate);
    (void)isSelfSignedCertificate(certificate);
    (void)alternativeNamesOf(certificate);
    (void)subject_one_line(certificate);
    (void)issuer_one_line(certificate);
    (void)get_cert_serial(certificate);
    fuzz::require(sameEncoding(certificate, certificate), "a certificate is the same as itself");
}

void describe(const X509_T& certificate) {
    try {
        (void)getPublicKeyType(EVP_PKEY_T(certificate));
    } catch (const std::runtime_error&) {
        // a key of an unknown kind
    }
    try {
        (void)getCertDataString(certificate);
        (void)printedText(certificate);
    } catch (const std::runtime_error&) {
        // said so
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = fuzz::asPem(data, size, "CERTIFICATE");
    (void)isCertificateValid(fuzz::fileWith(text));
    try {
        const X509_T certificate = X509_T::fromPem(text);
        inspect(certificate);
        describe(certificate);
        recordReadsBack(certificate);
    } catch (const std::runtime_error&) {
        // not a certificate
    }
    return 0;
}
