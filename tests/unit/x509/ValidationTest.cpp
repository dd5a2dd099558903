#include <gmock/gmock.h>
#include <openssl/x509.h>

#include "tests/unit/x509/X509Fixture.h"
#include "x509/Validation.h"

namespace {

using keywarden::correctIPv6Address;
using keywarden::isCertificateValid;
using keywarden::SeverityError;
using keywarden::validateCsrAndCrt;
using keywarden::X509_REQ_T;
using keywarden::X509_T;
using testsupport::CertificateOptions;
using testsupport::IssuedCertificate;
using testsupport::MadeRequest;
using testsupport::tracesOf;

class Validation : public X509Fixture {
  protected:
    [[nodiscard]] X509_REQ_T requestOf(const CertificateOptions& options) const {
        return X509_REQ_T(sandbox_.write("request.csr", testsupport::makeRequest(options).requestPem));
    }
    static X509_T certificateOf(const CertificateOptions& options) {
        return X509_T::fromPem(makeCertificate(options).certificatePem);
    }
    static CertificateOptions withKey(const std::string& type) {
        CertificateOptions options;
        options.keyType = type;
        return options;
    }
    /// A certificate for the fixture's request, with bytes of its key changed so that it cannot be read.
    static X509_T withUnreadableKey(const std::string& pem) {
        const X509_T certificate = X509_T::fromPem(pem);
        unsigned char* encoded = nullptr;
        const int size = i2d_X509(certificate.get(), &encoded);
        std::string der(reinterpret_cast<char*>(encoded), static_cast<std::size_t>(size));
        OPENSSL_free(encoded);
        const std::string curve("\x06\x08\x2A\x86\x48\xCE\x3D\x03\x01\x07", 10);  // prime256v1
        der[der.find(curve) + 9] = '\x7F';
        const auto* bytes = reinterpret_cast<const unsigned char*>(der.data());
        return X509_T(d2i_X509(nullptr, &bytes, static_cast<long>(der.size())));
    }
};

TEST_F(Validation, ACertificateForTheRequestMatches) {
    const MadeRequest made = testsupport::makeRequest({});
    const X509_REQ_T request(sandbox_.write("request.csr", made.requestPem));
    EXPECT_TRUE(validateCsrAndCrt(request, X509_T::fromPem(testsupport::certifyRequest(
                                               made.requestPem, testsupport::makeCertificate({})))));
    expectLog({});
}

TEST_F(Validation, AnotherKeyOfTheSameTypeDoesNotMatch) {
    EXPECT_FALSE(validateCsrAndCrt(requestOf({}), certificateOf({})));
    expectLog({{SeverityError, "CSR and certificate public key is not matching."}});
}

TEST_F(Validation, AnotherTypeOfKeyDoesNotMatch) {
    EXPECT_FALSE(validateCsrAndCrt(requestOf({}), certificateOf(withKey("RSA"))));
    expectLog({{SeverityError, "CSR and certificate key type is not matching."}});
}

TEST_F(Validation, AnEmptyRequestIsRefused) {
    EXPECT_FALSE(validateCsrAndCrt(X509_REQ_T(), X509_T()));
    expectLog({{SeverityError, "Invalid input csr object during validating csr and crt file."}});
}

TEST_F(Validation, AnEmptyCertificateIsRefused) {
    EXPECT_FALSE(validateCsrAndCrt(requestOf({}), X509_T()));
    expectLog({{SeverityError, "Invalid input crt object during validating csr and crt file."}});
}

TEST_F(Validation, ACertificateWithAnUnreadableKeyIsRefused) {
    const X509_T certificate = withUnreadableKey(testsupport::makeCertificate({}).certificatePem);
    ASSERT_NE(certificate.get(), nullptr);
    EXPECT_FALSE(validateCsrAndCrt(requestOf({}), certificate));
    expectLog({{SeverityError, "Failed to retrieve the public key from certificate"}});
}

TEST_F(Validation, ARequestWithAnUnreadableKeyIsRefused) {
    const X509_REQ_T request = requestOf({});
    const X509_T certificate = certificateOf({});
    const CryptoFault fault("X509_REQ_get_pubkey");
    EXPECT_FALSE(validateCsrAndCrt(request, certificate));
    EXPECT_TRUE(CryptoFault::struck());
    expectLog({{SeverityError, "Failed to retrieve the public key from csr."}});
}

TEST_F(Validation, AnExpiredCertificateFileIsValid) {
    CertificateOptions options;
    options.expired = true;
    EXPECT_TRUE(isCertificateValid(sandbox_.write("old.pem", makeCertificate(options).certificatePem)));
    expectLog({});
}

TEST_F(Validation, AMissingFileIsNotValid) {
    const std::string path = sandbox_.path("missing");
    EXPECT_FALSE(isCertificateValid(path));
    expectLog({{SeverityError, "Std exception caught while validating the certificate from path: " + path +
                                   " : Failed to read certificate from file: " + path}});
}

TEST_F(Validation, AFailureWithoutTextIsLoggedWithThePathOnly) {
    const std::string path = sandbox_.write("cert.pem", testsupport::makeCertificate({}).certificatePem);
    const CryptoFault fault("PEM_read_X509", 1, CryptoFault::Kind::EmptyThrow);
    EXPECT_FALSE(isCertificateValid(path));
    expectLog({{SeverityError, "Std exception caught while validating the certificate from path: " + path}});
}

TEST_F(Validation, AnythingElseThatIsThrownIsLogged) {
    const std::string path = sandbox_.write("cert.pem", testsupport::makeCertificate({}).certificatePem);
    const CryptoFault fault("PEM_read_X509", 1, CryptoFault::Kind::NoStandardThrow);
    EXPECT_FALSE(isCertificateValid(path));
    expectLog({{SeverityError, "Unknown exception caught while validating certificate from path: " + path}});
}

TEST_F(Validation, TheLongFormOfAnIPv6AddressIsCompressed) {
    EXPECT_EQ(correctIPv6Address("fe80:0:0:0:0:0:0:1"), "fe80::1");
    EXPECT_EQ(correctIPv6Address("2001:0DB8:0000:0000:0000:0000:0000:00AB"), "2001:db8::ab");
    EXPECT_EQ(correctIPv6Address("ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255"),
              "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
    expectLog({});
}

TEST_F(Validation, WhatIsNoIPv6AddressBecomesTheZeroAddress) {
    for (const char* text : {"", "10.0.0.5", "fe80::1%eth0", "host", "fe80::1/64"}) {
        testsupport::CapturedLog::clear();
        EXPECT_EQ(correctIPv6Address(text), "::") << text;
        expectLog({{SeverityError, "IPV6 Address format is not correct."}});
    }
}

TEST_F(Validation, AFailedConversionOfAnAddressIsLoggedAndPrinted) {
    std::string address;
    const CryptoFault fault("inet_pton");
    EXPECT_EQ(testsupport::standardErrorOf([&] { address = correctIPv6Address("fe80::1"); }),
              "inet_pton: Address family not supported by protocol\n");
    EXPECT_EQ(address, "::");
    expectLog({{SeverityError, "Failed to convert IPV6 address to network address."}});
}

TEST_F(Validation, AFailedPrintOfAnAddressIsLoggedAndPrinted) {
    std::string address = "unchanged";
    const CryptoFault fault("inet_ntop");
    EXPECT_EQ(testsupport::standardErrorOf([&] { address = correctIPv6Address("fe80::1"); }),
              "inet_ntop: No space left on device\n");
    EXPECT_EQ(address, "");
    expectLog({{SeverityError, "Failed to convert IPV6 NW address to string."}});
}

TEST_F(Validation, NamesAreWrittenOnOneLine) {
    CertificateOptions root;
    root.commonName = "root";
    root.organization = "Firm, Inc.";
    const IssuedCertificate issuer = makeCertificate(root);
    CertificateOptions leaf;
    leaf.commonName = "leaf";
    leaf.emailAddress = "a@b";
    const X509_T certificate = X509_T::fromPem(makeCertificate(leaf, &issuer).certificatePem);
    EXPECT_EQ(subject_one_line(certificate), "CN=leaf/emailAddress=a@b");
    EXPECT_EQ(issuer_one_line(certificate), "O=Firm, Inc., CN=root");
}

TEST_F(Validation, AnEmptyNameIsAnEmptyLine) {
    EXPECT_EQ(subject_one_line(X509_T(X509_new())), "");
    expectLog({});
}

TEST_F(Validation, AnEmptyCertificateHasNoNamesAndIsLogged) {
    EXPECT_EQ(keywarden::subject_one_line(X509_T()), "");
    EXPECT_EQ(keywarden::issuer_one_line(X509_T()), "");
    expectLog(
        {{SeverityError, "Invalid x509 object pointer"}, {SeverityError, "Invalid x509 object pointer"}});
}

TEST_F(Validation, WithoutABioThereIsNoLine) {
    const X509_T certificate = certificateOf({});
    const CryptoFault fault("BIO_new");
    EXPECT_EQ(subject_one_line(certificate), "");
    expectLog({{SeverityError, "failed to create bio object"}});
}

}  // namespace
