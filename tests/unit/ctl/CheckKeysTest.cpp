// Lines that the daemon reads otherwise than they look, and values that it takes otherwise.
#include <gmock/gmock.h>

#include <random>
#include <sstream>

#include "CheckedDevice.h"
#include "ctl/check/ConfigLines.h"
#include "ctl/check/KeySearch.h"
#include "ctl/check/Rules.h"
#include "support/Tools.h"

using keywardctl::check::ConfigLines;
using keywardctl::check::Dialect;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class CheckKeys : public testing::Test {
  protected:
    void SetUp() override { REQUIRE_CHECKED_DEVICES(); }

    /// What a line after the last one of the service's file is told.
    std::vector<std::string> withServiceLine(const std::string& line) {
        device.append("services/web.conf", line);
        return device.check();
    }

    CheckedDevice device;
};

const std::string kLine8 = "~/services/web.conf:8: ";

std::string randomText(std::mt19937& random) {
    static const std::string kLetters = "  \t\t##==ab.\r\n\n";
    std::string text;
    for (auto left = random() % 24U; left > 0; --left)
        text += kLetters[random() % kLetters.size()];
    return text;
}

}  // namespace

TEST_F(CheckKeys, AProperDeviceYieldsNothing) {
    EXPECT_THAT(device.check(), IsEmpty());
    EXPECT_EQ(device.on([] { return reportText(keywardctl::check::Report()); }), "Nothing found.\n");
}

TEST_F(CheckKeys, AMisspeltKeyIsToldWithTheNearestOne) {
    device.append("services/web.conf", "selfSignedValidty 90");
    device.append("config.daemon", "TimeDriftsleepTime 5");
    device.append("web.cnf", "subjectAltName DNS:a");
    EXPECT_THAT(
        device.check(),
        ElementsAre("~/config.daemon:9: error: 'TimeDriftsleepTime' is no key of this file and is ignored "
                    "[unknown-key]",
                    kLine8 + "error: 'selfSignedValidty' is no key of this file and is ignored [unknown-key]",
                    "~/web.cnf:9: error: 'subjectAltName' is no key of this file and is ignored "
                    "[unknown-key]"));
}

TEST(CheckKeyTables, TheNearestKeyIsFoundAndAFarOneIsNone) {
    using keywardctl::check::nearestKey;
    const auto& keys = keywarden::serviceKeys();
    EXPECT_EQ(nearestKey(keys, "managementGroup"), "managmentGroup");
    EXPECT_EQ(nearestKey(keys, "SERVER"), "server");
    EXPECT_EQ(nearestKey(keys, "includeIpv4.12"), "includeIPv4.12");
    EXPECT_EQ(nearestKey(keys, "includeIPv4"), "includeIPv4.0");
    EXPECT_EQ(nearestKey(keys, "certificate"), "");
    EXPECT_EQ(nearestKey(keywarden::settingsKeys(), "X"), "");
    EXPECT_EQ(nearestKey(keywarden::settingsKeys(), "cn"), "CN");
    EXPECT_EQ(keywardctl::check::findKey(keys, "networkInterface.01"), nullptr);
    EXPECT_NE(keywardctl::check::findKey(keys, "networkInterface.10"), nullptr);
}

TEST_F(CheckKeys, OfARepeatedKeyTheFirstCounts) {
    EXPECT_THAT(
        withServiceLine("keyGroup other"),
        ElementsAre(kLine8 + "warning: 'keyGroup' is given again; the one in line 2 counts [repeated-key]"));
}

TEST_F(CheckKeys, ATabIsNoSpace) {
    device.append("services/web.conf", "name\tWeb server");
    EXPECT_THAT(
        withServiceLine("includeFQDN\tyes"),
        ElementsAre(kLine8 + "error: a tab follows 'name', so that the line does not set it [tab-for-space]",
                    "~/services/web.conf:9: error: a tab follows 'includeFQDN', so that the line does not "
                    "set it [tab-for-space]"));
}

TEST_F(CheckKeys, AnEqualsSignIsToldInEveryPlace) {
    device.append("web.cnf", "emailAddress=a@b.example");
    device.append("web.cnf", "keyUsage = digitalSignature");
    EXPECT_THAT(
        device.check(),
        testing::IsSupersetOf({"~/web.cnf:9: error: an equals sign follows 'emailAddress', so that the line "
                               "does not set what it seems to [equals-sign]",
                               "~/web.cnf:10: error: an equals sign follows 'keyUsage', so that the line "
                               "does not set what it seems to [equals-sign]"}));
}

TEST_F(CheckKeys, AKeyWithoutAValueIsIgnored) {
    EXPECT_THAT(withServiceLine("callbackLibrary "),
                ElementsAre(kLine8 + "warning: 'callbackLibrary' has no value, so that the line is ignored "
                                     "[key-without-value]"));
}

TEST_F(CheckKeys, AnIndentedLineWithACommentSetsNothing) {
    EXPECT_THAT(
        withServiceLine("  includeFQDN yes # names too"),
        ElementsAre(kLine8 + "error: the line sets nothing: it is indented and has a comment, so that its "
                             "key is empty [empty-key]"));
}

TEST_F(CheckKeys, AnIndentedLineOfSettingsMayHaveAComment) {
    device.setLine("web.cnf", 5, "  O Acme # the company");
    EXPECT_THAT(device.check(), IsEmpty());
}

TEST_F(CheckKeys, CommentsWithBlanksAroundTheirSignAreFine) {
    device.append("services/web.conf", "# a comment");
    device.append("services/web.conf", "   # an indented one");
    EXPECT_THAT(withServiceLine("includeFQDN no # not now"), IsEmpty());
}

TEST_F(CheckKeys, ASignInsideAValueCutsIt) {
    device.setLine("web.cnf", 5, "O Acme#1");
    EXPECT_THAT(withServiceLine("name Web #1"),
                ElementsAre(kLine8 + "warning: the value ends before the '#': 'Web' [hash-in-value]",
                            "~/web.cnf:5: warning: the value ends before the '#': 'Acme' [hash-in-value]"));
}

TEST_F(CheckKeys, ACarriageReturnIsToldOnceAFile) {
    device.append("services/web.conf", "includeFQDN yes\r");
    EXPECT_THAT(
        withServiceLine("ca yes\r"),
        ElementsAre(kLine8 + "error: the line ends in a carriage return, which becomes a part of its value "
                             "[carriage-return]"));
}

TEST_F(CheckKeys, ASwitchThatIsNotExactlyYesIsOff) {
    device.append("services/web.conf", "includeFQDN Yes");
    device.append("services/web.conf", "ca true");
    device.append("services/web.conf", "trustedClients no");
    EXPECT_THAT(
        withServiceLine("opensslEngine yes please"),
        ElementsAre(kLine8 + "error: 'includeFQDN' is off: 'Yes' is not 'yes' [not-yes]",
                    "~/services/web.conf:9: error: 'ca' is off: 'true' is not 'yes' [not-yes]",
                    "~/services/web.conf:11: error: 'opensslEngine' is off: 'yes please' is not 'yes' "
                    "[not-yes]"));
}

TEST_F(CheckKeys, NumbersThatStopTheServiceAreTold) {
    device.append("services/web.conf", "CertDailyExpiryChkTimeOffsetSecs 86400");
    device.append("services/web.conf", "ca yes");
    device.append("services/web.conf", "maximumCA many");
    device.append("services/web.conf", "trustedClients yes");
    device.append("services/web.conf", "maximumTrustedClients 65536");
    device.append("services/web.conf", "selfSignedValidityOffset 30");
    EXPECT_THAT(
        device.check(),
        ElementsAre(
            kLine8 + "error: 'CertDailyExpiryChkTimeOffsetSecs' is not from 0 to 86399: '86400' "
                     "[out-of-range]",
            "~/services/web.conf:10: error: 'maximumCA' is no number: 'many' [not-a-number]",
            "~/services/web.conf:12: error: 'maximumTrustedClients' is not from 0 to 65535: '65536' "
            "[out-of-range]",
            "~/services/web.conf:13: error: 'selfSignedValidityOffset' is not less than the validity: 30 of "
            "30 days [out-of-range]"));
}

TEST_F(CheckKeys, AValidityBeyondAllCertificatesIsTold) {
    device.setClock(1800000000);
    EXPECT_THAT(withServiceLine("selfSignedValidity 3000000"),
                ElementsAre(kLine8 + "error: 'selfSignedValidity' reaches beyond the year 9999: 3000000 days "
                                     "[out-of-range]"));
}

std::vector<std::string> toldOfPeriods(const std::string& lines, std::size_t bytesOfLong) {
    const keywardctl::check::CheckedFile file(ConfigLines("web.conf", lines, Dialect::Configuration));
    keywardctl::check::Report report;
    keywardctl::check::checkServiceValues(file, report, bytesOfLong);
    return findingLines(reportText(report));
}

TEST(CheckPeriods, AValidityThatA32BitDeviceCutsIsTold) {
    const std::string lines = "server yes\nselfSignedValidity 24856\nCASignedValidity 36500\n";
    const auto cut = [](const std::string& key, const std::string& days) {
        return "warning: '" + key + "' is more than a 32-bit device can count: " + days +
               " days, and the certificate ends at another time [validity-cut]";
    };
    EXPECT_THAT(toldOfPeriods(lines, 4), ElementsAre("web.conf:2: " + cut("selfSignedValidity", "24856"),
                                                     "web.conf:3: " + cut("CASignedValidity", "36500")));
    EXPECT_THAT(toldOfPeriods(lines, 8), IsEmpty());
    EXPECT_THAT(toldOfPeriods("selfSignedValidity 24855\nCASignedValidity 24855\n", 4), IsEmpty());
}

TEST(CheckPeriods, TheOffsetBringsTheEndNearer) {
    const std::string end = "\nselfSignedValidityOffset 145\n";
    EXPECT_THAT(toldOfPeriods("selfSignedValidity 25000" + end, 4), IsEmpty());
    EXPECT_THAT(toldOfPeriods("selfSignedValidity 25001" + end, 4), testing::SizeIs(1));
}

TEST(CheckPeriods, TheMostDaysAreGiven) {
    const keywardctl::check::CheckedFile file(ConfigLines(
        "web.conf", "selfSignedValidity 30000\nselfSignedValidityOffset 2\n", Dialect::Configuration));
    keywardctl::check::Report report;
    keywardctl::check::checkServiceValues(file, report, 4);
    EXPECT_THAT(reportText(report), testing::HasSubstr("\n    Write at most 24857 days.\n"));
}

TEST(CheckPeriods, AYearBeyondAllCertificatesIsToldOnce) {
    EXPECT_THAT(toldOfPeriods("selfSignedValidity 3000000\n", 4),
                ElementsAre(testing::HasSubstr("[out-of-range]")));
}

TEST_F(CheckKeys, ATimeOutThatCannotBeKeptIsTold) {
    device.setLine("services/web.conf", 7, "callbackTimeoutSecs 86401");
    EXPECT_THAT(device.check(),
                ElementsAre("~/services/web.conf:7: error: 'callbackTimeoutSecs' is not from 1 to "
                            "86400: '86401' is ignored and the callback has no time-out "
                            "[ignored-number]"));
}

TEST_F(CheckKeys, ATimeOutInSecondsIsFine) {
    device.setLine("services/web.conf", 7, "callbackTimeoutSecs 86400");
    EXPECT_THAT(device.check(), IsEmpty());
}

TEST_F(CheckKeys, TheSwitchOfTheDaemonsFileIsKnown) {
    device.append("config.daemon", "continueOnServiceFailure yes");
    EXPECT_THAT(device.check(), IsEmpty());
    device.setLine("config.daemon", 9, "continueOnServiceFailure no");
    EXPECT_THAT(device.check(), IsEmpty());
    device.setLine("config.daemon", 9, "continueOnServiceFailure Yes");
    EXPECT_THAT(device.check(),
                ElementsAre("~/config.daemon:9: error: 'continueOnServiceFailure' is off: 'Yes' is not 'yes' "
                            "[not-yes]"));
}

TEST_F(CheckKeys, NumbersThatArePassedOverAreTold) {
    device.append("services/web.conf", "selfSignedValidity 0");
    device.append("services/web.conf", "CASignedValidityOffset -3");
    EXPECT_THAT(
        device.check(),
        ElementsAre(kLine8 + "error: 'selfSignedValidity' is not at least 1: '0' is ignored and 30 counts "
                             "[ignored-number]",
                    "~/services/web.conf:9: error: 'CASignedValidityOffset' is not at least 0: '-3' is "
                    "ignored and 0 counts [ignored-number]"));
}

TEST_F(CheckKeys, TextAfterANumberIsTold) {
    device.append("config.daemon", "minDateForGeneratingCert 5s");
    EXPECT_THAT(
        withServiceLine("selfSignedValidity 90 days"),
        ElementsAre("~/config.daemon:9: warning: 'minDateForGeneratingCert' is read as 5: what follows the "
                    "number in '5s' is ignored [text-after-number]",
                    kLine8 + "warning: 'selfSignedValidity' is read as 90: what follows the number in "
                             "'90 days' is ignored [text-after-number]"));
}

TEST_F(CheckKeys, AClientsLimitCountsOnlyBesideTheOneForCAs) {
    device.append("services/web.conf", "trustedClients yes");
    device.append("services/web.conf", "maximumTrustedClients 7");
    EXPECT_THAT(
        device.check(),
        ElementsAre("~/services/web.conf:9: error: 'maximumTrustedClients' counts only beside 'maximumCA': "
                    "the store takes any number of certificates [clients-limit-ignored]"));
    device.append("services/web.conf", "maximumCA 0");
    EXPECT_THAT(device.check(), IsEmpty());
}

TEST_F(CheckKeys, KeysOfWhatIsSwitchedOffHaveNoEffect) {
    device.append("services/web.conf", "uniqueCaByCn yes");
    device.append("services/web.conf", "CAServiceId pkiroot");
    EXPECT_THAT(
        device.check(),
        ElementsAre(kLine8 + "warning: 'uniqueCaByCn' has no effect without 'ca yes' [without-effect]",
                    "~/services/web.conf:9: warning: 'CAServiceId' has no effect without "
                    "'CASignedGeneration yes' [without-effect]"));
}

TEST_F(CheckKeys, WhatHangsOnALostMainSwitchIsTold) {
    device.setLine("services/web.conf", 4, "#");
    EXPECT_THAT(device.check(),
                ElementsAre("~/services/web.conf:5: warning: 'selfSignedGeneration' has no effect "
                            "without 'server yes' [without-effect]"));
    device.setLine("services/web.conf", 5, "selfSignedGeneration no");
    EXPECT_THAT(device.check(), ElementsAre());
}

TEST_F(CheckKeys, ARelativePathIsTold) {
    device.setLine("services/web.conf", 3, "callbackScript bin/true");
    EXPECT_THAT(device.check(),
                testing::Contains("~/services/web.conf:3: warning: 'callbackScript' is relative to '/', the "
                                  "daemon's folder: 'bin/true' [relative-path]"));
}

TEST_F(CheckKeys, TheDaemonsNumbersAreRead) {
    device.append("config.daemon", "minDateForGeneratingCert soon");
    device.append("config.daemon", "TimeDriftSleepTime 99999999999");
    device.append("config.daemon", "TimeDriftThresholdValue -1");
    EXPECT_THAT(
        device.check(),
        ElementsAre(
            "~/config.daemon:9: error: 'minDateForGeneratingCert' is no number: 'soon' [not-a-number]",
            "~/config.daemon:10: error: 'TimeDriftSleepTime' is too large: '99999999999' [out-of-range]",
            "~/config.daemon:10: warning: 'TimeDriftSleepTime' has no effect: without "
            "'TimeDriftThresholdValue', "
            "or with 0, nobody watches the clock and the network [monitor-off]",
            "~/config.daemon:11: error: 'TimeDriftThresholdValue' is negative: '-1' [out-of-range]",
            "~/services: note: this could not be looked at: the daemon refuses its own file "
            "[not-looked-at]"));
}

TEST_F(CheckKeys, MissingKeysOfTheDaemonAreToldAndTheServicesNotLookedAt) {
    device.setLine("config.daemon", 8, "pidfile ~/run/keywardd.pid");
    EXPECT_THAT(
        device.check(),
        ElementsAre("~/config.daemon: error: 'pidFile' is missing [missing-key]",
                    "~/config.daemon:8: error: 'pidfile' is no key of this file and is ignored [unknown-key]",
                    "~/services: note: this could not be looked at: the daemon refuses its own file "
                    "[not-looked-at]"));
}

TEST_F(CheckKeys, WithoutADaemonFileNothingElseIsLookedAt) {
    device.remove("config.daemon");
    EXPECT_THAT(device.check(),
                ElementsAre("~/config.daemon: error: Impossible to read the file '~/config.daemon': "
                            "No such file or directory [no-daemon-file]"));
}

TEST_F(CheckKeys, WhatOnlyTheDaemonRefusesIsToldInItsWords) {
    using namespace keywardctl::check;
    const auto refused = [](bool ofService) {
        Report report;
        const CheckedFile file(ConfigLines(CheckedDevice::root() + "/nowhere", "", Dialect::Configuration));
        if (ofService)
            checkServiceRefusal({"nobody", file}, report);
        else if (checkDaemonRefusal(file, report))
            return std::string("accepted");
        return reportText(report);
    };
    EXPECT_THAT(
        findingLines(device.on([&] { return refused(true); })),
        ElementsAre("~/nowhere: error: the daemon refuses the file: No configuration file for the service "
                    "nobody [service-refused]"));
    EXPECT_THAT(
        findingLines(device.on([&] { return refused(false); })),
        ElementsAre("~/nowhere: error: the daemon refuses the file: Failed to open configuration file : "
                    "~/nowhere [daemon-refused]"));
}

// Of every row of the tables, whatever stands there.

namespace {

using keywardctl::check::KeyRow;
using keywardctl::check::KeyTable;
using keywarden::KeyKind;

std::string nameOf(const KeyRow& row) {
    return (row.numbered ? keywarden::ConfigKey(row, 0) : keywarden::ConfigKey(row)).name();
}

/// What the values of a file are told whose first line is that of the key.
std::vector<std::string> toldOf(const KeyTable& table, const KeyRow& row, const std::string& value) {
    // A limit is read beside its store only, and that of the clients beside the other one.
    const std::string content = nameOf(row) + " " + value + "\nca yes\ntrustedClients yes\nmaximumCA 5\n";
    const keywardctl::check::CheckedFile file(ConfigLines("f", content, Dialect::Configuration));
    keywardctl::check::Report report;
    if (table.begin() == keywarden::daemonKeys().begin())
        keywardctl::check::checkDaemonValues(file, report);
    else
        keywardctl::check::checkServiceValues(file, report);
    return findingLines(reportText(report));
}

/// Every row of that kind in the daemon's and the services' table must be told so.
void expectTold(KeyKind kind, const std::string& value, const std::string& expected) {
    for (const KeyTable& table : {keywarden::daemonKeys(), keywarden::serviceKeys()}) {
        for (const KeyRow& row : table) {
            if (row.kind != kind)
                continue;
            const std::string finding = "^f:1: .*'" + nameOf(row) + "' .*" + expected + "$";
            EXPECT_THAT(toldOf(table, row, value), testing::Contains(testing::ContainsRegex(finding)));
        }
    }
}

}  // namespace

TEST_F(CheckKeys, EveryKeyOfTheTablesIsKnownInItsFile) {
    const auto appendAll = [this](const std::string& name, const KeyTable& table) {
        for (const KeyRow& row : table)
            device.append(name, nameOf(row) + " 1");
    };
    appendAll("config.daemon", keywarden::daemonKeys());
    appendAll("services/web.conf", keywarden::serviceKeys());
    appendAll("web.cnf", keywarden::settingsKeys());
    const auto told = device.check();
    EXPECT_THAT(told, testing::Not(testing::Contains(testing::HasSubstr("[unknown-key]"))));
    // All three were looked at.
    EXPECT_THAT(told, testing::IsSupersetOf({testing::StartsWith("~/config.daemon:9: warning: "),
                                             testing::StartsWith("~/services/web.conf:9: warning: "),
                                             testing::StartsWith("~/web.cnf:9: warning: ")}));
}

TEST(CheckEveryKey, ASwitchThatIsNotYesIsTold) {
    expectTold(KeyKind::Switch, "Yes", "\\[not-yes\\]");
}

TEST(CheckEveryKey, ARelativePathIsTold) {
    expectTold(KeyKind::Path, "some/where", "\\[relative-path\\]");
}

TEST(CheckEveryKey, ANumberThatIsNoneIsTold) {
    expectTold(KeyKind::Number, "soon", "\\[(not-a|ignored)-number\\]");
}

TEST(CheckEveryKey, ANumberBelowTheLowestIsTold) {
    expectTold(KeyKind::Number, "-3000000000", "\\[(out-of-range|ignored-number)\\]");
}

TEST(CheckLines, TheRawReaderAgreesWithTheDaemonsOnEveryFile) {
    std::mt19937 random(7);  // NOLINT(cert-msc51-cpp): the same files at every run
    std::size_t keys = 0;
    for (int round = 0; round < 20000; ++round) {
        const std::string text = randomText(random);
        std::istringstream configuration(text);
        std::istringstream settings(text);
        const auto expected = keywarden::Tools::getConfigFileMap(configuration);
        keys += expected.size();
        ASSERT_EQ(ConfigLines("f", text, Dialect::Configuration).values(), expected)
            << testing::PrintToString(text);
        ASSERT_EQ(ConfigLines("f", text, Dialect::Settings).values(),
                  keywarden::Tools::getConfigMap(settings))
            << testing::PrintToString(text);
    }
    EXPECT_GT(keys, 5000U);
}

TEST(CheckLines, ALineKnowsItsNumberAndTheFirstOfAKeyCounts) {
    const ConfigLines lines("f", "# x\n\na 1\na 2\nb\n", Dialect::Configuration);
    EXPECT_EQ(lines.lineOf("a"), 3U);
    EXPECT_EQ(lines.lineOf("b"), 0U);
    EXPECT_EQ(lines.values().at("a"), "1");
    EXPECT_EQ(lines.lines().size(), 5U);
    EXPECT_EQ(keywardctl::check::bodyOf(" \ta b \r# c"), "a b");
}
