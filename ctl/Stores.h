#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "config/InternalCertificatesAccessor.h"
#include "x509/X509_T.h"

namespace keywardctl {

/// A service's own certificate. The private key is never touched.
struct ActiveCertificate {
    std::string id;
    std::string path;
    std::string pem;
    keywarden::X509_T certificate;
    std::int64_t installedAt = 0;  ///< seconds since the epoch
};

/// Nothing when the service has none (yet, or any more). Throws Problem when it cannot be read.
[[nodiscard]] std::optional<ActiveCertificate> activeCertificateOf(const std::string& service);

[[nodiscard]] keywarden::InternalCertificatesAccessor serverStoreOf(const std::string& service);

/// The pending request's file; whether there is one. Throws Problem when that cannot be seen.
[[nodiscard]] bool isRequestPending(const std::string& service);

/// The ids in a "ca" or "client" store, ascending. Throws Problem when the list cannot be read; a store that
/// the daemon has not made yet is empty.
[[nodiscard]] std::vector<std::string> storedIds(const std::string& service, const std::string& store);

/// A certificate of such a store as its file holds it. Throws Problem for an id that is not in the store.
[[nodiscard]] std::string storedPem(const std::string& service, const std::string& store,
                                    const std::string& id);

/// Throws Problem, which names the file, unless the text starts with a certificate.
[[nodiscard]] keywarden::X509_T certificateIn(const std::string& pem, const std::string& path);

}  // namespace keywardctl
