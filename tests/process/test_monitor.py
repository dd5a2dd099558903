"""The monitor: finds jumps of the clock and changes of the network without being told."""

import calendar
import time

from kwtest import Case, certificates, main
from kwtest.process import status_of, wait_until
from kwtest.syslog import ERR, INFO, NOTICE

SUMMER = calendar.timegm((2035, 6, 15, 12, 0, 0))
NETWORK_CHANGED = (NOTICE, "Change in network configuration detected.")
HANDLED = (INFO, "Network reload operation completed")
TIME_DONE = (NOTICE, "Time reload completed")


class Monitor(Case):
    def start(self, sleep="1", threshold="5", **settings):
        self.device.configure(TimeDriftSleepTime=sleep, TimeDriftThresholdValue=threshold)
        self.device.service("web", **settings)
        self.device.start()

    def start_and_settle(self, **settings):
        """The first look finds every network new; what comes later is the test's own."""
        self.device.set_clock(SUMMER)
        self.start(**settings)
        self.wait_text("reload network completed")
        return len(self.device.log_lines())

    def wait_text(self, text, count=1):
        """A line whose severity is not settled."""
        self.assertTrue(wait_until(lambda: sum(1 for _, found in self.device.log_lines() if found == text) >= count),
                        self.device.log_text())

    def test_it_needs_a_sleep_time(self):
        self.start(sleep="0")
        self.assert_logged(ERR, "value for TimeDrfitSleepIntervalSec is 0", count=1)
        self.assert_not_logged("ThresholdValInSec")
        self.assert_stopped_cleanly(self.device.stop())
        self.assert_logged(ERR, "No thread with the ID threadMonitorTimeNetworkConfig could be found. ", count=1)

    def test_it_needs_a_threshold(self):
        self.start(threshold="0")
        self.assert_logged(ERR, "value for ThresholdValInSec is 0", count=1)
        self.assert_not_logged("TimeDrfitSleepIntervalSec")

    def test_with_both_it_runs_in_a_thread_of_its_own(self):
        self.start(sleep="60", threshold="0")
        without = self.threads()
        self.assertEqual(self.device.stop(), 10)
        before = len(self.device.log_lines())
        self.start(sleep="60", threshold="5")
        self.assertEqual(self.threads(), without + 1)
        self.assert_stopped_cleanly(self.device.stop())
        for _, text in self.device.log_lines()[before:]:
            self.assertNotRegex(text, "^value for|could be found")

    def threads(self):
        return int(status_of(self.device.daemon.pid)["Threads"])

    def test_the_first_look_compares_every_certificate_with_the_network(self):
        self.start(sleep="60")
        self.wait_text("reload network completed")
        self.assert_in_order([
            NETWORK_CHANGED, (INFO, "Handling reload network."),
            (NOTICE, "The service web is checking server certificate because network changed..."),
            (NOTICE, "The service web checked server certificate because network changed."), HANDLED])

    def test_a_device_without_any_network_is_no_change(self):
        self.device.network({})
        self.device.set_clock(SUMMER)
        self.start()
        self.device.set_clock(self.device.now() + 100)
        # The drift is found by a later look than the first.
        self.device.wait_log(*TIME_DONE)
        self.assert_not_logged(NETWORK_CHANGED[1])

    def test_a_changed_network_gives_a_new_certificate(self):
        self.start_and_settle(includeFQDN="yes")
        self.device.network({"fqdn.0": "renamed.test"})
        self.wait_text("reload network completed", count=2)
        self.assertEqual(certificates.alternative_names(self.assert_whole_store("web")), [("DNS", "renamed.test")])
        self.assert_logged(*NETWORK_CHANGED, count=2)

    def test_a_jump_beyond_the_threshold_is_told_exactly(self):
        before = self.start_and_settle()
        self.device.set_clock(self.device.now() + 10)
        self.device.wait_log(*TIME_DONE)
        match = self.assert_logged_like(NOTICE, r"Detected time drift of (\d+\.\d{6}) Sec ")
        self.assertAlmostEqual(float(match[1]), 10, delta=0.1)
        self.assert_in_order([
            (NOTICE, match[0]),
            (NOTICE, "Time drift is detected so reload the time."),
            (INFO, "Handling reload time."),
            (NOTICE, "The service web is checking server certificate because time changed."),
            (NOTICE, "The service web checked server certificate because time changed."),
            (INFO, "Time reload operation completed"),
            TIME_DONE,
        ], of=self.device.log_lines()[before:])
        self.device.wait_log(*TIME_DONE)
        self.assert_logged(*TIME_DONE, count=1)

    def test_a_jump_backwards_counts_as_well(self):
        self.start_and_settle()
        self.device.set_clock(self.device.now() - 3600)
        self.device.wait_log(*TIME_DONE)
        match = self.assert_logged_like(NOTICE, r"Detected time drift of (-\d+\.\d{6}) Sec ")
        self.assertAlmostEqual(float(match[1]), -3600, delta=0.1)

    def test_a_jump_within_the_threshold_is_nothing(self):
        before = self.start_and_settle()
        self.device.set_clock(self.device.now() + 3)
        # A network change marks that a whole look after the jump is over; two, as one may be under way.
        for count, name in ((2, "one.test"), (3, "two.test")):
            self.device.network({"fqdn.0": name})
            self.wait_text("reload network completed", count=count)
        for _, text in self.device.log_lines()[before:]:
            self.assertNotIn("drift", text)

    def test_an_expired_certificate_is_renewed_after_a_jump(self):
        self.start_and_settle(selfSignedValidity="30")
        first = self.assert_whole_store("web")
        self.device.set_clock(SUMMER + 40 * 86400)
        self.device.wait_log(*TIME_DONE)
        self.assertNotEqual(self.assert_whole_store("web"), first)

    def test_before_the_limit_drifts_and_changes_are_only_logged(self):
        self.start_and_settle()
        before = len(self.device.log_lines())
        self.device.set_clock(946555200 - 86400)
        self.device.wait_log(INFO, "Ignoring the time drift as the system date is invalid.")
        self.device.network({"fqdn.0": "renamed.test"})
        self.device.wait_log(INFO, "Ignoring the ChangeInNetworkConfigs the system date is invalid.")
        for _, text in self.device.log_lines()[before:]:
            self.assertNotIn("Handling", text)

    def test_a_stop_does_not_wait_for_its_sleep(self):
        self.start(sleep="3600")
        self.wait_text("reload network completed")
        begin = time.monotonic()
        self.assert_stopped_cleanly(self.device.stop())
        self.assertLess(time.monotonic() - begin, 2 * 3)


if __name__ == "__main__":
    main()
