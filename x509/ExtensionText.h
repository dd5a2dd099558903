#pragma once

#include <openssl/safestack.h>
#include <openssl/types.h>
#include <openssl/x509.h>

#include <string>
#include <vector>

#include "cnf/V3Ext.h"

namespace keywarden {

/// The alternative names as "DNS.1:a, IP.1:10.0.0.5": numbered labels in byte order (DNS.10 before DNS.2).
/// IPv6 addresses have all eight groups. Empty when there are none, or, after an ERR line, for a null list.
std::string subject_alt_names(const STACK_OF(X509_EXTENSION) * extensions);

/// Appends every extension as OpenSSL prints it, in order; obj_id is its short name or dotted number. One
/// that OpenSSL cannot print is given in hexadecimal. False, after an ERR line, at a failure and for an empty
/// list.
bool writeV3Extensions(const STACK_OF(X509_EXTENSION) * extensions, std::vector<kwdata::v3Ext>& out);

}  // namespace keywarden
