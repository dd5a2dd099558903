"""The start: its steps and their lines in order, the order of the services, and second instances."""

import os
import re
import signal
import subprocess

from kwtest import Case, main
from kwtest.device import KEYWARD, LOCK, PID, PIPES, PROGRAM, SERVICES, USERS, WORK
from kwtest.process import children_of, name_of, status_of, wait_until
from kwtest.syslog import EMERG, ERR, INFO, NOTICE

PARENT_LINE = (INFO, "Parent process terminating after successfull fork.")
STARTED = [
    (NOTICE, r"The service web is starting\.\.\."),
    (NOTICE, r"Server for service web starting\.\.\."),
    (INFO, r"Server certificate not found for service: web"),
    (NOTICE, r"Create and Apply SelfSigned certificate for service 'web' as generatin is needed\."),
    (NOTICE, r"The service web is creating a server selfsigned certificate\.\.\."),
    (NOTICE, r"New certificate with id '[0-9a-f]{8}\.0' for service 'web' has been installed\. "
             r"Calling the callback script\.\.\."),
    (NOTICE, r"Days before validity of server certificate for service 'web' : -\d+\.\d{6} days\."),
    (NOTICE, r"Days before expiration of server certificate considering the expiry check offset time for service "
             r"'web' : \d+\.\d{6} days\."),
    (INFO, r"Callback script called for service 'web' with 'expireIn' of '\d+\.\d{6}' days\."),
    (NOTICE, r"Server for service web started\."),
    (NOTICE, r"Reload: The service web is started\."),
    (INFO, r"The service web is starting his timer\.\.\."),
    (INFO, r"The service web started his timer\."),
    (ERR, r"value for TimeDrfitSleepIntervalSec is 0"),
    (NOTICE, r"The daemon is running\."),
]
STOPPED = [
    (INFO, r"Received fatal signal : Terminated"),
    (ERR, r"No thread with the ID threadMonitorTimeNetworkConfig could be found\. "),
    (NOTICE, r"The service web is stopping\.\.\."),
    (INFO, r"The service web is stopping its timer\.\.\."),
    (INFO, r"The service web stopped its timer\."),
    (4, rf"'{PIPES}/web/web\.out' file not found\.\nLooks like the requester is no more present to receive the "
        r"response back!"),
    (NOTICE, r"The service web is stopped\."),
    (NOTICE, r"Stopping with the code 10\.\.\."),
]
DEBUG_LINES = [
    "Start the daemon", "Get the lock...", "Get the lock... Done.", "Change the user... ", " -> Set Groups done.",
    " -> Set main group done.", " -> Set user done.", "Change the user... done.", "Create the file architecture",
    "Get network info ...", "Get network info Done.", "daemonize...", "Are we already a deamon ?",
    "Are we already a deamon ? No. Create a daemon.", "daemonize... done.", "The service web is starting...",
    "The daemon is running.", "Calling callback 'allStarted' for service 'web'.", "Received fatal signal : Terminated",
    "Stopping with the code 10...", "Stopping with the code 10...",
]


class Sequence(Case):
    def assert_lines_match(self, lines, patterns):
        for (severity, text), (wanted, pattern) in zip(lines, patterns):
            if severity != wanted or not re.fullmatch(pattern, text):
                self.fail(f"<{severity}> {text!r} is not <{wanted}> {pattern!r}\n{self.device.log_text()}")
        self.assertEqual(len(lines), len(patterns), self.device.log_text())

    def test_the_log_of_a_whole_life_is_complete_and_in_order(self):
        self.device.service("web")
        daemon = self.device.start()
        self.assertEqual(self.device.stop(), 10)
        self.assertEqual(self.device.log_lines(daemon.parent_pid), [PARENT_LINE])
        # The reader thread announces itself at a time of its own.
        analyzer = "Entering the command line analyzer for service web"
        lines = self.device.log_lines(daemon.pid)
        self.assertEqual(len([text for _, text in lines if text == analyzer]), 1)
        self.assert_lines_match([line for line in lines if line[1] != analyzer], STARTED + STOPPED)

    def test_debug_lines_come_in_order_on_standard_error_only(self):
        self.device.service("web")
        self.device.start("-d")
        self.device.stop()
        lines = self.device.stderr().splitlines()
        self.assertEqual(lines[0], "Start the daemon")
        rest = iter(lines)
        for wanted in DEBUG_LINES:
            self.assertIn(wanted, rest)
        self.assertIn(">>>>>>>>>>> Ready for actions! ", lines)
        self.assertLess(lines.index(">>>>>>>>>>> Ready for actions! "), lines.index("The daemon is running."))
        logged = [text for _, text in self.device.log_lines()]
        for line in ("Start the daemon", "Get the lock...", "daemonize...", ">>>>>>>>>>> Ready for actions! "):
            self.assertNotIn(line, logged)

    def test_every_log_line_is_echoed_in_debug_mode(self):
        self.device.service("web")
        self.device.start("-d")
        self.device.stop()
        echoed = self.device.stderr().splitlines()
        for _, text in self.device.log_lines():
            for line in text.splitlines():
                self.assertIn(line, echoed)

    def test_without_the_option_nothing_is_written_to_standard_error(self):
        for arguments in ((), ("-d", "extra"), ("extra", "-d"), ("-dd",), ("--debug",)):
            with self.subTest(arguments=arguments):
                self.device.service("web")
                self.device.start(*arguments)
                self.assertEqual(self.device.stop(), 10)
                self.assertEqual(self.device.stderr(), "")

    def test_the_pid_file_holds_the_childs_number_without_a_line_end(self):
        self.device.service("web")
        daemon = self.device.start()
        self.assertNotEqual(daemon.pid, daemon.parent_pid)
        self.assertEqual(daemon.parent_status, 0)
        self.assertEqual(self.device.read(PID), str(daemon.pid).encode())
        self.assertEqual(self.device.listing("/run/ready"), [str(daemon.pid)])
        self.assertEqual(self.device.rights(f"/run/ready/{daemon.pid}")[:2], ("-", 0o644))


class Order(Case):
    def test_services_whose_names_begin_with_pki_come_first(self):
        for name in ("web", "pkica", "mqtt", "apki", "pki"):
            self.device.service(name)
        # Within the two groups it is the folder's own order.
        listed = [name[:-5] for name in os.listdir(self.device.host(SERVICES))]
        expected = [name for name in listed if name[:3] == "pki"] + [name for name in listed if name[:3] != "pki"]
        self.device.start()
        self.device.stop()
        for pattern in (r"The service (\w+) is starting\.\.\.", r"The service (\w+) is starting his timer\.\.\.",
                        r"The service (\w+) is stopped\."):
            found = [re.fullmatch(pattern, text) for _, text in self.device.log_lines()]
            self.assertEqual([match[1] for match in found if match], expected)
        for event in ("start", "allStarted", "stop"):
            self.assertEqual([call[0] for call in self.device.calls() if call[1:] == (event,)], expected)

    def test_every_step_is_finished_for_all_services_before_the_next(self):
        self.device.service("web")
        self.device.service("mqtt")
        self.device.start()
        texts = [text for _, text in self.device.log_lines()]
        last_start = max(texts.index(f"Reload: The service {name} is started.") for name in ("web", "mqtt"))
        first_timer = min(texts.index(f"The service {name} is starting his timer...") for name in ("web", "mqtt"))
        self.assertLess(last_start, first_timer)
        calls = self.device.calls()
        self.assertLess(max(calls.index((name, "start")) for name in ("web", "mqtt")),
                        min(calls.index((name, "allStarted")) for name in ("web", "mqtt")))

    def test_only_plain_conf_files_with_one_dot_are_services(self):
        self.device.service("web")
        settings = self.device.read(f"{SERVICES}/web.conf")
        for name in ("web.conf.bak", "a.b.conf", ".conf", "conf", "noext"):
            self.device.write(f"{SERVICES}/{name}", settings)
        os.mkdir(self.device.host(f"{SERVICES}/folder.conf"))
        os.symlink("web.conf", self.device.host(f"{SERVICES}/link.conf"))
        self.device.start()
        started = [text for _, text in self.device.log_lines() if text.startswith("Reload: ")]
        self.assertEqual(started, ["Reload: The service web is started."])


class Skipped(Case):
    def test_a_service_that_fails_is_skipped_and_the_others_run(self):
        self.device.service("bad", callbackScript=None)
        self.device.service("web")
        self.device.start()
        self.assert_logged(ERR, "Error during starting bad: Std exception during loading service object for "
                                "service-bad: No callbacks to load", count=1)
        self.assertEqual(self.device.channel("web").ask("config", "status"), (0, "running"))
        self.assertFalse(self.device.exists(f"{PIPES}/bad/bad.in"))
        self.assert_stopped_cleanly(self.device.stop())

    def assert_no_service_loaded(self):
        daemon = self.device.start(ready=False)
        self.assertEqual(daemon.wait_parent(), 0)
        self.assertEqual(daemon.wait_exit(), 12)
        lines = self.device.log_lines(daemon.pid)
        self.assertEqual(lines[-1], (EMERG, "Stopping with the code 12 due to No service loaded!..."))
        self.assertEqual(lines[-2][1], "Daemon Exception occured during daemon setup: No service loaded!")
        self.assertFalse(self.device.exists(LOCK))
        self.assertFalse(self.device.exists(PID))
        self.assertEqual(self.device.listing("/run/ready"), [])

    def test_when_the_only_service_fails_the_daemon_stops_with_12(self):
        self.device.service("bad", callbackScript=None)
        self.assert_no_service_loaded()
        self.assert_logged(ERR, "Error during starting bad: Std exception during loading service object for "
                                "service-bad: No callbacks to load", count=1)

    def test_without_any_service_the_daemon_stops_with_12(self):
        # Several times: a child that fails at once races with the parent, which writes the pid file after the fork.
        for _ in range(20):
            self.assert_no_service_loaded()


class SecondInstance(Case):
    def test_it_stops_with_13_and_touches_nothing_of_the_first(self):
        self.device.service("web")
        first = self.device.start()
        before = {path: (self.device.read(path), os.stat(self.device.host(path)).st_ino) for path in (LOCK, PID)}
        second = self.device.start(ready=False)
        self.assertEqual(second.wait_parent(), 13)
        self.assertEqual(self.device.log_lines(second.parent_pid),
                         [(EMERG, "Stopping with the code 13 due to keywardd already running...")])
        after = {path: (self.device.read(path), os.stat(self.device.host(path)).st_ino) for path in (LOCK, PID)}
        self.assertEqual(after, before)
        self.assertEqual(self.device.listing("/run/ready"), [str(first.pid)])
        self.assertEqual(self.device.channel("web").ask("config", "status"), (0, "running"))
        self.device.daemon = first
        self.assert_stopped_cleanly(self.device.stop())

    def test_of_two_that_start_at_the_same_moment_one_runs(self):
        self.device.service("web")
        for _ in range(10):
            daemons = [self.device.start(ready=False) for _ in range(2)]
            statuses = [daemon.wait_parent() for daemon in daemons]
            self.assertEqual(sorted(statuses), [0, 13], self.device.log_text())
            self.device.daemon = daemons[statuses.index(0)]
            self.device.wait_ready()
            self.assertEqual(self.device.read(PID), str(self.device.daemon.pid).encode())
            self.assert_stopped_cleanly(self.device.stop())

    def test_debug_says_that_the_lock_is_there(self):
        self.device.service("web")
        self.device.write(LOCK, "")
        self.device.start("-d", ready=False).wait_parent()
        self.assertEqual(self.device.stderr().splitlines()[:3],
                         ["Start the daemon", "Get the lock...", "Get the lock... Failed. Lock file already present."])

    def test_a_lock_that_is_a_dangling_link_counts_as_taken(self):
        self.device.service("web")
        os.symlink("/srv/scratch/elsewhere", self.device.host(LOCK))
        daemon = self.device.start(ready=False)
        self.assertEqual(daemon.wait_parent(), 13)
        self.assertEqual(self.device.log_lines(),
                         [(EMERG, "Stopping with the code 13 due to keywardd already running...")])
        self.assertEqual(os.readlink(self.device.host(LOCK)), "/srv/scratch/elsewhere")
        self.assertFalse(self.device.exists("/srv/scratch/elsewhere"))


class Surroundings(Case):
    def test_what_an_earlier_run_left_among_the_pipes_is_removed(self):
        self.device.service("web")
        self.device.write(f"{PIPES}/old/old.in", "left over")
        self.device.write(f"{WORK}/kept", "not a pipe")
        os.symlink(WORK, self.device.host(f"{PIPES}/link"))
        os.chown(self.device.host(PIPES), *USERS["keyuser"])
        self.device.start()
        self.assertFalse(self.device.exists(f"{PIPES}/old"))
        self.assertFalse(self.device.exists(f"{PIPES}/link"))
        self.assertEqual(self.device.read(f"{WORK}/kept"), b"not a pipe")

    def test_a_certificate_survives_a_restart(self):
        self.device.service("web")
        self.device.start()
        first = self.assert_whole_store("web").serial_number
        self.assertEqual(self.device.stop(), 10)
        self.device.start()
        self.assertEqual(self.assert_whole_store("web").serial_number, first)
        self.assert_logged(INFO, "Server certificate found for service: web", count=1)
        self.assertTrue(self.device.exists(f"{KEYWARD}/web/server/.cacheddata/{self.device.active('web')}.overwrite"))

    def test_a_pid_file_in_a_folder_that_only_root_may_write_is_still_the_daemons(self):
        self.device.configure(pidFile="/run/keywardd.pid")
        self.device.service("web")
        daemon = self.device.start()
        self.assertEqual(self.device.read("/run/keywardd.pid"), str(daemon.pid).encode())
        self.assertEqual(self.device.rights("/run/keywardd.pid"), ("-", 0o664, "keyuser", "keyuser"))
        self.assertEqual(self.device.stop(), 10)
        self.assert_logged(ERR, "Failed to remove file '/run/keywardd.pid' : Permission denied", count=1)

    def test_without_the_folder_for_readiness_it_runs_all_the_same(self):
        os.rmdir(self.device.host("/run/ready"))
        self.device.service("web")
        daemon = self.device.start(ready=False)
        self.assertEqual(daemon.wait_parent(), 0)
        self.device.wait_log(NOTICE, "The daemon is running.")
        self.assertEqual(self.device.channel("web").ask("config", "status"), (0, "running"))
        self.assertEqual(self.device.stop(), 10)

    def test_it_has_a_session_of_its_own_and_ignores_what_terminals_send(self):
        self.device.service("web")
        daemon = self.device.start()
        self.assertEqual(os.getsid(daemon.pid), daemon.pid)
        ignored = int(status_of(daemon.pid)["SigIgn"], 16)
        for number in (signal.SIGTSTP, signal.SIGTTOU, signal.SIGTTIN, signal.SIGHUP):
            self.assertTrue(ignored >> (number - 1) & 1, number)
        self.assertFalse(ignored >> (signal.SIGCHLD - 1) & 1)
        stops = sum(1 << (number - 1) for number in (signal.SIGINT, signal.SIGTERM, signal.SIGQUIT))
        open_to = {int(status_of(daemon.pid, task)["SigBlk"], 16) & stops
                   for task in os.listdir(f"/proc/{daemon.pid}/task")}
        # The kernel shows the thread that waits for them as open to them; every other one blocks them all.
        self.assertEqual(open_to, {0, stops})
        self.assertEqual(int(status_of(daemon.pid)["SigBlk"], 16) & stops, stops)

    def test_a_daemon_that_starts_without_root_changes_no_identity(self):
        self.device.service("web")
        os.makedirs(self.device.host(KEYWARD))
        os.chown(self.device.host(KEYWARD), 4242, 4242)
        self.device.start("-d", user=["--userspec=4242:4242", "--groups=4242,4250,4251,4252"])
        self.assertNotIn("Change the user... ", self.device.stderr())
        for line in (" -> Set Groups done.", " -> Set main group done.", " -> Set user done."):
            self.assertNotIn(line, self.device.stderr().splitlines())
        self.assert_not_logged("Failed to set")
        self.assert_stopped_cleanly(self.device.stop())

    def test_a_daemon_whose_parent_is_process_1_does_not_fork(self):
        self.device.service("web")
        script = f"{PROGRAM} -d 2> /srv/scratch/errors & wait $!; echo $? > /srv/scratch/status"
        shell = ["chroot", self.device.root.path, "/bin/sh", "-c", script]
        init = subprocess.Popen(["unshare", "--pid", "--fork", *shell],
                                env=self.device.environment())
        self.addCleanup(init.wait)
        self.addCleanup(init.kill)
        # The first process there is the shell; its child has the number 2 in its own world.
        self.assertTrue(wait_until(lambda: self.device.listing("/run/ready") == ["2"]), self.device.log_text())
        self.assertEqual(self.device.read(PID), b"2")
        daemons = [pid for pid in children_of(children_of(init.pid)[0]) if name_of(pid) == "keywardd"]
        os.kill(daemons[0], 15)
        self.assertTrue(wait_until(lambda: init.poll() is not None))
        self.assertEqual(self.device.read(f"{WORK}/status"), b"10\n")
        lines = self.device.read(f"{WORK}/errors").decode().splitlines()
        self.assertIn("Are we already a deamon ?", lines)
        self.assertNotIn("Are we already a deamon ? No. Create a daemon.", lines)
        self.assert_not_logged("Parent process terminating")


if __name__ == "__main__":
    main()
