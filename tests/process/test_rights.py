"""Who may touch what: modes, owners and groups of every file, and the identity of the daemon and its children."""

import os
import re
import traceback

from kwtest import Case, certificates, main
from kwtest.channel import read_answer
from kwtest.device import CALLBACK, GROUPS, KEYWARD, LOCK, PID, PIPES, SCRIPTS, WORK
from kwtest.process import status_of
from kwtest.syslog import NOTICE

OWN, MANAGED, KEYS = ("keyuser", "keyuser"), ("keyuser", "kwmgmt"), ("keyuser", "kwkey")


class Files(Case):
    def whole_service(self):
        """A service with every store in use, a pending request included, and its server certificate's id."""
        device = self.device
        device.service("web", ca="yes", trustedClients="yes")
        device.start()
        self.assertEqual(device.stop(), 10)
        # The second start finds the certificate and completes its files.
        device.start()
        channel, pki = device.channel("web"), certificates.Pki()
        device.write(f"{WORK}/ca.pem", pki.pem())
        device.write(f"{WORK}/client.pem", pki.leaf("client"))
        answers = [channel.ask("ca", "add", f"{WORK}/ca.pem"), channel.ask("client", "add", f"{WORK}/client.pem"),
                   channel.ask("server", "createcsr")]
        self.assertEqual([code for code, _ in answers], [0, 0, 0], answers)
        return device.active("web"), answers[0][1], answers[1][1]

    def assert_rights(self, folder, expected):
        found = {path: self.device.rights(f"{folder}/{path}") for path in self.device.listing(folder)}
        found["."] = self.device.rights(folder)
        self.assertEqual(found, expected)

    def test_every_file_below_the_keyward_folder(self):
        active, ca, client = self.whole_service()
        folder = ("d", 0o711, *MANAGED)
        plain = ("-", 0o644, *MANAGED)
        self.assert_rights(KEYWARD, {
            ".": ("d", 0o711, *OWN),
            "web": folder,
            "web/server": folder,
            f"web/server/{active}": plain,
            f"web/server/{active}.key": ("-", 0o640, *KEYS),
            "web/server/.cacheddata": folder,
            "web/server/.cacheddata/active.txt": plain,
            f"web/server/.cacheddata/{active}.network": plain,
            f"web/server/.cacheddata/{active}.overwrite": ("-", 0o664, *MANAGED),
            "web/server/.cacheddata/csr.csr": plain,
            "web/ca": folder,
            f"web/ca/{ca}": plain,
            "web/ca/.cacheddata": folder,
            "web/ca/.cacheddata/list.txt": plain,
            "web/client": folder,
            f"web/client/{client}": plain,
            "web/client/.cacheddata": folder,
            "web/client/.cacheddata/list.txt": plain,
        })

    def test_every_file_below_the_pipes_folder(self):
        active, ca, client = self.whole_service()
        folder = ("d", 0o711, *MANAGED)
        plain = ("-", 0o644, *MANAGED)
        self.assert_rights(PIPES, {
            ".": ("d", 0o711, *OWN),
            "notification.signal": ("p", 0o720, "keyuser", "kwnotify"),
            "web": ("d", 0o770, *MANAGED),
            "web/web.in": ("p", 0o720, *MANAGED),
            "web/web.lock": ("-", 0o760, *MANAGED),
            "web/server": folder,
            f"web/server/{active}.info": plain,
            f"web/server/{active}.detail": plain,
            "web/server/csr.key": ("-", 0o640, *KEYS),
            "web/server/csr.network": plain,
            "web/ca": folder,
            f"web/ca/{ca}.info": plain,
            f"web/ca/{ca}.detail": plain,
            "web/ca/id_cn.map": plain,
            "web/client": folder,
            f"web/client/{client}.info": plain,
            f"web/client/{client}.detail": plain,
            "web/client/id_cn.map": plain,
        })

    def test_lock_and_pid_file(self):
        self.device.service("web")
        self.device.start()
        self.assertEqual(self.device.rights(LOCK), ("-", 0o640, *OWN))
        self.assertEqual(self.device.rights(PID), ("-", 0o664, *OWN))

    def test_the_wishes_of_the_callers_umask_do_not_count(self):
        self.addCleanup(os.umask, os.umask(0o077))
        self.device.service("web")
        os.umask(0o077)
        self.device.start()
        self.assertEqual(self.device.rights(LOCK), ("-", 0o640, *OWN))
        self.assertEqual(self.device.rights(KEYWARD), ("d", 0o711, *OWN))
        self.assertEqual(self.device.rights(f"{KEYWARD}/web/server"), ("d", 0o711, *MANAGED))
        self.assertEqual(self.device.rights(f"{PIPES}/web"), ("d", 0o770, *MANAGED))
        self.assertEqual(self.device.rights(f"{PIPES}/web/web.lock"), ("-", 0o760, *MANAGED))

    def test_wrong_rights_of_the_active_certificate_are_put_right_at_a_start(self):
        self.device.service("web")
        self.device.start()
        self.device.stop()
        store, active = f"{KEYWARD}/web/server", self.device.active("web")
        for path in (f"{store}/{active}", f"{store}/{active}.key", f"{store}/.cacheddata/active.txt"):
            os.chmod(self.device.host(path), 0o600)
            os.chown(self.device.host(path), -1, 4242)
        self.device.start()
        self.assertEqual(self.device.rights(f"{store}/{active}"), ("-", 0o644, *MANAGED))
        self.assertEqual(self.device.rights(f"{store}/{active}.key"), ("-", 0o640, *KEYS))
        self.assertEqual(self.device.rights(f"{store}/.cacheddata/active.txt"), ("-", 0o644, *MANAGED))


class Identity(Case):
    def test_every_thread_runs_as_the_daemon_user_for_good(self):
        # Groups are taken from every line that holds the user's name anywhere.
        self.device.accounts({**GROUPS, "xkeyuserx": (4260, "")})
        self.device.configure(TimeDriftSleepTime="60", TimeDriftThresholdValue="5")
        self.device.service("web")
        self.device.service("mqtt")
        daemon = self.device.start()
        tasks = os.listdir(f"/proc/{daemon.pid}/task")
        # Main, signals, notifications, monitor, and per service a reader and a timer.
        self.assertGreaterEqual(len(tasks), 8)
        for task in tasks:
            status = status_of(daemon.pid, task)
            self.assertEqual(status["Uid"].split(), ["4242"] * 4)
            self.assertEqual(status["Gid"].split(), ["4242"] * 4)
            self.assertEqual(set(status["Groups"].split()), {"4242", "4250", "4251", "4252", "4260"})
            self.assertEqual(int(status["CapEff"], 16), 0)
            self.assertEqual(int(status["CapPrm"], 16), 0)


class Children(Case):
    """What the programs that the daemon runs get from it."""

    # The state by built-ins only: while the shell waits for a program it blocks signals itself.
    PROBE = (f'while IFS= read -r state; do case $state in SigBlk*|SigIgn*|Uid*) echo "$state" >> {WORK}/state;; '
             'esac; done < /proc/$$/status\n'
             f'ls -l /proc/$$/fd >> {WORK}/descriptors\n')

    def probes(self):
        """One start, a network change and a stop, with all four kinds of programs taking notes."""
        device = self.device
        device.recording_script(CALLBACK, body=self.PROBE)
        device.script(f"{SCRIPTS}/network.sh", self.PROBE + f"cat {SCRIPTS}/network.txt")
        device.script("/opt/hooks/name", self.PROBE + "echo device.test")
        device.script("/opt/hooks/settings", self.PROBE + "cat /etc/keywarden/service.cnf")
        device.request_settings("/etc/keywarden/named.cnf", CN=None, commonNameScript="/opt/hooks/name")
        device.service("web", cnfFile="/etc/keywarden/named.cnf", ca="yes", includeFQDN="yes")
        device.service("mqtt", cnfFile=None, cnfHookFile="/opt/hooks/settings")
        device.start()
        channels = [device.channel(name) for name in ("web", "mqtt")]
        for _ in range(3):
            self.assertEqual([channel.ask("server", "createcsr")[0] for channel in channels], [0, 0])
        device.network({"interface.0": "eth0", "fqdn.0": "other.test"})
        device.notify("n")
        device.wait_log(NOTICE, "Notification reload network completed")
        self.assert_stopped_cleanly(device.stop())
        return device.read(f"{WORK}/descriptors").decode(), device.read(f"{WORK}/state").decode()

    def test_no_descriptor_reaches_them(self):
        descriptors, _ = self.probes()
        scripts = {CALLBACK, f"{SCRIPTS}/network.sh", "/opt/hooks/name", "/opt/hooks/settings"}
        entries = re.findall(r" (\d+) -> (\S+)", descriptors)
        self.assertGreater(len(entries), 3 * 15)
        for number, target in entries:
            # The shell holds its own script open, and its saved output during the redirection.
            own = target in scripts or target.startswith("pipe:") or target == f"{WORK}/descriptors"
            self.assertTrue(int(number) <= 2 or own and int(number) >= 10, f"{number} -> {target}")
        standard = {target.split(":")[0] for number, target in entries if number == "0"}
        self.assertEqual(standard, {"/dev/null"})

    def test_their_signals_are_plain_and_they_run_as_the_daemon_user(self):
        _, state = self.probes()
        lines = set(state.splitlines())
        # The C library keeps 32 and 33 for itself.
        own = ~(1 << 31 | 1 << 32)
        masks = {line[:6] + ":" + hex(int(line[7:], 16) & own) for line in lines if line.startswith("Sig")}
        self.assertEqual(masks, {"SigBlk:0x0", "SigIgn:0x0"})
        # The network script runs once before the fork, as the daemon user already.
        self.assertEqual({line for line in lines if line.startswith("Uid")}, {"Uid:\t4242\t4242\t4242\t4242"})


class OtherUsers(Case):
    def as_user(self, uid, groups, action):
        """Runs an action as somebody else; its exception, or its result as text."""
        reader, writer = os.pipe()
        child = os.fork()
        if child == 0:
            try:
                os.setgroups(groups)
                os.setresgid(uid, uid, uid)
                os.setresuid(uid, uid, uid)
                result = repr(action())
            except BaseException as error:  # noqa: the child may only end here
                result = type(error).__name__ if isinstance(error, OSError) else traceback.format_exc()
            os.write(writer, result.encode())
            os._exit(0)
        os.close(writer)
        with os.fdopen(reader) as result:
            text = result.read()
        os.waitpid(child, 0)
        return text

    def setUp(self):
        super().setUp()
        self.device.service("web")
        self.device.start()
        self.channel = self.device.channel("web")

    def ask_as_member(self):
        with open(self.channel.lock, "r+b"), self.channel.listening(mode=0o620) as reader:
            os.chown(self.channel.output, -1, 4251)
            self.channel.send("tester\tweb\tconfig\tstatus")
            return read_answer(reader)

    def test_a_member_of_the_management_group_can_ask(self):
        self.assertEqual(self.as_user(4300, [4251], self.ask_as_member), "b'0 running'")

    def test_a_stranger_cannot_ask(self):
        send = lambda: self.channel.send("tester\tweb\tconfig\tstatus")
        self.assertEqual(self.as_user(4301, [], send), "PermissionError")

    def test_only_the_notification_group_can_notify(self):
        notify = lambda: self.device.notify("t")
        self.assertEqual(self.as_user(4301, [], notify), "PermissionError")
        self.assertEqual(self.as_user(4300, [4251], notify), "PermissionError")
        self.assertEqual(self.as_user(4300, [4250], notify), "None")
        self.device.wait_log(NOTICE, "Time reload notification completed")

    def test_only_the_key_group_reads_the_key_and_everybody_the_certificate(self):
        path = f"{KEYWARD}/web/server/{self.device.active('web')}"
        read = lambda name: (lambda: len(self.device.read(name)) > 0)
        self.assertEqual(self.as_user(4301, [], read(path)), "True")
        self.assertEqual(self.as_user(4301, [4251], read(path + ".key")), "PermissionError")
        self.assertEqual(self.as_user(4301, [4252], read(path + ".key")), "True")


if __name__ == "__main__":
    main()
