#include <gmock/gmock.h>
#include <openssl/x509.h>

#include "tests/unit/x509/X509Fixture.h"
#include "x509/OpenSslPtr.h"
#include "x509/Validation.h"

namespace {

using keywarden::EVP_PKEY_T;
using keywarden::OwnedExtensions;
using keywarden::SeverityError;
using keywarden::SeverityInfo;
using keywarden::X509_REQ_T;
using testing::HasSubstr;
using testsupport::CapturedLog;
using testsupport::tracesOf;

class Request : public X509Fixture {
  protected:
    static std::string subjectOf(const X509_REQ_T& request) {
        return keywarden::_subject_as_line(X509_REQ_get_subject_name(request.get()));
    }
    static int extensionCount(const X509_REQ_T& request) {
        const OwnedExtensions extensions(X509_REQ_get_extensions(request.get()));
        return sk_X509_EXTENSION_num(extensions.get());
    }
    static std::string creationFailure(const kwdata::CCertificateData& data, const EVP_PKEY_T& pair = key()) {
        return failureOf([&] { const X509_REQ_T request(data, pair); });
    }
};

TEST_F(Request, AnotherProgramVerifiesItsSignature) {
    const X509_REQ_T request(settings(), key());
    EXPECT_THAT(openssl("req -in {} -noout -verify", x509CsrToPem(request)),
                HasSubstr("Certificate request self-signature verify OK"));
}

TEST_F(Request, AnotherProgramReadsItsSubjectAndExtensions) {
    const std::string text = openssl("req -in {} -noout -text -nameopt RFC2253,sep_comma_plus_space,-dn_rev",
                                     x509CsrToPem(X509_REQ_T(settings(), key())));
    EXPECT_THAT(text, HasSubstr("Version: Unknown (2)"));
    EXPECT_THAT(text, HasSubstr("Subject: emailAddress=a@b.example, C=FR, ST=Isere, L=Ville, O=Firm\\, Inc., "
                                "OU=one, OU=two, CN=host.local\n"));
    EXPECT_THAT(text, HasSubstr("X509v3 Basic Constraints: critical\n                    CA:FALSE"));
    EXPECT_THAT(text, HasSubstr("X509v3 Key Usage: critical\n                    Digital Signature"));
    EXPECT_THAT(text, HasSubstr("TLS Web Server Authentication"));
    EXPECT_THAT(text, HasSubstr("DNS:host.local, DNS:10.0.0.5, IP Address:10.0.0.5"));
    EXPECT_THAT(text, HasSubstr("X509v3 Subject Key Identifier"));
    EXPECT_THAT(text, HasSubstr("Signature Algorithm: ecdsa-with-SHA256"));
}

TEST_F(Request, TheVersionIsTheSettingsMinusOne) {
    kwdata::CCertificateData data = settings();
    data.cert_version = 1;
    EXPECT_EQ(X509_REQ_get_version(X509_REQ_T(data, key()).get()), 0);
    EXPECT_EQ(X509_REQ_get_version(X509_REQ_T(settings(), key()).get()), 2);
}

TEST_F(Request, AnEmptyAddressMakesNoEntryAndTheOthersStay) {
    kwdata::CCertificateData data = settings();
    data.subject = {"", "", "", "", {""}, "host", ""};
    const X509_REQ_T request(data, key());
    EXPECT_EQ(subjectOf(request), "C=, ST=, L=, O=, OU=, CN=host");
    EXPECT_EQ(X509_NAME_entry_count(X509_REQ_get_subject_name(request.get())), 6);
    const std::string pem = x509CsrToPem(request);
    const X509_REQ_T read(sandbox_.write("empty.csr", pem));
    EXPECT_EQ(subjectOf(read), "C=, ST=, L=, O=, OU=, CN=host");
}

TEST_F(Request, EmptyEntriesHaveTheTypesOfTheirKinds) {
    kwdata::CCertificateData data = settings();
    data.subject = {"", "", "", "", {""}, "", ""};
    const X509_REQ_T request(data, key());
    const X509_NAME* name = X509_REQ_get_subject_name(request.get());
    ASSERT_EQ(X509_NAME_entry_count(name), 6);
    for (int index = 0; index < 6; ++index) {
        const ASN1_STRING* value = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, index));
        EXPECT_EQ(ASN1_STRING_length(value), 0);
        EXPECT_EQ(ASN1_STRING_type(value), index == 0 ? V_ASN1_PRINTABLESTRING : V_ASN1_UTF8STRING);
    }
}

TEST_F(Request, WithoutDivisionsThereIsNoDivisionEntry) {
    kwdata::CCertificateData data = settings();
    data.subject = {"FR", "s", "l", "o", {}, "host", ""};
    EXPECT_EQ(subjectOf(X509_REQ_T(data, key())), "C=FR, ST=s, L=l, O=o, CN=host");
}

TEST_F(Request, TwoDivisionsAreEnteredInOrder) {
    kwdata::CCertificateData data = settings();
    data.subject = {"FR", "s", "l", "o", {"zz", "aa"}, "host", ""};
    EXPECT_EQ(subjectOf(X509_REQ_T(data, key())), "C=FR, ST=s, L=l, O=o, OU=zz, OU=aa, CN=host");
}

TEST_F(Request, AValueThatIsTooLongIsTracedAndLeftOut) {
    kwdata::CCertificateData data = settings();
    data.subject = {"FRA", "s", "l", "o", {}, std::string(65, 'x'), ""};
    std::string subject;
    const std::string traces = tracesOf([&] { subject = subjectOf(X509_REQ_T(data, key())); });
    EXPECT_EQ(subject, "ST=s, L=l, O=o");
    EXPECT_THAT(traces, HasSubstr("Subject entry C is not accepted: 'FRA'\n"));
    EXPECT_THAT(traces, HasSubstr("Subject entry CN is not accepted: '" + std::string(65, 'x') + "'\n"));
}

TEST_F(Request, ItIsTracedStepByStep) {
    key();  // made at its first use, which is traced too
    EXPECT_EQ(tracesOf([] { const X509_REQ_T request(settings(), key()); }),
              "Creating new x509 certificate signing request...\n"
              "Signing the x509 CSR with the private key...\n"
              "Creating new x509 certificate signing request... Done.\n");
    expectLog({});
}

TEST_F(Request, AnExtensionWithoutValueIsLeftOutSilently) {
    kwdata::CCertificateData data = settings();
    data.v3Extention = {
        {"keyUsage", "", "", ""}, {"unknownName", "", "", ""}, {"basicConstraints", "CA:FALSE", "", ""}};
    EXPECT_EQ(extensionCount(X509_REQ_T(data, key())), 1);
    expectLog({});
}

TEST_F(Request, AnUnknownExtensionIsLoggedAndLeftOut) {
    kwdata::CCertificateData data = settings();
    data.v3Extention = {{"nsComment", "hello", "hello", ""}, {"basicConstraints", "CA:FALSE", "", ""}};
    EXPECT_EQ(extensionCount(X509_REQ_T(data, key())), 1);
    expectLog({{SeverityInfo, "v3Extension not found while adding extension to CSR"}});
}

TEST_F(Request, ARejectedExtensionIsLeftOutSilently) {
    kwdata::CCertificateData data = settings();
    const std::string value = kwdata::CCertificateData::CERTIFICATE_v3_EXT_KEY_USAGE;
    data.v3Extention = {{"keyUsage", value, value, ""}, {"basicConstraints", "CA:FALSE", "", ""}};
    EXPECT_EQ(extensionCount(X509_REQ_T(data, key())), 1);
    expectLog({});
}

TEST_F(Request, ABadAlternativeNameIsLoggedByName) {
    kwdata::CCertificateData data = settings();
    const std::string value = "DNS.1:ok,IP.1:300.1.1.1,DNS.2:fine";
    data.v3Extention = {{"subjectAltName", value, value, ""}};
    EXPECT_EQ(extensionCount(X509_REQ_T(data, key())), 0);
    expectLog({{SeverityError,
                "Extension subjectAltName is left out, its value is not accepted: "
                "'DNS.1:ok,IP.1:300.1.1.1,DNS.2:fine' "
                "(because of 'IP.1:300.1.1.1')"}});
}

TEST_F(Request, ValuesThatNameASectionAreRejected) {
    kwdata::CCertificateData data = settings();
    for (const char* name :
         {"subjectKeyIdentifier", "basicConstraints", "keyUsage", "extendedKeyUsage", "subjectAltName"}) {
        data.v3Extention = {{name, "@section", "", ""}};
        if (std::string(name) != "subjectKeyIdentifier") {
            EXPECT_EQ(extensionCount(X509_REQ_T(data, key())), 0) << name;
        }
    }
    data.v3Extention = {{"subjectAltName", "dirName:section", "", ""},
                        {"subjectAltName", "otherName:1.2.3;SEQUENCE:s", "", ""}};
    EXPECT_EQ(extensionCount(X509_REQ_T(data, key())), 0);
}

TEST_F(Request, WithoutExtensionsItCarriesNoAttribute) {
    kwdata::CCertificateData data = settings();
    data.v3Extention.clear();
    EXPECT_EQ(X509_REQ_get_attr_count(X509_REQ_T(data, key()).get()), 0);
}

TEST_F(Request, EveryStepFailsWithItsText) {
    const std::vector<std::pair<std::string, std::string>> steps = {
        {"X509_REQ_new", "Failed to create new X509_REQ object: "},
        {"OPENSSL_sk_new_null", "Failed to initialize Stack of extensions object."},
        {"X509_REQ_sign", "Failed to sign the CSR."},
    };
    const EVP_PKEY_T& pair = key();
    for (const auto& [function, text] : steps) {
        const CryptoFault fault(function);
        EXPECT_EQ(creationFailure(settings(), pair), text);
        EXPECT_TRUE(CryptoFault::struck()) << function;
    }
}

TEST_F(Request, WithoutKeyItIsNotSigned) {
    EXPECT_EQ(creationFailure(settings(), EVP_PKEY_T()), "Failed to sign the CSR.");
}

}  // namespace
