#pragma once

#include <string>
#include <vector>

#include "cnf/CDistinguishedName.h"
#include "cnf/V3Ext.h"

namespace kwdata {

/// The description a certificate signing request is read back into.
struct CCSRData {
    CDistinguishedName subject;
    int public_key_size_bits = 2048;
    int csr_version = 1;  ///< counted from 1; the encoding counts from 0
    std::string public_key_type;
    std::string signatureAlgorithm_type;
    std::vector<v3Ext> v3Extention;

    void to(std::string& text) const;
    static CCSRData from(const std::string& text);
};

}  // namespace kwdata
