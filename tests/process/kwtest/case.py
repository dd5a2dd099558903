"""The base of every test: a fresh device each, and assertions in its words."""

import re
import signal
import unittest

from . import certificates
from .device import KEYWARD, LOCK, PID, PIPES, Device
from .isolation import Isolation
from .process import become_subreaper, wait_until
from .settings import SETTINGS
from .syslog import EMERG, FACILITY_DAEMON, NOTICE

_isolation = None


def isolation():
    return _isolation


def main():
    """Runs the tests of a file as the program that it is."""
    global _isolation
    SETTINGS.check()
    # A signal that the caller ignores would stay ignored in the daemon.
    for number in (signal.SIGINT, signal.SIGQUIT, signal.SIGTERM):
        signal.signal(number, signal.default_int_handler if number == signal.SIGINT else signal.SIG_DFL)
    become_subreaper()
    _isolation = Isolation(SETTINGS.isolation)
    unittest.main(module="__main__")


class Case(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.device = self.new_device()

    def new_device(self):
        device = Device(_isolation)
        self.addCleanup(self._close, device)
        return device

    def _close(self, device):
        reports = device.reports()
        foreign = {(line.facility, line.identity) for line in device.log.lines()}
        device.close()
        if reports:
            self.fail("a sanitizer reported:\n" + "\n".join(reports.values()))
        self.assertLessEqual(foreign, {(FACILITY_DAEMON, "key-warden")})

    # The log.

    def assert_logged(self, severity, text, count=None):
        """The line is there; `count` says how often exactly."""
        found = self.device.log_lines().count((severity, text))
        if found == 0 or (count is not None and found != count):
            self.fail(f"logged {found} times: <{severity}> {text!r}\nlogged:\n{self.device.log_text()}")

    def assert_logged_like(self, severity, pattern):
        """A line whose whole text matches; returns the match of the first one."""
        for found, text in self.device.log_lines():
            match = re.fullmatch(pattern, text, re.DOTALL)
            if match and found == severity:
                return match
        self.fail(f"not logged: <{severity}> {pattern}\nlogged:\n{self.device.log_text()}")

    def assert_not_logged(self, part):
        log = self.device.log_text()
        self.assertFalse(part in log, f"logged: {part}\n{log}")

    def assert_in_order(self, lines, of=None):
        """The lines were logged in this order; others may stand between them."""
        logged = iter(self.device.log_lines() if of is None else of)
        for wanted in lines:
            if wanted not in logged:
                self.fail(f"not logged, or not in its place: {wanted!r}\nlogged:\n{self.device.log_text()}")

    # The end of the daemon.

    def assert_fails_at_start(self, code, reason, *arguments, removed=True):
        """The first process ends by itself and says why; `removed` is whether it takes its files away."""
        daemon = self.device.start(*arguments, ready=False)
        self.assertEqual(daemon.wait_parent(), code, self.device.log_text())
        self.assertEqual(self.device.log_lines()[-1], (EMERG, last_line(code, reason)))
        if removed:
            self.assertFalse(self.device.exists(LOCK))
            self.assertFalse(self.device.exists(PID))

    def assert_stopped_cleanly(self, status):
        """The end of an orderly stop: its code, its last line, and nothing left behind."""
        device = self.device
        self.assertEqual(status, 10, device.log_text())
        self.assertEqual(device.log_lines()[-1], (NOTICE, "Stopping with the code 10..."))
        self.assert_nothing_left()

    def assert_nothing_left(self):
        left = [path for path in (LOCK, PID, PIPES) if self.device.exists(path)]
        left += ["/run/ready/" + name for name in self.device.listing("/run/ready")]
        self.assertEqual(left, [], self.device.log_text())
        self.assertEqual(self.device.daemon.orphans(), [])

    # The stores.

    def assert_whole_store(self, service, common=None):
        """The active certificate is there with all its files and its own key, and nothing else is."""
        device = self.device
        active = device.active(service)
        self.assertRegex(active, r"\A[0-9a-f]{8}\.0\Z")
        # The journal stands until the owner has been told.
        wait_until(lambda: not device.exists(f"{KEYWARD}/{service}/server/.cacheddata/.journal"))
        # The file for overwritten data comes with the first start that finds the certificate.
        found = [name for name in device.listing(f"{KEYWARD}/{service}/server") if not name.endswith(".overwrite")]
        self.assertEqual(found, sorted([".cacheddata", ".cacheddata/active.txt", f".cacheddata/{active}.network",
                                        active, active + ".key"]))
        self.assertEqual(device.listing(f"{PIPES}/{service}/server"), [active + ".detail", active + ".info"])
        certificate = self.certificate(service)
        key = certificates.load_key(device.read(f"{KEYWARD}/{service}/server/{active}.key"))
        self.assertEqual(certificates.public_bytes(certificate), certificates.public_bytes(key))
        if common is not None:
            self.assertEqual(certificates.common_name(certificate), common)
        return certificate

    def certificate(self, service):
        """The active server certificate."""
        return certificates.load(self.device.read(f"{KEYWARD}/{service}/server/{self.device.active(service)}"))


def last_line(code, reason=""):
    return f"Stopping with the code {code}" + (f" due to {reason}" if reason else "") + "..."
