#include <gtest/gtest.h>

#include "cnf/CCSRData.h"
#include "cnf/CCertificateData.h"
#include "cnf/V3Ext.h"

namespace {

using kwdata::CCertificateData;
using kwdata::CCSRData;
using kwdata::v3Ext;

template <typename Record>
std::string textOf(const Record& record) {
    std::string text = "overwritten";
    record.to(text);
    return text;
}

void expectSame(const v3Ext& one, const v3Ext& other) {
    EXPECT_EQ(one.obj_id, other.obj_id);
    EXPECT_EQ(one.short_name, other.short_name);
    EXPECT_EQ(one.long_name, other.long_name);
    EXPECT_EQ(one.comment, other.comment);
}

TEST(V3Ext, TextFormIsOneLineOfFourFields) {
    EXPECT_EQ(textOf(v3Ext("keyUsage", "critical", "long", "why")),
              "obj_id keyUsage|short_name critical|long_name long|comment why\n");
    EXPECT_EQ(textOf(v3Ext()), "obj_id |short_name |long_name |comment \n");
}

TEST(V3Ext, TextFormIsReadBack) {
    const v3Ext full("keyUsage", "a|b, c", "long\nvalue", "why");
    expectSame(v3Ext::from(textOf(full)), full);
    expectSame(v3Ext::from(textOf(v3Ext())), v3Ext());
}

TEST(V3Ext, TextWithoutFieldsGivesAnEmptyRecord) {
    expectSame(v3Ext::from(""), v3Ext());
    expectSame(v3Ext::from("junk"), v3Ext());
    expectSame(v3Ext::from("obj_id only"), v3Ext("only", "", "", ""));
}

CCertificateData certificateRecord() {
    CCertificateData data;
    data.subject = {"FR", "Isere", "Ville", "Firm, Inc.", {"one", "two"}, "host", "a@b"};
    data.issuer = {"FR", "", "", "Issuer", {}, "ca", ""};
    data.public_key_size_bits = 256;
    data.cert_serial = "0A01";
    data.validity_days = 30;
    data.cert_version = 1;
    data.signatureAlgorithm_type = "ecdsa-with-SHA256";
    data.public_key_type = "ecc";
    data.validNotBeforeDate = 1577836800;
    data.validNotAfterDate = 5000000000;  // more than 32 bits
    data.public_key = "key";
    data.v3Extention = {
        {"subjectAltName", "DNS.1:a, IP.1:10.0.0.5", "DNS.1:a, IP.1:10.0.0.5", ""},
        {"authorityKeyIdentifier", "keyid:01\nDirName:/CN=ca", "keyid:01\nDirName:/CN=ca", ""}};
    return data;
}

const char* const kCertificateText =
    "public_key_size_bits 256\n"
    "cert_serial 0A01\n"
    "validity_days 30\n"
    "cert_version 1\n"
    "signatureAlgorithm_type ecdsa-with-SHA256\n"
    "public_key_type ecc\n"
    "validNotBeforeDate 1577836800\n"
    "validNotAfterDate 5000000000\n"
    "public_key key\n"
    "subject_name C=FR, ST=Isere, L=Ville, O=Firm, Inc., OU=one, OU=two, CN=host, email=a@b\n"
    "issuer_name C=FR, O=Issuer, CN=ca\n"
    "v3Extention0 obj_id subjectAltName|short_name DNS.1:a, IP.1:10.0.0.5|long_name DNS.1:a, "
    "IP.1:10.0.0.5|comment \n"
    "v3Extention1 obj_id authorityKeyIdentifier|short_name keyid:01\nDirName:/CN=ca|long_name "
    "keyid:01\nDirName:/CN=ca|comment \n";

TEST(CertificateData, DefaultsAreTheStatedOnes) {
    const CCertificateData data;
    EXPECT_EQ(data.public_key_size_bits, 2048);
    EXPECT_EQ(data.cert_serial, "2");
    EXPECT_EQ(data.validity_days, 365);
    EXPECT_EQ(data.cert_version, 3);
    EXPECT_EQ(data.signatureAlgorithm_type, "RSA");
    EXPECT_EQ(data.validNotBeforeDate, 0U);
    EXPECT_EQ(data.validNotAfterDate, 0U);
    EXPECT_EQ(data.public_key_type, "");
    EXPECT_EQ(data.public_key, "");
    EXPECT_TRUE(data.v3Extention.empty());
    EXPECT_EQ(data.subject.common_name, "");
    EXPECT_TRUE(data.subject.divisions.empty());
    EXPECT_EQ(data.issuer.common_name, "");
}

TEST(CertificateData, ConstantsAreTheStatedOnes) {
    EXPECT_EQ(CCertificateData::DEFAULT_CERT_SERIAL, "2");
    EXPECT_EQ(CCertificateData::DEFAULT_SIGN_ALGO_TYPE, "RSA");
    EXPECT_EQ(CCertificateData::CERTIFICATE_v3_EXT_BASIC_CONSTRAINTS, "critical,CA:TRUE");
    EXPECT_EQ(CCertificateData::CERTIFICATE_v3_EXT_KEY_USAGE, "critical,keyCertSign,CRLSign");
    EXPECT_EQ(CCertificateData::CERTIFICATE_v3_EXT_SUB_KEY_IDENTIFIER, "hash");
    EXPECT_EQ(CCertificateData::CERTIFICATE_v3_EXT_NETSCAPE_CERT_TYPE, "sslCA");
    EXPECT_EQ(CCertificateData::CERTIFICATE_v3_EXT_NETSCAPE_COMMENT, "Self Signed Certificate");
}

TEST(CertificateData, TextFormHasOneLinePerFieldInOrder) {
    EXPECT_EQ(textOf(certificateRecord()), kCertificateText);
}

TEST(CertificateData, AnEmptyRecordKeepsTheBlankAfterEveryKey) {
    EXPECT_EQ(textOf(CCertificateData()),
              "public_key_size_bits 2048\n"
              "cert_serial 2\n"
              "validity_days 365\n"
              "cert_version 3\n"
              "signatureAlgorithm_type RSA\n"
              "public_key_type \n"
              "validNotBeforeDate 0\n"
              "validNotAfterDate 0\n"
              "public_key \n"
              "subject_name \n"
              "issuer_name \n");
}

TEST(CertificateData, TextFormIsReadBack) {
    EXPECT_EQ(textOf(CCertificateData::from(kCertificateText)), kCertificateText);
    EXPECT_EQ(CCertificateData::from(kCertificateText).v3Extention.size(), 2U);
    EXPECT_EQ(CCertificateData::from(kCertificateText).validNotAfterDate, 5000000000U);
}

TEST(CertificateData, UnreadableNumbersKeepTheirDefaults) {
    const CCertificateData data = CCertificateData::from(
        "public_key_size_bits many\nvalidity_days \ncert_version 99999999999\nvalidNotAfterDate "
        "soon\nunknown 1\n");
    EXPECT_EQ(textOf(data), textOf(CCertificateData()));
}

TEST(CertificateData, TwelveExtensionsAreNumberedInDecimal) {
    CCertificateData data;
    data.v3Extention.resize(12);
    const std::string text = textOf(data);
    EXPECT_NE(text.find("\nv3Extention11 obj_id |"), std::string::npos);
    EXPECT_EQ(CCertificateData::from(text).v3Extention.size(), 12U);
}

CCSRData requestRecord() {
    CCSRData data;
    data.subject = {"FR", "", "", "Firm", {"one"}, "host", ""};
    data.public_key_size_bits = 256;
    data.csr_version = 3;
    data.public_key_type = "ecc";
    data.signatureAlgorithm_type = "ecdsa-with-SHA256";
    data.v3Extention = {{"basicConstraints", "CA:FALSE", "CA:FALSE", ""}};
    return data;
}

const char* const kRequestText =
    "subject_name C=FR, O=Firm, OU=one, CN=host\n"
    "public_key_size_bits 256\n"
    "csr_version 3\n"
    "public_key_type ecc\n"
    "signatureAlgorithm_type ecdsa-with-SHA256\n"
    "v3Extention0 obj_id basicConstraints|short_name CA:FALSE|long_name CA:FALSE|comment \n";

TEST(CsrData, TextFormHasOneLinePerFieldInOrder) {
    EXPECT_EQ(textOf(requestRecord()), kRequestText);
}

TEST(CsrData, TextFormIsReadBack) {
    EXPECT_EQ(textOf(CCSRData::from(kRequestText)), kRequestText);
}

}  // namespace
