"""What a service's owner is told, by script and by library."""

import os
import shutil
import signal
import subprocess
import time

from kwtest import SETTINGS, Case, certificates, main
from kwtest.case import last_line
from kwtest.device import CALLBACK, WORK
from kwtest.process import wait_until
from kwtest.syslog import EMERG, ERR

LIBRARY = "/opt/hooks/callbacks.so"


class Script(Case):
    def days_left(self, service):
        """Whole days until the active certificate ends."""
        end = certificates.seconds(self.certificate(service).not_valid_after)
        return str(int((end - self.device.now()) / 86400))

    def test_the_arguments_of_a_whole_life(self):
        self.device.service("web")
        self.device.start()
        active, days = self.device.active("web"), self.days_left("web")
        self.assert_stopped_cleanly(self.device.stop())
        self.assertEqual(self.device.calls(), [
            ("web", "server", "new", active),
            ("web", "server", "expireIn", days),
            ("web", "start"),
            ("web", "allStarted"),
            ("web", "stop"),
        ])

    def test_the_service_is_named_by_its_file_not_by_its_name_key(self):
        self.device.service("web", name="Web front end")
        self.device.start()
        self.assertEqual({call[0] for call in self.device.calls()}, {"web"})

    def test_a_renewal_is_told_once_its_files_stand(self):
        self.device.recording_script(CALLBACK, body=(
            f'[ "$3" = new ] && cp /var/lib/keyward/web/server/"$4" {WORK}/seen.pem\n'
            f'[ "$3" = new ] && cp /var/lib/keyward/web/server/.cacheddata/active.txt {WORK}/seen.active'))
        self.device.service("web")
        self.device.start()
        self.assertEqual(self.device.channel("web").ask("server", "revoke"), (0, ""))
        self.assertEqual(certificates.load(self.device.read(f"{WORK}/seen.pem")), self.certificate("web"))
        self.assertEqual(self.device.read(f"{WORK}/seen.active").decode(), self.device.active("web"))

    def test_external_stores_tell_what_came_and_what_really_went(self):
        self.device.service("web", ca="yes", trustedClients="yes")
        self.device.start()
        channel, pki = self.device.channel("web"), certificates.Pki()
        self.device.write(f"{WORK}/ca.pem", pki.pem())
        ids = []
        for name in ("one", "two"):
            self.device.write(f"{WORK}/{name}.pem", pki.leaf(name))
            ids.append(self.added(channel.ask("client", "add", f"{WORK}/{name}.pem")))
        authority = self.added(channel.ask("ca", "add", f"{WORK}/ca.pem"))
        before = len(self.device.calls())
        self.assertEqual(channel.ask("client", "revoke", "00000000.0", *ids), (0, " ".join(sorted(ids))))
        self.assertEqual(channel.ask("client", "revoke", *ids), (0, ""))
        self.assertEqual(channel.ask("ca", "revoke", authority), (0, authority))
        calls = self.device.calls()
        self.assertEqual(calls[before - 3:before], [("web", "client", "new", ids[0]), ("web", "client", "new", ids[1]),
                                                    ("web", "ca", "new", authority)])
        self.assertEqual(calls[before:], [("web", "client", "revoke", *sorted(ids)),
                                          ("web", "ca", "revoke", authority)])

    def added(self, answer):
        self.assertEqual(answer[0], 0, answer)
        self.assertRegex(answer[1], r"\A[0-9a-f]{8}\.\d\Z")
        return answer[1]

    def test_the_outcome_of_a_script_does_not_matter(self):
        self.device.recording_script(CALLBACK, body="echo noise; echo more >&2; exit 3")
        self.device.service("web")
        self.device.start()
        self.assert_whole_store("web")
        self.assertEqual(self.device.stderr(), "")
        self.assert_stopped_cleanly(self.device.stop())

    def test_what_a_script_prints_is_traced_except_for_all_started(self):
        self.device.recording_script(CALLBACK, body='echo "out of $2"; echo "err of $2" >&2')
        self.device.service("web", server=None)
        self.device.start("-d")
        self.device.stop()
        traces = [line for line in self.device.stderr().splitlines() if " of " in line]
        self.assertEqual(traces, ["out of start", "err of start", "out of stop", "err of stop"])

    def test_a_background_process_of_a_script_holds_nobody_up(self):
        self.device.recording_script(CALLBACK, body="sleep 600 &")
        self.device.service("web")
        self.device.start()
        self.assertEqual(self.device.channel("web").ask("config", "status"), (0, "running"))
        self.assertEqual(self.device.stop(), 10)


class Choice(Case):
    def assert_only_service_refused(self, reason):
        daemon = self.device.start(ready=False)
        self.assertEqual(daemon.wait_parent(), 0)
        self.assertEqual(daemon.wait_exit(), 12)
        self.assert_logged(ERR, "Error during starting web: Std exception during loading service object for "
                                "service-web: " + reason, count=1)
        self.assertEqual(self.device.log_lines()[-1], (EMERG, last_line(12, "No service loaded!")))

    def test_the_script_wins_over_the_library(self):
        self.device.service("web", callbackLibrary="/opt/hooks/missing.so")
        self.device.start()
        self.assertIn(("web", "allStarted"), self.device.calls())
        self.assert_not_logged("missing.so")

    def test_neither_is_refused(self):
        self.device.service("web", callbackScript=None)
        self.assert_only_service_refused("No callbacks to load")

    def test_a_missing_script_is_refused(self):
        self.device.remove(CALLBACK)
        self.device.service("web")
        self.assert_only_service_refused(f"The callback {CALLBACK} for the service web doesn't exist")

    def test_a_script_without_execute_right_is_refused(self):
        os.chmod(self.device.host(CALLBACK), 0o644)
        self.device.service("web")
        self.assert_only_service_refused(f"The callback {CALLBACK} for the service web doesn't have executable right.")

    def test_a_script_that_only_root_may_run_is_refused(self):
        os.chmod(self.device.host(CALLBACK), 0o700)
        self.device.service("web")
        self.assert_only_service_refused(f"The callback {CALLBACK} for the service web doesn't have executable right.")

    def test_a_missing_library_is_refused(self):
        self.device.service("web", callbackScript=None, callbackLibrary=LIBRARY)
        self.assert_only_service_refused(f"The callback {LIBRARY} for the service web doesn't exist")

    def test_a_library_that_is_none_is_refused(self):
        self.device.write(LIBRARY, "not a library\n")
        self.device.service("web", callbackScript=None, callbackLibrary=LIBRARY)
        self.device.service("other")
        self.device.start()
        match = self.assert_logged_like(ERR, r"Error during starting web: Std exception during loading service object "
                                             r"for service-web: Cannot load the callback library (\S+) for the "
                                             r"service web: (.+)")
        self.assertEqual(match[1], LIBRARY)
        self.assertIn(("other", "allStarted"), self.device.calls())


class LibraryCase(Case):
    """A callback library, which writes down what it hears."""

    def install(self, library):
        os.makedirs(os.path.dirname(self.device.host(LIBRARY)), exist_ok=True)
        shutil.copy(library, self.device.host(LIBRARY))

    def record(self):
        return self.device.read(f"{WORK}/library").decode().splitlines()


class Library(LibraryCase):
    def setUp(self):
        super().setUp()
        self.install(SETTINGS.callback_library)

    def test_it_hears_of_a_whole_life(self):
        self.device.service("web", callbackScript=None, callbackLibrary=LIBRARY, trustedClients="yes")
        self.device.start()
        active, channel = self.device.active("web"), self.device.channel("web")
        self.device.write(f"{WORK}/client.pem", certificates.Pki().leaf("client"))
        code, identifier = channel.ask("client", "add", f"{WORK}/client.pem")
        self.assertEqual(code, 0)
        self.assertEqual(channel.ask("client", "revoke", identifier), (0, identifier))
        self.assertEqual(channel.ask("server", "revoke"), (0, ""))
        self.assert_stopped_cleanly(self.device.stop())
        lines = [line for line in self.record() if "updateValidity" not in line]
        self.assertEqual(lines, [
            "web: create", f"web: newGenerated {active}", "web: started", "web: allStarted",
            f"web: newExternal client {identifier}", f"web: revokedSeveral client {identifier}",
            f"web: newGenerated {active}", "web: stopped", "web: destroy"])
        self.assertEqual(self.device.calls(), [])

    def test_a_reload_makes_a_new_object_of_it(self):
        self.device.service("web", callbackScript=None, callbackLibrary=LIBRARY, server=None)
        self.device.start()
        self.assertEqual(self.device.channel("web").ask("config", "reload"), (0, "Reload Successful"))
        self.assert_stopped_cleanly(self.device.stop())
        self.assertEqual(self.record(), [f"web: {event}" for event in (
            "create", "started", "allStarted", "stopped", "destroy", "create", "started", "stopped", "destroy")])

    def test_one_that_throws_costs_its_own_service_only(self):
        self.device.service("throwing", callbackScript=None, callbackLibrary=LIBRARY)
        self.device.service("web")
        self.device.start()
        self.assert_logged(ERR, "Error during starting throwing: Std exception during loading service object for "
                                "service-throwing: the owner is asleep", count=1)
        self.assertEqual(self.device.channel("web").ask("config", "status"), (0, "running"))
        self.assert_stopped_cleanly(self.device.stop())


class RelocatedText(LibraryCase):
    def test_a_library_in_whose_text_the_loader_has_written_works_after_the_start(self):
        library = f"{SETTINGS.callback_libraries}/relocated_text.so"
        dynamic = subprocess.run(["readelf", "-d", library], capture_output=True, text=True, check=True).stdout
        self.assertRegex(dynamic, "TEXTREL")
        self.install(library)
        self.device.service("web", callbackScript=None, callbackLibrary=LIBRARY)
        self.device.start()
        self.assertEqual(self.device.channel("web").ask("server", "revoke"), (0, ""))
        self.assertEqual(self.record(), ["renewed", "renewed"])
        self.assert_stopped_cleanly(self.device.stop())


class BadLibrary(LibraryCase):
    """Libraries that would keep the daemon from its end."""

    def hanging_in(self, operation, **settings):
        """A service of that name, whose library hangs there, one that it serves well, and one with a script."""
        self.install(f"{SETTINGS.callback_libraries}/hanging.so")
        self.device.service(operation, callbackScript=None, callbackLibrary=LIBRARY, **settings)
        self.device.service("other", callbackScript=None, callbackLibrary=LIBRARY, server=None)
        self.device.service("script", server=None)

    def assert_given_up(self, operation, event, count=1):
        """The stop ends in its time, says what it gave up, and tells all others."""
        begin = time.monotonic()
        self.device.daemon.signal(signal.SIGTERM)
        status = self.device.daemon.wait_exit()
        duration = time.monotonic() - begin
        self.assert_stopped_cleanly(status)
        self.assertLess(duration, SETTINGS.stop_limit + SETTINGS.stop_grace * count, self.device.log_text())
        self.assert_logged(ERR, f"The callback library {LIBRARY} for the service {operation} was given up at the stop of "
                                f"the daemon: its '{event}' did not return within 2 seconds", count=count)
        self.assertEqual([line for line in self.record() if line.startswith("other: ")][-2:],
                         ["other: stopped", "other: destroy"])
        self.assertIn(("script", "stop"), self.device.calls())

    def wait_record(self, line):
        self.assertTrue(wait_until(lambda: self.device.exists(f"{WORK}/library") and line in self.record()))

    def test_one_that_hangs_when_it_is_told_of_the_stop(self):
        self.hanging_in("stopped", server=None)
        self.device.start()
        self.assert_given_up("stopped", "stopped")
        self.assertNotIn("stopped: destroy", self.record())

    def test_one_that_hangs_when_its_object_is_released(self):
        self.hanging_in("destroy", server=None)
        self.device.start()
        self.assert_given_up("destroy", "destroy")

    def test_one_that_hangs_in_a_request_when_the_stop_comes(self):
        self.hanging_in("renewed")
        self.device.start()
        with self.device.channel("renewed").listening():
            self.device.channel("renewed").send("tester\trenewed\tserver\trevoke")
            self.wait_record("renewed: renewed")
            self.assert_given_up("renewed", "newGeneratedCertificate")
        self.assertNotIn("renewed: stopped", self.record())

    def test_one_that_hangs_in_a_notification_when_the_stop_comes(self):
        self.hanging_in("renewed", includeFQDN="yes")
        self.device.start()
        self.device.network({"fqdn.0": "renamed.test"})
        self.device.notify("n")
        self.wait_record("renewed: renewed")
        self.assert_given_up("renewed", "newGeneratedCertificate")

    def test_one_that_hangs_in_a_reload_when_the_stop_comes(self):
        self.hanging_in("stopped", server=None)
        self.device.start()
        self.device.channel("stopped").send("tester\tstopped\tconfig\treload")
        self.wait_record("stopped: stopped")
        # The reload goes on with a new object, which hangs as well.
        self.assert_given_up("stopped", "stopped", count=2)

    def test_one_that_hangs_while_all_are_told_that_they_have_started(self):
        self.hanging_in("allStarted", server=None)
        self.device.start(ready=False).wait_parent()
        self.wait_record("allStarted: allStarted")
        self.assert_given_up("allStarted", "allStarted")

    def test_one_that_hangs_while_it_starts(self):
        for operation in ("create", "started"):
            with self.subTest(operation=operation):
                self.device = self.new_device()
                self.hanging_in(operation, server=None)
                self.device.start(ready=False).wait_parent()
                self.wait_record(f"{operation}: {operation}")
                begin = time.monotonic()
                self.device.daemon.signal(signal.SIGTERM)
                self.assert_stopped_cleanly(self.device.daemon.wait_exit())
                self.assertLess(time.monotonic() - begin, SETTINGS.stop_limit + SETTINGS.stop_grace)

    def test_one_whose_own_thread_goes_on_is_not_unloaded_at_the_stop(self):
        self.install(f"{SETTINGS.callback_libraries}/threaded.so")
        for name in ("web", "other"):
            self.device.service(name, callbackScript=None, callbackLibrary=LIBRARY, server=None)
        for _ in range(10):
            self.device.start()
            self.assert_stopped_cleanly(self.device.stop())
        # Nor does what it has registered for the end of the process run beside that thread.
        self.assertEqual(set(self.record()), {"destroy"})


if __name__ == "__main__":
    main()
