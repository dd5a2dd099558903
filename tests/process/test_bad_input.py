"""Input that nobody should give: each costs its own service at most, and a clear line."""

import os
import time

from kwtest import SETTINGS, Case, certificates, main
from kwtest.device import CONFIGURATION, KEYWARD, LOCK, PID, PIPES, SCRIPTS, SERVICES, WORK
from kwtest.process import status_of
from kwtest.syslog import EMERG, ERR

HUNDRED_MEGABYTES = "yes 0123456789012345678901234567890123456789 | head -c 100000000"


class Bad(Case):
    def assert_small(self):
        """The daemon has not swallowed what was poured on it."""
        if not SETTINGS.sanitizer:
            self.assertLess(int(status_of(self.device.daemon.pid)["VmHWM"].split()[0]), 64 * 1024)

    def assert_running(self, service):
        self.assertEqual(self.device.channel(service).ask("config", "status"), (0, "running"))

    def assert_skipped(self, service, reason):
        """One line says why; the other service runs; nothing of this one stands anywhere."""
        start = f"Error during starting {service}: Std exception during loading service object for service-{service}: "
        found = [text for severity, text in self.device.log_lines() if severity == ERR and text.startswith(start)]
        self.assertEqual(len(found), 1, self.device.log_text())
        self.assertIn(reason, found[0])
        self.assert_running("good")
        self.assert_whole_store("good")


class NetworkScript(Bad):
    def test_one_that_hangs_is_ended_after_ten_seconds(self):
        self.device.script(f"{SCRIPTS}/network.sh", "sleep 600")
        self.device.service("good", includeFQDN="yes")
        begin = time.monotonic()
        self.device.start()
        self.assertGreater(time.monotonic() - begin, 9.5)
        self.assertLess(time.monotonic() - begin, 10 + 5 * SETTINGS.time_scale)
        self.assert_logged_like(ERR, rf"Runtime exception caught during executing {SCRIPTS}/network\.sh : .+")
        self.assertEqual(certificates.alternative_names(self.assert_whole_store("good")), [("DNS", "localhost")])
        self.assertEqual(self.device.daemon.orphans(), [])

    def test_one_that_prints_a_hundred_megabytes_is_refused(self):
        self.device.script(f"{SCRIPTS}/network.sh", HUNDRED_MEGABYTES)
        self.device.service("good")
        self.device.start()
        self.assert_logged_like(ERR, rf"Runtime exception caught during executing {SCRIPTS}/network\.sh : .+")
        self.assert_running("good")
        self.assert_small()

    def test_one_that_prints_bytes_without_meaning_is_no_network(self):
        self.device.script(f"{SCRIPTS}/network.sh", "head -c 100000 /dev/urandom")
        self.device.service("good", includeFQDN="yes")
        self.device.start()
        self.assertEqual(certificates.alternative_names(self.assert_whole_store("good")), [("DNS", "localhost")])

    def test_one_that_cannot_be_run_although_it_may(self):
        self.device.write(f"{SCRIPTS}/network.sh", "#!/no/such/shell\n", mode=0o755)
        self.device.service("good")
        self.device.start()
        self.assert_logged_like(ERR, rf"Runtime exception caught during executing {SCRIPTS}/network\.sh : .+")
        self.assert_running("good")


class Programs(Bad):
    def setUp(self):
        super().setUp()
        self.device.service("good")

    def test_a_callback_that_prints_a_hundred_megabytes(self):
        self.device.recording_script("/opt/hooks/noisy", body=f'[ "$2" = start ] && {HUNDRED_MEGABYTES}')
        self.device.service("bad", callbackScript="/opt/hooks/noisy", server=None)
        self.device.start()
        self.assert_running("good")
        self.assert_running("bad")
        self.assert_small()

    def test_a_settings_hook_that_prints_a_hundred_megabytes(self):
        self.device.script("/opt/hooks/noisy", HUNDRED_MEGABYTES)
        self.device.service("bad", cnfFile=None, cnfHookFile="/opt/hooks/noisy")
        self.device.start()
        self.assert_running("good")
        self.assertEqual(self.device.active("bad"), "")
        self.assertTrue(any(severity == ERR and "/opt/hooks/noisy" in text
                            for severity, text in self.device.log_lines()), self.device.log_text())
        self.assert_small()

    def test_a_settings_hook_that_is_no_program(self):
        self.device.write("/opt/hooks/none", "\x7fELF nonsense", mode=0o755)
        self.device.service("bad", cnfFile=None, cnfHookFile="/opt/hooks/none")
        self.device.start()
        self.assert_running("good")
        self.assertEqual(self.device.active("bad"), "")
        self.assertTrue(any(severity == ERR and "Failed to execute configuration hook - /opt/hooks/none: " in text
                            for severity, text in self.device.log_lines()), self.device.log_text())

    def test_a_callback_that_kills_itself(self):
        self.device.recording_script("/opt/hooks/suicide", body="kill -9 $$")
        self.device.service("bad", callbackScript="/opt/hooks/suicide")
        self.device.start()
        self.assert_running("bad")
        self.assert_whole_store("bad")

    def test_a_missing_callback(self):
        self.device.service("bad", callbackScript="/opt/hooks/none")
        self.device.start()
        self.assert_skipped("bad", "The callback /opt/hooks/none for the service bad doesn't exist")
        self.assertFalse(self.device.exists(f"{KEYWARD}/bad"))
        self.assertFalse(self.device.exists(f"{PIPES}/bad"))

    def test_a_callback_without_execute_right(self):
        self.device.write("/opt/hooks/plain", "#!/bin/sh\n")
        self.device.service("bad", callbackScript="/opt/hooks/plain")
        self.device.start()
        self.assert_skipped("bad", "The callback /opt/hooks/plain for the service bad doesn't have executable right.")
        self.assertFalse(self.device.exists(f"{KEYWARD}/bad"))

    def test_a_callback_that_is_a_folder(self):
        self.device.service("bad", callbackScript="/opt/hooks")
        self.device.start()
        self.assert_running("good")


class Files(Bad):
    def test_a_binary_daemon_configuration(self):
        self.device.service("good")
        self.device.write(CONFIGURATION, os.urandom(100_000).replace(b"keyward", b""))
        daemon = self.device.start(ready=False)
        self.assertEqual(daemon.wait_parent(), 12)
        severity, text = self.device.log_lines()[-1]
        self.assertEqual(severity, EMERG)
        self.assertTrue(text.startswith(
            "Stopping with the code 12 due to Std exception caught while loading the daemon configuration file. Error: "
            "Bad daemon configuration file : 'keywardDirectory' is not defined; "), text)
        for path in (LOCK, PID, KEYWARD):
            self.assertFalse(self.device.exists(path))

    def test_a_daemon_configuration_that_is_a_folder(self):
        self.device.service("good")
        self.device.remove(CONFIGURATION)
        os.mkdir(self.device.host(CONFIGURATION))
        self.assertEqual(self.device.start(ready=False).wait_parent(), 12)
        self.assertEqual(self.device.log_lines()[-1][0], EMERG)

    def test_a_binary_service_file(self):
        self.device.service("good")
        self.device.write(f"{SERVICES}/bad.conf", os.urandom(100_000))
        self.device.start()
        found = [text for severity, text in self.device.log_lines()
                 if severity == ERR and text.startswith("Error during")]
        self.assertEqual(found, ["Error during starting bad: Invalid config parameter: cnf File or cnfFile must be "
                                 "defined"])
        self.assert_running("good")

    def test_numbers_out_of_range_in_a_service_file(self):
        cases = {"a": dict(CertDailyExpiryChkTimeOffsetSecs="86400"), "b": dict(ca="yes", maximumCA="many"),
                 "c": dict(ca="yes", maximumCA="70000"),
                 "d": dict(selfSignedValidity="10", selfSignedValidityOffset="10")}
        for name, settings in cases.items():
            self.device.service(name, **settings)
        self.device.service("good")
        self.device.start()
        found = sorted(text for severity, text in self.device.log_lines() if text.startswith("Error during"))
        self.assertEqual(len(found), 4, self.device.log_text())
        self.assertIn("less than seconds in one day.", found[0])
        self.assertIn("Standard exception caught while reading config parameter: maximum CA - ", found[1])
        self.assertIn("Standard exception caught while reading config parameter: maximum CA - ", found[2])
        self.assertIn("Invalid config parameter: selfsigned validity offset should be less than validity.", found[3])
        self.assert_running("good")

    def test_binary_request_settings(self):
        self.device.service("good")
        self.device.write("/etc/keywarden/noise.cnf", os.urandom(100_000))
        self.device.service("bad", cnfFile="/etc/keywarden/noise.cnf")
        self.device.start()
        self.assert_running("good")
        self.assert_running("bad")

    def test_request_settings_that_are_a_folder(self):
        self.device.service("good")
        os.mkdir(self.device.host("/etc/keywarden/folder.cnf"))
        os.chmod(self.device.host("/etc/keywarden/folder.cnf"), 0o755)
        self.device.service("bad", cnfFile="/etc/keywarden/folder.cnf")
        self.device.start()
        self.assert_running("good")

    def test_a_service_without_callbacks(self):
        self.device.service("good")
        self.device.service("bad", callbackScript=None)
        self.device.start()
        self.assert_skipped("bad", "No callbacks to load")
        self.assertFalse(self.device.exists(f"{KEYWARD}/bad"))


class Stores(Bad):
    """A store whose files were damaged while the daemon was down."""

    def damage(self, name, content):
        self.device.service("good")
        self.device.service("web", ca="yes")
        self.device.start()
        self.device.write(f"{WORK}/ca.pem", certificates.Pki().pem())
        self.assertEqual(self.device.channel("web").ask("ca", "add", f"{WORK}/ca.pem")[0], 0)
        self.device.stop()
        path = f"{KEYWARD}/web/server/" + name.replace("ID", self.device.active("web"))
        with open(self.device.host(path), "wb") as file:
            file.write(content)
        self.device.start()
        self.assert_running("good")
        self.assert_whole_store("good")

    def test_a_certificate_that_is_none(self):
        self.damage("ID", b"not a certificate")
        self.assert_running("web")

    def test_a_key_that_is_none(self):
        self.damage("ID.key", b"not a key")
        self.assert_running("web")

    def test_a_network_file_that_is_none(self):
        self.damage(".cacheddata/ID.network", bytes(range(256)))
        self.assert_running("web")

    def test_an_active_file_that_names_nothing_real(self):
        self.damage(".cacheddata/active.txt", b"../../../etc/passwd")
        self.assert_running("web")
        self.assertIn(b"root:", self.device.read("/etc/passwd"))

    def test_files_that_are_no_certificates_among_the_authorities(self):
        self.device.service("web", server=None, ca="yes")
        self.device.service("good")
        self.device.write(f"{KEYWARD}/web/ca/0a1b2c3d.0", "not a certificate")
        self.device.write(f"{KEYWARD}/web/ca/README", "not an id")
        for folder in ("", "/web", "/web/ca"):
            os.chown(self.device.host(KEYWARD + folder), 4242, 4242)
        self.device.start()
        self.assert_running("web")
        self.assert_running("good")


if __name__ == "__main__":
    main()
