#pragma once

#include <openssl/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "ctl/Json.h"
#include "x509/Inspection.h"
#include "x509/X509_REQ_T.h"
#include "x509/X509_T.h"

namespace keywardctl {

/// What is told about one certificate. Times are seconds since the epoch.
struct CertificateFacts {
    std::string commonName;
    std::string subject;
    std::string issuer;
    std::string serial;       ///< hexadecimal
    std::string key;          ///< "EC 256 bits"
    std::string signature;    ///< the algorithm's name
    std::string fingerprint;  ///< SHA-256 of the DER encoding, lower-case hexadecimal
    std::int64_t notBefore = 0;
    std::int64_t notAfter = 0;
    bool isCA = false;
    bool isSelfSigned = false;
    keywarden::AlternativeNames names;
};

[[nodiscard]] CertificateFacts factsOf(const keywarden::X509_T& certificate);

/// The members of the facts, appended to an object.
void addFacts(Json& json, const CertificateFacts& facts, std::int64_t now);
/// "name: value" lines, the values aligned.
[[nodiscard]] std::string factsText(const CertificateFacts& facts, std::int64_t now);
/// One such line.
[[nodiscard]] std::string factLine(const std::string& name, const std::string& value);

/// What is told about a signing request.
struct RequestFacts {
    std::string subject;
    std::string key;
    keywarden::AlternativeNames names;
};

/// "DNS:a, IP:10.0.0.5"
[[nodiscard]] std::string namesText(const keywarden::AlternativeNames& names);

/// Throws Problem when the file holds no request.
[[nodiscard]] RequestFacts requestFactsOf(const std::string& path);

/// Whether the issuer's name and key made the certificate's signature.
[[nodiscard]] bool isIssuedBy(const keywarden::X509_T& certificate, const keywarden::X509_T& issuer);

}  // namespace keywardctl
