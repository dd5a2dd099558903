// Every row of the tables of the daemon's and the services' keys against the reader of its file.
#include "config/ConfigKeys.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <ostream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <type_traits>
#include <vector>

#include "config/DaemonConfiguration.h"
#include "config/ServiceConfiguration.h"
#include "support/Tools.h"
#include "testsupport/CapturedLog.h"
#include "testsupport/TestDevice.h"

namespace {

using keywarden::BadValue;
using keywarden::ConfigKey;
using keywarden::DaemonConfiguration;
using keywarden::DaemonKey;
using keywarden::KeyKind;
using keywarden::KeyRow;
using keywarden::KeyTable;
using keywarden::Need;
using keywarden::ServiceConfiguration;
using keywarden::ServiceKey;
using testsupport::TestDevice;

const std::string kRefused = "(refused)";

std::string onOff(bool isOn) {
    return isOn ? "yes" : "no";
}

// The switches over all constants have no default: one without its field does not compile.

/// What has arrived of the key, as a file would say it.
std::string fieldOf(const DaemonConfiguration& configuration, DaemonKey key) {
    switch (key) {
        case DaemonKey::KeywardDirectory:
            return DaemonConfiguration::getKeywardDirectory();
        case DaemonKey::NotificationGroup:
            return configuration.getNotificationGroup();
        case DaemonKey::ServiceConfigDirectory:
            return configuration.getServiceConfigDirectory();
        case DaemonKey::MinDateForGeneratingCert:
            return std::to_string(configuration.getMinDateForGeneratingCert());
        case DaemonKey::NamePipesDirectory:
            return DaemonConfiguration::getNamePipesDirectory();
        case DaemonKey::DaemonUser:
            return configuration.getDaemonUser();
        case DaemonKey::ScriptsDirectory:
            return configuration.getScriptsDirectory();
        case DaemonKey::LockFile:
            return configuration.getLockFile();
        case DaemonKey::PidFile:
            return configuration.getPidFile();
        case DaemonKey::TimeDriftSleepTime:
            return std::to_string(configuration.getTimeDriftSleepTime());
        case DaemonKey::TimeDriftThresholdValue:
            return std::to_string(configuration.getTimeDriftThresholdValue());
        case DaemonKey::ContinueOnServiceFailure:
            return onOff(configuration.isContinueOnServiceFailure());
        case DaemonKey::End:
            break;
    }
    throw std::logic_error("no key of the daemon's file");
}

/// Numbered keys are those of interface 0.
std::string fieldOf(const ServiceConfiguration& service, ServiceKey key) {
    const auto& interfaces = service.getNetworkInterfaceList();
    const auto flag = [&](bool keywarden::ServiceNetworkConfiguration::*member) {
        return onOff(service.getNetworkInterfaces(interfaces.at(0)).*member);
    };
    switch (key) {
        case ServiceKey::Name:
            return service.getServiceName();
        case ServiceKey::ManagementGroup:
            return service.getManagementGroup();
        case ServiceKey::KeyGroup:
            return service.getKeyGroup();
        case ServiceKey::CallbackScript:
            return service.getCallbackScript();
        case ServiceKey::CallbackLibrary:
            return service.getCallbackLibrary();
        case ServiceKey::CallbackTimeoutSecs:
            return std::to_string(service.getCallbackTimeoutSecs());
        case ServiceKey::Server:
            return onOff(service.isServer());
        case ServiceKey::CA:
            return onOff(service.isCA());
        case ServiceKey::TrustedClients:
            return onOff(service.isTrustedClients());
        case ServiceKey::CnfHookFile:
            return service.getCnfHookFile();
        case ServiceKey::CnfFile:
            return service.getCnfFile();
        case ServiceKey::SelfSignedGeneration:
            return onOff(service.isSelfSignedGeneration());
        case ServiceKey::SelfSignedOnExpiration:
            return onOff(service.isSelfSignedOnExpiration());
        case ServiceKey::SelfSignedValidity:
            return std::to_string(service.getSelfSignedValidity());
        case ServiceKey::SelfSignedValidityOffset:
            return std::to_string(service.getSelfSignedValidityOffset());
        case ServiceKey::CASignedGeneration:
            return onOff(service.isCASignedGeneration());
        case ServiceKey::CASignedOnExpiration:
            return onOff(service.isCASignedOnExpiration());
        case ServiceKey::CAServiceId:
            return service.getCAServiceId();
        case ServiceKey::CASignedValidity:
            return std::to_string(service.getCASignedValidity());
        case ServiceKey::CASignedValidityOffset:
            return std::to_string(service.getCASignedValidityOffset());
        case ServiceKey::CertDailyExpiryChkTimeOffsetSecs:
            return std::to_string(service.getCertDailyExpiryChkTimeOffsetSecs());
        case ServiceKey::NetworkInvalidRevokePKIcert:
            return onOff(service.isNetworkInvalidRevokePKIcert());
        case ServiceKey::OpensslEngine:
            return onOff(service.isOpensslEngine());
        case ServiceKey::IncludeFQDN:
            return onOff(service.isIncludeFQDN());
        case ServiceKey::NetworkInterface:
            return interfaces.empty() ? "" : interfaces.front();
        case ServiceKey::RegenerateIfOff:
            return flag(&keywarden::ServiceNetworkConfiguration::regenerateIfOff);
        case ServiceKey::IncludeIPv4:
            return flag(&keywarden::ServiceNetworkConfiguration::includeIPv4);
        case ServiceKey::IncludeIPv4Auto:
            return flag(&keywarden::ServiceNetworkConfiguration::includeIPv4Auto);
        case ServiceKey::IncludeIPv6:
            return flag(&keywarden::ServiceNetworkConfiguration::includeIPv6);
        case ServiceKey::IncludeIPv6Auto:
            return flag(&keywarden::ServiceNetworkConfiguration::includeIPv6Auto);
        case ServiceKey::MaximumCA:
            return std::to_string(service.getMaximumCA());
        case ServiceKey::UniqueCaByCn:
            return onOff(service.isUniqueCaByCn());
        case ServiceKey::MaximumTrustedClients:
            return std::to_string(service.getMaximumTrustedClients());
        case ServiceKey::UniqueTrustedClientByCn:
            return onOff(service.isUniqueTrustedClientByCn());
        case ServiceKey::End:
            break;
    }
    throw std::logic_error("no key of a service's file");
}

ConfigKey nameIn(const KeyRow& row) {
    return row.numbered ? ConfigKey(row, 0) : ConfigKey(row);
}

/// The line that sets the key; none for an empty value.
std::string lineOf(const KeyRow& row, const std::string& value) {
    return value.empty() ? "" : nameIn(row).name() + " " + value + "\n";
}

/// What the table says counts without the key.
std::string absentOf(const KeyRow& row) {
    if (row.kind == KeyKind::Number)
        return std::to_string(row.absent);
    return row.kind == KeyKind::Switch ? "no" : "";
}

/// The field after a daemon's file in which only the key of this row changes, or kRefused.
std::string readDaemon(const KeyRow& row, const std::string& value) {
    std::string file = lineOf(row, value);
    for (const KeyRow& other : keywarden::daemonKeys()) {
        if (other.need == Need::Required && &other != &row)
            file += lineOf(other, "/x");
    }
    const testsupport::Sandbox sandbox;
    try {
        const DaemonConfiguration configuration(sandbox.write("config.daemon", file));
        return fieldOf(configuration, static_cast<DaemonKey>(row.place));
    } catch (const std::exception&) {
        return kRefused;
    }
}

/// The same of a service's file. It has what it needs to stand, and for every key to be read.
std::string readService(const KeyRow& row, const std::string& value) {
    const auto key = static_cast<ServiceKey>(row.place);
    std::string file = lineOf(row, value);
    file += key == ServiceKey::CnfFile ? "cnfHookFile /hook\n" : "cnfFile /etc/web.cnf\n";
    for (const ServiceKey store : {ServiceKey::CA, ServiceKey::TrustedClients})
        file += key == store ? "" : lineOf(rowOf(store), "yes");
    if (key != ServiceKey::MaximumCA)
        file += "maximumCA 5\n";
    if (key != ServiceKey::NetworkInterface)
        file += "networkInterface.0 eth0\n";
    TestDevice::get().writeService("keys", file);
    try {
        return fieldOf(ServiceConfiguration("keys"), key);
    } catch (const std::runtime_error&) {
        return kRefused;
    }
}

/// The two folders come from the one instance of the program, which has read the device's file.
bool isOfTheInstance(const KeyRow& row) {
    return &row == &rowOf(DaemonKey::KeywardDirectory) || &row == &rowOf(DaemonKey::NamePipesDirectory);
}

std::string onTheDevice(const KeyRow& row) {
    std::istringstream file(testsupport::Sandbox::read(TestDevice::get().sandbox().path("config.daemon")));
    return keywarden::Tools::getConfigFileMap(file).at(std::string(row.name));
}

/// An offset must be less than its validity.
bool isOffset(const KeyRow& row) {
    return &row == &rowOf(ServiceKey::SelfSignedValidityOffset) ||
           &row == &rowOf(ServiceKey::CASignedValidityOffset);
}

struct File {
    const char* name;
    KeyTable table;
    std::string (*read)(const KeyRow& row, const std::string& value);
    bool refusesMissing;
};

void PrintTo(const File& file, std::ostream* stream) {
    *stream << file.name;
}

std::string below(std::int64_t lowest) {
    constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();
    return lowest == kLowest ? "-9223372036854775809" : std::to_string(lowest - 1);
}

std::string above(std::int64_t highest) {
    return std::to_string(static_cast<std::uint64_t>(highest) + 1);
}

class ConfigKeys : public testing::TestWithParam<File> {
  protected:
    void TearDown() override { testsupport::CapturedLog::clear(); }

    static std::string read(const KeyRow& row, const std::string& value) {
        return GetParam().read(row, value);
    }
    static std::vector<const KeyRow*> rowsOf(std::set<KeyKind> kinds) {
        std::vector<const KeyRow*> rows;
        for (const KeyRow& row : GetParam().table) {
            if (kinds.count(row.kind) != 0)
                rows.push_back(&row);
        }
        return rows;
    }
};

TEST_P(ConfigKeys, ANameStandsForOneRowOnly) {
    std::set<std::string> names;
    for (const KeyRow& row : GetParam().table)
        EXPECT_TRUE(names.emplace(row.name).second) << row.name;
}

TEST_P(ConfigKeys, ARowHasALineOfHelpAndOnlyANumberARange) {
    for (const KeyRow& row : GetParam().table) {
        const bool isNumber = row.kind == KeyKind::Number;
        EXPECT_THAT(std::string(row.help), testing::MatchesRegex("[A-Z][^\n]+")) << row.name;
        EXPECT_EQ(row.bad == BadValue::Off, row.kind == KeyKind::Switch) << row.name;
        EXPECT_EQ(row.lowest < row.highest, isNumber) << row.name;
        EXPECT_EQ(row.unit.empty(), !isNumber) << row.name;
    }
}

TEST_P(ConfigKeys, WithoutItsKeyAFieldIsWhatTheTableSays) {
    for (const KeyRow& row : GetParam().table) {
        const bool isRefused = row.need == Need::Required && GetParam().refusesMissing;
        EXPECT_EQ(read(row, ""), isRefused ? kRefused : absentOf(row)) << row.name;
    }
}

TEST_P(ConfigKeys, ATextArrivesAsItStands) {
    for (const KeyRow* const row : rowsOf({KeyKind::Text, KeyKind::Path}))
        EXPECT_EQ(read(*row, "/some where"), isOfTheInstance(*row) ? onTheDevice(*row) : "/some where")
            << row->name;
}

TEST_P(ConfigKeys, ASwitchIsOnWithExactlyYes) {
    for (const KeyRow* const row : rowsOf({KeyKind::Switch})) {
        EXPECT_EQ(read(*row, "yes"), "yes") << row->name;
        EXPECT_EQ(read(*row, "Yes"), "no") << row->name;
    }
}

TEST_P(ConfigKeys, ANumberArrivesFromTheLowestToTheHighest) {
    for (const KeyRow* const row : rowsOf({KeyKind::Number})) {
        const std::string highest = std::to_string(row->highest);
        EXPECT_EQ(read(*row, std::to_string(row->lowest)), std::to_string(row->lowest)) << row->name;
        EXPECT_EQ(read(*row, "7"), "7") << row->name;
        EXPECT_EQ(read(*row, highest), isOffset(*row) ? kRefused : highest) << row->name;
    }
}

TEST_P(ConfigKeys, ANumberBelowTheLowestAndATextDoWhatTheTableSays) {
    for (const KeyRow* const row : rowsOf({KeyKind::Number})) {
        const std::string expected = row->bad == BadValue::Refused ? kRefused : absentOf(*row);
        EXPECT_EQ(read(*row, below(row->lowest)), expected) << row->name;
        EXPECT_EQ(read(*row, "soon"), expected) << row->name;
    }
}

TEST_P(ConfigKeys, ANumberAboveTheHighestDoesWhatTheTableSays) {
    for (const KeyRow* const row : rowsOf({KeyKind::Number})) {
        std::string expected = row->bad == BadValue::Ignored ? absentOf(*row) : std::to_string(row->highest);
        if (row->bad == BadValue::Refused || isOffset(*row))
            expected = kRefused;
        EXPECT_EQ(read(*row, above(row->highest)), expected) << row->name;
    }
}

INSTANTIATE_TEST_SUITE_P(Of, ConfigKeys,
                         testing::Values(File{"Daemon", keywarden::daemonKeys(), readDaemon, true},
                                         File{"Service", keywarden::serviceKeys(), readService, false}),
                         [](const testing::TestParamInfo<File>& test) { return test.param.name; });

TEST(ConfigKey, ANumberedOneIsAskedForWithItsNumberAndNoOther) {
    EXPECT_EQ(ConfigKey(ServiceKey::IncludeIPv4, 12).name(), "includeIPv4.12");
    EXPECT_EQ(ConfigKey(ServiceKey::MaximumCA).name(), "maximumCA");
    EXPECT_THROW(ConfigKey(ServiceKey::IncludeIPv4), std::logic_error);
    EXPECT_THROW(ConfigKey(ServiceKey::MaximumCA, 0), std::logic_error);
}

TEST(ConfigKey, IsMadeOfAConstantAndNotOfAText) {
    EXPECT_TRUE((std::is_convertible_v<ServiceKey, ConfigKey>));
    EXPECT_FALSE((std::is_constructible_v<ConfigKey, const char*>));
    EXPECT_FALSE((std::is_constructible_v<ConfigKey, std::string>));
}

}  // namespace
