"""Every call of the C library that can fail fails once, in requests, notifications, reloads and starts.

A library that is preloaded into the daemon (failing/failing_calls.c) counts the calls of each function from a moment on
and fails the chosen one. The daemon may refuse what it was asked for, but it has to answer, to stay whole and to serve
the next.

FAULT_STEP        every which fault is tried; 1: all of them
FAULT_MEMORY_STEP the same for the functions that reserve memory, which are called by the thousand
FAULT_FUNCTIONS   names of functions, separated by blanks: only these
FAULT_OPERATIONS  the same for operations
FAULT_OFFSET      which of the first faults is the first one
"""

import collections
import errno
import mmap
import os
import re
import struct
import subprocess
import time

from cryptography.exceptions import InvalidSignature

from kwtest import Case, certificates, main
from kwtest.case import isolation
from kwtest.channel import NoAnswer
from kwtest.device import CLOCK, KEYWARD, LOCK, NETWORK, PID, PIPES, PROGRAM, WORK, Device
from kwtest.process import status_of, wait_until
from kwtest.settings import SETTINGS
from kwtest.syslog import EMERG, ERR, NOTICE

LIBRARY = os.environ.get("KEYWARDD_FAILING_CALLS", "")
STEP = int(os.environ.get("FAULT_STEP", "13"))
MEMORY_STEP = int(os.environ.get("FAULT_MEMORY_STEP", str(STEP * 40)))
OFFSET = int(os.environ.get("FAULT_OFFSET", "0"))
FUNCTIONS = os.environ.get("FAULT_FUNCTIONS", "").split()
OPERATIONS = os.environ.get("FAULT_OPERATIONS", "").split(",") if os.environ.get("FAULT_OPERATIONS") else []
MEMORY = ("malloc", "calloc", "realloc")
# A start logs that these have failed and goes on, as it is described.
LOGGED_ONLY = ("setgroups", "setregid", "setreuid")
SERVICES = ("pkiroot", "leaf", "web")
ANSWER = 3.0
DAY = 86400
FAILURE = 12

# What each function fails with; those that are not named fail with EIO.
ERRORS = {
    errno.EMFILE: "dup dup3 eventfd fopen memfd_create nftw open openat opendir pipe2 signalfd syscall",
    errno.ENOMEM: "calloc malloc realloc fdopendir fstat fstatat lstat stat statx",
    errno.ENOSPC: "mkdir mkdirat mkfifo mkfifoat rename renameat write writev",
    errno.EAGAIN: "fork posix_spawn pthread_create setreuid",
    errno.EPERM: "chmod chown fchmod fchmodat fchown fchownat lchown prctl setgroups setregid",
    errno.EINTR: "clock_nanosleep close flock poll waitpid",
    errno.EACCES: "access",
}
ERROR_OF = {name: number for number, names in ERRORS.items() for name in names.split()}


class Faults:
    """The file that this program and the library share; the layout is that of struct Control."""

    NAME, FRAMES, LISTED = 24, 24, 80
    HEADER = struct.Struct(f"{NAME}sQqQ{FRAMES}Q128s")
    ENTRY = struct.Struct(f"{NAME}sQ")

    def __init__(self, path):
        size = self.HEADER.size + self.LISTED * self.ENTRY.size
        with open(path, "w+b") as file:
            file.truncate(size)
            self.place = mmap.mmap(file.fileno(), size)

    def _entries(self):
        for number in range(self.LISTED):
            offset = self.HEADER.size + number * self.ENTRY.size
            name, calls = self.ENTRY.unpack_from(self.place, offset)
            if name[0]:
                yield offset, name.rstrip(b"\0").decode(), calls

    def counts(self):
        return {name: calls for _, name, calls in self._entries()}

    def arm(self, function="", number=0):
        """Counts from here on; the call of this number fails."""
        self.HEADER.pack_into(self.place, 0, b"", 0, 0, 0, *[0] * self.FRAMES, b"")
        for offset, name, _ in self._entries():
            self.ENTRY.pack_into(self.place, offset, name.encode(), 0)
        self.HEADER.pack_into(self.place, 0, function.encode(), number, ERROR_OF.get(function, errno.EIO), 0,
                              *[0] * self.FRAMES, b"")

    def disarm(self):
        """Whether the call came, from where, and what it was about."""
        _, _, _, fired, *frames, detail = self.HEADER.unpack_from(self.place, 0)
        self.arm()
        return fired, [frame for frame in frames if frame], detail.rstrip(b"\0").decode(errors="replace")

    def settle(self):
        """Waits until the daemon makes no calls any more."""
        before, still = None, 0
        while still < 2:
            now = self.counts()
            still = still + 1 if now == before else 0
            before = now
            time.sleep(0.006)


TOTAL = collections.Counter()


def tearDownModule():  # noqa: N802, the name that the module of tests wants
    print(f"faults injected {TOTAL['injected']}, refused {TOTAL['refused']}, bad {TOTAL['bad']}", flush=True)


class FaultDevice(Device):
    def _program(self):
        return PROGRAM + "_testclock"


Finding = collections.namedtuple("Finding", "operation function number symptom where detail")


class Failing(Case):
    """One operation a test, on a device of its own."""

    def new_device(self):
        device = FaultDevice(isolation())
        self.addCleanup(self._close, device)
        return device

    def setUp(self):
        super().setUp()
        device = self.device
        with open(LIBRARY, "rb") as library:
            device.write("/opt/failing_calls.so", library.read(), 0o755)
        self.faults = Faults(device.host("/srv/faults"))
        device.extra_environment = {"LD_PRELOAD": "/opt/failing_calls.so", "KWTEST_FAULTS": "/srv/faults"}
        device.configure(continueOnServiceFailure="yes")
        self.days = self.turns = 0
        device.write(CLOCK, "0")
        self.services()
        self.pki = certificates.Pki()
        self.findings, self.contents = [], {}
        self.injected = self.refused = 0

    def services(self):
        device = self.device
        device.request_settings("/etc/keywarden/authority.cnf", CN="Local CA", basicConstraints="critical,CA:TRUE",
                                keyUsage="critical,keyCertSign,cRLSign", subjectKeyIdentifier="hash")
        short = {"selfSignedValidity": "5", "CASignedValidity": "5", "includeFQDN": "yes",
                 "selfSignedOnExpiration": "yes"}
        device.service("pkiroot", cnfFile="/etc/keywarden/authority.cnf", **short)
        device.service("leaf", selfSignedGeneration=None, CASignedGeneration="yes", CAServiceId="pkiroot", **short)
        device.service("web", ca="yes", trustedClients="yes", **short)

    # The daemon.

    def start(self):
        self.faults.arm()
        self.device.start()
        self.faults.settle()
        self.threads = self.count_threads()

    def restart(self):
        """After a fault that left something behind, so that the next one meets a whole daemon."""
        self.device.daemon.kill()
        self.device.remove(LOCK)
        self.device.remove(PID)
        self.start()
        self.empty_stores()

    def count_threads(self):
        return len(os.listdir(f"/proc/{self.device.daemon.pid}/task"))

    def ask(self, *fields, service="web"):
        """The answer, or None when none came in time."""
        try:
            return self.device.channel(service).ask(*fields, timeout=ANSWER)
        except (NoAnswer, OSError):
            return None

    def notify(self, character, completed):
        start = len(self.device.log.lines())
        self.device.notify(character)
        self.device.log.wait(lambda lines: any(line.text.startswith((completed, "Stopping with the code"))
                                               for line in lines[start:]), ANSWER)
        return (0, "") if (NOTICE, completed) in self.device.log_lines()[start:] else None

    # What holds after each fault. Each of these gives what is wrong.

    def wrong_with_daemon(self):
        daemon = self.device.daemon
        if not daemon.running:
            lines = self.device.log_lines(daemon.pid)
            last = lines[-1][1] if lines else ""
            ended = f"signal {-daemon.exit_status}" if daemon.exit_status < 0 else f"code {daemon.exit_status}"
            return [f"the daemon ended by {ended}: {last[:150]}"]
        if not wait_until(lambda: self.count_threads() == self.threads, 1.0):
            return [f"{self.count_threads()} threads instead of {self.threads}"]
        return []

    def wrong_with_status(self, excepted=()):
        wrong = []
        for service in SERVICES:
            answer = self.ask("config", "status", service=service)
            if answer != (0, "running") and (service, answer) not in excepted:
                wrong.append(f"status of {service}: {answer}")
        return wrong

    def wrong_with_pairs(self):
        wrong = []
        for service in SERVICES:
            path = f"{KEYWARD}/{service}/server/{self.device.active(service)}"
            try:
                pair = certificates.load(self.device.read(path)), certificates.load_key(self.device.read(path + ".key"))
                if len({certificates.public_bytes(half) for half in pair}) != 1:
                    wrong.append(f"the key of {service} is another certificate's")
                wrong += self.wrong_with_contents(service, pair[0])
            except (OSError, ValueError) as error:
                wrong.append(f"no pair of {service}: {error}")
        return wrong

    def wrong_with_contents(self, service, certificate):
        """Of one that the daemon has made by itself: its signature, and nothing is missing."""
        if certificate.issuer == self.pki.name:
            return []
        wrong = []
        if certificate.issuer == certificate.subject:
            try:
                certificates.is_signed_by(certificate, certificate)
            except InvalidSignature:
                wrong.append(f"the signature of the certificate of {service} is wrong")
        contents = (certificate.subject, {extension.oid for extension in certificate.extensions})
        if self.contents.setdefault(service, contents) != contents:
            wrong.append(f"the certificate of {service} has lost its subject or extensions: {contents}")
        return wrong

    def in_store(self, store):
        return [name for name in self.device.listing(f"{KEYWARD}/web/{store}")
                if re.fullmatch(r"[0-9a-f]{8}\.\d", name)]

    def wrong_with_stores(self):
        wrong = []
        for store in ("ca", "client"):
            files = self.in_store(store)
            for index in (f"{KEYWARD}/web/{store}/.cacheddata/list.txt", f"{PIPES}/web/{store}/id_cn.map"):
                try:
                    listed = sorted(line.split(" ")[0] for line in self.device.read(index).decode().splitlines())
                except OSError as error:
                    listed = error
                if listed != files:
                    wrong.append(f"{store}: files {files}, {os.path.basename(index)} {listed}")
        return wrong

    def wrong_with_temporaries(self, *more):
        """A journal whose change is on the disk may stay until the next change."""
        return [f"left behind: {name}" for name in self.device.listing(KEYWARD)
                if re.match(r"\..*\.new\Z", os.path.basename(name)) or os.path.basename(name) in more]

    def empty_stores(self):
        """Whatever is listed can be revoked; afterwards the stores are empty."""
        wrong = []
        for store in ("ca", "client"):
            files = self.in_store(store)
            if files:
                answer = self.ask(store, "revoke", *files)
                if answer != (0, " ".join(files)) and (not answer or answer[0] != 0 or self.in_store(store)):
                    wrong.append(f"{store} revoke of {files}: {answer}, left {self.in_store(store)}")
        return wrong

    # One fault.

    def inject(self, operation, function, number):
        operation.prepare(self)
        self.faults.settle()
        told = len(self.device.calls())
        before = operation.state(self)
        self.faults.arm(function, number)
        answer = operation.run(self)
        self.faults.settle()
        fired, frames, detail = self.faults.disarm()
        if not fired:
            return False
        self.injected += 1
        wrong = self.judge(operation, answer, before, told)
        if wrong:
            where = symbols(frames)
            self.findings += [Finding(operation.name, function, number, text, where, detail) for text in wrong]
            self.restart()
        return True

    def judge(self, operation, answer, before, told):
        described = operation.described(answer)
        if described and self.device.daemon.running and not self.wrong_with_status(described):
            self.refused += 1
            self.restart()
        wrong = self.wrong_with_daemon()
        if wrong:
            return wrong
        if answer is None:
            wrong.append("no answer")
        elif answer[0] != 0:
            self.refused += int(not described)
        elif operation.promises and operation.claim(self, before):
            wrong.append(f"answered {answer[0]}, but: {operation.claim(self, before)}")
        if operation.event and operation.state(self) != before and not self.is_told_at_last(operation, told):
            wrong.append(f"the owner was not told of {' '.join(operation.event)}")
        wrong += self.wrong_with_status() + self.wrong_with_pairs() + self.wrong_with_stores()
        wrong += self.wrong_with_temporaries()
        return wrong + ([] if wrong else self.wrong_afterwards(operation))

    def is_told_at_last(self, operation, told):
        """What could not be told for want of something is told by the next start."""
        if self.is_told(operation, told):
            return True
        self.restart()
        return self.is_told(operation, told)

    def is_told(self, operation, told):
        """Of the one service whose state was looked at."""
        service = "leaf" if operation.name.startswith("leaf") else "web"
        return (service, *operation.event) in [call[:3] for call in self.device.calls()[told:]]

    def wrong_afterwards(self, operation):
        wrong = self.empty_stores()
        operation.prepare(self)
        before = operation.state(self)
        answer = operation.run(self)
        if answer is None or answer[0] != 0 or operation.claim(self, before):
            wrong.append(f"the next one without a fault: {answer} {operation.claim(self, before)}")
        return wrong + self.wrong_with_daemon() + self.empty_stores() + self.wrong_with_temporaries(".journal")

    # All faults of an operation.

    def plan(self, counts):
        """(function, number) of what is tried, thinned out."""
        plain = [(name, number) for name in sorted(counts) if name not in MEMORY + LOGGED_ONLY
                 for number in range(1, counts[name] + 1)]
        memory = [(name, number) for name in sorted(counts) if name in MEMORY
                  for number in range(1, counts[name] + 1)]
        chosen = plain[OFFSET % STEP::STEP] + memory[OFFSET % MEMORY_STEP::MEMORY_STEP]
        return [fault for fault in chosen if not FUNCTIONS or fault[0] in FUNCTIONS], len(plain), len(memory)

    def count(self, operation):
        """The calls of an operation without a fault, the second time it is done."""
        for _ in range(2):
            operation.prepare(self)
            self.faults.settle()
            before = operation.state(self)
            self.faults.arm()
            answer = operation.run(self)
            self.faults.settle()
            self.assertTrue(answer and answer[0] == 0, f"{operation.name}: {answer}\n{self.device.log_text()}")
            self.assertFalse(operation.claim(self, before), operation.name)
            self.assertEqual(self.wrong_with_pairs(), [])
            counts = self.faults.counts()
            self.assertEqual(self.empty_stores(), [])
        return counts

    def try_all(self, operation):
        self.start()
        began = time.monotonic()
        plan, plain, memory = self.plan(self.count(operation))
        missed = sum(1 for function, number in plan if not self.inject(operation, function, number))
        self.report(operation.name, plain, memory, missed, began)
        self.faults.arm()
        self.device.stop()

    def report(self, name, plain, memory, missed, began):
        bad = len({finding[:3] for finding in self.findings})
        print(f"{name}: faults possible {plain}, of memory {memory}; injected {self.injected} "
              f"(refused {self.refused}, not reached {missed}), bad {bad}, {time.monotonic() - began:.0f} s",
              flush=True)
        TOTAL.update(injected=self.injected, refused=self.refused, bad=bad)
        for finding in self.findings:
            error = errno.errorcode[ERROR_OF.get(finding.function, errno.EIO)]
            print(f"  {finding.function} {finding.number} | {error} {finding.detail} | {finding.symptom} | "
                  f"{finding.where}", flush=True)
        self.assertEqual(bad, 0, f"{name}: failed calls after which something was wrong, see above")


def symbols(frames):
    """The daemon's own functions on the way to the call, the innermost first."""
    # A return address belongs to the line before it.
    lines = subprocess.run(["addr2line", "-Cfpse", SETTINGS.testclock_binary, *[hex(frame - 1) for frame in frames]],
                           capture_output=True, text=True, check=False).stdout.splitlines()
    own = [re.sub(r"keywarden::|\(anonymous namespace\)::|\(.*\)(?: const)?(?= at )", "", line) for line in lines
           if re.search(r"keywarden::|zlk::|[A-Z]\w+\.cpp:\d", line)]
    return " < ".join(own[:6])


class Operation:
    """What is asked of the daemon. `event`: what its owner is told when it changes something; `promises`: whether the
    answer says that something has changed."""

    def __init__(self, name, run, prepare=None, state=None, event=None, promises=True):
        self.name, self._run, self._prepare, self._state = name, run, prepare, state
        self.event, self.promises = event, promises

    def prepare(self, test):
        if self._prepare:
            self._prepare(test)

    def run(self, test):
        return self._run(test)

    def state(self, test):
        """What the operation changes."""
        return self._state(test) if self._state else None

    def claim(self, test, before):
        """Why a success was none."""
        return "nothing has changed" if self._state and self.state(test) == before else ""

    def described(self, answer):
        """Which services may be in which state: a failed reload leaves a stopped service."""
        return [("web", (0, "stoped"))] if self.name == "reload" and answer and answer[0] == 1 else []


CSR = f"{KEYWARD}/web/server/.cacheddata/csr.csr"
SIGNED = f"{WORK}/signed.pem"
NEW = f"{WORK}/new.pem"


def content(test, path):
    return test.device.read(path) if os.path.isfile(test.device.host(path)) else None


def active_bytes(service):
    return lambda test: content(test, f"{KEYWARD}/{service}/server/{test.device.active(service)}")


def pending(test):
    return content(test, CSR)


def request(test):
    test.ask("server", "createcsr")


def signed(test):
    request(test)
    if pending(test):
        test.device.write(SIGNED, test.pki.sign(pending(test), days=36500))


def fresh(test):
    test.turns += 1
    test.device.write(NEW, certificates.Pki(f"Authority {test.turns % 3}").pem())


def stored(store):
    def prepare(test):
        fresh(test)
        test.ask(store, "add", NEW)
    return prepare


def only(test, store):
    found = test.in_store(store)
    return found[0] if found else "00000000.0"


def changed_network(test):
    test.turns += 1
    test.device.network({**NETWORK, "fqdn.0": f"unit{test.turns}.test"})


def changed_clock(test):
    test.days += 7
    test.device.write(CLOCK, str(test.days * DAY))


def store_operations(store):
    holds = lambda test: test.in_store(store)  # noqa: E731
    return [
        Operation(f"{store} add", lambda test: test.ask(store, "add", NEW), fresh, holds, (store, "new")),
        Operation(f"{store} getcertinfo", lambda test: test.ask(store, "getcertinfo", only(test, store)),
                  stored(store)),
        Operation(f"{store} revoke", lambda test: test.ask(store, "revoke", only(test, store)), stored(store), holds,
                  (store, "revoke")),
    ]


ALL = [
    Operation("status", lambda test: test.ask("config", "status")),
    Operation("createcsr", lambda test: test.ask("server", "createcsr"), None, pending),
    Operation("getcsrinfo", lambda test: test.ask("server", "getcsrinfo"), request),
    Operation("applycrt", lambda test: test.ask("server", "applycrt", SIGNED), signed, active_bytes("web"),
              ("server", "new")),
    Operation("getcertinfo", lambda test: test.ask("server", "getcertinfo",
                                                   f"{KEYWARD}/web/server/{test.device.active('web')}")),
    Operation("revoke", lambda test: test.ask("server", "revoke"), None, active_bytes("web"), ("server", "new")),
    Operation("leaf revoke", lambda test: test.ask("server", "revoke", service="leaf"), None, active_bytes("leaf"),
              ("server", "new")),
    *store_operations("ca"),
    *store_operations("client"),
    Operation("network", lambda test: test.notify("n", "Notification reload network completed"), changed_network,
              active_bytes("web"), ("server", "new"), promises=False),
    Operation("time", lambda test: test.notify("t", "Time reload notification completed"), changed_clock,
              active_bytes("web"), ("server", "new"), promises=False),
    Operation("reload", lambda test: test.ask("config", "reload")),
]


def test_of(operation):
    def test(self):
        self.try_all(operation)
    return test


for _operation in ALL:
    if not OPERATIONS or _operation.name in OPERATIONS:
        setattr(Failing, "test_" + _operation.name.replace(" ", "_"), test_of(_operation))


class Starts(Failing):
    """A start either succeeds or ends with its code and its reason."""

    def begin(self, function="", number=0):
        """Starts with a fault; what is wrong with how that went."""
        self.faults.arm(function, number)
        daemon = self.device.start(ready=False)
        if daemon.wait_parent(20) == 0:
            marker = self.device.host(f"/run/ready/{daemon.pid}")
            came = wait_until(lambda: os.path.exists(marker) or not daemon.running or self.is_announced(), 20)
            if not came:
                return ["neither ready nor ended", *self.wrong_with_rights(daemon.pid)]
            if daemon.running:
                return self.wrong_with_rights(daemon.pid)
            return self.wrong_with_end(daemon.exit_status)
        return self.wrong_with_end(daemon.parent_status)

    @staticmethod
    def wrong_with_rights(pid):
        """The daemon user's and nobody else's."""
        status = status_of(pid)
        ids = {status[kind] for kind in ("Uid", "Gid")}
        return [] if ids == {"\t".join(["4242"] * 4)} else [f"runs with Uid {status['Uid']}, Gid {status['Gid']}"]

    def is_announced(self):
        return any(line.text.startswith("ready(): Failed") for line in self.device.log.lines()[self.logged:])

    def wrong_with_end(self, code):
        lines = [(line.severity, line.text) for line in self.device.log.lines()[self.logged:]]
        said = any(severity == EMERG and text.startswith("Stopping with the code 12 due to") for severity, text in lines)
        # Without a reason in the last line there is an earlier one that has it.
        said = said or ((EMERG, "Stopping with the code 12...") in lines and any(line[0] == ERR for line in lines))
        if code == FAILURE and said:
            self.refused += 1
            return []
        return [f"the start ended by {code}: {lines[-1][1][:150] if lines else 'nothing logged'}"]

    def end(self):
        daemon = self.device.daemon
        if daemon.pid is not None and daemon.running:
            daemon.signal(15)
            daemon.wait_exit(15)
        daemon.kill()
        for path in (LOCK, PID):
            self.device.remove(path)

    def pairs(self):
        paths = [f"{KEYWARD}/{service}/server/{self.device.active(service)}" for service in SERVICES]
        return [self.device.read(path + ending) for path in paths for ending in ("", ".key")]

    def inject_at_start(self, function, number):
        self.logged = len(self.device.log.lines())
        wrong = self.begin(function, number)
        fired, frames, detail = self.faults.disarm()
        self.end()
        if not fired:
            return False
        self.injected += 1
        self.logged = len(self.device.log.lines())
        wrong += [f"afterwards: {text}" for text in self.begin()]
        if self.device.daemon.running:
            wrong += self.wrong_with_status() + self.wrong_with_pairs()
            wrong += self.wrong_with_temporaries(".journal")
            if self.pairs() != self.kept:
                wrong.append("another certificate or key than before")
                self.kept = self.pairs()
            if self.in_store("ca") != self.authorities:
                wrong.append("another authority than before")
        else:
            wrong.append("the start afterwards failed")
        wrong += self.wrong_with_stores()
        self.end()
        where = symbols(frames) if wrong else ""
        self.findings += [Finding("start", function, number, text, where, detail) for text in wrong]
        return True

    def test_start(self):
        self.start()
        stored("ca")(self)
        self.authorities, self.kept = self.in_store("ca"), self.pairs()
        self.end()
        began = time.monotonic()
        self.logged = len(self.device.log.lines())
        self.assertEqual(self.begin(), [])
        plan, plain, memory = self.plan(self.faults.counts())
        self.end()
        missed = sum(1 for fault in plan if not self.inject_at_start(*fault))
        self.report("start", plain, memory, missed, began)


# The operations are tried once, by their own class.
for _name in [name for name in dir(Starts) if name.startswith("test_") and name != "test_start"]:
    setattr(Starts, _name, None)
if OPERATIONS and "start" not in OPERATIONS:
    del Starts.test_start


if __name__ == "__main__":
    if not os.path.isfile(LIBRARY):
        raise SystemExit("KEYWARDD_FAILING_CALLS must name the library that fails calls")
    main()
