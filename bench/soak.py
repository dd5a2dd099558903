#!/usr/bin/python3
"""Years of a device's life in minutes: many services, many requesters, a network and a clock that keep changing.

usage: KEYWARDD_TESTCLOCK=PATH-OF-keywardd_testclock KEYWARDD=PATH-OF-keywardd soak.py [operations [services]]   (as root)

Several requesters at once renew, reload, add, revoke and ask, each under the lock file of its service; between them
the device's addresses change and its clock jumps, until certificates end. Every answer is checked, every certificate
that was made or taken has to reach its owner's script, and what the process holds (descriptors, threads, resident
memory) must be the same at the end as it was when everything had been done a few times.
"""
import collections
import calendar
import os
import random
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "process"))
from kwtest import certificates  # noqa: E402
from kwtest.device import KEYWARD, NETWORK, Device  # noqa: E402
from kwtest.isolation import Isolation  # noqa: E402
from kwtest.process import become_subreaper, status_of  # noqa: E402
from kwtest.settings import SETTINGS  # noqa: E402
from kwtest.syslog import ERR, NOTICE  # noqa: E402

DAY = 86400
BEGIN = calendar.timegm((2027, 1, 1, 12, 0, 0))
CLOCK_STEP = 45 * DAY
REQUESTERS = 4
CLIENTS = 4
# Resident memory that may come and go with the allocator's arenas.
MEMORY_SLACK_KIB = 1024

Sample = collections.namedtuple("Sample", "operations descriptors threads resident_kib")


class Soak:
    def __init__(self, device, operations, services):
        self.device = device
        self.operations = operations
        self.services = [f"service{number}" for number in range(services)]
        self.random = random.Random(20270101)
        self.done = 0
        self.counts = collections.Counter()
        self.expected = collections.Counter()
        self.failures = []
        self.guard = threading.Lock()
        self.stored = {service: {} for service in self.services}
        self.busy = {service: threading.Lock() for service in self.services}
        self.clock = BEGIN
        self.address = 5

    def prepare(self):
        pki = certificates.Pki()
        for number in range(CLIENTS):
            self.device.write(f"/srv/clients/client{number}.pem", pki.leaf(f"Client {number}"))
        self.device.set_clock(self.clock)
        self.device.configure(TimeDriftSleepTime="1", TimeDriftThresholdValue="5")
        for service in self.services:
            self.device.service(service, ca="yes", trustedClients="yes", selfSignedValidity="30",
                                selfSignedOnExpiration="yes", includeFQDN="yes", **{
                                    "networkInterface.0": "eth0", "includeIPv4.0": "yes"})
        self.device.start()

    # What is done, and what must come of it.

    def ask(self, service, *fields):
        code, text = self.device.channel(service).ask_locked(*fields, timeout=60)
        return code, text

    def must(self, service, *fields):
        code, text = self.ask(service, *fields)
        if code != 0:
            with self.guard:
                self.failures.append(f"{service} {fields}: {code} {text}")
        return text

    def status(self, service):
        if self.must(service, "config", "status") != "running":
            with self.guard:
                self.failures.append(f"{service} is not running")

    def describe(self, service):
        self.must(service, "server", "getcertinfo", f"{KEYWARD}/{service}/server/{self.device.active(service)}")

    def renew(self, service):
        self.must(service, "server", "revoke")

    def request(self, service):
        self.must(service, "server", "createcsr")

    def reload(self, service):
        self.must(service, "config", "reload")

    def change_store(self, service):
        stored = self.stored[service]
        client = self.random.randrange(CLIENTS)
        with self.busy[service]:
            if client in stored:
                self.must(service, "client", "revoke", stored.pop(client))
                word = "revoke"
            else:
                stored[client] = self.must(service, "client", "add", f"/srv/clients/client{client}.pem")
                word = "new"
        with self.guard:
            self.expected[service, "client", word] += 1

    def change_network(self):
        self.address = self.address % 250 + 1
        self.device.network({**NETWORK, "ipv4.0.0": f"10.0.0.{self.address}"})
        self.notify("n", "Notification reload network completed")

    def change_clock(self):
        self.clock += CLOCK_STEP
        self.device.set_clock(self.clock)
        self.notify("t", "Time reload notification completed")

    def notify(self, character, completed):
        self.counts[completed] += 1
        self.device.notify(character, timeout=60)
        self.device.wait_log(NOTICE, completed, count=self.counts[completed], timeout=120)

    # The run.

    def one(self):
        action = self.random.choices((self.status, self.describe, self.request, self.renew, self.reload,
                                      self.change_store), (30, 10, 8, 12, 5, 35))[0]
        action(self.random.choice(self.services))

    def requester(self, until):
        while True:
            with self.guard:
                if self.done >= until or len(self.failures) > 20:
                    return
                self.done += 1
            try:
                self.one()
            except Exception as error:  # a requester that is left alone is a finding like any other
                with self.guard:
                    self.failures.append(repr(error))

    def stage(self, until):
        """Operations up to a count, the device changing meanwhile; everything is at rest at the end."""
        threads = [threading.Thread(target=self.requester, args=(until,)) for _ in range(REQUESTERS)]
        for thread in threads:
            thread.start()
        while any(thread.is_alive() for thread in threads):
            self.change_network()
            self.change_clock()
            with self.guard:
                self.done += 2
            time.sleep(0.2)
        for thread in threads:
            thread.join()

    def sample(self):
        """What the process holds once it rests: no script runs, no reload ends."""
        readings = [self.reading()]
        for _ in range(100):
            time.sleep(0.1)
            readings.append(self.reading())
            if len(set(readings[-5:])) == 1 and len(readings) >= 5:
                break
        return readings[-1]

    def reading(self):
        pid = self.device.daemon.pid
        status = status_of(pid)
        return Sample(self.done, len(os.listdir(f"/proc/{pid}/fd")), int(status["Threads"]),
                      int(status["VmRSS"].split()[0]))

    def mismatches(self):
        """Services whose active key and certificate do not belong together."""
        found = []
        for service in self.services:
            path = f"{KEYWARD}/{service}/server/{self.device.active(service)}"
            certificate = certificates.load(self.device.read(path))
            key = certificates.load_key(self.device.read(path + ".key"))
            if certificates.public_bytes(certificate) != certificates.public_bytes(key):
                found.append(service)
        return found

    def lost_callbacks(self):
        """What the owners' script was not told, or was told too often."""
        told = collections.Counter()
        for service, *words in self.device.calls():
            if words[0] in ("server", "client") and words[1] in ("new", "revoke"):
                told[service, words[0], words[1]] += 1
        expected = collections.Counter(self.expected)
        for severity, text in self.device.log_lines():
            if severity == NOTICE and text.startswith("New certificate with id '"):
                expected[text.split("'")[3], "server", "new"] += 1
        return {what: (expected[what], told[what]) for what in expected | told if expected[what] != told[what]}


def report(soak, samples):
    print(f"{'':10} operations  descriptors  threads  resident KiB")
    for name, sample in zip(("start", "middle", "end"), samples):
        print(f"{name:10} {sample.operations:10}  {sample.descriptors:11}  {sample.threads:7}  {sample.resident_kib:12}")
    told = soak.device.calls()
    years = (soak.clock - BEGIN) / DAY / 365.25
    print(f"services {len(soak.services)}, years passed {years:.1f}, calls of the owners' script {len(told)}, "
          f"certificates made {sum(1 for call in told if call[1:3] == ('server', 'new'))}")


def drift(start, end):
    found = [name for name in ("descriptors", "threads") if getattr(start, name) != getattr(end, name)]
    if end.resident_kib > start.resident_kib + MEMORY_SLACK_KIB:
        found.append("resident memory")
    return found


def main():
    operations = int(sys.argv[1]) if len(sys.argv) > 1 else int(os.environ.get("SOAK_OPERATIONS", "20000"))
    services = int(sys.argv[2]) if len(sys.argv) > 2 else 20
    SETTINGS.check()
    become_subreaper()
    device = Device(Isolation(SETTINGS.isolation))
    try:
        soak = Soak(device, operations, services)
        soak.prepare()
        samples, wrong = [], []
        # The first tenth fills caches, arenas and the loader's tables.
        for until in (operations // 10, operations // 2, operations):
            soak.stage(until)
            samples.append(soak.sample())
            wrong += soak.mismatches()
        report(soak, samples)
        lost = soak.lost_callbacks()
        errors = [text for severity, text in device.log_lines() if severity <= ERR]
        drifted = [] if "thread" in SETTINGS.sanitizer or "address" in SETTINGS.sanitizer else drift(samples[0], samples[-1])
        exit_code = device.stop()
        findings = {"failed operations": soak.failures, "mismatched pairs": wrong, "lost or repeated callbacks": lost,
                    "lines at ERR": errors, "drift": drifted, "sanitizer reports": device.reports(),
                    "exit status": [] if exit_code == 10 else [exit_code]}
    finally:
        device.close()
    for name, found in findings.items():
        print(f"{name}: {len(found)}{'' if not found else ' ' + str(found)[:2000]}")
    sys.exit(1 if any(findings.values()) else 0)


if __name__ == "__main__":
    main()
