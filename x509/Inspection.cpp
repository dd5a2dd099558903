#include "x509/Inspection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <array>
#include <charconv>
#include <cstdint>
#include <memory>
#include <new>

#include "support/Failure.h"
#include "support/Log.h"
#include "x509/CryptoFailure.h"
#include "x509/MemoryWatch.h"
#include "x509/OpenSslPtr.h"
#include "x509/Rehearsal.h"
#include "x509/Validation.h"

namespace keywarden {

namespace {

struct FreeBytes {
    void operator()(unsigned char* bytes) const { OPENSSL_free(bytes); }
};
using Bytes = std::unique_ptr<unsigned char, FreeBytes>;

std::string derOf(const X509_T& certificate) {
    const MemoryWatch watch;
    unsigned char* encoded = nullptr;
    const int size = certificate.get() == nullptr ? -1 : i2d_X509(certificate.get(), &encoded);
    const Bytes owned(encoded);
    watch.throwIfRefused();
    if (size < 0) {
        ERR_clear_error();
        return std::string();
    }
    return {reinterpret_cast<const char*>(encoded), static_cast<std::size_t>(size)};
}

// Empty for what is no address of either family.
std::string addressText(const ASN1_OCTET_STRING* address) {
    const int size = ASN1_STRING_length(address);
    if (size != sizeof(in_addr) && size != sizeof(in6_addr)) {
        return std::string();
    }
    std::array<char, INET6_ADDRSTRLEN> text{};
    inet_ntop(size == sizeof(in_addr) ? AF_INET : AF_INET6, ASN1_STRING_get0_data(address), text.data(),
              static_cast<socklen_t>(text.size()));
    return text.data();
}

void addName(const GENERAL_NAME* name, AlternativeNames& names) {
    int kind = 0;
    const void* value = GENERAL_NAME_get0_value(name, &kind);
    if (kind != GEN_DNS && kind != GEN_IPADD)
        return;
    const auto* string = static_cast<const ASN1_STRING*>(value);
    const auto* data = reinterpret_cast<const char*>(ASN1_STRING_get0_data(string));
    if (data == nullptr) {
        Log::write(SeverityError, "ASN1_STRING_get0_data returns NULL");
    } else if (kind == GEN_DNS) {
        names.hostnames.emplace_back(data, static_cast<std::size_t>(ASN1_STRING_length(string)));
    } else {
        const std::string address = addressText(string);
        if (!address.empty()) {
            names.ips.push_back(address);
        }
    }
}

}  // namespace

std::string subjectNameHash(const X509_T& certificate) {
    constexpr std::size_t digits = 8;
    std::array<char, digits> text{};
    const MemoryWatch watch;
    // 32 bits of the hash are in use, whatever the size of a long.
    const auto hash = static_cast<std::uint32_t>(X509_subject_name_hash(certificate.get()));
    watch.throwIfRefused();
    const std::to_chars_result result = std::to_chars(text.begin(), text.end(), hash, 16);
    const auto length = static_cast<std::size_t>(result.ptr - text.begin());
    return std::string(digits - length, '0').append(text.data(), length);
}

std::string x509GetData(const X509_NAME* name, int nid) {
    const MemoryWatch watch;
    const int index = X509_NAME_get_index_by_NID(name, nid, -1);
    if (index < 0) {
        return std::string();
    }
    const ASN1_STRING* value = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, index));
    unsigned char* text = nullptr;
    const int size = ASN1_STRING_to_UTF8(&text, value);
    const Bytes owned(text);
    watch.throwIfRefused();
    if (size < 0) {
        ERR_clear_error();
        return std::string();
    }
    return {reinterpret_cast<const char*>(text), static_cast<std::size_t>(size)};
}

std::string subjectCommonName(const X509_T& certificate) {
    return x509GetData(X509_get_subject_name(certificate.get()), NID_commonName);
}

std::string issuerCommonName(const X509_T& certificate) {
    return x509GetData(X509_get_issuer_name(certificate.get()), NID_commonName);
}

bool isCertificateAuthority(const X509_T& certificate) {
    const MemoryWatch watch;
    const bool authority = X509_check_ca(certificate.get()) != 0;
    watch.throwIfRefused();
    ERR_clear_error();
    return authority;
}

bool isSelfSignedCertificate(const X509_T& certificate) {
    const MemoryWatch watch;
    const bool selfSigned = X509_self_signed(certificate.get(), 1) == 1;
    watch.throwIfRefused();
    ERR_clear_error();
    return selfSigned;
}

std::uint64_t notBeforeOf(const X509_T& certificate) {
    return asn1datetime_isodatetime(X509_get0_notBefore(certificate.get()));
}

std::uint64_t notAfterOf(const X509_T& certificate) {
    return asn1datetime_isodatetime(X509_get0_notAfter(certificate.get()));
}

AlternativeNames alternativeNamesOf(const X509_T& certificate) {
    const MemoryWatch watch;
    AlternativeNames names;
    const GeneralNamesPtr list(static_cast<GENERAL_NAMES*>(
        X509_get_ext_d2i(certificate.get(), NID_subject_alt_name, nullptr, nullptr)));
    watch.throwIfRefused();
    for (int index = 0; list && index < sk_GENERAL_NAME_num(list.get()); ++index) {
        addName(sk_GENERAL_NAME_value(list.get(), index), names);
    }
    ERR_clear_error();
    return names;
}

std::string printedText(const X509_T& certificate) {
    const MemoryWatch watch;
    const BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || certificate.get() == nullptr || X509_print(bio.get(), certificate.get()) != 1) {
        throwCryptoFailure("Failed to print the certificate.");
    }
    watch.throwIfRefused();
    ERR_clear_error();  // left by extensions and keys that are shown as bytes
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return {data, static_cast<std::size_t>(size)};
}

bool sameEncoding(const X509_T& one, const X509_T& other) {
    const std::string encoded = derOf(one);
    return !encoded.empty() && encoded == derOf(other);
}

bool keyMatchesCertificate(const EVP_PKEY_T& key, const X509_T& certificate) {
    const MemoryWatch watch;
    const bool matches = certificate.get() != nullptr && key.get() != nullptr &&
                         X509_check_private_key(certificate.get(), key.get()) == 1;
    watch.throwIfRefused();
    ERR_clear_error();
    return matches;
}

namespace {

void logNotReady() {
    const std::string text = "The cryptographic library is not ready for use";
    Log::write(SeverityError, Failure::current().message(text + ": ", text));
}

}  // namespace

bool initialiseCrypto(bool throwing) {
    MemoryWatch::countRequests();
    try {
        // Nobody prints libcrypto's words for its errors, which would take 50 KiB.
        constexpr std::uint64_t kOptions =
            OPENSSL_INIT_NO_ATEXIT | OPENSSL_INIT_LOAD_CONFIG | OPENSSL_INIT_NO_LOAD_CRYPTO_STRINGS;
        if (OPENSSL_init_crypto(kOptions, nullptr) != 1) {
            throwCryptoFailure("it cannot be initialised.");
        }
        // What it had no memory for it may leave out for good, and still do what is rehearsed.
        const MemoryWatch watch;
        try {
            rehearseCrypto();
        } catch (...) {
            watch.throwIfRefused();
            throw;
        }
        watch.throwIfRefused();
        return true;
    } catch (const std::bad_alloc&) {
        logNotReady();
        if (throwing)
            throw;
    } catch (...) {
        logNotReady();
    }
    return false;
}

}  // namespace keywarden
