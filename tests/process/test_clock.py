"""A wall clock that is unset, jumps, or reaches the end of a certificate."""

import calendar

from kwtest import Case, certificates, main
from kwtest.device import KEYWARD
from kwtest.process import wait_until
from kwtest.syslog import ERR, INFO, NOTICE

# Before it, a clock counts as never set.
LIMIT = 946555200
DAY = 86400
SUMMER = calendar.timegm((2035, 6, 15, 12, 0, 0))
TIME_DONE = (NOTICE, "Time reload notification completed")
OLD = (r"Current system time 'Thu Dec 30 \d\d:\d\d:\d\d 1999\n' is beyond the allowed lower limit of time "
       r"'Thu Dec 30 12:00:00 1999\n'\.")


class Unset(Case):
    def start_with_unset_clock(self, **settings):
        self.device.set_clock(LIMIT - 3600)
        self.device.service("web", **settings)
        self.device.start()

    def test_no_certificate_is_made_before_the_limit(self):
        self.start_with_unset_clock()
        self.assertEqual(self.device.active("web"), "")
        self.assertEqual(self.device.listing(f"{KEYWARD}/web/server"), [".cacheddata", ".cacheddata/active.txt"])
        self.assert_logged_like(NOTICE, OLD)
        self.assert_in_order([
            (INFO, "Server certificate not found for service: web"),
            (NOTICE, "Create and Apply SelfSigned certificate for service 'web' as generatin is needed."),
            (NOTICE, "The service web is creating a server selfsigned certificate..."),
            (ERR, "Daemon exception caught while creating and applying selfsigned certificate for service 'web' Not "
                  "able to create and apply self signed certificate for service 'web' as the system date is old."),
            (NOTICE, "Server for service web started."),
            (NOTICE, "The daemon is running."),
        ])
        self.assertEqual(self.device.calls(), [("web", "start"), ("web", "allStarted")])
        self.assertEqual(self.device.channel("web").ask("config", "status"), (0, "running"))

    def test_notifications_before_the_limit_are_only_logged(self):
        self.start_with_unset_clock()
        before = len(self.device.log_lines())
        self.device.notify("nt\nx")
        ignored = (INFO, "Ignoring the reload notification as the system date is invalid.")
        # Every character is weighed by itself, whatever it says.
        self.device.wait_log(*ignored, count=4)
        for severity, text in self.device.log_lines()[before:]:
            if (severity, text) != ignored:
                self.assertEqual(severity, NOTICE)
                self.assertRegex(text, OLD)
        self.assertEqual(self.device.active("web"), "")

    def test_a_clock_that_is_set_right_brings_the_certificate(self):
        self.start_with_unset_clock()
        self.device.set_clock(SUMMER)
        self.device.notify("t")
        self.device.wait_log(*TIME_DONE)
        made = self.assert_whole_store("web")
        self.assertEqual(made.not_valid_before, certificates.utc(SUMMER - SUMMER % DAY))
        self.assertIn(("web", "server", "new", self.device.active("web")), self.device.calls())

    def test_a_dependant_of_a_local_authority_gets_its_own_in_the_same_round(self):
        self.device.request_settings("/etc/keywarden/ca.cnf", CN="Local CA", basicConstraints="critical,CA:TRUE")
        self.device.service("alpha", selfSignedGeneration=None, CASignedGeneration="yes", CAServiceId="pkiroot")
        self.device.set_clock(LIMIT - 3600)
        self.device.service("pkiroot", cnfFile="/etc/keywarden/ca.cnf")
        self.device.start()
        self.assert_logged(ERR, "Daemon exception caught while creating and applying CA signed certificate for service "
                                "'alpha' Not able to create and apply CA signed certificate for service 'alpha' as the "
                                "system date is old.", count=1)
        self.device.set_clock(SUMMER)
        self.device.notify("t")
        self.device.wait_log(*TIME_DONE)
        self.assertTrue(certificates.is_signed_by(self.assert_whole_store("alpha"), self.assert_whole_store("pkiroot")))

    def test_a_revocation_before_the_limit_is_refused_and_the_certificate_stays(self):
        self.device.set_clock(SUMMER)
        self.device.service("web")
        self.device.start()
        first = self.assert_whole_store("web")
        self.device.set_clock(LIMIT - 3600)
        refusal = ("Daemon exception during user request process for service 'web': Not able to create and apply self "
                   "signed certificate for service 'web' as the system date is old.")
        self.assertEqual(self.device.channel("web").ask("server", "revoke"), (1, refusal))
        self.assert_logged(ERR, refusal, count=1)
        self.assertEqual(self.assert_whole_store("web"), first)


class Validity(Case):
    def test_a_certificate_covers_whole_days_from_its_offset_on(self):
        self.device.set_clock(SUMMER)
        self.device.service("web", selfSignedValidity="365", selfSignedValidityOffset="1")
        self.device.start()
        made = self.assert_whole_store("web")
        self.assertEqual(made.not_valid_before, certificates.utc(calendar.timegm((2035, 6, 14, 0, 0, 0))))
        self.assertEqual(made.not_valid_after, certificates.utc(calendar.timegm((2036, 6, 13, 0, 0, 0))))
        # 2036-06-13 less 2035-06-15 noon.
        self.assertIn(("web", "server", "expireIn", "363"), self.device.calls())

    def test_dates_beyond_32_bits_are_kept(self):
        moment = calendar.timegm((2060, 3, 1, 6, 0, 0))
        self.device.set_clock(moment)
        self.device.service("web")
        self.device.start()
        self.assertEqual(self.assert_whole_store("web").not_valid_before, certificates.utc(moment - moment % DAY))


class Renewal(Case):
    def setUp(self):
        super().setUp()
        self.device.set_clock(SUMMER)

    def jump(self, moment):
        self.device.set_clock(moment)
        self.device.notify("t")
        self.device.wait_log(*TIME_DONE)

    def test_an_expired_certificate_is_renewed_when_the_time_changes(self):
        self.device.service("web", selfSignedValidity="30")
        self.device.start()
        first = self.assert_whole_store("web")
        before = len(self.device.log_lines())
        self.jump(SUMMER + 40 * DAY)
        second = self.assert_whole_store("web")
        self.assertNotEqual(second.serial_number, first.serial_number)
        self.assertGreater(certificates.seconds(second.not_valid_after), self.device.now())
        self.assert_in_order([
            (NOTICE, "Time reload notification received"),
            (INFO, "Handling reload time."),
            (NOTICE, "The service web is checking server certificate because time changed."),
            (INFO, "The service web is stopping its timer..."),
            (INFO, "The service web stopped its timer."),
            (NOTICE, "Current certificate is expired for service 'web' "),
            (NOTICE, "Creating a new SelfSigned certificate for service: web as it is expired."),
            (NOTICE, "The service web is creating a server selfsigned certificate..."),
            (INFO, "The service web is starting his timer..."),
            (INFO, "The service web started his timer."),
            (NOTICE, "The service web checked server certificate because time changed."),
            (INFO, "Time reload operation completed"),
            TIME_DONE,
        ], of=self.device.log_lines()[before:])

    def test_an_expired_certificate_is_renewed_at_the_start(self):
        self.device.service("web", selfSignedValidity="30")
        self.device.start()
        first = self.assert_whole_store("web")
        self.device.stop()
        self.device.set_clock(SUMMER + 40 * DAY)
        self.device.start()
        self.assertNotEqual(self.assert_whole_store("web"), first)

    def test_a_certificate_from_the_future_is_renewed(self):
        self.device.service("web")
        self.device.start()
        self.jump(SUMMER - 10 * DAY)
        self.assertLess(certificates.seconds(self.assert_whole_store("web").not_valid_before), self.device.now())

    def test_a_time_change_within_the_validity_only_reports(self):
        self.device.service("web", selfSignedValidity="30")
        self.device.start()
        first = self.assert_whole_store("web")
        self.jump(SUMMER + 10 * DAY)
        self.assertEqual(self.assert_whole_store("web"), first)
        self.assertEqual(self.device.calls()[-1], ("web", "server", "expireIn", "19"))

    def test_the_early_warning_offset_brings_the_renewal_forward(self):
        self.device.service("web", selfSignedValidity="30", CertDailyExpiryChkTimeOffsetSecs="80000")
        self.device.start()
        first = self.assert_whole_store("web")
        end = certificates.seconds(first.not_valid_after)
        self.jump(end - 80600)
        self.assertEqual(self.assert_whole_store("web"), first)
        self.device.set_clock(end - 79400)
        self.device.notify("t")
        self.device.wait_log(*TIME_DONE, count=2)
        self.assertNotEqual(self.assert_whole_store("web"), first)

    def test_an_expired_certificate_of_an_outside_pki_is_only_reported(self):
        self.device.service("web")
        self.device.start()
        channel = self.device.channel("web")
        self.assertEqual(channel.ask("server", "createcsr"), (0, ""))
        csr = self.device.read(f"{KEYWARD}/web/server/.cacheddata/csr.csr")
        outside = certificates.Pki().sign(csr, days=10, start=SUMMER - DAY)
        self.device.write("/srv/scratch/outside.pem", outside)
        self.assertEqual(channel.ask("server", "applycrt", "/srv/scratch/outside.pem"), (0, ""))
        # It ended eleven days and an hour before.
        self.jump(SUMMER + 20 * DAY + 3600)
        self.assertEqual(self.certificate("web"), certificates.load(outside))
        self.assertEqual(self.device.calls()[-1], ("web", "server", "expireFrom", "11"))
        self.assert_logged(NOTICE, "Current certificate is expired for service 'web' ", count=1)

    def test_the_daily_check_renews_at_midnight(self):
        midnight = SUMMER - SUMMER % DAY + DAY
        # One day from the begin of today: it ends at the midnight to come.
        self.device.service("web", selfSignedValidity="1")
        self.device.start()
        first = self.assert_whole_store("web")
        self.assertEqual(first.not_valid_after, certificates.utc(midnight))
        # The timer is set anew for what is left of the day.
        self.jump(midnight - 3)
        self.assertEqual(self.assert_whole_store("web"), first)
        installed = (NOTICE, f"New certificate with id '{self.device.active('web')}' for service 'web' has been "
                             "installed. Calling the callback script...")
        self.device.wait_log(*installed, count=2)
        self.assert_logged(NOTICE, "Creating a new SelfSigned certificate for service: web as it is expired.", count=1)
        second = self.assert_whole_store("web")
        self.assertEqual(second.not_valid_before, certificates.utc(midnight))
        self.assertEqual(second.not_valid_after, certificates.utc(midnight + DAY))
        self.assert_logged(*TIME_DONE, count=1)

    def test_the_daily_check_runs_earlier_by_its_offset(self):
        moment = SUMMER - SUMMER % DAY + DAY - 3600
        self.device.service("web", CertDailyExpiryChkTimeOffsetSecs="3600")
        self.device.start()
        self.jump(moment - 3)
        told = len(self.device.calls())
        self.assertTrue(wait_until(lambda: len(self.device.calls()) > told))
        self.assertGreaterEqual(self.device.now(), moment)
        # An hour less than 29 days and an hour: single precision may fall on either side.
        self.assertIn(self.device.calls()[told:], ([("web", "server", "expireIn", days)] for days in ("28", "29")))


if __name__ == "__main__":
    main()
