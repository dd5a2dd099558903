#!/usr/bin/python3
"""The hooks and their helper on a device: what they tell the daemon, and that they never do harm without one."""

import os
import stat
import time

import platform_files
from kwtest import Case, main
from kwtest.device import DAEMON_SETTINGS, PIPES, PID, settings_text, CONFIGURATION
from kwtest.process import limit
from kwtest.syslog import NOTICE

NOTIFY = "/usr/lib/keywardd/notify"
FIFO = f"{PIPES}/notification.signal"
NETWORK = "Notification reload network completed"
TIME = "Time reload notification completed"
HOOKS = {
    "/etc/network/if-up.d/keywardd": ((), {"IFACE": "eth0"}),
    "/etc/network/if-post-down.d/keywardd": ((), {"IFACE": "eth0"}),
    "/usr/lib/NetworkManager/dispatcher.d/50-keywardd": (("eth0", "up"), {}),
    "/usr/lib/networkd-dispatcher/routable.d/50-keywardd": ((), {"IFACE": "eth0"}),
    "/usr/lib/networkd-dispatcher/off.d/50-keywardd": ((), {"IFACE": "eth0"}),
}


class Hooks:
    busybox = False

    def setUp(self):
        super().setUp()
        platform_files.install(self.device, "systemd", self.busybox)

    def notify(self, *arguments, user=None):
        return platform_files.run(self.device, NOTIFY, *arguments, user=user)

    def run_all(self):
        for hook, (arguments, environment) in HOOKS.items():
            started = time.monotonic()
            result = platform_files.run(self.device, hook, *arguments, **environment)
            yield hook, result, time.monotonic() - started

    def make_fifo(self):
        self.device.root.make_folder(PIPES, 0o711)
        os.mkfifo(self.device.host(FIFO))
        os.chmod(self.device.host(FIFO), 0o720)

    def snapshot(self):
        """Every path in the pipes' folder with what it is and holds, and nothing of the helper's below /run."""
        self.assertEqual([name for name in self.device.listing("/run") if "keyward-notify" in name], [])
        found = {}
        for name in self.device.listing("/run/keywarden"):
            path = self.device.host(f"/run/keywarden/{name}")
            info = os.lstat(path)
            content = self.device.read(f"/run/keywarden/{name}") if stat.S_ISREG(info.st_mode) else None
            found[name] = (info.st_mode, info.st_size, content)
        return found

    # With the daemon.

    def test_every_hook_tells_the_daemon_of_a_new_network(self):
        self.device.service("web")
        self.device.start()
        count = 0
        for hook, result, _ in self.run_all():
            count += 1
            self.assertEqual((result.returncode, result.stdout, result.stderr), (0, "", ""), hook)
            self.device.wait_log(NOTICE, NETWORK, count)
        self.assert_stopped_cleanly(self.device.stop())

    def test_the_helper_tells_both_things_as_root_and_as_a_member_of_the_group(self):
        self.device.service("web")
        self.device.start()
        for count, user in enumerate((None, "4300:4300"), 1):
            groups = {"user": user}
            if user:
                groups["user"] = "operator:kwnotify"
            for word, text in (("n", NETWORK), ("t", TIME)):
                result = self.notify(word, **groups)
                self.assertEqual((result.returncode, result.stderr), (0, ""))
                self.device.wait_log(NOTICE, text, count)
        self.snapshot()

    def test_a_stranger_is_refused(self):
        self.device.service("web")
        self.device.start()
        result = self.notify("n", user="stranger:stranger")
        self.assertEqual(result.returncode, 1)
        self.assertIn("only root and members of the notification group", result.stderr)

    def test_interfaces_and_actions_that_do_not_matter_are_passed_over(self):
        self.device.service("web")
        self.device.start()
        for hook, arguments, environment in (
                ("/etc/network/if-up.d/keywardd", (), {"IFACE": "lo"}),
                ("/etc/network/if-up.d/keywardd", (), {"IFACE": "--all"}),
                ("/usr/lib/NetworkManager/dispatcher.d/50-keywardd", ("lo", "up"), {}),
                ("/usr/lib/NetworkManager/dispatcher.d/50-keywardd", ("eth0", "pre-up"), {}),
                ("/usr/lib/NetworkManager/dispatcher.d/50-keywardd", ("none", "connectivity-change"), {}),
                ("/usr/lib/networkd-dispatcher/routable.d/50-keywardd", (), {"IFACE": "lo"})):
            self.assertEqual(platform_files.run(self.device, hook, *arguments, **environment).returncode, 0)
        self.assertEqual(self.notify("t").returncode, 0)
        self.device.wait_log(NOTICE, TIME)
        self.assert_not_logged("Notification reload network received")

    # Without it.

    def assert_harmless(self, status):
        before = self.snapshot()
        for hook, result, seconds in self.run_all():
            self.assertEqual((result.returncode, result.stdout, result.stderr), (0, "", ""), hook)
            self.assertLess(seconds, limit(1.5), hook)
        self.assertEqual(self.notify("n").returncode, status)
        self.assertEqual(self.snapshot(), before)

    def test_without_a_daemon_nothing_is_made(self):
        self.assert_harmless(3)

    def test_a_fifo_that_a_crash_has_left_does_not_block(self):
        self.make_fifo()
        self.assert_harmless(3)

    def test_a_regular_file_in_its_place_is_not_written(self):
        self.device.write(FIFO, "kept")
        self.assert_harmless(1)

    def test_a_folder_in_its_place_stays_empty(self):
        self.device.root.make_folder(FIFO)
        self.assert_harmless(1)

    def test_a_link_is_not_followed(self):
        self.device.root.make_folder(PIPES)
        self.device.write("/run/keywarden/victim", "kept")
        os.symlink("/run/keywarden/victim", self.device.host(FIFO))
        self.assert_harmless(1)
        os.unlink(self.device.host(FIFO))
        os.symlink("/run/keywarden/missing", self.device.host(FIFO))
        self.assert_harmless(1)

    def test_without_a_configuration_nothing_happens(self):
        self.device.remove(CONFIGURATION)
        self.assert_harmless(1)

    def test_a_reader_that_hangs_holds_nobody_for_long(self):
        self.make_fifo()
        reader = os.open(self.device.host(FIFO), os.O_RDWR | os.O_NONBLOCK)
        self.addCleanup(os.close, reader)
        try:
            while os.write(reader, b"x" * 4096):
                pass
        except BlockingIOError:
            pass
        started = time.monotonic()
        result = self.notify("n")
        self.assertLess(time.monotonic() - started, limit(6))
        self.assertEqual(result.returncode, 3)
        self.assertIn("gave up after 2 seconds", result.stderr)
        self.snapshot()

    def test_a_member_of_the_group_is_not_held_by_a_fifo_without_a_reader(self):
        self.make_fifo()
        os.chown(self.device.host(FIFO), 4242, 4250)
        result = self.notify("n", user="operator:kwnotify")
        self.assertEqual(result.returncode, 3)
        self.assertIn("gave up", result.stderr)

    def test_the_usage_is_said(self):
        for arguments in ((), ("x",), ("nt",)):
            self.assertEqual(self.notify(*arguments).returncode, 2)

    # Its reading of the configuration.

    def setting(self, text, key="pidFile"):
        self.device.write(CONFIGURATION, text)
        return platform_files.run(self.device, "sh", "-c", '. /usr/lib/keywardd/settings; daemonSetting "$1"; '
                                  'printf "<%s>" "$setting"', "sh", key).stdout

    def test_settings_are_read_as_the_daemon_reads_them(self):
        for text, value in (("pidFile /a\n", "/a"), ("pidFile   /a\n", "/a"), ("pidFile \t /a b \t\n", "/a b"),
                            ("pidFile /a", "/a"), ("  \tpidFile /a\n", "/a"), ("pidFile /a # c\n", "/a"),
                            ("  pidFile /a # c\n", ""), ("pidFile\t/a\n", ""), ("pidFile=/a\n", ""),
                            ("#pidFile /a\n", ""), ("pidFile /a\npidFile /b\n", "/a"), ("PidFile /a\n", ""),
                            ("pidFile #x\npidFile /b\n", "/b"), ("pidFileX /a\n", ""), ("pidFile /a\\n*\n", "/a\\n*"),
                            ("  pidFile /a # c\npidFile /b\n", "/b"), ("", "")):
            self.assertEqual(self.setting(text), f"<{value}>", text)

    def test_the_daemon_agrees_about_an_odd_configuration(self):
        self.device.service("web")
        text = settings_text({**DAEMON_SETTINGS, "pidFile": None})
        text += f"  pidFile /run/keywarden/indented # not read\npidFile \t{PID}  # read\npidFile /run/keywarden/late\n"
        self.assertEqual(self.setting(text), f"<{PID}>")
        self.device.start()
        self.assertTrue(self.device.exists(PID))


class WithTheSystemsShell(Hooks, Case):
    pass


class WithBusyBox(Hooks, Case):
    busybox = True


if __name__ == "__main__":
    main()
