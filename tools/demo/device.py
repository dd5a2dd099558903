#!/usr/bin/python3
"""What the demonstration needs around the daemon and a shell cannot do.

    device.py log SOCKET FILE              be the device's system log
    device.py run FILE PROGRAM [ARG...]    start a daemon and learn its exit status
    device.py list ROOT PATH...            list folders with the owners of that root's own accounts
    device.py port                         print a TCP port that nobody uses
"""

import ctypes
import os
import re
import signal
import socket
import stat
import subprocess
import sys
import time

SEVERITIES = ("EMERG", "ALERT", "CRIT", "ERR", "WARNING", "NOTICE", "INFO", "DEBUG")
# "<29>Nov 20 22:19:03 key-warden[123]: text"
LINE = re.compile(rb"<(\d+)>\w{3} [ \d]\d \d\d:\d\d:\d\d (?:[^:]+): (.*)", re.DOTALL)

libc = ctypes.CDLL(None)
PR_SET_PDEATHSIG = 1
PR_SET_CHILD_SUBREAPER = 36


def end_with_parent():
    libc.prctl(PR_SET_PDEATHSIG, signal.SIGTERM, 0, 0, 0)


def log(path, file):
    """Writes "<severity> <text>", one line each."""
    end_with_parent()
    receiver = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    receiver.bind(path)
    os.chmod(path, 0o666)
    with open(file, "a", encoding="utf-8", buffering=1) as lines:
        while True:
            datagram = receiver.recv(1 << 16)
            match = LINE.fullmatch(datagram)
            priority, text = (int(match[1]), match[2]) if match else (5, datagram)
            text = text.decode("utf-8", "backslashreplace").rstrip().replace("\n", " | ")
            lines.write(f"{SEVERITIES[priority & 7]} {text}\n")


def children():
    """The processes whose parent this one is."""
    found = []
    for entry in os.listdir("/proc"):
        try:
            with open(f"/proc/{entry}/stat", "rb") as file:
                # The second field is a name in brackets and may hold anything.
                if int(file.read().rpartition(b")")[2].split()[1]) == os.getpid():
                    found.append(int(entry))
        except (OSError, ValueError):
            continue
    return found


def end_children():
    for number in (signal.SIGTERM, signal.SIGKILL):
        for child in children():
            os.kill(child, number)
        deadline = time.monotonic() + 10
        while children() and time.monotonic() < deadline:
            try:
                os.waitpid(-1, os.WNOHANG)
            except ChildProcessError:
                return
            time.sleep(0.02)


def run(file, *program):
    """Writes "<pid> <status>" for the program and for what it leaves in the background, when they end.

    A daemon detaches from its parent, and nobody would learn how it ended. Being a "child subreaper", this process
    becomes its parent.
    """
    libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    end_with_parent()

    def stop(*_):
        # Once: a second signal must not keep the children from being ended.
        for number in (signal.SIGTERM, signal.SIGINT):
            signal.signal(number, signal.SIG_IGN)
        raise SystemExit(1)

    signal.signal(signal.SIGTERM, stop)
    signal.signal(signal.SIGINT, stop)
    try:
        subprocess.Popen(program, stdin=subprocess.DEVNULL, start_new_session=True)
        with open(file, "a", encoding="utf-8", buffering=1) as lines:
            while True:
                pid, status = os.wait()
                lines.write(f"{pid} {os.waitstatus_to_exitcode(status)}\n")
    except ChildProcessError:
        pass
    finally:
        end_children()


def names(file):
    with open(file, encoding="utf-8") as lines:
        fields = (line.split(":") for line in lines if line.count(":") >= 3)
        return {int(field[2]): field[0] for field in fields}


def listing(root, *paths):
    users, groups = names(root + "/etc/passwd"), names(root + "/etc/group")
    for path in paths:
        found = [root + path]
        for folder, folders, files in os.walk(root + path):
            found += [os.path.join(folder, name) for name in folders + files]
        for entry in sorted(found):
            if not os.path.lexists(entry):
                continue
            info = os.lstat(entry)
            arrow = " -> " + os.readlink(entry) if stat.S_ISLNK(info.st_mode) else ""
            print(f"{stat.filemode(info.st_mode)} {users.get(info.st_uid, info.st_uid):8} "
                  f"{groups.get(info.st_gid, info.st_gid):8} {entry[len(root):]}{arrow}")


def port():
    with socket.socket() as probe:
        probe.bind(("", 0))
        print(probe.getsockname()[1])


if __name__ == "__main__":
    signal.signal(signal.SIGINT, signal.SIG_DFL)
    {"log": log, "run": run, "list": listing, "port": port}[sys.argv[1]](*sys.argv[2:])
