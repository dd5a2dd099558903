// Which request does what, and what it is answered.
#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "ServiceFixture.h"
#include "channel/Commands.h"
#include "config/InternalCertificatesAccessor.h"
#include "testsupport/CertificateFactory.h"
#include "testsupport/Traces.h"
#include "x509/Inspection.h"

namespace servicetest {

using keywarden::Answer;
using keywarden::Commands;
using keywarden::InternalCertificatesAccessor;
using keywarden::SeverityError;
using keywarden::SeverityInfo;
using keywarden::SeverityNotice;
using testsupport::CapturedLog;
using testsupport::CertificateOptions;
using testsupport::IssuedCertificate;
using testsupport::makeCertificate;
using testsupport::Sandbox;
using testsupport::tracesOf;
using Words = std::vector<std::string>;

class ServiceDispatch : public ServiceTest {
  protected:
    void runWith(const std::string& lines) {
        configure(lines);
        run();
        CapturedLog::clear();
        events();
    }
    std::string askFor(const std::string& target, const std::string& command, const Words& arguments = {}) {
        return ask(request(target, command, arguments));
    }
    [[nodiscard]] std::string daemonFailure(const std::string& text) const {
        return "Daemon exception during user request process for service '" + id + "': " + text;
    }
    /// A certificate's file and the id that its subject gives.
    std::pair<std::string, std::string> certificateFile(const std::string& commonName) const {
        CertificateOptions options;
        options.commonName = commonName;
        options.ca = true;
        const std::string pem = makeCertificate(options).certificatePem;
        const std::string hash = keywarden::subjectNameHash(keywarden::X509_T::fromPem(pem));
        return {sandbox().write(id + "." + commonName + ".pem", pem), hash + ".0"};
    }
    [[nodiscard]] InternalCertificatesAccessor store() const { return {id, "server"}; }
    [[nodiscard]] std::string certificate() const {
        return Sandbox::read(store().certPath(store().getActive()));
    }
    /// The answer to the pending request, in a file.
    [[nodiscard]] std::string signedRequest(const CertificateOptions& options = {}) const {
        CertificateOptions authority;
        authority.ca = true;
        return sandbox().write(id + ".crt", testsupport::certifyRequest(Sandbox::read(store().csrPath()),
                                                                        makeCertificate(authority), options));
    }
    [[nodiscard]] Lines timerLines() const {
        return {{SeverityInfo, "The service " + id + " is stopping its timer..."},
                {SeverityInfo, "The service " + id + " stopped its timer."},
                {SeverityInfo, "The service " + id + " is starting his timer..."},
                {SeverityInfo, "The service " + id + " started his timer."}};
    }
    [[nodiscard]] Lines seenTimerLines() const {
        return linesStarting({"The service " + id + " is st", "The service " + id + " st"});
    }
};

TEST_F(ServiceDispatch, StatusTellsWhetherTheServiceIsLoaded) {
    runWith("");
    EXPECT_EQ(askFor("config", "status"), "0 running");
}

TEST_F(ServiceDispatch, AcceptedWordsThatNobodyExecutesAreBadCommands) {
    runWith("server yes\nca yes\ntrustedClients yes");
    const std::vector<std::pair<std::string, Words>> ofTheServer{
        {"getcsr", {}},       {"createcrt", {"1", "2", "3"}},
        {"getkey", {}},       {"info", {}},
        {"help", {}},         {"getOverwrittenData", {}},
        {"details", {}},      {"setOverwrittenData", {"1", "2"}},
        {"path", {}},         {"getcert", {}},
        {"info", {"1", "2"}}, {"getcsrtimestamp", {}},
    };
    for (const auto& [word, arguments] : ofTheServer) {
        CapturedLog::clear();
        EXPECT_EQ(askFor("server", word, arguments), "4 Bad Command server") << word;
        EXPECT_EQ(CapturedLog::lines(), (Lines{{SeverityError, "Bad command server for service: " + id}}));
    }
    const std::vector<std::pair<std::string, Words>> ofAStore{
        {"list", {}},
        {"listByCN", {"1"}},
        {"info", {"1"}},
        {"help", {}},
        {"getOverwrittenData", {"1"}},
        {"setOverwrittenData", {"1", "2", "3"}},
        {"details", {"1"}},
        {"path", {}},
        {"getcert", {"1"}},
    };
    for (const auto& [word, arguments] : ofAStore) {
        EXPECT_EQ(askFor("ca", word, arguments), "4 Bad Command ca") << word;
        EXPECT_EQ(askFor("client", word, arguments), "4 Bad Command Trusted certificate") << word;
    }
    EXPECT_EQ(askFor("config", "help"), "4 Bad Command config");
    EXPECT_EQ(askFor("config", "info", {"1", "2"}), "4 Bad Command config");
}

TEST_F(ServiceDispatch, MissingObjectsAreSaidToBeMissing) {
    runWith("");
    EXPECT_EQ(askFor("server", "createcsr"), "7 Server doesn't exist for " + id);
    EXPECT_EQ(askFor("server", "help"), "7 Server doesn't exist for " + id);
    EXPECT_EQ(CapturedLog::count(SeverityError, "Server doesn't exist for " + id), 2U);
    CapturedLog::clear();
    EXPECT_EQ(askFor("ca", "list"), "7 CA doesn't exist for " + id);
    EXPECT_EQ(askFor("client", "list"), "7 Trusted certificate doesn't exist for " + id);
    EXPECT_EQ(CapturedLog::lines(), Lines{}) << "only a missing server is logged";
}

TEST_F(ServiceDispatch, CommandWithoutATargetIsAnError) {
    runWith("");
    Commands none;
    const auto answer = service().execCmd(none);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->code, 4);
    EXPECT_EQ(answer->text, "Command error");
}

TEST_F(ServiceDispatch, StoppedServiceOnlyTellsThatItIs) {
    runWith("server yes\nca yes\ntrustedClients yes");
    service().unload();
    for (const char* line : {"a\tb\tserver\tcreatecsr", "a\tb\tca\tlist", "a\tb\tclient\tlist"}) {
        Commands command(line);
        const auto answer = service().execCmd(command);
        ASSERT_TRUE(answer) << line;
        EXPECT_EQ(answer->code, 7);
        EXPECT_EQ(answer->text, "The service is not running.");
    }
    Commands status("a\tb\tconfig\tstatus");
    EXPECT_EQ(service().execCmd(status)->text, "stoped");
    EXPECT_EQ(service().execCmd(status)->code, 0);
    CapturedLog::clear();
    Commands reload("a\tb\tconfig\treload");
    const auto refused = service().execCmd(reload);
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->code, 7);
    EXPECT_EQ(refused->text, "Not able to reload the service-" + id);
    EXPECT_EQ(CapturedLog::lines(), (Lines{{SeverityError, "Not able to reload the service-" + id}}));
}

TEST_F(ServiceDispatch, CsrIsCreated) {
    runWith("server yes");
    EXPECT_EQ(askFor("server", "createcsr"), "0 ");
    EXPECT_EQ(
        CapturedLog::lines(),
        (Lines{
            {SeverityNotice, "CSR creation request received for service: " + id + " with nb parameters: 0"},
            {SeverityNotice, "CSR creation request processed for service: " + id},
        }));
    EXPECT_TRUE(Sandbox::exists(store().csrPath()));
}

TEST_F(ServiceDispatch, CsrLeavesTheAddressesOutWhereTheRequestSaysSo) {
    setNetwork("interface.0 eth0\nmac.0 00:11:22:33:44:55\nipv4.0.0 10.0.0.5\nfqdn.0 unit42.example\n");
    runWith("server yes\nincludeFQDN yes\nnetworkInterface.0 eth0\nincludeIPv4.0 yes");
    EXPECT_EQ(askFor("server", "createcsr", {"one", "two"}), "0 ");
    std::string info = askFor("server", "getcsrinfo");
    EXPECT_EQ(info.substr(0, 2), "0 ");
    EXPECT_NE(info.find("10.0.0.5"), std::string::npos) << info;
    EXPECT_EQ(askFor("server", "createcsr", {"one", "CA-CB_compliant", "three"}), "0 ");
    info = askFor("server", "getcsrinfo");
    EXPECT_EQ(info.find("10.0.0.5"), std::string::npos) << info;
    EXPECT_NE(info.find("unit42.example"), std::string::npos) << info;
    EXPECT_TRUE(CapturedLog::contains(
        SeverityNotice, "CSR creation request received for service: " + id + " with nb parameters: 3"));
}

TEST_F(ServiceDispatch, CsrInfoWithoutACsrFails) {
    runWith("server yes");
    const std::string answer = askFor("server", "getcsrinfo");
    EXPECT_EQ(answer.rfind("1 " + daemonFailure("Std exception caught while getting server csr data for "
                                                "service '" +
                                                id + "'"),
                           0),
              0U)
        << answer;
    EXPECT_TRUE(CapturedLog::contains(SeverityError, answer.substr(2)));
}

TEST_F(ServiceDispatch, CertificateOfAPkiIsApplied) {
    runWith("server yes");
    ASSERT_EQ(askFor("server", "createcsr"), "0 ");
    CapturedLog::clear();
    EXPECT_EQ(askFor("server", "applycrt", {signedRequest()}), "0 ");
    Lines expected = timerLines();
    expected.push_back({SeverityNotice, "Apply CRT request received for service: " + id});
    Lines seen = linesStarting({"The service " + id, "Apply CRT"});
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(events(), Words{"server new " + store().getActive()});
}

TEST_F(ServiceDispatch, CertificateThatCannotBeAppliedIsAnsweredWithItsCode) {
    runWith("server yes");
    EXPECT_EQ(askFor("server", "applycrt", {"/nonexistent.crt"}),
              "1 " + daemonFailure("Certificate /nonexistent.crt doesn't exit."));
    EXPECT_TRUE(
        CapturedLog::contains(SeverityError, daemonFailure("Certificate /nonexistent.crt doesn't exit.")));
    EXPECT_EQ(askFor("server", "applycrt", {""}), "1 " + daemonFailure("Certificate path is empty."));
    const std::string garbage = sandbox().write("garbage.crt", "no certificate");
    EXPECT_EQ(askFor("server", "applycrt", {garbage}).substr(0, 2), "9 ");
    const auto [foreign, foreignId] = certificateFile("foreign");
    EXPECT_EQ(askFor("server", "applycrt", {foreign}).substr(0, 3), "21 ") << "no request is pending";
    ASSERT_EQ(askFor("server", "createcsr"), "0 ");
    EXPECT_EQ(askFor("server", "applycrt", {foreign}),
              "26 " + daemonFailure("Error in validating csr and crt"));
    EXPECT_EQ(seenTimerLines(), Lines{}) << "a failure leaves the timer alone";
}

TEST_F(ServiceDispatch, RevokedSelfSignedCertificateIsMadeAnew) {
    runWith("server yes\nselfSignedGeneration yes");
    const std::string before = certificate();
    EXPECT_EQ(askFor("server", "revoke"), "0 ");
    EXPECT_NE(certificate(), before);
    const Lines all = CapturedLog::lines();
    EXPECT_EQ(all.front(),
              (testsupport::LogLine{SeverityNotice, "Create and Apply SelfSigned certificate for service '" +
                                                        id + "' as the old one is revoked."}));
    EXPECT_EQ(all.back(),
              (testsupport::LogLine{SeverityNotice, "Revoke request processed for service: " + id}));
    EXPECT_EQ(seenTimerLines(), timerLines());
}

TEST_F(ServiceDispatch, OnlyARevocationTracesTheRestartOfTheTimer) {
    std::string applied;
    std::string revoked;
    const std::string traces = tracesOf([&] {
        runWith("server yes");
        EXPECT_EQ(askFor("server", "createcsr"), "0 ");
        const std::string certificate = signedRequest();
        std::cerr << "--apply\n";
        applied = askFor("server", "applycrt", {certificate});
        std::cerr << "--between\n";
        configure("server yes\nselfSignedGeneration yes");
        EXPECT_EQ(askFor("config", "reload"), "0 Reload Successful");
        std::cerr << "--revoke\n";
        revoked = askFor("server", "revoke");
        std::cerr << "--end\n";
        destroy();
    });
    const auto restartBetween = [&traces](const std::string& begin, const std::string& end) {
        const std::size_t first = traces.find(begin);
        const std::string part = traces.substr(first, traces.find(end) - first);
        std::string found;
        for (const char* const line : {"Stop timer success.\n", "Start timer success.\n"})
            if (part.find(line) != std::string::npos)
                found += line;
        return found;
    };
    EXPECT_EQ(applied, "0 ");
    EXPECT_EQ(restartBetween("--apply\n", "--between\n"), "");
    EXPECT_EQ(revoked, "0 ");
    EXPECT_EQ(restartBetween("--revoke\n", "--end\n"), "Stop timer success.\nStart timer success.\n");
}

TEST_F(ServiceDispatch, RevokedCASignedCertificateIsMadeAnewForThePresentNetwork) {
    const std::string caId = "pki" + id;
    configureOther(caId, "server yes\nselfSignedGeneration yes\nselfSignedValidity 366");
    const keywarden::Service authority(caId);
    setNetwork("fqdn.0 old.example\n");
    runWith("server yes\nincludeFQDN yes\nCASignedGeneration yes\nselfSignedGeneration yes\nCAServiceId " +
            caId);
    testsupport::TestDevice::get().setNetwork("fqdn.0 new.example\n");
    EXPECT_EQ(askFor("server", "revoke"), "0 ");
    EXPECT_EQ(CapturedLog::lines().front(),
              (testsupport::LogLine{SeverityNotice, "Create and Apply CA-Signed certificate for service '" +
                                                        id + "' as the old one is revoked."}));
    EXPECT_EQ(keywarden::alternativeNamesOf(keywarden::X509_T::fromPem(certificate())).hostnames,
              Words{"new.example"});
    EXPECT_EQ(seenTimerLines(), timerLines());
}

TEST_F(ServiceDispatch, RevokedCertificateIsOnlyRemovedWithoutGeneration) {
    runWith("server yes");
    ASSERT_EQ(askFor("server", "createcsr"), "0 ");
    ASSERT_EQ(askFor("server", "applycrt", {signedRequest()}), "0 ");
    const std::string path = store().certPath(store().getActive());
    ASSERT_TRUE(Sandbox::exists(path));
    CapturedLog::clear();
    EXPECT_EQ(askFor("server", "revoke"), "0 ");
    EXPECT_EQ(CapturedLog::lines(),
              (Lines{{SeverityNotice, "Certificate for service '" + id +
                                          "' can not be generated as signed type is disabled."}}));
    EXPECT_FALSE(Sandbox::exists(path));
}

TEST_F(ServiceDispatch, CertificateIsDescribed) {
    runWith("server yes");
    const auto [path, certificateId] = certificateFile("described");
    const std::string answer = askFor("server", "getcertinfo", {path});
    EXPECT_EQ(answer.substr(0, 2), "0 ");
    EXPECT_NE(answer.find("described"), std::string::npos) << answer;
    EXPECT_EQ(askFor("server", "getcertinfo"),
              "1 " + daemonFailure("The path of the certificate is missing."));
    EXPECT_EQ(askFor("server", "getcertinfo", {"/nonexistent.crt"}).substr(0, 2), "1 ");
}

TEST_F(ServiceDispatch, FifoIsNotDescribedAndHoldsUpNobody) {
    runWith("server yes");
    const std::string fifo = sandbox().path(id + ".fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(
        Requester(id).ask(request("server", "getcertinfo", {fifo}), std::chrono::seconds(5)).substr(0, 2),
        "1 ");
}

class ServiceStores : public ServiceDispatch, public testing::WithParamInterface<const char*> {
  protected:
    [[nodiscard]] std::string target() const { return GetParam(); }
};

TEST_P(ServiceStores, CertificateIsAddedDescribedAndRevoked) {
    runWith("ca yes\ntrustedClients yes");
    const auto [path, first] = certificateFile("first");
    const auto [otherPath, second] = certificateFile("second");
    EXPECT_EQ(askFor(target(), "add", {path}), "0 " + first);
    EXPECT_EQ(askFor(target(), "add", {otherPath}), "0 " + second);
    EXPECT_EQ(events(), (Words{target() + " new " + first, target() + " new " + second}));
    const std::string described = askFor(target(), "getcertinfo", {first});
    EXPECT_EQ(described.substr(0, 2), "0 ");
    EXPECT_NE(described.find("first"), std::string::npos) << described;
    const std::string both = std::min(first, second) + " " + std::max(first, second);
    EXPECT_EQ(askFor(target(), "revoke", {first, "00000000.0", second}), "0 " + both);
    EXPECT_EQ(events(), Words{target() + " revoke " + both});
}

TEST_P(ServiceStores, RevokingNothingTellsNobody) {
    runWith("ca yes\ntrustedClients yes");
    EXPECT_EQ(askFor(target(), "revoke", {"00000000.0"}), "0 ");
    EXPECT_EQ(askFor(target(), "revoke", {""}), "0 ");
    EXPECT_EQ(events(), Words{});
}

TEST_P(ServiceStores, RevokingNothingIsNotEvenToldToALibrary) {
    const std::string record = sandbox().path("library." + id);
    ::setenv("CALLBACK_RECORD", record.c_str(), 1);
    runWith("callbackLibrary " PLUGIN_RECORDER "\nca yes\ntrustedClients yes");
    const auto [path, first] = certificateFile("first");
    ASSERT_EQ(askFor(target(), "add", {path}), "0 " + first);
    EXPECT_EQ(askFor(target(), "revoke", {"00000000.0"}), "0 ");
    EXPECT_EQ(askFor(target(), "revoke", {first}), "0 " + first);
    ::unsetenv("CALLBACK_RECORD");
    EXPECT_EQ(Sandbox::read(record), id + ": create\n" + id + ": started\n" + id + ": newExternal " +
                                         target() + " " + first + "\n" + id + ": revokedSeveral " + target() +
                                         " " + first + "\n");
}

TEST_P(ServiceStores, FailuresToAddAreAnsweredWithTheirCodes) {
    runWith("ca yes\ntrustedClients yes\nmaximumCA 1\nmaximumTrustedClients 1");
    EXPECT_EQ(askFor(target(), "add", {"/nonexistent"}),
              "1 " + daemonFailure("Certificate does not exist for /nonexistent"));
    const std::string garbage = sandbox().write("garbage.crt", "no certificate");
    EXPECT_EQ(askFor(target(), "add", {garbage}),
              "9 " + daemonFailure("Failed to read certificate from file: " + garbage));
    const auto [path, first] = certificateFile("first");
    ASSERT_EQ(askFor(target(), "add", {path}), "0 " + first);
    EXPECT_EQ(askFor(target(), "add", {path}).substr(0, 3), "42 ");
    EXPECT_TRUE(events() == Words{target() + " new " + first});
}

TEST_P(ServiceStores, CertificateThatIsThereIsRefused) {
    runWith("ca yes\ntrustedClients yes");
    const auto [path, first] = certificateFile("first");
    ASSERT_EQ(askFor(target(), "add", {path}), "0 " + first);
    EXPECT_EQ(askFor(target(), "add", {path}).substr(0, 3), "43 ");
}

TEST_P(ServiceStores, DescriptionWithoutAnIdOrOfAnUnknownOneFails) {
    runWith("ca yes\ntrustedClients yes");
    EXPECT_EQ(askFor(target(), "getcertinfo"), "1 " + daemonFailure("The id of the certificate is missing."));
    EXPECT_EQ(askFor(target(), "getcertinfo", {"../../etc/passwd"}).substr(0, 2), "1 ");
}

INSTANTIATE_TEST_SUITE_P(Both, ServiceStores, testing::Values("ca", "client"),
                         [](const auto& instance) { return std::string(instance.param); });

TEST_F(ServiceDispatch, EveryKindOfFailureHasItsText) {
    configureThrowingOwner("ca yes");
    run();
    const auto file = certificateFile("first");
    const std::string of = " during user request process for service '" + id + "'";
    const auto answerTo = [&](const std::string& kind, const std::string& text) {
        ownerThrows("newExternal", kind, text);
        CapturedLog::clear();
        std::string answer = askFor("ca", "add", {file.first});
        const std::string logged = answer.substr(answer.find(' ') + 1);
        EXPECT_EQ(CapturedLog::lines(), (Lines{{SeverityError, logged}}));
        askFor("ca", "revoke", {file.second});
        return answer;
    };
    EXPECT_EQ(answerTo("daemon", "no room"), "1 Daemon exception" + of + ": no room");
    EXPECT_EQ(answerTo("coded", "no room"), "42 Daemon exception" + of + ": no room");
    EXPECT_EQ(answerTo("runtime", "no room"), "1 std exception" + of + ": no room");
    EXPECT_EQ(answerTo("standard", ""), "1 std exception" + of + ": Unknown error");
    EXPECT_EQ(answerTo("odd", ""), "1 Unknown exception" + of + ".");
}

}  // namespace servicetest
