#include "network/NetworkConfiguration.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "tests/unit/network/NetworkScript.h"

using keywarden::NetworkConfiguration;
using testsupport::CapturedLog;

namespace {

using Strings = std::vector<std::string>;
using Map = std::map<std::string, std::string>;

constexpr const char* kTwoInterfaces =
    "interface.0 eth0\n"
    "mac.0 02:00:00:00:00:01\n"
    "ipv4Auto.0 yes\n"
    "ipv4.0.0 10.0.0.5\n"
    "ipv4.0.1 10.0.0.6\n"
    "ipv6.0.0 fd00::5\n"
    "interface.1 wlan0\n"
    "mac.1 02:00:00:00:00:02\n"
    "ipv4.1.0 192.168.7.1\n"
    "ipv6Auto.1 yes\n"
    "ipv6.1.0 fd01::7\n"
    "ipv6.1.1 fd01::8\n"
    "fqdn.0 unit42.example.com\n"
    "fqdn.1 unit42\n";

class NetworkConfigurationTest : public NetworkScript {
  protected:
    void print(const std::string& text) {
        device.setNetwork(text);
        network.reload();
    }

    NetworkConfiguration network;
};

}  // namespace

TEST_F(NetworkConfigurationTest, InterfacesAreFoundByTheirNumbers) {
    print(kTwoInterfaces);
    EXPECT_EQ(0, network.interfaceIndex("eth0"));
    EXPECT_EQ(1, network.interfaceIndex("wlan0"));
    EXPECT_TRUE(network.isInterfaceExist("eth0"));
    EXPECT_TRUE(network.isInterfaceExist("wlan0"));
}

TEST_F(NetworkConfigurationTest, InterfaceNamesMustMatchExactly) {
    print(kTwoInterfaces);
    for (const char* name : {"eth", "eth00", "ETH0", "", " eth0", "10.0.0.5"}) {
        EXPECT_EQ(-1, network.interfaceIndex(name)) << name;
        EXPECT_FALSE(network.isInterfaceExist(name)) << name;
    }
}

TEST_F(NetworkConfigurationTest, MacAddressesAreGivenByInterface) {
    print(kTwoInterfaces);
    EXPECT_EQ("02:00:00:00:00:01", network.getInterfaceMAC("eth0"));
    EXPECT_EQ("02:00:00:00:00:02", network.getInterfaceMAC("wlan0"));
}

TEST_F(NetworkConfigurationTest, MacAddressOfAnUnknownInterfaceIsEmpty) {
    print(kTwoInterfaces);
    EXPECT_EQ("", network.getInterfaceMAC("eth9"));
}

TEST_F(NetworkConfigurationTest, MacAddressThatIsNotPrintedIsEmpty) {
    print("interface.0 tun0\nipv4.0.0 10.8.0.1\n");
    EXPECT_EQ("", network.getInterfaceMAC("tun0"));
}

TEST_F(NetworkConfigurationTest, AutomaticIPv4AddressesAreLeftOutUnlessAskedFor) {
    print(kTwoInterfaces);
    EXPECT_EQ(Strings{}, network.getInterfaceIPv4Addresses("eth0", false));
    EXPECT_EQ((Strings{"10.0.0.5", "10.0.0.6"}), network.getInterfaceIPv4Addresses("eth0", true));
    EXPECT_EQ((Strings{"192.168.7.1"}), network.getInterfaceIPv4Addresses("wlan0", false));
    EXPECT_EQ((Strings{"192.168.7.1"}), network.getInterfaceIPv4Addresses("wlan0", true));
}

TEST_F(NetworkConfigurationTest, AutomaticIPv6AddressesAreLeftOutUnlessAskedFor) {
    print(kTwoInterfaces);
    EXPECT_EQ((Strings{"fd00::5"}), network.getInterfaceIPv6Addresses("eth0", false));
    EXPECT_EQ((Strings{"fd00::5"}), network.getInterfaceIPv6Addresses("eth0", true));
    EXPECT_EQ(Strings{}, network.getInterfaceIPv6Addresses("wlan0", false));
    EXPECT_EQ((Strings{"fd01::7", "fd01::8"}), network.getInterfaceIPv6Addresses("wlan0", true));
}

TEST_F(NetworkConfigurationTest, AutomaticIsTheExactWordYes) {
    for (const char* word : {"Yes", "true", "yes,", "no"}) {
        print(std::string("interface.0 eth0\nipv4Auto.0 ") + word + "\nipv4.0.0 10.0.0.5\n");
        EXPECT_EQ((Strings{"10.0.0.5"}), network.getInterfaceIPv4Addresses("eth0", false)) << word;
    }
}

TEST_F(NetworkConfigurationTest, AddressesOfAnUnknownInterfaceAreNone) {
    print(kTwoInterfaces);
    EXPECT_EQ(Strings{}, network.getInterfaceIPv4Addresses("eth9", true));
    EXPECT_EQ(Strings{}, network.getInterfaceIPv6Addresses("eth9", true));
}

TEST_F(NetworkConfigurationTest, TwelveAddressesKeepTheirNumericOrder) {
    std::string printed = "interface.0 eth0\n";
    Strings expected;
    for (int i = 0; i < 12; ++i) {
        expected.push_back("10.0.0." + std::to_string(100 - i));
        printed += "ipv4.0." + std::to_string(i) + " " + expected.back() + "\n";
    }
    print(printed);
    EXPECT_EQ(expected, network.getInterfaceIPv4Addresses("eth0", false));
}

TEST_F(NetworkConfigurationTest, EleventhInterfaceIsNotMistakenForTheFirst) {
    std::string printed;
    for (int i = 0; i < 11; ++i) {
        const std::string number = std::to_string(i);
        printed.append("interface.").append(number).append(" eth").append(number).append("\n");
        printed.append("ipv4.").append(number).append(".0 10.0.").append(number).append(".1\n");
    }
    print(printed);
    EXPECT_EQ(10, network.interfaceIndex("eth10"));
    EXPECT_EQ((Strings{"10.0.10.1"}), network.getInterfaceIPv4Addresses("eth10", false));
    EXPECT_EQ((Strings{"10.0.1.1"}), network.getInterfaceIPv4Addresses("eth1", false));
}

TEST_F(NetworkConfigurationTest, InterfaceAfterAGapIsUnknown) {
    print(
        "interface.0 eth0\nipv4.0.0 10.0.0.5\ninterface.2 eth2\nipv4.2.0 10.0.2.5\nmac.2 "
        "02:00:00:00:00:03\n");
    EXPECT_EQ(0, network.interfaceIndex("eth0"));
    EXPECT_EQ(-1, network.interfaceIndex("eth2"));
    EXPECT_FALSE(network.isInterfaceExist("eth2"));
    EXPECT_TRUE(network.isInterfaceOff("eth2"));
    EXPECT_EQ("", network.getInterfaceMAC("eth2"));
    EXPECT_EQ(Strings{}, network.getInterfaceIPv4Addresses("eth2", true));
}

TEST_F(NetworkConfigurationTest, AddressAndNameAfterAGapAreNotRead) {
    print("interface.0 eth0\nipv4.0.0 10.0.0.5\nipv4.0.2 10.0.0.7\nipv6.0.1 fd00::5\nfqdn.0 a\nfqdn.2 c\n");
    EXPECT_EQ((Strings{"10.0.0.5"}), network.getInterfaceIPv4Addresses("eth0", true));
    EXPECT_EQ(Strings{}, network.getInterfaceIPv6Addresses("eth0", true));
    EXPECT_EQ((Strings{"a"}), network.getDNS());
}

TEST_F(NetworkConfigurationTest, NumberingFromOneGivesNothing) {
    print("interface.1 eth0\nipv4.1.1 10.0.0.5\nfqdn.1 a\n");
    EXPECT_EQ(-1, network.interfaceIndex("eth0"));
    EXPECT_EQ(Strings{}, network.getDNS());
}

TEST_F(NetworkConfigurationTest, FirstOfTwoInterfacesOfOneNameCounts) {
    print("interface.0 eth0\ninterface.1 eth0\nipv4.0.0 10.0.0.5\nipv4.1.0 10.0.0.6\n");
    EXPECT_EQ(0, network.interfaceIndex("eth0"));
    EXPECT_EQ((Strings{"10.0.0.5"}), network.getInterfaceIPv4Addresses("eth0", false));
}

TEST_F(NetworkConfigurationTest, DnsNamesComeInTheScriptsOrder) {
    print(kTwoInterfaces);
    EXPECT_EQ((Strings{"unit42.example.com", "unit42"}), network.getDNS());
}

TEST_F(NetworkConfigurationTest, InterfaceWithAutomaticAddressesOnlyIsOn) {
    print("interface.0 eth0\nipv4Auto.0 yes\nipv4.0.0 10.0.0.5\n");
    EXPECT_EQ(Strings{}, network.getInterfaceIPv4Addresses("eth0", false));
    EXPECT_FALSE(network.isInterfaceOff("eth0"));
    print("interface.0 eth0\nipv6Auto.0 yes\nipv6.0.0 fd00::5\n");
    EXPECT_EQ(Strings{}, network.getInterfaceIPv6Addresses("eth0", false));
    EXPECT_FALSE(network.isInterfaceOff("eth0"));
}

TEST_F(NetworkConfigurationTest, InterfaceWithAnAddressOfOneFamilyIsOn) {
    print("interface.0 eth0\nipv4.0.0 10.0.0.5\ninterface.1 eth1\nipv6.1.0 fd00::5\n");
    EXPECT_FALSE(network.isInterfaceOff("eth0"));
    EXPECT_FALSE(network.isInterfaceOff("eth1"));
}

TEST_F(NetworkConfigurationTest, InterfaceWithoutAddressesIsOff) {
    print("interface.0 eth0\nmac.0 02:00:00:00:00:01\nipv4Auto.0 yes\n");
    EXPECT_TRUE(network.isInterfaceExist("eth0"));
    EXPECT_TRUE(network.isInterfaceOff("eth0"));
}

TEST_F(NetworkConfigurationTest, UnknownInterfaceIsOff) {
    print(kTwoInterfaces);
    EXPECT_TRUE(network.isInterfaceOff("eth9"));
}

TEST_F(NetworkConfigurationTest, ScriptThatPrintsNothingEmptiesTheMap) {
    print(kTwoInterfaces);
    device.setNetwork("");
    EXPECT_EQ(Map{}, network.reload());
    EXPECT_EQ(-1, network.interfaceIndex("eth0"));
    EXPECT_FALSE(network.isInterfaceExist("eth0"));
    EXPECT_TRUE(network.isInterfaceOff("eth0"));
    EXPECT_EQ("", network.getInterfaceMAC("eth0"));
    EXPECT_EQ(Strings{}, network.getInterfaceIPv4Addresses("eth0", true));
    EXPECT_EQ(Strings{}, network.getInterfaceIPv6Addresses("wlan0", true));
    EXPECT_EQ(Strings{}, network.getDNS());
    EXPECT_EQ("", CapturedLog::dump());
}

TEST_F(NetworkConfigurationTest, ReloadReturnsTheMapAsTheScriptPrintedIt) {
    device.setNetwork("# a comment\n\ninterface.0   eth0  # the first\nalone\nfqdn.0 a\nfqdn.0 b\n");
    EXPECT_EQ((Map{{"interface.0", "eth0"}, {"fqdn.0", "a"}}), network.reload());
}

TEST_F(NetworkConfigurationTest, ReloadDropsWhatIsNoLongerPrinted) {
    print(kTwoInterfaces);
    device.setNetwork("interface.0 eth5\n");
    EXPECT_EQ((Map{{"interface.0", "eth5"}}), network.reload());
    EXPECT_EQ(-1, network.interfaceIndex("eth0"));
    EXPECT_EQ(Strings{}, network.getDNS());
}

TEST_F(NetworkConfigurationTest, ReturnedMapIsACopy) {
    device.setNetwork("fqdn.0 a\n");
    Map copy = network.reload();
    copy.clear();
    EXPECT_EQ((Strings{"a"}), network.getDNS());
}
