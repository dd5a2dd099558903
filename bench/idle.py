#!/usr/bin/python3
"""Starts the daemon with services, lets it idle and tells what that costs.

usage: KEYWARDD=PATH-OF-keywardd idle.py [seconds [services...]]   (as root; 10 seconds, 1, 10 and 100 services)

No system call: a thread that makes one and does not return at once is switched away from, so the count of voluntary
context switches moves; one that returns at once takes processor time. Both counts, of every thread, must stand still.
Memory is told after the start and after each service has made a new certificate, on its own command thread:
anonymous memory, which is the daemon's alone and cannot be read again from any file, and the proportional set size
(PSS), which shares out what several processes map. The limits are for anonymous memory: how much of programs and
libraries is resident depends on what else runs and on how short memory is.
"""
import contextlib
import glob
import os
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "process"))
from kwtest.device import Device  # noqa: E402
from kwtest.isolation import Isolation  # noqa: E402
from kwtest.process import become_subreaper  # noqa: E402
from kwtest.settings import SETTINGS  # noqa: E402

SERVICE_COUNTS = (1, 10, 100)
# Counts of lines are anonymous memory, too: where they are taken there is no limit.
ANONYMOUS_LIMITS_KIB = {} if SETTINGS.coverage else {10: 1536, 100: 4505}


def activity(pid):
    """Per thread: voluntary and involuntary switches, and processor time in nanoseconds. Not of one that just ends."""
    found = {}
    for task in glob.glob(f"/proc/{pid}/task/*"):
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            found[os.path.basename(task)] = activity_of(task)
    return found


def activity_of(task):
    with open(task + "/status", encoding="ascii") as status:
        switches = [line.split()[1] for line in status if "ctxt_switches" in line]
    with open(task + "/schedstat", encoding="ascii") as schedule:
        return switches + [schedule.read().split()[0]]


def moved(pid, seconds):
    """How many threads did anything in that time."""
    before = activity(pid)
    time.sleep(seconds)
    after = activity(pid)
    return sum(1 for task in before.keys() | after.keys() if after.get(task) != before.get(task))


def memory_kib(pid):
    """(anonymous, proportional)"""
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as rollup:
        found = {line.split(":")[0]: int(line.split()[1]) for line in rollup if line.endswith(" kB\n")}
    return found["Anonymous"], found["Pss"]


def settle(pid):
    """Until nothing moves any more: what a request has begun is over a moment after its answer."""
    for _ in range(100):
        if moved(pid, 0.3) == 0:
            return
    raise AssertionError("the daemon does not come to rest")


class Measured:
    """One daemon with so many services; `good` tells whether it has kept within its limits."""

    def __init__(self, isolation, count, seconds):
        self.good = True
        self._count = count
        self._device = Device(isolation)
        try:
            self._run(seconds)
        finally:
            self._device.close()

    def _run(self, seconds):
        device = self._device
        names = [f"service{number}" for number in range(self._count)]
        for name in names:
            device.service(name, ca="yes", trustedClients="yes")
        device.start()
        pid = device.daemon.pid
        settle(pid)
        print(f"services {self._count}, threads {len(activity(pid))}")
        self._tell("after the start", pid)
        for name in names:
            answer = device.channel(name).ask("server", "revoke")
            assert answer == (0, ""), answer
        settle(pid)
        self._tell("after each has renewed", pid)
        if seconds > 0:
            self._expect("threads that did anything", moved(pid, seconds), 0, f" in {seconds} s")
        status = device.stop(60)
        print(f"exit status after SIGTERM: {status}")
        self.good = self.good and status == 10

    def _tell(self, when, pid):
        anonymous, proportional = memory_kib(pid)
        self._expect(f"  {when}: anonymous", anonymous, ANONYMOUS_LIMITS_KIB.get(self._count), " KiB")
        print(f"  {when}: proportional {proportional} KiB")

    def _expect(self, what, found, limit, unit=""):
        print(f"{what} {found}{unit}" + ("" if limit is None else f" (limit {limit})"), flush=True)
        if limit is not None and found > limit:
            self.good = False


def main():
    seconds = int(sys.argv[1]) if len(sys.argv) > 1 else 10
    counts = [int(argument) for argument in sys.argv[2:]] or SERVICE_COUNTS
    SETTINGS.check()
    become_subreaper()
    isolation = Isolation(SETTINGS.isolation)
    # All of them, also when one has failed.
    results = [Measured(isolation, count, seconds if count == 10 else 0).good for count in counts]
    sys.exit(0 if all(results) else 1)


if __name__ == "__main__":
    main()
