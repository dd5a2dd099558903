"""Requesters that mean harm, or have come to it: none costs another service, the stop, or anything for good."""

import contextlib
import os
import random
import signal
import sys
import threading
import time

from kwtest import SETTINGS, Case, main
from kwtest.channel import NoAnswer, read_answer
from kwtest.device import PIPES, WORK
from kwtest.process import limit, status_of, wait_exit, wait_until
from kwtest.syslog import ERR, NOTICE, WARNING

OVERDUE = "Bad format for command. The request was not ended in time."
REFUSED = "Bad format for command. Incorrect arguments received for: "
STATUS = "tester\t{}\tconfig\tstatus"


class Hostile(Case):
    def setUp(self):
        super().setUp()
        self.ends = []
        self.addCleanup(self.leave)
        # For whoever wants to repeat a failure.
        self.seed = random.randrange(1 << 32)
        self.random = random.Random(self.seed)

    def run(self, result=None):
        failures = len(result.failures) + len(result.errors)
        super().run(result)
        if len(result.failures) + len(result.errors) > failures:
            print(f"{self.id()}: seed {self.seed}", file=sys.stderr)

    def run_services(self, *names, **settings):
        for name in names:
            self.device.service(name, **settings)
        self.device.start()

    def hold(self, path, sent=b""):
        """A writer that opens a fifo, sends this much and hangs."""
        end = os.open(self.device.host(path), os.O_WRONLY)
        self.ends.append(end)
        if sent:
            os.write(end, sent)
        return end

    def leave(self):
        while self.ends:
            os.close(self.ends.pop())

    def input(self, service):
        return f"{PIPES}/{service}/{service}.in"

    def deaf_output(self, service):
        """An output fifo that is there and never read."""
        path = self.device.host(f"{PIPES}/{service}/{service}.out")
        os.mkfifo(path)
        os.chmod(path, 0o666)

    def assert_serves(self, service):
        """It answers within a second, whatever others do."""
        begin = time.monotonic()
        self.assertEqual(self.device.channel(service).ask_locked("config", "status", timeout=10), (0, "running"))
        self.assertLess(time.monotonic() - begin, limit(1), service)

    def assert_stops(self):
        begin = time.monotonic()
        self.assert_stopped_cleanly(self.device.stop())
        # A requester who does not read may cost a second for its answer and another for the last word.
        self.assertLess(time.monotonic() - begin, SETTINGS.stop_limit + 2)

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.device.daemon.pid}/fd"))

    def resident(self):
        """KiB that are the daemon's own."""
        return int(status_of(self.device.daemon.pid)["RssAnon"].split()[0])

    @contextlib.contextmanager
    def no_growth(self):
        """What happens inside leaves no descriptor, no thread and no memory behind. It has happened before once."""
        tasks = f"/proc/{self.device.daemon.pid}/task"
        descriptors, threads, memory = self.descriptors(), len(os.listdir(tasks)), self.resident()
        yield
        self.assertTrue(wait_until(lambda: self.descriptors() <= descriptors, 5),
                        f"{descriptors} descriptors have become {self.descriptors()}")
        self.assertEqual(len(os.listdir(tasks)), threads)
        # A sanitizer keeps what was released for a while.
        if not SETTINGS.sanitizer:
            self.assertLess(self.resident() - memory, 1024)


class Hanging(Hostile):
    def test_writers_that_hang_cost_their_own_channel_ten_seconds_and_nobody_else_anything(self):
        self.run_services("silent", "half", "whole", "web")
        line = "A writer holds the fifo {} and does not end its text. Making it again."
        self.assert_serves("silent")
        with self.no_growth():
            begin = time.monotonic()
            self.hold(self.input("silent"))
            self.hold(self.input("half"), b"tester\thalf\tserv")
            self.hold(self.input("whole"), STATUS.format("whole").encode())
            self.hold(f"{PIPES}/notification.signal", b"x")
            # One that has come to grief without a fault of its own, since the silent one holds the channel.
            results = {}
            asking = [threading.Thread(target=self.ask, args=(name, results)) for name in ("silent", "whole")]
            for thread in asking:
                thread.start()
            for _ in range(5):
                self.assert_serves("web")
                self.device.notify("t")
            self.device.wait_log(NOTICE, "Time reload notification completed", count=5, timeout=5)
            for thread in asking:
                thread.join()
            self.assertEqual(results, {"silent": (4, OVERDUE), "whole": (4, OVERDUE)})
            for name in ("silent", "half", "whole"):
                self.device.wait_log(ERR, line.format(self.input(name)))
                self.device.wait_log(ERR, "std::exception caught while creating command structure for service "
                                          f"'{name}' {OVERDUE}")
            self.assertGreater(time.monotonic() - begin, 9)
            self.assertLess(time.monotonic() - begin, 10 + limit(3))
            for name in ("silent", "half", "whole", "web"):
                self.assert_serves(name)
                self.assertEqual(self.device.rights(self.input(name)), ("p", 0o720, "keyuser", "kwmgmt"))
                self.assertLessEqual({f"{name}.in", f"{name}.lock", "server"},
                                     set(os.listdir(self.device.host(f"{PIPES}/{name}"))))
                self.assertEqual([entry for entry in os.listdir(self.device.host(f"{PIPES}/{name}"))
                                  if entry.startswith(f"{name}.in.")], [])
            # What they hold is an orphan that nobody reads.
            for end in self.ends[:3]:
                with self.assertRaises(BrokenPipeError):
                    os.write(end, b"x")
        self.leave()
        self.assert_stops()

    def ask(self, name, results):
        results[name] = self.device.channel(name).ask_locked("config", "status", timeout=20)

    def test_none_of_them_delays_the_stop(self):
        self.run_services("silent", "half", "endless", "deaf", "full")
        self.hold(self.input("silent"))
        self.hold(self.input("half"), b"tester\thalf\tserv")
        self.hold(f"{PIPES}/notification.signal")
        self.deaf_output("deaf")
        self.device.channel("deaf").send(STATUS.format("deaf"))
        over = threading.Event()
        pouring = threading.Thread(target=self.pour, args=(self.hold(self.input("endless")), over))
        pouring.start()
        try:
            with self.device.channel("full").listening():
                # An answer that does not fit a pipe, for somebody who never reads it.
                self.device.channel("full").send("a\tb\tconfig\t" + "x" * 65000)
                self.device.channel("full").send("a\tb\tconfig\t" + "y" * 65000)
                self.assert_stops()
        finally:
            over.set()
            pouring.join()

    @staticmethod
    def pour(end, over):
        os.set_blocking(end, False)
        while not over.is_set():
            try:
                os.write(end, b"x" * 4096)
            except BlockingIOError:
                time.sleep(0.0005)
            except BrokenPipeError:
                return

    def test_one_that_never_ends_its_request_is_not_kept_in_memory(self):
        self.run_services("endless", "web")
        over = threading.Event()
        pouring = threading.Thread(target=self.pour, args=(self.hold(self.input("endless")), over))
        self.assert_serves("web")
        with self.no_growth():
            pouring.start()
            try:
                for _ in range(10):
                    self.assert_serves("web")
                    time.sleep(0.1)
            finally:
                over.set()
                pouring.join()
            self.leave()
            # It has an end now, and is refused; nobody is there to hear it.
            self.device.wait_log(WARNING, f"'{PIPES}/endless/endless.out' file not found.\n"
                                          "Looks like the requester is no more present to receive the response back!")
            self.assert_logged(ERR, "std::exception caught while creating command structure for service 'endless' "
                                    "Bad format for command. The request is longer than 65536 bytes.")
            self.assert_serves("endless")


class AnyBytes(Hostile):
    """Requests of any length and of any bytes: each is answered, and nothing else happens."""

    LENGTHS = (1, 2, 1022, 1023, 1024, 2046, 4095, 4096, 4097, 65535, 65536, 65537, 70000, 300_000)
    WORDS = ("reload", "status", "getcsr", "getcsrinfo", "createcsr", "createcrt", "applycrt", "getkey", "revoke", "add",
             "list", "listByCN", "info", "help", "getOverwrittenData", "setOverwrittenData", "details", "path",
             "getcert", "getcertinfo", "getcsrtimestamp", "", "\0", "status\n")
    ARGUMENTS = (b"", b"\0", b"/", b"/dev/zero", b"/dev/full", b"/proc/self/mem", b"/proc/self/environ", b"..", b"%s%n",
                 b"../../../etc/passwd", b"00000000.0", b"\xff\xfe", b"a" * 5000, b"-1", b"\r\n", b"$(reboot)",
                 b"overwrite", f"{PIPES}/web/web.in".encode(), f"{PIPES}/web/web.out".encode(), WORK.encode(),
                 b"\xe2\x80\xae", b"//////", b"a=b=c", b"/srv/scratch/noise")

    def setUp(self):
        super().setUp()
        self.device.write(f"{WORK}/noise", self.random.randbytes(50_000))
        self.run_services("web", ca="yes", trustedClients="yes")
        self.channel = self.device.channel("web")

    def raw(self, request):
        """The answer to a request of any bytes, which may itself be any."""
        with self.channel.listening() as reader:
            self.channel.send(request, timeout=30)
            answer = read_answer(reader, timeout=30)
        code, blank, _ = answer.partition(b" ")
        self.assertTrue(blank and code.isdigit(), (request[:200], answer[:200]))
        return int(code)

    def noise(self, length):
        return self.random.randbytes(length)

    def test_of_every_length(self):
        too_long = (4, "Bad format for command. The request is longer than 65536 bytes.")
        self.raw(self.noise(300_000))
        with self.no_growth():
            for length in self.LENGTHS * 2:
                self.assertEqual(self.raw(self.noise(length)), 4, length)
            for length in self.LENGTHS:
                answer = self.channel.request("z" * length, timeout=30)
                self.assertEqual(answer, too_long if length > 65536 else (4, "Bad format for command."), length)
        self.assert_serves("web")

    def test_of_random_fields(self):
        with self.no_growth():
            for _ in range(150):
                fields = [self.noise(self.random.randrange(40)) for _ in range(self.random.randrange(1, 9))]
                self.assertEqual(self.raw(b"\t".join(fields) + b"x"), 4, fields)
        self.assert_serves("web")

    def test_of_known_words_with_senseless_arguments(self):
        count = 60 if SETTINGS.sanitizer else 250
        print(f"AnyBytes: {count} commands with senseless arguments", file=sys.stderr)
        for _ in range(10):
            self.raw(self.command())
        # A reload ends the threads that are counted, and a renewal may be on its way: they are not drawn here.
        with self.no_growth():
            for _ in range(count):
                request = self.command()
                self.assertIn(self.raw(request), (0, 1, 4, 7, 8, 9, 21, 26, 42, 43), request)
        self.assert_serves("web")
        self.assertTrue(self.device.exists("/etc/passwd"))
        self.assert_whole_active()

    def command(self):
        target = self.random.choice(("server", "ca", "client", "config"))
        word = self.random.choice([word for word in self.WORDS if word not in ("reload", "createcsr")])
        arguments = self.random.choices(self.ARGUMENTS, k=self.random.randrange(4))
        return b"\t".join([b"a", b"b", target.encode(), word.encode(), *arguments])

    def assert_whole_active(self):
        """Whatever was asked, the pair that is active is one."""
        self.assertEqual(self.device.stop(), 10)
        self.device.start()
        self.assert_whole_store("web")


class Dying(Hostile):
    def test_requesters_that_die_at_any_moment_leave_nothing_behind(self):
        self.run_services("web", "other")
        channel = self.device.channel("web")
        self.die(channel)
        self.assert_answers(channel)
        self.assert_serves("web")
        with self.no_growth():
            for _ in range(100):
                self.die(channel)
            self.assert_answers(channel)
            self.assert_serves("other")
        self.assert_stops()

    def assert_answers(self, channel):
        """The lock died with its holder, so the next one only waits for what the daemon still does. Where the dead
        one's request was still in the fifo, the two are read as one, and refused."""
        answer = channel.ask_locked("config", "status", timeout=15)
        if answer[0] == 4:
            answer = channel.ask_locked("config", "status", timeout=15)
        self.assertEqual(answer, (0, "running"))

    def die(self, channel):
        """A requester that is killed while it does as it should."""
        child = os.fork()
        if child == 0:
            with contextlib.suppress(BaseException):
                while True:
                    channel.ask_locked("config", "status")
            os._exit(0)
        time.sleep(self.random.uniform(0, 0.01))
        os.kill(child, signal.SIGKILL)
        self.assertEqual(wait_exit(child, limit(10)), -signal.SIGKILL)
        with contextlib.suppress(FileNotFoundError):
            os.unlink(channel.output + ".new")


class Devices(Hostile):
    def test_a_device_in_the_place_of_the_output_is_not_written_to(self):
        self.run_services("web")
        channel, path = self.device.channel("web"), self.device.host(f"{PIPES}/web/web.out")
        self.assert_serves("web")
        with self.no_growth():
            # Where it may not be made, one that stands elsewhere is not reached by a link either.
            for make in (lambda: os.mknod(path, 0o666 | 0o020000, os.makedev(1, 3)),
                         lambda: os.symlink("/dev/full", path), lambda: os.symlink("/dev/fd/1", path),
                         lambda: os.symlink("nowhere", path), lambda: os.symlink("web.out", path),
                         lambda: os.link(channel.lock, path), lambda: os.link(channel.input, path)):
                make()
                channel.send(STATUS.format("web"))
                # The next one is read when this one is dealt with: it must not wait for half a minute.
                time.sleep(0.05)
                os.unlink(path)
                self.assert_serves("web")
        self.assertEqual(self.device.read(f"{PIPES}/web/web.lock"), b"")
        self.assert_not_logged("Error during communication")


class Crowd(Hostile):
    REQUESTERS = 50

    def test_of_ten_thousand_requests_of_fifty_at_once_each_is_answered_once(self):
        each = 20 if SETTINGS.sanitizer else 200
        total = self.REQUESTERS * each
        self.run_services("web", server=None)
        channel = self.device.channel("web")
        self.assert_serves("web")
        before = len(self.device.log_lines())
        with self.no_growth():
            begin = time.monotonic()
            children = [self.fork_requester(channel, number, each) for number in range(self.REQUESTERS)]
            self.assertEqual([wait_exit(child, limit(100)) for child in children], [0] * self.REQUESTERS)
            duration = time.monotonic() - begin
        print(f"Crowd: {total} requests of {self.REQUESTERS} requesters in {duration:.1f} s", file=sys.stderr)
        # Every one was executed, and none twice: each has a word of its own.
        words = [text.rpartition(" ")[2] for severity, text in self.device.log_lines()[before:] if severity == ERR]
        self.assertEqual(len(words), total)
        self.assertEqual(set(words), {f"{number}.{turn}" for number in range(self.REQUESTERS) for turn in range(each)})

    def fork_requester(self, channel, number, each):
        """As the documentation asks for it: lock, output fifo, one request, one answer. Fails at the first wrong one."""
        child = os.fork()
        if child:
            return child
        status = 1
        try:
            for turn in range(each):
                word = f"{number}.{turn}"
                answer = channel.ask_locked("config", word, timeout=100)
                if answer != (4, REFUSED + word):
                    os.write(2, f"{word} was answered {answer}\n".encode())
                    os._exit(2)
            status = 0
        except NoAnswer as lost:
            os.write(2, f"requester {number}: {lost}\n".encode())
            status = 3
        finally:
            os._exit(status)


if __name__ == "__main__":
    main()
