#pragma once

#include <string>

#include "cnf/CCSRData.h"
#include "cnf/CCertificateData.h"
#include "x509/ExtensionText.h"
#include "x509/X509_REQ_T.h"
#include "x509/X509_T.h"

namespace keywarden {

/// Reads a certificate or request into a description record; false, after a log line, at a failure.
bool createCCertData(const X509_T& cert, kwdata::CCertificateData& data);
bool createCCSRData(const X509_REQ_T& csr, kwdata::CCSRData& data);

/// The description as text. Throws std::runtime_error "error creating ccertdata" (a request's its own).
std::string getCertDataString(const X509_T& certificate);
std::string getCsrDataString(const X509_REQ_T& request);

/// Upper-case hexadecimal, two digits a byte; empty, after an ERR line, for none.
std::string get_cert_serial(const X509_T& certificate);
/// The certificate's when there is one, else the request's; empty, after an ERR line, when it is not known.
std::string get_signature_algo_type(const X509_T& cert, const X509_REQ_T& csr);

}  // namespace keywarden
