"""Requesters of every kind: impatient, silent, malicious, many at once."""

import array
import contextlib
import fcntl
import os
import socket
import stat
import termios
import threading
import time

from kwtest import Case, main
from kwtest.channel import read_answer
from kwtest.device import PIPES, WORK
from kwtest.process import limit, wait_exit, wait_until
from kwtest.syslog import ERR, NOTICE, WARNING

OUTPUT = f"{PIPES}/web/web.out"
GONE = (WARNING, f"'{OUTPUT}' file not found.\n"
                 "Looks like the requester is no more present to receive the response back!")
STATUS = "tester\tweb\tconfig\tstatus"


def readable_bytes(descriptor):
    """How much a fifo holds."""
    count = array.array("i", [0])
    fcntl.ioctl(descriptor, termios.FIONREAD, count)
    return count[0]


class Requesters(Case):
    def setUp(self):
        super().setUp()
        self.device.service("web")
        self.device.start()
        self.channel = self.device.channel("web")

    def assert_alive(self):
        self.assertEqual(self.channel.ask("config", "status", timeout=10), (0, "running"))

    def test_one_that_is_gone_costs_a_warning_only(self):
        for count in range(1, 4):
            self.channel.send(STATUS)
            self.device.wait_log(*GONE, count=count)
        self.assert_alive()

    def test_one_that_sends_nothing_is_ignored(self):
        before = len(self.device.log_lines())
        for _ in range(20):
            self.channel.send("")
        self.assert_alive()
        self.assertEqual(self.device.log_lines()[before:], [])

    def test_one_that_leaves_before_the_answer_holds_nobody_up(self):
        with self.channel.listening():
            pass
        os.mkfifo(self.device.host(OUTPUT))
        os.chmod(self.device.host(OUTPUT), 0o666)
        self.channel.send(STATUS)
        # Nobody reads. The service's certificates must be free for others meanwhile.
        self.device.notify("nt")
        self.device.wait_log(NOTICE, "Time reload notification completed", timeout=5)
        os.unlink(self.device.host(OUTPUT))
        self.assert_alive()

    def test_one_that_never_reads_does_not_hold_up_the_stop(self):
        os.mkfifo(self.device.host(OUTPUT))
        os.chmod(self.device.host(OUTPUT), 0o666)
        self.channel.send(STATUS)
        begin = time.monotonic()
        self.assert_stopped_cleanly(self.device.stop())
        self.assertLess(time.monotonic() - begin, limit(2))

    def test_one_that_opens_late_still_gets_the_answer(self):
        os.mkfifo(self.device.host(OUTPUT))
        os.chmod(self.device.host(OUTPUT), 0o666)
        self.channel.send(STATUS)
        time.sleep(0.3)
        reader = os.open(self.device.host(OUTPUT), os.O_RDONLY | os.O_NONBLOCK)
        try:
            self.assertEqual(read_answer(reader), b"0 running")
        finally:
            os.close(reader)
            os.unlink(self.device.host(OUTPUT))

    def test_one_that_leaves_while_reading_is_an_error_line(self):
        word = "x" * 60_000
        answer = "4 Bad format for command. Incorrect arguments received for: " + word
        with self.channel.listening() as reader:
            # Too small for the answer: the daemon is still writing when the reader goes.
            fcntl.fcntl(reader, fcntl.F_SETPIPE_SZ, 4096)
            self.channel.send("tester\tweb\tconfig\t" + word)
            self.assertTrue(wait_until(lambda: readable_bytes(reader) >= 4096))
        self.device.wait_log(ERR, "Error during communication of: " + answer)
        self.assert_alive()

    def test_a_slow_one_gets_a_long_answer_whole(self):
        word = "y" * 60_000
        with self.channel.listening() as reader:
            fcntl.fcntl(reader, fcntl.F_SETPIPE_SZ, 4096)
            self.channel.send("tester\tweb\tconfig\t" + word)
            time.sleep(0.3)
            answer = read_answer(reader)
        self.assertEqual(answer.decode(), "4 Bad format for command. Incorrect arguments received for: " + word)

    def test_a_huge_request_is_refused_and_forgotten(self):
        text = "Bad format for command. The request is longer than 65536 bytes."
        self.assertEqual(self.channel.request(b"z" * (8 << 20), timeout=60), (4, text))
        self.assert_alive()

    def test_one_whose_predecessor_died_gets_its_own_answer(self):
        os.mkfifo(self.device.host(OUTPUT))
        os.chmod(self.device.host(OUTPUT), 0o666)
        self.channel.send("tester\tweb\tconfig\tpredecessor")
        self.device.wait_log(ERR, "std::exception caught while creating command structure for service 'web' Bad format "
                                  "for command. Incorrect arguments received for: predecessor")
        # Its fifo is there and nobody reads it: the daemon is trying. The successor makes one of its own.
        time.sleep(0.1)
        self.assertEqual(self.channel.ask_locked("config", "status"), (0, "running"))

    def test_a_request_in_pieces_is_one_request(self):
        with self.channel.listening() as reader:
            writer = os.open(self.channel.input, os.O_WRONLY)
            for piece in ("tester\tw", "eb\tcon", "fig\tsta", "tus"):
                os.write(writer, piece.encode())
                time.sleep(0.05)
            os.close(writer)
            self.assertEqual(read_answer(reader), b"0 running")


class Traps(Case):
    """Something else than a fifo stands where the answer goes."""

    def setUp(self):
        super().setUp()
        self.device.service("web")
        self.device.start()
        self.channel = self.device.channel("web")

    def assert_refused(self, remove):
        before = len(self.device.log_lines())
        self.channel.send(STATUS)
        # The next request is read when the first one is dealt with.
        time.sleep(0.2)
        remove()
        self.assertEqual(self.channel.ask("config", "status", timeout=10), (0, "running"))
        for line in self.device.log_lines()[before:]:
            self.assertNotEqual(line, GONE)

    def test_a_file_is_not_written_to(self):
        path = self.device.host(OUTPUT)
        with open(path, "w", encoding="ascii") as file:
            file.write("precious")
        os.chmod(path, 0o666)
        kept = []
        self.assert_refused(lambda: (kept.append(self.device.read(OUTPUT)), os.unlink(path)))
        self.assertEqual(kept, [b"precious"])

    def test_a_link_is_not_followed(self):
        self.device.write(f"{WORK}/target", "precious", mode=0o666)
        os.symlink(f"{WORK}/target", self.device.host(OUTPUT))
        self.assert_refused(lambda: os.unlink(self.device.host(OUTPUT)))
        self.assertEqual(self.device.read(f"{WORK}/target"), b"precious")

    def test_a_link_to_a_fifo_is_not_followed_either(self):
        target = self.device.host(f"{WORK}/fifo")
        os.mkfifo(target)
        os.chmod(target, 0o666)
        reader = os.open(target, os.O_RDONLY | os.O_NONBLOCK)
        os.symlink(f"{WORK}/fifo", self.device.host(OUTPUT))
        self.assert_refused(lambda: os.unlink(self.device.host(OUTPUT)))
        self.assertEqual(os.read(reader, 100), b"")
        os.close(reader)

    def test_a_socket_is_left_alone(self):
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(self.device.host(OUTPUT))
            self.assert_refused(lambda: os.unlink(self.device.host(OUTPUT)))

    def test_a_folder_is_left_alone(self):
        os.mkdir(self.device.host(OUTPUT))
        self.assert_refused(lambda: os.rmdir(self.device.host(OUTPUT)))

    def test_an_input_fifo_that_was_replaced_is_made_again(self):
        path = self.device.host(f"{PIPES}/web/web.in")
        self.device.write(f"{PIPES}/web/web.in", "a file")
        # The reader still has the old fifo; once that ends it looks at the path again.
        self.assertTrue(wait_until(lambda: self.looks_again(path)), self.device.log_text())
        self.assertEqual(self.device.rights(f"{PIPES}/web/web.in"), ("p", 0o720, "keyuser", "kwmgmt"))
        self.assertEqual(self.channel.ask("config", "status"), (0, "running"))

    def looks_again(self, path):
        if stat.S_ISFIFO(os.lstat(path).st_mode):
            return True
        # A writer at the old fifo, reached through the daemon's own descriptor, ends its wait.
        folder = f"/proc/{self.device.daemon.pid}/fd"
        for number in os.listdir(folder):
            with contextlib.suppress(OSError):
                if os.readlink(f"{folder}/{number}").endswith("web.in (deleted)"):
                    os.close(os.open(f"{folder}/{number}", os.O_WRONLY | os.O_NONBLOCK))
        return False


class Crowds(Case):
    def setUp(self):
        super().setUp()
        self.device.service("web")
        self.device.start()
        self.channel = self.device.channel("web")

    def test_of_three_hundred_requesters_in_a_row_none_is_lost(self):
        for number in range(300):
            answer = self.channel.ask_locked("config", f"word{number}", timeout=10)
            self.assertEqual(answer, (4, f"Bad format for command. Incorrect arguments received for: word{number}"))

    def test_of_several_at_once_none_is_lost_or_gets_anothers_answer(self):
        failures = []

        def ask(name):
            for number in range(50):
                answer = self.channel.ask_locked("config", f"{name}{number}", timeout=30)
                if answer[1] != f"Bad format for command. Incorrect arguments received for: {name}{number}":
                    failures.append((name, number, answer))
        askers = [threading.Thread(target=ask, args=(f"asker{index}.",)) for index in range(4)]
        for asker in askers:
            asker.start()
        for asker in askers:
            asker.join()
        self.assertEqual(failures, [])

    def test_of_many_writers_none_meets_a_closed_fifo(self):
        # Nobody waits for answers here: the writers come as fast as they can, also while the reader changes ends.
        fifos = (self.channel.input, self.device.host(f"{PIPES}/notification.signal"))
        for fifo in fifos:
            self.assertEqual(wait_exit(self.fork_writer(fifo), limit(60)), 0, fifo)
        self.assertEqual(self.channel.ask_locked("config", "status", timeout=60), (0, "running"))

    @staticmethod
    def fork_writer(fifo):
        """A process that writes a byte many times; it fails when a write does."""
        child = os.fork()
        if child == 0:
            status = 1
            with contextlib.suppress(BaseException):
                for _ in range(40_000):
                    with open(fifo, "wb", 0) as file:
                        # The reader may be just about to change ends.
                        os.sched_yield()
                        file.write(b"x")
                status = 0
            os._exit(status)
        return child

    def test_requests_while_notifications_pour_in_are_all_answered(self):
        over = threading.Event()

        def pour():
            while not over.is_set():
                self.device.notify("t")
        pourer = threading.Thread(target=pour)
        pourer.start()
        try:
            for _ in range(60):
                self.assertEqual(self.channel.ask_locked("config", "status", timeout=30), (0, "running"))
        finally:
            over.set()
            pourer.join()

    def test_services_do_not_wait_for_each_other(self):
        self.device.stop()
        self.device.service("slow", cnfFile=None, cnfHookFile="/opt/hooks/settings")
        self.device.script("/opt/hooks/settings", f"[ -e {WORK}/slow ] && sleep 5\ncat /etc/keywarden/service.cnf")
        self.device.start()
        self.device.write(f"{WORK}/slow", "")
        slow = self.device.channel("slow")
        with slow.listening() as reader:
            slow.send("tester\tslow\tserver\tcreatecsr")
            begin = time.monotonic()
            self.assertEqual(self.channel.ask("config", "status"), (0, "running"))
            self.assertLess(time.monotonic() - begin, 3)
            self.assertEqual(read_answer(reader), b"0 ")


class Patience(Case):
    def test_an_answer_that_nobody_takes_is_given_up_after_half_a_minute(self):
        self.device.service("web")
        self.device.start()
        channel = self.device.channel("web")
        os.mkfifo(self.device.host(OUTPUT))
        os.chmod(self.device.host(OUTPUT), 0o666)
        channel.send(STATUS)
        time.sleep(32)
        # A reader that comes now is not served any more.
        reader = os.open(self.device.host(OUTPUT), os.O_RDONLY | os.O_NONBLOCK)
        time.sleep(0.3)
        self.assertEqual(os.read(reader, 100), b"")
        os.close(reader)
        self.assertEqual(channel.ask("config", "status"), (0, "running"))
        self.assert_not_logged("Error during communication of: ")
        self.assertEqual([text for severity, text in self.device.log_lines() if severity == ERR],
                         ["value for TimeDrfitSleepIntervalSec is 0"])


if __name__ == "__main__":
    main()
