"""A requester: speaks to a service through its fifos, as programs of the device do."""

import contextlib
import errno
import fcntl
import os
import select
import stat
import time

from .process import limit


class NoAnswer(AssertionError):
    pass


def write_fifo(path, data, timeout=10.0):
    """Opens a fifo that somebody reads, writes all of it and closes it."""
    deadline = time.monotonic() + limit(timeout)
    descriptor = _open_write_end(path, deadline)
    try:
        poll = select.poll()
        poll.register(descriptor, select.POLLOUT)
        rest = memoryview(data)
        while rest:
            if not poll.poll(max(0, deadline - time.monotonic()) * 1000):
                raise NoAnswer(f"nobody reads {path}")
            with contextlib.suppress(BlockingIOError):
                rest = rest[os.write(descriptor, rest):]
    finally:
        os.close(descriptor)


def _open_write_end(path, deadline):
    while True:
        try:
            descriptor = os.open(path, os.O_WRONLY | os.O_NONBLOCK)
            if not stat.S_ISFIFO(os.fstat(descriptor).st_mode):
                os.close(descriptor)
                raise AssertionError(f"{path} is not a fifo")
            return descriptor
        except OSError as error:
            # No reader yet, or the fifo is just being made again.
            if error.errno not in (errno.ENXIO, errno.ENOENT) or time.monotonic() >= deadline:
                raise
            time.sleep(0.002)


class Channel:
    """The three files of one service's channel."""

    def __init__(self, folder, service):
        self.service = service
        self.input = f"{folder}/{service}.in"
        self.output = f"{folder}/{service}.out"
        self.lock = f"{folder}/{service}.lock"

    def send(self, line, timeout=10.0):
        write_fifo(self.input, line.encode() if isinstance(line, str) else line, timeout)

    def request(self, line, timeout=15.0):
        """The answer as (code, text). `line` is the whole request, header fields included."""
        with self.listening() as reader:
            self.send(line, timeout)
            return split_answer(read_answer(reader, timeout))

    def ask(self, *fields, timeout=15.0):
        """request() of target, command and arguments behind two header fields."""
        return self.request("\t".join(("tester", self.service) + fields), timeout)

    def ask_locked(self, *fields, timeout=15.0):
        """ask() for one of several requesters: the lock file keeps their answers apart."""
        with open(self.lock, "r+b") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            return self.ask(*fields, timeout=timeout)

    @contextlib.contextmanager
    def listening(self, mode=0o666):
        """An output fifo that is open for reading; removed afterwards."""
        # In one step over what a predecessor may have left: the daemon never finds a half-made one, or none.
        os.mkfifo(self.output + ".new")
        os.chmod(self.output + ".new", mode)
        os.rename(self.output + ".new", self.output)
        reader = os.open(self.output, os.O_RDONLY | os.O_NONBLOCK)
        try:
            yield reader
        finally:
            os.close(reader)
            with contextlib.suppress(FileNotFoundError):
                os.unlink(self.output)


def read_answer(reader, timeout=15.0):
    """Everything up to the answerer's close."""
    poll = select.poll()
    poll.register(reader, select.POLLIN)
    answer = b""
    deadline = time.monotonic() + limit(timeout)
    while True:
        if not poll.poll(max(0, deadline - time.monotonic()) * 1000):
            raise NoAnswer(f"no answer; received so far: {answer!r}")
        with contextlib.suppress(BlockingIOError):
            chunk = os.read(reader, 65536)
            if not chunk:
                return answer
            answer += chunk


def split_answer(answer):
    code, blank, text = answer.decode(errors="backslashreplace").partition(" ")
    if not blank or not code.isdigit():
        raise NoAnswer(f"malformed answer: {answer!r}")
    return int(code), text
