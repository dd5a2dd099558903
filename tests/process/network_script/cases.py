"""Devices for the network script: how to make each one in network namespaces, and what the script prints there.

The set-up is shell text. In it, link makes an Ethernet interface with the given MAC address that makes no
addresses by itself, $IP is iproute2's ip, and "wait_for WORD INTERFACE" waits until ip shows the word.
"""

from dataclasses import dataclass


@dataclass
class Case:
    setup: str
    expected: str
    settings: str = ""
    host_name: str = "unit42"
    hosts: str = "127.0.0.1 localhost\n"
    resolver: str = "nameserver 127.0.0.1\n"


UNIT = "fqdn.0 unit42\n"

CASES = {
    "no_interface_but_the_loopback": Case(
        setup="$IP link set lo up",
        expected=UNIT,
    ),
    "several_addresses": Case(
        setup="""
            link eth0 02:00:00:00:00:01
            $IP addr add 10.0.0.5/24 brd 10.0.0.255 dev eth0
            $IP addr add 10.0.0.6/24 dev eth0
            $IP addr add 10.0.0.7/32 dev eth0 label eth0:1
            $IP addr add fd00::5/64 dev eth0
            $IP addr add fd00::6/128 dev eth0
            $IP link set eth0 up
            link wlan0 02:00:00:00:00:02
            $IP addr add 192.168.7.1/16 dev wlan0
            $IP link set wlan0 up
        """,
        expected="""\
interface.0 eth0
mac.0 02:00:00:00:00:01
ipv4.0.0 10.0.0.5
ipv4.0.1 10.0.0.7
ipv4.0.2 10.0.0.6
ipv6.0.0 fd00::6
ipv6.0.1 fd00::5
interface.1 wlan0
mac.1 02:00:00:00:00:02
ipv4.1.0 192.168.7.1
"""
        + UNIT,
    ),
    "twelve_addresses": Case(
        setup="""
            link eth0 02:00:00:00:00:01
            for n in 1 2 3 4 5 6 7 8 9 10 11 12; do $IP addr add 10.0.$n.1/24 dev eth0; done
        """,
        expected="interface.0 eth0\nmac.0 02:00:00:00:00:01\n"
        + "".join(f"ipv4.0.{n} 10.0.{n + 1}.1\n" for n in range(12))
        + UNIT,
    ),
    "dynamic_addresses": Case(
        setup="""
            link eth0 02:00:00:00:00:01
            $IP addr add 10.0.0.5/24 dev eth0 valid_lft 3600 preferred_lft 1800
            $IP addr add fd00::5/64 dev eth0
            link eth1 02:00:00:00:00:02
            $IP addr add 10.1.0.5/24 dev eth1
            $IP addr add fd01::5/64 dev eth1
            $IP addr add fd01::6/64 dev eth1 valid_lft 3600 preferred_lft 1800
            link dynamic 02:00:00:00:00:03
            $IP addr add 10.2.0.5/24 dev dynamic
        """,
        expected="""\
interface.0 eth0
mac.0 02:00:00:00:00:01
ipv4Auto.0 yes
ipv4.0.0 10.0.0.5
ipv6.0.0 fd00::5
interface.1 eth1
mac.1 02:00:00:00:00:02
ipv4.1.0 10.1.0.5
ipv6Auto.1 yes
ipv6.1.0 fd01::6
ipv6.1.1 fd01::5
interface.2 dynamic
mac.2 02:00:00:00:00:03
ipv4.2.0 10.2.0.5
"""
        + UNIT,
    ),
    "automatic_by_setting": Case(
        setup="""
            link eth0 02:00:00:00:00:01
            $IP addr add 10.0.0.5/24 dev eth0
            link eth1 02:00:00:00:00:02
            $IP addr add 10.1.0.5/24 dev eth1
            $IP addr add fd01::5/64 dev eth1
        """,
        settings="ipv4Auto eth2 eth1 # by a client that sets no lifetimes\nipv6Auto eth10 eth1\nipv4Auto eth0\n",
        expected="""\
interface.0 eth0
mac.0 02:00:00:00:00:01
ipv4.0.0 10.0.0.5
interface.1 eth1
mac.1 02:00:00:00:00:02
ipv4Auto.1 yes
ipv4.1.0 10.1.0.5
ipv6Auto.1 yes
ipv6.1.0 fd01::5
"""
        + UNIT,
    ),
    "link_local_addresses_are_left_out": Case(
        setup="""
            link eth0 02:00:00:00:00:01
            $IP addr add 169.254.7.7/16 dev eth0 valid_lft 3600 preferred_lft 1800
            $IP addr add 169.2.7.7/16 dev eth0
            $IP addr add fe80::5/64 dev eth0
            $IP addr add febf::5/64 dev eth0
            $IP addr add fd00::5/64 dev eth0
            link eth1 02:00:00:00:00:02
            $IP addr add fe80::6/64 dev eth1
        """,
        settings="linkLocal\nlinkLocal no\nlinkLocal yes\nloopback Yes\n",
        expected="""\
interface.0 eth0
mac.0 02:00:00:00:00:01
ipv4.0.0 169.2.7.7
ipv6.0.0 fd00::5
interface.1 eth1
mac.1 02:00:00:00:00:02
"""
        + UNIT,
    ),
    "link_local_addresses_by_setting": Case(
        setup="""
            link eth0 02:00:00:00:00:01
            $IP addr add 169.254.7.7/16 dev eth0
            $IP addr add fe80::5/64 dev eth0
        """,
        settings="linkLocal yes\n",
        expected="""\
interface.0 eth0
mac.0 02:00:00:00:00:01
ipv4.0.0 169.254.7.7
ipv6.0.0 fe80::5
"""
        + UNIT,
    ),
    "loopback_by_setting": Case(
        setup="""
            $IP link set lo up
            $IP addr add 10.3.3.3/32 dev lo
        """,
        settings="loopback   yes",
        expected="""\
interface.0 lo
mac.0 00:00:00:00:00:00
ipv4.0.0 127.0.0.1
ipv4.0.1 10.3.3.3
ipv6.0.0 ::1
"""
        + UNIT,
    ),
    "point_to_point_gives_the_local_address": Case(
        setup="""
            $IP tuntap add tun0 mode tun
            $IP addr add 10.8.0.1 peer 10.8.0.2/32 dev tun0
            $IP addr add fd08::1 peer fd08::2/128 dev tun0
        """,
        expected="""\
interface.0 tun0
ipv4.0.0 10.8.0.1
ipv6.0.0 fd08::1
"""
        + UNIT,
    ),
    "interfaces_that_are_down": Case(
        setup="""
            link eth0 02:00:00:00:00:01
            link eth1 02:00:00:00:00:02
            $IP addr add 10.1.0.5/24 dev eth1
            link eth2 02:00:00:00:00:03
            $IP addr add 10.2.0.5/24 dev eth2
            $IP link set eth2 up
        """,
        expected="""\
interface.0 eth0
mac.0 02:00:00:00:00:01
interface.1 eth1
mac.1 02:00:00:00:00:02
ipv4.1.0 10.1.0.5
interface.2 eth2
mac.2 02:00:00:00:00:03
ipv4.2.0 10.2.0.5
"""
        + UNIT,
    ),
    "lower_interfaces_are_not_part_of_names": Case(
        setup="""
            $IP link add va.10 address 02:00:00:00:00:01 type veth peer name 'v@b' address 02:00:00:00:00:02
            $IP addr add 10.1.0.5/24 dev va.10
            $IP addr add 10.2.0.5/24 dev 'v@b'
        """,
        expected="""\
interface.0 v@b
mac.0 02:00:00:00:00:02
ipv4.0.0 10.2.0.5
interface.1 va.10
mac.1 02:00:00:00:00:01
ipv4.1.0 10.1.0.5
"""
        + UNIT,
    ),
    "odd_interface_names": Case(
        setup=r"""
            link '-n' 02:00:00:00:00:01
            link '*' 02:00:00:00:00:02
            link '$(id)`id`' 02:00:00:00:00:03
            link 'a\nb\' 02:00:00:00:00:04
            link "'q\"" 02:00:00:00:00:05
            link 'a<b>' 02:00:00:00:00:06
            link inet 02:00:00:00:00:07
            $IP addr add 10.1.0.5/24 dev '*'
            $IP addr add 10.2.0.5/24 dev '$(id)`id`'
            $IP addr add 10.3.0.5/24 dev inet
        """,
        expected=r"""interface.0 -n
mac.0 02:00:00:00:00:01
interface.1 *
mac.1 02:00:00:00:00:02
ipv4.1.0 10.1.0.5
interface.2 $(id)`id`
mac.2 02:00:00:00:00:03
ipv4.2.0 10.2.0.5
interface.3 a\nb\
mac.3 02:00:00:00:00:04
interface.4 'q"
mac.4 02:00:00:00:00:05
interface.5 a<b>
mac.5 02:00:00:00:00:06
interface.6 inet
mac.6 02:00:00:00:00:07
ipv4.6.0 10.3.0.5
"""
        + UNIT,
    ),
    "names_that_hold_a_comment_sign_are_left_out": Case(
        setup="""
            link 'eth0#1' 02:00:00:00:00:01
            $IP addr add 10.1.0.5/24 dev 'eth0#1'
            link eth0 02:00:00:00:00:02
            $IP addr add 10.2.0.5/24 dev eth0
        """,
        expected="""\
interface.0 eth0
mac.0 02:00:00:00:00:02
ipv4.0.0 10.2.0.5
"""
        + UNIT,
    ),
    "temporary_deprecated_and_failed_addresses": Case(
        setup="""
            $IP link add va address 02:00:00:00:00:01 type veth peer name vb address 02:00:00:00:00:02
            $IP link set va addrgenmode none
            $IP link set vb addrgenmode none
            echo 2 >/proc/sys/net/ipv6/conf/va/use_tempaddr
            $IP link set va up
            $IP link set vb up
            $IP addr add fd07::1/64 dev va nodad
            $IP addr add fd07::1/64 dev vb
            $IP addr add fd01::6/64 dev va valid_lft 36000 preferred_lft 18000 mngtmpaddr
            $IP addr add fd02::6/64 dev vb preferred_lft 0 nodad
            wait_for temporary va
            wait_for dadfailed vb
        """,
        expected="""\
interface.0 vb
mac.0 02:00:00:00:00:02
ipv6.0.0 fd02::6
interface.1 va
mac.1 02:00:00:00:00:01
ipv6Auto.1 yes
ipv6.1.0 fd01::6
ipv6.1.1 fd07::1
"""
        + UNIT,
    ),
    "tentative_addresses_count": Case(
        setup="""
            $IP link add va address 02:00:00:00:00:01 type veth peer name vb address 02:00:00:00:00:02
            $IP link set va addrgenmode none
            $IP link set va up
            $IP addr add fd00::5/64 dev va
            wait_for tentative va
        """,
        expected="""\
interface.0 vb
mac.0 02:00:00:00:00:02
interface.1 va
mac.1 02:00:00:00:00:01
ipv6.1.0 fd00::5
"""
        + UNIT,
    ),
}


def name_case(expected, hosts="127.0.0.1 localhost\n", host_name="unit42", settings=""):
    text = "".join(f"fqdn.{number} {name}\n" for number, name in enumerate(expected))
    return Case("", text, settings=settings, host_name=host_name, hosts=hosts)


CASES.update(
    {
        "host_name_alone": name_case(["unit42"]),
        "fqdn_in_the_hosts_file": name_case(
            ["unit42.example.com", "unit42"], "127.0.0.1 localhost\n127.0.1.1\tunit42.example.com\tunit42\n"
        ),
        "fqdn_as_an_alias": name_case(
            ["unit42.example.com", "unit42"], "10.0.0.5 unit42 www.example.com unit42.example.com."
        ),
        "fqdn_of_another_name": name_case(["gate.example.com", "unit42"], "10.0.0.5 gate.example.com unit42\n"),
        "other_name_without_a_point": name_case(["unit42"], "10.0.0.5 gate unit42\n"),
        "fqdn_beside_localhost": name_case(
            ["unit42.example.com", "unit42"],
            "127.0.0.1 localhost.localdomain localhost unit42\n::1 localhost6.localdomain6 unit42\n"
            "10.0.0.5 unit42.example.com unit42\n",
        ),
        "comments_and_likeness_in_the_hosts_file": name_case(
            ["unit42"],
            "#10.0.0.5 unit42.example.com unit42\n10.0.0.5 x.example.com x # unit42\n"
            "10.0.0.6 unit420.example.com unit420\n10.0.0.7 myunit42.example.com myunit42\n"
            "10.0.0.8 unit42.other.example.com\n10.0.0.9 bad(name.example.com unit42\n",
        ),
        "host_name_that_is_a_fqdn": name_case(
            ["unit42.example.com"],
            "10.0.0.5 other.example.com unit42.example.com\n",
            host_name="unit42.example.com",
        ),
        "host_name_with_a_point_at_its_end": name_case(
            ["unit42.example.com", "unit42"], "10.0.0.5 unit42.example.com unit42\n", host_name="unit42."
        ),
        "host_name_localhost": name_case([], host_name="localhost"),
        "host_name_localhost_with_a_domain": name_case([], host_name="localhost.localdomain"),
        "host_name_none": name_case([], host_name="(none)"),
        "fqdn_by_setting": name_case(
            ["a.example.com", "b.example.com", "unit42"],
            "10.0.0.5 unit42.example.com unit42\n",
            settings="# names\n  fqdn  a.example.com localhost (none) b.example.com a.example.com   # two\n",
        ),
        "fqdn_by_setting_without_a_host_name": name_case(
            ["a.example.com"], host_name="(none)", settings="fqdn a.example.com\n"
        ),
        "other_settings_change_nothing": name_case(
            ["unit42"], settings="\n#\n # fqdn a\nfqdn\nlookUpFqdn no\nfoo bar\n"
        ),
    }
)

# Not among the others: it takes as long as the script waits for a name server.
SILENT_NAME_SERVER = Case(
    setup="""
        $IP link add va address 02:00:00:00:00:01 type veth peer name vb address 02:00:00:00:00:02
        $IP addr add 10.0.0.1/24 dev va
        $IP link set va arp off up
        $IP link set vb up
    """,
    expected="""\
interface.0 vb
mac.0 02:00:00:00:00:02
interface.1 va
mac.1 02:00:00:00:00:01
ipv4.1.0 10.0.0.1
"""
    + UNIT,
    settings="lookUpFqdn yes\n",
    resolver="nameserver 10.0.0.99\n",
)
