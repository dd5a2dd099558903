// The periodic check: figures, callbacks, renewals, and the guards around them.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "ServerFixture.h"
#include "x509/Inspection.h"

namespace servertest {

using keywarden::InternalCertificatesAccessor;
using keywarden::KeywardenDaemonException;
using keywarden::Server;
using keywarden::ServiceConfiguration;
using keywarden::Severity;
using keywarden::SeverityError;
using keywarden::SeverityInfo;
using keywarden::SeverityNotice;
using testsupport::CapturedLog;
using testsupport::LogLine;
using testsupport::TestClock;

namespace {

enum class Signed { BySelf, ByPki };

class ServerExpiry : public ServerTest {
  protected:
    ServerExpiry() : caId("pki" + id) {}

    /// An active certificate whose period begins and ends so many seconds from now.
    MadePair installPeriod(Signed by, std::int64_t fromNow, std::int64_t untilNow,
                           const std::string& commonName = "period.example") {
        static const testsupport::IssuedCertificate issuer = testsupport::makeCertificate({});
        testsupport::CertificateOptions options;
        options.commonName = commonName;
        options.notBefore = kNow + fromNow;
        options.notAfter = kNow + untilNow;
        MadePair pair = install(options, by == Signed::ByPki ? &issuer : nullptr);
        clearLog();
        callbacks->events.clear();
        return pair;
    }
    MadePair installExpired(Signed by) { return installPeriod(by, -40 * kDay, -5 * kDay); }
    MadePair installFuture(Signed by) { return installPeriod(by, 3 * kDay, 20 * kDay); }

    void startAuthority() {
        const std::string settings =
            scratch("ca.cnf", "CONFIG_KEY PRIME256V1\nCN ca.example\nbasicConstraints critical,CA:TRUE\n");
        configureOther(caId, "selfSignedGeneration yes\nselfSignedValidity 366\ncnfFile " + settings);
        caConfiguration_ = std::make_unique<ServiceConfiguration>(caId);
        authority_ = std::make_unique<Server>(*caConfiguration_, std::make_shared<RecordingCallbacks>());
        ASSERT_TRUE(authority_->isCertificatePresent()) << CapturedLog::dump();
    }
    [[nodiscard]] Server& authority() { return *authority_; }

    [[nodiscard]] bool stillActive(const MadePair& pair) const {
        return active() == pair.id && readFile(store().certPath(pair.id)) == pair.certificatePem + "\n";
    }
    [[nodiscard]] std::string issuerOfActive() const {
        return keywarden::issuerCommonName(keywarden::X509_T(store().certPath(active())));
    }
    [[nodiscard]] std::vector<LogLine> figures(const std::string& validIn,
                                               const std::string& expireIn) const {
        return {{SeverityNotice, "Days before validity of server certificate for service '" + id +
                                     "' : " + validIn + " days."},
                {SeverityNotice,
                 "Days before expiration of server certificate considering the expiry check offset time for "
                 "service '" +
                     id + "' : " + expireIn + " days."}};
    }
    [[nodiscard]] LogLine reported(const std::string& word, const std::string& figure) const {
        return {SeverityInfo, "Callback script called for service '" + id + "' with '" + word + "' of '" +
                                  figure + "' days."};
    }
    [[nodiscard]] LogLine expired() const {
        return {SeverityNotice, "Current certificate is expired for service '" + id + "' "};
    }

    /// Lets the regeneration fail in the three ways and expects the guard's three texts.
    void expectGuarded(const std::function<void()>& prepare, const std::string& daemon,
                       const std::string& standard, const std::string& unknown) {
        const std::vector<std::pair<std::function<void()>, std::string>> failures = {
            {[] { throw KeywardenDaemonException("daemon failure"); }, daemon + id + "' daemon failure"},
            {[] { throw std::logic_error("standard failure"); }, standard + id + "' standard failure"},
            {[] { throw std::runtime_error(""); }, standard + id + "' Unknown error"},
            {[] { throw 42; }, unknown + id + "'."}};
        for (const auto& [fail, text] : failures) {
            callbacks->onNew = nullptr;
            prepare();
            callbacks->onNew = [&fail = fail](const std::string&) { fail(); };
            EXPECT_NO_THROW(server().checkTimeValidity());
            EXPECT_EQ(1U, CapturedLog::count(SeverityError, text)) << text << "\n" << CapturedLog::dump();
        }
        callbacks->onNew = nullptr;
    }

    /// File times are the kernel's: waits until a file made now is of a later second than the given one.
    void waitUntilAfter(std::int64_t second) const {
        for (;;) {
            const std::string probe = scratch("probe", "");
            struct stat info {};
            ASSERT_EQ(0, ::stat(probe.c_str(), &info));
            if (static_cast<std::int64_t>(info.st_ctim.tv_sec) > second)
                return;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }

    std::string caId;

  private:
    std::unique_ptr<ServiceConfiguration> caConfiguration_;
    std::unique_ptr<Server> authority_;
};

}  // namespace

// Before any decision.

TEST_F(ServerExpiry, OldClockOnlyWarns) {
    configure("selfSignedGeneration yes");
    start();
    TestClock::set(kOldClock);
    callbacks->events.clear();
    clearLog();
    server().checkTimeValidity();
    const auto all = CapturedLog::lines();
    ASSERT_EQ(2U, all.size()) << CapturedLog::dump();  // the first one is the clock's own
    EXPECT_EQ((LogLine{SeverityError,
                       "WARNING: System Date is old, for creating & applying self signed certificate for "
                       "service " +
                           id}),
              all[1]);
    EXPECT_TRUE(callbacks->events.empty());
}

TEST_F(ServerExpiry, MissingCertificateIsCreated) {
    configure("selfSignedGeneration yes");
    TestClock::set(kOldClock);
    start();
    ASSERT_FALSE(server().isCertificatePresent());
    TestClock::set(kNow);
    server().checkTimeValidity();
    EXPECT_TRUE(server().isCertificateSelfSigned());
    EXPECT_EQ(2U, callbacks->events.size());
}

TEST_F(ServerExpiry, WithoutARecordOnlyTheErrorIsLogged) {
    start();
    clearLog();
    server().checkTimeValidity();
    const std::vector<LogLine> expected = {
        {SeverityNotice,
         "Certificate for service '" + id + "' can not be created as signed type is disabled."},
        {SeverityError, "ERROR: Certificate info pointer is not being initialised"}};
    EXPECT_EQ(expected, CapturedLog::lines());
}

// Valid.

TEST_F(ServerExpiry, ValidCertificateIsReportedInWholeDaysTowardZero) {
    configure("CertDailyExpiryChkTimeOffsetSecs 86399");
    start();
    const MadePair pair = installPeriod(Signed::BySelf, -10 * kDay, 20 * kDay);
    server().checkTimeValidity();
    auto expected = figures("-10.000000", "19.000011");
    expected.push_back(reported("expireIn", "19.000011"));
    EXPECT_EQ(expected, CapturedLog::lines());
    EXPECT_EQ(std::vector<std::string>{"validity -10 19"}, callbacks->events);
    EXPECT_TRUE(stillActive(pair));
}

TEST_F(ServerExpiry, FiguresHaveSixDigits) {
    start();
    installPeriod(Signed::ByPki, 0, 12 * kDay + kDay / 2);
    server().checkTimeValidity();
    auto expected = figures("0.000000", "12.500000");
    expected.push_back(reported("expireIn", "12.500000"));
    EXPECT_EQ(expected, CapturedLog::lines());
    EXPECT_EQ(std::vector<std::string>{"validity 0 12"}, callbacks->events);
}

TEST_F(ServerExpiry, LessThanADayIsReportedAsZero) {
    start();
    installPeriod(Signed::ByPki, -kDay / 2, kDay / 2);
    server().checkTimeValidity();
    EXPECT_EQ(std::vector<std::string>{"validity 0 0"}, callbacks->events);
    EXPECT_EQ(reported("expireIn", "0.500000"), CapturedLog::lines().back());
}

TEST_F(ServerExpiry, EndBeyond2038IsCountedInFull) {
    start();
    installPeriod(Signed::ByPki, -kDay, 100000 * kDay);
    server().checkTimeValidity();
    EXPECT_EQ(std::vector<std::string>{"validity -1 100000"}, callbacks->events);
}

TEST_F(ServerExpiry, OffsetMakesAValidCertificateExpire) {
    configure("CertDailyExpiryChkTimeOffsetSecs 86399");
    start();
    const MadePair pair = installPeriod(Signed::BySelf, -10 * kDay, kDay / 2);
    server().checkTimeValidity();
    EXPECT_EQ(expired(), CapturedLog::lines().at(2));
    EXPECT_FALSE(stillActive(pair));
    EXPECT_EQ("unit.example", issuerOfActive());
}

// Not yet valid.

TEST_F(ServerExpiry, NotYetValidSelfSignedIsReplacedWhateverTheSettingsSay) {
    start();
    const MadePair pair = installFuture(Signed::BySelf);
    server().checkTimeValidity();
    EXPECT_FALSE(stillActive(pair));
    EXPECT_TRUE(server().isCertificateSelfSigned());
    auto expected = figures("3.000000", "20.000000");
    expected.push_back(
        {SeverityNotice, "The service " + id + " is creating a server selfsigned certificate..."});
    const auto all = CapturedLog::lines();
    ASSERT_GE(all.size(), 3U);
    EXPECT_EQ(expected, std::vector<LogLine>(all.begin(), all.begin() + 3));
    EXPECT_EQ(std::vector<std::string>{"new " + active()}, callbacks->events);
}

TEST_F(ServerExpiry, NotYetValidExternalIsReplacedBySelfSignedWhenSet) {
    configure("selfSignedOnExpiration yes\nCASignedOnExpiration yes");
    start();
    const MadePair pair = installFuture(Signed::ByPki);
    server().checkTimeValidity();
    EXPECT_FALSE(stillActive(pair));
    EXPECT_TRUE(server().isCertificateSelfSigned());
}

TEST_F(ServerExpiry, NotYetValidExternalIsReplacedByCaSignedWhenSet) {
    startAuthority();
    configure("CASignedOnExpiration yes\nCAServiceId " + caId);
    start();
    installFuture(Signed::ByPki);
    server().checkTimeValidity();
    EXPECT_EQ("ca.example", issuerOfActive());
}

TEST_F(ServerExpiry, NotYetValidExternalIsOnlyReportedOtherwise) {
    start();
    const MadePair pair = installFuture(Signed::ByPki);
    server().checkTimeValidity();
    auto expected = figures("3.000000", "20.000000");
    expected.push_back(reported("validIn", "3.000000"));
    EXPECT_EQ(expected, CapturedLog::lines());
    EXPECT_EQ(std::vector<std::string>{"validity 3 20"}, callbacks->events);
    EXPECT_TRUE(stillActive(pair));
}

// Expired.

TEST_F(ServerExpiry, ExpiredSelfSignedIsReplacedWhateverTheSettingsSay) {
    start();
    const MadePair pair = installExpired(Signed::BySelf);
    server().checkTimeValidity();
    auto expected = figures("-40.000000", "-5.000000");
    expected.push_back(expired());
    expected.push_back(
        {SeverityNotice, "Creating a new SelfSigned certificate for service: " + id + " as it is expired."});
    const auto all = CapturedLog::lines();
    ASSERT_GE(all.size(), 4U);
    EXPECT_EQ(expected, std::vector<LogLine>(all.begin(), all.begin() + 4));
    EXPECT_FALSE(stillActive(pair));
    EXPECT_TRUE(server().isCertificateSelfSigned());
    EXPECT_EQ(std::vector<std::string>{"new " + active()}, callbacks->events);
}

TEST_F(ServerExpiry, ExpiredExternalIsReplacedBySelfSignedWhenSet) {
    configure("selfSignedOnExpiration yes\nCASignedOnExpiration yes");
    start();
    installExpired(Signed::ByPki);
    server().checkTimeValidity();
    EXPECT_EQ((LogLine{SeverityNotice,
                       "Creating a new SelfSigned certificate for service '" + id + "' as it is expired."}),
              CapturedLog::lines().at(3));
    EXPECT_TRUE(server().isCertificateSelfSigned());
}

TEST_F(ServerExpiry, ExpiredExternalIsReplacedByCaSignedWhenSet) {
    startAuthority();
    configure("CASignedOnExpiration yes\nCAServiceId " + caId);
    start();
    installExpired(Signed::ByPki);
    server().checkTimeValidity();
    EXPECT_EQ((LogLine{SeverityNotice,
                       "Creating a new CA-Signed certificate for service '" + id + "' as it is expired."}),
              CapturedLog::lines().at(3));
    EXPECT_EQ("ca.example", issuerOfActive());
}

TEST_F(ServerExpiry, ExpiredExternalIsOnlyReportedOtherwise) {
    start();
    const MadePair pair = installExpired(Signed::ByPki);
    server().checkTimeValidity();
    auto expected = figures("-40.000000", "-5.000000");
    expected.push_back(expired());
    expected.push_back(reported("server expireFrom", "5.000000"));
    EXPECT_EQ(expected, CapturedLog::lines());
    EXPECT_EQ(std::vector<std::string>{"validity -40 -5"}, callbacks->events);
    EXPECT_TRUE(stillActive(pair));
}

TEST_F(ServerExpiry, EndThisVerySecondCountsAsExpired) {
    start();
    installPeriod(Signed::ByPki, -kDay, 0);
    server().checkTimeValidity();
    EXPECT_EQ(reported("server expireFrom", "0.000000"), CapturedLog::lines().back());
    EXPECT_EQ(std::vector<std::string>{"validity -1 0"}, callbacks->events);
}

// A renewed CA.

TEST_F(ServerExpiry, RenewedCaBringsANewCertificate) {
    startAuthority();
    configure("CASignedGeneration yes\nCAServiceId " + caId);
    start();
    const std::string before = readFile(store().certPath(active()));
    waitUntilAfter(server().getServerCertificateTimestamp(id));
    authority().createAndApplySelfSigned();
    ASSERT_TRUE(server().isCertificateMatchingCA());
    clearLog();
    callbacks->events.clear();
    server().checkTimeValidity();
    EXPECT_TRUE(CapturedLog::contains(SeverityNotice, "Creating a new CA-Signed certificate for service '" +
                                                          id + "' as the CA server certificate got renewed."))
        << CapturedLog::dump();
    EXPECT_NE(before, readFile(store().certPath(active())));
    // Reported as valid first, then renewed.
    ASSERT_EQ(2U, callbacks->events.size());
    EXPECT_EQ(0U, callbacks->events[0].rfind("validity ", 0));
    EXPECT_EQ("new " + active(), callbacks->events[1]);
    EXPECT_FALSE(server().isCertificateMatchingCA());
}

TEST_F(ServerExpiry, RestartOfTheCaServiceIsNoRenewal) {
    startAuthority();
    configure("CASignedGeneration yes\nCAServiceId " + caId);
    start();
    waitUntilAfter(server().getServerCertificateTimestamp(id));
    authority().updateFileSystem();
    EXPECT_FALSE(server().isCertificateMatchingCA());
}

TEST_F(ServerExpiry, RenewedCaIsIgnoredWithoutCaSignedGeneration) {
    startAuthority();
    configure("CAServiceId " + caId);
    start();
    const MadePair pair = installPeriod(Signed::ByPki, -kDay, kDay);
    waitUntilAfter(server().getServerCertificateTimestamp(id));
    authority().createAndApplySelfSigned();
    server().checkTimeValidity();
    EXPECT_TRUE(stillActive(pair));
}

// The guards.

TEST_F(ServerExpiry, GuardOfTheNotYetValidSelfSigned) {
    start();
    const std::string text =
        " exception caught while checking if self signed certificate is in validity period for service '";
    expectGuarded([this] { installFuture(Signed::BySelf); }, "Daemon" + text, "std" + text, "Unknown" + text);
}

TEST_F(ServerExpiry, GuardOfTheNotYetValidReplacedBySelfSigned) {
    configure("selfSignedOnExpiration yes");
    start();
    const std::string text =
        " exception caught while creating self signed certificate on expiration for service '";
    expectGuarded([this] { installFuture(Signed::ByPki); }, "Daemon" + text, "std" + text, " Unknown" + text);
}

TEST_F(ServerExpiry, GuardOfTheNotYetValidReplacedByCaSigned) {
    startAuthority();
    configure("CASignedOnExpiration yes\nCAServiceId " + caId);
    start();
    const std::string text =
        " exception caught while creating CA signed certificate on expiration for service '";
    expectGuarded([this] { installFuture(Signed::ByPki); }, "Daemon" + text, "std" + text, " Unknown" + text);
}

TEST_F(ServerExpiry, GuardOfTheExpiredSelfSigned) {
    start();
    const std::string text = " exception caught while creating new self signed certificate for service '";
    expectGuarded([this] { installExpired(Signed::BySelf); }, "Daemon" + text, "std" + text,
                  "Unknown" + text);
}

TEST_F(ServerExpiry, GuardOfTheExpiredReplacedBySelfSigned) {
    configure("selfSignedOnExpiration yes");
    start();
    const std::string text =
        " exception caught while creating new self signed certificate on expiration for service '";
    expectGuarded([this] { installExpired(Signed::ByPki); }, "Daemon" + text, "std" + text, "Unknown" + text);
}

TEST_F(ServerExpiry, GuardOfTheExpiredReplacedByCaSigned) {
    startAuthority();
    configure("CASignedOnExpiration yes\nCAServiceId " + caId);
    start();
    const std::string text = " exception caught while creating new CA signed certificate for service '";
    expectGuarded([this] { installExpired(Signed::ByPki); }, "Daemon" + text, "std" + text, "Unknown" + text);
}

TEST_F(ServerExpiry, GuardOfTheRenewedCa) {
    startAuthority();
    configure("CASignedGeneration yes\nCAServiceId " + caId);
    start();
    const std::string text = " exception caught while creating new CA signed certificate for service '";
    expectGuarded(
        [this] {
            installPeriod(Signed::ByPki, -kDay, kDay);
            // Without its file the certificate is older than any.
            ASSERT_EQ(0, ::unlink(store().certPath(active()).c_str()));
        },
        "Daemon" + text, "std" + text, "Unknown" + text);
}

TEST_F(ServerExpiry, FailedRegenerationKeepsTheCertificateAndStillFollowsTheCa) {
    configure("cnfFile /nonexistent/settings.cnf");
    start();
    const MadePair pair = installExpired(Signed::BySelf);
    server().checkTimeValidity();
    EXPECT_TRUE(CapturedLog::contains(
        SeverityError, "std exception caught while creating new self signed certificate for service '" + id +
                           "' Failed to read configuration file-/nonexistent/settings.cnf"))
        << CapturedLog::dump();
    EXPECT_TRUE(stillActive(pair));
}

// The network.

TEST_F(ServerExpiry, NetworkWithoutARecordIsNotValid) {
    start();
    server().updateActiveFile("00000000.0");
    clearLog();
    EXPECT_FALSE(server().isNetworkInfoValid());
    EXPECT_TRUE(
        CapturedLog::contains(SeverityNotice, store().certNetworkPath("00000000.0") + " file not found."))
        << CapturedLog::dump();
}

TEST_F(ServerExpiry, NetworkIsValidWhileTheRecordCoversThePresent) {
    setNetwork("interface.0 eth0\nipv4.0.0 10.0.0.1\nipv4.0.1 10.0.0.2\n");
    configure("selfSignedGeneration yes\nnetworkInterface.0 eth0\nincludeIPv4.0 yes");
    start();
    EXPECT_TRUE(server().isNetworkInfoValid());
    setNetwork("interface.0 eth0\nipv4.0.0 10.0.0.2\n");  // less than recorded
    EXPECT_TRUE(server().isNetworkInfoValid());
    setNetwork("interface.0 eth0\nipv4.0.0 10.0.0.3\n");  // something new
    EXPECT_FALSE(server().isNetworkInfoValid());
}

TEST_F(ServerExpiry, NetworkCheckIsTraced) {
    configure("selfSignedGeneration yes");
    start();
    const CapturedTraces captured;
    EXPECT_TRUE(server().isNetworkInfoValid());
    const std::vector<std::string> expected = {
        "Checking if network is valid for service: " + id,
        "Reading network information from the " + store().certNetworkPath(active()) + " file.",
        "Reading current network information based on service config file.",
        "Checking if the certificate network information present in current network information."};
    EXPECT_EQ(expected, captured.lines());
}

// The clock.

TEST_F(ServerExpiry, TimeBeforeATimestampIsItsDistanceFromNow) {
    start();
    EXPECT_EQ(100, server().getTimeBeforeTimestamp(kNow + 100));
    EXPECT_EQ(-100, server().getTimeBeforeTimestamp(kNow - 100));
    EXPECT_EQ(0, server().getTimeBeforeTimestamp(kNow));
    EXPECT_EQ(253402300799 - kNow, server().getTimeBeforeTimestamp(253402300799));
}

}  // namespace servertest
