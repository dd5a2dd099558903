#include "x509/Validation.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <cstdio>

#include "support/Failure.h"
#include "support/Log.h"
#include "x509/MemoryWatch.h"
#include "x509/OpenSslPtr.h"

namespace keywarden {

namespace {

bool refuse(const char* text) {
    Log::write(SeverityError, text);
    ERR_clear_error();
    return false;
}

std::string refusedName(const char* text) {
    Log::write(SeverityError, text);
    return std::string();
}

}  // namespace

bool validateCsrAndCrt(const X509_REQ_T& csr, const X509_T& crt) {
    if (csr.get() == nullptr) {
        return refuse("Invalid input csr object during validating csr and crt file.");
    }
    if (crt.get() == nullptr) {
        return refuse("Invalid input crt object during validating csr and crt file.");
    }
    const MemoryWatch watch;
    const EvpPkeyPtr certificateKey(X509_get_pubkey(crt.get()));
    if (!certificateKey) {
        return refuse("Failed to retrieve the public key from certificate");
    }
    const EvpPkeyPtr requestKey(X509_REQ_get_pubkey(csr.get()));
    if (!requestKey) {
        return refuse("Failed to retrieve the public key from csr.");
    }
    if (EVP_PKEY_get_base_id(certificateKey.get()) != EVP_PKEY_get_base_id(requestKey.get())) {
        return refuse("CSR and certificate key type is not matching.");
    }
    const bool isSameKey = EVP_PKEY_eq(certificateKey.get(), requestKey.get()) == 1;
    watch.throwIfRefused();
    if (!isSameKey) {
        return refuse("CSR and certificate public key is not matching.");
    }
    return true;
}

bool isCertificateValid(const std::string& path) {
    try {
        const X509_T certificate(path);
        return true;
    } catch (...) {
        const Failure failure = Failure::current();
        const std::string text = failure.textOrNothing();
        Log::write(SeverityError,
                   failure.kind() == Failure::Kind::Unknown
                       ? "Unknown exception caught while validating certificate from path: " + path
                       : "Std exception caught while validating the certificate from path: " + path +
                             (text.empty() ? "" : " : " + text));
    }
    return false;
}

std::string correctIPv6Address(const std::string& address) {
    in6_addr binary = {};
    const int parsed = inet_pton(AF_INET6, address.c_str(), &binary);
    if (parsed == 0) {
        Log::write(SeverityError, "IPV6 Address format is not correct.");
    } else if (parsed < 0) {
        Log::write(SeverityError, "Failed to convert IPV6 address to network address.");
        std::perror("inet_pton");
    }
    char text[INET6_ADDRSTRLEN] = "";
    if (inet_ntop(AF_INET6, &binary, text, sizeof text) == nullptr) {
        Log::write(SeverityError, "Failed to convert IPV6 NW address to string.");
        std::perror("inet_ntop");
    }
    return text;
}

std::string _subject_as_line(const X509_NAME* name) {
    if (name == nullptr) {
        return refusedName("Invalid x509 object pointer");
    }
    const MemoryWatch watch;
    const BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio) {
        return refusedName("failed to create bio object");
    }
    const bool isPrinted = X509_NAME_print(bio.get(), name, 0) == 1;
    watch.throwIfRefused();
    if (!isPrinted) {
        ERR_clear_error();  // too long for OpenSSL, above all
        return std::string();
    }
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return size > 0 ? std::string(data, static_cast<std::size_t>(size)) : std::string();
}

std::string subject_one_line(const X509_T& certificate) {
    return _subject_as_line(certificate.get() == nullptr ? nullptr
                                                         : X509_get_subject_name(certificate.get()));
}

std::string issuer_one_line(const X509_T& certificate) {
    return _subject_as_line(certificate.get() == nullptr ? nullptr : X509_get_issuer_name(certificate.get()));
}

}  // namespace keywarden
