// Of every type of key that can be made: a certificate of its own, a request, and an authority that signs for
// each of the others.

#include <gmock/gmock.h>
#include <openssl/evp.h>

#include <map>

#include "tests/unit/x509/X509Fixture.h"
#include "x509/Description.h"
#include "x509/Inspection.h"
#include "x509/Signing.h"
#include "x509/Validation.h"

namespace {

using keywarden::EVP_PKEY_T;
using keywarden::X509_REQ_T;
using keywarden::X509_T;
using testing::HasSubstr;
using testsupport::CapturedLog;

/// What other programs and the records call it.
struct Expected {
    std::string name;
    std::string publicKey;  ///< openssl's words
    std::string signature;  ///< its own signatures, in openssl's words
    std::string described;  ///< public_key_type
    int bits;
};

const std::vector<Expected>& expectedTypes() {
    static const std::vector<Expected> types = {
        {"PRIME256V1", "ASN1 OID: prime256v1", "ecdsa-with-SHA256", "ecc", 256},
        {"RSA2048", "Public-Key: (2048 bit)", "sha256WithRSAEncryption", "rsa", 2048},
        {"SECP384R1", "ASN1 OID: secp384r1", "ecdsa-with-SHA256", "ecc", 384},
        {"ED25519", "ED25519 Public-Key:", "ED25519", "ed25519", 256},
    };
    return types;
}

class KeyTypes : public X509Fixture {
  protected:
    static kwdata::CCertificateData settingsOf(const std::string& type, const std::string& commonName,
                                               bool isAuthority = false) {
        kwdata::CCertificateData data = settings();
        data.public_key_type = type;
        data.subject.common_name = commonName;
        if (isAuthority) {
            data.v3Extention = {{"basicConstraints", "critical,CA:TRUE", "", ""},
                                {"keyUsage", "critical,keyCertSign,cRLSign", "", ""},
                                {"subjectKeyIdentifier", "hash", "", ""}};
        }
        return data;
    }

    /// One pair a type: RSA takes its time.
    static const EVP_PKEY_T& keyOf(const std::string& type) {
        static std::map<std::string, EVP_PKEY_T> keys;
        auto found = keys.find(type);
        if (found == keys.end()) {
            found = keys.emplace(type, EVP_PKEY_T(settingsOf(type, "key"))).first;
        }
        return found->second;
    }

    static X509_T selfSigned(const std::string& type, bool isAuthority = false) {
        return createX509SelfSignedCertificate(settingsOf(type, type, isAuthority), keyOf(type));
    }

    static X509_T signedBy(const X509_T& authority, const std::string& authorityType,
                           const X509_REQ_T& request) {
        return signX509WithCA(authority, keyOf(authorityType), request, kNow, kNow + 30 * kDay, 30 * kDay);
    }

    /// The key and the signature of a certificate or a request, as the other program reads them.
    void expectRead(const std::string& text, const Expected& key, const Expected& signer) const {
        EXPECT_THAT(text, HasSubstr(key.publicKey));
        EXPECT_THAT(text, HasSubstr("Signature Algorithm: " + signer.signature + "\n"));
    }
};

TEST_F(KeyTypes, ThoseThatCanBeMadeAreTheStatedOnes) {
    std::vector<std::string> names;
    for (const Expected& type : expectedTypes()) {
        names.push_back(type.name);
    }
    EXPECT_EQ(keywarden::keyTypeNames(), names);
    for (const char* other : {"", "SECP256K1", "SECP521R1", "ED448", "ed25519", "ED25519 "}) {
        EXPECT_EQ(keywarden::findKeyType(other), nullptr) << other;
    }
}

TEST_F(KeyTypes, ThoseOfOneAlgorithmSignAndAreDescribedAlike) {
    for (const Expected& expected : expectedTypes()) {
        const keywarden::KeyType* const row = keywarden::findKeyType(expected.name);
        ASSERT_NE(row, nullptr) << expected.name;
        const keywarden::KeyType* const found = keywarden::keyTypeOf(keyOf(expected.name).get());
        ASSERT_NE(found, nullptr) << expected.name;
        EXPECT_EQ(found->algorithm, row->algorithm) << expected.name;
        EXPECT_EQ(found->digest, row->digest) << expected.name;
        EXPECT_EQ(found->description, row->description) << expected.name;
    }
}

TEST_F(KeyTypes, AKeyOfAnUnknownTypeHasNoRowAndSignsWithSha256) {
    openssl("genpkey -algorithm ED448 -out other.pem");
    const EVP_PKEY_T other(sandbox_.path("other.pem"));
    EXPECT_EQ(keywarden::keyTypeOf(other.get()), nullptr);
    EXPECT_EQ(keywarden::signatureDigest(other.get()), EVP_sha256());
    EXPECT_EQ(keywarden::keyTypeOf(nullptr), nullptr);
    EXPECT_EQ(keywarden::signatureDigest(nullptr), EVP_sha256());
}

TEST_F(KeyTypes, AKeyComesBackFromItsText) {
    for (const Expected& type : expectedTypes()) {
        const std::string pem = privateKeyToPem(keyOf(type.name));
        const EVP_PKEY_T key = EVP_PKEY_T::fromPem(pem);
        EXPECT_EQ(privateKeyToPem(key), pem) << type.name;
        EXPECT_EQ(getPublicKeyType(key), type.described);
        EXPECT_EQ(EVP_PKEY_eq(key.get(), keyOf(type.name).get()), 1);
    }
}

TEST_F(KeyTypes, ASelfSignedCertificateOfEachIsVerifiedByAnotherProgram) {
    for (const Expected& type : expectedTypes()) {
        const X509_T certificate = selfSigned(type.name);
        EXPECT_TRUE(isSelfSignedCertificate(certificate)) << type.name;
        EXPECT_TRUE(keyMatchesCertificate(keyOf(type.name), certificate)) << type.name;
        EXPECT_THAT(openssl("verify -check_ss_sig -attime 1772400000 -CAfile {} {}", certificate.toPem()),
                    HasSubstr("openssl.pem: OK\n"));
        expectRead(openssl("x509 -in {} -noout -text", certificate.toPem()), type, type);
    }
}

TEST_F(KeyTypes, ARequestOfEachIsVerifiedByAnotherProgram) {
    for (const Expected& type : expectedTypes()) {
        const X509_REQ_T request(settingsOf(type.name, "request"), keyOf(type.name));
        const std::string text = openssl("req -in {} -noout -verify -text", x509CsrToPem(request));
        EXPECT_THAT(text, HasSubstr("Certificate request self-signature verify OK\n")) << type.name;
        expectRead(text, type, type);
    }
}

TEST_F(KeyTypes, AnAuthorityOfEachSignsForEach) {
    for (const Expected& authorityType : expectedTypes()) {
        const X509_T authority = selfSigned(authorityType.name, true);
        sandbox_.write("ca.pem", authority.toPem());
        for (const Expected& type : expectedTypes()) {
            const X509_REQ_T request(settingsOf(type.name, "leaf"), keyOf(type.name));
            const X509_T leaf = signedBy(authority, authorityType.name, request);
            EXPECT_TRUE(validateCsrAndCrt(request, leaf)) << authorityType.name << " for " << type.name;
            EXPECT_THAT(openssl("verify -attime 1772400000 -CAfile ca.pem {}", leaf.toPem()),
                        HasSubstr("openssl.pem: OK\n"))
                << authorityType.name << " for " << type.name;
            expectRead(openssl("x509 -in {} -noout -text", leaf.toPem()), type, authorityType);
        }
    }
}

TEST_F(KeyTypes, EachIsDescribed) {
    for (const Expected& type : expectedTypes()) {
        kwdata::CCertificateData certificate;
        ASSERT_TRUE(createCCertData(selfSigned(type.name), certificate)) << type.name;
        EXPECT_EQ(certificate.public_key_type, type.described);
        EXPECT_EQ(certificate.public_key_size_bits, type.bits);
        EXPECT_EQ(certificate.signatureAlgorithm_type, type.signature);

        kwdata::CCSRData request;
        ASSERT_TRUE(createCCSRData(X509_REQ_T(settingsOf(type.name, "request"), keyOf(type.name)), request));
        EXPECT_EQ(request.public_key_type, type.described);
        EXPECT_EQ(request.public_key_size_bits, type.bits);
        EXPECT_EQ(request.signatureAlgorithm_type, type.signature);

        std::string text;
        certificate.to(text);
        EXPECT_EQ(kwdata::CCertificateData::from(text).public_key_type, type.described);
    }
}

TEST_F(KeyTypes, AnotherKeyOfTheSameTypeBelongsToNoneOfItsCertificates) {
    for (const Expected& type : expectedTypes()) {
        kwdata::CCertificateData data = settingsOf(type.name, "other");
        data.public_key_size_bits = type.bits;
        const EVP_PKEY_T other(data);
        EXPECT_FALSE(keyMatchesCertificate(other, selfSigned(type.name))) << type.name;
        CapturedLog::clear();
        EXPECT_FALSE(validateCsrAndCrt(X509_REQ_T(data, other), selfSigned(type.name))) << type.name;
        expectLog({{keywarden::SeverityError, "CSR and certificate public key is not matching."}});
    }
}

}  // namespace
