#pragma once

#include "cnf/CCertificateData.h"
#include "x509/CertificateTime.h"
#include "x509/EVP_PKEY_T.h"
#include "x509/Extensions.h"
#include "x509/X509_REQ_T.h"
#include "x509/X509_T.h"

namespace keywarden {

// The key that signs decides about the digest (KeyTypes.h): SHA-256, unless its type signs without one.

/// A certificate of the settings' subject, dates and extensions for the key, signed with the key.
/// Without an issuer name when the settings name an issuer other than the subject. Throws std::runtime_error,
/// and std::bad_alloc rather than leave out what there was no memory for, the serial excepted.
[[nodiscard]] X509_T createX509SelfSignedCertificate(const kwdata::CCertificateData& data,
                                                     const EVP_PKEY_T& key);

/// A version-3 certificate for the request, signed by the CA. validFrom and validTo are seconds
/// since the epoch, validSeconds is a length; the period is cut to the CA's own. That the CA's key belongs to
/// its certificate is not checked. Throws std::runtime_error.
[[nodiscard]] X509_T signX509WithCA(const X509_T& caCert, const EVP_PKEY_T& caKey, const X509_REQ_T& csr,
                                    const unsigned long long& validFrom, const unsigned long long& validTo,
                                    const unsigned long long& validSeconds);

/// A random serial of exactly 64 bits.
bool certificate_set_serial(X509_T& cert);

}  // namespace keywarden
