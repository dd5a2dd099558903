// Certificates signed by another service of the device.
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "ServerFixture.h"
#include "x509/Inspection.h"
#include "x509/Validation.h"

namespace servertest {

using keywarden::InternalCertificatesAccessor;
using keywarden::KeywardenDaemonException;
using keywarden::Server;
using keywarden::ServiceConfiguration;
using keywarden::SeverityError;
using keywarden::SeverityNotice;
using keywarden::X509_T;
using testsupport::CapturedLog;
using testsupport::TestClock;

namespace {

class ServerCaSigned : public ServerTest {
  protected:
    ServerCaSigned() : caId("pki" + id) {}

    /// Makes the CA's service, with a certificate of a year from yesterday on.
    void startAuthority() {
        const std::string settings =
            scratch("ca.cnf",
                    "CONFIG_KEY PRIME256V1\nCN ca.example\n"
                    "subjectKeyIdentifier hash\nbasicConstraints critical,CA:TRUE\n");
        configureOther(caId,
                       "selfSignedGeneration yes\nselfSignedValidity 366\nselfSignedValidityOffset 1\n"
                       "cnfFile " +
                           settings);
        caConfiguration_ = std::make_unique<ServiceConfiguration>(caId);
        authority_ = std::make_unique<Server>(*caConfiguration_, std::make_shared<RecordingCallbacks>());
        ASSERT_TRUE(authority_->isCertificatePresent()) << CapturedLog::dump();
        clearLog();
    }
    void configureSigned(const std::string& lines = "") {
        configure("CASignedGeneration yes\nCAServiceId " + caId + "\n" + lines);
    }
    [[nodiscard]] Server& authority() { return *authority_; }
    [[nodiscard]] InternalCertificatesAccessor caStore() const { return {caId, "server"}; }
    [[nodiscard]] X509_T stored() const { return X509_T(store().certPath(active())); }
    std::string failure() {
        return failureOf<KeywardenDaemonException>([this] { server().createAndApplyCASigned(); });
    }
    [[nodiscard]] std::string loadingFailure(const std::string& reason) const {
        return "Std exception caught while loading CA files for service ' " + id + "' " + reason;
    }

    std::string caId;

  private:
    std::unique_ptr<ServiceConfiguration> caConfiguration_;
    std::unique_ptr<Server> authority_;
};

}  // namespace

TEST_F(ServerCaSigned, CertificateIsSignedByTheOtherServiceAndInstalled) {
    startAuthority();
    configureSigned("CASignedValidity 10");
    start();
    const X509_T ca(caStore().certPath(caStore().getActive()));
    EXPECT_EQ("ca.example", keywarden::issuerCommonName(stored()));
    EXPECT_EQ("unit.example", keywarden::subjectCommonName(stored()));
    EXPECT_EQ(1, X509_verify(stored().get(), X509_get0_pubkey(ca.get())));
    EXPECT_TRUE(
        keywarden::keyMatchesCertificate(keywarden::EVP_PKEY_T(store().certKeyPath(active())), stored()));
    EXPECT_EQ(std::vector<std::string>{"localhost"}, keywarden::alternativeNamesOf(stored()).hostnames);
    EXPECT_TRUE(server().isCertificateCASigned());
    EXPECT_FALSE(server().isCertificateSelfSigned());
    EXPECT_EQ("new " + active(), callbacks->events.at(0));
    EXPECT_EQ("0640 adm", rightsOf(store().certKeyPath(active())));
}

TEST_F(ServerCaSigned, LogLinesOfTheGenerationComeInOrder) {
    startAuthority();
    configureSigned();
    start();
    const auto all = CapturedLog::lines();
    ASSERT_GE(all.size(), 4U);
    EXPECT_EQ((testsupport::LogLine{SeverityNotice, "Create and Apply CA-Signed certificate for service '" +
                                                        id + "' as generatin is needed."}),
              all[1]);
    EXPECT_EQ((testsupport::LogLine{SeverityNotice,
                                    "The service " + id + " is creating a CA signed certificate..."}),
              all[2]);
}

TEST_F(ServerCaSigned, TracesComeInOrder) {
    startAuthority();
    configureSigned();
    start();
    const CapturedTraces captured;
    server().createAndApplyCASigned();
    const std::string text = captured.text();
    const std::size_t made = text.find("CA signed certificate for service " + id + " Ok.\n");
    const std::size_t installed = text.find(" Generate the certificate id...\n");
    const std::size_t done =
        text.find("Create and apply a CA signed certificate for service " + id + "... Done.\n");
    ASSERT_NE(std::string::npos, done) << text;
    EXPECT_LT(made, installed);
    EXPECT_LT(installed, done);
}

TEST_F(ServerCaSigned, PeriodIsThatOfItsOwnKeysNotOfTheAuthority) {
    startAuthority();
    configureSigned("selfSignedValidity 300\nCASignedValidity 20\nCASignedValidityOffset 1");
    start();
    EXPECT_EQ(1718323200U, keywarden::notBeforeOf(stored()));
    EXPECT_EQ(1718323200U + 20ULL * 86400U, keywarden::notAfterOf(stored()));
}

TEST_F(ServerCaSigned, RequestStaysInMemory) {
    startAuthority();
    configureSigned();
    start();
    EXPECT_FALSE(exists(store().csrPath()));
    EXPECT_FALSE(exists(store().csrKeyPath()));
}

TEST_F(ServerCaSigned, HookIsAskedWithoutSelfsign) {
    startAuthority();
    const std::string hook = scratch("hook",
                                     "#!/bin/sh\necho \"$#:$1\" > \"$0.arguments\"\n"
                                     "echo 'CONFIG_KEY PRIME256V1'\necho 'CN hook.example'\n");
    ASSERT_EQ(0, ::chmod(hook.c_str(), 0755));
    configureSigned("cnfHookFile " + hook);
    start();
    EXPECT_EQ("1:" + id + "\n", readFile(hook + ".arguments"));
    EXPECT_EQ("hook.example", keywarden::subjectCommonName(stored()));
}

TEST_F(ServerCaSigned, CaSignedIsPreferredAndDoesNotFallBackToSelfSigned) {
    configureSigned("selfSignedGeneration yes");
    start();
    EXPECT_FALSE(server().isCertificatePresent());
    EXPECT_FALSE(CapturedLog::containsPart("selfsigned")) << CapturedLog::dump();
    EXPECT_TRUE(CapturedLog::contains(
        SeverityError,
        "Daemon exception caught while creating and applying CA signed certificate for service '" + id +
            "' " + loadingFailure("Failed to read certificate from file: " + caStore().certPath(""))))
        << CapturedLog::dump();
}

// Failures.

TEST_F(ServerCaSigned, OldClockRefuses) {
    startAuthority();
    configureSigned();
    start();
    TestClock::set(kOldClock);
    EXPECT_EQ("Not able to create and apply CA signed certificate for service '" + id +
                  "' as the system date is old.",
              failure());
}

TEST_F(ServerCaSigned, OneselfAsAuthorityIsNotAllowed) {
    configure("CAServiceId " + id);
    start();
    EXPECT_EQ("CA signed certificate for service '" + id + "' is not allowed", failure());
}

TEST_F(ServerCaSigned, NoAuthorityIsNotAllowed) {
    configure("");
    start();
    EXPECT_EQ("CA signed certificate for service '" + id + "' is not allowed", failure());
}

TEST_F(ServerCaSigned, AuthorityWithoutACertificateFailsToLoad) {
    configureSigned();
    start();
    EXPECT_EQ(loadingFailure("Failed to read certificate from file: " + caStore().certPath("")), failure());
}

TEST_F(ServerCaSigned, AuthorityWithoutAKeyFailsToLoadAndChangesNothing) {
    startAuthority();
    configureSigned();
    start();
    const std::string before = readFile(store().certPath(active()));
    ASSERT_EQ(0, ::unlink(caStore().certKeyPath(caStore().getActive()).c_str()));
    EXPECT_EQ(loadingFailure("Extract of private key from file failed."), failure());
    EXPECT_EQ(before, readFile(store().certPath(active())));
}

TEST_F(ServerCaSigned, AuthorityWhoseKeyDoesNotFitFailsToLoad) {
    startAuthority();
    configureSigned();
    start();
    const MadePair stranger = makePair("stranger.example");
    const std::string key = sandbox().write("scratch/" + id + "/stranger.key", stranger.keyPem);
    std::filesystem::copy_file(key, caStore().certKeyPath(caStore().getActive()),
                               std::filesystem::copy_options::overwrite_existing);
    EXPECT_EQ(loadingFailure("The key does not belong to the certificate."), failure());
}

TEST_F(ServerCaSigned, AuthorityRenewedWhileItIsReadIsReadAgain) {
    startAuthority();
    configureSigned();
    start();
    const std::string key = caStore().certKeyPath(caStore().getActive());
    std::filesystem::rename(key, key + ".aside");
    const std::string before = readFile(store().certPath(active()));
    const OnTrace meanwhile(
        "Reading the CA files of service " + caId + " again: Extract of private key from file failed.",
        [&] { std::filesystem::rename(key + ".aside", key); });
    EXPECT_EQ("no exception", failure());
    EXPECT_NE(before, readFile(store().certPath(active())));
}

TEST_F(ServerCaSigned, RequestThatCannotBeMadeIsRethrownWithItsPrefix) {
    startAuthority();
    configureSigned("cnfFile " + scratch("bad.cnf", "CONFIG_KEY SECP521R1\nCN unit.example\n"));
    start();
    EXPECT_EQ("Std exception caught while generating Csr for CA signed for service '" + id +
                  "' Unsupported key format.",
              failure());
    EXPECT_FALSE(server().isCertificatePresent());
}

TEST_F(ServerCaSigned, MissingSettingsFileIsRethrownWithTheRequestPrefix) {
    startAuthority();
    configureSigned("cnfFile /nonexistent/settings.cnf");
    start();
    EXPECT_EQ("Std exception caught while generating Csr for CA signed for service '" + id +
                  "' Failed to read configuration file-/nonexistent/settings.cnf",
              failure());
}

TEST_F(ServerCaSigned, InadmissiblePeriodIsRethrownWithItsPrefix) {
    startAuthority();
    configureSigned("CASignedValidity 20000\nCASignedValidityOffset 10000");
    start();
    EXPECT_EQ(
        "Daemon exception received during setting the valid seconds during CA signed certificate generation "
        "for "
        "service '" +
            id +
            "' Requested valid from time 'Tue Jan 28 00:00:00 1997\n' is beyond the allowed lower limit of "
            "time "
            "'Thu Dec 30 12:00:00 1999\n'.",
        failure());
}

TEST_F(ServerCaSigned, SigningFailurePassesAsItIs) {
    startAuthority();
    configureSigned();
    start();
    // The authority's certificate ended before a new one would start.
    TestClock::set(kNow + 400 * kDay);
    EXPECT_EQ("Failed to set certificate time.",
              failureOf<std::runtime_error>([this] { server().createAndApplyCASigned(); }));
}

TEST_F(ServerCaSigned, FailuresOfTheOwnerAreLoggedByTheirKind) {
    startAuthority();
    configureSigned();
    start();
    const std::string text =
        " exception caught while creating and applying CA signed certificate for service '" + id + "'";
    callbacks->onNew = [](const std::string&) { throw KeywardenDaemonException("daemon failure"); };
    server().createCertificate();
    callbacks->onNew = [](const std::string&) { throw std::logic_error("standard failure"); };
    server().createCertificate();
    callbacks->onNew = [](const std::string&) { throw 42; };
    server().createCertificate();
    EXPECT_TRUE(CapturedLog::contains(SeverityError, "Daemon" + text + " daemon failure"));
    EXPECT_TRUE(CapturedLog::contains(SeverityError, "std" + text + " standard failure"));
    EXPECT_TRUE(CapturedLog::contains(SeverityError, "Unknown" + text + ".")) << CapturedLog::dump();
}

// Timestamps.

TEST_F(ServerCaSigned, TimestampIsTheChangeTimeOfTheActiveCertificateFile) {
    startAuthority();
    start();
    struct stat info {};
    ASSERT_EQ(0, ::stat(caStore().certPath(caStore().getActive()).c_str(), &info));
    EXPECT_EQ(static_cast<std::int64_t>(info.st_ctim.tv_sec), server().getServerCertificateTimestamp(caId));
}

TEST_F(ServerCaSigned, TimestampIsZeroWithoutAnActiveCertificate) {
    start();
    EXPECT_EQ(0, server().getServerCertificateTimestamp(id));
    EXPECT_EQ(0, server().getServerCertificateTimestamp("no-such-service"));
    server().updateActiveFile("00000000.0");
    EXPECT_EQ(0, server().getServerCertificateTimestamp(id));
}

TEST_F(ServerCaSigned, CertificateIsDueWhenOnlyTheAuthorityHasOne) {
    startAuthority();
    configure("CAServiceId " + caId);
    start();
    EXPECT_TRUE(server().isCertificateMatchingCA());
}

TEST_F(ServerCaSigned, CertificateIsNotDueWithTheSameChangeTime) {
    startAuthority();
    configure("CAServiceId " + caId);
    start();
    // One file under two names has one change time.
    std::filesystem::create_hard_link(caStore().certPath(caStore().getActive()),
                                      store().certPath("00000000.0"));
    server().updateActiveFile("00000000.0");
    ASSERT_NE(0, server().getServerCertificateTimestamp(id));
    EXPECT_FALSE(server().isCertificateMatchingCA());
}

TEST_F(ServerCaSigned, CertificateIsNotDueWhenNeitherHasOne) {
    configure("CAServiceId " + caId);
    start();
    EXPECT_FALSE(server().isCertificateMatchingCA());
}

}  // namespace servertest
