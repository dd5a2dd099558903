#!/usr/bin/python3
"""The init script with the real daemon, on a device whose shell and tools are BusyBox's."""

import os
import re
import signal
import subprocess
import time

import platform_files
from kwtest import Case, main
from kwtest.device import LOCK, PID, PIPES, SCRIPTS
from kwtest.process import limit, wait_exit
from kwtest.syslog import NOTICE

SCRIPT = "/etc/init.d/keywardd"


class InitScript(Case):
    def setUp(self):
        super().setUp()
        platform_files.install(self.device, "init", busybox=True)
        self.device.service("web")
        # As at boot: /run is empty.
        for folder in ("/run/ready", "/run/keywarden"):
            os.rmdir(self.device.host(folder))
        self.pids = []

    def tearDown(self):
        for pid in self.pids:
            if wait_exit_of(pid, 0) is None:
                os.kill(pid, signal.SIGKILL)
                wait_exit_of(pid, 10)

    def call(self, action, status=0):
        result = platform_files.run(self.device, SCRIPT, action, seconds=60)
        pid = self.pid()
        if pid and pid not in self.pids:
            self.pids.append(pid)
        self.assertEqual(result.returncode, status, result.stdout + result.stderr + self.device.log_text())
        return result.stdout

    def pid(self):
        return int(self.device.read(PID)) if self.device.exists(PID) else 0

    def crash(self):
        os.kill(self.pid(), signal.SIGKILL)
        self.assertEqual(wait_exit_of(self.pid(), limit(10)), -signal.SIGKILL)

    def test_a_start_makes_the_folders_and_waits_until_the_daemon_is_ready(self):
        self.assertEqual(self.call("start"), f"keywardd: runs (process {self.pid()})\n")
        self.assertTrue(self.device.exists(f"/run/ready/{self.pid()}"))
        for folder in ("/run/ready", "/run/keywarden"):
            self.assertEqual(self.device.rights(folder), ("d", 0o755, "keyuser", "keyuser"))
        self.assert_whole_store("web")
        self.assertEqual(self.call("status"), f"keywardd: runs (process {self.pid()})\n")

    def test_a_second_start_leaves_the_first_daemon_alone(self):
        self.call("start")
        first = self.pid()
        self.assertEqual(self.call("start"), f"keywardd: is already running (process {first})\n")
        self.assertEqual(self.pid(), first)
        self.assert_not_logged("already running")

    def test_a_stop_waits_for_the_end_and_leaves_nothing(self):
        self.call("start")
        pid = self.pid()
        self.assertEqual(self.call("stop"), "keywardd: stopped\n")
        self.assertEqual(wait_exit_of(pid, limit(10)), 10)
        self.assertEqual([path for path in (LOCK, PID, PIPES) if self.device.exists(path)], [])
        self.assertEqual(self.device.listing("/run/ready"), [])
        self.assertEqual(self.call("status", 3), "keywardd: is not running\n")
        self.assertEqual(self.call("stop"), "keywardd: is not running\n")

    def test_a_restart_brings_another_process(self):
        self.call("start")
        first = self.pid()
        said = self.call("restart")
        self.assertEqual(said, f"keywardd: stopped\nkeywardd: runs (process {self.pid()})\n")
        self.assertNotEqual(self.pid(), first)

    def test_after_a_crash_the_lock_is_reported_and_the_next_start_removes_it(self):
        self.call("start")
        first = self.pid()
        self.crash()
        self.assertEqual(self.call("status", 1), "keywardd: is not running, but its lock file is there\n")
        said = self.call("start")
        self.assertEqual(said, f"keywardd: removing the lock file that a crash has left: {LOCK}\n"
                               f"keywardd: runs (process {self.pid()})\n")
        self.assertFalse(self.device.exists(f"/run/ready/{first}"))

    def test_a_process_id_that_another_program_got_does_not_count(self):
        self.call("start")
        self.crash()
        other = subprocess.Popen(["sleep", "60"])
        self.addCleanup(other.wait)
        self.addCleanup(other.kill)
        self.device.write(PID, str(other.pid))
        self.assertIn("removing the lock file", self.call("start"))
        self.assertIsNone(other.poll())

    def test_a_lock_without_a_pid_file_is_kept_while_a_daemon_runs(self):
        self.call("start")
        running = self.pid()
        self.device.remove(PID)
        result = platform_files.run(self.device, "/usr/lib/keywardd/instance", "clear")
        self.assertEqual((result.returncode, result.stdout), (0, ""))
        self.assertTrue(self.device.exists(LOCK))
        self.assertTrue(self.device.exists(f"/run/ready/{running}"))

    def test_a_lock_without_a_pid_file_is_removed_when_no_daemon_runs(self):
        self.device.root.make_folder("/run/ready")
        for path, owner in ((LOCK, 4242), ("/run/ready/4999999", 4242), ("/run/ready/4999998", 0)):
            self.device.write(path, "")
            os.chown(self.device.host(path), owner, owner)
        # Among processes of its own: other tests' daemons run on this machine.
        result = subprocess.run(["unshare", "--pid", "--mount", "--fork", "sh", "-c",
                                 'mount -t proc proc "$0/proc" && exec chroot "$0" /usr/lib/keywardd/instance clear',
                                 self.device.root.path], capture_output=True, text=True, check=False)
        self.assertEqual((result.returncode, result.stdout),
                         (0, f"keywardd: removing the lock file that a crash has left: {LOCK}\n"), result.stderr)
        self.assertFalse(self.device.exists(LOCK))
        self.assertEqual(self.device.listing("/run/ready"), ["4999998"])

    def test_a_daemon_that_cannot_start_is_told(self):
        os.chmod(self.device.host(f"{SCRIPTS}/network.sh"), 0o644)
        self.assertIn("did not start (status 12)", self.call("start", 1))
        self.device.remove("/etc/keywarden/services/web.conf")
        os.chmod(self.device.host(f"{SCRIPTS}/network.sh"), 0o755)
        self.assertIn("keywardd: ended while it started", self.call("start", 1))

    def test_a_daemon_that_hangs_is_killed_after_a_while(self):
        self.device.write("/etc/default/keywardd", "STOP_SECONDS=1\n")
        self.call("start")
        pid = self.pid()
        os.kill(pid, signal.SIGSTOP)
        started = time.monotonic()
        self.assertIn("did not stop within 1 seconds; killing it", self.call("stop", 1))
        self.assertLess(time.monotonic() - started, limit(10))
        # Its first thread may be gone a little before the others.
        self.assertEqual(wait_exit_of(pid, limit(10)), -signal.SIGKILL)
        self.assertFalse(self.device.exists(LOCK))
        self.call("start")

    def test_reload_network_tells_the_daemon(self):
        self.call("start")
        self.call("reload-network")
        self.device.wait_log(NOTICE, "Notification reload network completed")
        self.call("stop")
        self.call("reload-network", 3)

    def test_any_other_word_is_answered_with_the_usage(self):
        result = platform_files.run(self.device, SCRIPT, "frobnicate")
        self.assertEqual(result.returncode, 2)
        self.assertTrue(re.match("usage: .*start|stop|restart|status|reload-network", result.stderr))


def wait_exit_of(pid, timeout):
    """The daemon is an orphan that this process inherits; None when it runs, or was waited for already."""
    try:
        return _ended.setdefault(pid, status) if (status := wait_exit(pid, timeout)) is not None else None
    except (ProcessLookupError, ChildProcessError):
        return _ended.get(pid, 0)


_ended = {}


if __name__ == "__main__":
    main()
