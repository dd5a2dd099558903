"""What CMake (or somebody at a shell) says about the build under test, through the environment.

KEYWARDD             the daemon's program (required)
KEYWARDD_TESTCLOCK   the same daemon with a clock that a file sets; needed where libfaketime cannot be preloaded
KEYWARDD_SANITIZER   what the build is instrumented with, for example "address,undefined"; empty: nothing
KEYWARDD_CALLBACK_LIBRARY  a callback library that records what it is told
KWTEST_HOSTILE_MEMBER  the program that attacks the daemon as a member of a service's group
KEYWARDD_CALLBACK_LIBRARIES  the folder of the other ones
KWTEST_MEMCHECK      when set, the daemon runs under valgrind's memcheck (only with "namespace")
KWTEST_ISOLATION     "namespace" (the default) or "chroot"
KWTEST_COVERAGE      a build folder that the daemon writes its line counts into (only with "namespace")
KWTEST_KEEP          when set, the folders of failed devices stay
"""

import glob
import os
import sys


class Settings:
    def __init__(self, environment):
        self.binary = environment.get("KEYWARDD", "")
        self.testclock_binary = environment.get("KEYWARDD_TESTCLOCK", "")
        self.sanitizer = environment.get("KEYWARDD_SANITIZER", "")
        self.callback_library = environment.get("KEYWARDD_CALLBACK_LIBRARY", "")
        self.hostile_member = environment.get("KWTEST_HOSTILE_MEMBER", "")
        self.callback_libraries = environment.get("KEYWARDD_CALLBACK_LIBRARIES", "")
        self.isolation = environment.get("KWTEST_ISOLATION", "namespace")
        self.coverage = environment.get("KWTEST_COVERAGE", "")
        self.keep = bool(environment.get("KWTEST_KEEP"))
        # Instrumented code is several times slower; a limit that is about waiting, not about behaviour, grows.
        self.under_memcheck = bool(environment.get("KWTEST_MEMCHECK"))
        self.time_scale = 15.0 if self.under_memcheck else 4.0 if self.sanitizer else 1.0
        # How long an orderly stop may take when it waits for nobody, and what each wait for others adds at most.
        self.stop_limit = 2.0 * (3.0 if self.time_scale > 1 else 1.0)
        self.stop_grace = 2.0

    def check(self):
        if not os.path.isfile(self.binary):
            sys.exit(f"KEYWARDD must name the daemon's program; it is {self.binary!r}")
        if os.geteuid() != 0:
            sys.exit("These tests start a daemon that begins as root and drops its rights: run them as root.")

    def memcheck(self, reports):
        """What the daemon's command line begins with; leaks and bad accesses make a report of it each."""
        if not self.under_memcheck:
            return []
        return ["valgrind", "--quiet", "--vgdb=no", "--leak-check=full", "--show-leak-kinds=definite,possible",
                "--errors-for-leak-kinds=definite", f"--log-file={reports}/memcheck.%p"]

    @property
    def faketime(self):
        found = sorted(glob.glob("/usr/lib/*/faketime/libfaketimeMT.so.1"))
        return found[0] if found and not self.sanitizer else ""


SETTINGS = Settings(os.environ)
