#include <gmock/gmock.h>
#include <openssl/x509.h>

#include <set>

#include "tests/unit/x509/X509Fixture.h"
#include "x509/Inspection.h"
#include "x509/Signing.h"
#include "x509/Validation.h"

namespace {

using keywarden::createX509SelfSignedCertificate;
using keywarden::EVP_PKEY_T;
using keywarden::SeverityError;
using keywarden::X509_T;
using testing::HasSubstr;
using testing::Not;
using testsupport::tracesOf;

class SelfSigned : public X509Fixture {
  protected:
    static X509_T made(const kwdata::CCertificateData& data = settings()) {
        return createX509SelfSignedCertificate(data, key());
    }
    static std::string creationFailure(const kwdata::CCertificateData& data, const EVP_PKEY_T& pair = key()) {
        return failureOf([&] { static_cast<void>(createX509SelfSignedCertificate(data, pair)); });
    }
    static int hasExtension(const X509_T& certificate, int nid) {
        return X509_get_ext_by_NID(certificate.get(), nid, -1) >= 0 ? 1 : 0;
    }
    static kwdata::CCertificateData withExtension(const std::string& name, const std::string& value) {
        kwdata::CCertificateData data = settings();
        data.v3Extention = {{name, value, value, ""}};
        return data;
    }
};

TEST_F(SelfSigned, AnotherProgramVerifiesIt) {
    EXPECT_THAT(openssl("verify -attime 1772400000 -CAfile {} {}", made().toPem()),
                HasSubstr("openssl.pem: OK\n"));
}

TEST_F(SelfSigned, AnotherProgramReadsWhatTheSettingsSay) {
    const std::string text =
        openssl("x509 -in {} -noout -text -nameopt RFC2253,sep_comma_plus_space,-dn_rev", made().toPem());
    const std::string subject =
        "emailAddress=a@b.example, C=FR, ST=Isere, L=Ville, O=Firm\\, Inc., OU=one, OU=two, CN=host.local\n";
    EXPECT_THAT(text, HasSubstr("Version: 3 (0x2)"));
    EXPECT_THAT(text, HasSubstr("Subject: " + subject));
    EXPECT_THAT(text, HasSubstr("Issuer: " + subject));
    EXPECT_THAT(text, HasSubstr("Not Before: Mar  1 00:00:00 2026 GMT"));
    EXPECT_THAT(text, HasSubstr("Not After : Mar  1 00:00:00 2027 GMT"));
    EXPECT_THAT(text, HasSubstr("X509v3 Basic Constraints: critical\n                CA:FALSE"));
    EXPECT_THAT(text, HasSubstr("X509v3 Key Usage: critical\n                Digital Signature"));
    EXPECT_THAT(text, HasSubstr("DNS:host.local, DNS:10.0.0.5, IP Address:10.0.0.5"));
    EXPECT_THAT(text, HasSubstr("Signature Algorithm: ecdsa-with-SHA256"));
}

TEST_F(SelfSigned, AnRsaCertificateIsSignedWithSha256) {
    kwdata::CCertificateData data = settings();
    data.public_key_type = "RSA2048";
    data.public_key_size_bits = 1024;
    const X509_T certificate = createX509SelfSignedCertificate(data, EVP_PKEY_T(data));
    EXPECT_THAT(openssl("x509 -in {} -noout -text", certificate.toPem()),
                HasSubstr("Signature Algorithm: sha256WithRSAEncryption"));
}

TEST_F(SelfSigned, TheKeyIdentifierIsTheHashOfTheKey) {
    // SHA-1 of the public key's bit string (RFC 5280, 4.2.1.2), computed by the other program.
    const std::string pem = made().toPem();
    openssl("x509 -in {} -noout -pubkey -out public.pem", pem);
    openssl("ec -pubin -in public.pem -outform DER -out public.der");
    const std::string point = testsupport::Sandbox::read(sandbox_.path("public.der")).substr(26);
    ASSERT_EQ(point.size(), 65U);
    std::string hash = openssl("dgst -sha1 -hex " + sandbox_.write("point", point));
    hash = hash.substr(hash.rfind(' ') + 1, 40);
    std::string shown = openssl("x509 -in {} -noout -ext subjectKeyIdentifier", pem);
    shown.erase(std::remove(shown.begin(), shown.end(), ':'), shown.end());
    for (char& letter : hash) {
        letter = static_cast<char>(std::toupper(letter));
    }
    EXPECT_THAT(shown, HasSubstr(hash));
}

TEST_F(SelfSigned, EverySerialIs64BitsLongInNineBytes) {
    std::set<std::string> serials;
    for (int count = 0; count < 20; ++count) {
        const X509_T certificate = made();
        unsigned char* encoded = nullptr;
        const int size = i2d_ASN1_INTEGER(X509_get0_serialNumber(certificate.get()), &encoded);
        ASSERT_EQ(size, 11);  // tag, length, nine bytes of content
        EXPECT_EQ(encoded[1], 9);
        EXPECT_EQ(encoded[2], 0);
        EXPECT_GE(encoded[3], 0x80);
        serials.emplace(reinterpret_cast<char*>(encoded), static_cast<std::size_t>(size));
        OPENSSL_free(encoded);
    }
    EXPECT_EQ(serials.size(), 20U);
}

TEST_F(SelfSigned, EveryStepOfTheSerialIsTracedWhenItFailsAndTheCertificateIsStillMade) {
    const EVP_PKEY_T& pair = key();
    const std::vector<std::pair<std::string, std::string>> steps = {
        {"ASN1_INTEGER_new", "Unable to allocate memory for an ASN1 object\n"},
        {"BN_new", "Unable to allocate memory for an BIGNUM object\n"},
        {"BN_rand", "Unable to create or set the serial number\n"},
    };
    for (const auto& [function, text] : steps) {
        const CryptoFault fault(function);
        X509_T certificate;
        const std::string traces =
            tracesOf([&] { certificate = createX509SelfSignedCertificate(settings(), pair); });
        EXPECT_TRUE(CryptoFault::struck()) << function;
        EXPECT_THAT(traces, HasSubstr(text));
        EXPECT_NE(certificate.get(), nullptr);
    }
}

TEST_F(SelfSigned, TheVersionIsTheSettingsMinusOne) {
    kwdata::CCertificateData data = settings();
    data.cert_version = 1;
    data.v3Extention.clear();
    EXPECT_EQ(X509_get_version(made(data).get()), 0);
    EXPECT_EQ(X509_get_version(made().get()), 2);
}

TEST_F(SelfSigned, DatesAreKeptToTheSecond) {
    kwdata::CCertificateData data = settings();
    data.validNotBeforeDate = 1000000001;
    data.validNotAfterDate = kNow + 2147483647;  // 2094: more than 31 bits, the difference is not
    const X509_T certificate = made(data);
    EXPECT_EQ(notBeforeOf(certificate), 1000000001U);
    EXPECT_EQ(notAfterOf(certificate), 3919806847U);
}

TEST_F(SelfSigned, DatesThatCannotBeEncodedFail) {
    if (sizeof(long) < 8) {
        GTEST_SKIP() << "the difference is cut to 32 bits";
    }
    kwdata::CCertificateData data = settings();
    data.validNotAfterDate = 253402300800;  // the year 10000
    EXPECT_EQ(creationFailure(data), "Failed to set certificate time.");
    data.validNotAfterDate = UINT64_MAX;  // before the epoch: fits
    EXPECT_EQ(creationFailure(data), "no failure");
    data.validNotBeforeDate = static_cast<std::uint64_t>(INT64_MIN);
    EXPECT_EQ(creationFailure(data), "Failed to set certificate time.");
}

TEST_F(SelfSigned, AnEmptyIssuerMeansTheSubject) {
    const X509_T certificate = made();
    EXPECT_EQ(keywarden::issuer_one_line(certificate), keywarden::subject_one_line(certificate));
    EXPECT_TRUE(isSelfSignedCertificate(certificate));
}

TEST_F(SelfSigned, AnIssuerEqualToTheSubjectIsSet) {
    kwdata::CCertificateData data = settings();
    data.issuer = data.subject;
    EXPECT_EQ(keywarden::issuer_one_line(made(data)), keywarden::subject_one_line(made(data)));
}

TEST_F(SelfSigned, AnotherIssuerIsNotSetAndTheCertificateIsStillMade) {
    kwdata::CCertificateData data = settings();
    data.issuer.common_name = "someone else";
    const X509_T certificate = made(data);
    EXPECT_EQ(X509_NAME_entry_count(X509_get_issuer_name(certificate.get())), 0);
    EXPECT_EQ(X509_verify(certificate.get(), key().get()), 1);
    EXPECT_THAT(tracesOf([&] { made(data); }), Not(HasSubstr("Setting subject as issuer")));
}

TEST_F(SelfSigned, ItIsTracedStepByStep) {
    key();  // made at its first use, which is traced too
    kwdata::CCertificateData data = settings();
    data.v3Extention.clear();
    EXPECT_EQ(tracesOf([&] { made(data); }),
              "Setting various properties of x509 certificate.\n"
              "Setting subject as issuer of x509 certificate.\n"
              "Setting v3 extensions for x509 certificate.\n"
              "Signing the x509 certificate with the private key.\n");
    expectLog({});
}

TEST_F(SelfSigned, AnExtendedKeyUsageIsOnlyReported) {
    const kwdata::CCertificateData data = withExtension("extendedKeyUsage", "serverAuth");
    EXPECT_FALSE(hasExtension(made(data), NID_ext_key_usage));
    EXPECT_THAT(
        tracesOf([&] { made(data); }),
        HasSubstr("Unsupported extension found: obj_id extendedKeyUsage|short_name serverAuth|long_name "
                  "serverAuth|comment \n\n"));
    expectLog({});
}

TEST_F(SelfSigned, AnUnknownExtensionIsOnlyReported) {
    const kwdata::CCertificateData data = withExtension("nsComment", "hello");
    EXPECT_EQ(X509_get_ext_count(made(data).get()), 0);
    EXPECT_THAT(tracesOf([&] { made(data); }), HasSubstr("Unsupported extension found: obj_id nsComment|"));
}

TEST_F(SelfSigned, EmptyValuesAreTriedAndDoNotFail) {
    kwdata::CCertificateData data = settings();
    for (kwdata::v3Ext& extension : data.v3Extention) {
        extension.short_name.clear();
    }
    EXPECT_EQ(X509_get_ext_count(made(data).get()), 0);
    EXPECT_THAT(tracesOf([&] { made(data); }),
                HasSubstr("Extension basicConstraints is left out, its value is not accepted: ''\n"));
}

TEST_F(SelfSigned, TheDefaultKeyUsageIsLeftOut) {
    const auto data = withExtension("keyUsage", kwdata::CCertificateData::CERTIFICATE_v3_EXT_KEY_USAGE);
    EXPECT_FALSE(hasExtension(made(data), NID_key_usage));
    EXPECT_THAT(
        tracesOf([&] { made(data); }),
        HasSubstr(
            "Extension keyUsage is left out, its value is not accepted: 'critical,keyCertSign,CRLSign'\n"));
    expectLog({});
}

TEST_F(SelfSigned, TheDefaultsOfACaAreTaken) {
    kwdata::CCertificateData data = settings();
    data.v3Extention = {
        {"subjectKeyIdentifier", kwdata::CCertificateData::CERTIFICATE_v3_EXT_SUB_KEY_IDENTIFIER, "", ""},
        {"basicConstraints", kwdata::CCertificateData::CERTIFICATE_v3_EXT_BASIC_CONSTRAINTS, "", ""}};
    EXPECT_TRUE(isCertificateAuthority(made(data)));
}

TEST_F(SelfSigned, ABadAlternativeNameIsLoggedByName) {
    const auto data = withExtension("subjectAltName", "DNS.1:ok,IP.1:bad,IP.2:1.2.3");
    EXPECT_FALSE(hasExtension(made(data), NID_subject_alt_name));
    expectLog(
        {{SeverityError,
          "Extension subjectAltName is left out, its value is not accepted: 'DNS.1:ok,IP.1:bad,IP.2:1.2.3' "
          "(because of 'IP.1:bad,IP.2:1.2.3')"}});
}

TEST_F(SelfSigned, EveryStepFailsWithItsText) {
    const std::vector<std::pair<std::string, std::string>> steps = {
        {"X509_new", "Failed to create new x509 certificate."},
        {"X509_sign", "Failed signing of the x509 certificate."},
    };
    const EVP_PKEY_T& pair = key();
    for (const auto& [function, text] : steps) {
        const CryptoFault fault(function);
        EXPECT_EQ(creationFailure(settings(), pair), text);
        EXPECT_TRUE(CryptoFault::struck()) << function;
    }
}

TEST_F(SelfSigned, WithoutKeyItIsNotSigned) {
    EXPECT_EQ(creationFailure(settings(), EVP_PKEY_T()), "Failed signing of the x509 certificate.");
}

TEST_F(SelfSigned, APublicKeyCannotSign) {
    EXPECT_EQ(creationFailure(settings(), EVP_PKEY_T(X509_T::fromPem(made().toPem()))),
              "Failed signing of the x509 certificate.");
}

}  // namespace
