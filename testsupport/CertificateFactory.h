#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace testsupport {

/// What a fixture certificate looks like. Times are seconds since the epoch.
struct CertificateOptions {
    std::string commonName = "device";
    std::string organization;             ///< none when empty
    std::string emailAddress;             ///< none when empty
    std::string keyType = "EC";           ///< "EC" (P-256), "RSA" (2048 bits) or "ED448"
    std::int64_t notBefore = 1577836800;  ///< 2020-01-01 00:00:00
    std::int64_t notAfter = 2208988800;   ///< 2040-01-01 00:00:00
    bool expired = false;                 ///< the period is the whole of 2001, whatever the two dates say
    bool ca = false;  ///< basicConstraints CA:TRUE; otherwise there is no basicConstraints
    std::vector<std::string> dns;
    std::vector<std::string> ips;
};

/// A certificate and its private key, both PEM.
struct IssuedCertificate {
    std::string certificatePem;
    std::string keyPem;
};

/// A signing request and its private key, both PEM.
struct MadeRequest {
    std::string requestPem;
    std::string keyPem;
};

/// A certificate as another program would make it: straight from libcrypto, none of the daemon's code. With a
/// new key; signed by the issuer, or by itself without one. Throws std::runtime_error.
IssuedCertificate makeCertificate(const CertificateOptions& options,
                                  const IssuedCertificate* issuer = nullptr);

/// A request with the options' names, key type and alternative names. Throws std::runtime_error.
MadeRequest makeRequest(const CertificateOptions& options);

/// The certificate that an external issuer hands out for a request: the request's subject and key, the
/// options' dates and extensions. Throws std::runtime_error.
std::string certifyRequest(const std::string& requestPem, const IssuedCertificate& issuer,
                           const CertificateOptions& options = CertificateOptions());

}  // namespace testsupport
