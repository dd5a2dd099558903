#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cnf/CDistinguishedName.h"
#include "cnf/V3Ext.h"

namespace kwdata {

/// The settings a certificate or request is made from, and the description one is read back into.
struct CCertificateData {
    static const std::string DEFAULT_CERT_SERIAL;
    static const std::string DEFAULT_SIGN_ALGO_TYPE;
    static const std::string CERTIFICATE_v3_EXT_BASIC_CONSTRAINTS;
    static const std::string CERTIFICATE_v3_EXT_KEY_USAGE;
    static const std::string CERTIFICATE_v3_EXT_SUB_KEY_IDENTIFIER;
    static const std::string CERTIFICATE_v3_EXT_NETSCAPE_CERT_TYPE;
    static const std::string CERTIFICATE_v3_EXT_NETSCAPE_COMMENT;

    CDistinguishedName subject;
    CDistinguishedName issuer;
    int public_key_size_bits = 2048;
    std::string cert_serial;
    int validity_days = 365;
    int cert_version = 3;  ///< counted from 1; the encoding counts from 0
    std::vector<v3Ext> v3Extention;
    std::string signatureAlgorithm_type;
    std::string public_key_type;
    std::uint64_t validNotBeforeDate = 0;  ///< seconds since the epoch
    std::uint64_t validNotAfterDate = 0;   ///< seconds since the epoch
    std::string public_key;

    /// cert_serial and signatureAlgorithm_type get their defaults; the names stay empty.
    CCertificateData();

    void to(std::string& text) const;
    static CCertificateData from(const std::string& text);
};

}  // namespace kwdata
