#!/usr/bin/python3
"""Runs the benchmark program and prints each job beside the bare loop it is held against, and then what a store that
holds many certificates costs beside a small one.

usage: report.py PATH-OF-keyward_bench [repetitions]
Exits 1 when a ratio is over its limit.
"""
import json
import os
import subprocess
import sys

PAIRS = [
    ("P-256 certificate, three names", "KeywardCertificate", "BareLibcryptoCertificate", 1.1),
    ("installation with all its files", "KeywardInstallation", "BareFiles", 1.5),
    ("\"status\" through the pipes, one CPU", "KeywardStatus", "BareFifoRoundTrip", 1.5),
]


STORE = "KeywardAddition|KeywardStoreStart"
# A certificate more in a store of 10,000 writes hardly more than one in an empty store (the two index files apart),
# and a start takes its time per certificate, not more.
STORE_LIMITS = [
    ("bytes of an addition, 10,000 against 0", "KeywardAddition", "bytesBeyondIndexes", (10000, 0), 3.0),
    ("start per certificate, 10,000 against 1,000", "KeywardStoreStart", "each", (10000, 1000), 2.0),
]


def results(program, *options, **environment):
    run = subprocess.run([program, "--benchmark_format=json", *options], check=True, stdout=subprocess.PIPE,
                         env={**os.environ, **environment})
    return json.loads(run.stdout)["benchmarks"]


def medians(program, repetitions):
    found = results(program, f"--benchmark_filter=-{STORE}", f"--benchmark_repetitions={repetitions}",
                    "--benchmark_enable_random_interleaving=true", "--benchmark_report_aggregates_only=true")
    return {b["run_name"].split("/")[0]: b["real_time"] for b in found if b["aggregate_name"] == "median"}


def report_stores(program):
    """Prints what many certificates cost; returns whether a limit is exceeded."""
    found = results(program, f"--benchmark_filter={STORE}", TMPDIR="/dev/shm")
    counters = {tuple(b["run_name"].split("/")[:2]): b for b in found}
    over = False
    print(f"\n{'store':44} {'large':>12} {'small':>12} {'ratio':>6} {'limit':>6}")
    for title, job, counter, sizes, limit in STORE_LIMITS:
        large, small = (counters[job, str(size)][counter] for size in sizes)
        over = over or large / small > limit
        print(f"{title:44} {large:12.6g} {small:12.6g} {large / small:6.2f} {limit:6.2f}")
    return over


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    found = medians(sys.argv[1], sys.argv[2] if len(sys.argv) > 2 else "9")
    over = False
    print(f"{'job':40} {'keywardd us':>12} {'bare us':>10} {'ratio':>6} {'limit':>6}")
    for title, ours, bare, limit in PAIRS:
        ratio = found[ours] / found[bare]
        over = over or ratio > limit
        print(f"{title:40} {found[ours]:12.1f} {found[bare]:10.1f} {ratio:6.2f} {limit:6.2f}")
    over = report_stores(sys.argv[1]) or over
    sys.exit(1 if over else 0)


if __name__ == "__main__":
    main()
