#include "network/NetworkInfo.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "config/ServiceConfiguration.h"
#include "network/NetworkConfiguration.h"
#include "tests/unit/network/CapturedTraces.h"
#include "tests/unit/network/NetworkScript.h"

using keywarden::NetworkConfiguration;
using keywarden::NetworkInfo;
using keywarden::ServiceConfiguration;
using testsupport::CapturedLog;
using testsupport::LogLine;
using testsupport::Sandbox;

namespace {

using Names = std::set<std::string>;
using Interfaces = std::map<std::string, std::set<std::string>>;
using Lines = std::vector<LogLine>;

NetworkInfo identity(const Names& fqdns, const Interfaces& interfaces) {
    NetworkInfo info{std::string()};
    info.fqdns = fqdns;
    info.interfaces = interfaces;
    return info;
}

class NetworkFile : public testing::Test {
  protected:
    void SetUp() override { CapturedLog::clear(); }

    [[nodiscard]] NetworkInfo load(const std::string& text) const {
        return NetworkInfo(sandbox.write("csr.network", text));
    }

    Sandbox sandbox;
    const std::string path = sandbox.path("csr.network");
};

class NetworkComparison : public testing::Test {
  protected:
    void SetUp() override { CapturedLog::clear(); }
};

class NetworkIdentity : public NetworkScript {
  protected:
    NetworkInfo of(const std::string& settings, const std::string& printed) {
        device.setNetwork(printed);
        NetworkConfiguration::getInstance().reload();
        device.writeService("identity", "cnfFile /dev/null\n" + settings);
        return NetworkInfo(ServiceConfiguration("identity"));
    }

    static constexpr const char* kPrinted =
        "interface.0 eth0\n"
        "ipv4.0.0 10.0.0.6\n"
        "ipv4.0.1 10.0.0.5\n"
        "ipv6.0.0 fd00::5\n"
        "interface.1 wlan0\n"
        "ipv4Auto.1 yes\n"
        "ipv4.1.0 192.168.7.1\n"
        "ipv6Auto.1 yes\n"
        "ipv6.1.0 fd01::7\n"
        "interface.2 eth9\n"
        "fqdn.0 unit42.example.com\n"
        "fqdn.1 unit42\n";
};

}  // namespace

TEST_F(NetworkFile, SavedFileHasTheStatedBytes) {
    identity({"unit42"}, {{"eth0", {"fe80::1", "10.0.0.5"}}}).save(path);
    EXPECT_EQ("HOSTNAME.1 unit42\nINTERFACE.1 eth0\neth0.1 10.0.0.5\neth0.2 fe80::1\n", Sandbox::read(path));
    EXPECT_EQ("", CapturedLog::dump());
}

TEST_F(NetworkFile, NamesInterfacesAndAddressesAreSavedInSortedOrder) {
    const Interfaces interfaces{
        {"wlan0", {"192.168.7.1"}}, {"eth10", {}}, {"eth0", {"10.0.0.9", "10.0.0.10"}}};
    identity({"unit42.example.com", "Unit", "unit42"}, interfaces).save(path);
    EXPECT_EQ(
        "HOSTNAME.1 Unit\n"
        "HOSTNAME.2 unit42\n"
        "HOSTNAME.3 unit42.example.com\n"
        "INTERFACE.1 eth0\n"
        "eth0.1 10.0.0.10\n"
        "eth0.2 10.0.0.9\n"
        "INTERFACE.2 eth10\n"
        "INTERFACE.3 wlan0\n"
        "wlan0.1 192.168.7.1\n",
        Sandbox::read(path));
}

TEST_F(NetworkFile, EmptyIdentityIsSavedAsAnEmptyFile) {
    identity({}, {}).save(path);
    EXPECT_EQ("", Sandbox::read(path));
}

TEST_F(NetworkFile, SavedTextIsWhatToTextGives) {
    const NetworkInfo info = identity({"a", "b"}, {{"eth0", {"10.0.0.5"}}});
    info.save(path);
    EXPECT_EQ(Sandbox::read(path), info.toText());
}

TEST_F(NetworkFile, SavedFileHasMode0644WhateverTheUmask) {
    for (const mode_t mask : {0000U, 0077U}) {
        const mode_t old = ::umask(mask);
        identity({"a"}, {}).save(path);
        ::umask(old);
        EXPECT_EQ(0644U, Sandbox::mode(path));
        std::filesystem::remove(path);
    }
}

TEST_F(NetworkFile, SavingReplacesALongerFileWhole) {
    sandbox.write("csr.network", std::string(5000, 'x'), 0600);
    identity({"a"}, {}).save(path);
    EXPECT_EQ("HOSTNAME.1 a\n", Sandbox::read(path));
    EXPECT_EQ(0644U, Sandbox::mode(path));
}

TEST_F(NetworkFile, SavingIntoAMissingFolderIsLogged) {
    const std::string missing = sandbox.path("missing/csr.network");
    identity({"a"}, {}).save(missing);
    EXPECT_EQ((Lines{{keywarden::SeverityError,
                      "Failed to open network file: " + missing + " for saving network information."}}),
              CapturedLog::lines());
    EXPECT_FALSE(Sandbox::exists(sandbox.path("missing")));
}

TEST_F(NetworkFile, SavingOverAFolderIsLogged) {
    std::filesystem::create_directory(path);
    identity({"a"}, {}).save(path);
    EXPECT_EQ((Lines{{keywarden::SeverityError,
                      "Failed to open network file: " + path + " for saving network information."}}),
              CapturedLog::lines());
}

TEST_F(NetworkFile, SavingIntoAFolderOfSomebodyElseIsLogged) {
    std::filesystem::create_directory(sandbox.path("theirs"));
    ASSERT_EQ(0, ::chown(sandbox.path("theirs").c_str(), 65534, static_cast<gid_t>(-1)));
    const std::string file = sandbox.path("theirs/csr.network");
    identity({"a"}, {}).save(file);
    EXPECT_EQ((Lines{{keywarden::SeverityError,
                      "Failed to open network file: " + file + " for saving network information."}}),
              CapturedLog::lines());
    EXPECT_FALSE(Sandbox::exists(file));
}

TEST_F(NetworkFile, LoadedIdentityIsTheSavedOne) {
    const NetworkInfo saved =
        identity({"unit42", "unit42.example.com"},
                 {{"eth0", {"10.0.0.5", "fe80::1"}}, {"eth1", {}}, {"eth0.100", {"10.1.0.1", "10.1.0.2"}}});
    saved.save(path);
    const NetworkInfo loaded(path);
    EXPECT_EQ(saved.fqdns, loaded.fqdns);
    EXPECT_EQ(saved.interfaces, loaded.interfaces);
}

TEST_F(NetworkFile, MoreThanNineEntriesAreAllLoaded) {
    Names addresses;
    Names names;
    for (int i = 0; i < 12; ++i) {
        addresses.insert("10.0.0." + std::to_string(i));
        names.insert("name" + std::to_string(i));
    }
    identity(names, {{"eth0", addresses}}).save(path);
    const NetworkInfo loaded(path);
    EXPECT_EQ(names, loaded.fqdns);
    EXPECT_EQ((Interfaces{{"eth0", addresses}}), loaded.interfaces);
}

TEST_F(NetworkFile, MissingFileLoadsAsAnEmptyIdentityWithoutAReport) {
    const CapturedTraces traces;
    const NetworkInfo loaded(sandbox.path("nowhere.network"));
    EXPECT_TRUE(loaded.fqdns.empty());
    EXPECT_TRUE(loaded.interfaces.empty());
    EXPECT_EQ("", CapturedLog::dump());
    EXPECT_EQ("", traces.text());
}

TEST_F(NetworkFile, FolderOrFifoInItsPlaceLoadsAsAnEmptyIdentity) {
    ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
    EXPECT_EQ("", NetworkInfo(path).toText());
    EXPECT_EQ("", NetworkInfo(sandbox.path()).toText());
}

TEST_F(NetworkFile, NamesAfterAMissingNumberAreLost) {
    EXPECT_EQ((Names{"a"}), load("HOSTNAME.1 a\nHOSTNAME.3 c\nHOSTNAME.4 d\n").fqdns);
}

TEST_F(NetworkFile, InterfacesAndAddressesAfterAMissingNumberAreLost) {
    const NetworkInfo loaded = load(
        "INTERFACE.1 eth0\neth0.1 10.0.0.1\neth0.3 10.0.0.3\nINTERFACE.3 eth3\neth3.1 10.0.3.1\nlost.1 "
        "10.9.9.9\n");
    EXPECT_EQ((Interfaces{{"eth0", {"10.0.0.1"}}}), loaded.interfaces);
}

TEST_F(NetworkFile, EntryWithoutAValueEndsItsList) {
    const NetworkInfo loaded =
        load("HOSTNAME.1 a\nHOSTNAME.2 \nHOSTNAME.3 c\nINTERFACE.1 eth0\neth0.1  # none\neth0.2 10.0.0.2\n");
    EXPECT_EQ((Names{"a"}), loaded.fqdns);
    EXPECT_EQ((Interfaces{{"eth0", {}}}), loaded.interfaces);
}

TEST_F(NetworkFile, OrderOfTheLinesDoesNotMatter) {
    const NetworkInfo loaded =
        load("eth0.2 10.0.0.2\n# saved\nINTERFACE.1 eth0\nHOSTNAME.2 b\neth0.1 10.0.0.1\n\nHOSTNAME.1 a\n");
    EXPECT_EQ((Names{"a", "b"}), loaded.fqdns);
    EXPECT_EQ((Interfaces{{"eth0", {"10.0.0.1", "10.0.0.2"}}}), loaded.interfaces);
}

TEST_F(NetworkComparison, EqualIdentitiesIncludeEachOther) {
    const NetworkInfo info = identity({"a"}, {{"eth0", {"10.0.0.5"}}});
    EXPECT_TRUE(info.isIncludeIn(info));
    EXPECT_EQ("", CapturedLog::dump());
}

TEST_F(NetworkComparison, EmptyIdentityIsIncludedInAnyOther) {
    const NetworkInfo empty = identity({}, {});
    EXPECT_TRUE(empty.isIncludeIn(empty));
    EXPECT_TRUE(empty.isIncludeIn(identity({"a"}, {{"eth0", {"10.0.0.5"}}})));
    EXPECT_EQ("", CapturedLog::dump());
}

TEST_F(NetworkComparison, WhatOnlyTheOtherHasDoesNotCount) {
    const NetworkInfo smaller = identity({"a"}, {{"eth0", {"10.0.0.5"}}});
    const NetworkInfo larger =
        identity({"a", "b"}, {{"eth0", {"10.0.0.5", "10.0.0.6"}}, {"eth1", {"10.1.0.1"}}});
    EXPECT_TRUE(smaller.isIncludeIn(larger));
    EXPECT_EQ("", CapturedLog::dump());
    EXPECT_FALSE(larger.isIncludeIn(smaller));
}

TEST_F(NetworkComparison, MissingNameIsLoggedAsNotice) {
    const NetworkInfo info = identity({"a", "b", "c"}, {{"eth0", {}}});
    EXPECT_FALSE(info.isIncludeIn(identity({"a"}, {})));
    // Only the first one.
    EXPECT_EQ((Lines{{keywarden::SeverityNotice, "fqdn 'b' not found in the other given network list."}}),
              CapturedLog::lines());
}

TEST_F(NetworkComparison, MissingInterfaceIsLoggedAsInformation) {
    const NetworkInfo info = identity({"a"}, {{"eth0", {"10.0.0.5"}}, {"eth1", {}}, {"eth2", {}}});
    EXPECT_FALSE(info.isIncludeIn(identity({"a"}, {{"eth0", {"10.0.0.5"}}})));
    EXPECT_EQ((Lines{{keywarden::SeverityInfo, "New network interface 'eth1' found."}}),
              CapturedLog::lines());
}

TEST_F(NetworkComparison, InterfaceWithoutAddressesNeedsTheOthersInterface) {
    const NetworkInfo info = identity({}, {{"eth0", {}}});
    EXPECT_TRUE(info.isIncludeIn(identity({}, {{"eth0", {"10.0.0.5"}}})));
    EXPECT_FALSE(info.isIncludeIn(identity({}, {{"eth1", {}}})));
}

TEST_F(NetworkComparison, MissingAddressIsOnlyTraced) {
    const NetworkInfo info = identity({}, {{"eth0", {"10.0.0.5", "10.0.0.6", "10.0.0.7"}}});
    const CapturedTraces traces;
    EXPECT_FALSE(info.isIncludeIn(identity({}, {{"eth0", {"10.0.0.5"}}, {"eth1", {"10.0.0.6"}}})));
    EXPECT_EQ("IP address '10.0.0.6' not found in the other given network list.\n", traces.text());
    EXPECT_EQ("", CapturedLog::dump());
}

TEST_F(NetworkIdentity, NamesAreTakenOnlyWhenAskedFor) {
    EXPECT_EQ((Names{"unit42", "unit42.example.com"}), of("includeFQDN yes\n", kPrinted).fqdns);
    EXPECT_EQ(Names{}, of("", kPrinted).fqdns);
    EXPECT_EQ(Interfaces{}, of("includeFQDN yes\n", kPrinted).interfaces);
}

TEST_F(NetworkIdentity, InterfaceWithoutAddressFlagsHasAnEmptyEntry) {
    EXPECT_EQ((Interfaces{{"eth0", {}}}), of("networkInterface.0 eth0\n", kPrinted).interfaces);
}

TEST_F(NetworkIdentity, AddressesOfTheAskedFamiliesAreTaken) {
    EXPECT_EQ((Interfaces{{"eth0", {"10.0.0.5", "10.0.0.6"}}}),
              of("networkInterface.0 eth0\nincludeIPv4.0 yes\n", kPrinted).interfaces);
    EXPECT_EQ((Interfaces{{"eth0", {"fd00::5"}}}),
              of("networkInterface.0 eth0\nincludeIPv6.0 yes\n", kPrinted).interfaces);
    EXPECT_EQ((Interfaces{{"eth0", {"10.0.0.5", "10.0.0.6", "fd00::5"}}}),
              of("networkInterface.0 eth0\nincludeIPv4.0 yes\nincludeIPv6.0 yes\n", kPrinted).interfaces);
}

TEST_F(NetworkIdentity, AutomaticAddressesAreTakenOnlyWhenAskedFor) {
    const std::string settings = "networkInterface.0 wlan0\nincludeIPv4.0 yes\nincludeIPv6.0 yes\n";
    EXPECT_EQ((Interfaces{{"wlan0", {}}}), of(settings, kPrinted).interfaces);
    EXPECT_EQ((Interfaces{{"wlan0", {"192.168.7.1"}}}),
              of(settings + "includeIPv4Auto.0 yes\n", kPrinted).interfaces);
    EXPECT_EQ((Interfaces{{"wlan0", {"fd01::7"}}}),
              of(settings + "includeIPv6Auto.0 yes\n", kPrinted).interfaces);
}

TEST_F(NetworkIdentity, AutomaticFlagAloneTakesNothing) {
    EXPECT_EQ(
        (Interfaces{{"wlan0", {}}}),
        of("networkInterface.0 wlan0\nincludeIPv4Auto.0 yes\nincludeIPv6Auto.0 yes\n", kPrinted).interfaces);
}

TEST_F(NetworkIdentity, InterfacesThatAreOffOrUnknownAreSkipped) {
    EXPECT_EQ((Interfaces{{"eth0", {"fd00::5"}}}), of("networkInterface.0 eth9\nincludeIPv4.0 yes\n"
                                                      "networkInterface.1 eth7\nincludeIPv4.1 yes\n"
                                                      "networkInterface.2 eth0\nincludeIPv6.2 yes\n",
                                                      kPrinted)
                                                       .interfaces);
}

TEST_F(NetworkIdentity, ConfigurationItselfIsNotReloaded) {
    of("", kPrinted);
    device.setNetwork("");
    device.writeService("identity", "cnfFile /dev/null\nincludeFQDN yes\n");
    EXPECT_EQ((Names{"unit42", "unit42.example.com"}), NetworkInfo(ServiceConfiguration("identity")).fqdns);
}
