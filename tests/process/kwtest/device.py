"""One device: its accounts, configuration, scripts, log and daemon, in a root folder of its own."""

import contextlib
import os
import stat
import time

from .channel import Channel, write_fifo
from .process import DaemonProcess, limit, wait_until
from .settings import SETTINGS
from .syslog import LogCollector

CONFIGURATION = "/etc/keywarden/config.daemon"
SERVICES = "/etc/keywarden/services"
KEYWARD = "/var/lib/keyward"
PIPES = "/run/keywarden/pipes"
LOCK = "/run/keywarden/keywardd.lock"
PID = "/run/keywarden/keywardd.pid"
SCRIPTS = "/opt/scripts"
WORK = "/srv/scratch"
CALLBACK = "/opt/hooks/callback"
PROGRAM = "/opt/keyward/keywardd"
CLOCK = "/etc/keywarden/test-clock-offset"
# Where libfaketime looks when no variable names a file: the daemon keeps none of its starter's.
FAKETIME = "/etc/faketimerc"
REPORTS = "/srv/reports"

USERS = {"root": (0, 0), "keyuser": (4242, 4242), "operator": (4300, 4300), "stranger": (4301, 4301)}
GROUPS = {
    "root": (0, ""),
    "keyuser": (4242, ""),
    "kwnotify": (4250, "keyuser,operator"),
    "kwmgmt": (4251, "keyuser,operator"),
    "kwkey": (4252, "keyuser"),
    "kwforeign": (4253, "operator"),
    "operator": (4300, ""),
    "stranger": (4301, ""),
}
DAEMON_SETTINGS = {
    "keywardDirectory": KEYWARD,
    "notificationGroup": "kwnotify",
    "serviceConfigDirectory": SERVICES,
    "namePipesDirectory": PIPES,
    "daemonUser": "keyuser",
    "scriptsDirectory": SCRIPTS,
    "lockFile": LOCK,
    "pidFile": PID,
}
SERVICE_SETTINGS = {
    "managmentGroup": "kwmgmt",
    "keyGroup": "kwkey",
    "callbackScript": CALLBACK,
    "server": "yes",
    "selfSignedGeneration": "yes",
    "cnfFile": "/etc/keywarden/service.cnf",
}
REQUEST_SETTINGS = {"CONFIG_KEY": "PRIME256V1", "C": "DE", "ST": "BY", "L": "Hof", "O": "Acme", "OU": "Ops",
                    "CN": "device.test", "basicConstraints": "CA:FALSE"}
NETWORK = {"interface.0": "eth0", "mac.0": "02:00:00:00:00:01", "ipv4.0.0": "10.0.0.5", "fqdn.0": "unit42.test"}


def settings_text(settings):
    return "".join(f"{key} {value}\n" for key, value in settings.items() if value is not None)


class Device:
    def __init__(self, isolation):
        self.clock_offset = None
        self.extra_environment = {}
        self.daemon = None
        self._daemons = []
        programs = {PROGRAM: SETTINGS.binary}
        if SETTINGS.testclock_binary:
            programs[PROGRAM + "_testclock"] = SETTINGS.testclock_binary
        self.root = isolation.make_root(programs)
        try:
            self.log = LogCollector(self.host("/dev/log"))
            os.chmod(self.host("/dev/log"), 0o666)
            self._furnish()
        except BaseException:
            self.root.close()
            raise

    def close(self):
        for daemon in reversed(self._daemons):
            daemon.kill()
        self.log.close()
        self.root.close()

    def host(self, path):
        return self.root.host(path)

    # What a device brings along.

    def _furnish(self):
        self.accounts(GROUPS)
        self.write("/etc/nsswitch.conf", "passwd: files\ngroup: files\n")
        os.symlink("../run", self._in_new_folder("/var/run"))
        for folder, mode in ((WORK, 0o777), (REPORTS, 0o777), (SERVICES, 0o755), ("/var/lib", 0o755)):
            self.root.make_folder(folder, mode)
        for folder in ("/run/ready", "/run/keywarden"):
            self.root.make_folder(folder)
            os.chown(self.host(folder), 4242, 4242)
        self.write(CONFIGURATION, settings_text(DAEMON_SETTINGS))
        self.write(SERVICE_SETTINGS["cnfFile"], settings_text(REQUEST_SETTINGS))
        self.recording_script(CALLBACK)
        self.script(f"{SCRIPTS}/network.sh", f"cat {SCRIPTS}/network.txt")
        self.network(NETWORK)

    def _in_new_folder(self, path):
        self.root.make_folder(os.path.dirname(path))
        return self.host(path)

    def accounts(self, groups):
        self.write("/etc/passwd", "".join(f"{name}:x:{uid}:{gid}::/:/bin/sh\n"
                                          for name, (uid, gid) in USERS.items()))
        self.write("/etc/group", "".join(f"{name}:x:{gid}:{members}\n" for name, (gid, members) in groups.items()))

    def write(self, path, content, mode=0o644):
        """Replaces a file at one go: readers of the running daemon see the old or the new one."""
        host = self._in_new_folder(path)
        with open(host + ".new", "wb") as file:
            file.write(content.encode() if isinstance(content, str) else content)
        os.chmod(host + ".new", mode)
        os.rename(host + ".new", host)

    def read(self, path):
        with open(self.host(path), "rb") as file:
            return file.read()

    def script(self, path, body, mode=0o755):
        self.write(path, f"#!/bin/sh\n{body}\n", mode)

    def recording_script(self, path, record="calls", body=""):
        """A script that appends its arguments to a file and then does what `body` says."""
        self.script(path, 'line=; for word in "$@"; do line="$line$word\t"; done\n'
                          f'echo "$line" >> {WORK}/{record}\n{body}')

    def calls(self, record="calls"):
        """The argument lists that a recording script was run with."""
        try:
            return [tuple(line.split("\t")[:-1]) for line in self.read(f"{WORK}/{record}").decode().splitlines()]
        except FileNotFoundError:
            return []

    def configure(self, **changes):
        """Writes the daemon's configuration; None leaves a key out."""
        self.write(CONFIGURATION, settings_text({**DAEMON_SETTINGS, **changes}))

    def service(self, service, **changes):
        """Writes a service's file; None leaves a key out."""
        self.write(f"{SERVICES}/{service}.conf", settings_text({**SERVICE_SETTINGS, **changes}))

    def request_settings(self, path, **changes):
        self.write(path, settings_text({**REQUEST_SETTINGS, **changes}))
        return path

    def network(self, entries):
        """What the platform reports as the network from now on."""
        self.write(f"{SCRIPTS}/network.txt", settings_text(entries))

    # The clock.

    def set_clock(self, moment):
        """The daemon's wall clock, in seconds since the epoch; it goes on from there. The first call must
        come before the start."""
        self.clock_offset = moment - time.time()
        for path in (CLOCK, FAKETIME):
            self.write(path, f"{self.clock_offset:+.3f}")

    def now(self):
        return time.time() + (self.clock_offset or 0)

    # The daemon.

    def start(self, *arguments, ready=True, user=None):
        """Starts the daemon. With `ready` it must come up, and this returns when it is ready."""
        prefix = ["setarch", "-R"] if "thread" in SETTINGS.sanitizer else []
        prefix += ["chroot"] + (user or []) + [self.root.path] + SETTINGS.memcheck(REPORTS)
        self.daemon = DaemonProcess(prefix + [self._program(), *arguments], self.environment(),
                                    self.host("/srv/stderr"))
        self._daemons.append(self.daemon)
        if ready:
            self.wait_ready()
        return self.daemon

    def wait_ready(self, timeout=20.0):
        if self.daemon.wait_parent() != 0:
            raise AssertionError(f"the daemon ended with {self.daemon.parent_status}:\n{self.log_text()}")
        marker = self.host(f"/run/ready/{self.daemon.pid}")
        if not wait_until(lambda: os.path.exists(marker) or not self.daemon.running, timeout) or \
                not os.path.exists(marker):
            raise AssertionError(f"the daemon did not become ready:\n{self.log_text()}")

    def _program(self):
        if self.clock_offset is None or SETTINGS.faketime:
            return PROGRAM
        if not SETTINGS.testclock_binary:
            raise AssertionError("no way to set the daemon's clock: install libfaketime or build keywardd_testclock")
        return PROGRAM + "_testclock"

    def environment(self):
        """What the daemon is started with; nothing of the caller's own."""
        # A cancelled thread unwinds without telling the address sanitizer, whose own clean-up of an alternative
        # signal stack then trips over the marks of frames that are gone.
        environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LANG": "C",
                       "ASAN_OPTIONS": f"log_path={REPORTS}/asan:exitcode=66:detect_leaks=1:use_sigaltstack=0",
                       "UBSAN_OPTIONS": f"log_path={REPORTS}/ubsan:print_stacktrace=1:exitcode=66",
                       "TSAN_OPTIONS": f"log_path={REPORTS}/tsan:exitcode=66:die_after_fork=0",
                       **self.extra_environment}
        if self.clock_offset is not None and SETTINGS.faketime:
            environment.update(LD_PRELOAD=SETTINGS.faketime, FAKETIME_NO_CACHE="1",
                               FAKETIME_DONT_FAKE_MONOTONIC="1", NO_FAKE_STAT="1", FAKETIME_DISABLE_SHM="1")
        return environment

    def stop(self, timeout=15.0):
        """An orderly stop; returns the exit code."""
        self.daemon.signal(15)
        return self.daemon.wait_exit(timeout)

    def stderr(self):
        return self.read("/srv/stderr").decode("utf-8", "replace")

    def reports(self):
        """What the sanitizers and memcheck found, by file. Memcheck always leaves one, and in it, behind "--", what it
        says of itself, such as system calls it does not know."""
        found = {name: self.read(f"{REPORTS}/{name}").decode("utf-8", "replace")
                 for name in sorted(os.listdir(self.host(REPORTS)))}
        return {name: text for name, text in found.items()
                if not name.startswith("memcheck") or any(line[:2] != "--" for line in text.splitlines())}

    # Its log.

    def log_lines(self, pid=None):
        """(severity, text) of every line so far, of one process when asked."""
        return [(line.severity, line.text) for line in self.log.lines() if pid in (None, line.pid)]

    def log_text(self):
        return "".join(f"<{line.severity}> [{line.pid}] {line.text}\n" for line in self.log.lines())

    def wait_log(self, severity, text, count=1, timeout=15.0):
        """Waits for the count-th line of exactly this severity and text."""
        def seen(lines):
            return sum(1 for line in lines if (line.severity, line.text) == (severity, text)) >= count
        if not self.log.wait(seen, limit(timeout)):
            raise AssertionError(f"not logged {count} times: <{severity}> {text!r}\nlogged:\n{self.log_text()}")

    # Its interfaces.

    def channel(self, service):
        return Channel(self.host(f"{PIPES}/{service}"), service)

    def notify(self, characters, timeout=10.0):
        data = characters.encode() if isinstance(characters, str) else characters
        write_fifo(self.host(f"{PIPES}/notification.signal"), data, timeout)

    # Its files.

    def rights(self, path):
        """(kind, mode, owner, group) with the kind as ls shows it."""
        info = os.lstat(self.host(path))
        owners = {uid: name for name, (uid, _) in USERS.items()}
        groups = {gid: name for name, (gid, _) in GROUPS.items()}
        return (stat.filemode(info.st_mode)[0], stat.S_IMODE(info.st_mode), owners.get(info.st_uid, info.st_uid),
                groups.get(info.st_gid, info.st_gid))

    def exists(self, path):
        return os.path.lexists(self.host(path))

    def listing(self, path):
        """Every file below a folder, by its path from there."""
        found = []
        for folder, folders, files in os.walk(self.host(path)):
            found += [os.path.relpath(os.path.join(folder, name), self.host(path)) for name in folders + files]
        return sorted(found)

    def active(self, service):
        return self.read(f"{KEYWARD}/{service}/server/.cacheddata/active.txt").decode()

    def remove(self, path):
        with contextlib.suppress(FileNotFoundError):
            os.unlink(self.host(path))
