// Subject alternative names: from the device's network and the service's settings into the extension.
#include "ServerFixture.h"
#include "cnf/CnfFileConfiguration.h"

namespace servertest {

using keywarden::CnfFileConfiguration;
using keywarden::Server;

namespace {

using Names = std::map<std::string, std::string>;

constexpr const char* kNetwork =
    "interface.0 eth0\n"
    "ipv4.0.0 10.0.0.1\n"
    "ipv6.0.0 fe80::1\n"
    "interface.1 eth1\n"
    "ipv4Auto.1 yes\n"
    "ipv4.1.0 10.1.0.1\n"
    "ipv4.1.1 10.1.0.2\n"
    "ipv6Auto.1 yes\n"
    "ipv6.1.0 fe80::2\n"
    "fqdn.0 a\n"
    "fqdn.1 b\n";

class ServerAltNames : public ServerTest {
  protected:
    Names names(const std::string& lines) {
        configure(lines);
        return start().buildAltName();
    }
    Names namesWithoutAddresses(const std::string& lines) {
        configure(lines);
        Server::OverrideStaticConfig override;
        override.excludeIpForAllNetworkInterfaces = true;
        return start().buildAltName(override);
    }
    std::string extension(const std::string& lines) {
        configure(lines);
        CnfFileConfiguration settings(cnfFile);
        return start().readCnfConfiguration(settings).v3Extention.back().short_name;
    }
};

}  // namespace

TEST_F(ServerAltNames, WithoutNamesAndInterfacesIsLocalhost) {
    EXPECT_EQ((Names{{"DNS.1", "localhost"}}), names(""));
    EXPECT_EQ("DNS.1:localhost", extension(""));
}

TEST_F(ServerAltNames, NamesComeFirstAndEveryAddressTwice) {
    setNetwork(kNetwork);
    EXPECT_EQ("DNS.1:a,DNS.2:b,DNS.3:10.0.0.1,IP.1:10.0.0.1",
              extension("includeFQDN yes\nnetworkInterface.0 eth0\nincludeIPv4.0 yes"));
}

TEST_F(ServerAltNames, Ipv4ComesBeforeIpv6WithOneCount) {
    setNetwork(kNetwork);
    EXPECT_EQ((Names{{"DNS.1", "10.0.0.1"}, {"DNS.2", "fe80::1"}, {"IP.1", "10.0.0.1"}, {"IP.2", "fe80::1"}}),
              names("networkInterface.0 eth0\nincludeIPv4.0 yes\nincludeIPv6.0 yes"));
}

TEST_F(ServerAltNames, InterfacesCountOnInConfigurationOrder) {
    setNetwork(kNetwork);
    EXPECT_EQ(
        "DNS.1:10.1.0.1,DNS.2:10.1.0.2,DNS.3:fe80::2,DNS.4:10.0.0.1,"
        "IP.1:10.1.0.1,IP.2:10.1.0.2,IP.3:fe80::2,IP.4:10.0.0.1",
        extension("networkInterface.0 eth1\nincludeIPv4.0 yes\nincludeIPv4Auto.0 yes\nincludeIPv6.0 yes\n"
                  "includeIPv6Auto.0 yes\nnetworkInterface.1 eth0\nincludeIPv4.1 yes"));
}

TEST_F(ServerAltNames, AutomaticAddressesAreLeftOutUnlessAskedFor) {
    setNetwork(kNetwork);
    EXPECT_EQ((Names{{"DNS.1", "localhost"}}),
              names("networkInterface.0 eth1\nincludeIPv4.0 yes\nincludeIPv6.0 yes"));
}

TEST_F(ServerAltNames, AddressesAreLeftOutWithoutTheirFlag) {
    setNetwork(kNetwork);
    EXPECT_EQ((Names{{"DNS.1", "fe80::1"}, {"IP.1", "fe80::1"}}),
              names("networkInterface.0 eth0\nincludeIPv6.0 yes"));
}

TEST_F(ServerAltNames, UnknownInterfaceContributesNothing) {
    setNetwork(kNetwork);
    EXPECT_EQ((Names{{"DNS.1", "localhost"}}), names("networkInterface.0 eth9\nincludeIPv4.0 yes"));
}

TEST_F(ServerAltNames, TenthNameComesBeforeTheSecond) {
    std::string network;
    for (int i = 0; i < 11; ++i)
        network += "fqdn." + std::to_string(i) + " n" + std::to_string(i + 1) + "\n";
    setNetwork(network);
    EXPECT_EQ(
        "DNS.1:n1,DNS.10:n10,DNS.11:n11,DNS.2:n2,DNS.3:n3,DNS.4:n4,DNS.5:n5,DNS.6:n6,DNS.7:n7,DNS.8:n8,"
        "DNS.9:n9",
        extension("includeFQDN yes"));
}

TEST_F(ServerAltNames, OrderOfTheMapIsTheOrderInTheCertificate) {
    std::string network = "interface.0 eth0\nipv4.0.0 10.0.0.1\n";
    for (int i = 0; i < 10; ++i)
        network += "fqdn." + std::to_string(i) + " n" + std::to_string(i + 1) + ".example\n";
    setNetwork(network);
    configure("selfSignedGeneration yes\nincludeFQDN yes\nnetworkInterface.0 eth0\nincludeIPv4.0 yes");
    start();
    const std::string details = readFile(store().certDetailsPath(active()));
    EXPECT_NE(std::string::npos,
              details.find("DNS:n1.example, DNS:n10.example, DNS:10.0.0.1, DNS:n2.example, DNS:n3.example, "
                           "DNS:n4.example, DNS:n5.example, DNS:n6.example, DNS:n7.example, DNS:n8.example, "
                           "DNS:n9.example, IP Address:10.0.0.1"))
        << details;
}

TEST_F(ServerAltNames, OverrideLeavesOnlyTheNames) {
    setNetwork(kNetwork);
    const std::string all =
        "networkInterface.0 eth0\nincludeIPv4.0 yes\nincludeIPv6.0 yes\nnetworkInterface.1 eth1\n"
        "includeIPv4.1 yes\nincludeIPv4Auto.1 yes\nincludeIPv6.1 yes\nincludeIPv6Auto.1 yes\n";
    EXPECT_EQ((Names{{"DNS.1", "a"}, {"DNS.2", "b"}}), namesWithoutAddresses(all + "includeFQDN yes"));
    EXPECT_EQ((Names{{"DNS.1", "localhost"}}), namesWithoutAddresses(all));
}

TEST_F(ServerAltNames, OverrideChangesNeitherTheConfigurationNorTheOrdinaryNames) {
    setNetwork(kNetwork);
    const std::string lines = "networkInterface.0 eth0\nincludeIPv4.0 yes";
    (void)namesWithoutAddresses(lines);
    EXPECT_TRUE(configuration().getNetworkInterfaces("eth0").includeIPv4);
    EXPECT_EQ((Names{{"DNS.1", "10.0.0.1"}, {"IP.1", "10.0.0.1"}}), server().buildAltName());
}

TEST_F(ServerAltNames, OverrideThatIsNotSetChangesNothing) {
    setNetwork(kNetwork);
    configure("networkInterface.0 eth0\nincludeIPv4.0 yes");
    EXPECT_EQ((Names{{"DNS.1", "10.0.0.1"}, {"IP.1", "10.0.0.1"}}),
              start().buildAltName(Server::OverrideStaticConfig()));
}

TEST_F(ServerAltNames, ExtensionIsAppendedToTheSettingsWithTheValueTwice) {
    configure();
    start();
    CnfFileConfiguration settings(cnfFile);
    const auto plain = settings.getCCertificateData();
    const auto data = server().readCnfConfiguration(settings);
    ASSERT_EQ(plain.v3Extention.size() + 1, data.v3Extention.size());
    for (std::size_t i = 0; i < plain.v3Extention.size(); ++i)
        EXPECT_EQ(plain.v3Extention[i].obj_id, data.v3Extention[i].obj_id);
    const kwdata::v3Ext& added = data.v3Extention.back();
    EXPECT_EQ("subjectAltName", added.obj_id);
    EXPECT_EQ("DNS.1:localhost", added.short_name);
    EXPECT_EQ("DNS.1:localhost", added.long_name);
    EXPECT_EQ("", added.comment);
    EXPECT_EQ("unit.example", data.subject.common_name);
}

TEST_F(ServerAltNames, OverrideReachesTheSettings) {
    setNetwork(kNetwork);
    configure("includeFQDN yes\nnetworkInterface.0 eth0\nincludeIPv4.0 yes");
    start();
    CnfFileConfiguration settings(cnfFile);
    Server::OverrideStaticConfig override;
    override.excludeIpForAllNetworkInterfaces = true;
    EXPECT_EQ("DNS.1:a,DNS.2:b",
              server().readCnfConfiguration(settings, override).v3Extention.back().short_name);
}

TEST_F(ServerAltNames, TracesFollowTheBuilding) {
    setNetwork("interface.0 eth0\nipv4.0.0 10.0.0.1\nfqdn.0 a\n");
    configure("includeFQDN yes\nnetworkInterface.0 eth0\nincludeIPv4.0 yes");
    start();
    const CapturedTraces captured;
    (void)server().buildAltName();
    const std::vector<std::string> expected = {"Creating altnames for service " + id + "...",
                                               "  DNS.1 = a",
                                               " Interface: eth0",
                                               "  DNS.2 = 10.0.0.1",
                                               "  IP.1 = 10.0.0.1",
                                               "Creating altnames for service " + id + "... Done."};
    EXPECT_EQ(expected, captured.lines());
}

TEST_F(ServerAltNames, TracesOfTheOverrideAndTheDefault) {
    start();
    const CapturedTraces captured;
    (void)server().buildAltName(Server::OverrideStaticConfig());
    const std::vector<std::string> expected = {
        "Creating altnames for service " + id + " with overrided config...",
        "  DNS.1 = localhost (default value)", "Creating altnames for service " + id + "... Done."};
    EXPECT_EQ(expected, captured.lines());
}

}  // namespace servertest
