"""A service whose group has a hostile member, another service that must not come to harm, and the attacker's hands."""

import contextlib
import hashlib
import itertools
import os
import stat
import subprocess
import time

from .case import Case
from .channel import NoAnswer
from .device import GROUPS, KEYWARD, LOCK, PID, PIPES, USERS, WORK
from .process import limit, status_of, wait_until
from .settings import SETTINGS
from .syslog import NOTICE

PROGRAM = "/opt/keyward/hostile_member"
MEMBER = "member"
MEMBER_ID = 4302
# Web's management group, and no other, has the member in it.
MEMBER_GROUP = 4260
ROOTS = "/srv/roots"
SECRET = f"{ROOTS}/secret"
BOX = f"{WORK}/member"
NETWORK_DONE = (NOTICE, "Notification reload network completed")
SHOP_CHECKED = (NOTICE, "The service shop checked server certificate because network changed.")
MOST_MEMORY = 40 * 1024


def rounds(most, seconds=4.0):
    """Counts, until a race has been run often or long enough. What is slower needs no longer: it is easier to hit."""
    end = time.monotonic() + seconds
    return itertools.takewhile(lambda _: time.monotonic() < end, range(most))


class Helper:
    """The attacking program at work, as one user of the device."""

    def __init__(self, device, user, words, cwd=None):
        uid, groups = identity(user)
        self._process = subprocess.Popen([device.host(PROGRAM), *words], user=uid, group=groups[0],
                                         extra_groups=groups, cwd=cwd, env={}, stdout=subprocess.PIPE, text=True)
        if self._process.stdout.readline() != "ready\n":
            raise AssertionError("the attacker does not attack")

    def stop(self):
        """How often it had success; None when that was asked before."""
        if self._process.stdout.closed:
            return None
        self._process.terminate()
        with self._process.stdout as printed:
            done = int(printed.read())
        self._process.wait()
        return done


def identity(user):
    """(uid, groups) with the user's own group in front."""
    if user == MEMBER:
        return MEMBER_ID, [MEMBER_ID, MEMBER_GROUP]
    uid, gid = USERS[user]
    return uid, [gid] + [number for number, members in GROUPS.values() if user in members.split(",")]


@contextlib.contextmanager
def acting_as(user):
    """This process has no other rights than the user's inside."""
    uid, groups = identity(user)
    own = os.getgroups()
    os.setgroups(groups)
    os.setegid(groups[0])
    os.seteuid(uid)
    try:
        yield
    finally:
        os.seteuid(0)
        os.setegid(0)
        os.setgroups(own)


class Attack(Case):
    """Services "web", whose member attacks, and "shop". Both have every store."""

    def setUp(self):
        super().setUp()
        device = self.device
        self.assertTrue(os.path.isfile(SETTINGS.hostile_member), "KWTEST_HOSTILE_MEMBER must name the program")
        with open(SETTINGS.hostile_member, "rb") as program:
            device.write(PROGRAM, program.read(), 0o755)
        device.accounts({**GROUPS, "kwweb": (MEMBER_GROUP, f"keyuser,{MEMBER}"), MEMBER: (MEMBER_ID, "")})
        device.write("/etc/passwd", device.read("/etc/passwd") +
                     f"{MEMBER}:x:{MEMBER_ID}:{MEMBER_ID}::/:/bin/sh\n".encode())
        device.write(SECRET, b"root's alone\n", 0o600)
        self.own_folder(BOX)
        device.service("web", ca="yes", trustedClients="yes", managmentGroup="kwweb")
        device.service("shop", ca="yes", trustedClients="yes")
        self.pipes = device.host(f"{PIPES}/web")
        self.box = device.host(BOX)
        self.asked_network = 0

    def own_folder(self, path, user=MEMBER):
        os.mkdir(self.device.host(path))
        os.chown(self.device.host(path), identity(user)[0], identity(user)[1][0])

    def run_services(self):
        self.device.start()
        self.guard()

    # What must stay as it is.

    def guard(self):
        """Remembers everything of root's and of the other service's store."""
        self.keys = [f"{KEYWARD}/shop/server/{self.device.active('shop')}.key"]
        self.guarded = self.state()

    def state(self):
        roots = [ROOTS, KEYWARD, f"{KEYWARD}/shop"]
        paths = roots + [f"{root}/{name}" for root in (ROOTS, f"{KEYWARD}/shop")
                         for name in self.device.listing(root)]
        # A start makes the pipes anew, and then they are to be just so again.
        paths += [PIPES, f"{PIPES}/shop", f"{PIPES}/shop/server", f"{PIPES}/shop/ca", f"{PIPES}/shop/client"]
        # What a start adds once to a certificate, for its owner to write into.
        return {path: self.look(path) for path in paths if not path.endswith(".overwrite")}

    def look(self, path):
        info = os.lstat(self.device.host(path)) if self.device.exists(path) else None
        if info is None:
            return None
        # A failure shows what has changed, and no key.
        content = hashlib.sha256(self.device.read(path)).hexdigest()[:12] if stat.S_ISREG(info.st_mode) else None
        return stat.filemode(info.st_mode), info.st_uid, info.st_gid, content

    def assert_unharmed(self):
        """Whatever the member did: what is not his has the bytes, the mode and the owners that it had."""
        found = self.state()
        harmed = [f"{path}: {before} has become {found.get(path)}" for path, before in self.guarded.items()
                  if found.get(path) != before]
        self.assertEqual(len(harmed), 0, "\n".join(harmed[:5]))
        self.assertEqual(sorted(set(found) - set(self.guarded)), [], "planted")
        self.assertEqual(self.files_of_the_member_in(KEYWARD), [])

    def files_of_the_member_in(self, path):
        return [name for name in self.device.listing(path)
                if os.lstat(self.device.host(f"{path}/{name}")).st_uid == MEMBER_ID]

    # The attacker.

    @contextlib.contextmanager
    def hostile(self, *words, user=MEMBER, cwd=None):
        helper = Helper(self.device, user, words, cwd)
        self.addCleanup(helper.stop)
        try:
            yield helper
        finally:
            helper.stop()

    @contextlib.contextmanager
    def never_readable(self):
        """All the while the member tries to read the keys of the other service."""
        helper = Helper(self.device, MEMBER, ["read", "60", "0", *(self.device.host(key) for key in self.keys)])
        self.addCleanup(helper.stop)
        try:
            yield
        finally:
            done = helper.stop()
        self.assertEqual(done, 0, "the member has read a key of another service")

    def plant(self, kind, path):
        """One thing, once."""
        helper = Helper(self.device, MEMBER, ["plant", "5", "1", kind, self.device.host(path)])
        self.assertTrue(wait_until(lambda: self.device.exists(path), 5))
        self.assertEqual(helper.stop(), 1)

    def in_pipes(self, *names):
        return [f"{self.pipes}/{name}" for name in names]

    # The services.

    def ask(self, *fields, timeout=5):
        """The answer of the member's own service."""
        with acting_as(MEMBER):
            return self.device.channel("web").ask(*fields, timeout=timeout)

    def restart(self):
        self.assertEqual(self.device.stop(), 10, self.device.log_text())
        self.device.start()

    def crash(self):
        """Leaves the pipes of a daemon behind that had no time to remove them."""
        if self.device.daemon.running:
            self.device.daemon.signal(9)
            self.assertEqual(self.device.daemon.wait_exit(), -9)
        for path in (LOCK, PID):
            self.device.remove(path)

    def assert_serves(self, service="shop"):
        begin = time.monotonic()
        self.assertEqual(self.device.channel(service).ask_locked("config", "status", timeout=5), (0, "running"))
        self.assertLess(time.monotonic() - begin, limit(5))

    def assert_comes_back(self, service="web", within=5):
        """It answers within some seconds; more than one may be lost on the way."""
        answers = []

        def answered():
            try:
                answers.append(self.device.channel(service).ask("config", "status", timeout=1))
            except (NoAnswer, AssertionError, OSError) as failure:
                answers.append(failure)
            return answers[-1] == (0, "running")
        self.assertTrue(wait_until(answered, within, 0.05), f"{service} does not answer: {answers[-1]!r}")

    def assert_others_are_told(self):
        """A change of the network reaches the other service."""
        told = self.device.log_lines().count(SHOP_CHECKED)
        self.asked_network += 1
        self.device.notify("n")
        self.device.wait_log(*SHOP_CHECKED, count=told + 1, timeout=5)
        self.device.wait_log(*NETWORK_DONE, count=self.asked_network, timeout=5)

    def assert_stops(self):
        begin = time.monotonic()
        self.device.daemon.signal(15)
        self.assertEqual(self.device.daemon.wait_exit(5), 10, self.device.log_text())
        self.assertLess(time.monotonic() - begin, limit(5))

    def assert_small(self):
        """The daemon has never taken much memory. A sanitizer does, whatever it runs."""
        if not SETTINGS.sanitizer:
            self.assertLess(int(status_of(self.device.daemon.pid)["VmHWM"].split()[0]), MOST_MEMORY)
