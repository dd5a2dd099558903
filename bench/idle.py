#!/usr/bin/python3
"""Starts the daemon with ten services, lets it idle and tells what that costs.

usage: KEYWARDD=PATH-OF-keywardd idle.py [seconds]   (as root)

No system call: a thread that makes one and does not return at once is switched away from, so the count of voluntary
context switches moves; one that returns at once takes processor time. Both counts, of every thread, must stand still.
Memory is the proportional set size (PSS), which shares out what several processes map.
"""
import glob
import os
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "process"))
from kwtest.device import Device  # noqa: E402
from kwtest.isolation import Isolation  # noqa: E402
from kwtest.process import become_subreaper  # noqa: E402
from kwtest.settings import SETTINGS  # noqa: E402

SERVICE_COUNT = 10
PSS_LIMIT_KIB = 6 * 1024


def activity(pid):
    """Per thread: voluntary and involuntary switches, and processor time in nanoseconds."""
    found = {}
    for task in glob.glob(f"/proc/{pid}/task/*"):
        with open(task + "/status", encoding="ascii") as status:
            switches = [line.split()[1] for line in status if "ctxt_switches" in line]
        with open(task + "/schedstat", encoding="ascii") as schedule:
            found[os.path.basename(task)] = switches + [schedule.read().split()[0]]
    return found


def pss_kib(pid):
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as rollup:
        return next(int(line.split()[1]) for line in rollup if line.startswith("Pss:"))


def main():
    seconds = int(sys.argv[1]) if len(sys.argv) > 1 else 10
    SETTINGS.check()
    become_subreaper()
    device = Device(Isolation(SETTINGS.isolation))
    try:
        for number in range(SERVICE_COUNT):
            device.service(f"service{number}", ca="yes", trustedClients="yes")
        device.start()
        pid = device.daemon.pid
        time.sleep(2)
        before = activity(pid)
        time.sleep(seconds)
        after = activity(pid)
        pss = pss_kib(pid)
        moved = sorted(task for task in after if after[task] != before.get(task))
        print(f"services {SERVICE_COUNT}, threads {len(after)}, watched {seconds} s")
        print(f"threads that did anything: {len(moved)} (limit 0)")
        print(f"proportional memory: {pss} KiB (limit {PSS_LIMIT_KIB} KiB)")
        status = device.stop()
        print(f"exit status after SIGTERM: {status}")
    finally:
        device.close()
    sys.exit(0 if not moved and pss <= PSS_LIMIT_KIB and status == 10 else 1)


if __name__ == "__main__":
    main()
