#!/usr/bin/python3
"""keywardd's unit under a real systemd: process 1 of namespaces of its own, on a copy in memory of this machine.

Where this machine refuses what that takes (new namespaces, control groups) the program says so and ends with
status 77, which CTest shows as skipped.
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

HERE = pathlib.Path(__file__).resolve().parent
SOURCE = HERE.parent.parent
SKIPPED = 77
PIPES = "/run/keywarden/pipes"
LOCK = "/run/keywarden/keywardd.lock"


class Refused(Exception):
    pass


def wait_until(condition, timeout=60.0):
    deadline = time.monotonic() + timeout
    while not (value := condition()) and time.monotonic() < deadline:
        time.sleep(0.05)
    return value


class ControlGroup:
    """A control group of its own, so that nothing of the booted system is left in the machine's."""

    def __init__(self):
        self._mount = tempfile.mkdtemp(prefix="kwcgroup")
        subprocess.run(["mount", "-t", "cgroup2", "none", self._mount], check=True, capture_output=True)
        self.path = f"{self._mount}/keyward-test-{os.getpid()}"
        try:
            os.mkdir(self.path)
        except OSError:
            self._unmount()
            raise

    def enter(self):
        with open(f"{self.path}/cgroup.procs", "w", encoding="ascii") as file:
            file.write("0")

    def close(self):
        # A group can be removed as soon as its last process is gone for good.
        def removed():
            for folder, _, _ in os.walk(self.path, topdown=False):
                try:
                    os.rmdir(folder)
                except OSError:
                    return False
            return True
        if not wait_until(removed, 10):
            print(f"control groups stayed behind: {self.path}", file=sys.stderr)
        self._unmount()

    def _unmount(self):
        subprocess.run(["umount", self._mount], check=False)
        os.rmdir(self._mount)


class System:
    """The booted system."""

    def __init__(self, program):
        self._work = tempfile.mkdtemp(prefix="kwboot")
        self._errors = open(f"{self._work}.log", "w+b")
        self._group = ControlGroup()
        command = ["unshare", "--mount", "--pid", "--net", "--uts", "--ipc", "--cgroup", "--fork", "--kill-child",
                   str(HERE / "platform_boot" / "boot.sh"), str(SOURCE), program, self._work]
        self._unshare = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=self._errors, stderr=self._errors,
                                         preexec_fn=self._group.enter)
        self.init = wait_until(self._find_init)
        if self.init in (None, -1) or not wait_until(self._is_up):
            said = self._said()
            self.close()
            raise Refused(said)

    def close(self):
        self._unshare.kill()
        self._unshare.wait()
        self._group.close()
        os.rmdir(self._work)
        self._errors.close()
        os.unlink(f"{self._work}.log")

    def _said(self):
        self._errors.seek(0)
        return self._errors.read().decode(errors="replace")

    def _find_init(self):
        if self._unshare.poll() is not None:
            return -1
        path = f"/proc/{self._unshare.pid}/task/{self._unshare.pid}/children"
        for pid in pathlib.Path(path).read_text(encoding="ascii").split():
            if pathlib.Path(f"/proc/{pid}/comm").read_text(encoding="ascii").strip() == "systemd":
                return int(pid)
        return None

    def _is_up(self):
        return self.run("systemctl", "is-active", "default.target").stdout.strip() == "active"

    def run(self, *command, check=False):
        """Runs a program in the booted system, as root."""
        result = subprocess.run(["nsenter", f"--target={self.init}", "--mount", "--pid", "--net", "--uts", "--ipc",
                                 "--cgroup", "--root", "--wd=/", *command], capture_output=True, text=True,
                                check=False, stdin=subprocess.DEVNULL, timeout=120)
        if check and result.returncode != 0:
            raise AssertionError(f"{command}: {result.returncode}\n{result.stdout}{result.stderr}\n{self.log()}")
        return result

    def property(self, name, unit="keywardd.service"):
        return self.run("systemctl", "show", "--value", "-p", name, unit, check=True).stdout.strip()

    def log(self, *options):
        return self.run("journalctl", "--no-pager", "-o", "cat", *(options or ("-b",))).stdout

    def text(self, path):
        return self.run("cat", path, check=True).stdout

    def exists(self, path):
        return self.run("test", "-e", path).returncode == 0

    def daemon_log_count(self, text):
        self.run("journalctl", "--sync")
        return self.log("-t", "key-warden").splitlines().count(text)

    def status(self, pid):
        return dict(re.findall(r"^(\w+):\s*(.*)$", self.text(f"/proc/{pid}/status"), re.MULTILINE))


SYSTEM = None


class Unit(unittest.TestCase):
    def setUp(self):
        self.system = SYSTEM
        self.system.run("systemctl", "reset-failed")
        self.system.run("systemctl", "start", "keywardd.service", check=True)

    def wait_logged(self, text, count):
        found = wait_until(lambda: self.system.daemon_log_count(text) >= count, 30)
        self.assertTrue(found, self.system.log())

    def test_a_start_ends_when_the_daemon_is_ready_and_it_is_keyuser_without_any_right(self):
        system = self.system
        self.assertEqual(system.property("ActiveState"), "active")
        pid = system.property("MainPID")
        self.assertEqual(system.text("/run/keywarden/keywardd.pid"), pid)
        self.assertTrue(system.exists(f"/run/ready/{pid}"), system.log())
        status = system.status(pid)
        account = system.run("id", "-u", "keyuser", check=True).stdout.strip()
        self.assertEqual(status["Uid"].split(), [account] * 4)
        groups = system.run("id", "-G", "keyuser", check=True).stdout.split()
        self.assertEqual(len(groups), 5)
        self.assertEqual(sorted(status["Groups"].split()), sorted(groups))
        self.assertEqual([int(status[name], 16) for name in ("CapPrm", "CapEff", "CapInh", "CapAmb")], [0] * 4)
        self.assertEqual((status["NoNewPrivs"], status["Seccomp"]), ("1", "2"))

    def test_every_example_service_has_its_certificate_and_its_owner_was_told(self):
        system = self.system
        for service in ("pkiroot", "web", "api"):
            folder = f"/var/lib/keywarden/store/{service}/server"
            active = system.text(f"{folder}/.cacheddata/active.txt")
            self.assertTrue(system.exists(f"{folder}/{active}"))
            self.assertIn(f"{service} server new {active}", system.text("/var/log/keywarden/owner.log"))
            self.assertEqual(system.run("readlink", f"/run/keywarden/current/{service}.crt").stdout.strip(),
                             f"{folder}/{active}")
        names = system.run("sh", "-c", f"openssl x509 -noout -ext subjectAltName -in /run/keywarden/current/web.crt")
        self.assertIn("IP Address:10.20.30.5", names.stdout)
        errors = system.log("_PID=" + system.property("MainPID"), "-p", "err")
        self.assertEqual(errors, "", errors)

    def test_nothing_outside_its_folders_can_be_written_by_the_daemon(self):
        system = self.system
        pid = system.property("MainPID")
        inside = ["nsenter", "--target", pid, "--mount", "--root"]
        for folder in ("/etc", "/usr", "/tmp", "/home", "/var/lib"):
            self.assertIn("Read-only", system.run(*inside, "touch", f"{folder}/kw-probe").stderr)
        for folder in ("/run/keywarden", "/run/ready", "/var/lib/keywarden", "/var/log/keywarden"):
            system.run(*inside, "touch", f"{folder}/kw-probe", check=True)
            system.run("rm", f"{folder}/kw-probe", check=True)

    def test_a_stop_with_status_10_is_a_success(self):
        system = self.system
        system.run("systemctl", "stop", "keywardd.service", check=True)
        self.assertEqual([system.property(name) for name in ("ActiveState", "Result", "ExecMainStatus")],
                         ["inactive", "success", "10"])
        for path in (LOCK, "/run/keywarden/keywardd.pid", PIPES):
            self.assertFalse(system.exists(path), path)

    def test_a_killed_daemon_is_started_again_and_its_lock_does_not_hinder(self):
        system = self.system
        first = system.property("MainPID")
        system.run("kill", "-KILL", first, check=True)
        again = wait_until(lambda: system.property("ActiveState") == "active" and
                           system.property("MainPID") not in ("0", first), 40)
        self.assertTrue(again, system.log())
        self.assertIn(f"keywardd: removing the lock file that a crash has left: {LOCK}", system.log())
        self.assertFalse(system.exists(f"/run/ready/{first}"))
        self.assertTrue(system.exists(f"/run/ready/{system.property('MainPID')}"))

    def test_a_daemon_that_cannot_start_fails_the_start(self):
        system = self.system
        system.run("systemctl", "stop", "keywardd.service", check=True)
        script = "/etc/keywarden/scripts/network.sh"
        system.run("chmod", "0644", script, check=True)
        try:
            self.assertNotEqual(system.run("systemctl", "start", "keywardd.service").returncode, 0)
            self.assertEqual(system.property("ExecMainStatus"), "0")
            self.assertEqual(system.property("Result"), "exit-code")
        finally:
            system.run("chmod", "0755", script, check=True)
            system.run("systemctl", "stop", "keywardd.service")

    def test_the_helper_reaches_the_daemon(self):
        text = "Notification reload network completed"
        before = self.system.daemon_log_count(text)
        self.system.run("/usr/lib/keywardd/notify", "n", check=True)
        self.wait_logged(text, before + 1)

    def test_the_first_synchronization_is_told_once(self):
        system = self.system
        text = "Time reload notification completed"
        before = system.daemon_log_count(text)
        marker = "/run/systemd/timesync/synchronized"
        system.run("sh", "-c", f"mkdir -p {os.path.dirname(marker)} && touch {marker}", check=True)
        self.wait_logged(text, before + 1)
        system.run("touch", marker, check=True)
        # What comes after it has come after the second touch as well.
        system.run("/usr/lib/keywardd/notify", "t", check=True)
        self.wait_logged(text, before + 2)
        self.assertEqual(system.daemon_log_count(text), before + 2)

    def test_a_set_clock_is_told_and_watched_for(self):
        system = self.system
        self.assertEqual(system.property("ActiveState", "keyward-time.timer"), "active")
        self.assertEqual(system.property("Triggers", "keyward-time.timer"), "keyward-time.service")
        self.assertEqual(system.property("OnClockChange", "keyward-time.timer"), "yes")
        text = "Time reload notification completed"
        before = system.daemon_log_count(text)
        system.run("systemctl", "start", "keyward-time.service", check=True)
        self.wait_logged(text, before + 1)

    def test_the_time_units_do_not_fail_without_a_daemon(self):
        system = self.system
        system.run("systemctl", "stop", "keywardd.service", check=True)
        system.run("systemctl", "start", "keyward-time.service", check=True)
        self.assertEqual(system.property("ActiveState", "keyward-time.service"), "inactive")
        self.assertEqual(system.property("ExecMainStatus", "keyward-time.service"), "3")

    def test_the_owners_request_reloads_a_server_of_another_account(self):
        system = self.system
        system.run("systemctl", "start", "nginx.service", check=True)
        system.run("rm", "-f", "/run/nginx-was-reloaded", check=True)
        system.run("setpriv", "--reuid=keyuser", "--clear-groups", "sh", "-c",
                   ": >/run/keywarden/current/nginx.reload", check=True)
        self.assertTrue(wait_until(lambda: system.exists("/run/nginx-was-reloaded"), 20), system.log())

    def test_with_the_drop_in_it_never_is_root(self):
        system = self.system
        folder = "/etc/systemd/system/keywardd.service.d"
        system.run("mkdir", "-p", folder, check=True)
        system.run("cp", "/usr/share/doc/keywardd/examples/unprivileged.conf", folder, check=True)
        try:
            system.run("systemctl", "daemon-reload", check=True)
            system.run("systemctl", "restart", "keywardd.service", check=True)
            pid = system.property("MainPID")
            self.assertTrue(system.exists(f"/run/ready/{pid}"))
            self.assertEqual(int(system.status(pid)["CapBnd"], 16), 0)
            self.assertEqual(system.property("User"), "keyuser")
            self.assertIn("0 running", self.ask_status())
            system.run("systemctl", "stop", "keywardd.service", check=True)
            self.assertEqual(system.property("ExecMainStatus"), "10")
        finally:
            system.run("rm", "-r", folder)
            system.run("systemctl", "daemon-reload", check=True)

    def ask_status(self):
        script = (f"cd {PIPES}/web; mkfifo -m 0660 web.out; chgrp kwadmin web.out; "
                  r"printf 'me\tweb\tconfig\tstatus' >web.in; cat web.out; rm web.out")
        return self.system.run("timeout", "20", "sh", "-c", script, check=True).stdout


def main():
    global SYSTEM
    program = os.environ.get("KEYWARDD", "")
    if not os.path.isfile(program) or os.geteuid() != 0:
        sys.exit("KEYWARDD must name the daemon's program, and root must run this")
    if shutil.which("systemctl") is None:
        sys.exit("systemd is not installed")
    try:
        SYSTEM = System(program)
    except (Refused, OSError, subprocess.CalledProcessError) as refused:
        print(f"*** NOT RUN: no systemd can be booted on this machine: {refused}", file=sys.stderr)
        sys.exit(SKIPPED)
    try:
        result = unittest.main(module="__main__", exit=False).result
    finally:
        SYSTEM.close()
    sys.exit(not result.wasSuccessful())


if __name__ == "__main__":
    main()
