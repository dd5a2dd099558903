#pragma once

#include <openssl/types.h>

#include "cnf/CDistinguishedName.h"

namespace keywarden {

/// Appends the entries of a request's or certificate's subject: the e-mail address only when there is one,
/// all others even when they are empty. An entry that libcrypto does not take (too long) is traced and left
/// out.
void addSubjectEntries(X509_NAME* name, const kwdata::CDistinguishedName& subject);

}  // namespace keywarden
