#include "cnf/CCertificateData.h"

#include <sstream>

#include "cnf/RecordText.h"

namespace kwdata {

const std::string CCertificateData::DEFAULT_CERT_SERIAL = "2";
const std::string CCertificateData::DEFAULT_SIGN_ALGO_TYPE = "RSA";
const std::string CCertificateData::CERTIFICATE_v3_EXT_BASIC_CONSTRAINTS = "critical,CA:TRUE";
// OpenSSL writes "cRLSign" and takes no other spelling: an extension of this value is left out.
const std::string CCertificateData::CERTIFICATE_v3_EXT_KEY_USAGE = "critical,keyCertSign,CRLSign";
const std::string CCertificateData::CERTIFICATE_v3_EXT_SUB_KEY_IDENTIFIER = "hash";
const std::string CCertificateData::CERTIFICATE_v3_EXT_NETSCAPE_CERT_TYPE = "sslCA";
const std::string CCertificateData::CERTIFICATE_v3_EXT_NETSCAPE_COMMENT = "Self Signed Certificate";

namespace {

const std::vector<std::string> kKeys = {
    "public_key_size_bits",
    "cert_serial",
    "validity_days",
    "cert_version",
    "signatureAlgorithm_type",
    "public_key_type",
    "validNotBeforeDate",
    "validNotAfterDate",
    "public_key",
    "subject_name",
    "issuer_name",
};

std::string lineOf(const CDistinguishedName& name) {
    std::string text;
    name.to(text);
    return text;
}

// Extracted from a stream: on a 32-bit device a long would not hold the number.
std::uint64_t dateOr(const std::string& text, std::uint64_t fallback) {
    std::istringstream stream(text);
    stream.exceptions(std::ios::badbit);  // no memory is not a missing date
    std::uint64_t seconds = 0;
    return stream >> seconds ? seconds : fallback;
}

void assign(CCertificateData& data, const std::string& key, const std::string& value) {
    if (key == "public_key_size_bits") {
        data.public_key_size_bits = numberOr(value, data.public_key_size_bits);
    } else if (key == "cert_serial") {
        data.cert_serial = value;
    } else if (key == "validity_days") {
        data.validity_days = numberOr(value, data.validity_days);
    } else if (key == "cert_version") {
        data.cert_version = numberOr(value, data.cert_version);
    } else if (key == "signatureAlgorithm_type") {
        data.signatureAlgorithm_type = value;
    } else if (key == "public_key_type") {
        data.public_key_type = value;
    } else if (key == "validNotBeforeDate") {
        data.validNotBeforeDate = dateOr(value, data.validNotBeforeDate);
    } else if (key == "validNotAfterDate") {
        data.validNotAfterDate = dateOr(value, data.validNotAfterDate);
    } else if (key == "public_key") {
        data.public_key = value;
    } else if (key == "subject_name") {
        data.subject = CDistinguishedName::from(value);
    } else if (key == "issuer_name") {
        data.issuer = CDistinguishedName::from(value);
    } else {
        data.v3Extention.push_back(v3Ext::from(value));
    }
}

}  // namespace

CCertificateData::CCertificateData()
    : cert_serial(DEFAULT_CERT_SERIAL), signatureAlgorithm_type(DEFAULT_SIGN_ALGO_TYPE) {}

void CCertificateData::to(std::string& text) const {
    text.clear();
    appendLine(text, "public_key_size_bits", std::to_string(public_key_size_bits));
    appendLine(text, "cert_serial", cert_serial);
    appendLine(text, "validity_days", std::to_string(validity_days));
    appendLine(text, "cert_version", std::to_string(cert_version));
    appendLine(text, "signatureAlgorithm_type", signatureAlgorithm_type);
    appendLine(text, "public_key_type", public_key_type);
    appendLine(text, "validNotBeforeDate", std::to_string(validNotBeforeDate));
    appendLine(text, "validNotAfterDate", std::to_string(validNotAfterDate));
    appendLine(text, "public_key", public_key);
    appendLine(text, "subject_name", lineOf(subject));
    appendLine(text, "issuer_name", lineOf(issuer));
    appendExtensions(text, v3Extention);
}

CCertificateData CCertificateData::from(const std::string& text) {
    CCertificateData data;
    for (const auto& [key, value] : splitRecord(text, kKeys)) {
        assign(data, key, value);
    }
    return data;
}

}  // namespace kwdata
