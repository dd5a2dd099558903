// The renewal with a store and an issuer: when another certificate is due, and what the owner is told.
#include <fstream>
#include <optional>

#include "ServerFixture.h"
#include "server/ServerRenewal.h"
#include "x509/Inspection.h"

namespace servertest {

using testsupport::CapturedLog;
using testsupport::TestClock;

namespace {

class ServerRenewal : public ServerTest {
  protected:
    /// `isPresent` is what the start of the store says.
    bool begin(const std::string& lines) {
        configure(lines);
        files_.emplace(configuration(), callbacks);
        issuer_.emplace(configuration(), *files_);
        renewal_.emplace(configuration(), *files_, *issuer_, callbacks);
        return files_->start();
    }
    [[nodiscard]] keywarden::ServerRenewal& renewal() { return *renewal_; }
    [[nodiscard]] keywarden::ServerStore& files() { return *files_; }

    MadePair installedUntil(std::int64_t days) {
        testsupport::CertificateOptions options;
        options.notBefore = kNow - 40 * kDay;
        options.notAfter = kNow + days * kDay;
        MadePair pair = makePair(options);
        files().installCertificate(pair.certificate, pair.key, keywarden::NetworkInfo(configuration()));
        callbacks->events.clear();
        clearLog();
        return pair;
    }

  private:
    std::optional<keywarden::ServerStore> files_;
    std::optional<keywarden::ServerIssuer> issuer_;
    std::optional<keywarden::ServerRenewal> renewal_;
};

TEST_F(ServerRenewal, AStartWithoutACertificateHasOneMade) {
    ASSERT_FALSE(begin("selfSignedGeneration yes\nselfSignedValidity 10"));
    renewal().checkAtStart(false);
    EXPECT_EQ(callbacks->events, (std::vector<std::string>{"new " + active(), "validity 0 9"}));
}

TEST_F(ServerRenewal, OneThatIsGoodIsReportedAndStays) {
    ASSERT_FALSE(begin("selfSignedGeneration yes"));
    const MadePair pair = installedUntil(5);
    renewal().checkTimeValidity();
    EXPECT_EQ(callbacks->events, std::vector<std::string>{"validity -40 5"});
    EXPECT_EQ(readFile(store().certPath(pair.id)), pair.certificatePem + "\n");
}

TEST_F(ServerRenewal, AnExpiredOneOfItsOwnIsReplaced) {
    ASSERT_FALSE(begin(""));
    const MadePair pair = installedUntil(-1);
    renewal().checkTimeValidity();
    EXPECT_NE(active(), pair.id);
    EXPECT_EQ(callbacks->events, std::vector<std::string>{"new " + active()});
}

TEST_F(ServerRenewal, APairThatIsNoneAnyMoreIsReplacedAtTheCheckButNotTheOneThatWasRevoked) {
    ASSERT_FALSE(begin("selfSignedGeneration yes"));
    const MadePair pair = installedUntil(5);
    std::ofstream(store().certKeyPath(pair.id)) << makePair("other").keyPem;
    renewal().checkTimeValidity();
    EXPECT_NE(active(), pair.id);
    ASSERT_EQ(callbacks->events.size(), 2U);
    EXPECT_EQ(callbacks->events[0], "new " + active());
    files().revokeCrt();
    callbacks->events.clear();
    renewal().checkTimeValidity();
    EXPECT_EQ(filesOf(store(), active()), "");
    EXPECT_EQ(callbacks->events.size(), 1U);  // the days
}

TEST_F(ServerRenewal, AnIdentityThatIsNotCoveredAnyMoreHasACertificateMadeAtTheNextStart) {
    ASSERT_FALSE(begin("selfSignedGeneration yes\nincludeFQDN yes"));
    renewal().checkAtStart(false);
    EXPECT_TRUE(renewal().isNetworkInfoValid());
    const std::string before = readFile(store().certPath(active()));
    setNetwork("fqdn.0 moved.example\n");
    EXPECT_FALSE(renewal().isNetworkInfoValid());
    ASSERT_TRUE(begin("selfSignedGeneration yes\nincludeFQDN yes"));
    renewal().checkAtStart(true);
    EXPECT_NE(readFile(store().certPath(active())), before);
    EXPECT_TRUE(renewal().isNetworkInfoValid());
}

TEST_F(ServerRenewal, TimesAreCountedFromTheClock) {
    begin("");
    EXPECT_EQ(renewal().getTimeBeforeTimestamp(kNow + 7), 7);
    TestClock::set(kNow + 10);
    EXPECT_EQ(renewal().getTimeBeforeTimestamp(kNow + 7), -3);
    EXPECT_EQ(renewal().getServerCertificateTimestamp(id), 0);
}

}  // namespace

}  // namespace servertest
