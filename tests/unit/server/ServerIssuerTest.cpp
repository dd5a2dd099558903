// The issuer with a store, and nobody who watches the time.
#include <openssl/evp.h>

#include <optional>

#include "ServerFixture.h"
#include "server/ServerIssuer.h"
#include "x509/Inspection.h"

namespace servertest {

using keywarden::KeywardenDaemonException;
using keywarden::SeverityNotice;
using testsupport::CapturedLog;

namespace {

class ServerIssuer : public ServerTest {
  protected:
    void begin(const std::string& lines) {
        configure(lines);
        files_.emplace(configuration(), callbacks);
        issuer_.emplace(configuration(), *files_);
        ASSERT_FALSE(files_->start());
        clearLog();
    }
    [[nodiscard]] keywarden::ServerIssuer& issuer() { return *issuer_; }
    [[nodiscard]] keywarden::ServerStore& files() { return *files_; }
    [[nodiscard]] keywarden::X509_T certificate() const {
        return keywarden::X509_T(store().certPath(active()));
    }

  private:
    std::optional<keywarden::ServerStore> files_;
    std::optional<keywarden::ServerIssuer> issuer_;
};

TEST_F(ServerIssuer, GivesWhatItMakesToTheStoreAndSaysNoDays) {
    begin("selfSignedGeneration yes\nselfSignedValidity 10");
    issuer().createCertificate();
    ASSERT_NE(files().record(), nullptr) << CapturedLog::dump();
    EXPECT_TRUE(files().isCertificateSelfSigned());
    EXPECT_EQ(callbacks->events, std::vector<std::string>{"new " + active()});
    EXPECT_EQ(notBeforeOf(certificate()), static_cast<std::uint64_t>(kNow - kNow % kDay));
    EXPECT_EQ(notAfterOf(certificate()), static_cast<std::uint64_t>(kNow - kNow % kDay + 10 * kDay));
}

TEST_F(ServerIssuer, WithoutGenerationItOnlySaysSo) {
    begin("");
    issuer().createCertificate();
    EXPECT_FALSE(files().isCertificatePresent());
    EXPECT_EQ(CapturedLog::lines(),
              (std::vector<testsupport::LogLine>{
                  {SeverityNotice,
                   "Certificate for service '" + id + "' can not be created as signed type is disabled."}}));
}

TEST_F(ServerIssuer, EveryTypeOfKeyComesIntoForce) {
    for (const auto& [type, algorithm] :
         {std::pair("PRIME256V1", EVP_PKEY_EC), std::pair("SECP384R1", EVP_PKEY_EC),
          std::pair("ED25519", EVP_PKEY_ED25519), std::pair("RSA2048", EVP_PKEY_RSA)}) {
        begin("selfSignedGeneration yes\ncnfFile " +
              scratch("typed.cnf", std::string("CONFIG_KEY ") + type + "\nCN " + type + ".example\n"));
        issuer().createAndApplySelfSigned();
        const keywarden::X509_T made = certificate();
        EXPECT_EQ(EVP_PKEY_get_id(keywarden::EVP_PKEY_T(made).get()), algorithm) << type;
        EXPECT_TRUE(keyMatchesCertificate(keywarden::EVP_PKEY_T(store().certKeyPath(active())), made))
            << type;
        EXPECT_TRUE(isSelfSignedCertificate(made)) << type;
        files().updateActiveFile("");
    }
}

TEST_F(ServerIssuer, ATypeThatCannotBeMadeLeavesTheStoreAsItIs) {
    begin("cnfFile " + scratch("bad.cnf", "CONFIG_KEY SECP521R1\nCN unit.example\n"));
    EXPECT_EQ(failureOf<KeywardenDaemonException>([&] { issuer().createAndApplySelfSigned(); }),
              "Failed creating X509 Certificate for service '" + id + "' Unsupported key format.");
    EXPECT_FALSE(files().isCertificatePresent());
    EXPECT_EQ(callbacks->events, std::vector<std::string>());
}

TEST_F(ServerIssuer, ARequestIsAppliedThroughTheStore) {
    begin("");
    issuer().createCsr();
    const testsupport::IssuedCertificate pki = testsupport::makeCertificate({});
    const std::string pem = testsupport::certifyRequest(readFile(store().csrPath()), pki);
    issuer().applyCrt(scratch("signed.pem", pem));
    EXPECT_TRUE(files().isCertificateCASigned());
    EXPECT_EQ(callbacks->events, std::vector<std::string>{"new " + active()});
    EXPECT_FALSE(exists(store().csrPath()));
    EXPECT_EQ(codedFailureOf([&] { issuer().applyCrt(scratch("signed.pem", pem)); }).first, 21);
}

TEST_F(ServerIssuer, NamesWithoutAnyAreTheLocalHost) {
    begin("");
    const std::map<std::string, std::string> localhost = {{"DNS.1", "localhost"}};
    EXPECT_EQ(issuer().buildAltName(), localhost);
    EXPECT_EQ(issuer().buildAltName(keywarden::ServerIssuer::OverrideStaticConfig{true}), localhost);
}

}  // namespace

}  // namespace servertest
