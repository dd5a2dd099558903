"""What the daemon does not keep of whoever has started it."""

import fcntl
import os
import pty
import random
import signal
import subprocess
import termios
import time

from kwtest import Case, main
from kwtest.device import CALLBACK, GROUPS, PID, PROGRAM, SCRIPTS, WORK
from kwtest.process import DaemonProcess, status_of, wait_until

STARTER = "/opt/tools/starter"
DEFAULT_PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"
RECORD_ENVIRONMENT = f'cp /proc/$$/environ {WORK}/environment.new; mv {WORK}/environment.new {WORK}/environment'


class Starter(Case):
    def start_by(self, commands, *arguments):
        """A start by a shell that first does something else."""
        self.device.script(STARTER, f'{commands}\nexec {PROGRAM} "$@"')
        self.device._program = lambda: STARTER
        return self.device.start(*arguments)

    def open_files(self, pid):
        root = self.device.root.path
        found = {number: os.readlink(f"/proc/{pid}/fd/{number}") for number in os.listdir(f"/proc/{pid}/fd")}
        return {int(number): path.removeprefix(root) for number, path in found.items()}

    def assert_runs(self):
        self.assertEqual(self.device.channel("web").ask("config", "status"), (0, "running"))
        self.assert_stopped_cleanly(self.device.stop())


class Left(Starter):
    def setUp(self):
        super().setUp()
        self.device.service("web", server=None)

    def test_descriptors(self):
        self.device.write("/etc/shadow", "root:secret", mode=0o600)
        # One is far up, where no table of small numbers would find it.
        daemon = self.start_by(f"exec 3>> /etc/shadow 7< /etc/shadow 9> {WORK}/inherited\nulimit -n 4000")
        files = self.open_files(daemon.pid)
        self.assertNotIn("/etc/shadow", files.values())
        self.assertNotIn(f"{WORK}/inherited", files.values())
        self.assertEqual({files[number] for number in (0, 1, 2)}, {"/dev/null"})
        self.assert_runs()

    def test_they_are_gone_before_the_first_script_and_while_it_is_root(self):
        script = f"{SCRIPTS}/network.sh"
        self.device.script(script, f"ls -l /proc/$PPID/fd > {WORK}/files; grep Uid: /proc/$PPID/status >> {WORK}/files\n"
                                   f"cat {SCRIPTS}/network.txt")
        self.device.write("/etc/shadow", "root:secret", mode=0o600)
        # Whoever may not look at the descriptors of the daemon is its own user, too: so root is the daemon user here.
        self.device.configure(daemonUser="root", notificationGroup="root")
        self.device.service("web", server=None, managmentGroup="root")
        self.device.accounts({**GROUPS, "root": (0, "root")})
        self.start_by("exec 7< /etc/shadow")
        files = self.device.read(f"{WORK}/files").decode()
        self.assertIn("pipe:", files)
        self.assertNotIn("shadow", files)

    def test_with_the_debug_option_standard_error_stays_and_nothing_else(self):
        daemon = self.start_by("true", "-d")
        files = self.open_files(daemon.pid)
        self.assertEqual([files[number] for number in (0, 1, 2)], ["/dev/null", "/dev/null", "/srv/stderr"])
        self.device.stop()
        self.assertIn("Stopping with the code 10...", self.device.stderr().splitlines())

    def test_standard_streams_that_are_closed_are_taken(self):
        daemon = self.start_by("exec <&- >&- 2>&-", "-d")
        files = self.open_files(daemon.pid)
        self.assertEqual({files[number] for number in (0, 1, 2)}, {"/dev/null"})
        self.assert_runs()

    def test_working_folder(self):
        self.device.script(CALLBACK, f"pwd > {WORK}/folder")
        daemon = self.start_by(f"cd {WORK}")
        self.assertEqual(os.readlink(f"/proc/{daemon.pid}/cwd"), self.device.root.path)
        self.assertEqual(self.device.read(f"{WORK}/folder"), b"/\n")
        self.assert_runs()

    def environment_of(self, script, commands):
        """What the environment of a script is, when the starter has done this to its own."""
        body = RECORD_ENVIRONMENT if script == CALLBACK else f"{RECORD_ENVIRONMENT}; cat {SCRIPTS}/network.txt"
        self.device.script(script, body)
        self.start_by(commands)
        entries = self.device.read(f"{WORK}/environment").decode().split("\0")[:-1]
        self.assert_runs()
        return dict(entry.split("=", 1) for entry in entries)

    def test_environment(self):
        others = ("export HOME=/root USER=root SECRET=x LC_ALL=C LD_LIBRARY_PATH=/root/lib NOTIFY_SOCKET=/run/notify "
                  "LISTEN_FDS=1 JOURNAL_STREAM=1:2 MALLOC_ARENA_MAX=1 TMPDIR=/root/tmp\n"
                  "export PATH=/opt/tools:/usr/bin:/bin TZ=Asia/Tokyo LANG=C.UTF-8")
        for script in (CALLBACK, f"{SCRIPTS}/network.sh"):
            with self.subTest(script=script):
                self.assertEqual(self.environment_of(script, others),
                                 {"PATH": "/opt/tools:/usr/bin:/bin", "TZ": "Asia/Tokyo", "LANG": "C.UTF-8"})

    def test_environment_without_any(self):
        self.assertEqual(self.environment_of(CALLBACK, f"exec /usr/bin/env -i {PROGRAM}"), {"PATH": DEFAULT_PATH})

    def test_folder_for_temporary_files_stays_where_the_daemon_user_may_write(self):
        for folder, stays in ((WORK, True), ("/etc", False), ("relative", False), ("/nowhere", False)):
            with self.subTest(folder=folder):
                found = self.environment_of(CALLBACK, f"export TMPDIR={folder}")
                self.assertEqual(found.get("TMPDIR"), folder if stays else None)


class Terminal(Starter):
    def test_it_has_none_and_survives_its_end(self):
        self.device.service("web", server=None)
        master, slave = pty.openpty()

        def become_foreground():
            os.setsid()
            fcntl.ioctl(slave, termios.TIOCSCTTY, 0)

        class OnTerminal(DaemonProcess):
            def __init__(self, command, environment):
                self._earlier = set()
                self._parent = subprocess.Popen(command, env=environment, stdin=slave, stdout=slave, stderr=slave,
                                                cwd="/", preexec_fn=become_foreground)
                self.parent_pid, self.parent_status = self._parent.pid, None
                self.pid = self.exit_status = None
                self._parents.add(self.parent_pid)

        for _ in range(10):
            daemon = OnTerminal(["chroot", self.device.root.path, PROGRAM], self.device.environment())
            self.device.daemon = daemon
            self.device._daemons.append(daemon)
            self.device.wait_ready()
            with open(f"/proc/{daemon.pid}/stat", encoding="ascii") as stat:
                group, session, terminal = stat.read().rpartition(")")[2].split()[2:5]
            self.assertEqual((int(group), int(session), int(terminal)), (daemon.pid, daemon.pid, 0))
            os.write(master, b"\x03\x1c")
            self.assert_runs()
            self.device.daemon = None
        self.device.start()
        os.close(slave)
        os.close(master)
        self.assert_runs()


class HangUp(Starter):
    def test_at_any_early_moment_leaves_a_running_daemon_or_nothing(self):
        self.device.service("web")
        begin = time.monotonic()
        self.device.start(ready=False).wait_forked(self.device.host(PID))
        duration = time.monotonic() - begin
        self.device.daemon.wait_parent()
        self.device.stop()
        generator = random.Random()
        outcomes = set()
        for _ in range(40):
            daemon = self.device.start(ready=False)
            moment = generator.uniform(0, duration * 1.2)
            time.sleep(moment)
            os.kill(daemon.parent_pid, signal.SIGHUP)
            status = daemon.wait_parent()
            # Before main() it finds a process that has made nothing yet.
            self.assertIn(status, (0, -signal.SIGHUP), f"after {moment:.4f} s\n{self.device.log_text()}")
            outcomes.add(status)
            if status == 0:
                daemon.signal(signal.SIGTERM)
                self.assertEqual(daemon.wait_exit(), 10)
            self.assert_nothing_left()
        self.assertIn(0, outcomes)

    def test_during_the_network_script_before_the_fork(self):
        self.device.service("web")
        self.device.script(f"{SCRIPTS}/network.sh",
                           f"touch {WORK}/running; sleep 0.5; cat {SCRIPTS}/network.txt")
        daemon = self.device.start(ready=False)
        self.assertTrue(wait_until(lambda: self.device.exists(f"{WORK}/running")))
        os.kill(daemon.parent_pid, signal.SIGHUP)
        self.device.wait_ready()
        self.assertTrue(int(status_of(daemon.pid)["SigIgn"], 16) >> (signal.SIGHUP - 1) & 1)
        self.assert_runs()


if __name__ == "__main__":
    main()
