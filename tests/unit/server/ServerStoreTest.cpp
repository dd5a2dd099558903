// Housekeeping, start-up, revocation and descriptions of the server store.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "ServerFixture.h"
#include "support/Tools.h"

namespace servertest {

using keywarden::KeywardenDaemonException;
using keywarden::Server;
using keywarden::SeverityError;
using keywarden::SeverityInfo;
using keywarden::SeverityNotice;
using testsupport::CapturedLog;
using testsupport::LogLine;

namespace {

class ServerStore : public ServerTest {
  protected:
    /// Installs a certificate and forgets the run that did it.
    MadePair installed() {
        start();
        MadePair pair = install("stored.example");
        clearLog();
        callbacks->events.clear();
        return pair;
    }
};

std::int64_t changeTime(const std::string& path) {
    struct stat info {};
    EXPECT_EQ(0, ::stat(path.c_str(), &info)) << path;
    return static_cast<std::int64_t>(info.st_ctim.tv_sec) * 1000000000 + info.st_ctim.tv_nsec;
}

}  // namespace

// Start-up.

TEST_F(ServerStore, StartOfAnEmptyStoreWithoutGenerationLogsThatItHasNone) {
    start();
    const std::vector<LogLine> expected = {
        {SeverityInfo, "Server certificate not found for service: " + id},
        {SeverityNotice,
         "Certificate for service '" + id + "' can not be created as signed type is disabled."}};
    EXPECT_EQ(expected, CapturedLog::lines());
    EXPECT_FALSE(server().isCertificatePresent());
    EXPECT_TRUE(callbacks->events.empty());
}

TEST_F(ServerStore, StartMakesTheThreeFoldersAndAnEmptyActiveFile) {
    start();
    for (const std::string& folder :
         {store().certificateDirectoryPath(), store().cachedDirectoryPath(), store().tmpDirectoryPath()})
        EXPECT_EQ("0711 daemon",
                  rightsOf(folder.back() == '/' ? folder.substr(0, folder.size() - 1) : folder));
    EXPECT_EQ("0644 daemon", rightsOf(store().activePath()));
    EXPECT_EQ("", readFile(store().activePath()));
}

TEST_F(ServerStore, MissingActiveFileAtStartIsMadeEmptyAndACertificateIsCreated) {
    configure("selfSignedGeneration yes");
    bool wasEmpty = false;
    callbacks->onNew = [&](const std::string&) {
        wasEmpty = CapturedLog::contains(SeverityInfo, "Server certificate not found for service: " + id);
    };
    start();
    EXPECT_TRUE(wasEmpty);
    EXPECT_EQ("0644 daemon", rightsOf(store().activePath()));
    EXPECT_TRUE(server().isCertificatePresent());
    EXPECT_TRUE(server().isCertificateSelfSigned());
}

TEST_F(ServerStore, StartOpensTheLog) {
    keywarden::Log::close();
    start();
    // The captured log tells by its state, as the real one does.
    EXPECT_TRUE(keywarden::Log::write(SeverityInfo, "open"));
}

TEST_F(ServerStore, StartDiscardsAPendingRequest) {
    start().createCsr();
    ASSERT_TRUE(exists(store().csrPath()));
    ASSERT_TRUE(exists(store().csrKeyPath()));
    ASSERT_TRUE(exists(store().csrNetworkPath()));
    restart();
    EXPECT_FALSE(exists(store().csrPath()));
    EXPECT_FALSE(exists(store().csrKeyPath()));
    EXPECT_FALSE(exists(store().csrNetworkPath()));
}

TEST_F(ServerStore, StartWithAValidCertificateKeepsItAndReportsTheDays) {
    const MadePair pair = installed();
    restart();
    ASSERT_GE(CapturedLog::lines().size(), 1U);
    EXPECT_EQ((LogLine{SeverityInfo, "Server certificate found for service: " + id}),
              CapturedLog::lines()[0]);
    EXPECT_EQ(pair.id, active());
    ASSERT_EQ(1U, callbacks->events.size()) << CapturedLog::dump();
    EXPECT_EQ(0U, callbacks->events[0].rfind("validity ", 0));
    EXPECT_TRUE(server().isCertificateSelfSigned());
    EXPECT_FALSE(server().isCertificateCASigned());
}

TEST_F(ServerStore, StartWithAStaleNetworkReplacesASelfSignedCertificate) {
    const std::string stale =
        "Network information fo the server certificate for service '" + id + "' are not valid anymore.";
    configure("selfSignedGeneration yes\nincludeFQDN yes");
    start();
    const std::string before = readFile(store().certPath(active()));
    setNetwork("fqdn.0 renamed.example\n");
    restart();
    EXPECT_TRUE(CapturedLog::contains(SeverityNotice, stale)) << CapturedLog::dump();
    EXPECT_NE(before, readFile(store().certPath(active())));
    EXPECT_EQ("new " + active(), callbacks->events.at(0));
    restart();
    EXPECT_FALSE(CapturedLog::contains(SeverityNotice, stale));
}

TEST_F(ServerStore, StartWithAStaleNetworkKeepsAnExternalCertificateWhenRevocationIsNotSet) {
    configure("selfSignedGeneration yes\nincludeFQDN yes");
    start();
    const auto issuer = testsupport::makeCertificate({});
    testsupport::CertificateOptions options;
    options.commonName = "external.example";
    const MadePair pair = install(options, &issuer);
    setNetwork("fqdn.0 renamed.example\n");
    restart();
    EXPECT_TRUE(CapturedLog::containsPart("are not valid anymore.")) << CapturedLog::dump();
    EXPECT_EQ(pair.id, active());
    EXPECT_EQ(pair.certificatePem + "\n", readFile(store().certPath(pair.id)));
    EXPECT_TRUE(server().isCertificateCASigned());
    EXPECT_FALSE(server().isCertificateSelfSigned());
}

TEST_F(ServerStore, StartWithAStaleNetworkReplacesAnExternalCertificateWhenRevocationIsSet) {
    configure("selfSignedGeneration yes\nincludeFQDN yes\nnetworkInvalidRevokePKIcert yes");
    start();
    const auto issuer = testsupport::makeCertificate({});
    testsupport::CertificateOptions options;
    options.commonName = "external.example";
    const MadePair pair = install(options, &issuer);
    setNetwork("fqdn.0 renamed.example\n");
    restart();
    EXPECT_NE(pair.id, active());
    EXPECT_TRUE(server().isCertificateSelfSigned());
    EXPECT_EQ("", filesOf(store(), pair.id));
}

TEST_F(ServerStore, StartWithoutTheNetworkFileRegeneratesASelfSignedCertificate) {
    configure("selfSignedGeneration yes");
    start();
    const std::string before = readFile(store().certPath(active()));
    const std::string network = store().certNetworkPath(active());
    ASSERT_EQ(0, ::unlink(network.c_str()));
    restart();
    EXPECT_TRUE(CapturedLog::contains(SeverityNotice, network + " file not found.")) << CapturedLog::dump();
    EXPECT_NE(before, readFile(store().certPath(active())));
    EXPECT_TRUE(exists(network));
}

TEST_F(ServerStore, StartAfterARevocationWithoutGenerationGoesOnWithoutACertificate) {
    const MadePair pair = installed();
    server().revokeCrt();
    restart();
    EXPECT_TRUE(CapturedLog::contains(SeverityError,
                                      "The certificate '" + pair.id + "' of service '" + id +
                                          "' cannot be loaded, going on without it: Its files are missing."))
        << CapturedLog::dump();
    EXPECT_TRUE(CapturedLog::contains(SeverityInfo, "Server certificate not found for service: " + id));
    EXPECT_TRUE(CapturedLog::contains(
        SeverityNotice,
        "Certificate for service '" + id + "' can not be created as signed type is disabled."));
    EXPECT_TRUE(
        CapturedLog::contains(SeverityError, "ERROR: Certificate info pointer is not being initialised"));
    EXPECT_FALSE(server().isCertificateSelfSigned());
    EXPECT_FALSE(server().isCertificateCASigned());
    EXPECT_TRUE(callbacks->events.empty());
}

TEST_F(ServerStore, StartAfterARevocationWithGenerationMakesANewCertificate) {
    configure("selfSignedGeneration yes");
    start();
    server().revokeCrt();
    restart();
    EXPECT_TRUE(server().isCertificateSelfSigned());
    EXPECT_EQ("cert key info network details ", filesOf(store(), active()));
}

TEST_F(ServerStore, StartWithACorruptCertificateGoesOnWithoutIt) {
    const MadePair pair = installed();
    sandbox().write("scratch/broken", "no certificate\n");
    std::filesystem::copy_file(sandbox().path("scratch/broken"), store().certPath(pair.id),
                               std::filesystem::copy_options::overwrite_existing);
    // The volatile tree does not survive a restart of the daemon.
    ASSERT_EQ(0, ::unlink(store().certInfoPath(pair.id).c_str()));
    restart();
    EXPECT_TRUE(CapturedLog::contains(
        SeverityError,
        "The certificate '" + pair.id + "' of service '" + id +
            "' and its key are no pair and count as no certificate: Failed to read certificate from "
            "file: " +
            store().certPath(pair.id)))
        << CapturedLog::dump();
    EXPECT_FALSE(server().isCertificateSelfSigned());
    EXPECT_EQ("no certificate\n", readFile(store().certPath(pair.id)));
}

// Housekeeping.

TEST_F(ServerStore, HousekeepingSetsTheRightsOfEveryFileAndTracesIt) {
    const MadePair pair = installed();
    const std::vector<std::string> files = {store().certPath(pair.id), store().certKeyPath(pair.id),
                                            store().certInfoPath(pair.id), store().certDetailsPath(pair.id),
                                            store().activePath()};
    for (const std::string& path : files) {
        ASSERT_EQ(0, ::chmod(path.c_str(), 0600));
        ASSERT_EQ(0, ::chown(path.c_str(), 0, 0));
    }
    ASSERT_EQ(0, ::chmod(store().cachedDirectoryPath().c_str(), 0700));
    ASSERT_EQ(0, ::chown(store().cachedDirectoryPath().c_str(), 0, 0));
    std::vector<std::string> traces;
    {
        const CapturedTraces captured;
        server().updateFileSystem();
        traces = captured.lines();
    }
    EXPECT_EQ("0644 daemon", rightsOf(files[0]));
    EXPECT_EQ("0640 adm", rightsOf(files[1]));
    EXPECT_EQ("0644 daemon", rightsOf(files[2]));
    EXPECT_EQ("0644 daemon", rightsOf(files[3]));
    EXPECT_EQ("0644 daemon", rightsOf(files[4]));
    EXPECT_EQ("0711 daemon", rightsOf(store().cachedDirectoryPath()));
    EXPECT_EQ("0664 daemon", rightsOf(store().certOverwrittenDataPath(pair.id)));
    EXPECT_EQ("", readFile(store().certOverwrittenDataPath(pair.id)));
    const auto has = [&traces](const std::string& line) {
        return std::find(traces.begin(), traces.end(), line) != traces.end();
    };
    EXPECT_TRUE(has("Check certificate " + pair.id));
    EXPECT_TRUE(has("certificate " + pair.id + " Ok."));
    ASSERT_FALSE(traces.empty());
    EXPECT_EQ("Update file Server system for " + id + "... Done.", traces.back());
}

TEST_F(ServerStore, HousekeepingWritesInfoAndDetailsAgain) {
    const MadePair pair = installed();
    const std::string info = readFile(store().certInfoPath(pair.id));
    const std::string details = readFile(store().certDetailsPath(pair.id));
    ASSERT_EQ(0, ::unlink(store().certInfoPath(pair.id).c_str()));
    ASSERT_EQ(0, ::truncate(store().certDetailsPath(pair.id).c_str(), 0));
    server().updateFileSystem();
    EXPECT_EQ(info, readFile(store().certInfoPath(pair.id)));
    EXPECT_EQ(details, readFile(store().certDetailsPath(pair.id)));
}

TEST_F(ServerStore, HousekeepingKeepsOverwrittenDataButSetsItsRights) {
    const MadePair pair = installed();
    const std::string path = store().certOverwrittenDataPath(pair.id);
    server().updateFileSystem();
    ASSERT_EQ(0, ::truncate(path.c_str(), 5));
    ASSERT_EQ(0, ::chmod(path.c_str(), 0600));
    server().updateFileSystem();
    EXPECT_EQ(std::string(5, '\0'), readFile(path));
    EXPECT_EQ("0664 daemon", rightsOf(path));
}

TEST_F(ServerStore, HousekeepingLeavesTheChangeTimeOfCertificateAndKey) {
    const MadePair pair = installed();
    const std::int64_t certificate = changeTime(store().certPath(pair.id));
    const std::int64_t key = changeTime(store().certKeyPath(pair.id));
    server().updateFileSystem();
    restart();
    EXPECT_EQ(certificate, changeTime(store().certPath(pair.id)));
    EXPECT_EQ(key, changeTime(store().certKeyPath(pair.id)));
}

TEST_F(ServerStore, HousekeepingOnlyTracesAMissingKeyAndStopsThere) {
    const MadePair pair = installed();
    ASSERT_EQ(0, ::unlink(store().certKeyPath(pair.id).c_str()));
    ASSERT_EQ(0, ::unlink(store().certInfoPath(pair.id).c_str()));
    std::string traces;
    {
        const CapturedTraces captured;
        server().updateFileSystem();
        traces = captured.text();
    }
    EXPECT_NE(std::string::npos, traces.find("certificate " + pair.id + " not ok !!!!!!!!!!!!\n"));
    EXPECT_EQ(std::string::npos, traces.find("certificate " + pair.id + " Ok."));
    EXPECT_NE(std::string::npos, traces.find("Update file Server system for " + id + "... Done."));
    EXPECT_TRUE(CapturedLog::lines().empty()) << CapturedLog::dump();
    EXPECT_FALSE(exists(store().certInfoPath(pair.id)));
    EXPECT_TRUE(exists(store().certPath(pair.id)));
}

TEST_F(ServerStore, HousekeepingOnlyTracesAnUnreadableCertificate) {
    const MadePair pair = installed();
    ASSERT_EQ(0, ::truncate(store().certPath(pair.id).c_str(), 30));
    const CapturedTraces captured;
    server().updateFileSystem();
    EXPECT_NE(std::string::npos, captured.text().find("certificate " + pair.id + " not ok !!!!!!!!!!!!\n"));
    EXPECT_TRUE(exists(store().certPath(pair.id)));
}

TEST_F(ServerStore, StartFailsWhenTheFoldersCannotBeMade) {
    configure();
    std::filesystem::remove_all(testsupport::TestDevice::get().keywardDirectory() + "/" + id);
    const std::string folder = store().certificateDirectoryPath();
    EXPECT_EQ("Runtime error caught while changing group for file '" + folder +
                  "': Impossible to change the group for " + folder,
              failureOf<std::runtime_error>([this] { start(); }));
}

// Presence, removal, revocation.

TEST_F(ServerStore, PresenceIsReadFromTheActiveFileAlone) {
    start();
    EXPECT_FALSE(server().isCertificatePresent());
    server().updateActiveFile("3a5f09c1.0");
    EXPECT_TRUE(server().isCertificatePresent());
    server().updateActiveFile("");
    EXPECT_FALSE(server().isCertificatePresent());
}

TEST_F(ServerStore, ActiveFileIsTheIdWithoutALineEnd) {
    start();
    server().updateActiveFile("3a5f09c1.0");
    EXPECT_EQ("3a5f09c1.0", readFile(store().activePath()));
    EXPECT_EQ(10U, std::filesystem::file_size(store().activePath()));
    EXPECT_EQ("0644 daemon", rightsOf(store().activePath()));
}

TEST_F(ServerStore, ActiveFileThatCannotBeOpenedFails) {
    start();
    ASSERT_EQ(0, ::unlink(store().activePath().c_str()));
    ASSERT_EQ(0, ::mkdir(store().activePath().c_str(), 0700));
    EXPECT_EQ("Failed to open active file: '" + store().activePath() + "' file.",
              failureOf<KeywardenDaemonException>([this] { server().updateActiveFile("3a5f09c1.0"); }));
}

TEST_F(ServerStore, NeitherSelfSignedNorCaSignedWithoutARecord) {
    start();
    EXPECT_FALSE(server().isCertificateSelfSigned());
    EXPECT_FALSE(server().isCertificateCASigned());
}

TEST_F(ServerStore, GenerationFlagsAreThoseOfTheConfiguration) {
    start();
    EXPECT_FALSE(server().isSelfSignedGeneration());
    EXPECT_FALSE(server().isCASignedGeneration());
    configure("selfSignedGeneration yes");
    EXPECT_TRUE(start().isSelfSignedGeneration());
    EXPECT_FALSE(server().isCASignedGeneration());
    configure("CASignedGeneration yes");
    EXPECT_TRUE(start().isCASignedGeneration());
    EXPECT_FALSE(server().isSelfSignedGeneration());
}

TEST_F(ServerStore, RevocationRemovesTheFilesButKeepsTheActiveId) {
    const MadePair pair = installed();
    server().updateFileSystem();
    ASSERT_EQ("cert key info network details overwrite ", filesOf(store(), pair.id));
    std::vector<std::string> traces;
    {
        const CapturedTraces captured;
        server().revokeCrt();
        traces = captured.lines();
    }
    EXPECT_EQ("", filesOf(store(), pair.id));
    EXPECT_TRUE(server().isCertificatePresent());
    EXPECT_EQ(pair.id, readFile(store().activePath()));
    EXPECT_TRUE(server().isCertificateSelfSigned());  // the record in memory stays
    const std::vector<std::string> expected = {" Revoke the certificate...",
                                               "Remove the active certificate: " + pair.id,
                                               " Removed certificate files with " + pair.id + "... Done."};
    EXPECT_EQ(expected, traces);
    EXPECT_TRUE(CapturedLog::lines().empty()) << CapturedLog::dump();
}

TEST_F(ServerStore, RevocationOfAnEmptyStoreRemovesNothing) {
    start();
    const CapturedTraces captured;
    server().revokeCrt();
    const std::vector<std::string> expected = {" Revoke the certificate...",
                                               " Removed certificate files with ... Done."};
    EXPECT_EQ(expected, captured.lines());
    EXPECT_TRUE(exists(store().certificateDirectoryPath()));
}

TEST_F(ServerStore, RemovalLeavesOtherCertificatesAndTheActiveFile) {
    const MadePair pair = installed();
    server().removeCertificate("00000000.0");
    EXPECT_EQ("cert key info network details ", filesOf(store(), pair.id));
    server().removeCertificate(pair.id);
    EXPECT_EQ("", filesOf(store(), pair.id));
    EXPECT_EQ(pair.id, active());
}

// Details and descriptions.

TEST_F(ServerStore, DetailsAreTheTextDumpOfTheCertificate) {
    start();
    const MadePair pair = makePair("details.example");
    server().writeDetails(pair.certificate, "11111111.0");
    const std::string text = readFile(store().certDetailsPath("11111111.0"));
    EXPECT_EQ(0U, text.rfind("Certificate:\n    Data:\n", 0)) << text;
    EXPECT_NE(std::string::npos, text.find("Subject: CN=details.example\n")) << text;
    EXPECT_EQ("0644 daemon", rightsOf(store().certDetailsPath("11111111.0")));
}

TEST_F(ServerStore, DetailsFileThatCannotBeOpenedFails) {
    start();
    const MadePair pair = makePair("details.example");
    const std::string path = store().certDetailsPath(pair.id);
    ASSERT_EQ(0, ::mkdir(path.c_str(), 0700));
    EXPECT_EQ("Not able to open details file '" + path + "' for writing for service '" + id + "'.",
              failureOf<std::runtime_error>([&] { server().writeDetails(pair.certificate, pair.id); }));
}

TEST_F(ServerStore, DescriptionOfACertificateFileOfAnyFolder) {
    start();
    testsupport::CertificateOptions options;
    options.commonName = "described.example";
    options.dns = {"a.example"};
    const std::string path = scratch("described.pem", testsupport::makeCertificate(options).certificatePem);
    const std::string text = server().getCertInfo(path);
    EXPECT_EQ(0U, text.rfind("public_key_size_bits 256\n", 0)) << text;
    EXPECT_NE(std::string::npos, text.find("subject_name CN=described.example\n")) << text;
    EXPECT_NE(std::string::npos, text.find("DNS.1:a.example")) << text;
}

TEST_F(ServerStore, DescriptionOfAMissingFileFails) {
    start();
    EXPECT_EQ(
        "Std exception caught while getting server certificate data: Failed to read certificate from file: "
        "/nonexistent/file",
        failureOf<KeywardenDaemonException>([this] { (void)server().getCertInfo("/nonexistent/file"); }));
}

TEST_F(ServerStore, DescriptionOfAFileWithoutACertificateFails) {
    start();
    const std::string path = scratch("text", "no certificate\n");
    EXPECT_EQ(
        "Std exception caught while getting server certificate data: Failed to read certificate from file: " +
            path,
        failureOf<KeywardenDaemonException>([&] { (void)server().getCertInfo(path); }));
}

TEST_F(ServerStore, DescriptionOfAFifoIsRefusedAtOnce) {
    start();
    const std::string path = sandbox().path("scratch/" + id + "/fifo");
    ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
    EXPECT_EQ("Std exception caught while getting server certificate data: Impossible to read the file '" +
                  path + "': It is not a regular file",
              failureOf<KeywardenDaemonException>([&] { (void)server().getCertInfo(path); }));
}

TEST_F(ServerStore, DescriptionOfAFolderIsRefused) {
    start();
    EXPECT_EQ("Std exception caught while getting server certificate data: Impossible to read the file '" +
                  sandbox().path() + "': It is not a regular file",
              failureOf<KeywardenDaemonException>([this] { (void)server().getCertInfo(sandbox().path()); }));
}

}  // namespace servertest
