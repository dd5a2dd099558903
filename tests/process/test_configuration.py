"""Starts that fail: bad daemon configurations, missing accounts, unusable paths."""

import os

from kwtest import Case, main
from kwtest.case import last_line
from kwtest.device import CONFIGURATION, DAEMON_SETTINGS, GROUPS, KEYWARD, LOCK, PID, SCRIPTS, settings_text
from kwtest.syslog import EMERG, ERR

BAD_FILE = "Std exception caught while loading the daemon configuration file. Error: "


class ConfigurationFile(Case):
    def setUp(self):
        super().setUp()
        self.device.service("web")

    def assert_refused(self, error):
        """The whole log is the last line, and files of another instance stay as they are."""
        for path in (LOCK, PID):
            self.device.write(path, "another's")
        self.assert_fails_at_start(12, BAD_FILE + error, removed=False)
        self.assertEqual(len(self.device.log_lines()), 1)
        for path in (LOCK, PID):
            self.assertEqual(self.device.read(path), b"another's")
        self.assertFalse(self.device.exists(KEYWARD))

    def test_a_missing_file_is_named(self):
        self.device.remove(CONFIGURATION)
        self.assert_refused(f"Failed to open configuration file : {CONFIGURATION}")

    def test_a_fifo_in_its_place_is_refused_at_once(self):
        self.device.remove(CONFIGURATION)
        os.mkfifo(self.device.host(CONFIGURATION))
        self.assert_refused(f"Failed to open configuration file : {CONFIGURATION}")

    def test_an_empty_file_misses_every_required_key_in_order(self):
        self.device.write(CONFIGURATION, "")
        self.assert_refused("Bad daemon configuration file : " + "".join(
            f"'{key}' is not defined; " for key in ("keywardDirectory", "notificationGroup", "serviceConfigDirectory",
                                                    "namePipesDirectory", "daemonUser", "scriptsDirectory",
                                                    "lockFile", "pidFile")))

    def test_a_file_with_only_lock_and_pid_misses_the_other_six(self):
        self.device.write(CONFIGURATION, f"lockFile {LOCK}\npidFile {PID}\n")
        self.assert_refused("Bad daemon configuration file : " + "".join(
            f"'{key}' is not defined; " for key in ("keywardDirectory", "notificationGroup", "serviceConfigDirectory",
                                                    "namePipesDirectory", "daemonUser", "scriptsDirectory")))

    def test_a_line_without_a_space_sets_nothing(self):
        self.device.write(CONFIGURATION,
                          settings_text({**DAEMON_SETTINGS, "daemonUser": None}) + "daemonUser=keyuser\n")
        self.assert_refused("Bad daemon configuration file : 'daemonUser' is not defined; ")

    def test_an_indented_line_with_a_comment_sets_nothing(self):
        self.device.write(CONFIGURATION,
                          settings_text({**DAEMON_SETTINGS, "pidFile": None}) + f"  pidFile {PID} # mine\n")
        self.assert_refused("Bad daemon configuration file : 'pidFile' is not defined; ")

    def test_numbers_that_are_none_are_refused_with_the_shared_text(self):
        for key in ("TimeDriftSleepTime", "TimeDriftThresholdValue"):
            with self.subTest(key=key):
                self.device.configure(**{key: "soon"})
                self.assert_refused("Std exception invalid argument caught while getting the value for "
                                    "TimeDriftSleepTime in api: stoi")
                self.setUp()
                self.device.configure(**{key: "99999999999"})
                self.assert_refused("Std exception out of range caught while getting the value for "
                                    "TimeDriftSleepTime in api: stoi")
                self.setUp()

    def test_a_minimum_date_that_is_no_number_is_refused(self):
        self.device.configure(minDateForGeneratingCert="later")
        self.assert_refused("stoll")

    def test_blanks_comments_and_repeated_keys_are_understood(self):
        rest = settings_text({**DAEMON_SETTINGS, "daemonUser": None, "pidFile": None})
        self.device.write(CONFIGURATION, f"# the daemon\n\n \t\ndaemonUser   keyuser\ndaemonUser root\n"
                                         f"pidFile {PID}   # its number\nunknown key\n{rest}")
        self.device.start()
        self.assertEqual(self.device.rights(PID), ("-", 0o664, "keyuser", "keyuser"))


class Accounts(Case):
    def setUp(self):
        super().setUp()
        self.device.service("web")

    def test_the_daemon_user_must_exist(self):
        self.device.configure(daemonUser="nobodyhere")
        self.assert_fails_at_start(12, "The user: nobodyhere doesn't exist")
        self.assertEqual(len(self.device.log_lines()), 1)

    def test_the_notification_group_must_exist(self):
        self.device.configure(notificationGroup="nogroup")
        self.assert_fails_at_start(12, "The group for notifier: nogroup doesn't exist")
        self.assertEqual(len(self.device.log_lines()), 1)

    def test_the_daemon_user_must_be_listed_in_the_notification_group(self):
        self.device.configure(notificationGroup="kwforeign")
        self.assert_fails_at_start(12, "The user: keyuser is not member of the group kwforeign")
        self.assertEqual(len(self.device.log_lines()), 1)

    def test_a_primary_group_alone_is_no_membership(self):
        self.device.configure(notificationGroup="keyuser")
        self.assert_fails_at_start(12, "The user: keyuser is not member of the group keyuser")

    def test_a_name_that_only_resembles_a_member_is_none(self):
        self.device.accounts({**GROUPS, "kwnotify": (4250, "keyusers,xkeyuser")})
        self.assert_fails_at_start(12, "The user: keyuser is not member of the group kwnotify")


class ServiceAccounts(Case):
    """Groups of services: such a service is skipped, others run."""

    def assert_skipped(self, reason, **settings):
        self.device.service("web")
        self.device.service("bad", **settings)
        self.device.start()
        self.assert_logged(ERR, "Error during starting bad: Std exception during loading service object for "
                                "service-bad: " + reason, count=1)
        self.assertEqual(self.device.channel("web").ask("config", "status"), (0, "running"))

    def test_the_management_group_must_exist(self):
        self.assert_skipped("The group 'nogroup' of the service 'bad' doesn't exist", managmentGroup="nogroup")

    def test_the_daemon_user_must_be_in_the_management_group(self):
        self.assert_skipped("The user 'keyuser' is not member of the group 'kwforeign' of the service 'bad'.",
                            managmentGroup="kwforeign")

    def test_the_key_group_must_exist(self):
        self.assert_skipped("The group 'nogroup' of the service 'bad' doesn't exist", keyGroup="nogroup")

    def test_the_daemon_user_must_be_in_the_key_group(self):
        self.assert_skipped("The user 'keyuser' is not member of the group 'kwforeign' of the service 'bad'",
                            keyGroup="kwforeign")

    def test_without_a_server_the_key_group_does_not_matter(self):
        self.device.service("web", server=None, keyGroup="nogroup")
        self.device.start()
        self.assertEqual(self.device.channel("web").ask("config", "status"), (0, "running"))

    def test_request_settings_must_be_readable(self):
        self.device.write("/etc/keywarden/secret.cnf", "CN a\n", mode=0o600)
        self.assert_skipped("The cnf hook '/etc/keywarden/secret.cnf' of the service 'bad' doesn't have read right "
                            "for 'keyuser'", cnfFile="/etc/keywarden/secret.cnf")

    def test_the_request_settings_hook_must_be_readable(self):
        self.assert_skipped("The cnf hook '/opt/hooks/none' of the service 'bad' doesn't have read right for 'keyuser'",
                            cnfHookFile="/opt/hooks/none")


class Paths(Case):
    def setUp(self):
        super().setUp()
        self.device.service("web")

    def test_a_lock_that_cannot_be_made(self):
        self.device.configure(lockFile="/nowhere/keywardd.lock")
        error = "Failed to open lock file '/nowhere/keywardd.lock', err: No such file or directory"
        self.assert_fails_at_start(12, error)
        self.assertEqual(self.device.log_lines(), [(ERR, error), (EMERG, last_line(12, error))])

    def test_a_pid_file_that_cannot_be_made(self):
        self.device.configure(pidFile="/nowhere/keywardd.pid")
        error = "Failed to open pid file '/nowhere/keywardd.pid', err: No such file or directory"
        self.assert_fails_at_start(12, error)
        self.assert_logged(ERR, error, count=1)
        self.assertIn("Daemon Exception occured during daemon setup: " + error,
                      [text for _, text in self.device.log_lines()])

    def test_a_network_script_that_is_missing(self):
        self.device.remove(f"{SCRIPTS}/network.sh")
        self.assert_network_script_refused()

    def test_a_network_script_that_the_daemon_user_may_not_run(self):
        for mode in (0o700, 0o644):
            with self.subTest(mode=oct(mode)):
                os.chmod(self.device.host(f"{SCRIPTS}/network.sh"), mode)
                self.assert_network_script_refused()

    def assert_network_script_refused(self):
        reason = f"The script {SCRIPTS}/network.sh cannot be run with the daemon user keyuser. "
        self.assert_fails_at_start(12, reason)
        self.assertEqual(set(self.device.log_lines()), {(EMERG, last_line(12, reason))})

    def test_a_service_folder_that_is_missing(self):
        os.rename(self.device.host("/etc/keywarden/services"), self.device.host("/etc/keywarden/moved"))
        daemon = self.device.start(ready=False)
        # Whether an unreadable folder counts as empty or as a failure of its own: the daemon ends with 12.
        status = daemon.wait_parent() or daemon.wait_exit()
        self.assertEqual(status, 12)
        self.assertEqual(self.device.log_lines()[-1][0], EMERG)
        self.assertFalse(self.device.exists(LOCK))
        self.assertFalse(self.device.exists(PID))


if __name__ == "__main__":
    main()
