#include <gmock/gmock.h>
#include <openssl/x509.h>

#include "tests/unit/x509/CryptoFault.h"
#include "tests/unit/x509/X509Fixture.h"
#include "x509/Inspection.h"
#include "x509/Signing.h"

namespace {

using keywarden::EVP_PKEY_T;
using keywarden::X509_T;
using testing::ElementsAre;
using testing::HasSubstr;
using testsupport::CertificateOptions;
using testsupport::IssuedCertificate;

class Inspection : public X509Fixture {
  protected:
    static X509_T certificateOf(const CertificateOptions& options,
                                const IssuedCertificate* issuer = nullptr) {
        return X509_T::fromPem(makeCertificate(options, issuer).certificatePem);
    }
};

TEST_F(Inspection, TheSubjectHashIsTheOneOfAnotherProgram) {
    CertificateOptions options;
    for (const char* name : {"a", "device", "host.local", "with a blank"}) {
        options.commonName = name;
        const X509_T certificate = certificateOf(options);
        EXPECT_EQ(subjectNameHash(certificate) + "\n",
                  openssl("x509 -in {} -noout -subject_hash", certificate.toPem()));
        EXPECT_EQ(subjectNameHash(certificate).size(), 8U);
    }
}

TEST_F(Inspection, CommonNamesAreReadAsUtf8) {
    CertificateOptions root;
    root.commonName = "Autorit\xC3\xA9";
    const IssuedCertificate issuer = makeCertificate(root);
    CertificateOptions leaf;
    leaf.commonName = "leaf";
    const X509_T certificate = certificateOf(leaf, &issuer);
    EXPECT_EQ(subjectCommonName(certificate), "leaf");
    EXPECT_EQ(issuerCommonName(certificate), "Autorit\xC3\xA9");
}

TEST_F(Inspection, TheFirstOfTwoEntriesOfAKindIsRead) {
    kwdata::CCertificateData data = settings();
    const X509_T certificate = keywarden::createX509SelfSignedCertificate(data, key());
    const X509_NAME* subject = X509_get_subject_name(certificate.get());
    EXPECT_EQ(keywarden::x509GetData(subject, NID_organizationalUnitName), "one");
    EXPECT_EQ(keywarden::x509GetData(subject, NID_organizationName), "Firm, Inc.");
}

TEST_F(Inspection, AnAbsentEntryIsEmpty) {
    const X509_T certificate = certificateOf({});
    EXPECT_EQ(keywarden::x509GetData(X509_get_subject_name(certificate.get()), NID_countryName), "");
}

TEST_F(Inspection, ACaIsOneThatSaysSo) {
    CertificateOptions authority;
    authority.ca = true;
    EXPECT_TRUE(isCertificateAuthority(certificateOf(authority)));
    kwdata::CCertificateData data = settings();
    EXPECT_FALSE(isCertificateAuthority(keywarden::createX509SelfSignedCertificate(data, key())));
}

TEST_F(Inspection, AVersion1SelfSignedCertificateCountsAsCa) {
    kwdata::CCertificateData data = settings();
    data.cert_version = 1;
    data.v3Extention.clear();
    EXPECT_TRUE(isCertificateAuthority(keywarden::createX509SelfSignedCertificate(data, key())));
}

TEST_F(Inspection, SelfSignedIsWhatItsOwnKeySigned) {
    CertificateOptions options;
    EXPECT_TRUE(isSelfSignedCertificate(certificateOf(options)));
    CertificateOptions root;
    root.commonName = "root";
    root.ca = true;
    const IssuedCertificate issuer = makeCertificate(root);
    EXPECT_FALSE(isSelfSignedCertificate(certificateOf(options, &issuer)));
}

TEST_F(Inspection, TheSameNamesWithAnotherKeysSignatureAreNotSelfSigned) {
    CertificateOptions options;
    const IssuedCertificate namesake = makeCertificate(options);
    EXPECT_FALSE(isSelfSignedCertificate(certificateOf(options, &namesake)));
}

TEST_F(Inspection, DatesAreSecondsSinceTheEpoch) {
    CertificateOptions options;
    options.notBefore = 1000000000;
    options.notAfter = 4102444800;  // 2100, more than 31 bits
    const X509_T certificate = certificateOf(options);
    EXPECT_EQ(notBeforeOf(certificate), 1000000000U);
    EXPECT_EQ(notAfterOf(certificate), 4102444800U);
}

TEST_F(Inspection, AlternativeNamesAreListedByKind) {
    CertificateOptions options;
    options.dns = {"b.local", "a.local"};
    options.ips = {"10.0.0.5", "fe80:0:0:0:0:0:0:1"};
    const keywarden::AlternativeNames names = alternativeNamesOf(certificateOf(options));
    EXPECT_THAT(names.hostnames, ElementsAre("b.local", "a.local"));
    EXPECT_THAT(names.ips, ElementsAre("10.0.0.5", "fe80::1"));
}

TEST_F(Inspection, AnAlternativeNameWithoutDataIsLoggedAndSkipped) {
    CertificateOptions options;
    options.dns = {"a.local", "b.local"};
    const X509_T certificate = certificateOf(options);
    const CryptoFault fault("ASN1_STRING_get0_data");
    EXPECT_THAT(alternativeNamesOf(certificate).hostnames, ElementsAre("b.local"));
    EXPECT_TRUE(CryptoFault::struck());
    expectLog({{keywarden::SeverityError, "ASN1_STRING_get0_data returns NULL"}});
}

TEST_F(Inspection, WithoutAlternativeNamesTheListsAreEmpty) {
    const keywarden::AlternativeNames names = alternativeNamesOf(certificateOf({}));
    EXPECT_TRUE(names.hostnames.empty());
    EXPECT_TRUE(names.ips.empty());
}

TEST_F(Inspection, ThePrintedTextIsTheOneOfAnotherProgram) {
    const X509_T certificate = certificateOf({});
    EXPECT_EQ(printedText(certificate),
              openssl("x509 -in {} -noout -text -nameopt compat", certificate.toPem()));
}

TEST_F(Inspection, AnEmptyHandleIsNotPrinted) {
    EXPECT_EQ(failureOf([] { static_cast<void>(printedText(X509_T())); }),
              "Failed to print the certificate.");
}

TEST_F(Inspection, EncodingsAreComparedWhateverThePemTextLooksLike) {
    const IssuedCertificate made = testsupport::makeCertificate({});
    std::string withOtherLineEnds;
    for (const char letter : made.certificatePem) {
        withOtherLineEnds += letter == '\n' ? std::string("\r\n") : std::string(1, letter);
    }
    const X509_T certificate = X509_T::fromPem(made.certificatePem);
    EXPECT_TRUE(sameEncoding(certificate, X509_T::fromPem(withOtherLineEnds)));
    EXPECT_FALSE(sameEncoding(certificate, certificateOf({})));
    EXPECT_FALSE(sameEncoding(certificate, X509_T()));
    EXPECT_FALSE(sameEncoding(X509_T(), X509_T()));
    EXPECT_FALSE(sameEncoding(X509_T(X509_new()), X509_T(X509_new())));
}

TEST_F(Inspection, AKeyMatchesItsOwnCertificateOnly) {
    const IssuedCertificate made = testsupport::makeCertificate({});
    const X509_T certificate = X509_T::fromPem(made.certificatePem);
    EXPECT_TRUE(keyMatchesCertificate(EVP_PKEY_T(sandbox_.write("own.key", made.keyPem)), certificate));
    EXPECT_FALSE(keyMatchesCertificate(
        EVP_PKEY_T(sandbox_.write("other.key", testsupport::makeCertificate({}).keyPem)), certificate));
    CertificateOptions rsa;
    rsa.keyType = "RSA";
    EXPECT_FALSE(keyMatchesCertificate(EVP_PKEY_T(sandbox_.write("rsa.key", makeCertificate(rsa).keyPem)),
                                       certificate));
    EXPECT_FALSE(keyMatchesCertificate(EVP_PKEY_T(), certificate));
    EXPECT_FALSE(keyMatchesCertificate(key(), X509_T()));
}

}  // namespace
