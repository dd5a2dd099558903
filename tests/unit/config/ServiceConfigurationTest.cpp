#include "config/ServiceConfiguration.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>

#include "support/Debug.h"
#include "testsupport/CapturedLog.h"
#include "testsupport/Child.h"
#include "testsupport/TestDevice.h"

namespace {

using keywarden::ServiceConfiguration;
using testsupport::CapturedLog;
using testsupport::TestDevice;
using Names = std::vector<std::string>;

const std::string kMinimal = "cnfFile /etc/web.cnf\n";

std::string read(const std::string& id) {
    try {
        const ServiceConfiguration configuration(id);
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "(none)";
}

ServiceConfiguration load(const std::string& content) {
    TestDevice::get().writeService("web", content);
    return ServiceConfiguration("web");
}

/// What construction throws for the minimal file and these lines.
std::string failure(const std::string& lines) {
    TestDevice::get().writeService("web", kMinimal + lines);
    return read("web");
}

std::string reloadFailure(ServiceConfiguration& configuration, const std::string& content) {
    TestDevice::get().writeService("web", content);
    try {
        configuration.reload();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "(none)";
}

TEST(ServiceConfiguration, OnlyCnfFileLoadsWithDefaults) {
    const ServiceConfiguration web = load(kMinimal);
    EXPECT_EQ(web.getServiceId(), "web");
    EXPECT_EQ(web.getCnfFile(), "/etc/web.cnf");
    EXPECT_EQ(web.getServiceName() + web.getManagementGroup() + web.getKeyGroup() + web.getCallbackScript() +
                  web.getCallbackLibrary() + web.getCnfHookFile() + web.getCAServiceId(),
              "");
    EXPECT_FALSE(web.isServer() || web.isCA() || web.isTrustedClients());
    EXPECT_FALSE(web.isSelfSignedGeneration() || web.isSelfSignedOnExpiration());
    EXPECT_FALSE(web.isCASignedGeneration() || web.isCASignedOnExpiration());
    EXPECT_FALSE(web.isNetworkInvalidRevokePKIcert() || web.isOpensslEngine() || web.isIncludeFQDN());
    EXPECT_FALSE(web.isUniqueCaByCn() || web.isUniqueTrustedClientByCn());
    EXPECT_EQ(web.getSelfSignedValidity(), 30);
    EXPECT_EQ(web.getSelfSignedValidityOffset(), 0);
    EXPECT_EQ(web.getCASignedValidity(), 30);
    EXPECT_EQ(web.getCASignedValidityOffset(), 0);
    EXPECT_EQ(web.getCertDailyExpiryChkTimeOffsetSecs(), 0U);
    EXPECT_EQ(web.getCallbackTimeoutSecs(), 0U);
    EXPECT_EQ(web.getMaximumCA(), 0);
    EXPECT_EQ(web.getMaximumTrustedClients(), 0);
    EXPECT_EQ(web.getNetworkInterfaceList(), Names{});
}

TEST(ServiceConfiguration, CallbackTimeOutIsTakenFromOneSecondToOneDay) {
    CapturedLog::clear();
    for (const std::uint32_t seconds : {1U, 60U, 86400U})
        EXPECT_EQ(
            load(kMinimal + "callbackTimeoutSecs " + std::to_string(seconds) + "\n").getCallbackTimeoutSecs(),
            seconds);
    EXPECT_EQ(CapturedLog::dump(), "");
}

TEST(ServiceConfiguration, CallbackTimeOutThatMakesNoSenseIsNoneAndSaidSo) {
    for (const char* value : {"0", "-1", "86401", "5000000000", "99999999999999999999", "soon", "\x01\xff"}) {
        CapturedLog::clear();
        EXPECT_EQ(load(kMinimal + "callbackTimeoutSecs " + value + "\n").getCallbackTimeoutSecs(), 0U)
            << value;
        EXPECT_EQ(
            CapturedLog::dump(),
            "3 Invalid config parameter: callbackTimeoutSecs of the service web should be from 1 to 86400. "
            "Its callback has no time-out.\n")
            << value;
    }
}

TEST(ServiceConfiguration, ReloadForgetsACallbackTimeOutThatIsGone) {
    ServiceConfiguration web = load(kMinimal + "callbackTimeoutSecs 5\n");
    EXPECT_EQ(reloadFailure(web, kMinimal), "(none)");
    EXPECT_EQ(web.getCallbackTimeoutSecs(), 0U);
}

TEST(ServiceConfiguration, TextsAreTakenAsTheyStand) {
    const ServiceConfiguration web = load(
        "name  My web  server \nmanagmentGroup adm\nkeyGroup ssl\ncallbackScript /a b\ncallbackLibrary "
        "/l.so\n"
        "cnfHookFile /hook\nCAServiceId pkica\n");
    EXPECT_EQ(web.getServiceName(), "My web  server");
    EXPECT_EQ(web.getManagementGroup(), "adm");
    EXPECT_EQ(web.getKeyGroup(), "ssl");
    EXPECT_EQ(web.getCallbackScript(), "/a b");
    EXPECT_EQ(web.getCallbackLibrary(), "/l.so");
    EXPECT_EQ(web.getCnfHookFile(), "/hook");
    EXPECT_EQ(web.getCnfFile(), "");
    EXPECT_EQ(web.getCAServiceId(), "pkica");
}

TEST(ServiceConfiguration, CorrectlySpelledManagementGroupIsNoKey) {
    EXPECT_EQ(load(kMinimal + "managementGroup adm\n").getManagementGroup(), "");
}

/// A flag, its key, and what else the file needs for it to be read.
struct Flag {
    const char* key;
    bool (ServiceConfiguration::*get)() const;
    const char* needs;
};

class ServiceConfigurationFlag : public testing::TestWithParam<Flag> {};

TEST_P(ServiceConfigurationFlag, IsTrueOnlyForExactlyYes) {
    const auto [key, get, needs] = GetParam();
    const auto flag = [&, getter = get, head = kMinimal + needs + key](const std::string& value) {
        const ServiceConfiguration web = load(head + value + "\n");
        return (web.*getter)();
    };
    EXPECT_TRUE(flag(" yes"));
    EXPECT_TRUE(flag("   yes  # comment"));
    for (const char* value :
         {" Yes", " YES", " true", " 1", " yes.", " y", " no", " yes no", " yes\r", "=yes", ""})
        EXPECT_FALSE(flag(value)) << value;
}

INSTANTIATE_TEST_SUITE_P(
    All, ServiceConfigurationFlag,
    testing::Values(Flag{"server", &ServiceConfiguration::isServer, ""},
                    Flag{"ca", &ServiceConfiguration::isCA, ""},
                    Flag{"trustedClients", &ServiceConfiguration::isTrustedClients, ""},
                    Flag{"selfSignedGeneration", &ServiceConfiguration::isSelfSignedGeneration, ""},
                    Flag{"selfSignedOnExpiration", &ServiceConfiguration::isSelfSignedOnExpiration, ""},
                    Flag{"CASignedGeneration", &ServiceConfiguration::isCASignedGeneration, ""},
                    Flag{"CASignedOnExpiration", &ServiceConfiguration::isCASignedOnExpiration, ""},
                    Flag{"networkInvalidRevokePKIcert", &ServiceConfiguration::isNetworkInvalidRevokePKIcert,
                         ""},
                    Flag{"opensslEngine", &ServiceConfiguration::isOpensslEngine, ""},
                    Flag{"includeFQDN", &ServiceConfiguration::isIncludeFQDN, ""},
                    Flag{"uniqueCaByCn", &ServiceConfiguration::isUniqueCaByCn, "ca yes\n"},
                    Flag{"uniqueTrustedClientByCn", &ServiceConfiguration::isUniqueTrustedClientByCn,
                         "trustedClients yes\n"}),
    [](const testing::TestParamInfo<Flag>& test) { return std::string(test.param.key); });

TEST(ServiceConfiguration, FirstOccurrenceWinsAndUnknownKeysAreIgnored) {
    EXPECT_EQ(load(kMinimal + "unknown x\nname first\nname second\n").getServiceName(), "first");
}

TEST(ServiceConfiguration, IndentedLineWithTrailingCommentSetsNothing) {
    EXPECT_EQ(load(kMinimal + "  name web # comment\n").getServiceName(), "");
    EXPECT_EQ(load(kMinimal + "name web # comment\n").getServiceName(), "web");
    EXPECT_EQ(load(kMinimal + "  name web\n").getServiceName(), "web");
}

TEST(ServiceConfiguration, DailyCheckOffsetOf86399And0Pass) {
    EXPECT_EQ(
        load(kMinimal + "CertDailyExpiryChkTimeOffsetSecs 86399\n").getCertDailyExpiryChkTimeOffsetSecs(),
        86399U);
    EXPECT_EQ(load(kMinimal + "CertDailyExpiryChkTimeOffsetSecs 0\n").getCertDailyExpiryChkTimeOffsetSecs(),
              0U);
    EXPECT_EQ(load(kMinimal + "CertDailyExpiryChkTimeOffsetSecs 60s\n").getCertDailyExpiryChkTimeOffsetSecs(),
              60U);
}

TEST(ServiceConfiguration, DailyCheckOffsetOf86400OrMoreOrBelow0Fails) {
    const std::string text =
        "Invalid config parameter: certificate expiry check offset time should be greater than zero and less "
        "than "
        "seconds in one day.";
    for (const char* value : {"86400", "4294967296", "5000000000", "18446744073709551615", "-1"})
        EXPECT_EQ(failure("CertDailyExpiryChkTimeOffsetSecs " + std::string(value) + "\n"), text) << value;
}

TEST(ServiceConfiguration, DailyCheckOffsetThatCannotBeReadFails) {
    const std::string text =
        "Standard exception caught while reading config parameter certificate expiry check offset time - "
        "stoull";
    EXPECT_EQ(failure("CertDailyExpiryChkTimeOffsetSecs noon\n"), text);
    EXPECT_EQ(failure("CertDailyExpiryChkTimeOffsetSecs 18446744073709551616\n"), text);
}

TEST(ServiceConfiguration, ReloadWithoutADailyCheckOffsetGoesBackTo0) {
    ServiceConfiguration web = load(kMinimal + "CertDailyExpiryChkTimeOffsetSecs 60\n");
    EXPECT_EQ(reloadFailure(web, kMinimal), "(none)");
    EXPECT_EQ(web.getCertDailyExpiryChkTimeOffsetSecs(), 0U);
}

TEST(ServiceConfiguration, DailyCheckOffsetIsTraced) {
    TestDevice::get().writeService("web", kMinimal + "CertDailyExpiryChkTimeOffsetSecs 0077\n");
    keywarden::gDebug = true;
    const std::string traces = testsupport::standardErrorOf([] { read("web"); });
    keywarden::gDebug = false;
    EXPECT_EQ(traces, "value for CertDailyExpiryChkTimeOffsetSecs :77\n");
}

TEST(ServiceConfiguration, NeitherCnfFileNorHookFailsAndIsTraced) {
    TestDevice::get().writeService("web", "name web\n");
    keywarden::gDebug = true;
    std::string text;
    const std::string traces = testsupport::standardErrorOf([&text] { text = read("web"); });
    keywarden::gDebug = false;
    EXPECT_EQ(text, "Invalid config parameter: cnf File or cnfFile must be defined");
    EXPECT_EQ(traces, "Error: cnfHookFile or cnfFile must be defined\n");
}

/// The keys, getters and failure text of one kind of generation; both follow the same rules.
struct Validity {
    const char* name;
    std::int32_t (ServiceConfiguration::*days)() const;
    std::int32_t (ServiceConfiguration::*offset)() const;
    const char* failure;
};

class ServiceConfigurationValidity : public testing::TestWithParam<Validity> {
  protected:
    static std::string lines(const std::string& days, const std::string& offset) {
        const std::string key = std::string(GetParam().name) + "Validity";
        return (days.empty() ? "" : key + " " + days + "\n") +
               (offset.empty() ? "" : key + "Offset " + offset + "\n");
    }
    static std::int32_t days(const std::string& value) {
        const ServiceConfiguration web = load(kMinimal + lines(value, ""));
        return (web.*GetParam().days)();
    }
    static std::int32_t offset(const std::string& daysValue, const std::string& value) {
        const ServiceConfiguration web = load(kMinimal + lines(daysValue, value));
        return (web.*GetParam().offset)();
    }
};

TEST_P(ServiceConfigurationValidity, OnlyANumberOfAtLeast1ReplacesThe30) {
    EXPECT_EQ(days("1"), 1);
    EXPECT_EQ(days("365"), 365);
    EXPECT_EQ(days("90days"), 90);
    for (const char* value : {"0", "-1", "-99999999999", "month", "0x10", "# 5"})
        EXPECT_EQ(days(value), 30) << value;
}

TEST_P(ServiceConfigurationValidity, NumberBeyondTheFieldIsTheHighest) {
    EXPECT_EQ(days("2147483647"), 2147483647);
    EXPECT_EQ(days("2147483648"), 2147483647);
    EXPECT_EQ(days("4294967297"), 2147483647);
    EXPECT_EQ(days("99999999999999999999999"), 2147483647);
}

TEST_P(ServiceConfigurationValidity, OffsetOf9Of10Passes) {
    EXPECT_EQ(offset("10", "9"), 9);
    EXPECT_EQ(offset("", "29"), 29);
}

TEST_P(ServiceConfigurationValidity, OffsetBelow1LeavesThe0) {
    EXPECT_EQ(offset("10", "0"), 0);
    EXPECT_EQ(offset("10", "-20"), 0);
    EXPECT_EQ(offset("10", "week"), 0);
    EXPECT_EQ(offset("1", ""), 0);
}

TEST_P(ServiceConfigurationValidity, OffsetNotBelowTheValidityFails) {
    EXPECT_EQ(failure(lines("10", "10")), GetParam().failure);
    EXPECT_EQ(failure(lines("10", "11")), GetParam().failure);
    EXPECT_EQ(failure(lines("", "30")), GetParam().failure);
    EXPECT_EQ(failure(lines("10", "4294967297")), GetParam().failure);
}

TEST_P(ServiceConfigurationValidity, ReloadWithoutTheKeysGoesBackToTheDefaults) {
    ServiceConfiguration web = load(kMinimal + lines("100", "50"));
    EXPECT_EQ(reloadFailure(web, kMinimal), "(none)");
    EXPECT_EQ((web.*GetParam().days)(), 30);
    EXPECT_EQ((web.*GetParam().offset)(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, ServiceConfigurationValidity,
    testing::Values(
        Validity{"selfSigned", &ServiceConfiguration::getSelfSignedValidity,
                 &ServiceConfiguration::getSelfSignedValidityOffset,
                 "Invalid config parameter: selfsigned validity offset should be less than validity."},
        // The full stop is missing on purpose.
        Validity{"CASigned", &ServiceConfiguration::getCASignedValidity,
                 &ServiceConfiguration::getCASignedValidityOffset,
                 "Invalid config parameter: CA-signed validity offset should be less than validity"}),
    [](const testing::TestParamInfo<Validity>& test) { return std::string(test.param.name); });

TEST(ServiceConfiguration, MaximumCAOf5IsReadWhenTheStoreIsEnabled) {
    EXPECT_EQ(load(kMinimal + "ca yes\nmaximumCA 5\n").getMaximumCA(), 5);
    EXPECT_EQ(load(kMinimal + "ca yes\nmaximumCA 65535\n").getMaximumCA(), 65535);
    EXPECT_EQ(load(kMinimal + "ca no\nmaximumCA 5\nuniqueCaByCn yes\n").getMaximumCA(), 0);
    EXPECT_FALSE(load(kMinimal + "ca no\nmaximumCA 5\nuniqueCaByCn yes\n").isUniqueCaByCn());
}

TEST(ServiceConfiguration, MaximumCAThatCannotBeReadFails) {
    const std::string text = "Standard exception caught while reading config parameter: maximum CA - ";
    EXPECT_EQ(failure("ca yes\nmaximumCA many\n"), text + "stoull");
    EXPECT_EQ(failure("ca yes\nmaximumCA 65536\n"), text + "'65536' is not between 0 and 65535");
    EXPECT_EQ(failure("ca yes\nmaximumCA -1\n"), text + "'-1' is not between 0 and 65535");
    EXPECT_EQ(failure("ca yes\nmaximumCA 18446744073709551616\n"), text + "stoull");
    EXPECT_EQ(failure("maximumCA many\n"), "(none)");
}

TEST(ServiceConfiguration, MaximumTrustedClientsCountsOnlyBesideAMaximumCA) {
    EXPECT_EQ(load(kMinimal + "trustedClients yes\nmaximumTrustedClients 7\n").getMaximumTrustedClients(), 0);
    EXPECT_EQ(load(kMinimal + "trustedClients yes\nmaximumTrustedClients 7\nmaximumCA 5\n")
                  .getMaximumTrustedClients(),
              7);
    EXPECT_EQ(load(kMinimal + "trustedClients yes\nca yes\nmaximumTrustedClients 7\nmaximumCA 5\n")
                  .getMaximumTrustedClients(),
              7);
    EXPECT_EQ(load(kMinimal + "trustedClients no\nmaximumTrustedClients 7\nmaximumCA 5\n")
                  .getMaximumTrustedClients(),
              0);
}

TEST(ServiceConfiguration, MaximumCAAloneDoesNotLimitTrustedClients) {
    const ServiceConfiguration web = load(kMinimal + "ca yes\ntrustedClients yes\nmaximumCA 5\n");
    EXPECT_EQ(web.getMaximumCA(), 5);
    EXPECT_EQ(web.getMaximumTrustedClients(), 0);
}

TEST(ServiceConfiguration, MaximumTrustedClientsThatCannotBeReadFails) {
    const std::string text =
        "Standard exception caught while reading config parameter: maximum trusted client - ";
    const std::string lines = "trustedClients yes\nmaximumCA 5\nmaximumTrustedClients ";
    EXPECT_EQ(failure(lines + "many\n"), text + "stoull");
    EXPECT_EQ(failure(lines + "70000\n"), text + "'70000' is not between 0 and 65535");
    EXPECT_EQ(failure("trustedClients yes\nmaximumTrustedClients many\n"), "(none)");
}

TEST(ServiceConfiguration, DisabledStoreKeepsTheLimitsOfThePreviousLoad) {
    const std::string limits =
        "maximumCA 5\nuniqueCaByCn yes\nmaximumTrustedClients 7\nuniqueTrustedClientByCn yes\n";
    ServiceConfiguration web = load(kMinimal + "ca yes\ntrustedClients yes\n" + limits);
    EXPECT_EQ(reloadFailure(web, kMinimal), "(none)");
    EXPECT_FALSE(web.isCA() || web.isTrustedClients());
    EXPECT_EQ(web.getMaximumCA(), 5);
    EXPECT_EQ(web.getMaximumTrustedClients(), 7);
    EXPECT_TRUE(web.isUniqueCaByCn() && web.isUniqueTrustedClientByCn());
    EXPECT_EQ(reloadFailure(web, kMinimal + "ca yes\ntrustedClients yes\n"), "(none)");
    EXPECT_EQ(web.getMaximumCA(), 0);
    EXPECT_EQ(web.getMaximumTrustedClients(), 0);
    EXPECT_FALSE(web.isUniqueCaByCn() || web.isUniqueTrustedClientByCn());
}

TEST(ServiceConfiguration, InterfacesAfterAGapAreNeverRead) {
    const ServiceConfiguration web =
        load(kMinimal + "networkInterface.0 eth0\nnetworkInterface.1 eth1\nnetworkInterface.3 eth3\n");
    EXPECT_EQ(web.getNetworkInterfaceList(), (Names{"eth0", "eth1"}));
    EXPECT_EQ(web.getNetworkInterfaces("eth1").name, "eth1");
    EXPECT_EQ(load(kMinimal + "networkInterface.1 eth1\n").getNetworkInterfaceList(), Names{});
}

TEST(ServiceConfiguration, InterfaceFlagsBelongToTheirNumber) {
    const ServiceConfiguration web =
        load(kMinimal +
             "networkInterface.0 wlan0\nnetworkInterface.1 eth0\n"
             "regenerateIfOff.0 yes\nincludeIPv4Auto.0 yes\nincludeIPv6Auto.0 yes\nincludeIPv4.0 Yes\n"
             "includeIPv4.1 yes\nincludeIPv6.1 yes\nregenerateIfOff.eth0 yes\nincludeIPv4Auto yes\n");
    EXPECT_EQ(web.getNetworkInterfaceList(), (Names{"wlan0", "eth0"}));
    const auto& first = web.getNetworkInterfaces("wlan0");
    EXPECT_TRUE(first.regenerateIfOff && first.includeIPv4Auto && first.includeIPv6Auto);
    EXPECT_FALSE(first.includeIPv4 || first.includeIPv6);
    const auto& second = web.getNetworkInterfaces("eth0");
    EXPECT_TRUE(second.includeIPv4 && second.includeIPv6);
    EXPECT_FALSE(second.regenerateIfOff || second.includeIPv4Auto || second.includeIPv6Auto);
}

TEST(ServiceConfiguration, InterfaceListedTwiceKeepsItsFirstRecord) {
    const ServiceConfiguration web =
        load(kMinimal +
             "networkInterface.0 eth0\nincludeIPv4.0 yes\nnetworkInterface.1 eth0\nincludeIPv6.1 yes\n");
    EXPECT_EQ(web.getNetworkInterfaceList(), (Names{"eth0", "eth0"}));
    EXPECT_TRUE(web.getNetworkInterfaces("eth0").includeIPv4);
    EXPECT_FALSE(web.getNetworkInterfaces("eth0").includeIPv6);
}

TEST(ServiceConfiguration, MoreThanTenInterfacesComeInOrderOfTheirNumbers) {
    std::string lines;
    Names names;
    for (int number = 11; number >= 0; --number)
        lines += "networkInterface." + std::to_string(number) + " if" + std::to_string(number) + "\n";
    for (int number = 0; number <= 11; ++number)
        names.push_back("if" + std::to_string(number));
    EXPECT_EQ(load(kMinimal + lines).getNetworkInterfaceList(), names);
}

TEST(ServiceConfiguration, InterfaceThatIsNotListedIsOutOfRange) {
    const ServiceConfiguration web = load(kMinimal + "networkInterface.0 eth0\n");
    try {
        static_cast<void>(web.getNetworkInterfaces("eth1"));
        FAIL();
    } catch (const std::out_of_range& error) {
        EXPECT_STREQ(error.what(), "map::at");
    }
}

TEST(ServiceConfiguration, ReloadForgetsTheInterfacesOfThePreviousLoad) {
    ServiceConfiguration web =
        load(kMinimal + "networkInterface.0 eth0\nincludeIPv4.0 yes\nnetworkInterface.1 eth1\n");
    EXPECT_EQ(reloadFailure(web, kMinimal + "networkInterface.0 eth0\nincludeIPv6.0 yes\n"), "(none)");
    EXPECT_EQ(web.getNetworkInterfaceList(), (Names{"eth0"}));
    EXPECT_FALSE(web.getNetworkInterfaces("eth0").includeIPv4);
    EXPECT_TRUE(web.getNetworkInterfaces("eth0").includeIPv6);
    EXPECT_THROW(static_cast<void>(web.getNetworkInterfaces("eth1")), std::out_of_range);
}

TEST(ServiceConfiguration, ExcludingAddressesLeavesRegenerateIfOff) {
    std::string lines;
    for (const std::string number : {"0", "1"}) {
        lines.append("networkInterface.").append(number).append(" eth").append(number).append("\n");
        for (const char* flag :
             {"regenerateIfOff.", "includeIPv4.", "includeIPv4Auto.", "includeIPv6.", "includeIPv6Auto."})
            lines.append(flag).append(number).append(" yes\n");
    }
    ServiceConfiguration web = load(kMinimal + lines);
    web.setExcludeIpForAllNetworkInterfaces();
    for (const std::string name : {"eth0", "eth1"}) {
        const auto& record = web.getNetworkInterfaces(name);
        EXPECT_TRUE(record.regenerateIfOff);
        EXPECT_FALSE(record.includeIPv4 || record.includeIPv4Auto || record.includeIPv6 ||
                     record.includeIPv6Auto);
    }
    EXPECT_EQ(web.getNetworkInterfaceList(), (Names{"eth0", "eth1"}));
}

TEST(ServiceConfiguration, FailedReloadKeepsTheFieldsAfterTheFailure) {
    ServiceConfiguration web = load(kMinimal +
                                    "name old\nserver yes\nselfSignedGeneration yes\nselfSignedValidity 100\n"
                                    "CAServiceId oldca\nincludeFQDN yes\nnetworkInterface.0 eth0\n");
    EXPECT_EQ(reloadFailure(web,
                            "cnfHookFile /new\nname new\nselfSignedValidity 10\nselfSignedValidityOffset 10\n"
                            "CAServiceId newca\nnetworkInterface.0 eth9\n"),
              "Invalid config parameter: selfsigned validity offset should be less than validity.");
    EXPECT_EQ(web.getServiceName(), "new");
    EXPECT_FALSE(web.isServer());
    EXPECT_EQ(web.getCnfHookFile(), "/new");
    EXPECT_EQ(web.getCnfFile(), "");
    EXPECT_FALSE(web.isSelfSignedGeneration());
    EXPECT_EQ(web.getSelfSignedValidity(), 10);
    EXPECT_EQ(web.getCAServiceId(), "oldca");
    EXPECT_TRUE(web.isIncludeFQDN());
    EXPECT_EQ(web.getNetworkInterfaceList(), (Names{"eth0"}));
}

TEST(ServiceConfiguration, FirstFailureOfSeveralIsTheOneThrown) {
    TestDevice::get().writeService("web",
                                   "CertDailyExpiryChkTimeOffsetSecs 86400\nselfSignedValidityOffset 99\n"
                                   "CASignedValidityOffset 99\nca yes\nmaximumCA x\n");
    EXPECT_EQ(read("web").substr(0, 67),
              "Invalid config parameter: certificate expiry check offset time shou");
    EXPECT_EQ(failure("CASignedValidityOffset 99\nca yes\nmaximumCA x\n"),
              "Invalid config parameter: CA-signed validity offset should be less than validity");
}

class ServiceConfigurationFile : public testing::Test {
  protected:
    std::string path = TestDevice::get().servicesDirectory() + "/odd.conf";
    void TearDown() override {
        ::unlink(path.c_str());
        ::rmdir(path.c_str());
    }
};

constexpr const char* kNoFile = "No configuration file for the service odd";

TEST_F(ServiceConfigurationFile, MissingFileFails) {
    EXPECT_EQ(read("odd"), kNoFile);
}

TEST_F(ServiceConfigurationFile, FolderInTheFilesPlaceFails) {
    ASSERT_EQ(::mkdir(path.c_str(), 0755), 0);
    EXPECT_EQ(read("odd"), kNoFile);
}

TEST_F(ServiceConfigurationFile, FifoInTheFilesPlaceFailsAtOnce) {
    ASSERT_EQ(::mkfifo(path.c_str(), 0644), 0);
    EXPECT_EQ(read("odd"), kNoFile);
}

TEST_F(ServiceConfigurationFile, FileBeyondOneMebibyteFails) {
    TestDevice::get().writeService("odd", kMinimal + std::string(1024 * 1024 - kMinimal.size(), '#'));
    EXPECT_EQ(read("odd"), "(none)");
    TestDevice::get().writeService("odd", kMinimal + std::string(1024 * 1024, '#'));
    EXPECT_EQ(read("odd"), kNoFile);
}

TEST_F(ServiceConfigurationFile, FileThatCannotBeReadFails) {
    // Opens as a regular file, and reading its start is an input/output error.
    ASSERT_EQ(::symlink("/proc/self/mem", path.c_str()), 0);
    EXPECT_EQ(read("odd"), kNoFile);
}

TEST_F(ServiceConfigurationFile, FileThatTheDaemonMayNotReadFails) {
    TestDevice::get().writeService("odd", kMinimal);
    EXPECT_EQ(read("odd"), "(none)");
    ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
    EXPECT_EQ(testsupport::inChild([] {
                  testsupport::becomeNobody();
                  return read("odd");
              }),
              kNoFile);
}

TEST_F(ServiceConfigurationFile, LinkToAFileIsRead) {
    const std::string target = TestDevice::get().sandbox().write("elsewhere", kMinimal + "name linked\n");
    ASSERT_EQ(::symlink(target.c_str(), path.c_str()), 0);
    EXPECT_EQ(ServiceConfiguration("odd").getServiceName(), "linked");
}

TEST_F(ServiceConfigurationFile, BinaryFileFailsForTheMissingSettings) {
    std::string junk;
    for (int number = 0; number < 100000; ++number)
        junk += static_cast<char>(number * 7919 >> 3);
    TestDevice::get().writeService("odd", junk);
    EXPECT_EQ(read("odd"), "Invalid config parameter: cnf File or cnfFile must be defined");
    TestDevice::get().writeService("odd", "");
    EXPECT_EQ(read("odd"), "Invalid config parameter: cnf File or cnfFile must be defined");
}

TEST_F(ServiceConfigurationFile, FileThatVanishedFailsTheReloadAndEveryFieldStays) {
    TestDevice::get().writeService("odd", kMinimal + "name old\n");
    ServiceConfiguration odd("odd");
    ASSERT_EQ(::unlink(path.c_str()), 0);
    EXPECT_THROW(odd.reload(), std::runtime_error);
    EXPECT_EQ(odd.getServiceName(), "old");
}

TEST(ServiceConfiguration, PathsLieBelowTheServiceFolderWithADoubledSlash) {
    const ServiceConfiguration web = load(kMinimal);
    const std::string folder = TestDevice::get().servicesDirectory();
    EXPECT_EQ(web.getServiceConfigFile(), folder + "//web.conf");
    EXPECT_EQ(web.getTrustedClientsPath(), folder + "//web/client");
    EXPECT_EQ(web.getCAPath(), folder + "//web/ca");
    EXPECT_EQ(web.getServerPath(), folder + "//web/server");
}

}  // namespace
