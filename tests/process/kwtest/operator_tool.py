"""keywardctl in the hands of an operator: run on a device, as one of its users."""

import os
import subprocess

from .device import GROUPS, USERS
from .isolation import shared_libraries
from .process import limit
from .settings import SETTINGS

CTL = "/opt/keyward/keywardctl"


class OperatorTool:
    def __init__(self, device):
        self.device = device
        binary = os.environ.get("KEYWARDCTL", "")
        if not os.path.isfile(binary):
            raise AssertionError(f"KEYWARDCTL must name the program; it is {binary!r}")
        root = device.root
        if not root.namespace:
            for library in shared_libraries(binary):
                root._copy(library)
        root._place_program(CTL, binary)

    def command(self, *arguments, user="root", program=CTL):
        uid, gid = USERS[user]
        groups = [str(number) for number, members in GROUPS.values() if user in members.split(",")]
        prefix = ["setarch", "-R"] if "thread" in SETTINGS.sanitizer else []
        return prefix + ["chroot", f"--userspec={uid}:{gid}", f"--groups={','.join(groups)}",
                         self.device.root.path, program, *arguments]

    def environment(self, **changes):
        return {**self.device.environment(), **changes}

    def start(self, *arguments, user="root", environment=None, program=CTL, **options):
        return subprocess.Popen(self.command(*arguments, user=user, program=program), stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, cwd="/", text=True,
                                env=environment or self.environment(), **options)

    def run(self, *arguments, timeout=30, **options):
        """(exit status, standard output, standard error)"""
        with self.start(*arguments, **options) as process:
            try:
                out, err = process.communicate(timeout=limit(timeout))
            except subprocess.TimeoutExpired:
                process.kill()
                raise AssertionError(f"keywardctl {arguments} did not end") from None
            return process.returncode, out, err
