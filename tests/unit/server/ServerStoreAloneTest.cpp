// The store by itself: it keeps files and decides about no certificate.
#include <unistd.h>

#include <fstream>
#include <optional>

#include "ServerFixture.h"
#include "server/ServerStore.h"
#include "x509/Signing.h"
#include "x509/Validation.h"

namespace servertest {

using keywarden::Severity;
using keywarden::SeverityNotice;
using testsupport::CapturedLog;

namespace {

using Health = keywarden::ServerStore::Health;

class ServerStoreAlone : public ServerTest {
  protected:
    keywarden::ServerStore& made() {
        if (!made_)
            made_.emplace(configuration(), callbacks);
        return *made_;
    }
    void startEmpty() {
        configure("selfSignedGeneration yes");
        ASSERT_FALSE(made().start());
    }
    MadePair installed(const std::string& commonName) {
        MadePair pair = makePair(commonName);
        made().installCertificate(pair.certificate, pair.key, noNetwork());
        return pair;
    }
    void startAnew() { made_.reset(); }

  private:
    std::optional<keywarden::ServerStore> made_;
};

TEST_F(ServerStoreAlone, MakesNothingBeforeItsStart) {
    configure();
    made();
    EXPECT_FALSE(exists(store().certificateDirectoryPath()));
    EXPECT_FALSE(made().start());
    EXPECT_EQ(namesIn(store().certificateDirectoryPath()), std::vector<std::string>{".cacheddata"});
}

TEST_F(ServerStoreAlone, MakesNoCertificateOfItsOwn) {
    startEmpty();
    EXPECT_FALSE(made().isCertificatePresent());
    EXPECT_EQ(made().record(), nullptr);
    EXPECT_FALSE(made().isCertificateSelfSigned());
    EXPECT_FALSE(made().isCertificateCASigned());
    EXPECT_EQ(made().heal(), Health::WithoutCertificate);
    EXPECT_EQ(callbacks->events, std::vector<std::string>());
}

TEST_F(ServerStoreAlone, WhatIsInstalledIsFoundByTheNextOne) {
    startEmpty();
    const MadePair pair = installed("kept.example");
    EXPECT_EQ(callbacks->events, std::vector<std::string>{"new " + pair.id});
    startAnew();
    EXPECT_TRUE(made().start());
    ASSERT_NE(made().record(), nullptr);
    EXPECT_TRUE(made().isCertificateSelfSigned());
    EXPECT_FALSE(made().isCertificateCASigned());
    EXPECT_EQ(made().heal(), Health::Settled);
    EXPECT_EQ(callbacks->events, std::vector<std::string>{"new " + pair.id});
}

TEST_F(ServerStoreAlone, APairThatIsNoneAnyMoreIsBrokenAndReplacedByNobody) {
    startEmpty();
    const MadePair pair = installed("broken.example");
    const MadePair other = makePair("broken.example");
    std::ofstream(store().certKeyPath(pair.id)) << other.keyPem;
    EXPECT_EQ(made().heal(), Health::Broken);
    EXPECT_EQ(made().record(), nullptr);
    EXPECT_EQ(active(), pair.id);
    EXPECT_EQ(readFile(store().certPath(pair.id)), pair.certificatePem + "\n");
}

TEST_F(ServerStoreAlone, OfOneThatWasRevokedNothingIsToBeHealed) {
    startEmpty();
    const MadePair pair = installed("revoked.example");
    made().revokeCrt();
    EXPECT_EQ(made().heal(), Health::Settled);
    EXPECT_EQ(filesOf(store(), pair.id), "");
    startAnew();
    EXPECT_FALSE(made().start());
}

TEST_F(ServerStoreAlone, APendingRequestComesBackWithItsKeyUntilItIsRemoved) {
    startEmpty();
    kwdata::CCertificateData data;
    data.public_key_type = "PRIME256V1";
    data.subject.setToDefault();
    const keywarden::EVP_PKEY_T key(data);
    made().savePendingRequest(key, keywarden::X509_REQ_T(data, key), noNetwork());
    EXPECT_EQ(fingerprint(privateKeyToPem(made().pendingKey())), fingerprint(privateKeyToPem(key)));
    const keywarden::X509_T own = createX509SelfSignedCertificate(data, key);
    EXPECT_TRUE(validateCsrAndCrt(made().pendingRequest(), own));
    EXPECT_EQ(made().pendingNetwork().toText(), noNetwork().toText());
    EXPECT_EQ(rightsOf(store().csrKeyPath()), "0640 adm");
    made().removeCsr();
    EXPECT_EQ(failureOf<std::runtime_error>([&] { static_cast<void>(made().pendingRequest()); }),
              "Failed allocate memory for BIO buffer during loading csr file: " + store().csrPath());
    EXPECT_FALSE(exists(store().csrKeyPath()));
}

TEST_F(ServerStoreAlone, ANetworkThatWasNotRecordedIsSaid) {
    startEmpty();
    const MadePair pair = installed("network.example");
    EXPECT_TRUE(made().recordedNetwork().has_value());
    ASSERT_EQ(0, ::unlink(store().certNetworkPath(pair.id).c_str()));
    clearLog();
    EXPECT_FALSE(made().recordedNetwork().has_value());
    EXPECT_EQ(CapturedLog::lines(),
              (std::vector<testsupport::LogLine>{
                  {SeverityNotice, store().certNetworkPath(pair.id) + " file not found."}}));
}

}  // namespace

}  // namespace servertest
