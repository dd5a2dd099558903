#include <gmock/gmock.h>
#include <openssl/x509.h>

#include "tests/unit/x509/X509Fixture.h"
#include "x509/Inspection.h"
#include "x509/OpenSslPtr.h"
#include "x509/Signing.h"
#include "x509/Validation.h"

namespace {

using keywarden::EVP_PKEY_T;
using keywarden::SeverityError;
using keywarden::SeverityInfo;
using keywarden::signX509WithCA;
using keywarden::X509_REQ_T;
using keywarden::X509_T;
using testing::HasSubstr;
using testsupport::CertificateOptions;
using testsupport::IssuedCertificate;
using testsupport::tracesOf;

constexpr unsigned long long kYear = 365ULL * kDay;

/// A certificate authority that is valid from a year before to ten years after now.
class CaSigning : public X509Fixture {
  protected:
    static IssuedCertificate authority() {
        CertificateOptions options;
        options.commonName = "authority";
        options.ca = true;
        options.notBefore = kNow - 365 * kDay;
        options.notAfter = kNow + 3650 * kDay;
        return makeCertificate(options);
    }
    [[nodiscard]] X509_T signedFor(const X509_REQ_T& request, unsigned long long from = kNow,
                                   unsigned long long until = kNow + kYear,
                                   unsigned long long seconds = kYear) const {
        return signX509WithCA(certificate_, caKey_, request, from, until, seconds);
    }
    [[nodiscard]] std::string signingFailure(const X509_REQ_T& request) const {
        return failureOf([&] { static_cast<void>(signedFor(request)); });
    }
    static X509_REQ_T request() { return {settings(), key()}; }

    const IssuedCertificate authority_ = authority();
    const X509_T certificate_ = X509_T::fromPem(authority_.certificatePem);
    const EVP_PKEY_T caKey_{sandbox_.write("ca.key", authority_.keyPem)};
};

TEST_F(CaSigning, AnotherProgramVerifiesTheChain) {
    sandbox_.write("ca.pem", authority_.certificatePem);
    EXPECT_THAT(openssl("verify -attime 1772400000 -CAfile ca.pem {}", signedFor(request()).toPem()),
                HasSubstr("openssl.pem: OK\n"));
}

TEST_F(CaSigning, SubjectKeyAndExtensionsAreTheRequestsAndTheIssuerIsTheCa) {
    const X509_T made = signedFor(request());
    EXPECT_EQ(keywarden::issuer_one_line(made), "CN=authority");
    EXPECT_EQ(
        keywarden::subject_one_line(made),
        "emailAddress=a@b.example, C=FR, ST=Isere, L=Ville, O=Firm, Inc., OU=one, OU=two, CN=host.local");
    EXPECT_TRUE(keyMatchesCertificate(key(), made));
    EXPECT_EQ(X509_get_ext_count(made.get()), 5);
    EXPECT_EQ(alternativeNamesOf(made).hostnames, (std::vector<std::string>{"host.local", "10.0.0.5"}));
    EXPECT_EQ(notBeforeOf(made), static_cast<std::uint64_t>(kNow));
    EXPECT_EQ(notAfterOf(made), kNow + kYear);
    expectLog({});
}

TEST_F(CaSigning, ItIsAlwaysVersion3) {
    kwdata::CCertificateData data = settings();
    data.cert_version = 1;
    EXPECT_EQ(X509_get_version(signedFor(X509_REQ_T(data, key())).get()), 2);
}

TEST_F(CaSigning, ARequestOfAnotherProgramIsSigned) {
    CertificateOptions options;
    options.dns = {"a.local"};
    options.ips = {"fe80::1"};
    const std::string pem = testsupport::makeRequest(options).requestPem;
    const X509_T made = signedFor(X509_REQ_T(sandbox_.write("foreign.csr", pem)));
    EXPECT_EQ(alternativeNamesOf(made).ips, std::vector<std::string>{"fe80::1"});
}

TEST_F(CaSigning, SuccessIsTraced) {
    const X509_REQ_T csr = request();
    EXPECT_EQ(tracesOf([&] { static_cast<void>(signedFor(csr)); }),
              "Generated CA signed certificate successfully!\n");
}

TEST_F(CaSigning, ARequestWithoutExtensionsIsNotSigned) {
    kwdata::CCertificateData data = settings();
    data.v3Extention.clear();
    const X509_REQ_T csr(data, key());
    std::string failure;
    EXPECT_EQ(tracesOf([&] { failure = signingFailure(csr); }), "No extensions found on CSR\n\n");
    EXPECT_EQ(failure, "Unable to copy CSR extensions on certificate");
}

TEST_F(CaSigning, AForeignRequestWithoutExtensionsIsNotSigned) {
    const X509_REQ_T csr(sandbox_.write("bare.csr", testsupport::makeRequest({}).requestPem));
    EXPECT_EQ(signingFailure(csr), "Unable to copy CSR extensions on certificate");
}

TEST_F(CaSigning, AnExtensionThatTheCertificateHasIsNotCopied) {
    X509_T certificate(X509_new());
    ASSERT_TRUE(keywarden::add_cert_ext(certificate, NID_basic_constraints, "CA:TRUE"));
    ASSERT_TRUE(keywarden::pki_ossl_copy_extensions(request(), certificate));
    EXPECT_EQ(X509_get_ext_count(certificate.get()), 5);
    const X509_EXTENSION* own =
        X509_get_ext(certificate.get(), X509_get_ext_by_NID(certificate.get(), NID_basic_constraints, -1));
    EXPECT_EQ(X509_EXTENSION_get_critical(own), 0);  // the request's is critical
}

TEST_F(CaSigning, AFailedCopyIsLoggedWithTheLookUpsIndex) {
    X509_T certificate(X509_new());
    const X509_REQ_T csr = request();
    const CryptoFault fault("X509_add_ext", 2);
    EXPECT_FALSE(keywarden::pki_ossl_copy_extensions(csr, certificate));
    EXPECT_TRUE(CryptoFault::struck());
    expectLog({{SeverityInfo, "Unable to copy extension idx: -1"}});
}

TEST_F(CaSigning, AnExtensionWithoutObjectIsSkipped) {
    X509_T certificate(X509_new());
    const X509_REQ_T csr = request();
    const CryptoFault fault("X509_EXTENSION_get_object");
    EXPECT_TRUE(keywarden::pki_ossl_copy_extensions(csr, certificate));
    EXPECT_TRUE(CryptoFault::struck());
    EXPECT_EQ(X509_get_ext_count(certificate.get()), 4);
}

TEST_F(CaSigning, AnInvertedPeriodFails) {
    std::string failure = failureOf(
        [&] { static_cast<void>(signedFor(request(), kNow + 4000 * kDay, kNow + 5000 * kDay, kYear)); });
    EXPECT_EQ(failure, "Failed to set certificate time.");
    expectLog(
        {{SeverityError, "Certificate creation aborted because end date is set prior to the start date"}});
}

TEST_F(CaSigning, EveryStepFailsWithItsText) {
    const X509_REQ_T csr = request();
    const std::vector<std::pair<std::string, std::string>> steps = {
        {"X509_new", "Create crt. Failed to allocate new X509 object.."},
        {"X509_set_version", "Create crt.Failed to set version.."},
        {"X509_set_issuer_name", "Create crt.Failed to set issuer name loadCA.."},
        {"X509_set_subject_name", "Create crt.Failed to set subject name.."},
        {"X509_REQ_get_pubkey", "Create crt.Failed  to set pubkey.."},
        {"X509_set_pubkey", "Create crt.Failed  to set pubkey.."},
        {"X509_add_ext", "Unable to copy CSR extensions on certificate"},
        {"X509_sign", "Create crt.Failed to sign csr.."},
    };
    for (const auto& [function, text] : steps) {
        const CryptoFault fault(function);
        EXPECT_EQ(signingFailure(csr), text);
        EXPECT_TRUE(CryptoFault::struck()) << function;
    }
}

TEST_F(CaSigning, AFailedSerialDoesNotStopIt) {
    const X509_REQ_T csr = request();
    const CryptoFault fault("BN_rand");
    EXPECT_EQ(signingFailure(csr), "no failure");
    EXPECT_TRUE(CryptoFault::struck());
}

TEST_F(CaSigning, EmptyHandlesFailInTheirSteps) {
    const X509_REQ_T csr = request();
    EXPECT_EQ(failureOf([&] {
                  static_cast<void>(signX509WithCA(X509_T(), caKey_, csr, kNow, kNow + kYear, kYear));
              }),
              "Create crt.Failed to set issuer name loadCA..");
    EXPECT_EQ(
        failureOf([&] {
            static_cast<void>(signX509WithCA(certificate_, EVP_PKEY_T(), csr, kNow, kNow + kYear, kYear));
        }),
        "Create crt.Failed to sign csr..");
    EXPECT_EQ(signingFailure(X509_REQ_T()), "Create crt.Failed to set subject name..");
}

// The helpers.

TEST_F(CaSigning, ANullStackIsRefusedAndLogged) {
    EXPECT_FALSE(keywarden::add_ext(nullptr, NID_basic_constraints, "CA:TRUE", nullptr));
    expectLog(
        {{SeverityError, "Received empty stack of extensions object or empty certificate request object"}});
}

TEST_F(CaSigning, ABadValueIsRefusedSilently) {
    const keywarden::OwnedExtensions stack(sk_X509_EXTENSION_new_null());
    EXPECT_FALSE(keywarden::add_ext(stack.get(), NID_basic_constraints, "nonsense", nullptr));
    EXPECT_TRUE(keywarden::add_ext(stack.get(), NID_basic_constraints, "CA:TRUE", nullptr));
    EXPECT_EQ(sk_X509_EXTENSION_num(stack.get()), 1);
    X509_T certificate(X509_new());
    EXPECT_FALSE(keywarden::add_cert_ext(certificate, NID_basic_constraints, "nonsense"));
    EXPECT_TRUE(keywarden::add_cert_ext(certificate, NID_basic_constraints, "CA:TRUE"));
    EXPECT_EQ(X509_get_ext_count(certificate.get()), 1);
    expectLog({});
}

TEST_F(CaSigning, TheResultOfAddingIsNotChecked) {
    X509_T certificate(X509_new());
    const CryptoFault fault("X509_add_ext");
    EXPECT_TRUE(keywarden::add_cert_ext(certificate, NID_basic_constraints, "CA:TRUE"));
    EXPECT_EQ(X509_get_ext_count(certificate.get()), 0);
}

}  // namespace
