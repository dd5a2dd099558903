// The choice of what to make, the validity window, and the self-signed certificate.
#include <sys/stat.h>

#include "ServerFixture.h"
#include "x509/Inspection.h"

namespace servertest {

using keywarden::KeywardenDaemonException;
using keywarden::SeverityError;
using keywarden::SeverityNotice;
using testsupport::CapturedLog;
using testsupport::LogLine;
using testsupport::TestClock;

namespace {

struct Period {
    std::uint64_t from = 0;
    std::uint64_t until = 0;
    std::uint64_t seconds = 0;
};

class ServerGeneration : public ServerTest {
  protected:
    Period period(const std::string& lines, bool selfSigned = true) {
        configure(lines);
        start();
        Period result;
        server().setValidSeconds(selfSigned, result.from, result.until, result.seconds);
        return result;
    }
    std::string periodFailure(const std::string& lines) {
        configure(lines);
        start();
        return failureOf<KeywardenDaemonException>([this] {
            Period result;
            server().setValidSeconds(true, result.from, result.until, result.seconds);
        });
    }
    [[nodiscard]] keywarden::X509_T stored() const { return keywarden::X509_T(store().certPath(active())); }
    [[nodiscard]] std::string selfSignedText(const std::string& kind) const {
        return kind + " exception caught while creating and applying " +
               (kind == "Daemon" ? "selfsigned" : "self signed") + " certificate for service '" + id + "'";
    }
};

}  // namespace

// The validity window.

TEST_F(ServerGeneration, PeriodIsCutToWholeDays) {
    const Period result = period("selfSignedValidity 365\nselfSignedValidityOffset 1");
    EXPECT_EQ(1718323200U, result.from);   // 2024-06-14 00:00:00
    EXPECT_EQ(1749859200U, result.until);  // 2025-06-14 00:00:00
    EXPECT_EQ(31536000U, result.seconds);
}

TEST_F(ServerGeneration, PeriodIsThirtyDaysFromTodayByDefault) {
    const Period result = period("");
    EXPECT_EQ(1718409600U, result.from);
    EXPECT_EQ(1718409600U + 30ULL * 86400U, result.until);
    EXPECT_EQ(30ULL * 86400U, result.seconds);
}

TEST_F(ServerGeneration, PeriodOfCaSignedUsesItsOwnKeys) {
    const std::string lines =
        "selfSignedValidity 365\nselfSignedValidityOffset 1\nCASignedValidity 10\nCASignedValidityOffset 2";
    const Period result = period(lines, false);
    EXPECT_EQ(1718409600U - 2ULL * 86400U, result.from);
    EXPECT_EQ(1718409600U + 8ULL * 86400U, result.until);
    EXPECT_EQ(10ULL * 86400U, result.seconds);
}

TEST_F(ServerGeneration, PeriodOfManyDaysDoesNotOverflow) {
    const Period result = period("selfSignedValidity 100000");
    EXPECT_EQ(1718409600ULL + 8640000000ULL, result.until);
    EXPECT_EQ(8640000000ULL, result.seconds);
}

TEST_F(ServerGeneration, PeriodThatStartsBeforeTheLowerLimitFails) {
    EXPECT_EQ(
        "Requested valid from time 'Tue Jan 28 00:00:00 1997\n' is beyond the allowed lower limit of time "
        "'Thu "
        "Dec 30 12:00:00 1999\n'.",
        periodFailure("selfSignedValidity 20000\nselfSignedValidityOffset 10000"));
}

TEST_F(ServerGeneration, PeriodThatStartsOnTheDayOfTheLowerLimitFails) {
    // 1999-12-30 00:00:00 is twelve hours too early, the day after it is not.
    EXPECT_EQ(
        "Requested valid from time 'Thu Dec 30 00:00:00 1999\n' is beyond the allowed lower limit of time "
        "'Thu "
        "Dec 30 12:00:00 1999\n'.",
        periodFailure("selfSignedValidity 20000\nselfSignedValidityOffset 8934"));
    EXPECT_EQ(946598400U, period("selfSignedValidity 20000\nselfSignedValidityOffset 8933").from);
}

TEST_F(ServerGeneration, PeriodThatWrapsBelowTheEpochFailsAsEndingTooEarly) {
    // 25000 days before 2024-06-15 is in 1955: the unsigned start is huge.
    const std::uint64_t wrapped = static_cast<std::uint64_t>(1718459100 - 25000 * kDay);
    const std::string from = std::to_string(wrapped - wrapped % 86400U) + " seconds since the epoch\n";
    EXPECT_EQ("Requested valid until 'Mon Feb 22 00:00:00 2038\n' is not higher than valid from time '" +
                  from + "'.",
              periodFailure("selfSignedValidity 30000\nselfSignedValidityOffset 25000"));
}

// The choice.

TEST_F(ServerGeneration, WithBothKindsOffOnlyTheNoticeIsLogged) {
    start();
    clearLog();
    server().createCertificate();
    const std::vector<LogLine> expected = {
        {SeverityNotice,
         "Certificate for service '" + id + "' can not be created as signed type is disabled."}};
    EXPECT_EQ(expected, CapturedLog::lines());
    EXPECT_FALSE(server().isCertificatePresent());
}

TEST_F(ServerGeneration, SelfSignedCertificateIsInstalledAndLogged) {
    configure("selfSignedGeneration yes");
    start();
    const std::vector<LogLine> all = CapturedLog::lines();
    ASSERT_GE(all.size(), 5U) << CapturedLog::dump();
    EXPECT_EQ((LogLine{SeverityNotice, "Create and Apply SelfSigned certificate for service '" + id +
                                           "' as generatin is needed."}),
              all[1]);
    EXPECT_EQ(
        (LogLine{SeverityNotice, "The service " + id + " is creating a server selfsigned certificate..."}),
        all[2]);
    EXPECT_TRUE(CapturedLog::contains(SeverityNotice,
                                      "New certificate with id '" + active() + "' for service '" + id +
                                          "' has been installed. Calling the callback script..."));
    EXPECT_TRUE(server().isCertificateSelfSigned());
    EXPECT_EQ("new " + active(), callbacks->events.at(0));
}

TEST_F(ServerGeneration, SelfSignedCertificateHasThePeriodSubjectAndKeyOfItsSettings) {
    configure("selfSignedGeneration yes\nselfSignedValidity 365\nselfSignedValidityOffset 1");
    start();
    EXPECT_EQ(1718323200U, keywarden::notBeforeOf(stored()));
    EXPECT_EQ(1749859200U, keywarden::notAfterOf(stored()));
    EXPECT_EQ("unit.example", keywarden::subjectCommonName(stored()));
    EXPECT_TRUE(keywarden::isSelfSignedCertificate(stored()));
    EXPECT_TRUE(keywarden::isCertificateAuthority(stored()));
    EXPECT_TRUE(
        keywarden::keyMatchesCertificate(keywarden::EVP_PKEY_T(store().certKeyPath(active())), stored()));
    EXPECT_EQ(std::vector<std::string>{"localhost"}, keywarden::alternativeNamesOf(stored()).hostnames);
}

TEST_F(ServerGeneration, SelfSignedCertificateRecordsTheNetworkItWasMadeFor) {
    setNetwork("interface.0 eth0\nipv4.0.0 10.0.0.1\nfqdn.0 a\n");
    configure("selfSignedGeneration yes\nincludeFQDN yes\nnetworkInterface.0 eth0\nincludeIPv4.0 yes");
    start();
    EXPECT_EQ("HOSTNAME.1 a\nINTERFACE.1 eth0\neth0.1 10.0.0.1\n",
              readFile(store().certNetworkPath(active())));
}

TEST_F(ServerGeneration, EveryCertificateHasANewKey) {
    configure("selfSignedGeneration yes");
    start();
    const std::string before = fingerprint(readFile(store().certKeyPath(active())));
    server().createCertificate();
    EXPECT_NE(before, fingerprint(readFile(store().certKeyPath(active()))));
}

TEST_F(ServerGeneration, TracesOfTheSelfSignedGenerationComeInOrder) {
    configure("selfSignedGeneration yes");
    start();
    const CapturedTraces captured;
    server().createAndApplySelfSigned();
    const std::string text = captured.text();
    const std::size_t begin = text.find("Create and apply a self signed certificate...\n");
    const std::size_t made = text.find("Generated self signed certificate successfully!\n");
    const std::size_t installed = text.find(" Generate the certificate id...\n");
    const std::size_t done = text.find("Create and apply a self signed certificate... done.\n");
    ASSERT_NE(std::string::npos, done) << text;
    EXPECT_EQ(0U, begin);
    EXPECT_LT(made, installed);
    EXPECT_LT(installed, done);
}

TEST_F(ServerGeneration, HookIsAskedWithSelfsignAndItsSettingsAreUsed) {
    const std::string hook = scratch("hook",
                                     "#!/bin/sh\necho \"$#:$1:$2\" > \"$0.arguments\"\n"
                                     "echo 'CONFIG_KEY PRIME256V1'\necho 'CN hook.example'\n");
    ASSERT_EQ(0, ::chmod(hook.c_str(), 0755));
    configure("selfSignedGeneration yes\ncnfHookFile " + hook);
    start();
    EXPECT_EQ("2:" + id + ":selfsign\n", readFile(hook + ".arguments"));
    EXPECT_EQ("hook.example", keywarden::subjectCommonName(stored()));
}

TEST_F(ServerGeneration, SettingsFileWinsOverTheHook) {
    const std::string hook = scratch("hook", "#!/bin/sh\necho 'CN hook.example'\n");
    ASSERT_EQ(0, ::chmod(hook.c_str(), 0755));
    configure("selfSignedGeneration yes\ncnfHookFile " + hook + "\ncnfFile " + cnfFile);
    start();
    EXPECT_EQ("unit.example", keywarden::subjectCommonName(stored()));
}

// Failures.

TEST_F(ServerGeneration, OldClockRefusesBeforeAnyFileIsTouched) {
    configure("selfSignedGeneration yes");
    start();
    const std::string before = readFile(store().certPath(active()));
    TestClock::set(kOldClock);
    EXPECT_EQ("Not able to create and apply self signed certificate for service '" + id +
                  "' as the system date is old.",
              failureOf<KeywardenDaemonException>([this] { server().createAndApplySelfSigned(); }));
    clearLog();
    server().createCertificate();
    EXPECT_TRUE(CapturedLog::contains(SeverityError, selfSignedText("Daemon") +
                                                         " Not able to create and apply self signed "
                                                         "certificate for service '" +
                                                         id + "' as the system date is old."))
        << CapturedLog::dump();
    EXPECT_EQ(before, readFile(store().certPath(active())));
}

TEST_F(ServerGeneration, InadmissiblePeriodIsRethrownWithItsPrefix) {
    configure("selfSignedValidity 20000\nselfSignedValidityOffset 10000");
    start();
    EXPECT_EQ(
        "Daemon exception received during setting the valid seconds before and after during self signed "
        "certificate generation for service '" +
            id +
            "' Requested valid from time 'Tue Jan 28 00:00:00 1997\n' is beyond the allowed lower limit of "
            "time "
            "'Thu Dec 30 12:00:00 1999\n'.",
        failureOf<KeywardenDaemonException>([this] { server().createAndApplySelfSigned(); }));
    EXPECT_FALSE(server().isCertificatePresent());
}

TEST_F(ServerGeneration, KeyThatCannotBeMadeIsRethrownWithItsPrefix) {
    const std::string bad = scratch("bad.cnf", "CONFIG_KEY SECP521R1\nCN unit.example\n");
    configure("selfSignedGeneration yes\ncnfFile " + bad);
    start();
    const std::string text =
        "Failed creating X509 Certificate for service '" + id + "' Unsupported key format.";
    EXPECT_EQ(text, failureOf<KeywardenDaemonException>([this] { server().createAndApplySelfSigned(); }));
    EXPECT_TRUE(CapturedLog::contains(SeverityError, selfSignedText("Daemon") + " " + text))
        << CapturedLog::dump();
    EXPECT_FALSE(server().isCertificatePresent());
}

TEST_F(ServerGeneration, MissingSettingsFileIsLoggedAsAStandardException) {
    configure("selfSignedGeneration yes\ncnfFile /nonexistent/settings.cnf");
    start();
    EXPECT_TRUE(CapturedLog::contains(
        SeverityError,
        selfSignedText("std") + " Failed to read configuration file-/nonexistent/settings.cnf"))
        << CapturedLog::dump();
}

TEST_F(ServerGeneration, SelfSignedFailuresOfTheOwnerAreLoggedByTheirKind) {
    configure("selfSignedGeneration yes");
    start();
    clearLog();
    callbacks->onNew = [](const std::string&) { throw KeywardenDaemonException("daemon failure"); };
    server().createCertificate();
    callbacks->onNew = [](const std::string&) { throw std::logic_error("standard failure"); };
    server().createCertificate();
    callbacks->onNew = [](const std::string&) { throw 42; };
    server().createCertificate();
    EXPECT_TRUE(CapturedLog::contains(SeverityError, selfSignedText("Daemon") + " daemon failure"));
    EXPECT_TRUE(CapturedLog::contains(SeverityError, selfSignedText("std") + " standard failure"));
    EXPECT_TRUE(CapturedLog::contains(SeverityError, selfSignedText("Unknown") + ".")) << CapturedLog::dump();
}

TEST_F(ServerGeneration, FailureWithoutATextIsAnUnknownError) {
    configure("selfSignedGeneration yes");
    start();
    callbacks->onNew = [](const std::string&) { throw std::runtime_error(""); };
    server().createCertificate();
    EXPECT_TRUE(CapturedLog::contains(SeverityError, selfSignedText("std") + " Unknown error"))
        << CapturedLog::dump();
}

}  // namespace servertest
