#pragma once

#include <openssl/safestack.h>
#include <openssl/types.h>
#include <openssl/x509.h>

#include <string>

#include "x509/X509_REQ_T.h"
#include "x509/X509_T.h"

namespace keywarden {

/// The NID that request settings mean by the extension's name; NID_undef for a name they do not know.
[[nodiscard]] int extensionNid(const std::string& name);

/// Builds one extension from its configuration-syntax value (x509v3_config(5)) and pushes it on the stack,
/// which owns it. False, with nothing added, for a value that OpenSSL does not take.
bool add_ext(STACK_OF(X509_EXTENSION) * stack, int nid, const char* value, X509_REQ* req);

/// The same for a certificate, whose public key has to be set before "hash" is built from it. True does not
/// say that the built extension could be added.
bool add_cert_ext(X509_T& cert, int nid, const char* value);

/// Copies the request's extensions that the certificate does not have yet; false when it has none to copy.
bool pki_ossl_copy_extensions(const X509_REQ_T& csr, X509_T& cert);

/// Says which extension is missing from what is made: one bad alternative name loses them all, which its
/// owner has to know; anything else is traced.
void reportRejectedExtension(int nid, const std::string& value);

}  // namespace keywarden
