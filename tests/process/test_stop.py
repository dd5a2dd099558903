"""The stop: on every signal, at any moment, within its time, with nothing left behind."""

import os
import random
import signal
import time

from kwtest import SETTINGS, Case, main
from kwtest.channel import read_answer
from kwtest.device import CALLBACK, LOCK, PID, PIPES, SCRIPTS, WORK
from kwtest.process import wait_until
from kwtest.syslog import INFO, NOTICE

NAMES = {signal.SIGTERM: "Terminated", signal.SIGINT: "Interrupt", signal.SIGQUIT: "Quit"}
HANG = "exec sleep 600"


class Stop(Case):
    def stop_in_time(self, number=signal.SIGTERM, hanging=0):
        """Signals the daemon and checks all of an orderly stop, its duration included; `hanging` is how many of its
        waits for others are cut off one after the other."""
        daemon = self.device.daemon
        begin = time.monotonic()
        daemon.signal(number)
        status = daemon.wait_exit()
        duration = time.monotonic() - begin
        self.assert_stopped_cleanly(status)
        self.assertLess(duration, SETTINGS.stop_limit + SETTINGS.stop_grace * hanging, self.device.log_text())
        self.assertGreater(duration, SETTINGS.stop_grace * hanging - 0.2)
        self.assert_logged(INFO, f"Received fatal signal : {NAMES[number]}", count=1)

    def wait_call(self, *call):
        self.assertTrue(wait_until(lambda: call in self.device.calls()), self.device.log_text())

    def hang_callback_at(self, condition):
        self.device.recording_script(CALLBACK, body=f"{condition} && {HANG}")


class Idle(Stop):
    def test_every_signal_stops_it(self):
        self.device.service("web")
        for number in NAMES:
            with self.subTest(number=number):
                self.device.start()
                os.kill(self.device.daemon.pid, 0)
                self.device.daemon.signal(number)
                self.assert_stopped_cleanly(self.device.daemon.wait_exit())
                self.assert_logged(INFO, f"Received fatal signal : {NAMES[number]}", count=1)

    def test_it_takes_little_time(self):
        for name in ("web", "mqtt", "pkica"):
            self.device.service(name, ca="yes", trustedClients="yes")
        self.device.start()
        self.stop_in_time()

    def test_every_thread_is_gone_before_the_last_line(self):
        self.device.configure(TimeDriftSleepTime="60", TimeDriftThresholdValue="5")
        self.device.service("web")
        self.device.start()
        self.stop_in_time()
        self.assert_in_order([
            (INFO, "Received fatal signal : Terminated"), (NOTICE, "The service web is stopping..."),
            (INFO, "The service web stopped its timer."), (NOTICE, "The service web is stopped."),
            (NOTICE, "Stopping with the code 10...")])

    def test_several_signals_at_once_stop_it_once(self):
        self.device.service("web")
        self.device.start()
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGQUIT, signal.SIGTERM):
            self.device.daemon.signal(number)
        self.assert_stopped_cleanly(self.device.daemon.wait_exit())
        self.assert_logged(NOTICE, "Stopping with the code 10...", count=1)

    def test_a_waiting_requester_is_told(self):
        self.device.service("web")
        self.device.start()
        with self.device.channel("web").listening() as reader:
            self.device.daemon.signal(signal.SIGTERM)
            self.assertEqual(read_answer(reader), b"7 The daemon just terminate")
            self.assertEqual(self.device.daemon.wait_exit(), 10)

    def test_hang_ups_and_terminal_stops_do_not_touch_it(self):
        self.device.service("web")
        self.device.start()
        for number in (signal.SIGHUP, signal.SIGTSTP, signal.SIGTTIN, signal.SIGTTOU, signal.SIGPIPE):
            self.device.daemon.signal(number)
        self.assertEqual(self.device.channel("web").ask("config", "status"), (0, "running"))
        self.stop_in_time()

    def test_files_that_others_took_away_do_not_matter(self):
        self.device.service("web")
        self.device.start()
        for path in (LOCK, f"{PIPES}/notification.signal", f"{PIPES}/web/web.lock"):
            self.device.remove(path)
        self.stop_in_time()


class Busy(Stop):
    def test_during_a_callback_that_hangs_at_the_start(self):
        self.hang_callback_at('[ "$2" = start ]')
        self.device.service("web")
        self.device.start(ready=False).wait_parent()
        self.wait_call("web", "start")
        self.stop_in_time(hanging=1)

    def test_during_a_callback_that_hangs_after_all_have_started(self):
        self.hang_callback_at('[ "$2" = allStarted ]')
        self.device.service("web")
        self.device.service("mqtt")
        self.device.start(ready=False).wait_parent()
        self.assertTrue(wait_until(lambda: any(call[1] == "allStarted" for call in self.device.calls())))
        self.stop_in_time(hanging=1)

    def test_during_a_callback_that_hangs_at_a_network_change(self):
        self.device.service("web", includeFQDN="yes")
        self.device.start()
        self.hang_callback_at('[ "$3" = new ]')
        before = len(self.device.calls())
        self.device.network({"fqdn.0": "renamed.test"})
        self.device.notify("n")
        self.assertTrue(wait_until(lambda: len(self.device.calls()) > before))
        self.stop_in_time(hanging=1)

    def test_during_a_callback_that_hangs_in_a_request(self):
        self.device.service("web")
        self.device.start()
        self.hang_callback_at('[ "$3" = new ]')
        before = len(self.device.calls())
        with self.device.channel("web").listening():
            self.device.channel("web").send("tester\tweb\tserver\trevoke")
            self.assertTrue(wait_until(lambda: len(self.device.calls()) > before))
            self.stop_in_time(hanging=1)

    def test_with_callbacks_that_hang_at_the_stop(self):
        self.device.service("web")
        self.device.service("mqtt")
        self.device.start()
        self.hang_callback_at('[ "$2" = stop ]')
        self.stop_in_time(hanging=2)
        self.assertEqual(sorted(call for call in self.device.calls() if call[1] == "stop"),
                         [("mqtt", "stop"), ("web", "stop")])

    def test_with_a_callback_that_ignores_requests_to_end(self):
        self.device.recording_script(CALLBACK, body="trap '' TERM INT HUP QUIT; while :; do sleep 1; done")
        self.device.service("web", server=None)
        self.device.start(ready=False).wait_parent()
        self.wait_call("web", "start")
        self.stop_in_time(hanging=2)

    def test_twenty_owners_who_take_their_time_are_all_told(self):
        for number in range(20):
            self.device.service(f"web{number}", server=None)
        self.device.start()
        self.device.recording_script(CALLBACK, record="begun", body=f'sleep 0.25; echo "$1" >> {WORK}/ended')
        self.assert_stopped_cleanly(self.device.stop(30))
        self.assertEqual(self.device.read(f"{WORK}/ended").decode().split(), [call[0] for call in self.device.calls("begun")])
        self.assertEqual(len(self.device.calls("begun")), 20)
        self.assert_not_logged("failed for the event")

    def test_an_owner_who_hangs_takes_nothing_from_the_next(self):
        for name in ("web", "mqtt"):
            self.device.service(name, server=None)
        self.device.start()
        self.device.recording_script(CALLBACK, body=f'case $1 in {self.first_of_two()}) {HANG};; esac\n'
                                                    f'sleep 1.5; echo "$1" >> {WORK}/ended')
        self.assert_stopped_cleanly(self.device.stop(30))
        self.assertEqual(len(self.device.read(f"{WORK}/ended").split()), 1)

    def first_of_two(self):
        return [call[0] for call in self.device.calls() if call[1] == "allStarted"][0]

    def test_no_further_owner_is_told_that_all_have_started(self):
        self.hang_callback_at('[ "$2" = allStarted ]')
        for name in ("web", "mqtt", "pkica"):
            self.device.service(name, server=None)
        self.device.start(ready=False).wait_parent()
        self.assertTrue(wait_until(lambda: any(call[1] == "allStarted" for call in self.device.calls())))
        self.stop_in_time(hanging=1)
        self.assertEqual(len([call for call in self.device.calls() if call[1] == "allStarted"]), 1)

    def test_during_a_network_script_that_hangs(self):
        self.device.service("web")
        self.device.start()
        self.device.script(f"{SCRIPTS}/network.sh", f"touch {WORK}/hanging; {HANG}")
        self.device.notify("n")
        self.assertTrue(wait_until(lambda: self.device.exists(f"{WORK}/hanging")))
        self.stop_in_time(hanging=1)

    def test_during_a_network_script_that_hangs_before_the_fork(self):
        self.device.script(f"{SCRIPTS}/network.sh", f"touch {WORK}/hanging; {HANG}")
        self.device.service("web")
        daemon = self.device.start(ready=False)
        self.assertTrue(wait_until(lambda: self.device.exists(f"{WORK}/hanging")))
        begin = time.monotonic()
        os.kill(daemon.parent_pid, signal.SIGTERM)
        status = daemon.wait_parent()
        self.assertLess(time.monotonic() - begin, SETTINGS.stop_limit + SETTINGS.stop_grace)
        self.assert_stopped_cleanly(status)

    def test_during_a_settings_hook_that_hangs(self):
        self.device.script("/opt/hooks/settings", f"touch {WORK}/hanging; {HANG}")
        self.device.service("web", cnfFile=None, cnfHookFile="/opt/hooks/settings")
        self.device.start(ready=False).wait_parent()
        self.assertTrue(wait_until(lambda: self.device.exists(f"{WORK}/hanging")))
        self.stop_in_time(hanging=1)

    def test_during_a_name_script_that_hangs(self):
        self.device.script("/opt/hooks/name", f"touch {WORK}/hanging; {HANG}")
        self.device.request_settings("/etc/keywarden/named.cnf", CN=None, commonNameScript="/opt/hooks/name")
        self.device.service("web", cnfFile="/etc/keywarden/named.cnf")
        self.device.start(ready=False).wait_parent()
        self.assertTrue(wait_until(lambda: self.device.exists(f"{WORK}/hanging")))
        self.stop_in_time(hanging=1)

    def test_during_a_reload(self):
        self.device.service("web")
        self.device.start()
        self.hang_callback_at('[ "$2" = start ]')
        with self.device.channel("web").listening():
            self.device.channel("web").send("tester\tweb\tconfig\treload")
            self.assertTrue(wait_until(lambda: self.device.calls().count(("web", "start")) == 2))
            self.stop_in_time(hanging=1)

    def test_during_the_making_of_a_big_key(self):
        self.device.request_settings("/etc/keywarden/big.cnf", CONFIG_KEY="RSA2048", default_bits="2048")
        self.device.service("web", cnfFile="/etc/keywarden/big.cnf")
        self.device.start(ready=False).wait_parent()
        self.device.wait_log(NOTICE, "The service web is creating a server selfsigned certificate...")
        self.stop_in_time()
        self.device.start()
        self.assert_whole_store("web")


class AnyMoment(Stop):
    def setUp(self):
        super().setUp()
        self.device.recording_script(CALLBACK, body="sleep 0.02")
        for name in ("web", "pkica", "mqtt"):
            self.device.service(name, ca="yes", trustedClients="yes", includeFQDN="yes")

    def stop_at(self, moment, number):
        """A start that is stopped a moment after the fork."""
        daemon = self.device.start(ready=False)
        daemon.wait_forked(self.device.host(PID))
        time.sleep(moment)
        begin = time.monotonic()
        daemon.signal(number)
        self.assertEqual(daemon.wait_parent(), 0)
        try:
            status = daemon.wait_exit()
        except AssertionError as still_running:
            status = still_running
        duration = time.monotonic() - begin
        circumstances = f"{number!r} after {moment:.4f} s\n{self.device.log_text()}"
        self.assertEqual(status, 10, circumstances)
        self.assertLess(duration, SETTINGS.stop_limit, circumstances)
        self.assert_nothing_left()

    def test_right_after_the_fork(self):
        for number in NAMES:
            for _ in range(3):
                self.stop_at(0, number)

    def test_at_thirty_random_moments(self):
        begin = time.monotonic()
        self.device.start()
        duration = time.monotonic() - begin
        self.device.stop()
        generator = random.Random()
        for _ in range(30):
            self.stop_at(generator.uniform(0, duration * 1.2), generator.choice(list(NAMES)))
        # Whatever the stops interrupted, the stores are whole.
        self.device.start()
        for name in ("web", "pkica", "mqtt"):
            self.assert_whole_store(name)

    def test_while_the_readiness_marker_is_made(self):
        # system(3) ignores SIGINT and SIGQUIT while its command runs, and forgets one that nobody has taken yet.
        device = self.new_device()
        device.script(CALLBACK, "exit 0")
        device.service("web", server=None)
        generator = random.Random()
        for count in range(1, 121):
            daemon = device.start(ready=False)
            daemon.wait_parent()
            device.wait_log(NOTICE, "The daemon is running.", count=count)
            moment = time.perf_counter() + generator.uniform(0, 0.004)
            while time.perf_counter() < moment:
                pass
            daemon.signal(generator.choice((signal.SIGINT, signal.SIGQUIT)))
            self.assertEqual(daemon.wait_exit(3), 10)

    def test_before_the_fork_as_well(self):
        begin = time.monotonic()
        self.device.start(ready=False).wait_forked(self.device.host(PID))
        duration = time.monotonic() - begin
        self.device.daemon.wait_parent()
        self.device.stop()
        generator = random.Random()
        for _ in range(30):
            daemon = self.device.start(ready=False)
            moment = generator.uniform(0, duration * 1.1)
            time.sleep(moment)
            os.kill(daemon.parent_pid, signal.SIGTERM)
            status = daemon.wait_parent()
            if status == 0:
                # Too late for the parent, so it was meant for the daemon; or the parent was gone already.
                daemon.signal(signal.SIGTERM)
                status = daemon.wait_exit()
            # A signal that comes before main() finds a process that has made nothing yet.
            self.assertIn(status, (10, -signal.SIGTERM), f"after {moment:.4f} s\n{self.device.log_text()}")
            self.assert_nothing_left()


if __name__ == "__main__":
    main()
