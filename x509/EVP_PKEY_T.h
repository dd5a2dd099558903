#pragma once

#include <openssl/types.h>

#include <memory>
#include <string>

#include "cnf/CCertificateData.h"

namespace keywarden {

class X509_T;
class X509_REQ_T;

/// Owns one key or key pair. Moved, never copied. Every constructor throws std::runtime_error, and
/// std::bad_alloc when there was no memory to read it.
class EVP_PKEY_T {
  public:
    EVP_PKEY_T() = default;  ///< no key
    /// The private key of a PEM file; an encrypted one fails, without a prompt.
    explicit EVP_PKEY_T(const std::string& path);
    /// The same of a text.
    [[nodiscard]] static EVP_PKEY_T fromPem(const std::string& pem);
    explicit EVP_PKEY_T(const X509_T& certificate);  ///< its public key
    explicit EVP_PKEY_T(const X509_REQ_T& request);  ///< its public key
    /// Generates a new pair of the settings' public_key_type (and, for RSA, public_key_size_bits).
    explicit EVP_PKEY_T(const kwdata::CCertificateData& settings);

    [[nodiscard]] EVP_PKEY* get() const { return key_.get(); }

  private:
    struct Free {
        void operator()(EVP_PKEY* key) const;
    };
    std::unique_ptr<EVP_PKEY, Free> key_;
};

/// The private key as unencrypted PEM. Throws std::runtime_error. The caller cleanses the text (Secret.h).
[[nodiscard]] std::string privateKeyToPem(const EVP_PKEY_T& key);

/// The description of its type in KeyTypes.cpp ("rsa", "ecc" ...); empty for any other type and for no key.
[[nodiscard]] std::string getPublicKeyType(const EVP_PKEY_T& key);

}  // namespace keywarden
