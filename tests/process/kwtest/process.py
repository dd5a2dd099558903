"""The daemon as a process: started through a parent of its own, watched and always brought to an end."""

import contextlib
import ctypes
import os
import select
import signal
import subprocess
import time

from .settings import SETTINGS

PR_SET_CHILD_SUBREAPER = 36


def become_subreaper():
    """The daemon's parent exits at once; its child then becomes ours, and so does its exit status."""
    if ctypes.CDLL(None, use_errno=True).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0:
        raise OSError(ctypes.get_errno(), "cannot become the reaper of orphaned processes")


def limit(seconds):
    """A time-out for waiting, in seconds of this build."""
    return seconds * SETTINGS.time_scale


def children_of(pid):
    """The living and the unreaped children of a process."""
    found = []
    with contextlib.suppress(FileNotFoundError, ProcessLookupError):
        for task in os.listdir(f"/proc/{pid}/task"):
            with contextlib.suppress(FileNotFoundError, ProcessLookupError), \
                    open(f"/proc/{pid}/task/{task}/children", encoding="ascii") as listing:
                found += [int(word) for word in listing.read().split()]
    return found


def name_of(pid):
    try:
        with open(f"/proc/{pid}/comm", encoding="utf-8", errors="replace") as comm:
            return comm.read().strip()
    except (FileNotFoundError, ProcessLookupError):
        return ""


def status_of(pid, task=None):
    """The lines of /proc/<pid>/status as a mapping."""
    path = f"/proc/{pid}/status" if task is None else f"/proc/{pid}/task/{task}/status"
    with open(path, encoding="utf-8") as status:
        return dict(line.rstrip("\n").split(":\t", 1) for line in status if ":\t" in line)


def wait_until(condition, timeout=15.0, interval=0.005):
    """Polls for something that has no event; returns the condition's first true value, or its last."""
    deadline = time.monotonic() + limit(timeout)
    while True:
        value = condition()
        if value or time.monotonic() >= deadline:
            return value
        time.sleep(interval)


def wait_exit(pid, timeout):
    """Reaps a child. Its exit code, the negative signal number that ended it, or None after the time-out."""
    descriptor = os.pidfd_open(pid)
    try:
        poll = select.poll()
        poll.register(descriptor, select.POLLIN)
        if not poll.poll(timeout * 1000):
            return None
    finally:
        os.close(descriptor)
    return os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])


class DaemonProcess:
    """One start: the parent that forks and, when there is one, the daemon that it leaves behind."""

    _parents = set()

    def __init__(self, command, environment, error_file, cwd="/"):
        self._earlier = set(children_of(os.getpid()))
        with open(error_file, "ab") as errors:
            self._parent = subprocess.Popen(command, env=environment, stdin=subprocess.DEVNULL, stdout=errors,
                                            stderr=errors, cwd=cwd)
        self.parent_pid = self._parent.pid
        self._parents.add(self.parent_pid)
        self.parent_status = None
        self.pid = None
        self.exit_status = None

    def wait_parent(self, timeout=20.0):
        """The parent's exit code; after 0 the daemon's pid is known."""
        try:
            self.parent_status = self._parent.wait(limit(timeout))
        except subprocess.TimeoutExpired:
            raise AssertionError("the daemon's parent did not end") from None
        # Its number may be given to another process from here on.
        self._parents.discard(self.parent_pid)
        if self.parent_status == 0 and self.pid is None:
            self.pid = self._find_daemon()
        return self.parent_status

    def wait_forked(self, pid_file, timeout=20.0):
        """The daemon's pid, as soon as the parent has written it down; the parent may still be busy."""
        def written():
            try:
                with open(pid_file, encoding="ascii") as file:
                    text = file.read()
            except FileNotFoundError:
                return None
            return int(text) if text and int(text) != self.parent_pid else None
        self.pid = wait_until(written, timeout, interval=0)
        if self.pid is None:
            raise AssertionError("the daemon did not fork")
        return self.pid

    def signal(self, number):
        os.kill(self.pid, number)

    def wait_exit(self, timeout=15.0):
        """The daemon's exit code; negative: the signal that killed it. Fails after the time-out."""
        if self.exit_status is None:
            self.exit_status = wait_exit(self.pid, limit(timeout))
        if self.exit_status is None:
            raise AssertionError("the daemon did not end")
        return self.exit_status

    @property
    def running(self):
        if self.pid is None or self.exit_status is not None:
            return False
        self.exit_status = wait_exit(self.pid, 0)
        return self.exit_status is None

    def kill(self):
        """Ends what is left over of the parent, the daemon and their orphans."""
        for _ in range(1000):
            pids = self._new_children()
            if not pids:
                break
            for pid in pids:
                if wait_exit(pid, 0) is None:
                    os.kill(pid, signal.SIGKILL)
                    wait_exit(pid, 10)
        self._parent.poll()
        self._parents.discard(self.parent_pid)

    def orphans(self):
        """What the daemon left to the system: names of running processes that were its own."""
        names = []
        for pid in self._new_children():
            if pid != self.pid and pid not in self._parents and wait_exit(pid, 0) is None:
                names.append(name_of(pid))
        return names

    def _new_children(self):
        return [pid for pid in children_of(os.getpid()) if pid not in self._earlier]

    def _find_daemon(self):
        found = [pid for pid in self._new_children()
                 if pid not in self._parents and name_of(pid).startswith(("keywardd", "memcheck"))]
        if len(found) != 1:
            raise AssertionError(f"the parent left {len(found)} daemons behind")
        return found[0]
