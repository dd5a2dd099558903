#include <gmock/gmock.h>

#include "tests/unit/x509/X509Fixture.h"

namespace {

using keywarden::EVP_PKEY_T;
using keywarden::SeverityInfo;
using testing::HasSubstr;
using testsupport::CapturedLog;
using testsupport::tracesOf;

class KeyGeneration : public X509Fixture {
  protected:
    static kwdata::CCertificateData of(const std::string& type, int bits = 2048) {
        kwdata::CCertificateData data;
        data.public_key_type = type;
        data.public_key_size_bits = bits;
        return data;
    }
    static std::string generationFailure(const std::string& type, int bits = 2048) {
        return failureOf([&] { const EVP_PKEY_T pair(of(type, bits)); });
    }
    [[nodiscard]] std::string describedByOpenssl(const EVP_PKEY_T& pair) const {
        return openssl("pkey -in {} -noout -text", privateKeyToPem(pair));
    }
};

TEST_F(KeyGeneration, NamesAreTheStatedOnes) {
    EXPECT_EQ(keywarden::KEY_RSA2048, "RSA2048");
    EXPECT_EQ(keywarden::KEY_PRIME256V1, "PRIME256V1");
    EXPECT_EQ(keywarden::KEY_SECP256K1, "SECP256K1");
    EXPECT_EQ(keywarden::KEY_SECP384R1, "SECP384R1");
    EXPECT_EQ(keywarden::KEY_SECP521R1, "SECP521R1");
    EXPECT_EQ(keywarden::KEY_ED25519, "ED25519");
    EXPECT_EQ(keywarden::V3EXT_SUBJ_KEY_IDENTIFIER, "subjectKeyIdentifier");
    EXPECT_EQ(keywarden::V3EXT_BASIC_CONSTRAINTS, "basicConstraints");
    EXPECT_EQ(keywarden::V3EXT_KEY_USAGE, "keyUsage");
    EXPECT_EQ(keywarden::V3EXT_EXT_KEY_USAGE, "extendedKeyUsage");
    EXPECT_EQ(keywarden::V3EXT_SUBJ_ALT_NAME, "subjectAltName");
}

TEST_F(KeyGeneration, AnEcKeyIsOfThePrimeCurveAndNamesIt) {
    const std::string text = describedByOpenssl(EVP_PKEY_T(of("PRIME256V1")));
    EXPECT_THAT(text, HasSubstr("Private-Key: (256 bit)"));
    EXPECT_THAT(text, HasSubstr("ASN1 OID: prime256v1"));
    EXPECT_THAT(text, HasSubstr("NIST CURVE: P-256"));
}

TEST_F(KeyGeneration, AKeyOnTheLongerCurveNamesIt) {
    const std::string text = describedByOpenssl(EVP_PKEY_T(of("SECP384R1")));
    EXPECT_THAT(text, HasSubstr("Private-Key: (384 bit)"));
    EXPECT_THAT(text, HasSubstr("ASN1 OID: secp384r1"));
    EXPECT_THAT(text, HasSubstr("NIST CURVE: P-384"));
}

TEST_F(KeyGeneration, AnEd25519KeyIsOneWhateverTheBits) {
    for (const int bits : {2048, 0, -1}) {
        EXPECT_THAT(describedByOpenssl(EVP_PKEY_T(of("ED25519", bits))), HasSubstr("ED25519 Private-Key:\n"));
    }
}

TEST_F(KeyGeneration, AnRsaKeyHasTheSettingsBitsAndTheUsualExponent) {
    for (const int bits : {1024, 3072}) {
        const std::string text = describedByOpenssl(EVP_PKEY_T(of("RSA2048", bits)));
        EXPECT_THAT(text, HasSubstr("Private-Key: (" + std::to_string(bits) + " bit, 2 primes)"));
        EXPECT_THAT(text, HasSubstr("publicExponent: 65537 (0x10001)"));
    }
}

TEST_F(KeyGeneration, TwoKeysDiffer) {
    for (const char* type : {"PRIME256V1", "SECP384R1", "ED25519"}) {
        EXPECT_NE(privateKeyToPem(EVP_PKEY_T(of(type))), privateKeyToPem(EVP_PKEY_T(of(type)))) << type;
    }
}

TEST_F(KeyGeneration, TheTimeOfAnRsaKeyIsLoggedWithSixDecimals) {
    const EVP_PKEY_T pair(of("RSA2048", 1024));
    const auto lines = CapturedLog::lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].severity, SeverityInfo);
    EXPECT_THAT(lines[0].text,
                testing::ContainsRegex("^Time required to generate RSA key is [0-9]+\\.[0-9]{6}$"));
}

TEST_F(KeyGeneration, AnEcKeyIsTracedStepByStep) {
    EXPECT_EQ(tracesOf([] { const EVP_PKEY_T pair(of("PRIME256V1")); }),
              "Created new private key for the certificate.\n"
              "Generating EC key.\n"
              "Assigning EC key to the private key.\n");
    expectLog({});
}

TEST_F(KeyGeneration, AnEd25519KeyIsTracedStepByStep) {
    EXPECT_EQ(tracesOf([] { const EVP_PKEY_T pair(of("ED25519")); }),
              "Created new private key for the certificate.\n"
              "Generating Ed25519 key.\n");
    expectLog({});
}

TEST_F(KeyGeneration, AnRsaKeyIsTracedStepByStep) {
    const std::string traces = tracesOf([] { const EVP_PKEY_T pair(of("RSA2048", 1024)); });
    EXPECT_THAT(traces, testing::StartsWith("Created new private key for the certificate.\n"
                                            "Generating RSA key...\n"
                                            "Time required to generate RSA key is "));
    EXPECT_THAT(traces, testing::EndsWith("\nAssigning RSA key to the private key...\n"));
}

TEST_F(KeyGeneration, OtherTypesAreRefused) {
    for (const char* type : {"SECP256K1", "SECP521R1", "", "rsa2048", "RSA4096", "ED448"}) {
        EXPECT_EQ(generationFailure(type), "Unsupported key format.") << type;
    }
}

TEST_F(KeyGeneration, AnUnsupportedTypeIsRefusedAfterTheKeyWasMade) {
    EXPECT_EQ(tracesOf([] { generationFailure("SECP521R1"); }),
              "Created new private key for the certificate.\n");
}

TEST_F(KeyGeneration, BitsOutOfRangeFail) {
    for (const int bits : {0, -1, INT32_MIN, 511, 16385, INT32_MAX}) {
        EXPECT_EQ(generationFailure("RSA2048", bits), "Failed to generate RSA key pair.") << bits;
    }
}

TEST_F(KeyGeneration, EveryStepOfAnRsaKeyFailsWithItsText) {
    const std::vector<std::pair<std::string, std::string>> steps = {
        {"EVP_PKEY_new", "Creation of new private key failed."},
        {"BN_new", "Failed to allocate bignum for key."},
        {"EVP_PKEY_assign", "Failed to assign RSA key to private key."},
    };
    for (const auto& [function, text] : steps) {
        const CryptoFault fault(function);
        EXPECT_EQ(generationFailure("RSA2048", 1024), text);
        EXPECT_TRUE(CryptoFault::struck()) << function;
    }
}

TEST_F(KeyGeneration, EveryStepOfAnEcKeyFailsWithItsText) {
    const std::vector<std::pair<std::string, std::string>> steps = {
        {"EVP_PKEY_new", "Creation of new private key failed."},
        {"EC_KEY_new_by_curve_name", "Could not allocate EC key structure."},
        {"EC_KEY_generate_key", "Generation of EC key pair failed."},
        {"EVP_PKEY_assign", "Failed to assign EC key to private key."},
    };
    for (const auto& [function, text] : steps) {
        const CryptoFault fault(function);
        EXPECT_EQ(generationFailure("PRIME256V1"), text);
        EXPECT_TRUE(CryptoFault::struck()) << function;
    }
}

TEST_F(KeyGeneration, EveryStepOfAnEd25519KeyFailsWithItsText) {
    const std::vector<std::pair<std::string, std::string>> steps = {
        {"EVP_PKEY_new", "Creation of new private key failed."},
        {"EVP_PKEY_CTX_new_id", "Could not allocate Ed25519 key context."},
        {"EVP_PKEY_keygen_init", "Generation of Ed25519 key pair failed."},
        {"EVP_PKEY_keygen", "Generation of Ed25519 key pair failed."},
    };
    for (const auto& [function, text] : steps) {
        const CryptoFault fault(function);
        EXPECT_EQ(generationFailure("ED25519"), text);
        EXPECT_TRUE(CryptoFault::struck()) << function;
    }
}

}  // namespace
