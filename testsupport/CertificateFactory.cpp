#include "testsupport/CertificateFactory.h"

#include <openssl/pem.h>
#include <openssl/rand.h>

#include <stdexcept>

#include "x509/OpenSslPtr.h"

namespace testsupport {

using keywarden::Asn1TimePtr;
using keywarden::BioPtr;
using keywarden::EvpPkeyPtr;
using keywarden::OwnedExtensions;
using keywarden::X509ExtensionPtr;
using keywarden::X509Ptr;
using keywarden::X509ReqPtr;

namespace {

constexpr std::int64_t kSecondsADay = 86400;
constexpr std::int64_t kStartOf2001 = 978307200;
constexpr std::int64_t kStartOf2002 = 1009843200;

void require(bool condition, const char* what) {
    if (!condition) {
        throw std::runtime_error(std::string("certificate factory: ") + what);
    }
}

EvpPkeyPtr newKey(const std::string& type) {
    EVP_PKEY* key = nullptr;
    if (type == "EC") {
        key = EVP_EC_gen("P-256");
    } else if (type == "RSA") {
        key = EVP_RSA_gen(2048U);
    } else if (type == "ED448") {
        key = EVP_PKEY_Q_keygen(nullptr, nullptr, "ED448");
    }
    require(key != nullptr, "no key of this type");
    return EvpPkeyPtr(key);
}

BioPtr reader(const std::string& text) {
    BioPtr bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    require(bio != nullptr, "no memory");
    return bio;
}

X509Ptr readCertificate(const std::string& pem) {
    X509Ptr certificate(PEM_read_bio_X509(reader(pem).get(), nullptr, nullptr, nullptr));
    require(certificate != nullptr, "not a certificate");
    return certificate;
}

EvpPkeyPtr readKey(const std::string& pem) {
    EvpPkeyPtr key(PEM_read_bio_PrivateKey(reader(pem).get(), nullptr, nullptr, nullptr));
    require(key != nullptr, "not a private key");
    return key;
}

template <typename Write>
std::string written(Write write) {
    const BioPtr bio(BIO_new(BIO_s_mem()));
    require(bio != nullptr && write(bio.get()) == 1, "cannot write PEM");
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return {data, static_cast<std::size_t>(size)};
}

std::string certificatePem(X509* certificate) {
    return written([certificate](BIO* bio) { return PEM_write_bio_X509(bio, certificate); });
}

std::string keyPem(EVP_PKEY* key) {
    return written([key](BIO* bio) {
        return PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
    });
}

void addEntry(X509_NAME* name, const char* field, const std::string& value) {
    if (value.empty()) {
        return;
    }
    const auto* bytes = reinterpret_cast<const unsigned char*>(value.data());
    const int size = static_cast<int>(value.size());
    require(X509_NAME_add_entry_by_txt(name, field, MBSTRING_UTF8, bytes, size, -1, 0) == 1,
            "bad name entry");
}

void fillName(X509_NAME* name, const CertificateOptions& options) {
    addEntry(name, "O", options.organization);
    addEntry(name, "CN", options.commonName);
    addEntry(name, "emailAddress", options.emailAddress);
}

// Days and seconds apart: seconds since the epoch do not fit a 32-bit time_t for long.
Asn1TimePtr moment(std::int64_t seconds) {
    const std::int64_t day = (seconds >= 0 ? seconds : seconds - (kSecondsADay - 1)) / kSecondsADay;
    Asn1TimePtr time(
        ASN1_TIME_adj(nullptr, 0, static_cast<int>(day), static_cast<long>(seconds - day * kSecondsADay)));
    require(time != nullptr, "bad date");
    return time;
}

void setPeriod(X509* certificate, const CertificateOptions& options) {
    const Asn1TimePtr from = moment(options.expired ? kStartOf2001 : options.notBefore);
    const Asn1TimePtr until = moment(options.expired ? kStartOf2002 : options.notAfter);
    require(X509_set1_notBefore(certificate, from.get()) == 1 &&
                X509_set1_notAfter(certificate, until.get()) == 1,
            "bad period");
}

void setRandomSerial(X509* certificate) {
    unsigned char bytes[8];
    require(RAND_bytes(bytes, sizeof bytes) == 1, "no random bytes");
    bytes[0] &= 0x7F;
    const keywarden::BignumPtr number(BN_bin2bn(bytes, sizeof bytes, nullptr));
    require(BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate)) != nullptr, "bad serial");
}

X509ExtensionPtr extension(int nid, const std::string& value) {
    X509V3_CTX context = {};
    X509V3_set_ctx_nodb(&context);
    X509ExtensionPtr made(X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str()));
    require(made != nullptr, "bad extension");
    return made;
}

std::string alternativeNames(const CertificateOptions& options) {
    std::string value;
    for (const std::string& name : options.dns) {
        value += (value.empty() ? "DNS:" : ",DNS:") + name;
    }
    for (const std::string& address : options.ips) {
        value += (value.empty() ? "IP:" : ",IP:") + address;
    }
    return value;
}

void addExtensions(X509* certificate, const CertificateOptions& options) {
    if (options.ca) {
        X509_add_ext(certificate, extension(NID_basic_constraints, "critical,CA:TRUE").get(), -1);
        X509_add_ext(certificate, extension(NID_key_usage, "critical,keyCertSign,cRLSign").get(), -1);
    }
    const std::string names = alternativeNames(options);
    if (!names.empty()) {
        X509_add_ext(certificate, extension(NID_subject_alt_name, names).get(), -1);
    }
}

void sign(X509* certificate, EVP_PKEY* key) {
    const EVP_MD* digest = EVP_PKEY_get_base_id(key) == EVP_PKEY_ED448 ? nullptr : EVP_sha256();
    require(X509_sign(certificate, key, digest) > 0, "cannot sign");
}

X509Ptr unsignedCertificate(const CertificateOptions& options, EVP_PKEY* key) {
    X509Ptr certificate(X509_new());
    require(certificate != nullptr && X509_set_version(certificate.get(), X509_VERSION_3) == 1,
            "no certificate");
    setRandomSerial(certificate.get());
    setPeriod(certificate.get(), options);
    require(X509_set_pubkey(certificate.get(), key) == 1, "bad key");
    addExtensions(certificate.get(), options);
    return certificate;
}

}  // namespace

IssuedCertificate makeCertificate(const CertificateOptions& options, const IssuedCertificate* issuer) {
    const EvpPkeyPtr key = newKey(options.keyType);
    const X509Ptr certificate = unsignedCertificate(options, key.get());
    X509_NAME* subject = X509_get_subject_name(certificate.get());
    fillName(subject, options);
    if (issuer == nullptr) {
        X509_set_issuer_name(certificate.get(), subject);
        sign(certificate.get(), key.get());
    } else {
        X509_set_issuer_name(certificate.get(),
                             X509_get_subject_name(readCertificate(issuer->certificatePem).get()));
        sign(certificate.get(), readKey(issuer->keyPem).get());
    }
    return {certificatePem(certificate.get()), keyPem(key.get())};
}

MadeRequest makeRequest(const CertificateOptions& options) {
    const EvpPkeyPtr key = newKey(options.keyType);
    const X509ReqPtr request(X509_REQ_new());
    require(request != nullptr, "no request");
    fillName(X509_REQ_get_subject_name(request.get()), options);
    const std::string names = alternativeNames(options);
    if (!names.empty()) {
        const OwnedExtensions extensions(sk_X509_EXTENSION_new_null());
        sk_X509_EXTENSION_push(extensions.get(), extension(NID_subject_alt_name, names).release());
        X509_REQ_add_extensions(request.get(), extensions.get());
    }
    require(X509_REQ_set_pubkey(request.get(), key.get()) == 1, "bad key");
    require(X509_REQ_sign(request.get(), key.get(), EVP_sha256()) > 0, "cannot sign");
    return {written([&request](BIO* bio) { return PEM_write_bio_X509_REQ(bio, request.get()); }),
            keyPem(key.get())};
}

std::string certifyRequest(const std::string& requestPem, const IssuedCertificate& issuer,
                           const CertificateOptions& options) {
    const X509ReqPtr request(PEM_read_bio_X509_REQ(reader(requestPem).get(), nullptr, nullptr, nullptr));
    require(request != nullptr, "not a request");
    const X509Ptr certificate = unsignedCertificate(options, X509_REQ_get0_pubkey(request.get()));
    X509_set_subject_name(certificate.get(), X509_REQ_get_subject_name(request.get()));
    X509_set_issuer_name(certificate.get(),
                         X509_get_subject_name(readCertificate(issuer.certificatePem).get()));
    sign(certificate.get(), readKey(issuer.keyPem).get());
    return certificatePem(certificate.get());
}

}  // namespace testsupport
