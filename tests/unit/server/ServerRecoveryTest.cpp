// A start after a run that was cut short.
#include <unistd.h>

#include <filesystem>

#include "ServerFixture.h"
#include "testsupport/TestClock.h"
#include "x509/Inspection.h"

namespace servertest {

using keywarden::SeverityError;
using keywarden::SeverityInfo;
using keywarden::SeverityNotice;
using keywarden::SeverityWarning;
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
    [[nodiscard]] std::string unnamed(const std::string& ids) const {
        return "The store of the service '" + id +
               "' holds files of certificates that are not in force: " + ids +
               ". To put one in force, write its id into '" + store().activePath() +
               "', without a line end, and reload the service; else remove them.";
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

TEST_F(ServerRecovery, FilesThatNothingNamesStayAndAreToldWithWhatToDo) {
    start();
    const MadePair first = install("one.example");
    const MadePair second = makePair("two.example");
    std::filesystem::create_directory(store().certInfoPath(second.id));
    EXPECT_NE("no exception", failureOf<std::runtime_error>([&] {
                  server().installCertificate(second.certificate, second.key, noNetwork());
              }));
    std::filesystem::remove(store().certInfoPath(second.id));
    clearLog();
    restart();
    EXPECT_EQ("cert key ", filesOf(store(), second.id));
    EXPECT_EQ("cert key info network details overwrite ", filesOf(store(), first.id));
    EXPECT_EQ(1U, CapturedLog::count(SeverityWarning, unnamed(second.id))) << CapturedLog::dump();
    // By the advice of the line.
    sandbox().write("active", second.id);
    std::filesystem::copy_file(sandbox().path("active"), store().activePath(),
                               std::filesystem::copy_options::overwrite_existing);
    restart();
    EXPECT_EQ(second.id, active());
    EXPECT_TRUE(CapturedLog::contains(SeverityInfo, "Server certificate found for service: " + id));
}

TEST_F(ServerRecovery, EmptyActiveFileCostsNoPair) {
    start();
    const MadePair pair = install("one.example");
    std::filesystem::resize_file(store().activePath(), 0);
    clearLog();
    restart();
    EXPECT_EQ(pair.certificatePem + "\n", readFile(store().certPath(pair.id)));
    EXPECT_EQ(1U, CapturedLog::count(SeverityWarning, unnamed(pair.id))) << CapturedLog::dump();
}

TEST_F(ServerRecovery, PairThatNothingNamesIsKeptWhenANewOneGetsItsId) {
    configure("selfSignedGeneration yes");
    start();
    const std::string before = active();
    const std::string certificate = readFile(store().certPath(before));
    const std::string key = fingerprint(readFile(store().certKeyPath(before)));
    std::filesystem::resize_file(store().activePath(), 0);
    restart();
    ASSERT_EQ(before, active()) << "the same subject";
    const std::string kept = store().certPath(before) + ".kept";
    EXPECT_NE(certificate, readFile(store().certPath(before)));
    EXPECT_EQ(certificate, readFile(kept));
    EXPECT_EQ(key, fingerprint(readFile(kept + ".key")));
    EXPECT_EQ("0640 adm", rightsOf(kept + ".key"));
    EXPECT_EQ(1U,
              CapturedLog::count(SeverityWarning,
                                 "A certificate and its key that were not in force, and whose id '" + before +
                                     "' a new one gets, are kept as '" + kept + "' and '" + kept + ".key'."))
        << CapturedLog::dump();
}

TEST_F(ServerRecovery, WholePairIsInForceWithoutAPlaceForItsRecord) {
    configure("selfSignedGeneration yes");
    start();
    const MadePair pair = install("one.example");
    std::filesystem::remove(store().certInfoPath(pair.id));
    std::filesystem::create_directories(store().certInfoPath(pair.id) + "/in the way");
    callbacks->events.clear();
    restart();
    EXPECT_EQ(pair.id, active());
    EXPECT_EQ(fingerprint(pair.keyPem + "\n"), fingerprint(readFile(store().certKeyPath(pair.id))));
    EXPECT_TRUE(CapturedLog::contains(SeverityInfo, "Server certificate found for service: " + id));
}

TEST_F(ServerRecovery, RecordThatOthersWroteDecidesNothing) {
    configure("selfSignedGeneration yes");
    start();
    const std::string path = store().certInfoPath(active());
    std::string record = readFile(path);
    const std::size_t at = record.find("\"validUntil\":") + 13;
    record.replace(at, record.find(',', at) - at, "4102444800");
    std::filesystem::remove(path);
    const std::string made = scratch("record", record);
    std::filesystem::copy_file(made, path);
    const std::string before = readFile(store().certPath(active()));
    testsupport::TestClock::set(kNow + 40 * std::int64_t{86400});
    server().checkTimeValidity();
    EXPECT_NE(before, readFile(store().certPath(active())));
}

TEST_F(ServerRecovery, DailyCheckHealsAPairThatDoesNotMatch) {
    configure("selfSignedGeneration yes");
    start();
    const std::string before = readFile(store().certPath(active()));
    const MadePair other = makePair("other.example");
    const std::string key = scratch("other.key", other.keyPem);
    std::filesystem::copy_file(key, store().certKeyPath(active()),
                               std::filesystem::copy_options::overwrite_existing);
    server().checkTimeValidity();
    EXPECT_NE(before, readFile(store().certPath(active())));
    EXPECT_TRUE(server().isCertificateSelfSigned());
    EXPECT_TRUE(keywarden::keyMatchesCertificate(keywarden::EVP_PKEY_T(store().certKeyPath(active())),
                                                 keywarden::X509_T(store().certPath(active()))));
}

TEST_F(ServerRecovery, DailyCheckMakesNothingForARevokedCertificate) {
    start();
    install("one.example");
    server().revokeCrt();
    callbacks->events.clear();
    server().checkTimeValidity();
    EXPECT_EQ("", filesOf(store(), active()));
}

TEST_F(ServerRecovery, OwnerThatWasCutOffIsToldAgainAndTheEarlierFilesGoThen) {
    start();
    const MadePair first = install("one.example");
    callbacks->delivers = false;
    const MadePair second = install("two.example");
    EXPECT_EQ("cert key info network details ", filesOf(store(), first.id));
    callbacks->delivers = true;
    callbacks->events.clear();
    restart();
    EXPECT_EQ("new " + second.id, callbacks->events.at(0));
    EXPECT_EQ("", filesOf(store(), first.id));
    EXPECT_TRUE(CapturedLog::contains(SeverityNotice, "The owner of the service '" + id +
                                                          "' is told again of the certificate '" + second.id +
                                                          "', which an earlier run had installed."));
    callbacks->events.clear();
    restart();
    EXPECT_NE("new " + second.id, callbacks->events.empty() ? "" : callbacks->events.at(0)) << "told once";
}

TEST_F(ServerRecovery, OwnerThatThereWasNoMemoryToTellIsToldAgainAndOneThatThrewIsNot) {
    start();
    const MadePair first = install("one.example");
    callbacks->onNew = [](const std::string&) { throw std::bad_alloc(); };
    const MadePair second = makePair("two.example");
    EXPECT_THROW(server().installCertificate(second.certificate, second.key, noNetwork()), std::bad_alloc);
    callbacks->onNew = nullptr;
    callbacks->events.clear();
    restart();
    EXPECT_EQ("new " + second.id, callbacks->events.at(0));
    EXPECT_EQ("", filesOf(store(), first.id));
    callbacks->onNew = [](const std::string&) { throw std::runtime_error("owner"); };
    const MadePair third = makePair("three.example");
    EXPECT_EQ("owner", failureOf<std::runtime_error>(
                           [&] { server().installCertificate(third.certificate, third.key, noNetwork()); }));
    callbacks->onNew = nullptr;
    callbacks->events.clear();
    restart();
    EXPECT_NE("new " + third.id, callbacks->events.empty() ? "" : callbacks->events.at(0));
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
