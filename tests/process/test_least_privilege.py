"""What the daemon may do once it runs, as the kernel sees it, and what the programs that it runs get from it."""

import ctypes
import json
import os
import resource
import shutil
import signal
import subprocess
import sys

from kwtest import Case, main
from kwtest.device import CALLBACK, KEYWARD, PIPES, PROGRAM, SCRIPTS, WORK
from kwtest.process import become_subreaper, limit, status_of, wait_exit
from kwtest.syslog import ERR, NOTICE

NOBODYS = "0000000000000000"
CAPABILITY_SETS = ("CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb")
PR_CAPBSET_DROP, PR_SET_DUMPABLE, CAP_SETPCAP = 24, 4, 8


class Process(Case):
    """The daemon itself, with every kind of thread."""

    def setUp(self):
        super().setUp()
        self.device.configure(TimeDriftSleepTime="60", TimeDriftThresholdValue="5")
        for name in ("web", "mqtt"):
            self.device.service(name, ca="yes", trustedClients="yes")

    def each_thread(self):
        """The status of every thread, by its number."""
        pid = self.device.daemon.pid
        tasks = os.listdir(f"/proc/{pid}/task")
        # Main, signals, notifications, monitor, and per service a reader and a timer.
        self.assertGreaterEqual(len(tasks), 8)
        return {task: status_of(pid, task) for task in tasks}

    def assert_powerless(self, sets=CAPABILITY_SETS):
        for task, status in self.each_thread().items():
            with self.subTest(task=task):
                self.assertEqual({name: status[name] for name in sets}, dict.fromkeys(sets, NOBODYS))
                self.assertEqual(status["NoNewPrivs"], "1")
                self.assertEqual(status["Uid"].split(), ["4242"] * 4)
                self.assertEqual(status["Gid"].split(), ["4242"] * 4)
                self.assertEqual(set(status["Groups"].split()), {"4242", "4250", "4251", "4252"})

    def test_no_thread_keeps_anything_of_root(self):
        self.device.start()
        self.assert_powerless()
        # Threads that come later do not get it back.
        self.assertEqual(self.device.channel("web").ask("config", "reload"), (0, "Reload Successful"))
        self.assertEqual(self.device.channel("web").ask("server", "revoke"), (0, ""))
        self.assert_powerless()
        self.assert_not_logged("Failed to ")

    def test_a_bounding_set_that_cannot_be_emptied_is_said_and_the_daemon_starts(self):
        # As in a container that withholds this one capability.
        self.assertEqual(self.in_child(self.start_without_setpcap), 0)
        daemon = self.device.log_lines()
        self.assertIn((ERR, "Failed to empty the bounding set of capabilities, err: Operation not permitted"), daemon)
        self.assertIn("The daemon is running.", [text for _, text in daemon])

    @staticmethod
    def in_child(action):
        child = os.fork()
        if child == 0:
            status = 1
            try:
                become_subreaper()
                status = action()
            finally:
                os._exit(status)
        return wait_exit(child, limit(40))

    def start_without_setpcap(self):
        if ctypes.CDLL(None).prctl(PR_CAPBSET_DROP, CAP_SETPCAP, 0, 0, 0) != 0:
            return 2
        daemon = self.device.start()
        try:
            self.assert_powerless(("CapInh", "CapPrm", "CapEff", "CapAmb"))
            answer = self.device.channel("web").ask("config", "status")
            return 0 if answer == (0, "running") and self.device.stop() == 10 else 3
        finally:
            daemon.kill()

    def test_a_start_as_the_daemon_user_is_limited_too(self):
        for folder in (PIPES, KEYWARD):
            self.device.root.make_folder(folder)
            os.chown(self.device.host(folder), 4242, 4242)
        self.device.start(user=["--userspec=4242:4242", "--groups=4250,4251,4252"])
        for status in self.each_thread().values():
            # The bounding set is not its to change; it has no say without a capability and new privileges.
            self.assertEqual([status[name] for name in ("CapInh", "CapPrm", "CapEff", "CapAmb")], [NOBODYS] * 4)
            self.assertEqual(status["NoNewPrivs"], "1")
        # Without a change of its identity the kernel does not do this by itself.
        self.assertEqual(os.stat(f"/proc/{self.device.daemon.pid}/maps").st_uid, 0)
        self.assert_not_logged("Failed to ")

    def test_its_memory_is_closed_to_other_processes_of_its_user(self):
        # The owners' scripts run as the same user: without this they could read every key.
        self.device.recording_script(CALLBACK, body=(
            f'[ "$2" = allStarted ] || exit 0\n'
            f'{{ cat /proc/$PPID/maps; cat /proc/$PPID/environ; ls /proc/$PPID/fd; }} > {WORK}/seen 2> {WORK}/refused\n'
            f'cat /proc/$$/maps > {WORK}/own'))
        self.device.start()
        self.assertEqual(self.device.read(f"{WORK}/seen"), b"", "the parent could be read")
        self.assertEqual(self.device.read(f"{WORK}/refused").count(b"Permission denied"), 3)
        self.assertNotEqual(self.device.read(f"{WORK}/own"), b"", "the script itself is a plain process")
        self.assertEqual(os.stat(f"/proc/{self.device.daemon.pid}/maps").st_uid, 0)

    def test_a_crash_leaves_no_core(self):
        before = resource.getrlimit(resource.RLIMIT_CORE)
        self.addCleanup(resource.setrlimit, resource.RLIMIT_CORE, before)
        resource.setrlimit(resource.RLIMIT_CORE, (before[1], before[1]))
        os.chmod(self.device.root.path, 0o777)
        if not os.WCOREDUMP(self.crash_plainly()):
            print("*** This machine writes no cores: only that the daemon refuses them is checked.", file=sys.stderr)
        self.remove_cores()
        daemon = self.device.start()
        # A process that may be dumped would be its user's own.
        self.assertEqual(os.stat(f"/proc/{daemon.pid}/maps").st_uid, 0)
        # With its default action, whatever a sanitizer has made of the others.
        daemon.signal(signal.SIGXCPU)
        status = os.waitpid(daemon.pid, 0)[1]
        daemon.exit_status = os.waitstatus_to_exitcode(status)
        self.assertEqual(daemon.exit_status, -signal.SIGXCPU)
        self.assertFalse(os.WCOREDUMP(status))
        self.assertEqual(self.remove_cores(), [])

    def remove_cores(self):
        cores = [name for name in os.listdir(self.device.root.path) if name.startswith("core")]
        for name in cores:
            os.unlink(self.device.host("/" + name))
        return cores

    def crash_plainly(self):
        """The end of a process of the daemon's user, in the daemon's place, that is like any other."""
        child = os.fork()
        if child == 0:
            os.chroot(self.device.root.path)
            os.chdir("/")
            os.setgid(4242)
            os.setuid(4242)
            ctypes.CDLL(None).prctl(PR_SET_DUMPABLE, 1, 0, 0, 0)
            os.kill(os.getpid(), signal.SIGXCPU)
            os._exit(0)
        return os.waitpid(child, 0)[1]


PROBE = f"""#!/usr/bin/python3 -IS
import json, os, sys
descriptors = {{}}
for number in os.listdir("/proc/self/fd"):
    try:
        descriptors[number] = os.readlink("/proc/self/fd/" + number)
    except FileNotFoundError:
        pass  # the listing's own
with open("/proc/self/status") as status:
    state = dict(line.rstrip().split(":\\t", 1) for line in status if ":\\t" in line)
with open("{WORK}/probes", "a") as record:
    record.write(json.dumps([os.path.basename(sys.argv[0]), descriptors, state]) + "\\n")
"""


class Children(Case):
    """What every kind of program gets: callback, network script, both hooks, and what makes the readiness marker."""

    KINDS = {"callback", "network.sh", "name", "settings", "touch", "rm"}

    def probe(self, path, rest=""):
        self.device.write(path, PROBE + rest + "\n", mode=0o755)

    def show(self, path):
        return f'print(open("{path}").read(), end="")'

    def run_all_kinds(self):
        """A start, a network change, requests and a stop; what every program noted: (name, descriptors, state)."""
        device = self.device
        self.probe(CALLBACK)
        self.probe(f"{SCRIPTS}/network.sh", self.show(f"{SCRIPTS}/network.txt"))
        self.probe("/opt/hooks/name", 'print("device.test")')
        self.probe("/opt/hooks/settings", self.show("/etc/keywarden/service.cnf"))
        self.probe("/opt/tools/touch", 'open(sys.argv[1], "w")')
        self.probe("/opt/tools/rm", "os.unlink(sys.argv[2])")
        device.request_settings("/etc/keywarden/named.cnf", CN=None, commonNameScript="/opt/hooks/name")
        device.service("web", cnfFile="/etc/keywarden/named.cnf", includeFQDN="yes")
        device.service("mqtt", cnfFile=None, cnfHookFile="/opt/hooks/settings")
        device.extra_environment["PATH"] = "/opt/tools:/usr/sbin:/usr/bin:/sbin:/bin"
        # Whoever starts the daemon may leave it descriptors.
        device.script("/opt/tools/starter", f'exec 7< /etc/shadow 9> {WORK}/inherited; exec {PROGRAM} "$@"')
        device.write("/etc/shadow", "root:secret", mode=0o600)
        device._program = lambda: "/opt/tools/starter"
        device.start()
        for name in ("web", "mqtt"):
            self.assertEqual(device.channel(name).ask("server", "createcsr"), (0, ""))
        device.network({"interface.0": "eth0", "fqdn.0": "other.test"})
        device.notify("n")
        device.wait_log(NOTICE, "Notification reload network completed")
        self.assert_stopped_cleanly(device.stop())
        probes = [json.loads(line) for line in device.read(f"{WORK}/probes").splitlines()]
        self.assertEqual({name for name, _, _ in probes}, self.KINDS)
        return probes

    def test_only_the_three_standard_descriptors_reach_them_and_no_power(self):
        probes = self.run_all_kinds()
        self.assertGreater(len(probes), 15)
        for name, descriptors, state in probes:
            with self.subTest(name=name):
                self.assertEqual(set(descriptors), {"0", "1", "2"}, descriptors)
                self.assertEqual({key: state[key] for key in CAPABILITY_SETS}, dict.fromkeys(CAPABILITY_SETS, NOBODYS))
                self.assertEqual(state["NoNewPrivs"], "1")
                self.assertEqual(state["Uid"].split() + state["Gid"].split(), ["4242"] * 8)
                self.assertNotIn("0", state["Groups"].split())

    def test_a_program_with_the_right_of_root_does_not_give_it_to_them(self):
        device = self.device
        os.makedirs(device.host("/opt"), exist_ok=True)
        shutil.copy("/usr/bin/id", device.host("/opt/id-of-root"))
        os.chmod(device.host("/opt/id-of-root"), 0o4755)
        # As a control: for anybody else it does.
        self.assertEqual(self.identity_of_a_plain_process(), b"0\n")
        device.recording_script(CALLBACK, body=f"/opt/id-of-root -u > {WORK}/identity")
        device.service("web")
        device.start()
        self.assertEqual(device.read(f"{WORK}/identity"), b"4242\n")

    def identity_of_a_plain_process(self):
        return subprocess.run(["chroot", "--userspec=4242:4242", self.device.root.path, "/opt/id-of-root",
                               "-u"], stdout=subprocess.PIPE, check=True).stdout


if __name__ == "__main__":
    main()
