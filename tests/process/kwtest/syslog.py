"""The device's system log: a socket at /dev/log and the lines that came through it."""

import re
import socket
import threading
import time
import uuid
from dataclasses import dataclass

EMERG, ERR, WARNING, NOTICE, INFO = 0, 3, 4, 5, 6
FACILITY_DAEMON = 24

# "<29>Nov 20 22:19:03 key-warden[123]: text"; the text may hold line feeds.
LINE = re.compile(rb"<(\d+)>\w{3} [ \d]\d \d\d:\d\d:\d\d ([^\[:]+)\[(\d+)\]: (.*)", re.DOTALL)


@dataclass(frozen=True)
class LogLine:
    severity: int
    facility: int
    identity: str
    pid: int
    text: str


def parse(datagram):
    match = LINE.fullmatch(datagram)
    if match is None:
        raise ValueError(f"not a log line: {datagram!r}")
    priority = int(match[1])
    return LogLine(priority & 7, priority & ~7, match[2].decode(), int(match[3]),
                   match[4].decode("utf-8", "backslashreplace"))


class LogCollector:
    def __init__(self, path):
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(path)
        self._path = path
        self._lines = []
        self._bad = []
        self._marks = set()
        self._news = threading.Condition()
        # Reads all the time: a full queue would hold up the daemon in syslog(3).
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def close(self):
        self._mark()
        self._socket.shutdown(socket.SHUT_RDWR)
        self._reader.join()
        self._socket.close()

    def lines(self):
        """Everything that was sent before this call."""
        self._mark()
        with self._news:
            if self._bad:
                raise AssertionError(f"malformed log lines: {self._bad}")
            return list(self._lines)

    def wait(self, found, timeout):
        """Waits until found(lines) is true; returns whether it became so."""
        deadline = time.monotonic() + timeout
        with self._news:
            while not found(self._lines):
                left = deadline - time.monotonic()
                if left <= 0 or not self._news.wait(left):
                    return bool(found(self._lines))
            return True

    def _mark(self):
        # A datagram of our own comes after all that were queued before it.
        mark = b"mark " + uuid.uuid4().bytes
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.sendto(mark, self._path)
        with self._news:
            self._news.wait_for(lambda: mark in self._marks, 30)

    def _read(self):
        while True:
            datagram = self._socket.recv(1 << 20)
            if not datagram:
                return
            with self._news:
                if datagram.startswith(b"mark "):
                    self._marks.add(datagram)
                else:
                    self._keep(datagram)
                self._news.notify_all()

    def _keep(self, datagram):
        try:
            self._lines.append(parse(datagram))
        except ValueError as error:
            self._bad.append(str(error))
