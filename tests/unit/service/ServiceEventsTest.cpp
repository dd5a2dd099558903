// What a service does when the network or the clock has changed.
#include <atomic>
#include <thread>

#include "ServiceFixture.h"
#include "config/InternalCertificatesAccessor.h"
#include "testsupport/CertificateFactory.h"
#include "testsupport/TestClock.h"

namespace servicetest {

using keywarden::InternalCertificatesAccessor;
using keywarden::Service;
using keywarden::SeverityError;
using keywarden::SeverityInfo;
using keywarden::SeverityNotice;
using testsupport::CapturedLog;
using testsupport::CertificateOptions;
using testsupport::Sandbox;
using testsupport::TestClock;

class ServiceEvents : public ServiceTest {
  protected:
    static void setNetworkOf(const std::string& name) { setNetwork("fqdn.0 " + name + ".example\n"); }

    /// The service's own lines, those of its server left out.
    [[nodiscard]] Lines ownLines() const {
        const std::string subject = "The service " + id + " ";
        return linesStarting({subject + "is checking", subject + "checked", subject + "is st", subject + "st",
                              "Create and Apply"});
    }
    [[nodiscard]] testsupport::LogLine checking(const std::string& what) const {
        // Two dots fewer for the time.
        return {SeverityNotice, "The service " + id + " is checking server certificate because " + what +
                                    (what == "time" ? " changed." : " changed...")};
    }
    [[nodiscard]] testsupport::LogLine checked(const std::string& what) const {
        return {SeverityNotice,
                "The service " + id + " checked server certificate because " + what + " changed."};
    }
    /// A change of the network that ends in a new certificate with this line before it.
    void expectRenewal(const std::string& line) const {
        EXPECT_EQ(ownLines(), (Lines{
                                  checking("network"),
                                  {SeverityNotice, line},
                                  {SeverityInfo, "The service " + id + " is stopping its timer..."},
                                  {SeverityInfo, "The service " + id + " stopped its timer."},
                                  {SeverityInfo, "The service " + id + " is starting his timer..."},
                                  {SeverityInfo, "The service " + id + " started his timer."},
                                  checked("network"),
                              }));
    }
    [[nodiscard]] std::string selfSigned() const {
        return "Create and Apply SelfSigned certificate for service '" + id + "' as the network changed.";
    }
    [[nodiscard]] std::string active() const {
        return InternalCertificatesAccessor(id, "server").getActive();
    }
    [[nodiscard]] std::string certificate() const {
        return Sandbox::read(InternalCertificatesAccessor(id, "server").certPath(active()));
    }

    /// A service of its own signs; the device's network is the old one.
    void startAuthority() {
        caId = "pki" + id;
        configureOther(caId, "server yes\nselfSignedGeneration yes\nselfSignedValidity 366\n");
        authority_ = std::make_unique<Service>(caId);
    }
    /// A certificate from a PKI outside of the device takes the place of the present one.
    void applyForeignCertificate() {
        ASSERT_EQ(ask(request("server", "createcsr")), "0 ");
        CertificateOptions options;
        options.ca = true;
        const testsupport::IssuedCertificate issuer = testsupport::makeCertificate(options);
        const std::string signedRequest = testsupport::certifyRequest(
            Sandbox::read(InternalCertificatesAccessor(id, "server").csrPath()), issuer);
        ASSERT_EQ(ask(request("server", "applycrt", {sandbox().write(id + ".crt", signedRequest)})), "0 ");
    }
    void changeNetwork() {
        CapturedLog::clear();
        setNetworkOf("new");
        service().networkChanged();
    }

    std::string caId;

  private:
    std::unique_ptr<Service> authority_;
};

TEST_F(ServiceEvents, CertificateThatStillFitsIsKept) {
    configure("server yes\nselfSignedGeneration yes\nincludeFQDN yes");
    setNetworkOf("old");
    run();
    setNetworkOf("old");
    const std::string before = certificate();
    CapturedLog::clear();
    service().networkChanged();
    EXPECT_EQ(ownLines(), (Lines{checking("network"), checked("network")}));
    EXPECT_EQ(certificate(), before);
}

TEST_F(ServiceEvents, SelfSignedCertificateIsMadeAnew) {
    configure("server yes\nselfSignedGeneration yes\nincludeFQDN yes");
    setNetworkOf("old");
    run();
    const std::string before = certificate();
    changeNetwork();
    expectRenewal(selfSigned());
    EXPECT_NE(certificate(), before);
}

TEST_F(ServiceEvents, CASignedCertificateIsMadeAnew) {
    setNetworkOf("old");
    startAuthority();
    // The other settings do not count.
    configure(
        "server yes\nincludeFQDN yes\nselfSignedGeneration yes\nnetworkInvalidRevokePKIcert yes\n"
        "CASignedGeneration yes\nCAServiceId " +
        caId);
    run();
    const std::string before = certificate();
    changeNetwork();
    expectRenewal("Create and Apply CA-Signed certificate for service '" + id + "' as the network changed.");
    EXPECT_NE(certificate(), before);
}

TEST_F(ServiceEvents, ForeignCertificateIsReplacedWhereTheSettingSaysSo) {
    configure("server yes\nincludeFQDN yes\nnetworkInvalidRevokePKIcert yes");
    setNetworkOf("old");
    run();
    applyForeignCertificate();
    const std::string before = certificate();
    changeNetwork();
    expectRenewal("Create and Apply SelfSigned certificate for service '" + id +
                  "' as the network changed and revoke PKI certificate on network invaid flag is set True.");
    EXPECT_NE(certificate(), before);
}

TEST_F(ServiceEvents, ForeignCertificateIsKeptOtherwise) {
    configure("server yes\nincludeFQDN yes\nselfSignedGeneration yes");
    setNetworkOf("old");
    run();
    applyForeignCertificate();
    const std::string before = certificate();
    changeNetwork();
    EXPECT_EQ(ownLines(), (Lines{checking("network"), checked("network")}));
    EXPECT_EQ(certificate(), before);
}

TEST_F(ServiceEvents, ServiceWithoutAServerIsLeftAlone) {
    configure("ca yes");
    run();
    CapturedLog::clear();
    service().networkChanged();
    service().timeChanged();
    EXPECT_EQ(CapturedLog::lines(), Lines{});
}

TEST_F(ServiceEvents, StoppedServiceIsLeftAlone) {
    configure("server yes\nselfSignedGeneration yes");
    run();
    service().unload();
    CapturedLog::clear();
    service().networkChanged();
    service().timeChanged();
    EXPECT_EQ(CapturedLog::lines(), Lines{});
}

TEST_F(ServiceEvents, FailureOfANetworkChangePassesThrough) {
    configureThrowingOwner("server yes\nselfSignedGeneration yes\nincludeFQDN yes");
    setNetworkOf("old");
    run();
    ownerThrows("newGenerated", "daemon", "no room");
    setNetworkOf("new");
    EXPECT_EQ(failureOf([this] { service().networkChanged(); }), "no room");
    // Nothing is held any more.
    ownerThrowsNothing();
    EXPECT_EQ(ask(request("config", "status")), "0 running");
}

TEST_F(ServiceEvents, TimeChangeChecksBetweenStopAndStartOfTheTimer) {
    configure("server yes\nselfSignedGeneration yes");
    run();
    CapturedLog::clear();
    service().timeChanged();
    const Lines all =
        linesStarting({"The service " + id, "Days before validity of server certificate for service '" + id});
    ASSERT_EQ(all.size(), 7U) << CapturedLog::dump();
    EXPECT_EQ(all[0], checking("time"));
    EXPECT_EQ(all[1].text, "The service " + id + " is stopping its timer...");
    EXPECT_EQ(all[2].text, "The service " + id + " stopped its timer.");
    EXPECT_EQ(all[3].text.substr(0, 11), "Days before");
    EXPECT_EQ(all[4].text, "The service " + id + " is starting his timer...");
    EXPECT_EQ(all[5].text, "The service " + id + " started his timer.");
    EXPECT_EQ(all[6], checked("time"));
}

TEST_F(ServiceEvents, TimeChangeRenewsWhatHasExpired) {
    configure("server yes\nselfSignedGeneration yes\nselfSignedValidity 5");
    run();
    const std::string before = certificate();
    TestClock::set(kNow + INT64_C(10) * 86400);
    service().timeChanged();
    EXPECT_NE(certificate(), before);
}

TEST_F(ServiceEvents, FailureOfATimeChangePassesThrough) {
    configureThrowingOwner("server yes\nselfSignedGeneration yes");
    run();
    ownerThrows("updateValidity", "standard", "nobody listens");
    EXPECT_EQ(failureOf([this] { service().timeChanged(); }), "exception: nobody listens");
    ownerThrowsNothing();
    EXPECT_EQ(ask(request("config", "status")), "0 running");
}

TEST_F(ServiceEvents, EverythingAtOnceHangsNobody) {
    configure("server yes\nselfSignedGeneration yes\nincludeFQDN yes");
    setNetworkOf("old");
    run();
    TestClock::set(1718495999);  // 23:59:59: the timer is due all the time
    std::atomic<bool> done{false};
    std::thread network([this, &done] {
        for (int i = 0; !done; ++i) {
            setNetworkOf("unit" + std::to_string(i));
            service().networkChanged();
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    std::thread time([this, &done] {
        while (!done) {
            service().timeChanged();
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(ask(request("config", "reload")), "0 Reload Successful");
        EXPECT_EQ(ask(request("server", "revoke")), "0 ");
    }
    done = true;
    network.join();
    time.join();
    EXPECT_EQ(ask(request("config", "status")), "0 running");
}

}  // namespace servicetest
