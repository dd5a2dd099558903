"""One whole life of a daemon: it starts, makes a certificate, answers, notices a change and stops."""

from kwtest import Case, certificates, main
from kwtest.syslog import NOTICE


class Life(Case):
    def test_a_daemon_starts_answers_renews_and_stops(self):
        device = self.device
        device.service("web", includeFQDN="yes")
        device.start()
        first = self.assert_whole_store("web", common="device.test")
        self.assertEqual(certificates.alternative_names(first), [("DNS", "unit42.test")])
        self.assertEqual(device.channel("web").ask("config", "status"), (0, "running"))

        device.network({"interface.0": "eth0", "fqdn.0": "renamed.test"})
        device.notify("n")
        device.wait_log(NOTICE, "Notification reload network completed")
        second = self.assert_whole_store("web", common="device.test")
        self.assertEqual(certificates.alternative_names(second), [("DNS", "renamed.test")])

        self.assert_stopped_cleanly(device.stop())
        self.assertEqual([call[-1] for call in device.calls() if call[-1] in ("start", "allStarted", "stop")],
                         ["start", "allStarted", "stop"])


if __name__ == "__main__":
    main()
