#pragma once

#include <string>

#include "x509/EVP_PKEY_T.h"
#include "x509/Inspection.h"
#include "x509/X509_T.h"

namespace keywardctl::check {

/// A certificate file that was read; without a certificate, `problem` says why there is none.
struct StoredCertificate {
    keywarden::X509_T certificate;
    std::string problem;
    bool refused = false;  ///< the caller may not read it
};

struct StoredKey {
    keywarden::EVP_PKEY_T key;
    std::string problem;
    bool refused = false;
};

/// Whatever the path names: neither blocks nor reads without end.
[[nodiscard]] StoredCertificate readStoredCertificate(const std::string& path);
[[nodiscard]] StoredKey readStoredKey(const std::string& path);

/// The server certificate of a service; none for a service without one.
[[nodiscard]] StoredCertificate activeCertificateOf(const std::string& serviceId);

/// The id in a service's active file, also when it is no id; empty without one.
[[nodiscard]] std::string activeIdOf(const std::string& serviceId);

}  // namespace keywardctl::check
