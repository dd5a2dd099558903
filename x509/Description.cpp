#include "x509/Description.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>

#include <stdexcept>

#include "support/Log.h"
#include "x509/CryptoFailure.h"
#include "x509/EVP_PKEY_T.h"
#include "x509/ExtensionText.h"
#include "x509/MemoryWatch.h"
#include "x509/OpenSslPtr.h"
#include "x509/SubjectName.h"
#include "x509/Validation.h"

namespace keywarden {

namespace {

bool failed(const char* text) {
    Log::write(SeverityError, text);
    ERR_clear_error();
    return false;
}

std::string noText(const char* text) {
    Log::write(SeverityError, text);
    return std::string();
}

// Two digits a byte, most significant first.
std::string _asn1int(const ASN1_INTEGER* number) {
    static const char digits[] = "0123456789ABCDEF";
    const unsigned char* bytes = ASN1_STRING_get0_data(number);
    std::string text;
    for (int index = 0; index < ASN1_STRING_length(number); ++index) {
        text += digits[bytes[index] >> 4U];
        text += digits[bytes[index] & 0x0FU];
    }
    return text;
}

// The names are first in the list of extensions, joined; the extension they come from follows among the
// others.
void addAlternativeNames(const STACK_OF(X509_EXTENSION) * extensions, std::vector<kwdata::v3Ext>& out) {
    const std::string names = subject_alt_names(extensions);
    if (names.empty()) {
        Log::write(SeverityNotice, "no subject alternate names found");
    } else {
        out.emplace_back("subjectAltName", names, names, "");
    }
}

struct KeyFailureTexts {
    const char* type;
    const char* size;
};

template <typename Object>
bool describeKey(const Object& object, const KeyFailureTexts& texts, std::string& type, int& bits) {
    try {
        const EVP_PKEY_T key(object);
        type = getPublicKeyType(key);
        bits = EVP_PKEY_get_bits(key.get());
    } catch (const std::runtime_error&) {
        type.clear();  // a kind of key that libcrypto does not know
    }
    if (type.empty()) {
        return failed(texts.type);
    }
    return bits != 0 || failed(texts.size);
}

// Nothing to describe is no failure, although the line is logged.
bool describeExtensions(const STACK_OF(X509_EXTENSION) * extensions, std::vector<kwdata::v3Ext>& out,
                        const char* failureText) {
    const bool none = sk_X509_EXTENSION_num(extensions) == 0;
    return writeV3Extensions(extensions, out) || none || failed(failureText);
}

}  // namespace

std::string get_cert_serial(const X509_T& certificate) {
    if (certificate.get() == nullptr) {
        return noText("x509 object is invalid");
    }
    const ASN1_INTEGER* serial = X509_get0_serialNumber(certificate.get());
    return serial == nullptr ? std::string() : _asn1int(serial);
}

std::string get_signature_algo_type(const X509_T& cert, const X509_REQ_T& csr) {
    int nid = NID_undef;
    if (cert.get() != nullptr) {
        nid = X509_get_signature_nid(cert.get());
    } else if (csr.get() != nullptr) {
        nid = X509_REQ_get_signature_nid(csr.get());
    } else {
        return noText("X509 and X509_REQ objects invalid");
    }
    if (nid == NID_undef) {
        return noText("unable to find specified signature algorithm name");
    }
    const char* name = OBJ_nid2ln(nid);
    return name != nullptr ? name : noText("error retrieving certificate/CSR signature algorithm type");
}

bool createCCertData(const X509_T& cert, kwdata::CCertificateData& data) {
    if (cert.get() == nullptr) {
        return failed("Invalid x509 object pointer");
    }
    data.issuer = describedName(X509_get_issuer_name(cert.get()));
    data.subject = describedName(X509_get_subject_name(cert.get()));
    data.validNotBeforeDate = asn1datetime_isodatetime(X509_get0_notBefore(cert.get()));
    data.validNotAfterDate = asn1datetime_isodatetime(X509_get0_notAfter(cert.get()));
    // A certificate without extensions has no list at all.
    const OwnedExtensions noExtensions(sk_X509_EXTENSION_new_null());
    const STACK_OF(X509_EXTENSION)* own = X509_get0_extensions(cert.get());
    const STACK_OF(X509_EXTENSION)* extensions = own != nullptr ? own : noExtensions.get();
    addAlternativeNames(extensions, data.v3Extention);
    data.cert_serial = get_cert_serial(cert);
    if (data.cert_serial.empty()) {
        return failed("error retrieving certificate serial number");
    }
    data.signatureAlgorithm_type = get_signature_algo_type(cert, X509_REQ_T());
    if (data.signatureAlgorithm_type.empty()) {
        return failed("error retrieving certificate signature algorithm type");
    }
    const KeyFailureTexts keyTexts = {"error retrieving certificate public key type",
                                      "error retrieving certificate public key size bits"};
    if (!describeKey(cert, keyTexts, data.public_key_type, data.public_key_size_bits)) {
        return false;
    }
    data.cert_version = static_cast<int>(X509_get_version(cert.get())) + 1;
    return describeExtensions(extensions, data.v3Extention, "failed to write v3 extensions");
}

bool createCCSRData(const X509_REQ_T& csr, kwdata::CCSRData& data) {
    if (csr.get() == nullptr) {
        return failed("Invalid x509 object pointer");
    }
    data.subject = describedName(X509_REQ_get_subject_name(csr.get()));
    const MemoryWatch watch;
    const OwnedExtensions extensions(X509_REQ_get_extensions(csr.get()));
    watch.throwIfRefused();
    if (!extensions) {
        return failed("failed to read v3Extensions from csr object.");
    }
    addAlternativeNames(extensions.get(), data.v3Extention);
    data.signatureAlgorithm_type = get_signature_algo_type(X509_T(), csr);
    if (data.signatureAlgorithm_type.empty()) {
        return failed("error retrieving CSR signature algorithm type");
    }
    const KeyFailureTexts keyTexts = {"error retrieving CSR public key type",
                                      "error retrieving CSR public key size bits"};
    if (!describeKey(csr, keyTexts, data.public_key_type, data.public_key_size_bits)) {
        return false;
    }
    data.csr_version = static_cast<int>(X509_REQ_get_version(csr.get())) + 1;
    return describeExtensions(extensions.get(), data.v3Extention,
                              "failed to write v3 extensions to CCSRData object");
}

std::string getCertDataString(const X509_T& certificate) {
    kwdata::CCertificateData data;
    if (!createCCertData(certificate, data)) {
        throwCryptoFailure("error creating ccertdata");
    }
    std::string text;
    data.to(text);
    return text;
}

std::string getCsrDataString(const X509_REQ_T& request) {
    kwdata::CCSRData data;
    if (!createCCSRData(request, data)) {
        throwCryptoFailure("error creating ccsrdata");
    }
    std::string text;
    data.to(text);
    return text;
}

}  // namespace keywarden
