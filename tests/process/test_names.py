"""The alternative names of the certificates, as the device's network gives them."""

from kwtest import Case, certificates, main
from kwtest.device import KEYWARD

ETH0 = {"networkInterface.0": "eth0", "includeIPv4.0": "yes"}


def twice(*addresses):
    """Every address stands once among the names and once among the addresses."""
    return [("DNS", address) for address in addresses] + [("IP", address) for address in addresses]


class Names(Case):
    def assert_names(self, expected, network=None, **settings):
        if network is not None:
            self.device.network(network)
        self.device.service("web", **settings)
        self.device.start()
        self.assertEqual(certificates.alternative_names(self.assert_whole_store("web")), expected)

    def test_without_names_and_interfaces_it_is_localhost(self):
        self.assert_names([("DNS", "localhost")])

    def test_the_devices_names_come_in_their_order(self):
        self.assert_names([("DNS", "b.test"), ("DNS", "a.test")], {"fqdn.0": "b.test", "fqdn.1": "a.test"},
                          includeFQDN="yes")

    def test_addresses_stand_twice_behind_the_names(self):
        self.assert_names([("DNS", "a.test"), ("DNS", "b.test"), ("DNS", "10.0.0.1"), ("IP", "10.0.0.1")],
                          {"fqdn.0": "a.test", "fqdn.1": "b.test", "interface.0": "eth0", "ipv4.0.0": "10.0.0.1"},
                          includeFQDN="yes", **ETH0)

    def test_both_families_of_several_interfaces(self):
        self.assert_names(twice("10.0.0.1", "10.0.0.2", "fe80::1", "192.168.7.1"),
                          {"interface.0": "eth0", "ipv4.0.0": "10.0.0.1", "ipv4.0.1": "10.0.0.2",
                           "ipv6.0.0": "fe80::1", "interface.1": "eth1", "ipv4.1.0": "192.168.7.1"},
                          **ETH0, **{"includeIPv6.0": "yes", "networkInterface.1": "eth1", "includeIPv4.1": "yes"})

    def test_automatic_addresses_count_only_when_asked_for(self):
        network = {"interface.0": "eth0", "ipv4Auto.0": "yes", "ipv4.0.0": "10.0.0.1"}
        self.assert_names([("DNS", "localhost")], network, **ETH0)
        self.assertEqual(self.device.stop(), 10)
        self.device.service("web2", **ETH0, **{"includeIPv4Auto.0": "yes"})
        self.device.start()
        self.assertEqual(certificates.alternative_names(self.assert_whole_store("web2")), twice("10.0.0.1"))

    def test_unknown_interfaces_and_unlisted_addresses_add_nothing(self):
        self.assert_names(twice("10.0.0.1"), {"interface.0": "eth0", "ipv4.0.0": "10.0.0.1", "ipv6.0.0": "fe80::1",
                                              "interface.1": "eth1", "ipv4.1.0": "10.1.1.1"},
                          **ETH0, **{"networkInterface.1": "wlan0", "includeIPv4.1": "yes"})

    def test_the_tenth_name_comes_before_the_second(self):
        names = [f"n{number}.test" for number in range(1, 12)]
        ordered = [names[0], names[9], names[10]] + names[1:9]
        self.assert_names([("DNS", name) for name in ordered],
                          {f"fqdn.{index}": name for index, name in enumerate(names)}, includeFQDN="yes")

    def test_a_request_can_leave_the_addresses_out(self):
        self.assert_names([("DNS", "a.test"), ("DNS", "10.0.0.1"), ("IP", "10.0.0.1")],
                          {"fqdn.0": "a.test", "interface.0": "eth0", "ipv4.0.0": "10.0.0.1"},
                          includeFQDN="yes", **ETH0)
        channel = self.device.channel("web")
        for arguments, expected in (((), [("DNS", "a.test"), ("DNS", "10.0.0.1"), ("IP", "10.0.0.1")]),
                                    (("CA-CB_compliant",), [("DNS", "a.test")]),
                                    (("x", "CA-CB_compliant"), [("DNS", "a.test")])):
            self.assertEqual(channel.ask("server", "createcsr", *arguments), (0, ""))
            csr = certificates.load_request(self.device.read(f"{KEYWARD}/web/server/.cacheddata/csr.csr"))
            self.assertEqual(certificates.alternative_names(csr), expected)


class NetworkFile(Case):
    def test_it_holds_names_interfaces_and_addresses_in_order(self):
        self.device.network({"fqdn.0": "unit42", "interface.0": "eth0", "ipv4.0.0": "10.0.0.5", "ipv6.0.0": "fe80::1",
                             "interface.1": "eth1", "ipv6.1.0": "fe80::2"})
        self.device.service("web", includeFQDN="yes", **ETH0, **{"includeIPv6.0": "yes", "networkInterface.1": "eth1"})
        self.device.start()
        path = f"{KEYWARD}/web/server/.cacheddata/{self.device.active('web')}.network"
        self.assertEqual(self.device.read(path).decode(), "HOSTNAME.1 unit42\nINTERFACE.1 eth0\neth0.1 10.0.0.5\n"
                                                          "eth0.2 fe80::1\nINTERFACE.2 eth1\n")


if __name__ == "__main__":
    main()
