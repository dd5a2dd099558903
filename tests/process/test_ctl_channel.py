"""keywardctl as a requester among others: many at once, dead ones before it, a daemon that is slow or gone."""

import fcntl
import os
import signal
import stat
import time

from kwtest import Case, main
from kwtest.device import CALLBACK, PIPES, WORK
from kwtest.operator_tool import OperatorTool
from kwtest.process import limit, wait_until
from kwtest.syslog import ERR

DONE, FAILED, USAGE, NOT_RUNNING, REFUSED = range(5)
OUTPUT = f"{PIPES}/web/web.out"
LOCK = f"{PIPES}/web/web.lock"


class Channel(Case):
    def setUp(self):
        super().setUp()
        self.ctl = OperatorTool(self.device)
        self.device.service("web", ca="yes")
        self.device.start()
        # Its reader opens the fifo a moment after the daemon is ready; some tests stop it at once.
        self.assertEqual(self.device.channel("web").ask("config", "status"), (0, "running"))

    def start_others(self, *services):
        for service in services:
            self.device.service(service, selfSignedGeneration=None)
        self.device.stop()
        self.device.start()

    def run_as_operator(self, *arguments, **options):
        return self.ctl.run(*arguments, user="operator", **options)

    def assert_works(self):
        """An answer that belongs to its question, and nothing left of it."""
        self.assertEqual(self.run_as_operator("reload", "web"), (DONE, "Reload Successful\n", ""))
        self.assert_tidy()

    def assert_tidy(self):
        self.assertEqual([name for name in os.listdir(self.device.host(f"{PIPES}/web"))
                          if name not in ("web.in", "web.lock", "server", "ca")], [])
        self.assertEqual(self.device.read(LOCK), b"")

    def start_asking(self, *arguments):
        """One whose request has been sent, to a daemon that does not answer."""
        process = self.ctl.start(*arguments, user="operator")
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        self.assertTrue(wait_until(lambda: self.device.read(LOCK) == b"unanswered" and self.is_waiting(process)))
        return process

    @staticmethod
    def is_waiting(process):
        with open(f"/proc/{process.pid}/wchan", encoding="ascii") as wchan:
            name = wchan.read()
        with open(f"/proc/{process.pid}/stat", encoding="utf-8") as info:
            return "poll" in name or info.read().rsplit(") ", 1)[1][0] == "S"


class Crowd(Channel):
    def test_fifty_at_once_each_get_their_own_answer(self):
        self.start_others("api")
        status = ("SERVICE  STATE    CERTIFICATE  DAYS  REQUEST  CAS  CLIENTS  NAMES\n"
                  "api      running  none         -     no       -    -        -\n"
                  "web      running  self-signed  29    no       0    -        ok\n")
        questions = []
        for number in range(50):
            name = f"{number:08x}.0"
            if number % 5 == 0:
                questions.append((("ca", "remove", "web", name), FAILED, "",
                                  f"keywardctl: not in the store 'ca' of the service 'web': {name}\n"))
            elif number % 5 == 1:
                questions.append((("client", "remove", "web", name), REFUSED, "",
                                  "keywardctl: Trusted certificate doesn't exist for web\n"))
            else:
                questions.append((("status",), DONE, status, ""))
        processes = [self.ctl.start(*arguments, user="operator") for arguments, *_ in questions]
        for process, (_, code, out, err) in zip(processes, questions):
            with process:
                self.assertEqual((*process.communicate(timeout=limit(60)), process.returncode), (out, err, code))
        self.assert_tidy()

    def test_one_that_does_not_know_of_the_lock_holds_it_for_long(self):
        with open(self.device.host(LOCK), "rb") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            status, out, err = self.run_as_operator("revoke", "web", "--timeout", "1")
        self.assertEqual((status, out, err), (FAILED, "", f"keywardctl: another requester has held '{LOCK}' for 1 s; "
                                              "'fuser -v' names the process\n"))
        self.assert_not_logged("Revoke request")
        self.assert_works()

    def test_a_lock_of_one_that_was_killed_is_free(self):
        self.device.daemon.signal(signal.SIGSTOP)
        process = self.start_asking("reload", "web")
        process.kill()
        process.wait()
        self.device.daemon.signal(signal.SIGCONT)
        self.assert_works()


class DeadRequesters(Channel):
    def test_a_fifo_that_was_left_behind_is_replaced(self):
        os.mkfifo(self.device.host(OUTPUT), 0o600)
        self.assert_works()

    def test_what_is_no_fifo_is_left_alone(self):
        for make in (lambda path: open(path, "wb").close(), lambda path: os.symlink(f"{WORK}/elsewhere", path)):
            make(self.device.host(OUTPUT))
            status, out, err = self.run_as_operator("renew", "web")
            self.assertEqual((status, out), (FAILED, ""))
            self.assertEqual(err, f"keywardctl: '{OUTPUT}' is in the way: it is not a fifo that a requester left "
                             "behind; look who made it and remove it\n")
            self.assertTrue(self.device.exists(OUTPUT))
            os.unlink(self.device.host(OUTPUT))
        self.assert_works()

    def test_the_answer_to_a_killed_one_is_nobody_elses(self):
        """Its request is still in the daemon's hands when the next one asks."""
        self.device.daemon.signal(signal.SIGSTOP)
        first = self.start_asking("ca", "remove", "web", "00000000.0")
        first.kill()
        first.wait()
        second = self.ctl.start("reload", "web", user="operator")
        self.addCleanup(second.kill)
        self.assertTrue(wait_until(lambda: self.is_waiting(second)))
        self.device.daemon.signal(signal.SIGCONT)
        self.assertEqual((*second.communicate(timeout=limit(30)), second.returncode),
                         ("Reload Successful\n", "", DONE))
        self.assert_tidy()

    def test_the_answer_to_one_that_gave_up_is_nobody_elses(self):
        self.script_that_waits()
        status, out, err = self.run_as_operator("renew", "web", "--timeout", "1")
        self.assertEqual((status, out), (FAILED, ""))
        self.assertEqual(err, "keywardctl: the daemon did not answer for the service 'web' within 1 s; what was asked "
                         "for may still be done\n")
        self.assertFalse(self.device.exists(OUTPUT))
        self.assertEqual(self.device.read(LOCK), b"unanswered")
        next_one = self.ctl.start("ca", "remove", "web", "00000000.0", user="operator")
        self.addCleanup(next_one.kill)
        self.assertTrue(wait_until(lambda: self.device.exists(OUTPUT)))
        self.device.write(f"{WORK}/go", "")
        self.assertEqual((*next_one.communicate(timeout=limit(30)), next_one.returncode),
                         ("", "keywardctl: not in the store 'ca' of the service 'web': 00000000.0\n", FAILED))
        self.assertEqual(self.device.read(LOCK), b"")
        self.device.script(CALLBACK, "exit 0")
        self.assert_works()

    def script_that_waits(self):
        self.device.script(CALLBACK, f"while [ ! -e {WORK}/go ]; do sleep 0.05; done")

    def test_one_that_is_asked_to_end_leaves_nothing_behind(self):
        self.device.daemon.signal(signal.SIGSTOP)
        self.device.write(f"{WORK}/some.pem", "text")
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            process = self.start_asking("ca", "add", "web", f"{WORK}/some.pem")
            self.assertTrue(self.device.exists(OUTPUT))
            process.send_signal(number)
            process.wait(limit(10))
            self.assertEqual(process.returncode, -number)
            self.assertEqual(sorted(name for name in self.device.listing(f"{PIPES}/web") if "/" not in name),
                             ["ca", "server", "web.in", "web.lock"])
        self.device.daemon.signal(signal.SIGCONT)
        self.assert_works()

    def test_copies_of_killed_ones_are_removed(self):
        leftover = self.device.host(f"{PIPES}/web/keywardctl-abcdef")
        with open(leftover, "wb"):
            pass
        self.device.write(f"{WORK}/some.pem", "text")
        self.assertEqual(self.run_as_operator("ca", "add", "web", f"{WORK}/some.pem")[0], REFUSED)
        self.assert_tidy()


class SlowOrGone(Channel):
    def test_a_daemon_that_is_stopped_costs_the_time_out(self):
        self.device.daemon.signal(signal.SIGSTOP)
        begin = time.monotonic()
        status, out, err = self.run_as_operator("status", "--timeout", "1")
        self.assertLess(time.monotonic() - begin, limit(5))
        self.assertEqual((status, out), (FAILED,
                                         "SERVICE  STATE    CERTIFICATE  DAYS  REQUEST  CAS  CLIENTS  NAMES\n"
                                         "web      unknown  self-signed  29    no       0    -        ok\n"))
        self.assertIn("the daemon did not answer for the service 'web' within 1 s", err)
        self.device.daemon.signal(signal.SIGCONT)
        self.assert_works()

    def test_a_daemon_that_is_killed_is_missed_at_once(self):
        self.device.daemon.signal(signal.SIGSTOP)
        process = self.start_asking("renew", "web")
        self.device.daemon.signal(signal.SIGKILL)
        self.device.daemon.wait_exit()
        begin = time.monotonic()
        _, err = process.communicate(timeout=limit(10))
        self.assertLess(time.monotonic() - begin, limit(3))
        self.assertEqual(process.returncode, NOT_RUNNING)
        self.assertIn("keywardctl: the daemon is not running (it ended before it answered)", err)
        self.assertFalse(self.device.exists(OUTPUT))

    def test_a_stop_answers_the_one_that_waits(self):
        self.device.daemon.signal(signal.SIGSTOP)
        process = self.start_asking("reload", "web")
        self.device.daemon.signal(signal.SIGTERM)
        self.device.daemon.signal(signal.SIGCONT)
        out, err = process.communicate(timeout=limit(20))
        # Whichever comes first to the daemon: the request, the stop in the middle of it, or the stop.
        self.assertIn((process.returncode, out, err.split(" (")[0].strip()),
                      [(DONE, "Reload Successful\n", ""),
                       (NOT_RUNNING, "", "keywardctl: The daemon just terminate"),
                       (NOT_RUNNING, "", "keywardctl: the daemon is not running")])

    def test_a_long_request_is_sent_whole(self):
        ids = [f"{number:08x}.0" for number in range(3000)]
        status, out, err = self.run_as_operator("ca", "remove", "web", *ids)
        self.assertEqual((status, out), (FAILED, ""))
        self.assertEqual(err, f"keywardctl: not in the store 'ca' of the service 'web': {' '.join(ids)}\n")

    def test_a_request_that_is_too_long_is_refused(self):
        ids = ["x" * 1000] * 80
        status, _, err = self.run_as_operator("ca", "remove", "web", *ids)
        self.assertEqual((status, err), (REFUSED, "keywardctl: Bad format for command. The request is longer than "
                                         "65536 bytes.\n"))


class Rights(Channel):
    def test_a_stranger_is_told_which_group(self):
        self.assertEqual(self.ctl.run("renew", "web", user="stranger"), (
            FAILED, "", f"keywardctl: cannot open '{LOCK}': Permission denied; only members of the group 'kwmgmt' may "
            "command the service 'web': add the user with 'usermod -aG kwmgmt stranger' and log in again\n"))

    def test_the_fifo_is_for_the_group_alone(self):
        self.device.daemon.signal(signal.SIGSTOP)
        for user, uid in (("operator", "operator"), ("root", "root")):
            process = self.ctl.start("reload", "web", user=user)
            self.assertTrue(wait_until(lambda: self.device.exists(OUTPUT) and
                                       stat.S_IMODE(os.lstat(self.device.host(OUTPUT)).st_mode) == 0o660))
            self.assertEqual(self.device.rights(OUTPUT), ("p", 0o660, uid, "kwmgmt"))
            process.terminate()
            process.communicate()
        self.device.daemon.signal(signal.SIGCONT)
        self.assert_works()

    def test_root_writes_into_no_file_that_a_member_planted(self):
        lock, victim = self.device.host(LOCK), self.device.host("/run/victim")
        with open(victim, "w", encoding="ascii") as file:
            file.write("precious")
        for plant in (os.link, os.symlink, lambda _, path: os.mkfifo(path)):
            os.unlink(lock)
            plant(victim, lock)
            status, out, err = self.ctl.run("renew", "web")
            self.assertEqual((status, out), (FAILED, ""))
            self.assertIn(LOCK, err)
            self.assertEqual(self.device.read("/run/victim"), b"precious")
        self.assert_not_logged("Revoke request")

    def test_the_daemon_user_itself_may_ask(self):
        self.assertEqual(self.ctl.run("reload", "web", user="keyuser"), (DONE, "Reload Successful\n", ""))
        self.assert_tidy()

    def test_nothing_is_logged_under_the_daemons_name(self):
        before = self.device.log_lines()
        self.assertEqual(self.run_as_operator("status")[0], DONE)
        self.assertEqual([line for line in self.device.log_lines()[len(before):] if line[0] <= ERR], [])
        self.assertEqual({line.pid for line in self.device.log.lines()[len(before):]} - {self.device.daemon.pid},
                         set())

    def test_what_the_parts_report_is_told_for_debugging_only(self):
        self.device.script("/opt/scripts/network.sh", "exit 3")
        self.device.service("web", ca="yes", includeFQDN="yes")
        text = "The network script /opt/scripts/network.sh ended with exit status 3."
        status, out, err = self.run_as_operator("status")
        self.assertEqual((status, err), (DONE, ""))
        self.assertIn("  unknown\n", out)
        self.assertEqual(self.run_as_operator("status", "--debug")[2].count(text), 1)


if __name__ == "__main__":
    main()
