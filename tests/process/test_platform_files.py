#!/usr/bin/python3
"""The platform files as they are: shell style, systemd's own judgement, and the accounts and folders they make."""

import os
import pathlib
import shutil
import stat
import subprocess
import tempfile
import unittest

from kwtest import Case, main
from platform_files import SOURCE, install

PLATFORM = SOURCE / "platform"
UNITS = sorted(path.name for path in (PLATFORM / "systemd").iterdir() if path.suffix != ".conf")
SCRIPTS = ("lib/settings", "lib/instance", "hooks/keyward-notify", "hooks/ifupdown/keywardd", "install.sh",
           "hooks/NetworkManager/50-keywardd", "hooks/networkd-dispatcher/50-keywardd", "init.d/keywardd")


def call(*command):
    return subprocess.run([str(word) for word in command], capture_output=True, text=True, check=False)


class Files(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="kwfiles")
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)
        self.assertEqual(call(PLATFORM / "install.sh", self.root, "systemd").returncode, 0)
        units = self.root / "usr/lib/systemd/system"
        for unit in UNITS:
            shutil.copy(PLATFORM / "systemd" / unit, units)
        for target in pathlib.Path("/lib/systemd/system").glob("*.target"):
            shutil.copy(target, units, follow_symlinks=False)
        for program in ("usr/sbin/keywardd", "usr/bin/chronyc", "usr/bin/systemctl"):
            (self.root / program).parent.mkdir(exist_ok=True)
            shutil.copy("/bin/true", self.root / program)

    def test_every_script_passes_shellcheck_and_busybox_can_read_it(self):
        paths = [PLATFORM / script for script in SCRIPTS]
        result = call("shellcheck", "-x", "-P", SOURCE, *paths)
        self.assertEqual((result.returncode, result.stdout + result.stderr), (0, ""))
        for path in paths:
            self.assertEqual(call("busybox", "ash", "-n", path).returncode, 0, path)

    def test_systemd_has_nothing_to_say_about_any_unit(self):
        for unit in UNITS:
            result = call("systemd-analyze", f"--root={self.root}", "--man=no", "verify",
                          self.root / "usr/lib/systemd/system" / unit)
            self.assertEqual((result.returncode, result.stdout + result.stderr), (0, ""), unit)

    def test_a_fault_in_a_unit_would_be_told(self):
        unit = self.root / "usr/lib/systemd/system/keywardd.service"
        unit.write_text(unit.read_text().replace("ProtectClock=", "ProtectClocks="))
        result = call("systemd-analyze", f"--root={self.root}", "--man=no", "verify", unit)
        self.assertIn("ProtectClocks", result.stderr)

    def exposure(self, threshold):
        return call("systemd-analyze", f"--root={self.root}", "security", "--offline=true",
                    f"--threshold={threshold}", "keywardd.service")

    def test_the_exposure_is_below_two_and_a_half_and_less_with_the_drop_in(self):
        result = self.exposure(25)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        self.assertNotEqual(self.exposure(1).returncode, 0)
        folder = self.root / "usr/lib/systemd/system/keywardd.service.d"
        folder.mkdir()
        shutil.copy(PLATFORM / "systemd/unprivileged.conf", folder)
        result = self.exposure(16)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)


class Accounts(Case):
    """What sysusers and tmpfiles make, and the daemon on exactly that with the example's configuration."""

    def setUp(self):
        super().setUp()
        device = self.device
        install(device, "systemd")
        for folder in ("/run/ready", "/run/keywarden"):
            os.rmdir(device.host(folder))
        device.write("/etc/passwd", "root:x:0:0::/root:/bin/sh\n")
        device.write("/etc/group", "root:x:0:\n")
        for command in (["systemd-sysusers"], ["systemd-tmpfiles", "--create"]):
            result = call(*command, f"--root={device.root.path}", "keywardd.conf")
            self.assertEqual(result.returncode, 0, result.stderr)
        lines = [line.split(":") for line in device.read("/etc/group").decode().splitlines()]
        self.groups = {name: (int(gid), members) for name, _, gid, members in lines}

    def test_the_daemon_user_is_listed_in_every_group_and_cannot_log_in(self):
        for group in ("kwnotify", "kwadmin", "kwkey", "kwca"):
            self.assertEqual(self.groups[group][1], "keyuser")
        text = self.device.read("/etc/passwd").decode()
        line = next(line for line in text.splitlines() if line.startswith("keyuser:")).split(":")
        self.assertEqual((int(line[3]), line[5], line[6]),
                         (self.groups["keyuser"][0], "/nonexistent", "/usr/sbin/nologin"))
        self.assertLess(int(line[2]), 1000)

    def test_the_daemon_starts_on_these_folders_with_the_example_configuration(self):
        device = self.device
        owner = os.stat(device.host("/var/lib/keywarden"))
        for folder in ("/run/keywarden", "/run/ready", "/var/lib/keywarden", "/var/log/keywarden"):
            info = os.stat(device.host(folder))
            self.assertEqual((stat.S_IMODE(info.st_mode), info.st_gid), (0o755, self.groups["keyuser"][0]), folder)
            self.assertEqual(info.st_uid, owner.st_uid)
        self.assertNotEqual(owner.st_uid, 0)
        shutil.copytree(SOURCE / "examples/etc/keywarden", device.host("/etc/keywarden"), dirs_exist_ok=True)
        device.write("/etc/keywarden/scripts/network.sh", (PLATFORM / "network.sh").read_bytes(), 0o755)
        for folder, folders, files in os.walk(device.host("/etc/keywarden")):
            for name in folders + files:
                path = os.path.join(folder, name)
                os.chmod(path, 0o755 if os.path.isdir(path) or name.endswith(".sh") else 0o644)
        device.start()
        for service in ("pkiroot", "web", "api"):
            path = f"/var/lib/keywarden/store/{service}/server"
            active = device.read(f"{path}/.cacheddata/active.txt").decode()
            key = os.stat(device.host(f"{path}/{active}.key"))
            group = "kwca" if service == "pkiroot" else "kwkey"
            self.assertEqual((stat.S_IMODE(key.st_mode), key.st_uid, key.st_gid),
                             (0o640, owner.st_uid, self.groups[group][0]))
            self.assertIn(f"{service} server new {active}", device.read("/var/log/keywarden/owner.log").decode())
        self.assert_stopped_cleanly(device.stop())


if __name__ == "__main__":
    main()
