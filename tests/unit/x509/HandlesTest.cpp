#include <openssl/pem.h>

#include "tests/unit/x509/X509Fixture.h"
#include "x509/Inspection.h"
#include "x509/OpenSslPtr.h"

namespace {

using keywarden::EVP_PKEY_T;
using keywarden::SeverityError;
using keywarden::X509_REQ_T;
using keywarden::X509_T;
using testsupport::IssuedCertificate;
using testsupport::makeCertificate;
using testsupport::Sandbox;

class Handles : public X509Fixture {
  protected:
    [[nodiscard]] std::string certificateFailure(const std::string& path) const {
        return failureOf([&] { const X509_T certificate(path); });
    }
    [[nodiscard]] std::string keyFailure(const std::string& path) const {
        return failureOf([&] { const EVP_PKEY_T read(path); });
    }
    [[nodiscard]] std::string requestFailure(const std::string& path) const {
        return failureOf([&] { const X509_REQ_T request(path); });
    }
    static std::string toPemFailure(const X509_T& certificate) {
        return failureOf([&] { static_cast<void>(certificate.toPem()); });
    }
    static std::string requestToPemFailure(const X509_REQ_T& request) {
        return failureOf([&] { static_cast<void>(x509CsrToPem(request)); });
    }
    static std::string keyToPemFailure(const EVP_PKEY_T& pair) {
        return failureOf([&] { static_cast<void>(privateKeyToPem(pair)); });
    }

    const IssuedCertificate fixture_ = makeCertificate({});
    const std::string certificatePath_ = sandbox_.write("cert.pem", fixture_.certificatePem);
    const std::string keyPath_ = sandbox_.write("key.pem", fixture_.keyPem);
    const std::string junkPath_ =
        sandbox_.write("junk", std::string("\x30\x82\0\xFF-----BEGIN", 14) + std::string(9000, '\x07'));
};

// Certificates.

TEST_F(Handles, ACertificateFileIsReadAndWrittenBackUnchanged) {
    EXPECT_EQ(X509_T(certificatePath_).toPem(), fixture_.certificatePem);
    EXPECT_EQ(X509_T::fromPem(fixture_.certificatePem).toPem(), fixture_.certificatePem);
}

TEST_F(Handles, TheFirstOfTwoCertificatesIsRead) {
    const std::string two = "a comment\n" + fixture_.certificatePem + makeCertificate({}).certificatePem;
    EXPECT_EQ(X509_T(sandbox_.write("two.pem", two)).toPem(), fixture_.certificatePem);
    EXPECT_EQ(X509_T::fromPem(two).toPem(), fixture_.certificatePem);
}

TEST_F(Handles, WhatIsNoCertificateFileFails) {
    for (const std::string& path :
         {sandbox_.path("missing"), keyPath_, sandbox_.path(), junkPath_, sandbox_.write("empty", "")}) {
        EXPECT_EQ(certificateFailure(path), "Failed to read certificate from file: " + path);
    }
}

TEST_F(Handles, ACutOffCertificateFails) {
    const std::string path = sandbox_.write("cut.pem", fixture_.certificatePem.substr(0, 200));
    EXPECT_EQ(certificateFailure(path), "Failed to read certificate from file: " + path);
}

TEST_F(Handles, TextWithoutCertificateFails) {
    for (const std::string& text : {std::string(), fixture_.keyPem, std::string("\0junk", 5)}) {
        EXPECT_EQ(failureOf([&] { static_cast<void>(X509_T::fromPem(text)); }),
                  "Failed to read certificate from text.");
    }
}

TEST_F(Handles, AnEmptyCertificateHandleIsNotWritten) {
    EXPECT_EQ(toPemFailure(X509_T()), "Invalid certificate object for converting to PEM format.");
}

TEST_F(Handles, ACertificateThatCannotBeEncodedIsNotWritten) {
    EXPECT_EQ(toPemFailure(X509_T(X509_new())), "Failed to write certificate to BIO");
}

TEST_F(Handles, EveryStepOfWritingACertificateFailsWithItsText) {
    const X509_T certificate(certificatePath_);
    const std::vector<std::pair<std::string, std::string>> steps = {
        {"BIO_new", "Failed to allocate memory for BIO"},
        {"PEM_write_bio_X509", "Failed to write certificate to BIO"},
        {"BIO_number_written", "Failed to allocate memory to hold certificate data during conversion"},
        {"BIO_read", "Error during reading private key from BIO object!"},
    };
    for (const auto& [function, text] : steps) {
        const CryptoFault fault(function);
        EXPECT_EQ(toPemFailure(certificate), text);
        EXPECT_TRUE(CryptoFault::struck()) << function;
    }
}

TEST_F(Handles, CertificatesAreEqualWhenTheirPemTextsAre) {
    const X509_T certificate(certificatePath_);
    EXPECT_TRUE(certificate == X509_T(certificatePath_));
    EXPECT_FALSE(certificate == X509_T::fromPem(makeCertificate({}).certificatePem));
    expectLog({});
}

TEST_F(Handles, AnEmptyHandleIsNotEqualAndLogged) {
    EXPECT_FALSE(X509_T() == X509_T());
    expectLog(
        {{SeverityError, "std::exception caught: Invalid certificate object for converting to PEM format."}});
}

TEST_F(Handles, AnythingElseThatIsThrownWhileComparingIsLogged) {
    const X509_T certificate(certificatePath_);
    const CryptoFault fault("PEM_write_bio_X509", 1, CryptoFault::Kind::NoStandardThrow);
    EXPECT_FALSE(certificate == certificate);
    expectLog({{SeverityError, "Unknown exception caught."}});
}

TEST_F(Handles, AFailureWithoutTextWhileComparingIsAnUnknownError) {
    const X509_T certificate(certificatePath_);
    const CryptoFault fault("PEM_write_bio_X509", 1, CryptoFault::Kind::EmptyThrow);
    EXPECT_FALSE(certificate == certificate);
    expectLog({{SeverityError, "std::exception caught: Unknown error"}});
}

TEST_F(Handles, AMovedHandleIsEmpty) {
    X509_T first(certificatePath_);
    const X509_T second(std::move(first));
    EXPECT_EQ(second.toPem(), fixture_.certificatePem);
    // What is asked for: NOLINTNEXTLINE(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
    EXPECT_EQ(first.get(), nullptr);
}

// Keys.

TEST_F(Handles, AKeyFileIsReadAndWrittenBackUnchanged) {
    EXPECT_EQ(privateKeyToPem(EVP_PKEY_T(keyPath_)), fixture_.keyPem);
}

TEST_F(Handles, AKeyOfAnotherProgramIsRead) {
    openssl("ecparam -name prime256v1 -genkey -out sec1.pem");
    openssl("genrsa -traditional -out rsa.pem 1024");
    EXPECT_EQ(getPublicKeyType(EVP_PKEY_T(sandbox_.path("sec1.pem"))), "ecc");
    EXPECT_EQ(getPublicKeyType(EVP_PKEY_T(sandbox_.path("rsa.pem"))), "rsa");
}

TEST_F(Handles, WhatIsNoKeyFileFails) {
    for (const std::string& path : {sandbox_.path("missing"), certificatePath_, sandbox_.path(), junkPath_}) {
        EXPECT_EQ(keyFailure(path), "Extract of private key from file failed.");
    }
}

TEST_F(Handles, AnEncryptedKeyFailsWithoutAPrompt) {
    openssl("pkcs8 -topk8 -in key.pem -out pkcs8.pem -passout pass:secret");
    openssl("ec -aes128 -in key.pem -out traditional.pem -passout pass:secret");
    ASSERT_NE(Sandbox::read(sandbox_.path("pkcs8.pem")).find("BEGIN ENCRYPTED PRIVATE KEY"),
              std::string::npos);
    ASSERT_NE(Sandbox::read(sandbox_.path("traditional.pem")).find("Proc-Type: 4,ENCRYPTED"),
              std::string::npos);
    const int before = passwordPrompts();
    EXPECT_EQ(keyFailure(sandbox_.path("pkcs8.pem")), "Extract of private key from file failed.");
    EXPECT_EQ(keyFailure(sandbox_.path("traditional.pem")), "Extract of private key from file failed.");
    EXPECT_EQ(passwordPrompts(), before);
}

TEST_F(Handles, EncryptedCertificatesAndRequestsFailWithoutAPrompt) {
    const std::string encrypted =
        "-----BEGIN CERTIFICATE-----\nProc-Type: 4,ENCRYPTED\n"
        "DEK-Info: AES-128-CBC,00112233445566778899AABBCCDDEEFF\n\nAAAAAAAAAAAAAAAAAAAAAA==\n"
        "-----END CERTIFICATE-----\n";
    std::string request = encrypted;
    for (std::size_t at = request.find("CERTIFICATE-"); at != std::string::npos;
         at = request.find("CERTIFICATE-", at + 20)) {
        request.replace(at, 12, "CERTIFICATE REQUEST-");
    }
    const std::string certificatePath = sandbox_.write("encrypted.pem", encrypted);
    const std::string requestPath = sandbox_.write("encrypted.csr", request);
    // The default would have asked: the texts are ones that it asks for.
    const keywarden::BioPtr bio(BIO_new_mem_buf(request.data(), static_cast<int>(request.size())));
    const int before = passwordPrompts();
    EXPECT_EQ(PEM_read_bio_X509_REQ(bio.get(), nullptr, nullptr, nullptr), nullptr);
    ASSERT_EQ(passwordPrompts(), before + 1);
    ERR_clear_error();

    EXPECT_EQ(certificateFailure(certificatePath),
              "Failed to read certificate from file: " + certificatePath);
    EXPECT_EQ(failureOf([&] { static_cast<void>(X509_T::fromPem(encrypted)); }),
              "Failed to read certificate from text.");
    EXPECT_EQ(requestFailure(requestPath), "Failed to read csr from BIO buffer for file " + requestPath);
    EXPECT_EQ(passwordPrompts(), before + 1);
}

TEST_F(Handles, AnEmptyKeyHandleIsNotWritten) {
    EXPECT_EQ(keyToPemFailure(EVP_PKEY_T()), "Invalid keys object for converting to PEM format.");
}

TEST_F(Handles, APublicKeyIsNotWrittenAsAPrivateOne) {
    EXPECT_EQ(keyToPemFailure(EVP_PKEY_T(X509_T(certificatePath_))),
              "Failed to convert the private key to BIO");
}

TEST_F(Handles, EveryStepOfWritingAKeyFailsWithItsText) {
    const EVP_PKEY_T pair(keyPath_);
    const std::vector<std::pair<std::string, std::string>> steps = {
        {"BIO_new", "Failed to allocate memory for BIO for keys"},
        {"BIO_number_written", "Failed to allocate memory to hold keys data during conversion"},
        {"BIO_read", "Error during reading keys from BIO object!"},
    };
    for (const auto& [function, text] : steps) {
        const CryptoFault fault(function);
        EXPECT_EQ(keyToPemFailure(pair), text);
        EXPECT_TRUE(CryptoFault::struck()) << function;
    }
}

TEST_F(Handles, TheCertificatesPublicKeyIsExtracted) {
    const X509_T certificate(certificatePath_);
    EXPECT_EQ(EVP_PKEY_eq(EVP_PKEY_T(certificate).get(), EVP_PKEY_T(keyPath_).get()), 1);
}

TEST_F(Handles, WithoutCertificateThereIsNoPublicKey) {
    EXPECT_EQ(failureOf([] { const EVP_PKEY_T none{X509_T()}; }), "Extraction of public key failed");
}

TEST_F(Handles, WithoutRequestThereIsNoPublicKeyAndTheTextEndsInAFullStop) {
    EXPECT_EQ(failureOf([] { const EVP_PKEY_T none{X509_REQ_T()}; }), "Extraction of public key failed.");
}

TEST_F(Handles, PublicKeyTypesHaveTheirNames) {
    openssl("dsaparam -genkey -out dsa.pem 1024");
    openssl("genpkey -algorithm DH -pkeyopt group:ffdhe2048 -out dh.pem");
    openssl("genpkey -algorithm ED25519 -out ed.pem");
    openssl("genpkey -algorithm ED448 -out other.pem");
    openssl("genrsa -out rsa.pem 1024");
    EXPECT_EQ(getPublicKeyType(EVP_PKEY_T(sandbox_.path("rsa.pem"))), "rsa");
    EXPECT_EQ(getPublicKeyType(EVP_PKEY_T(sandbox_.path("dsa.pem"))), "dsa");
    EXPECT_EQ(getPublicKeyType(EVP_PKEY_T(keyPath_)), "ecc");
    EXPECT_EQ(getPublicKeyType(EVP_PKEY_T(sandbox_.path("ed.pem"))), "ed25519");
    EXPECT_EQ(getPublicKeyType(EVP_PKEY_T(sandbox_.path("other.pem"))), "");
    EXPECT_EQ(getPublicKeyType(EVP_PKEY_T()), "");
    EXPECT_EQ(getPublicKeyType(EVP_PKEY_T(sandbox_.path("dh.pem"))), "dh");
}

// Requests.

TEST_F(Handles, ARequestFileIsReadAndWrittenBackUnchanged) {
    const testsupport::MadeRequest made = testsupport::makeRequest({});
    EXPECT_EQ(x509CsrToPem(X509_REQ_T(sandbox_.write("request.csr", made.requestPem))), made.requestPem);
}

TEST_F(Handles, AMissingRequestFileFailsWithItsOwnText) {
    EXPECT_EQ(requestFailure(sandbox_.path("missing")),
              "Failed allocate memory for BIO buffer during loading csr file: " + sandbox_.path("missing"));
}

TEST_F(Handles, WhatIsNoRequestFileFails) {
    for (const std::string& path : {certificatePath_, sandbox_.path(), junkPath_}) {
        EXPECT_EQ(requestFailure(path), "Failed to read csr from BIO buffer for file " + path);
    }
}

TEST_F(Handles, AnEmptyRequestHandleIsNotWritten) {
    EXPECT_EQ(requestToPemFailure(X509_REQ_T()), "Invalid Csr object for converting to PEM format.");
}

TEST_F(Handles, EveryStepOfWritingARequestFailsWithItsText) {
    const X509_REQ_T request(sandbox_.write("request.csr", testsupport::makeRequest({}).requestPem));
    const std::vector<std::pair<std::string, std::string>> steps = {
        {"BIO_new", "Failed to allocate memory for BIO for Csr"},
        {"PEM_write_bio_X509_REQ", "Failed to write certificate to BIO for Csr"},
        {"BIO_number_written", "Failed to allocate memory to hold Csr data during conversion"},
        {"BIO_read", "Error during reading Csr from BIO object!"},
    };
    for (const auto& [function, text] : steps) {
        const CryptoFault fault(function);
        EXPECT_EQ(requestToPemFailure(request), text);
        EXPECT_TRUE(CryptoFault::struck()) << function;
    }
}

}  // namespace
