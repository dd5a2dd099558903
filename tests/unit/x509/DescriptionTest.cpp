#include "x509/Description.h"

#include <gmock/gmock.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "tests/unit/x509/X509Fixture.h"
#include "x509/OpenSslPtr.h"

namespace {

using keywarden::get_cert_serial;
using keywarden::get_signature_algo_type;
using keywarden::getCertDataString;
using keywarden::getCsrDataString;
using keywarden::SeverityError;
using keywarden::SeverityNotice;
using keywarden::subject_alt_names;
using keywarden::writeV3Extensions;
using keywarden::X509_REQ_T;
using keywarden::X509_T;
using testing::HasSubstr;
using testing::Not;
using testsupport::CertificateOptions;
using testsupport::tracesOf;

class Description : public X509Fixture {
  protected:
    static X509_T certificateOf(const CertificateOptions& options) {
        return X509_T::fromPem(makeCertificate(options).certificatePem);
    }
    static CertificateOptions named(std::vector<std::string> dns, std::vector<std::string> ips) {
        CertificateOptions options;
        options.dns = std::move(dns);
        options.ips = std::move(ips);
        return options;
    }
    static std::string namesOf(const X509_T& certificate) {
        return subject_alt_names(X509_get0_extensions(certificate.get()));
    }
    /// A self-signed certificate made by the openssl command with these arguments.
    [[nodiscard]] X509_T foreign(const std::string& arguments) const {
        const std::string said = openssl(
            "req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout /dev/null -out "
            "foreign.pem " +
            arguments);
        EXPECT_TRUE(testsupport::Sandbox::exists(sandbox_.path("foreign.pem"))) << said;
        return X509_T(sandbox_.path("foreign.pem"));
    }
    [[nodiscard]] X509_T foreignWithNames(const std::string& names) const {
        const std::string config =
            sandbox_.write("names.cnf",
                           "[req]\ndistinguished_name=dn\nx509_extensions=ext\nprompt=no\n"
                           "[dn]\nCN=foreign\n[ext]\nsubjectAltName=" +
                               names + "\n[one]\nC=FR\nCN=one\n[two]\nO=Two, Inc.\nCN=two\n");
        return foreign("-config " + config);
    }
    static std::string descriptionFailure(const X509_T& certificate) {
        return failureOf([&] { getCertDataString(certificate); });
    }
    static std::string descriptionFailure(const X509_REQ_T& request) {
        return failureOf([&] { getCsrDataString(request); });
    }
    [[nodiscard]] X509_REQ_T requestOf(const CertificateOptions& options) const {
        return X509_REQ_T(sandbox_.write("request.csr", testsupport::makeRequest(options).requestPem));
    }
};

// Alternative names.

TEST_F(Description, NamesAreNumberedByKind) {
    EXPECT_EQ(namesOf(certificateOf(named({"a", "b", "c"}, {"10.0.0.5"}))),
              "DNS.1:a, DNS.2:b, DNS.3:c, IP.1:10.0.0.5");
}

TEST_F(Description, IPv6AddressesAreNotCompressedAndShareTheNumbers) {
    EXPECT_EQ(namesOf(certificateOf(named({}, {"10.0.0.5", "fe80::1", "2001:db8::ab"}))),
              "IP.1:10.0.0.5, IP.2:fe80:0:0:0:0:0:0:1, IP.3:2001:db8:0:0:0:0:0:ab");
}

TEST_F(Description, LabelsAreInByteOrder) {
    EXPECT_EQ(namesOf(certificateOf(named({"a", "b", "c", "d", "e", "f", "g", "h", "i", "j"}, {}))),
              "DNS.1:a, DNS.10:j, DNS.2:b, DNS.3:c, DNS.4:d, DNS.5:e, DNS.6:f, DNS.7:g, DNS.8:h, DNS.9:i");
}

TEST_F(Description, OfFoldersAndAddressesTheLastOneIsKept) {
    EXPECT_EQ(namesOf(foreignWithNames("email:a@b,dirName:one,DNS:host,IP:10.0.0.5,email:c@d,dirName:two")),
              "DNS.1:host, DirName:O=Two, Inc., CN=two, Email:c@d, IP.1:10.0.0.5");
}

TEST_F(Description, OtherKindsOfNamesAreTracedAndSkipped) {
    const X509_T certificate = foreignWithNames("URI:http://a/,RID:1.2.3,DNS:host");
    std::string names;
    EXPECT_EQ(tracesOf([&] { names = namesOf(certificate); }),
              "could not recognize subject alternate name.\ncould not recognize subject alternate name.\n");
    EXPECT_EQ(names, "DNS.1:host");
}

TEST_F(Description, AnAddressOfNeitherFamilyIsTracedAndSkipped) {
    X509_T certificate(X509_new());
    const keywarden::GeneralNamesPtr names(GENERAL_NAMES_new());
    GENERAL_NAME* name = GENERAL_NAME_new();
    ASN1_OCTET_STRING* address = ASN1_OCTET_STRING_new();
    ASN1_OCTET_STRING_set(address, reinterpret_cast<const unsigned char*>("12345"), 5);
    GENERAL_NAME_set0_value(name, GEN_IPADD, address);
    sk_GENERAL_NAME_push(names.get(), name);
    X509_add1_ext_i2d(certificate.get(), NID_subject_alt_name, names.get(), 0, 0);
    EXPECT_EQ(tracesOf([&] { EXPECT_EQ(namesOf(certificate), ""); }),
              "could not recognize subject alternate name.\n");
}

TEST_F(Description, ANameWithoutDataIsLoggedAndSkipped) {
    const X509_T certificate = certificateOf(named({"a", "b"}, {}));
    const CryptoFault fault("ASN1_STRING_get0_data");
    EXPECT_EQ(namesOf(certificate), "DNS.1:b");
    EXPECT_TRUE(CryptoFault::struck());
    expectLog({{SeverityError, "ASN1_STRING_get0_data returns NULL"}});
}

TEST_F(Description, NoListOfExtensionsIsLogged) {
    EXPECT_EQ(subject_alt_names(nullptr), "");
    expectLog({{SeverityError, "invalid v3extension list pointer"}});
}

TEST_F(Description, WithoutNamesTheTextIsEmptyAndTraced) {
    CertificateOptions options;
    options.ca = true;
    const X509_T certificate = certificateOf(options);
    EXPECT_EQ(tracesOf([&] { EXPECT_EQ(namesOf(certificate), ""); }), "No subject alternate names found\n");
}

// Serial and algorithm.

TEST_F(Description, ASerialIsUpperCaseWithTwoDigitsAByte) {
    EXPECT_EQ(get_cert_serial(foreign("-subj /CN=a -set_serial 0x0a0b0c")), "0A0B0C");
    EXPECT_EQ(get_cert_serial(foreign("-subj /CN=a -set_serial 0xabcdef0123456789")), "ABCDEF0123456789");
    EXPECT_EQ(get_cert_serial(foreign("-subj /CN=a -set_serial 0")), "00");
}

TEST_F(Description, AnEmptyHandleHasNoSerialAndIsLogged) {
    EXPECT_EQ(get_cert_serial(X509_T()), "");
    expectLog({{SeverityError, "x509 object is invalid"}});
}

TEST_F(Description, ACertificateWithoutSerialGivesNothing) {
    EXPECT_EQ(get_cert_serial(X509_T(X509_new())), "");
    expectLog({});
}

TEST_F(Description, TheSignatureAlgorithmHasItsLongName) {
    CertificateOptions rsa;
    rsa.keyType = "RSA";
    EXPECT_EQ(get_signature_algo_type(certificateOf({}), X509_REQ_T()), "ecdsa-with-SHA256");
    EXPECT_EQ(get_signature_algo_type(certificateOf(rsa), requestOf({})), "sha256WithRSAEncryption");
    EXPECT_EQ(get_signature_algo_type(X509_T(), requestOf({})), "ecdsa-with-SHA256");
}

TEST_F(Description, WithoutCertificateAndRequestThereIsNoAlgorithm) {
    EXPECT_EQ(get_signature_algo_type(X509_T(), X509_REQ_T()), "");
    expectLog({{SeverityError, "X509 and X509_REQ objects invalid"}});
}

TEST_F(Description, AnUnknownAlgorithmIsLogged) {
    EXPECT_EQ(get_signature_algo_type(X509_T(X509_new()), X509_REQ_T()), "");
    expectLog({{SeverityError, "unable to find specified signature algorithm name"}});
}

TEST_F(Description, AnAlgorithmWithoutNameIsLogged) {
    const X509_T certificate = certificateOf({});
    const CryptoFault fault("OBJ_nid2ln");
    EXPECT_EQ(get_signature_algo_type(certificate, X509_REQ_T()), "");
    expectLog({{SeverityError, "error retrieving certificate/CSR signature algorithm type"}});
}

// Extensions.

class ExtensionList : public Description {
  protected:
    void expectFailure(const std::string& function, const std::string& text) {
        const CryptoFault fault(function);
        std::vector<kwdata::v3Ext> out;
        EXPECT_FALSE(writeV3Extensions(X509_get0_extensions(certificate_.get()), out));
        EXPECT_TRUE(CryptoFault::struck());
        EXPECT_TRUE(out.empty());
        expectLog({{SeverityError, text}});
    }

    const X509_T certificate_ = certificateOf(named({"a"}, {}));
};

TEST_F(ExtensionList, EveryExtensionIsPrintedUnderItsShortName) {
    CertificateOptions options = named({"a", "b"}, {"10.0.0.5"});
    options.ca = true;
    const X509_T certificate = certificateOf(options);
    std::vector<kwdata::v3Ext> out;
    EXPECT_TRUE(writeV3Extensions(X509_get0_extensions(certificate.get()), out));
    ASSERT_EQ(out.size(), 3U);
    EXPECT_EQ(out[0].obj_id, "basicConstraints");
    EXPECT_EQ(out[0].short_name, "CA:TRUE");
    EXPECT_EQ(out[1].obj_id, "keyUsage");
    EXPECT_EQ(out[1].short_name, "Certificate Sign, CRL Sign");
    EXPECT_EQ(out[2].obj_id, "subjectAltName");
    EXPECT_EQ(out[2].short_name, "DNS:a, DNS:b, IP Address:10.0.0.5");
    for (const kwdata::v3Ext& extension : out) {
        EXPECT_EQ(extension.long_name, extension.short_name);
        EXPECT_EQ(extension.comment, "");
    }
    expectLog({});
}

TEST_F(ExtensionList, AnUnknownExtensionIsShownAsBytesUnderItsNumber) {
    const X509_T certificate = foreign("-subj /CN=a -addext 1.2.3.4.5=DER:0403AB00CD");
    std::vector<kwdata::v3Ext> out;
    EXPECT_TRUE(writeV3Extensions(X509_get0_extensions(certificate.get()), out));
    ASSERT_FALSE(out.empty());
    EXPECT_EQ(out.back().obj_id, "1.2.3.4.5");
    EXPECT_EQ(out.back().short_name, "04:03:AB:00:CD");
    EXPECT_EQ(out.back().long_name, "04:03:AB:00:CD");
}

TEST_F(ExtensionList, AKnownExtensionThatCannotBeReadIsShownAsBytes) {
    const X509_T certificate = foreign("-subj /CN=a -addext keyUsage=DER:0401AB");
    std::vector<kwdata::v3Ext> out;
    EXPECT_TRUE(writeV3Extensions(X509_get0_extensions(certificate.get()), out));
    ASSERT_FALSE(out.empty());
    EXPECT_EQ(out.back().obj_id, "keyUsage");
    EXPECT_EQ(out.back().short_name, "04:01:AB");
}

TEST_F(ExtensionList, NoListIsLogged) {
    std::vector<kwdata::v3Ext> out;
    EXPECT_FALSE(writeV3Extensions(nullptr, out));
    expectLog({{SeverityError, "Error reading v3Extension list"}});
}

TEST_F(ExtensionList, AnEmptyListIsLogged) {
    const keywarden::OwnedExtensions none(sk_X509_EXTENSION_new_null());
    std::vector<kwdata::v3Ext> out;
    EXPECT_FALSE(writeV3Extensions(none.get(), out));
    expectLog({{SeverityError, "No v3extensions found"}});
}

TEST_F(ExtensionList, WithoutABioItFails) {
    expectFailure("BIO_new", "Error creating bio object");
}

TEST_F(ExtensionList, AMissingExtensionFails) {
    expectFailure("OPENSSL_sk_value", "Error retrieving v3extension from extension list");
}

TEST_F(ExtensionList, AnExtensionWithoutObjectFails) {
    expectFailure("X509_EXTENSION_get_object", "Error grtting v3extension object from certificate");
}

TEST_F(ExtensionList, AMissingBufferFails) {
    expectFailure("BIO_get_mem_ptr", "BIO_get_mem_ptr buf returns NULL");
}

TEST_F(ExtensionList, AnUnknownExtensionWithoutDataFails) {
    const X509_T certificate = foreign("-subj /CN=a -addext 1.2.3.4.5=DER:0403AB00CD");
    const CryptoFault fault("X509_EXTENSION_get_data");
    std::vector<kwdata::v3Ext> out;
    EXPECT_FALSE(writeV3Extensions(X509_get0_extensions(certificate.get()), out));
    EXPECT_TRUE(CryptoFault::struck());
    expectLog({{SeverityError, "Error getting v3 extension data."}});
}

// Certificates.

TEST_F(Description, ACertificateIsDescribedWholeWithItsNamesTwice) {
    CertificateOptions options = named({"a", "b"}, {"fe80::1"});
    options.organization = "Firm, Inc.";
    options.emailAddress = "a@b";
    options.notBefore = kNow;
    options.notAfter = 4102444800;
    const X509_T certificate = certificateOf(options);
    EXPECT_EQ(getCertDataString(certificate),
              "public_key_size_bits 256\n"
              "cert_serial " +
                  get_cert_serial(certificate) +
                  "\n"
                  "validity_days 365\n"
                  "cert_version 3\n"
                  "signatureAlgorithm_type ecdsa-with-SHA256\n"
                  "public_key_type ecc\n"
                  "validNotBeforeDate 1772323200\n"
                  "validNotAfterDate 4102444800\n"
                  "public_key \n"
                  "subject_name O=Firm, Inc., CN=device, email=a@b\n"
                  "issuer_name O=Firm, Inc., CN=device, email=a@b\n"
                  "v3Extention0 obj_id subjectAltName|short_name DNS.1:a, DNS.2:b, "
                  "IP.1:fe80:0:0:0:0:0:0:1|long_name "
                  "DNS.1:a, DNS.2:b, IP.1:fe80:0:0:0:0:0:0:1|comment \n"
                  "v3Extention1 obj_id subjectAltName|short_name DNS:a, DNS:b, IP "
                  "Address:FE80:0:0:0:0:0:0:1|long_name "
                  "DNS:a, DNS:b, IP Address:FE80:0:0:0:0:0:0:1|comment \n");
    expectLog({});
}

TEST_F(Description, AnRsaCertificateShowsItsKey) {
    CertificateOptions options;
    options.keyType = "RSA";
    const std::string text = getCertDataString(certificateOf(options));
    EXPECT_THAT(text, HasSubstr("public_key_size_bits 2048\n"));
    EXPECT_THAT(text, HasSubstr("public_key_type rsa\n"));
}

TEST_F(Description, AVersion1CertificateShows1) {
    openssl("req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout v1.key -out v1.csr -subj /CN=a");
    openssl("x509 -req -in v1.csr -signkey v1.key -out v1.pem");
    EXPECT_THAT(getCertDataString(X509_T(sandbox_.path("v1.pem"))), HasSubstr("cert_version 1\n"));
}

TEST_F(Description, ACertificateWithoutExtensionsIsDescribedAfterALogLine) {
    const std::string text = getCertDataString(certificateOf({}));
    EXPECT_THAT(text, testing::EndsWith("\nsubject_name CN=device\nissuer_name CN=device\n"));
    EXPECT_THAT(text, Not(HasSubstr("v3Extention")));
    expectLog(
        {{SeverityNotice, "no subject alternate names found"}, {SeverityError, "No v3extensions found"}});
}

TEST_F(Description, WithoutNamesALineIsLoggedAndTheOthersAreDescribed) {
    CertificateOptions options;
    options.ca = true;
    EXPECT_THAT(getCertDataString(certificateOf(options)),
                HasSubstr("\nv3Extention0 obj_id basicConstraints|short_name CA:TRUE|"));
    expectLog({{SeverityNotice, "no subject alternate names found"}});
}

TEST_F(Description, AnUnsupportedKindOfKeyFails) {
    CertificateOptions options = named({"a"}, {});
    options.keyType = "ED448";
    EXPECT_EQ(descriptionFailure(certificateOf(options)), "error creating ccertdata");
    expectLog({{SeverityError, "error retrieving certificate public key type"}});
}

TEST_F(Description, EveryStepFailsWithItsLine) {
    const X509_T certificate = certificateOf(named({"a"}, {}));
    const std::vector<std::pair<std::string, std::vector<std::string>>> steps = {
        {"X509_get0_serialNumber", {"error retrieving certificate serial number"}},
        {"X509_get_signature_nid",
         {"unable to find specified signature algorithm name",
          "error retrieving certificate signature algorithm type"}},
        {"EVP_PKEY_get_bits", {"error retrieving certificate public key size bits"}},
        {"X509_EXTENSION_get_object",
         {"Error grtting v3extension object from certificate", "failed to write v3 extensions"}},
    };
    for (const auto& [function, texts] : steps) {
        testsupport::CapturedLog::clear();
        const CryptoFault fault(function);
        EXPECT_EQ(descriptionFailure(certificate), "error creating ccertdata");
        EXPECT_TRUE(CryptoFault::struck()) << function;
        std::vector<testsupport::LogLine> expected;
        for (const std::string& text : texts) {
            expected.push_back({SeverityError, text});
        }
        expectLog(expected);
    }
}

TEST_F(Description, AnEmptyHandleIsNotDescribed) {
    EXPECT_EQ(descriptionFailure(X509_T()), "error creating ccertdata");
    EXPECT_EQ(descriptionFailure(X509_REQ_T()), "error creating ccsrdata");
}

// Requests.

TEST_F(Description, ARequestIsDescribedWhole) {
    kwdata::CCertificateData data = settings();
    data.subject.email_address.clear();
    EXPECT_THAT(getCsrDataString(X509_REQ_T(data, key())),
                testing::StartsWith(
                    "subject_name C=FR, ST=Isere, L=Ville, O=Firm, Inc., OU=one, OU=two, CN=host.local\n"
                    "public_key_size_bits 256\n"
                    "csr_version 3\n"
                    "public_key_type ecc\n"
                    "signatureAlgorithm_type ecdsa-with-SHA256\n"));
    EXPECT_THAT(getCsrDataString(X509_REQ_T(data, key())),
                HasSubstr("\nv3Extention0 obj_id subjectAltName|short_name DNS.1:host.local, DNS.2:10.0.0.5, "
                          "IP.1:10.0.0.5|"));
    EXPECT_THAT(getCsrDataString(X509_REQ_T(data, key())),
                HasSubstr("\nv3Extention5 obj_id subjectAltName|short_name DNS:host.local, DNS:10.0.0.5, IP "
                          "Address:10.0.0.5|"));
    expectLog({});
}

TEST_F(Description, ARequestWithoutExtensionsIsDescribedAfterALogLine) {
    EXPECT_EQ(getCsrDataString(requestOf({})),
              "subject_name CN=device\n"
              "public_key_size_bits 256\n"
              "csr_version 1\n"
              "public_key_type ecc\n"
              "signatureAlgorithm_type ecdsa-with-SHA256\n");
    expectLog(
        {{SeverityNotice, "no subject alternate names found"}, {SeverityError, "No v3extensions found"}});
}

TEST_F(Description, ARequestsStepsFailWithTheirLines) {
    const X509_REQ_T request = requestOf(named({"a"}, {}));
    const std::vector<std::pair<std::string, std::vector<std::string>>> steps = {
        {"X509_REQ_get_extensions", {"failed to read v3Extensions from csr object."}},
        {"X509_REQ_get_signature_nid",
         {"unable to find specified signature algorithm name",
          "error retrieving CSR signature algorithm type"}},
        {"X509_REQ_get_pubkey", {"error retrieving CSR public key type"}},
        {"EVP_PKEY_get_bits", {"error retrieving CSR public key size bits"}},
        {"X509_EXTENSION_get_object",
         {"Error grtting v3extension object from certificate",
          "failed to write v3 extensions to CCSRData object"}},
    };
    for (const auto& [function, texts] : steps) {
        testsupport::CapturedLog::clear();
        const CryptoFault fault(function);
        EXPECT_EQ(descriptionFailure(request), "error creating ccsrdata");
        EXPECT_TRUE(CryptoFault::struck()) << function;
        std::vector<testsupport::LogLine> expected;
        for (const std::string& text : texts) {
            expected.push_back({SeverityError, text});
        }
        expectLog(expected);
    }
}

}  // namespace
