"""Callbacks and hooks that misbehave: the log names them, the daemon goes on, and a stop still works."""

import os
import time

from kwtest import SETTINGS, Case, main
from kwtest.device import CALLBACK, KEYWARD, PIPES, SCRIPTS, WORK
from kwtest.process import limit, name_of, status_of, wait_until
from kwtest.syslog import ERR, NOTICE, WARNING

BAD = "/etc/keywarden/bad"
HANG = "exec sleep 600"
NOISE = "while :; do echo 0123456789012345678901234567890123456789012345678901234567890123456789; done"
# A requester that asks its own service from inside the service's script: it can only be answered once the script
# has ended, and the script only ends with the answer.
ASK_ITSELF = (f'mkfifo -m 0666 {PIPES}/$1/$1.out; printf "script\\t$1\\tconfig\\tstatus" > {PIPES}/$1/$1.in; '
              f'cat {PIPES}/$1/$1.out')


class Misbehaving(Case):
    def script(self, name, condition, body):
        """An owner's script that does this for some of its events."""
        path = f"/opt/hooks/{name}"
        self.device.recording_script(path, body=f"{condition} || exit 0\n{body}")
        return path

    def failed(self, name, event, how):
        return f"The callback /opt/hooks/{name} for the service {name} failed for the event '{event}': {how}"

    def overdue(self, name, event, seconds=1):
        return self.failed(name, event, f"it did not end within {seconds} seconds and was killed")

    def assert_serves(self, *names):
        for name in names:
            begin = time.monotonic()
            self.assertEqual(self.device.channel(name).ask_locked("config", "status", timeout=10), (0, "running"))
            self.assertLess(time.monotonic() - begin, limit(1), name)

    def assert_stops(self, hanging=0):
        """In its time; `hanging` is how many scripts are ended for that, one after the other."""
        begin = time.monotonic()
        self.assert_stopped_cleanly(self.device.stop())
        self.assertLess(time.monotonic() - begin, SETTINGS.stop_limit + SETTINGS.stop_grace * hanging)

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.device.daemon.pid}/fd"))

    def wait_call(self, *call):
        self.assertTrue(wait_until(lambda: call in self.device.calls()), self.device.log_text())


class Endings(Misbehaving):
    """How scripts may end that should have ended well."""

    HOW = {"status": ("exit 3", "exit status 3"), "highest": ("exit 255", "exit status 255"),
           "crash": ("kill -SEGV $$; sleep 9", "signal 11"), "abort": ("kill -ABRT $$; sleep 9", "signal 6"),
           "shot": ("kill -KILL $$; sleep 9", "signal 9"),
           "shell": ("exec /no/such/program 2>&-", "exit status 127")}

    def test_each_is_told_with_script_event_and_status_and_nothing_else_happens(self):
        for name, (body, _) in self.HOW.items():
            self.device.service(name, callbackScript=self.script(name, "true", body))
        self.device.service("web")
        self.device.start()
        for name, (_, how) in self.HOW.items():
            active = self.device.active(name)
            days = next(call[3] for call in self.device.calls() if call[:3] == (name, "server", "expireIn"))
            for event in (f"server new {active}", f"server expireIn {days}", "start", "allStarted"):
                self.assert_logged(WARNING, self.failed(name, event, how), count=1)
            self.assert_whole_store(name)
        before = self.descriptors()
        for name, (_, how) in self.HOW.items():
            self.assertEqual(self.device.channel(name).ask("server", "revoke"), (0, ""))
            self.assert_logged(WARNING, self.failed(name, f"server new {self.device.active(name)}", how), count=2)
        self.assert_serves("web", *self.HOW)
        self.assertEqual(self.descriptors(), before)
        self.assert_stops()
        for name, (_, how) in self.HOW.items():
            self.assert_logged(WARNING, self.failed(name, "stop", how), count=1)
        self.assert_not_logged("for the service web failed")

    def test_a_network_script_that_crashes_is_told(self):
        self.device.service("web", includeFQDN="yes")
        self.device.start()
        for body, how in (("exit 7", "exit status 7"), ("kill -SEGV $$; sleep 9", "signal 11")):
            self.device.script(f"{SCRIPTS}/network.sh", body)
            self.device.notify("n")
            self.assertTrue(wait_until(lambda: (WARNING, f"The network script {SCRIPTS}/network.sh ended with {how}.")
                                       in self.device.log_lines()), self.device.log_text())
        self.assert_serves("web")
        self.assert_stops()


class TimeOut(Misbehaving):
    """The setting callbackTimeoutSecs."""

    HOW = {"hang": HANG, "noise": NOISE, "stubborn": "trap '' TERM INT HUP QUIT; while :; do sleep 1; done",
           "family": "sleep 600 & sleep 600 & wait", "itself": ASK_ITSELF}

    def test_what_does_not_end_is_killed_with_its_children_and_told(self):
        for name, body in self.HOW.items():
            self.device.service(name, callbackScript=self.script(name, '[ "$3" = new ] && [ -e /etc/keywarden/bad ]', body),
                                callbackTimeoutSecs="1")
        self.device.service("web")
        self.device.start()
        before = self.descriptors()
        self.device.write(BAD, "")
        begin = time.monotonic()
        for name in self.HOW:
            self.device.channel(name).send(f"a\t{name}\tserver\trevoke")
        # They all hang at the same time; nobody else waits for them.
        for _ in range(3):
            self.assert_serves("web")
        for name in self.HOW:
            self.device.wait_log(ERR, self.overdue(name, f"server new {self.device.active(name)}"))
        self.assertGreater(time.monotonic() - begin, 0.9)
        self.assertLess(time.monotonic() - begin, limit(4))
        self.assertTrue(wait_until(lambda: self.children() == []), self.children())
        self.device.remove(BAD)
        # What the script that asked itself has left in the fifo belongs to nobody any more; the next request may
        # be taken for its end, and refused.
        itself = self.device.channel("itself")
        self.assertTrue(wait_until(lambda: itself.ask_locked("config", "status", timeout=5) == (0, "running")))
        self.assert_serves("web", *self.HOW)
        for name in self.HOW:
            self.assert_whole_store(name)
        self.assertTrue(wait_until(lambda: self.descriptors() <= before))
        if not SETTINGS.sanitizer:
            self.assertLess(int(status_of(self.device.daemon.pid)["VmHWM"].split()[0]), 64 * 1024)
        self.assert_stops()

    def children(self):
        """What runs below the daemon."""
        daemon = self.device.daemon
        with open(f"/proc/{daemon.pid}/task/{daemon.pid}/children", encoding="ascii") as listing:
            own = [name_of(int(pid)) for pid in listing.read().split()]
        return own + daemon.orphans()

    def test_it_counts_for_every_event_and_the_start_goes_on(self):
        self.device.service("web", server=None, callbackTimeoutSecs="1",
                            callbackScript=self.script("web", '[ "$2" = start ] || [ "$2" = allStarted ]', HANG))
        self.device.service("other", server=None)
        begin = time.monotonic()
        self.device.start()
        self.assertGreater(time.monotonic() - begin, 1.9)
        for event in ("start", "allStarted"):
            self.assert_logged(ERR, self.overdue("web", event), count=1)
        self.assert_serves("web", "other")
        self.assert_stops()

    def test_a_script_in_time_is_left_alone_and_so_is_what_it_leaves_behind(self):
        self.device.service("web", callbackTimeoutSecs="20", callbackScript=self.script(
            "web", '[ "$2" = allStarted ]', f"sleep 0.3; (sleep 1; echo late >> {WORK}/late) & echo done >> {WORK}/late"))
        self.device.start()
        self.assertEqual(self.device.read(f"{WORK}/late"), b"done\n")
        self.assertTrue(wait_until(lambda: self.device.read(f"{WORK}/late") == b"done\nlate\n"))
        self.assert_not_logged("failed for the event")

    def test_one_that_makes_no_sense_is_said_and_is_none(self):
        for value in ("soon", "86401"):
            with self.subTest(value=value):
                device = self.device = self.new_device()
                device.recording_script(CALLBACK, body='[ "$2" = start ] || exit 0; sleep 1.2')
                device.service("web", server=None, callbackTimeoutSecs=value)
                device.start()
                self.assert_logged(ERR, "Invalid config parameter: callbackTimeoutSecs of the service web should be from "
                                        "1 to 86400. Its callback has no time-out.", count=1)
                self.assert_not_logged("failed for the event")
                self.assert_serves("web")
                self.assert_stops()

    def test_a_reload_brings_it_and_takes_it_away(self):
        path = self.script("web", f'[ "$2" = start ] && [ -e {BAD} ]', "sleep 1.5")
        self.device.service("web", server=None, callbackScript=path)
        self.device.start()
        self.device.write(BAD, "")
        for seconds, count in (("1", 1), (None, 1)):
            self.device.service("web", server=None, callbackScript=path, callbackTimeoutSecs=seconds)
            self.assertEqual(self.device.channel("web").ask("config", "reload"), (0, "Reload Successful"))
            self.assert_logged(ERR, self.overdue("web", "start"), count=count)


class Endless(Misbehaving):
    """Without that setting a service waits for its script, however long; nobody else does."""

    def test_a_script_that_asks_its_own_service_waits_and_the_others_do_not(self):
        condition = f'[ "$3" = new ] && [ -e {BAD} ]'
        self.device.service("web", callbackScript=self.script("web", condition, f"{ASK_ITSELF} > {WORK}/answer"))
        self.device.service("other")
        self.device.start()
        self.device.write(BAD, "")
        before = len(self.device.calls())
        self.device.channel("web").send("a\tweb\tserver\trevoke")
        self.assertTrue(wait_until(lambda: len(self.device.calls()) > before))
        for _ in range(5):
            self.assert_serves("other")
        self.assertTrue(wait_until(lambda: self.device.exists(f"{WORK}/answer")))
        self.assertEqual(self.device.read(f"{WORK}/answer"), b"")
        self.assert_stops(hanging=1)
        self.assert_logged(WARNING, self.failed("web", f"server new {self.device.active('web')}", "signal 9"), count=1)

    def test_a_script_that_asks_once_all_have_started_is_answered(self):
        self.device.service("web", callbackScript=self.script("web", '[ "$2" = allStarted ]',
                                                              f"{{ {ASK_ITSELF}; }} > {WORK}/answer"))
        self.device.start()
        self.assertEqual(self.device.read(f"{WORK}/answer"), b"0 running")
        self.assert_stops()

    def test_a_script_that_prints_without_end_does_not_delay_the_stop(self):
        self.device.service("web", callbackScript=self.script("web", f'[ "$3" = new ] && [ -e {BAD} ]',
                                                              f"({NOISE}) & {NOISE} >&2"))
        self.device.service("other")
        self.device.start()
        self.device.write(BAD, "")
        before = len(self.device.calls())
        self.device.channel("web").send("a\tweb\tserver\trevoke")
        self.assertTrue(wait_until(lambda: len(self.device.calls()) > before))
        for _ in range(5):
            self.assert_serves("other")
        if not SETTINGS.sanitizer:
            self.assertLess(int(status_of(self.device.daemon.pid)["VmHWM"].split()[0]), 64 * 1024)
        self.assert_stops(hanging=1)

    def test_background_processes_that_keep_the_pipes_hold_up_neither_service_nor_stop(self):
        # One in the script's group, one in a session of its own; both go on printing.
        print_on = "while :; do echo still here; echo and here >&2; sleep 0.05; done"
        self.device.service("web", callbackScript=self.script(
            "web", "true", f"({print_on}) & /usr/bin/setsid sh -c '{print_on}' & exit 0"))
        self.device.start()
        before = self.descriptors()
        for _ in range(5):
            self.assertEqual(self.device.channel("web").ask("server", "revoke"), (0, ""))
        self.assert_serves("web")
        self.assertEqual(self.descriptors(), before)
        self.assert_not_logged("failed for the event")
        begin = time.monotonic()
        self.assertEqual(self.device.stop(), 10)
        self.assertLess(time.monotonic() - begin, SETTINGS.stop_limit)


class Sabotage(Misbehaving):
    """Scripts that lay hands on what is the daemon's."""

    def sabotage(self, body, condition='[ "$3" = new ]'):
        self.device.service("web", ca="yes", callbackScript=self.script(
            "web", f"[ -e {BAD} ] && {condition}", body))
        self.device.service("other")
        self.device.start()
        self.device.write(BAD, "")

    def assert_recovers(self):
        """The daemon runs, and the next start has a whole pair again."""
        self.device.remove(BAD)
        self.assert_serves("other")
        self.assert_whole_store("other")
        self.assert_stops()
        self.device.start()
        self.assert_serves("web", "other")
        self.assert_whole_store("web")
        self.assert_stops()

    def test_one_that_removes_the_new_certificate(self):
        self.sabotage(f'rm -f {KEYWARD}/web/server/"$4" {KEYWARD}/web/server/"$4".key')
        self.device.channel("web").ask("server", "revoke")
        self.device.notify("t")
        self.device.wait_log(NOTICE, "Time reload notification completed")
        self.assert_serves("web")
        self.assert_recovers()

    def test_one_that_removes_the_whole_store(self):
        self.sabotage(f"rm -rf {KEYWARD}/web/server")
        self.device.channel("web").ask("server", "revoke")
        self.assert_serves("web")
        self.assert_recovers()

    def test_one_that_empties_the_key_or_swaps_it(self):
        for body in (f': > {KEYWARD}/web/server/"$4".key',
                     f'cat {KEYWARD}/other/server/"$4".key > {KEYWARD}/web/server/"$4".key'):
            with self.subTest(body=body):
                self.device = self.new_device()
                self.sabotage(body)
                self.device.channel("web").ask("server", "revoke")
                self.assert_serves("web")
                self.assert_recovers()

    def test_one_that_takes_itself_away(self):
        self.sabotage("rm -f /opt/hooks/web", condition="true")
        os.chown(self.device.host("/opt/hooks"), 4242, 4242)
        self.assertEqual(self.device.channel("web").ask("server", "revoke"), (0, ""))
        self.assertEqual(self.device.channel("web").ask("server", "revoke"), (0, ""))
        self.assert_logged(ERR, "The callback /opt/hooks/web for the service web could not be run: "
                                "Cannot run /opt/hooks/web: No such file or directory", count=1)
        self.assert_serves("web", "other")
        self.assert_stops()

    def test_one_that_kills_its_whole_group(self):
        self.sabotage("kill -9 0", condition="true")
        self.assertEqual(self.device.channel("web").ask("server", "revoke"), (0, ""))
        self.assert_logged(WARNING, self.failed("web", f"server new {self.device.active('web')}", "signal 9"), count=1)
        self.assert_recovers()


if __name__ == "__main__":
    main()
