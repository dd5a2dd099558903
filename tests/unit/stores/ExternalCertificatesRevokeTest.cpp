#include "stores/CertificateInfoStorage.h"
#include "tests/unit/stores/Failures.h"
#include "tests/unit/stores/StoreFixture.h"
#include "testsupport/Traces.h"

namespace {

using keywarden::CertificateAuthority;
using keywarden::TrustedCertificate;
using testsupport::CapturedLog;
using testsupport::Sandbox;
using testsupport::tracesOf;

using Ids = std::vector<std::string>;

/// A store of authorities with two of one name and one of another.
class StoreRevocation : public StoreTest {
  protected:
    StoreRevocation() {
        for (const char* name : {"device", "device", "device40"})
            ids_.push_back(store_.add(source(pem(name))));
    }

    [[nodiscard]] std::vector<std::string> filesOf(const std::string& id) const {
        return {paths_.certInfoPath(id), paths_.certDetailsPath(id), paths_.certOverwrittenDataPath(id),
                paths_.certPath(id)};
    }

    CertificateAuthority store_ = authorities();
    keywarden::ExternalCertificatesAccessor paths_ = paths("ca");
    Ids ids_;
};

using StoreRecord = StoreRevocation;

TEST_F(StoreRevocation, FilesOfOneIdAreRemovedAndListAndMapAreNotRewritten) {
    const std::string list = Sandbox::read(paths_.listPath());
    const std::string map = Sandbox::read(paths_.cnMapPath());
    std::filesystem::copy_file(paths_.certPath(ids_[0]), paths_.certOverwrittenDataPath(ids_[0]));
    EXPECT_TRUE(store_.revoke(ids_[0]));
    for (const std::string& path : filesOf(ids_[0]))
        EXPECT_FALSE(Sandbox::exists(path)) << path;
    for (const std::string& path : {paths_.certPath(ids_[1]), paths_.certInfoPath(ids_[1])})
        EXPECT_TRUE(Sandbox::exists(path)) << path;
    EXPECT_EQ(Sandbox::read(paths_.listPath()), list);
    EXPECT_EQ(Sandbox::read(paths_.cnMapPath()), map);
    EXPECT_FALSE(store_.revoke(ids_[0]));
    EXPECT_TRUE(CapturedLog::lines().empty()) << CapturedLog::dump();
}

TEST_F(StoreRevocation, UnknownIdLeavesTheStoreAsItWas) {
    const std::string list = Sandbox::read(paths_.listPath());
    const std::string map = Sandbox::read(paths_.cnMapPath());
    EXPECT_FALSE(store_.revoke(std::string("7abc528d.9")));
    EXPECT_TRUE(store_.revoke(Ids{"00000000.0", ""}).empty());
    EXPECT_EQ(Sandbox::read(paths_.listPath()), list);
    EXPECT_EQ(Sandbox::read(paths_.cnMapPath()), map);
    for (const std::string& id : ids_)
        EXPECT_TRUE(Sandbox::exists(paths_.certPath(id)));
}

TEST_F(StoreRevocation, IdThatIsAPathRemovesNothing) {
    const std::string victim = sandbox_.write("victim", "text");
    std::string up;
    for (int i = 0; i < 12; ++i)
        up += "../";
    EXPECT_FALSE(store_.revoke(up + victim));
    EXPECT_FALSE(store_.revoke(std::string(".cacheddata/list.txt")));
    EXPECT_TRUE(Sandbox::exists(victim));
    EXPECT_TRUE(Sandbox::exists(paths_.listPath()));
}

TEST_F(StoreRevocation, SeveralIdsAreRemovedAndListAndMapAreRewritten) {
    const auto revoked = store_.revoke(Ids{ids_[1], "00000000.0", ids_[2], ids_[1]});
    EXPECT_EQ(revoked.toTextList(), "00535762.0 7abc528d.1");
    EXPECT_EQ(Sandbox::read(paths_.listPath()), "7abc528d.0\n");
    EXPECT_EQ(Sandbox::read(paths_.cnMapPath()), "7abc528d.0 device\n");
    for (const std::string& id : {ids_[1], ids_[2]})
        for (const std::string& path : filesOf(id))
            EXPECT_FALSE(Sandbox::exists(path)) << path;
    EXPECT_TRUE(Sandbox::exists(paths_.certPath(ids_[0])));
}

TEST_F(StoreRevocation, ListAndMapKeepModeAndGroup) {
    store_.revoke(ids_);
    EXPECT_EQ(Sandbox::read(paths_.listPath()), "");
    expectRights(paths_.listPath(), 0644);
    expectRights(paths_.cnMapPath(), 0644);
}

TEST_F(StoreRevocation, RevokedCertificateStaysAwayAfterARestart) {
    store_.revoke(Ids{ids_[0]});
    EXPECT_EQ(daemonFailureOf([&] { const auto text = authorities().getCertInfo(ids_[0]); }),
              "0 Certificate '7abc528d.0' doesn't exist inside ca for " + service_);
}

TEST_F(StoreRevocation, FileThatIsGoneAlreadyIsNoObstacle) {
    std::filesystem::remove(paths_.certPath(ids_[0]));
    EXPECT_TRUE(store_.revoke(ids_[0]));
    EXPECT_TRUE(CapturedLog::lines().empty()) << CapturedLog::dump();
}

TEST_F(StoreRevocation, RemovalIsTraced) {
    const std::string task = "Remove 7abc528d.0 for " + service_;
    EXPECT_EQ(tracesOf([this] { store_.revoke(std::string("7abc528d.0")); }),
              task + "\n" + task + " done.\n");
    EXPECT_EQ(tracesOf([this] { store_.revoke(std::string("7abc528d.0")); }),
              task + "\n" + task + " Failed. Certificate Id doesn't exist.\n");
}

TEST_F(StoreRecord, IsTheTextOfTheStoredRecord) {
    EXPECT_EQ(store_.getCertInfo("7abc528d.1"),
              "issuerName: device\n"
              "subjectName: device\n"
              "CA: yes\n"
              "CASigned: no\n"
              "selfSigned: yes\n"
              "validFrom: 1577836800\n"
              "validUntil: 2208988800\n");
}

TEST_F(StoreRecord, NameOutsideAsciiComesOutAsItsBytes) {
    const std::string id = store_.add(source(pem("caf\xc3\xa9")));
    EXPECT_NE(store_.getCertInfo(id).find("\nsubjectName: caf\xc3\xa9\n"), std::string::npos);
}

TEST_F(StoreRecord, UnknownIdFails) {
    for (const std::string id : {"7abc528d.2", "", "../ca/7abc528d.0", "7abc528d.0/", "7ABC528D.0"})
        EXPECT_EQ(daemonFailureOf([&] { store_.getCertInfo(id); }),
                  "0 Certificate '" + id + "' doesn't exist inside ca for " + service_);
}

TEST_F(StoreRecord, ComesFromTheCertificateNotFromAFile) {
    const std::string before = store_.getCertInfo(ids_[0]);
    std::filesystem::remove(paths_.certInfoPath(ids_[0]));
    EXPECT_EQ(store_.getCertInfo(ids_[0]), before);
}

TEST_F(StoreRecord, OfACertificateThatIsGoneFails) {
    std::filesystem::remove(paths_.certPath(ids_[0]));
    EXPECT_EQ(daemonFailureOf([&] { store_.getCertInfo(ids_[0]); }),
              "0 Std exception caught while getting certificate data inside ca for " + service_ +
                  ": Impossible to read the file '" + paths_.certPath(ids_[0]) +
                  "': No such file or directory");
}

}  // namespace
