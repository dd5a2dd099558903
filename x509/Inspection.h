#pragma once

#include <openssl/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "x509/EVP_PKEY_T.h"
#include "x509/X509_T.h"

namespace keywarden {

// Each of these throws std::bad_alloc when there was no memory to find out.

/// The certificate's subject-name hash (X509_subject_name_hash), 8 lower-case hexadecimal digits.
[[nodiscard]] std::string subjectNameHash(const X509_T& certificate);

/// The first entry of the kind (NID) in a name, as UTF-8; empty when there is none.
[[nodiscard]] std::string x509GetData(const X509_NAME* name, int nid);
[[nodiscard]] std::string subjectCommonName(const X509_T& certificate);
[[nodiscard]] std::string issuerCommonName(const X509_T& certificate);

/// X509_check_ca() is not 0.
[[nodiscard]] bool isCertificateAuthority(const X509_T& certificate);
/// Issuer, subject and signature say so (X509_self_signed with the signature verified).
[[nodiscard]] bool isSelfSignedCertificate(const X509_T& certificate);

/// Seconds since the epoch.
[[nodiscard]] std::uint64_t notBeforeOf(const X509_T& certificate);
[[nodiscard]] std::uint64_t notAfterOf(const X509_T& certificate);

struct AlternativeNames {
    std::vector<std::string> ips;  ///< IPv6 in canonical form
    std::vector<std::string> hostnames;
};
[[nodiscard]] AlternativeNames alternativeNamesOf(const X509_T& certificate);

/// OpenSSL's own text dump (X509_print). Throws std::runtime_error.
[[nodiscard]] std::string printedText(const X509_T& certificate);

/// Same DER encoding.
[[nodiscard]] bool sameEncoding(const X509_T& one, const X509_T& other);

/// Whether the private key belongs to the certificate.
[[nodiscard]] bool keyMatchesCertificate(const EVP_PKEY_T& key, const X509_T& certificate);

/// Prepares libcrypto so that exit() while other threads use it is safe and want of memory is noticed and
/// does not last (MemoryWatch.h, Rehearsal.h). Once, before any other call of libcrypto. False, after an ERR
/// line, when it could not be used; that may last as long as the process. With `throwing`, want of memory is
/// a std::bad_alloc after that line: what libcrypto has learnt then makes good keys look bad.
bool initialiseCrypto(bool throwing = false);

}  // namespace keywarden
