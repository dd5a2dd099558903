#pragma once

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>

namespace keywarden {

/// Frees an OpenSSL object with its own function; carries no state.
template <auto Free>
struct OpenSslFree {
    template <typename T>
    void operator()(T* object) const {
        Free(object);
    }
};

using X509Ptr = std::unique_ptr<X509, OpenSslFree<X509_free>>;
using X509ReqPtr = std::unique_ptr<X509_REQ, OpenSslFree<X509_REQ_free>>;
using X509NamePtr = std::unique_ptr<X509_NAME, OpenSslFree<X509_NAME_free>>;
using X509ExtensionPtr = std::unique_ptr<X509_EXTENSION, OpenSslFree<X509_EXTENSION_free>>;
using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, OpenSslFree<EVP_PKEY_free>>;
using BioPtr = std::unique_ptr<BIO, OpenSslFree<BIO_free_all>>;
using BignumPtr = std::unique_ptr<BIGNUM, OpenSslFree<BN_free>>;
using Asn1IntegerPtr = std::unique_ptr<ASN1_INTEGER, OpenSslFree<ASN1_INTEGER_free>>;
using Asn1TimePtr = std::unique_ptr<ASN1_TIME, OpenSslFree<ASN1_TIME_free>>;
using GeneralNamesPtr = std::unique_ptr<GENERAL_NAMES, OpenSslFree<GENERAL_NAMES_free>>;

struct FreeExtensionStack {
    void operator()(STACK_OF(X509_EXTENSION) * stack) const {
        sk_X509_EXTENSION_pop_free(stack, X509_EXTENSION_free);
    }
};
/// Owns the stack and the extensions in it.
using OwnedExtensions = std::unique_ptr<STACK_OF(X509_EXTENSION), FreeExtensionStack>;

}  // namespace keywarden
