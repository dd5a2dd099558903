// Installing a certificate: bytes, rights, order, and what a failing step leaves behind.
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "ServerFixture.h"
#include "support/FileWriteError.h"

namespace servertest {

using keywarden::FileWriteError;
using keywarden::KeywardenDaemonException;
using keywarden::NetworkInfo;
using keywarden::SeverityError;
using keywarden::SeverityNotice;
using testsupport::CapturedLog;

namespace {

class ServerInstallation : public ServerTest {
  protected:
    [[nodiscard]] NetworkInfo network() const {
        return NetworkInfo(scratch("network", "HOSTNAME.1 unit42\nINTERFACE.1 eth0\neth0.1 10.0.0.5\n"));
    }
    void installPair(const MadePair& pair) {
        server().installCertificate(pair.certificate, pair.key, network());
    }
    /// Nothing of an installation is left over beside the files themselves.
    void expectNoTemporaries() const {
        for (const std::string& folder :
             {store().certificateDirectoryPath(), store().cachedDirectoryPath(), store().tmpDirectoryPath()})
            for (const std::string& file : namesIn(folder))
                EXPECT_EQ(std::string::npos, file.find(".new")) << folder << file;
    }
};

}  // namespace

TEST_F(ServerInstallation, FilesHaveTheirContentModeAndGroup) {
    start();
    const MadePair pair = makePair("one.example");
    installPair(pair);
    EXPECT_EQ(pair.certificatePem + "\n", readFile(store().certPath(pair.id)));
    EXPECT_EQ(fingerprint(pair.keyPem + "\n"), fingerprint(readFile(store().certKeyPath(pair.id))));
    EXPECT_EQ("HOSTNAME.1 unit42\nINTERFACE.1 eth0\neth0.1 10.0.0.5\n",
              readFile(store().certNetworkPath(pair.id)));
    EXPECT_EQ(pair.id, readFile(store().activePath()));
    EXPECT_EQ(0U, readFile(store().certInfoPath(pair.id)).rfind("{\"data_structure_version\":1,", 0));
    EXPECT_EQ(0U, readFile(store().certDetailsPath(pair.id)).rfind("Certificate:\n", 0));
    EXPECT_EQ("0644 daemon", rightsOf(store().certPath(pair.id)));
    EXPECT_EQ("0640 adm", rightsOf(store().certKeyPath(pair.id)));
    EXPECT_EQ("0644 daemon", rightsOf(store().certInfoPath(pair.id)));
    EXPECT_EQ("0644 daemon", rightsOf(store().certDetailsPath(pair.id)));
    EXPECT_EQ("0644 daemon", rightsOf(store().certNetworkPath(pair.id)));
    EXPECT_EQ("0644 daemon", rightsOf(store().activePath()));
    EXPECT_FALSE(exists(store().certOverwrittenDataPath(pair.id)));
    expectNoTemporaries();
}

TEST_F(ServerInstallation, IdIsTheSubjectHashInEightLowerCaseDigits) {
    start();
    const MadePair pair = install("one.example");
    ASSERT_EQ(10U, pair.id.size());
    EXPECT_EQ(std::string::npos, pair.id.substr(0, 8).find_first_not_of("0123456789abcdef"));
    EXPECT_EQ(".0", pair.id.substr(8));
    EXPECT_EQ(pair.id, active());
}

TEST_F(ServerInstallation, TracesAndTheLogLineComeInOrder) {
    start();
    const MadePair first = install("one.example");
    const MadePair second = makePair("two.example");
    const CapturedTraces captured;
    installPair(second);
    std::vector<std::string> seen;
    for (const std::string& line : captured.lines())
        if (line.rfind("Group Id: ", 0) != 0)
            seen.push_back(line);
    const std::vector<std::string> expected = {" Generate the certificate id...",
                                               " Save the certificate files for " + second.id + "...",
                                               " -> Save the key...",
                                               " -> Save the certificate...",
                                               " -> Create Info file...",
                                               " -> Create details file...",
                                               " -> Save the network Info...",
                                               " -> Update active list.",
                                               "New certificate with id '" + second.id + "' for service '" +
                                                   id +
                                                   "' has been installed. Calling the callback script...",
                                               "Remove the previous certificate: " + first.id,
                                               " Save the certificate files with " + second.id + "... Done."};
    EXPECT_EQ(expected, seen);
    EXPECT_TRUE(CapturedLog::contains(SeverityNotice, expected[8]));
}

TEST_F(ServerInstallation, OwnerIsToldWhenAllFilesStandAndTheEarlierOnesStillDo) {
    start();
    const MadePair first = install("one.example");
    server().createCsr();
    const auto issuer = testsupport::makeCertificate({});
    testsupport::CertificateOptions options;
    options.commonName = "two.example";
    const MadePair second = makePair(options, &issuer);
    std::string during;
    callbacks->onNew = [&](const std::string& told) {
        during = told + " | " + filesOf(store(), second.id) + "| " + filesOf(store(), first.id) + "| " +
                 active() + " | " + (exists(store().csrPath()) ? "request" : "no request") + " | " +
                 (server().isCertificateSelfSigned() ? "earlier record" : "new record");
    };
    installPair(second);
    EXPECT_EQ(second.id + " | cert key info network details | cert key info network details | " + second.id +
                  " | no request | earlier record",
              during);
    EXPECT_EQ("", filesOf(store(), first.id));
    EXPECT_EQ("cert key info network details ", filesOf(store(), second.id));
}

TEST_F(ServerInstallation, IntoAnEmptyStoreRemovesNothing) {
    start();
    const CapturedTraces captured;
    install("one.example");
    EXPECT_EQ(std::string::npos, captured.text().find("Remove the previous certificate"));
}

TEST_F(ServerInstallation, OfTheSameSubjectOverwritesInPlaceAndRemovesNothing) {
    start();
    const MadePair first = install("same.example");
    server().updateFileSystem();
    const MadePair second = makePair("same.example");
    ASSERT_EQ(first.id, second.id);
    callbacks->events.clear();
    {
        const CapturedTraces captured;
        installPair(second);
        EXPECT_EQ(std::string::npos, captured.text().find("Remove the previous certificate"));
    }
    EXPECT_EQ("cert key info network details overwrite ", filesOf(store(), second.id));
    EXPECT_EQ(fingerprint(second.keyPem + "\n"), fingerprint(readFile(store().certKeyPath(second.id))));
    EXPECT_EQ(second.certificatePem + "\n", readFile(store().certPath(second.id)));
    EXPECT_EQ(std::vector<std::string>{"new " + second.id}, callbacks->events);
}

TEST_F(ServerInstallation, ReplacesTheRecordInMemory) {
    start();
    install("one.example");
    EXPECT_TRUE(server().isCertificateSelfSigned());
    const auto issuer = testsupport::makeCertificate({});
    testsupport::CertificateOptions options;
    options.commonName = "two.example";
    install(options, &issuer);
    EXPECT_TRUE(server().isCertificateCASigned());
}

TEST_F(ServerInstallation, VoidsAPendingRequest) {
    start();
    server().createCsr();
    install("one.example");
    EXPECT_FALSE(exists(store().csrPath()));
    EXPECT_FALSE(exists(store().csrKeyPath()));
    EXPECT_FALSE(exists(store().csrNetworkPath()));
}

TEST_F(ServerInstallation, WithUnknownGroupsKeepsTheWritersOwn) {
    configure("");
    testsupport::TestDevice::get().writeService(
        id, "server yes\nmanagmentGroup no-such-group\nkeyGroup no-such-group\ncnfFile " + cnfFile + "\n");
    keywarden::ServiceConfiguration unknownGroups(id);
    keywarden::Server other(unknownGroups, callbacks);
    const MadePair pair = makePair("one.example");
    other.installCertificate(pair.certificate, pair.key, noNetwork());
    EXPECT_EQ("0640 " + testsupport::TestDevice::group(), rightsOf(store().certKeyPath(pair.id)));
    EXPECT_EQ("0644 " + testsupport::TestDevice::group(), rightsOf(store().certPath(pair.id)));
}

// Failing steps.

TEST_F(ServerInstallation, FailureOfTheOwnerLeavesTheNewCertificateInForceAndTheEarlierFiles) {
    start();
    const MadePair first = install("one.example");
    const MadePair second = makePair("two.example");
    callbacks->onNew = [](const std::string&) { throw std::runtime_error("owner"); };
    EXPECT_EQ("owner", failureOf<std::runtime_error>([&] { installPair(second); }));
    EXPECT_EQ(second.id, active());
    EXPECT_EQ("cert key info network details ", filesOf(store(), first.id));
}

TEST_F(ServerInstallation, WithoutAKeyChangesNothing) {
    start();
    const MadePair first = install("one.example");
    const MadePair second = makePair("two.example");
    EXPECT_EQ("Invalid keys object for converting to PEM format.", failureOf<std::runtime_error>([&] {
                  server().installCertificate(second.certificate, keywarden::EVP_PKEY_T(), noNetwork());
              }));
    EXPECT_EQ(first.id, active());
    EXPECT_EQ("", filesOf(store(), second.id));
    expectNoTemporaries();
}

TEST_F(ServerInstallation, FolderOfSomeoneElseIsRefusedAtTheStartAndChangesNothing) {
    start();
    const MadePair first = install("one.example");
    {
        const TakenFolder taken(store().certificateDirectoryPath());
        EXPECT_NE("no exception", failureOf<std::runtime_error>([this] { restart(); }));
    }
    EXPECT_EQ(first.id, active());
    EXPECT_EQ("cert key info network details ", filesOf(store(), first.id));
    expectNoTemporaries();
}

TEST_F(ServerInstallation, GoesIntoTheFolderThatWasMadeThoughItWasMovedAway) {
    start();
    const std::string folder = store().tmpDirectoryPath();
    std::filesystem::rename(folder, folder + ".gone");
    std::filesystem::create_directory_symlink(sandbox().path(), folder);
    const MadePair pair = install("one.example");
    EXPECT_TRUE(exists(folder + ".gone/" + pair.id + ".info"));
    EXPECT_FALSE(exists(sandbox().path(pair.id + ".info")));
    const std::string gone =
        "The folder '" + folder +
        "' is not where the daemon made it any more. What it writes there cannot be found until "
        "the service is reloaded.";
    EXPECT_EQ(1U, CapturedLog::count(keywarden::SeverityWarning, gone));
    install("two.example");
    EXPECT_EQ(1U, CapturedLog::count(keywarden::SeverityWarning, gone)) << "said once";
    restart();
    EXPECT_TRUE(exists(folder + "/" + active() + ".info"));
    EXPECT_FALSE(std::filesystem::is_symlink(folder));
    EXPECT_EQ("0711 daemon", rightsOf(folder));
}

TEST_F(ServerInstallation, FolderThatOthersRemoveAllTheTimeCostsNoInstallation) {
    start();
    const std::string folder = store().tmpDirectoryPath();
    std::atomic<bool> goesOn{true};
    std::thread removing([&] {
        while (goesOn)
            ::rmdir(folder.c_str());
    });
    // Nor does it help to look for the name under which it is built, and to take that away.
    std::atomic<int> taken{0};
    std::thread looking([&, above = std::filesystem::path(folder).parent_path()] {
        std::error_code gone;
        while (goesOn)
            for (const auto& entry : std::filesystem::directory_iterator(above, gone))
                if (entry.path().filename().string().front() == '.' &&
                    ::rename(entry.path().c_str(), (above / ("taken" + std::to_string(taken))).c_str()) == 0)
                    ++taken;
    });
    for (int i = 0; i < 100; ++i) {
        std::filesystem::remove_all(folder);
        MadePair made;
        EXPECT_EQ("no exception", failureOf<std::runtime_error>([&] { made = install("two.example"); })) << i;
        EXPECT_EQ(made.id, active()) << i;
        EXPECT_TRUE(exists(folder + "/" + made.id + ".info")) << i;
        EXPECT_EQ("0711 daemon", rightsOf(folder)) << i;
    }
    goesOn = false;
    removing.join();
    looking.join();
    EXPECT_EQ(0, taken) << "what is not finished stands where nobody else can reach it";
    expectNoTemporaries();
}

TEST_F(ServerInstallation, FolderInTheCertificatesPlaceLeavesNoKeyWithoutACertificate) {
    start();
    const MadePair first = install("one.example");
    const MadePair second = makePair("two.example");
    ASSERT_EQ(0, ::mkdir(store().certPath(second.id).c_str(), 0700));
    EXPECT_EQ("Impossible to write '" + store().certPath(second.id) + "': a folder stands in its place",
              failureOf<FileWriteError>([&] { installPair(second); }));
    EXPECT_FALSE(exists(store().certKeyPath(second.id)));
    EXPECT_EQ(first.id, active());
    expectNoTemporaries();
}

TEST_F(ServerInstallation, CertificateThatCannotFollowItsKeyLeavesNoKey) {
    start();
    const MadePair first = install("one.example");
    const MadePair second = makePair("two.example");
    const std::string place = store().certPath(second.id);
    // Both are staged when the folder appears: the key's rename succeeds, the certificate's fails.
    const OnTrace meanwhile(" -> Create Info file...", [&] { ASSERT_EQ(0, ::mkdir(place.c_str(), 0700)); });
    EXPECT_EQ("Impossible to put in place '" + place + "': Is a directory",
              failureOf<FileWriteError>([&] { installPair(second); }));
    EXPECT_FALSE(exists(store().certKeyPath(second.id)));
    EXPECT_EQ(first.id, active());
    expectNoTemporaries();
}

TEST_F(ServerInstallation, CertificateThatCannotFollowItsKeyBringsTheEarlierKeyBack) {
    start();
    const MadePair first = install("same.example");
    const MadePair second = makePair("same.example");
    const std::string place = store().certPath(first.id);
    const OnTrace meanwhile(" -> Create Info file...", [&] {
        ASSERT_EQ(0, ::rename(place.c_str(), (place + ".aside").c_str()));
        ASSERT_EQ(0, ::mkdir(place.c_str(), 0700));
    });
    EXPECT_EQ("Impossible to put in place '" + place + "': Is a directory",
              failureOf<FileWriteError>([&] { installPair(second); }));
    EXPECT_EQ(fingerprint(first.keyPem + "\n"), fingerprint(readFile(store().certKeyPath(first.id))));
    EXPECT_EQ("0640 adm", rightsOf(store().certKeyPath(first.id)));
    expectNoTemporaries();
}

TEST_F(ServerInstallation, InfoThatCannotBeWrittenLeavesThePairDoneAndTheActivePointer) {
    start();
    const MadePair first = install("one.example");
    const MadePair second = makePair("two.example");
    callbacks->events.clear();
    ASSERT_EQ(0, ::mkdir(store().certInfoPath(second.id).c_str(), 0700));
    EXPECT_EQ("Error: Impossible to open " + store().certInfoPath(second.id) +
                  "for writting with error Is a directory",
              failureOf<std::runtime_error>([&] { installPair(second); }));
    EXPECT_EQ(first.id, active());
    EXPECT_EQ("cert key info ", filesOf(store(), second.id));  // "info" is the folder
    EXPECT_EQ(fingerprint(second.keyPem + "\n"), fingerprint(readFile(store().certKeyPath(second.id))));
    EXPECT_EQ("cert key info network details ", filesOf(store(), first.id));
    EXPECT_TRUE(callbacks->events.empty());
    expectNoTemporaries();
}

TEST_F(ServerInstallation, DetailsThatCannotBeWrittenLeaveTheStepsBeforeThemDone) {
    start();
    const MadePair first = install("one.example");
    const MadePair second = makePair("two.example");
    ASSERT_EQ(0, ::mkdir(store().certDetailsPath(second.id).c_str(), 0700));
    EXPECT_EQ("Not able to open details file '" + store().certDetailsPath(second.id) +
                  "' for writing for service '" + id + "'.",
              failureOf<std::runtime_error>([&] { installPair(second); }));
    EXPECT_EQ(first.id, active());
    EXPECT_EQ("cert key info details ", filesOf(store(), second.id));  // "details" is the folder
    expectNoTemporaries();
}

TEST_F(ServerInstallation, DetailsThatDoNotFitAreNotLeftHalfWritten) {
    start();
    const MadePair first = install("one.example");
    testsupport::CertificateOptions options;
    options.commonName = "two.example";
    for (int i = 0; i < 10; ++i)
        options.dns.push_back("name" + std::to_string(i) + ".example");
    const MadePair second = makePair(options);
    {
        // Room for key, certificate and info, not for the dump of the certificate.
        const FileSizeLimit limit(1200);
        ASSERT_LT(second.certificatePem.size(), 1200U);
        EXPECT_EQ("Not able to open details file '" + store().certDetailsPath(second.id) +
                      "' for writing for service '" + id + "'.",
                  failureOf<std::runtime_error>([&] { installPair(second); }));
    }
    EXPECT_EQ(first.id, active());
    EXPECT_EQ("cert key info ", filesOf(store(), second.id));
    EXPECT_EQ(second.certificatePem + "\n", readFile(store().certPath(second.id)));
    expectNoTemporaries();
}

TEST_F(ServerInstallation, NetworkThatCannotBeWrittenIsLoggedAndFailsForTheMissingFile) {
    start();
    const MadePair first = install("one.example");
    const MadePair second = makePair("two.example");
    const std::string path = store().certNetworkPath(second.id);
    ASSERT_EQ(0, ::mkdir(path.c_str(), 0700));
    EXPECT_EQ("Impossible to change mode for " + path,
              failureOf<std::runtime_error>([&] { installPair(second); }));
    EXPECT_TRUE(CapturedLog::contains(
        SeverityError, "Failed to open network file: " + path + " for saving network information."))
        << CapturedLog::dump();
    EXPECT_EQ(first.id, active());
    EXPECT_EQ("cert key info network details ", filesOf(store(), second.id));  // "network" is the folder
    expectNoTemporaries();
}

TEST_F(ServerInstallation, NetworkThatCannotBeReplacedKeepsTheOldOneAndGoesOn) {
    start();
    testsupport::CertificateOptions options;
    options.commonName = "same.example";
    const MadePair first = install(options);
    std::string names = "INTERFACE.1 eth0\n";
    for (int i = 1; i < 200; ++i)
        names += "eth0." + std::to_string(i) + " 10.0.0." + std::to_string(i) + "\n";
    const NetworkInfo large(scratch("large", names));
    const std::string before = readFile(store().certNetworkPath(first.id));
    const MadePair second = makePair(options);
    {
        const FileSizeLimit limit(3000);
        ASSERT_GT(large.toText().size(), 3000U);
        server().installCertificate(second.certificate, second.key, large);
    }
    EXPECT_TRUE(CapturedLog::contains(SeverityError,
                                      "Failed to open network file: " + store().certNetworkPath(first.id) +
                                          " for saving network information."))
        << CapturedLog::dump();
    EXPECT_EQ(before, readFile(store().certNetworkPath(first.id)));
    EXPECT_EQ(second.certificatePem + "\n", readFile(store().certPath(first.id)));
    expectNoTemporaries();
}

TEST_F(ServerInstallation, ActiveFileThatCannotBeOpenedFailsWithTheOtherFilesInPlace) {
    start();
    const MadePair pair = makePair("one.example");
    ASSERT_EQ(0, ::unlink(store().activePath().c_str()));
    ASSERT_EQ(0, ::mkdir(store().activePath().c_str(), 0700));
    EXPECT_EQ("Failed to open active file: '" + store().activePath() + "' file.",
              failureOf<KeywardenDaemonException>([&] { installPair(pair); }));
    EXPECT_EQ("cert key info network details ", filesOf(store(), pair.id));
    EXPECT_TRUE(callbacks->events.empty());
    expectNoTemporaries();
}

TEST_F(ServerInstallation, PlantedLinkInTheKeysPlaceIsReplacedAndNotFollowed) {
    start();
    const MadePair pair = makePair("one.example");
    const std::string victim = scratch("victim", "untouched");
    ASSERT_EQ(0, ::symlink(victim.c_str(), store().certKeyPath(pair.id).c_str()));
    installPair(pair);
    EXPECT_EQ("untouched", readFile(victim));
    EXPECT_EQ("0640 adm", rightsOf(store().certKeyPath(pair.id)));
}

}  // namespace servertest
