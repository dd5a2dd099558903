"""Reloads of a service on request: good ones, bad ones, and what the service says meanwhile."""

import os
import threading

from kwtest import Case, certificates, main
from kwtest.channel import read_answer
from kwtest.device import CALLBACK, PIPES, SERVICES, WORK
from kwtest.process import wait_until
from kwtest.syslog import ERR, INFO, NOTICE


class Reload(Case):
    def setUp(self):
        super().setUp()
        self.device.service("web")
        self.device.start()
        self.channel = self.device.channel("web")

    def test_a_good_one_reads_the_file_again_and_answers_its_requester(self):
        before, told = len(self.device.log_lines()), len(self.device.calls())
        self.device.service("web", trustedClients="yes")
        self.assertEqual(self.channel.ask("config", "reload"), (0, "Reload Successful"))
        self.assert_in_order([
            (NOTICE, "Reload the service web"),
            (NOTICE, "The service web is stopping..."),
            (INFO, "The service web is stopping its timer..."),
            (INFO, "The service web stopped its timer."),
            (NOTICE, "The service web is stopped."),
            (NOTICE, "The service web is starting..."),
            (NOTICE, "Server for service web starting..."),
            (INFO, "Server certificate found for service: web"),
            (NOTICE, "Server for service web started."),
            (NOTICE, "trusted clients for service web starting..."),
            (NOTICE, "trusted clients for service web started."),
            (NOTICE, "Reload: The service web is started."),
            (INFO, "The service web is starting his timer..."),
            (INFO, "The service web started his timer."),
            (NOTICE, "The service web is reloaded."),
        ], of=self.device.log_lines()[before:])
        self.assertEqual([call[1:] for call in self.device.calls()[told:] if len(call) == 2], [("stop",), ("start",)])
        self.assertEqual(self.channel.ask("config", "status"), (0, "running"))
        self.assertEqual(self.channel.ask("client", "revoke", "00000000.0"), (0, ""))
        self.assert_not_logged("The daemon just terminate")

    def test_the_certificate_stays_and_what_the_reload_brings_is_used(self):
        first = self.assert_whole_store("web")
        self.device.service("web", includeFQDN="yes")
        self.assertEqual(self.channel.ask("config", "reload"), (0, "Reload Successful"))
        # The new identity is more than the recorded one: a new certificate is due.
        second = self.assert_whole_store("web")
        self.assertNotEqual(second, first)
        self.assertEqual(certificates.alternative_names(second), [("DNS", "unit42.test")])

    def test_many_in_a_row(self):
        first = self.assert_whole_store("web")
        for _ in range(20):
            self.assertEqual(self.channel.ask("config", "reload"), (0, "Reload Successful"))
        self.assertEqual(self.assert_whole_store("web"), first)
        self.assert_stopped_cleanly(self.device.stop())

    def test_the_channels_files_have_their_rights_again(self):
        self.assertEqual(self.channel.ask("config", "reload"), (0, "Reload Successful"))
        self.assertEqual(self.device.rights(f"{PIPES}/web"), ("d", 0o770, "keyuser", "kwmgmt"))
        self.assertEqual(self.device.rights(f"{PIPES}/web/web.in"), ("p", 0o720, "keyuser", "kwmgmt"))
        self.assertEqual(self.device.rights(f"{PIPES}/web/web.lock"), ("-", 0o760, "keyuser", "kwmgmt"))

    def test_a_second_one_while_one_runs_is_dropped(self):
        wait = f"while [ ! -e {WORK}/go ]; do sleep 0.05; done"
        self.device.recording_script(CALLBACK, body=f'[ "$2" = start ] && {wait}')
        with self.channel.listening() as reader:
            self.channel.send("tester\tweb\tconfig\treload")
            self.device.wait_log(NOTICE, "Reload the service web")
            self.assertTrue(wait_until(lambda: self.device.calls()[-1] == ("web", "start")))
            self.device.write(f"{WORK}/go", "")
            self.assertEqual(read_answer(reader), b"0 Reload Successful")
        self.assert_logged(NOTICE, "Reload the service web", count=1)
        self.assertEqual(self.channel.ask("config", "reload"), (0, "Reload Successful"))

    def test_reloads_under_notifications_and_requests(self):
        over = threading.Event()

        def notify():
            while not over.is_set():
                self.device.notify("nt")
        notifier = threading.Thread(target=notify)
        notifier.start()
        try:
            for _ in range(10):
                self.assertEqual(self.channel.ask("config", "reload", timeout=30), (0, "Reload Successful"))
        finally:
            over.set()
            notifier.join()
        self.assert_stopped_cleanly(self.device.stop())


class Failed(Case):
    def setUp(self):
        super().setUp()
        self.device.service("web", ca="yes")
        self.device.service("other")
        self.device.start()
        self.channel = self.device.channel("web")

    def fail_reload(self, reason, **settings):
        self.device.service("web", **settings)
        code, text = self.channel.ask("config", "reload")
        self.assertEqual(code, 1)
        self.assertTrue(text.startswith("Daemon exception during reload request for service 'web': "), text)
        self.assertTrue(text.endswith(reason), text)
        self.assert_logged(ERR, text, count=1)
        return text

    def test_a_bad_file_is_told_and_the_service_stays_stopped(self):
        reason = "Invalid config parameter: cnf File or cnfFile must be defined"
        self.fail_reload(reason, cnfFile=None)
        self.assert_logged(ERR, "Runtime error caught while reloading service-'web': " + reason, count=1)
        self.assert_not_logged("The service web is reloaded.")
        self.assertEqual(self.channel.ask("config", "status"), (0, "stoped"))
        for target, word in (("server", "createcsr"), ("server", "revoke"), ("ca", "list"), ("client", "list"),
                             ("server", "getcert")):
            self.assertEqual(self.channel.ask(target, word), (7, "The service is not running."))
        self.assertEqual(self.device.channel("other").ask("config", "status"), (0, "running"))

    def test_another_reload_of_a_stopped_service_is_refused(self):
        self.fail_reload("No callbacks to load", ca="yes", callbackScript=None)
        self.device.service("web", ca="yes")
        self.assertEqual(self.channel.ask("config", "reload"), (7, "Not able to reload the service-web"))
        self.assertIn("Not able to reload the service-web", [text for _, text in self.device.log_lines()])
        self.assertEqual(self.channel.ask("config", "status"), (0, "stoped"))
        self.assertEqual(self.channel.ask("config", "help"), (4, "Bad Command config"))

    def test_a_missing_file_is_told(self):
        os.unlink(self.device.host(f"{SERVICES}/web.conf"))
        code, text = self.channel.ask("config", "reload")
        self.assertEqual(code, 1)
        self.assertTrue(text.endswith("No configuration file for the service web"), text)

    def test_notifications_pass_a_stopped_service_by(self):
        self.fail_reload("The group 'nogroup' of the service 'web' doesn't exist", managmentGroup="nogroup")
        self.device.notify("nt")
        self.device.wait_log(NOTICE, "Time reload notification completed")
        self.assertEqual(self.channel.ask("config", "status"), (0, "stoped"))
        self.assert_stopped_cleanly(self.device.stop())

    def test_a_restart_with_a_good_file_runs_it_again(self):
        first = self.assert_whole_store("web")
        self.fail_reload("doesn't exist", callbackScript="/opt/hooks/none")
        self.assert_stopped_cleanly(self.device.stop())
        self.device.service("web", ca="yes")
        self.device.start()
        self.assertEqual(self.device.channel("web").ask("config", "status"), (0, "running"))
        self.assertEqual(self.assert_whole_store("web"), first)


if __name__ == "__main__":
    main()
