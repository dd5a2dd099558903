#include <sys/stat.h>
#include <unistd.h>

#include "stores/CertificateInfoStorage.h"
#include "tests/unit/stores/Failures.h"
#include "tests/unit/stores/StoreFixture.h"
#include "testsupport/Child.h"
#include "testsupport/Traces.h"
#include "x509/Inspection.h"

namespace {

using keywarden::CertificateAuthority;
using keywarden::CertificateInfoStorage;
using keywarden::SeverityError;
using keywarden::TrustedCertificate;
using keywarden::X509_T;
using testsupport::CapturedLog;
using testsupport::LogLine;
using testsupport::Sandbox;
using testsupport::tracesOf;

using Lines = std::vector<LogLine>;

class StoreStart : public StoreTest {
  protected:
    /// Puts a file into the certificate folder of the authorities without the store's doing.
    std::string plant(const std::string& name, const std::string& content, unsigned mode = 0644) const {
        std::filesystem::create_directories(paths_.certificateDirectoryPath());
        return device().sandbox().write("keyward/" + service_ + "/ca/" + name, content, mode);
    }
    [[nodiscard]] LogLine notOk(const std::string& id, const std::string& reason) const {
        return {SeverityError,
                "The certificate " + id + " inside ca for " + service_ + " is not ok: " + reason};
    }

    keywarden::ExternalCertificatesAccessor paths_ = paths("ca");
};

TEST_F(StoreStart, NewStoreHasItsFoldersAndEmptyIndexes) {
    const CertificateAuthority store = authorities();
    for (const std::string& folder :
         {paths_.certificateDirectoryPath(), paths_.cachedDirectoryPath(), paths_.tmpDirectoryPath()})
        expectRights(folder, 0711);
    for (const std::string& file : {paths_.listPath(), paths_.cnMapPath()}) {
        EXPECT_EQ(Sandbox::read(file), "");
        expectRights(file, 0644);
    }
    EXPECT_TRUE(CapturedLog::lines().empty()) << CapturedLog::dump();
}

TEST_F(StoreStart, StoresAreNamedCaAndClient) {
    EXPECT_EQ(authorities().storeName(), "ca");
    EXPECT_EQ(clients().storeName(), "client");
    EXPECT_TRUE(Sandbox::exists(device().keywardDirectory() + "/" + service_ + "/ca/.cacheddata/list.txt"));
    EXPECT_TRUE(Sandbox::exists(device().pipesDirectory() + "/" + service_ + "/client/id_cn.map"));
}

TEST_F(StoreStart, FolderWithOtherRightsGetsItsOwn) {
    std::filesystem::create_directories(paths_.tmpDirectoryPath());
    ASSERT_EQ(::chmod(paths_.tmpDirectoryPath().c_str(), 0777), 0);
    const CertificateAuthority store = authorities();
    expectRights(paths_.tmpDirectoryPath(), 0711);
}

TEST_F(StoreStart, EverythingButTheCertificatesIsMadeAnew) {
    const std::string certificate = pem("device");
    authorities().add(source(certificate));
    authorities().add(source(pem("device40")));
    std::filesystem::remove_all(paths_.tmpDirectoryPath());
    std::filesystem::remove_all(paths_.cachedDirectoryPath());
    const CertificateAuthority store = authorities();
    EXPECT_EQ(Sandbox::read(paths_.listPath()), "00535762.0\n7abc528d.0\n");
    EXPECT_EQ(Sandbox::read(paths_.cnMapPath()), "00535762.0 device40\n7abc528d.0 device\n");
    const X509_T expected = X509_T::fromPem(certificate);
    EXPECT_EQ(Sandbox::read(paths_.certPath("7abc528d.0")), certificate);
    EXPECT_EQ(Sandbox::read(paths_.certInfoPath("7abc528d.0")), CertificateInfoStorage(expected).toJson());
    EXPECT_EQ(Sandbox::read(paths_.certDetailsPath("7abc528d.0")), keywarden::printedText(expected));
    for (const std::string& path : {paths_.listPath(), paths_.cnMapPath(), paths_.certPath("7abc528d.0"),
                                    paths_.certInfoPath("7abc528d.0"), paths_.certDetailsPath("7abc528d.0")})
        expectRights(path, 0644);
}

TEST_F(StoreStart, CertificatesOfAnEarlierRunCount) {
    configure("maximumCA 1\n");
    const std::string certificate = pem("device");
    authorities().add(source(certificate));
    CertificateAuthority store = authorities();
    EXPECT_EQ(daemonFailureOf([&] { store.add(source(pem("another"))); }),
              "42 Too many certificates found while adding certificate inside ca for " + service_);
    configure("");
    CertificateAuthority unlimited = authorities();
    EXPECT_EQ(daemonFailureOf([&] { unlimited.add(source(certificate)); }),
              "43 Certificate already present inside ca for " + service_);
    EXPECT_EQ(unlimited.add(source(pem("device"))), "7abc528d.1");
}

TEST_F(StoreStart, ListOfAnEarlierRunIsNotBelieved) {
    { const CertificateAuthority store = authorities(); }
    device().sandbox().write("keyward/" + service_ + "/ca/.cacheddata/list.txt", "7abc528d.0\n");
    CertificateAuthority store = authorities();
    EXPECT_EQ(Sandbox::read(paths_.listPath()), "");
    EXPECT_FALSE(store.revoke(std::string("7abc528d.0")));
}

TEST_F(StoreStart, StoredCertificateGetsItsModeAndGroupBack) {
    const std::string path = plant("7abc528d.3", pem("device"), 0600);
    const CertificateAuthority store = authorities();
    expectRights(path, 0644);
    EXPECT_EQ(Sandbox::read(paths_.listPath()), "7abc528d.3\n");
}

TEST_F(StoreStart, CertificateWithTheRightRightsIsNotTouched) {
    const std::string id = authorities().add(source(pem("device")));
    struct stat before {};
    ASSERT_EQ(::stat(paths_.certPath(id).c_str(), &before), 0);
    const CertificateAuthority store = authorities();
    struct stat after {};
    ASSERT_EQ(::stat(paths_.certPath(id).c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(before.st_ctim.tv_sec, after.st_ctim.tv_sec);
    EXPECT_EQ(before.st_ctim.tv_nsec, after.st_ctim.tv_nsec);
}

TEST_F(StoreStart, FileThatIsNotNamedLikeAnIdIsIgnoredAndKept) {
    const std::string certificate = pem("device");
    const std::vector<std::string> names{"7ABC528D.0", "7abc528d.10", "7abc528d", "readme", "7abc528d.0.old"};
    for (const std::string& name : names)
        plant(name, certificate);
    const CertificateAuthority store = authorities();
    EXPECT_EQ(Sandbox::read(paths_.listPath()), "");
    for (const std::string& name : names)
        EXPECT_TRUE(Sandbox::exists(paths_.certPath(name))) << name;
    EXPECT_TRUE(CapturedLog::lines().empty()) << CapturedLog::dump();
}

TEST_F(StoreStart, FileThatIsNoCertificateIsLoggedAndKeptAndIsNoPartOfTheStore) {
    plant("7abc528d.0", "damaged");
    plant("00535762.0", pem("device40"));
    CertificateAuthority store = authorities();
    EXPECT_EQ(Sandbox::read(paths_.certPath("7abc528d.0")), "damaged");
    EXPECT_EQ(Sandbox::read(paths_.listPath()), "00535762.0\n");
    EXPECT_EQ(Sandbox::read(paths_.cnMapPath()), "00535762.0 device40\n");
    EXPECT_FALSE(Sandbox::exists(paths_.certInfoPath("7abc528d.0")));
    ASSERT_EQ(CapturedLog::lines().size(), 1U) << CapturedLog::dump();
    EXPECT_EQ(CapturedLog::lines()[0].severity, SeverityError);
    EXPECT_TRUE(
        CapturedLog::containsPart("The certificate 7abc528d.0 inside ca for " + service_ + " is not ok: "));
    EXPECT_FALSE(store.revoke(std::string("7abc528d.0")));
}

TEST_F(StoreStart, AdditionTakesThePlaceOfADamagedFile) {
    plant("7abc528d.0", "damaged");
    CertificateAuthority store = authorities();
    const std::string certificate = pem("device");
    EXPECT_EQ(store.add(source(certificate)), "7abc528d.0");
    EXPECT_EQ(Sandbox::read(paths_.certPath("7abc528d.0")), certificate);
}

TEST_F(StoreStart, CertificateOfAnotherNameIsNotOk) {
    plant("00000000.0", pem("device"));
    const CertificateAuthority store = authorities();
    EXPECT_EQ(CapturedLog::lines(), Lines{notOk("00000000.0", "The hash of its subject name is 7abc528d")});
    EXPECT_EQ(Sandbox::read(paths_.listPath()), "");
}

TEST_F(StoreStart, FolderAndFifoNamedLikeAnIdAreNotOk) {
    std::filesystem::create_directories(paths_.certPath("00000001.0"));
    ASSERT_EQ(::mkfifo(paths_.certPath("00000002.0").c_str(), 0600), 0);
    const CertificateAuthority store = authorities();
    const auto reason = [this](const std::string& id) {
        return "Impossible to read the file '" + paths_.certPath(id) + "': It is not a regular file";
    };
    EXPECT_EQ(CapturedLog::lines(),
              (Lines{notOk("00000001.0", reason("00000001.0")), notOk("00000002.0", reason("00000002.0"))}));
}

TEST_F(StoreStart, CertificateWhoseRecordCannotBeWrittenStaysInTheStore) {
    plant("7abc528d.0", pem("device"));
    const std::string path = paths_.certInfoPath("7abc528d.0");
    std::filesystem::create_directories(path);
    const CertificateAuthority store = authorities();
    EXPECT_EQ(CapturedLog::lines(), Lines{notOk("7abc528d.0", "Error: Impossible to open " + path +
                                                                  "for writting with error Is a directory")});
    EXPECT_EQ(Sandbox::read(paths_.listPath()), "7abc528d.0\n");
}

TEST_F(StoreStart, CertificateWhoseRightsCannotBeSetStaysInTheStore) {
    const std::string path = plant("7abc528d.0", pem("device"), 0664);
    for (const std::string& folder :
         {paths_.certificateDirectoryPath(), paths_.cachedDirectoryPath(), paths_.tmpDirectoryPath()}) {
        std::filesystem::create_directories(folder);
        ASSERT_EQ(::chown(folder.c_str(), 65534, keywarden::Tools::getGroupId("nogroup")), 0);
    }
    configureWithGroup("nogroup", "");
    const std::string seen = testsupport::inChild([this] {
        testsupport::becomeNobody();
        const CertificateAuthority store = authorities();
        return CapturedLog::dump() + store.getCertInfo("7abc528d.0").substr(0, 19);
    });
    EXPECT_EQ(seen, "3 " + notOk("7abc528d.0", "Impossible to change mode for " + path).text +
                        "\nissuerName: device\n");
}

TEST_F(StoreStart, EachCertificateIsTracedBetweenTheFrame) {
    plant("00000000.0", pem("device"));
    plant("7abc528d.0", pem("device"));
    CertificateAuthority store = authorities();
    const std::string task = "Update file ca system for " + service_;
    EXPECT_EQ(tracesOf([&] { store.updateFileSystem(); }),
              task + "\n" + notOk("00000000.0", "The hash of its subject name is 7abc528d").text +
                  "\n"
                  "Check certificate 00000000.0 not ok.\n"
                  "Check certificate 7abc528d.0 Ok.\n" +
                  task + "... Done.\n");
}

TEST_F(StoreStart, SecondUpdateFindsWhatWasPlantedSince) {
    CertificateAuthority store = authorities();
    plant("7abc528d.0", pem("device"));
    store.updateFileSystem();
    EXPECT_EQ(Sandbox::read(paths_.listPath()), "7abc528d.0\n");
    std::filesystem::remove(paths_.certPath("7abc528d.0"));
    store.updateFileSystem();
    EXPECT_EQ(Sandbox::read(paths_.listPath()), "");
}

TEST_F(StoreStart, FolderThatCannotBeMadeIsLoggedAndTheStoreStarts) {
    std::filesystem::remove_all(device().keywardDirectory() + "/" + service_);
    const CertificateAuthority store = authorities();
    const std::string folder = paths_.certificateDirectoryPath();
    EXPECT_EQ(CapturedLog::lines(),
              (Lines{{SeverityError, "Std exception caught while updating file 'ca' system for '" + service_ +
                                         "': Runtime error caught while changing group for file '" + folder +
                                         "': Impossible to change the group for " + folder}}));
}

}  // namespace
