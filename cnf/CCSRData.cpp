#include "cnf/CCSRData.h"

#include "cnf/RecordText.h"

namespace kwdata {

namespace {

const std::vector<std::string> kKeys = {
    "subject_name", "public_key_size_bits", "csr_version", "public_key_type", "signatureAlgorithm_type",
};

void assign(CCSRData& data, const std::string& key, const std::string& value) {
    if (key == "subject_name") {
        data.subject = CDistinguishedName::from(value);
    } else if (key == "public_key_size_bits") {
        data.public_key_size_bits = numberOr(value, data.public_key_size_bits);
    } else if (key == "csr_version") {
        data.csr_version = numberOr(value, data.csr_version);
    } else if (key == "public_key_type") {
        data.public_key_type = value;
    } else if (key == "signatureAlgorithm_type") {
        data.signatureAlgorithm_type = value;
    } else {
        data.v3Extention.push_back(v3Ext::from(value));
    }
}

}  // namespace

void CCSRData::to(std::string& text) const {
    std::string subjectLine;
    subject.to(subjectLine);
    text.clear();
    appendLine(text, "subject_name", subjectLine);
    appendLine(text, "public_key_size_bits", std::to_string(public_key_size_bits));
    appendLine(text, "csr_version", std::to_string(csr_version));
    appendLine(text, "public_key_type", public_key_type);
    appendLine(text, "signatureAlgorithm_type", signatureAlgorithm_type);
    appendExtensions(text, v3Extention);
}

CCSRData CCSRData::from(const std::string& text) {
    CCSRData data;
    for (const auto& [key, value] : splitRecord(text, kKeys)) {
        assign(data, key, value);
    }
    return data;
}

}  // namespace kwdata
