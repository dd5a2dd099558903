#pragma once

#include <openssl/types.h>

#include "cnf/CDistinguishedName.h"

namespace keywarden {

/// Appends the entries of a request's or certificate's subject: the e-mail address only when there is one,
/// all others even when they are empty. An entry that libcrypto does not take (too long) is traced and left
/// out.
void addSubjectEntries(X509_NAME* name, const kwdata::CDistinguishedName& subject);

/// A certificate's or request's name as descriptions tell it: what _subject_as_line() writes, but with every
/// value taken from its own entry, since a comma or a plus inside a value looks like one between two. Empty
/// for a name that cannot be written.
[[nodiscard]] kwdata::CDistinguishedName describedName(const X509_NAME* name);

}  // namespace keywarden
