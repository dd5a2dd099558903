// A start after a run that was cut short.
#include <unistd.h>

#include <filesystem>

#include "ServerFixture.h"

namespace servertest {

using keywarden::SeverityError;
using keywarden::SeverityInfo;
using testsupport::CapturedLog;

namespace {

class ServerRecovery : public ServerTest {
  protected:
    [[nodiscard]] std::string noPair(const std::string& pairId, const std::string& reason) const {
        return "The certificate '" + pairId + "' of service '" + id +
               "' and its key are no pair and count as no certificate: " + reason;
    }
    void expectNoCertificate(const std::string& pairId, const std::string& reason) {
        restart();
        EXPECT_TRUE(CapturedLog::contains(SeverityError, noPair(pairId, reason))) << CapturedLog::dump();
        EXPECT_TRUE(CapturedLog::contains(SeverityInfo, "Server certificate not found for service: " + id));
        EXPECT_FALSE(server().isCertificateSelfSigned());
        EXPECT_FALSE(server().isCertificateCASigned());
    }
};

}  // namespace

TEST_F(ServerRecovery, KeyOfAnotherCertificateMakesNoPair) {
    start();
    const MadePair pair = install("one.example");
    const std::string key = store().certKeyPath(pair.id);
    std::filesystem::copy_file(scratch("other.key", makePair("two.example").keyPem), key,
                               std::filesystem::copy_options::overwrite_existing);
    expectNoCertificate(pair.id, "The key does not belong to the certificate.");
    EXPECT_EQ("cert key info network details overwrite ", filesOf(store(), pair.id)) << "nothing is removed";
}

TEST_F(ServerRecovery, MissingKeyMakesNoPair) {
    start();
    const MadePair pair = install("one.example");
    ASSERT_EQ(0, ::unlink(store().certKeyPath(pair.id).c_str()));
    expectNoCertificate(pair.id, "The key is missing.");
}

TEST_F(ServerRecovery, MissingCertificateMakesNoPair) {
    start();
    const MadePair pair = install("one.example");
    ASSERT_EQ(0, ::unlink(store().certPath(pair.id).c_str()));
    expectNoCertificate(pair.id, "The certificate is missing.");
}

TEST_F(ServerRecovery, NoPairIsReplacedWhenGenerationIsConfigured) {
    configure("selfSignedGeneration yes");
    start();
    const std::string before = active();
    ASSERT_EQ(0, ::unlink(store().certKeyPath(before).c_str()));
    restart();
    EXPECT_TRUE(server().isCertificateSelfSigned());
    EXPECT_EQ("cert key info network details ", filesOf(store(), active()).substr(0, 30));
    EXPECT_EQ("new " + active(), callbacks->events.at(0));
}

TEST_F(ServerRecovery, FilesOfAnInstallationThatFailedAreRemovedAtTheNextStart) {
    start();
    const MadePair first = install("one.example");
    const MadePair second = makePair("two.example");
    {
        const TakenFolder taken(store().tmpDirectoryPath());
        EXPECT_NE("no exception", failureOf<std::runtime_error>([&] {
                      server().installCertificate(second.certificate, second.key, noNetwork());
                  }));
    }
    ASSERT_EQ("cert key ", filesOf(store(), second.id));
    restart();
    EXPECT_EQ("", filesOf(store(), second.id));
    EXPECT_EQ("cert key info network details overwrite ", filesOf(store(), first.id));
}

TEST_F(ServerRecovery, NothingIsRemovedWhenItIsNotKnownWhichCertificateIsInForce) {
    start();
    const MadePair pair = install("one.example");
    ASSERT_EQ(0, ::unlink(store().activePath().c_str()));
    restart();
    EXPECT_EQ("cert key info network details ", filesOf(store(), pair.id));
}

TEST_F(ServerRecovery, RevocationThatCannotRemoveTheKeyFailsAndIsFinishedByTheNextStart) {
    start();
    const MadePair pair = install("one.example");
    const std::string key = store().certKeyPath(pair.id);
    const std::string aside = scratch("key", readFile(key));
    ASSERT_EQ(0, ::unlink(key.c_str()));
    std::filesystem::create_directories(key + "/in the way");
    EXPECT_EQ("The files of the certificate '" + pair.id + "' of service '" + id + "' cannot be removed.",
              failureOf<keywarden::KeywardenDaemonException>([this] { server().revokeCrt(); }));
    std::filesystem::remove_all(key);
    std::filesystem::copy_file(aside, key);
    restart();
    EXPECT_EQ("", filesOf(store(), pair.id));
}

}  // namespace servertest
