#pragma once

#include <openssl/types.h>

#include <string>

#include "x509/CertificateTime.h"
#include "x509/X509_REQ_T.h"
#include "x509/X509_T.h"

namespace keywarden {

/// Whether the certificate holds the request's public key. Failures are logged at ERR.
bool validateCsrAndCrt(const X509_REQ_T& csr, const X509_T& crt);

/// Whether the file can be read as a certificate; dates are not examined. A failure is logged at ERR.
bool isCertificateValid(const std::string& path);

/// The canonical (compressed, lower-case) text of an IPv6 address; "::", after an ERR line, for anything
/// else.
std::string correctIPv6Address(const std::string& address);

/// The names as X509_NAME_print writes them; empty for one that it cannot write, and, after an ERR line, for
/// none. A slash inside a value has a backslash before it; a comma has none.
std::string _subject_as_line(const X509_NAME* name);
std::string subject_one_line(const X509_T& certificate);
std::string issuer_one_line(const X509_T& certificate);

}  // namespace keywarden
