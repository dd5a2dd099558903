#!/usr/bin/python3
"""Runs the benchmark program and prints each job beside the bare loop it is held against.

usage: report.py PATH-OF-keyward_bench [repetitions]
Exits 1 when a ratio is over its limit.
"""
import json
import subprocess
import sys

PAIRS = [
    ("P-256 certificate, three names", "KeywardCertificate", "BareLibcryptoCertificate", 1.1),
    ("installation with all its files", "KeywardInstallation", "BareFiles", 1.5),
    ("\"status\" through the pipes, one CPU", "KeywardStatus", "BareFifoRoundTrip", 1.5),
]


def medians(program, repetitions):
    run = subprocess.run(
        [program, "--benchmark_format=json", f"--benchmark_repetitions={repetitions}",
         "--benchmark_enable_random_interleaving=true", "--benchmark_report_aggregates_only=true"],
        check=True, stdout=subprocess.PIPE)
    results = json.loads(run.stdout)["benchmarks"]
    return {b["run_name"].split("/")[0]: b["real_time"] for b in results if b["aggregate_name"] == "median"}


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
    sys.exit(1 if over else 0)


if __name__ == "__main__":
    main()
