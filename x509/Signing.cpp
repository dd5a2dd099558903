#include "x509/Signing.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include "support/Debug.h"
#include "x509/CryptoFailure.h"
#include "x509/KeyTypes.h"
#include "x509/MemoryWatch.h"
#include "x509/OpenSslPtr.h"
#include "x509/SubjectName.h"

namespace keywarden {

namespace {

constexpr int kSerialBits = 64;

std::string lineOf(const kwdata::CDistinguishedName& name) {
    std::string text;
    name.to(text);
    return text;
}

void setPeriod(X509* certificate, const kwdata::CCertificateData& data) {
    if (!setCertificateTime(X509_getm_notBefore(certificate), data.validNotBeforeDate) ||
        !setCertificateTime(X509_getm_notAfter(certificate), data.validNotAfterDate)) {
        throwCryptoFailure("Failed to set certificate time.");
    }
}

// A settings' issuer that is another one gets no issuer name here: a certificate of an issuer is made by
// signX509WithCA.
void setOwnIssuer(X509* certificate, const kwdata::CCertificateData& data) {
    const std::string issuer = lineOf(data.issuer);
    if (issuer.empty() || issuer == lineOf(data.subject)) {
        debugTrace("Setting subject as issuer of x509 certificate.");
        X509_set_issuer_name(certificate, X509_get_subject_name(certificate));
    }
}

void addExtension(X509_T& certificate, const kwdata::v3Ext& extension) {
    const int nid = extensionNid(extension.obj_id);
    if (nid == NID_undef || nid == NID_ext_key_usage) {
        std::string text;
        extension.to(text);
        debugTrace("Unsupported extension found: " + text);
    } else if (!add_cert_ext(certificate, nid, extension.short_name.c_str())) {
        reportRejectedExtension(nid, extension.short_name);
    }
}

bool sign(const X509_T& certificate, const EVP_PKEY_T& key) {
    return key.get() != nullptr && X509_sign(certificate.get(), key.get(), signatureDigest(key.get())) > 0;
}

bool setIssuer(const X509_T& certificate, const X509_T& ca) {
    return ca.get() != nullptr &&
           X509_set_issuer_name(certificate.get(), X509_get_subject_name(ca.get())) == 1;
}

bool copySubject(const X509_T& certificate, const X509_REQ_T& csr) {
    if (csr.get() == nullptr) {
        return false;
    }
    const X509NamePtr subject(X509_NAME_dup(X509_REQ_get_subject_name(csr.get())));
    return subject && X509_set_subject_name(certificate.get(), subject.get()) == 1;
}

bool copyPublicKey(const X509_T& certificate, const X509_REQ_T& csr) {
    const EvpPkeyPtr key(X509_REQ_get_pubkey(csr.get()));
    return key && X509_set_pubkey(certificate.get(), key.get()) == 1;
}

void requireStep(bool done, const char* failureText) {
    if (!done) {
        throwCryptoFailure(failureText);
    }
}

}  // namespace

bool certificate_set_serial(X509_T& cert) {
    const Asn1IntegerPtr serial(ASN1_INTEGER_new());
    if (!serial) {
        debugTrace("Unable to allocate memory for an ASN1 object");
        ERR_clear_error();
        return false;
    }
    const BignumPtr number(BN_new());
    if (!number) {
        debugTrace("Unable to allocate memory for an BIGNUM object");
        ERR_clear_error();
        return false;
    }
    if (BN_rand(number.get(), kSerialBits, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ANY) != 1 ||
        BN_to_ASN1_INTEGER(number.get(), serial.get()) == nullptr ||
        X509_set_serialNumber(cert.get(), serial.get()) != 1) {
        debugTrace("Unable to create or set the serial number");
        ERR_clear_error();
        return false;
    }
    return true;
}

X509_T createX509SelfSignedCertificate(const kwdata::CCertificateData& data, const EVP_PKEY_T& key) {
    X509_T certificate(X509_new());
    requireStep(certificate.get() != nullptr, "Failed to create new x509 certificate.");
    debugTrace("Setting various properties of x509 certificate.");
    const MemoryWatch versionWatch;
    X509_set_version(certificate.get(), data.cert_version - 1L);
    versionWatch.throwIfRefused();
    certificate_set_serial(certificate);
    const MemoryWatch watch;  // not of the serial, without which the certificate is made
    setPeriod(certificate.get(), data);
    // Before the extensions: the key identifier is made of it.
    const bool hasKey = X509_set_pubkey(certificate.get(), key.get()) == 1;
    addSubjectEntries(X509_get_subject_name(certificate.get()), data.subject);
    setOwnIssuer(certificate.get(), data);
    watch.throwIfRefused();
    debugTrace("Setting v3 extensions for x509 certificate.");
    for (const kwdata::v3Ext& extension : data.v3Extention) {
        addExtension(certificate, extension);
    }
    debugTrace("Signing the x509 certificate with the private key.");
    requireStep(hasKey && sign(certificate, key), "Failed signing of the x509 certificate.");
    return certificate;
}

X509_T signX509WithCA(const X509_T& caCert, const EVP_PKEY_T& caKey, const X509_REQ_T& csr,
                      const unsigned long long& validFrom, const unsigned long long& validTo,
                      const unsigned long long& validSeconds) {
    X509_T certificate(X509_new());
    requireStep(certificate.get() != nullptr, "Create crt. Failed to allocate new X509 object..");
    requireStep(X509_set_version(certificate.get(), X509_VERSION_3) == 1,
                "Create crt.Failed to set version..");
    certificate_set_serial(certificate);
    requireStep(setIssuer(certificate, caCert), "Create crt.Failed to set issuer name loadCA..");
    requireStep(set_cert_time(validFrom, validTo, validSeconds, certificate, caCert),
                "Failed to set certificate time.");
    requireStep(copySubject(certificate, csr), "Create crt.Failed to set subject name..");
    requireStep(copyPublicKey(certificate, csr), "Create crt.Failed  to set pubkey..");  // two blanks
    requireStep(pki_ossl_copy_extensions(csr, certificate), "Unable to copy CSR extensions on certificate");
    requireStep(sign(certificate, caKey), "Create crt.Failed to sign csr..");
    debugTrace("Generated CA signed certificate successfully!");
    return certificate;
}

}  // namespace keywarden
