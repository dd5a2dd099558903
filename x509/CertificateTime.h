#pragma once

#include <openssl/types.h>

#include "x509/X509_T.h"

namespace keywarden {

/// Seconds since the epoch, or all bits set for a null time. Fractions and zones are not read.
unsigned long long asn1datetime_isodatetime(const ASN1_TIME* time);

/// Sets the moment that lies `secondsSinceEpoch - now` from now, that difference cut to the platform's long.
/// False, with the time unchanged, when its year cannot be encoded (before 1900 or after 9999).
[[nodiscard]] bool setCertificateTime(ASN1_TIME* time, unsigned long long secondsSinceEpoch);

/// Sets the period, cut to the CA's own. A start that is moved to the CA's does not move the end: that stays
/// validSeconds after the start that was asked for. False, after an ERR line, when the period cut to the CA's
/// ends before it starts or cannot be encoded.
bool set_cert_time(const unsigned long long& validFrom, const unsigned long long& validTo,
                   const unsigned long long& validSeconds, X509_T& cert, const X509_T& caCert);

}  // namespace keywarden
