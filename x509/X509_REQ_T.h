#pragma once

#include <memory>
#include <string>

#include "cnf/CCertificateData.h"
#include "x509/EVP_PKEY_T.h"

// OpenSSL's own name for it is a typedef that <openssl/types.h> lacks.
struct X509_req_st;
using X509_REQ = X509_req_st;

namespace keywarden {

/// Owns one certificate signing request (PKCS#10, RFC 2986). Moved, never copied. That there was no memory to
/// read or make one whole is a std::bad_alloc.
class X509_REQ_T {
  public:
    X509_REQ_T() = default;  ///< no request
    /// The PEM request of a file. Throws std::runtime_error.
    explicit X509_REQ_T(const std::string& path);
    /// The PEM request of a text. Throws std::runtime_error.
    [[nodiscard]] static X509_REQ_T fromPem(const std::string& pem);
    /// Builds a request from the settings and signs it with the key. Throws std::runtime_error.
    X509_REQ_T(const kwdata::CCertificateData& settings, const EVP_PKEY_T& key);

    [[nodiscard]] X509_REQ* get() const { return request_.get(); }

  private:
    struct Free {
        void operator()(X509_REQ* request) const;
    };
    std::unique_ptr<X509_REQ, Free> request_;
};

/// PEM text of the request. Throws std::runtime_error.
[[nodiscard]] std::string x509CsrToPem(const X509_REQ_T& request);

}  // namespace keywarden
