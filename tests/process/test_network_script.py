#!/usr/bin/python3
"""Runs platform/network.sh on made-up devices, with iproute2's ip and with BusyBox's.

Every device of network_script/cases.py is made twice: live, in network, mount and UTS namespaces of its own, where
the script runs as it is shipped; and recorded, where a stand-in for ip prints what the real one printed there. Where
this machine refuses namespaces only the recorded half runs, and says so. "--record" makes the recordings anew.
"""

import os
import pathlib
import shutil
import stat
import subprocess
import sys
import tempfile
import time
import unittest

from network_script.cases import CASES, SILENT_NAME_SERVER, Case

HERE = pathlib.Path(__file__).resolve().parent
SCRIPT = HERE.parent.parent / "platform" / "network.sh"
RECORDINGS = HERE / "network_script"
SYSTEM_PATH = "/usr/sbin:/usr/bin:/sbin:/bin"
BUSYBOX = shutil.which("busybox", path=SYSTEM_PATH)
FLAVOURS = ("iproute2", "busybox")
HELPER_PROGRAMS = ("cat", "grep", "hostname", "sleep", "uname")

PRELUDE = f"""
set -eu
PATH={SYSTEM_PATH}
IP=$(command -v ip)
link() {{
    $IP link add "$1" type dummy 2>/dev/null || $IP tuntap add dev "$1" mode tap
    $IP link set dev "$1" address "$2"
    $IP link set dev "$1" addrgenmode none
}}
wait_for() {{
    tries=0
    until $IP addr show dev "$2" | grep -q "$1"; do
        tries=$((tries + 1))
        [ $tries -lt 100 ]
        sleep 0.1
    done
}}
"""

PROBE = """
busybox hostname probe
link probe0 02:00:00:00:00:01
$IP addr add 10.0.0.5/24 dev probe0
$IP addr add fd00::5/64 dev probe0
$IP link add va type veth peer name vb
$IP tuntap add probe1 mode tun
mount --bind "$work/etc" /etc
"""


def program_folder(folder, flavour):
    """A folder with nothing in it but the few programs the script may use."""
    folder.mkdir()
    for name in HELPER_PROGRAMS:
        target = BUSYBOX if flavour == "busybox" and BUSYBOX else shutil.which(name, path=SYSTEM_PATH)
        (folder / name).symlink_to(target)
    return folder


def write_program(path, text):
    path.unlink(missing_ok=True)
    path.write_text("#!/bin/sh\n" + text)
    path.chmod(0o755)


def shell(flavour):
    return [BUSYBOX, "ash"] if flavour == "busybox" and BUSYBOX else ["/bin/sh"]


def run(command, path, folder, settle=20):
    """Runs in a session of its own; returns the outcome, the time taken and the processes left behind."""
    start = time.monotonic()
    process = subprocess.Popen(
        command,
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        env={"PATH": path},
        cwd=folder,
        start_new_session=True,
    )
    out, err = process.communicate(timeout=settle)
    taken = time.monotonic() - start
    left = session_members(process.pid)
    # What was killed at the end may still be dying; what was forgotten lives on for seconds.
    while left and time.monotonic() < start + taken + 0.5:
        time.sleep(0.01)
        left = session_members(process.pid)
    return process.returncode, out.decode(), err.decode(), taken, left


def session_members(session):
    members = []
    for entry in pathlib.Path("/proc").glob("[0-9]*/stat"):
        try:
            fields = entry.read_text(errors="replace").rpartition(")")[2].split()
        except OSError:
            continue
        if int(fields[3]) == session and fields[0] != "Z":
            members.append(int(entry.parent.name))
    return members


def write_etc(etc, case):
    (etc / "keywarden").mkdir(parents=True)
    (etc / "hosts").write_text(case.hosts)
    (etc / "nsswitch.conf").write_text("hosts: files dns\n")
    (etc / "resolv.conf").write_text(case.resolver)
    if case.settings:
        (etc / "keywarden" / "network.conf").write_text(case.settings)


def namespaces(work, script):
    """The command that runs the shell text in namespaces of its own."""
    return ["unshare", "--net", "--mount", "--uts", "--", "/bin/sh", "-c", f"work={work}\n" + PRELUDE + script]


def live_command(work, case, flavour, command):
    write_etc(work / "etc", case)
    path = SYSTEM_PATH
    if flavour == "busybox":
        folder = program_folder(work / "bin", flavour)
        (folder / "ip").symlink_to(BUSYBOX)
        path = f"{folder}:{SYSTEM_PATH}"
    script = f"""
        {BUSYBOX} hostname '{case.host_name}'
        mount --bind "$work/etc" /etc
        {case.setup}
        exec env -i PATH={path} {command}
    """
    return namespaces(work, script)


def why_not_live():
    """Why devices cannot be made on this machine; nothing when they can."""
    if BUSYBOX is None:
        return "there is no busybox"
    with tempfile.TemporaryDirectory() as work:
        write_etc(pathlib.Path(work) / "etc", Case("", ""))
        try:
            done = subprocess.run(namespaces(work, PROBE), capture_output=True, timeout=20, check=False)
        except OSError as error:
            return str(error)
        return "" if done.returncode == 0 else done.stderr.decode().strip() or f"status {done.returncode}"


def recording(name, flavour):
    return RECORDINGS / f"{name}.{flavour}.txt"


class ScriptTest(unittest.TestCase):
    maxDiff = None
    look_up_seconds = 2

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="keyward-network-")
        self.addCleanup(folder.cleanup)
        self.work = pathlib.Path(folder.name)
        # The script runs in this folder; a "*" that it forgot to protect would become these words.
        (self.work / "current").mkdir()
        for name in ("dynamic", "last"):
            (self.work / "current" / name).touch()

    def relocated_script(self, system_path):
        """The script with the places it reads moved into the test's folder."""
        text = SCRIPT.read_text()
        for line, replacement in {
            "configuration=/etc/keywarden/network.conf": f"configuration={self.work}/etc/keywarden/network.conf",
            "hostsFile=/etc/hosts": f"hostsFile={self.work}/etc/hosts",
            "deviceList=/proc/net/dev": f"deviceList={self.work}/devices",
            "hostNameFile=/proc/sys/kernel/hostname": f"hostNameFile={self.work}/hostname",
            "systemPath=/usr/sbin:/usr/bin:/sbin:/bin": f"systemPath={system_path}",
            "lookUpSeconds=2": f"lookUpSeconds={self.look_up_seconds}",
        }.items():
            self.assertEqual(1, text.splitlines().count(line), line)
            text = text.replace(line, replacement)
        script = self.work / "network.sh"
        script.write_text(text)
        return script

    def prepare_recorded(self, case, flavour):
        write_etc(self.work / "etc", case)
        (self.work / "hostname").write_text(case.host_name + "\n")
        names = [line.split()[1] for line in case.expected.splitlines() if line.startswith("interface.")]
        devices = "Inter-|   Receive\n face |bytes\n" + "".join(f"{name:>6}:       0       0\n" for name in names)
        (self.work / "devices").write_text(devices)
        self.programs = program_folder(self.work / "bin", flavour)

    def run_recorded(self, printed_by_ip, flavour, status=0):
        (self.work / "printed").write_text(printed_by_ip)
        write_program(
            self.programs / "ip",
            f'[ "$*" = "addr show" ] || exit 9\ncat {self.work}/printed\nexit {status}\n',
        )
        script = str(self.relocated_script(self.programs))
        command = shell(flavour) + [script]
        if command[0] == BUSYBOX:
            # This shell may take its own programs before any in the path, but not before functions.
            stand_ins = "".join(f'{name}() {{ exec {self.programs}/{name} "$@"; }}\n' for name in ("ip", "hostname"))
            command = shell(flavour) + ["-c", stand_ins + '. "$0"', script]
        return run(command, str(self.programs), self.work / "current")

    def assert_prints(self, expected, outcome, quick=True):
        status, out, err, taken, left = outcome
        self.assertEqual("", err)
        self.assertEqual(expected, out)
        self.assertEqual(0, status)
        self.assertEqual([], left)
        if quick:
            # The daemon allows ten seconds.
            self.assertLess(taken, 7)

    def check_recorded(self, name, flavour):
        case = CASES[name]
        self.prepare_recorded(case, flavour)
        printed = recording(name, flavour) if case.setup else recording("no_interface_but_the_loopback", flavour)
        self.assert_prints(case.expected, self.run_recorded(printed.read_text(), flavour))

    def run_live(self, case, flavour):
        command = " ".join(shell(flavour) + [str(SCRIPT)])
        return run(live_command(self.work, case, flavour, command), SYSTEM_PATH, self.work / "current", settle=40)

    def check_live(self, name, flavour):
        # The time counts the making of the device, too.
        self.assert_prints(CASES[name].expected, self.run_live(CASES[name], flavour), quick=False)


class Shipped(unittest.TestCase):
    def test_script_may_be_executed_by_everybody(self):
        self.assertEqual(0o755, stat.S_IMODE(SCRIPT.stat().st_mode))
        self.assertTrue(SCRIPT.read_text().startswith("#!/bin/sh\n"))

    def test_shells_of_devices_accept_the_script(self):
        for command in (["dash", "-n"], ["busybox", "ash", "-n"], ["shellcheck", "--shell=sh"]):
            with self.subTest(command=command):
                if shutil.which(command[0]) is None:
                    print(f"\nNOT CHECKED with {command[0]}: it is not installed", file=sys.stderr)
                    continue
                done = subprocess.run(command + [SCRIPT], capture_output=True, text=True, check=False)
                self.assertEqual((0, "", ""), (done.returncode, done.stdout, done.stderr))


class Recorded(ScriptTest):
    """The devices of the list, from what ip printed on them (made below), and what no kernel is asked to make."""

    def check_text(self, printed, expected, settings=""):
        for flavour in FLAVOURS:
            with self.subTest(flavour=flavour):
                self.setUp()
                self.prepare_recorded(Case("", "", settings=settings), flavour)
                self.assert_prints(expected + "fqdn.0 unit42\n", self.run_recorded(printed, flavour))

    def test_advertised_address_without_an_end_is_automatic(self):
        self.check_text(
            "2: eth0: <UP> mtu 1500\n    link/ether 02:00:00:00:00:01 brd ff:ff:ff:ff:ff:ff\n"
            "    inet6 fd00::5/64 scope global dynamic mngtmpaddr \n"
            "       valid_lft forever preferred_lft forever\n"
            "3: eth1: <UP> mtu 1500\n"
            "    inet6 fd01::5/64 scope global noprefixroute proto kernel_ra \n"
            "       valid_lft forever preferred_lft forever\n",
            "interface.0 eth0\nmac.0 02:00:00:00:00:01\nipv6Auto.0 yes\nipv6.0.0 fd00::5\n"
            "interface.1 eth1\nipv6Auto.1 yes\nipv6.1.0 fd01::5\n",
        )

    def test_lifetime_alone_makes_an_address_automatic(self):
        self.check_text(
            "2: eth0: <UP> mtu 1500\n    inet 10.0.0.5/24 scope global eth0\n"
            "       valid_lft 3599sec preferred_lft 3599sec\n    inet6 fd00::5/64 scope global \n"
            "       valid_lft 3599sec preferred_lft 3599sec\n",
            "interface.0 eth0\nipv4Auto.0 yes\nipv4.0.0 10.0.0.5\nipv6Auto.0 yes\nipv6.0.0 fd00::5\n",
        )

    def test_flag_alone_makes_an_address_automatic(self):
        self.check_text(
            "2: eth0: <UP> mtu 1500\n    inet 10.0.0.5/24 scope global dynamic eth0\n"
            "    inet6 fd00::5/64 scope global dynamic \n",
            "interface.0 eth0\nipv4Auto.0 yes\nipv4.0.0 10.0.0.5\nipv6Auto.0 yes\nipv6.0.0 fd00::5\n",
        )

    def test_addresses_left_out_do_not_make_the_others_automatic(self):
        self.check_text(
            "2: eth0: <UP> mtu 1500\n    inet 10.0.0.5/24 scope global eth0\n"
            "       valid_lft forever preferred_lft forever\n"
            "    inet 169.254.1.1/16 scope link dynamic eth0\n"
            "       valid_lft 3599sec preferred_lft 3599sec\n    inet6 fd00::5/64 scope global \n"
            "       valid_lft forever preferred_lft forever\n"
            "    inet6 fd00::77/64 scope global temporary dynamic \n"
            "       valid_lft 3599sec preferred_lft 3599sec\n",
            "interface.0 eth0\nipv4.0.0 10.0.0.5\nipv6.0.0 fd00::5\n",
        )

    def test_zones_unspecified_and_multicast_addresses_are_not_printed(self):
        self.check_text(
            "2: eth0: <UP> mtu 1500\n    inet 0.0.0.0/0 scope global eth0\n    inet 239.1.1.1/32 scope global eth0\n"
            "    inet 224.1.1.1/32 scope global eth0\n"
            "    inet 223.1.1.1/32 scope global eth0\n    inet 240.1.1.1/32 scope global eth0\n"
            "    inet6 ::/128 scope global \n    inet6 ff05::5/128 scope global \n"
            "    inet6 fd00::5%eth0/64 scope global \n",
            "interface.0 eth0\nipv4.0.0 223.1.1.1\nipv4.0.1 240.1.1.1\nipv6.0.0 fd00::5\n",
        )

    def test_address_in_the_place_of_a_mac_address_is_not_printed(self):
        self.check_text(
            "2: gre0@NONE: <NOARP> mtu 1476\n    link/gre 0.0.0.0 brd 0.0.0.0\n"
            "3: ip6tnl0@NONE: <NOARP> mtu 1452\n    link/tunnel6 :: brd ::\n"
            "4: tun0: <NOARP> mtu 1500\n    link/none \n"
            "5: eth0@if6: <UP> mtu 1500\n    link/ether 02:0a:00:00:00:F1 brd ff:ff:ff:ff:ff:ff link-netnsid 0\n",
            "interface.0 gre0\ninterface.1 ip6tnl0\ninterface.2 tun0\ninterface.3 eth0\nmac.3 02:0a:00:00:00:F1\n",
        )

    def test_other_lines_are_passed_over(self):
        self.check_text(
            "\nstray\n    inet 10.9.9.9/24 scope global stray\n"
            "2: eth0: <UP> mtu 1500\n    link/ether 02:00:00:00:00:01 brd ff:ff:ff:ff:ff:ff\n"
            "    altname inet\n    alias inet 10.9.9.8/24 scope global x\n    inet\n"
            "    inet 10.0.0.5/24 scope global eth0",
            "interface.0 eth0\nmac.0 02:00:00:00:00:01\nipv4.0.0 10.0.0.5\n",
        )

    def test_hundred_interfaces_are_printed_fast(self):
        printed = expected = ""
        for number in range(100):
            printed += f"{number + 2}: v{number}@if9: <UP> mtu 1500 qdisc noqueue state UP group default\n"
            expected += f"interface.{number} v{number}\n"
            for address in range(10):
                printed += f"    inet 10.{number}.{address}.1/24 scope global v{number}\n"
                printed += "       valid_lft forever preferred_lft forever\n"
                expected += f"ipv4.{number}.{address} 10.{number}.{address}.1\n"
        self.check_text(printed, expected)

    def test_without_ip_the_script_fails_and_says_so(self):
        self.prepare_recorded(CASES["several_addresses"], "iproute2")
        script = self.relocated_script(self.programs)
        status, out, err, _, _ = run(["/bin/sh", str(script)], str(self.programs), self.work)
        self.assertEqual((1, ""), (status, out))
        self.assertEqual(f"network.sh: no 'ip' program found (PATH is {self.programs}:{self.programs})\n", err)

    def test_failure_of_ip_is_a_failure_of_the_script(self):
        self.prepare_recorded(CASES["several_addresses"], "iproute2")
        printed = recording("several_addresses", "iproute2").read_text()
        status, out, err, _, _ = self.run_recorded(printed, "iproute2", status=7)
        self.assertEqual((1, ""), (status, out))
        self.assertEqual("network.sh: 'ip addr show' failed with status 7\n", err)

    def run_with_hostname(self, program, flavour, settings, hosts="", host_name="unit42"):
        self.prepare_recorded(Case("", "", settings=settings, hosts=hosts, host_name=host_name), flavour)
        write_program(self.programs / "hostname", f"echo called >>{self.work}/calls\n{program}\n")
        return self.run_recorded("", flavour)

    def test_name_servers_are_not_asked_unless_the_settings_say_so(self):
        outcome = self.run_with_hostname("echo unit42.example.com", "iproute2", settings="")
        self.assert_prints("fqdn.0 unit42\n", outcome)
        self.assertFalse((self.work / "calls").exists())

    def test_looked_up_fqdn_is_printed_at_once(self):
        self.look_up_seconds = 9
        for flavour in FLAVOURS:
            with self.subTest(flavour=flavour):
                self.setUp()
                outcome = self.run_with_hostname(
                    '[ "$*" = -f ] && echo unit42.example.com', flavour, settings="lookUpFqdn yes\n"
                )
                self.assert_prints("fqdn.0 unit42.example.com\nfqdn.1 unit42\n", outcome)

    def test_look_up_that_finds_no_fqdn_adds_nothing(self):
        for program in ("echo unit42", "echo localhost.localdomain", "echo '(none)'", "echo 'b@d.name'", "exit 1"):
            with self.subTest(program=program):
                self.setUp()
                outcome = self.run_with_hostname(program + "; echo noise >&2", "iproute2", "lookUpFqdn yes\n")
                self.assert_prints("fqdn.0 unit42\n", outcome)

    def test_hosts_file_goes_before_the_look_up(self):
        outcome = self.run_with_hostname(
            "echo x.example.org", "iproute2", "lookUpFqdn yes\n", hosts="10.0.0.5 unit42.example.com unit42\n"
        )
        self.assert_prints("fqdn.0 unit42.example.com\nfqdn.1 unit42\n", outcome)
        self.assertFalse((self.work / "calls").exists())

    def test_look_up_that_hangs_is_ended_after_two_seconds(self):
        for flavour in FLAVOURS:
            with self.subTest(flavour=flavour):
                self.setUp()
                outcome = self.run_with_hostname("exec sleep 60", flavour, settings="lookUpFqdn yes\n")
                self.assert_prints("fqdn.0 unit42\n", outcome)
                self.assertGreater(outcome[3], 1.9)

    def test_host_name_is_asked_for_where_the_kernel_does_not_show_it(self):
        self.prepare_recorded(Case("", ""), "iproute2")
        write_program(self.programs / "hostname", "echo unit43\n")
        (self.work / "hostname").unlink()
        self.assert_prints("fqdn.0 unit43\n", self.run_recorded("", "iproute2"))
        write_program(self.programs / "hostname", "exit 1\n")
        write_program(self.programs / "uname", '[ "$*" = -n ] && echo unit44\n')
        self.assert_prints("fqdn.0 unit44\n", self.run_recorded("", "iproute2"))

    def test_bad_host_names_are_not_printed(self):
        for name in ("", "bad name", "bad#name", "a..b", "-bad", "x" * 254, "ip6-localhost", "a.localhost"):
            with self.subTest(name=name):
                self.setUp()
                self.prepare_recorded(Case("", "", host_name=name), "iproute2")
                self.assert_prints("", self.run_recorded("", "iproute2"))

    def test_long_hosts_file_does_not_slow_the_script_down(self):
        blocked = "".join(f"0.0.0.0 host{number}.example.net\n" for number in range(200_000))
        self.prepare_recorded(Case("", "", hosts=blocked + "10.0.0.5 unit42.example.com unit42\n"), "busybox")
        self.assert_prints("fqdn.0 unit42.example.com\nfqdn.1 unit42\n", self.run_recorded("", "busybox"))

    def test_missing_hosts_file_and_unreadable_settings_are_passed_over(self):
        self.prepare_recorded(Case("", ""), "iproute2")
        (self.work / "etc" / "hosts").unlink()
        (self.work / "etc" / "keywarden" / "network.conf").mkdir()
        self.assert_prints("fqdn.0 unit42\n", self.run_recorded("", "iproute2"))


class Live(ScriptTest):
    """The same devices in namespaces (made below)."""

    @staticmethod
    def add_tests():
        def silent_server(test):
            outcome = test.run_live(SILENT_NAME_SERVER, "iproute2")
            test.assert_prints(SILENT_NAME_SERVER.expected, outcome)
            # It did ask, or nothing would have been cut off.
            test.assertGreater(outcome[3], 1.9)

        Live.test_silent_name_server_is_not_waited_for = silent_server
        for name in CASES:
            for flavour in FLAVOURS:
                setattr(Live, f"test_{name}_{flavour}", lambda t, n=name, f=flavour: t.check_live(n, f))


for case_name in CASES:
    for case_flavour in FLAVOURS:
        setattr(
            Recorded,
            f"test_{case_name}_{case_flavour}",
            lambda t, n=case_name, f=case_flavour: t.check_recorded(n, f),
        )


def record():
    for name, case in CASES.items():
        for flavour in FLAVOURS:
            if not case.setup:
                continue
            with tempfile.TemporaryDirectory() as work:
                command = live_command(pathlib.Path(work), case, flavour, "ip addr show")
                printed = subprocess.run(command, stdout=subprocess.PIPE, check=True).stdout
                recording(name, flavour).write_bytes(printed)


def main():
    reason = why_not_live()
    if reason:
        banner = "=" * 100
        print(
            f"{banner}\nNO NAMESPACES HERE ({reason}):\nthe network script runs only against recorded outputs of ip, "
            f"not against a real one.\n{banner}",
            file=sys.stderr,
        )
    else:
        Live.add_tests()
    if "--record" in sys.argv:
        return record()
    return unittest.main()


if __name__ == "__main__":
    sys.exit(main())
