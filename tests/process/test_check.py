"""keywardctl check: a proper device is clean before, while and after the daemon runs, and mistakes are told."""

import functools
import glob
import json
import os
import re
import signal
import subprocess

from kwtest import Case, SETTINGS, certificates, main
from kwtest.device import GROUPS, KEYWARD, LOCK, PIPES, SERVICES, WORK
from kwtest.process import limit, wait_until
from kwtest.syslog import ERR

TOP = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
PROGRAM = "/opt/keyward/keywardctl"
CONFIGURATION = "/etc/keywarden/config.daemon"
WEB = f"{SERVICES}/web.conf"


class CheckCase(Case):
    def setUp(self):
        super().setUp()
        self.device.root._place_program(PROGRAM, os.environ["KEYWARDCTL"])
        # What every service of a proper device has.
        self.device.service = functools.partial(self.device.service, callbackTimeoutSecs="60")

    def check(self, *arguments, user=None):
        prefix = ["setarch", "-R"] if "thread" in SETTINGS.sanitizer else []
        prefix += ["chroot"] + (user or []) + [self.device.root.path]
        return subprocess.run(prefix + [PROGRAM, "check", *arguments], env=self.device.environment(),
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=limit(30), check=False)

    def assert_clean(self, *arguments):
        done = self.check(*arguments)
        self.assertEqual((done.stdout, done.stderr, done.returncode), ("Nothing found.\n", "", 0))

    def findings(self, *arguments, user=None):
        """(severity, file, line, code) of everything that is found."""
        done = self.check("--json", *arguments, user=user)
        report = json.loads(done.stdout)
        self.assertEqual(report["version"], 1)
        self.assertEqual(done.returncode, 1 if report["findings"] else 0, done.stdout + done.stderr)
        return [(found["severity"], found["file"], found["line"], found["code"]) for found in report["findings"]]


class HangingScripts(CheckCase):
    def test_a_script_without_a_time_out(self):
        self.device.service("web", callbackTimeoutSecs=None)
        self.assertEqual(self.findings(), [("warning", WEB, 3, "no-callback-timeout")])
        self.device.service("web", callbackTimeoutSecs="5")
        self.assert_clean()


class Clean(CheckCase):
    def test_a_proper_device_before_while_and_after_the_daemon_runs(self):
        device = self.device
        device.service("web", ca="yes", trustedClients="yes", includeFQDN="yes",
                       **{"networkInterface.0": "eth0", "includeIPv4.0": "yes"})
        self.assert_clean()
        device.start()
        channel, pki = device.channel("web"), certificates.Pki()
        device.write(f"{WORK}/ca.pem", pki.pem())
        device.write(f"{WORK}/client.pem", pki.leaf("client"))
        for words in (("ca", "add", f"{WORK}/ca.pem"), ("client", "add", f"{WORK}/client.pem"),
                      ("server", "createcsr")):
            self.assertEqual(channel.ask(*words)[0], 0)
        self.assert_clean()
        self.assertEqual(device.stop(), 10)
        self.assert_clean()
        device.start()
        self.assert_clean("web")

    def test_the_examples_on_a_device_made_after_the_readme(self):
        device = self.device
        members = {"kwadmin": (4260, "keyuser"), "kwca": (4261, "keyuser")}
        device.accounts({**GROUPS, **members})
        examples = f"{TOP}/examples/etc/keywarden"
        for path in glob.glob(f"{examples}/**", recursive=True):
            if os.path.isfile(path):
                with open(path, "rb") as file:
                    device.write("/etc/keywarden/" + os.path.relpath(path, examples), file.read(),
                                 0o755 if path.endswith(".sh") else 0o644)
        device.script("/etc/keywarden/scripts/network.sh", "cat /opt/scripts/network.txt")
        for folder in ("/var/lib/keywarden", "/var/log/keywarden"):
            device.root.make_folder(folder)
            os.chown(device.host(folder), 4242, 4242)
        self.assert_clean()
        device.start()
        self.assert_clean()

    def test_nothing_is_said_about_a_json_without_findings(self):
        self.device.service("web")
        done = self.check("--json")
        self.assertEqual((done.stdout, done.returncode), ('{"version":1,"findings":[]}\n', 0))


class Mistakes(CheckCase):
    def test_a_set_of_mistakes_in_one_file(self):
        device = self.device
        device.service("web", keyGroup="kwforeign", includeFQDN="Yes", selfSignedValidty="9",
                       **{"networkInterface.1": "eth0"})
        with open(device.host(WEB), "a", encoding="utf-8") as file:
            file.write("  ca yes # for the clients\nname\tWeb\ntrustedClients yes\nmaximumTrustedClients 4\n")
        self.assertEqual(self.findings(), [
            ("error", WEB, 2, "not-member"),
            ("error", WEB, 8, "not-yes"),
            ("error", WEB, 9, "unknown-key"),
            ("error", WEB, 10, "interface-gap"),
            ("error", WEB, 11, "empty-key"),
            ("error", WEB, 12, "tab-for-space"),
            ("error", WEB, 14, "clients-limit-ignored"),
        ])

    def test_the_text_and_the_json_of_one_mistake(self):
        self.device.service("web", includeFQDN="on")
        text = "'includeFQDN' is off: 'on' is not 'yes'"
        advice = "Only 'yes', in small letters and alone, switches on; write that, or 'no'."
        done = self.check()
        self.assertEqual((done.stdout, done.stderr, done.returncode), (
            f"{WEB}:8: error: {text} [not-yes]\n    {advice}\n1 error, 0 warnings, 0 notes\n", "", 1))
        self.assertEqual(json.loads(self.check("--json").stdout), {"version": 1, "findings": [
            {"severity": "error", "file": WEB, "line": 8, "code": "not-yes", "text": text, "advice": advice}]})

    def test_letters_of_all_kinds_come_through_the_json(self):
        self.device.service("web", includeFQDN="j\u00e4 \u20ac\x1b")
        found = json.loads(self.check("--json").stdout)["findings"]
        self.assertEqual([entry["text"] for entry in found],
                         ["'includeFQDN' is off: 'j\u00e4 \u20ac\\x1b' is not 'yes'"])

    def test_only_the_service_asked_for(self):
        self.device.service("web")
        self.device.service("bad", callbackScript=None)
        self.assert_clean("web")
        self.assertEqual(self.findings("bad"), [("error", f"{SERVICES}/bad.conf", 0, "no-callback")])
        self.assertEqual(self.findings("mail"), [("error", f"{SERVICES}/mail.conf", 0, "unknown-service")])

    def test_fifos_in_the_place_of_files_hold_nobody_up(self):
        device = self.device
        for service in ("hook", "library", "settings"):
            os.mkfifo(device.host(f"{WORK}/{service}"), 0o777)
        os.chmod(device.host(f"{WORK}/hook"), 0o777)
        device.service("hook", cnfFile=None, cnfHookFile=f"{WORK}/hook")
        device.service("library", callbackScript=None, callbackLibrary=f"{WORK}/library")
        device.service("settings", cnfFile=f"{WORK}/settings")
        self.assertEqual([(line, code) for _, _, line, code in self.findings()],
                         [(7, "hook-unusable"), (7, "library-unusable"), (6, "settings-unreadable")])

    def test_every_service_with_a_refusal_is_refused_by_the_daemon_and_no_other(self):
        device = self.device
        refused = {"group": {"managmentGroup": "nowhere"}, "member": {"keyGroup": "kwforeign"},
                   "offset": {"CertDailyExpiryChkTimeOffsetSecs": "90000"}, "callback": {"callbackScript": None},
                   "settings": {"cnfFile": "/etc/nowhere.cnf"}, "limit": {"ca": "yes", "maximumCA": "all"}}
        for service, changes in refused.items():
            device.service(service, **changes)
        device.service("web", includeFQDN="yes", selfSignedValidity="60")
        self.assertEqual({os.path.basename(file)[:-len(".conf")] for severity, file, _, _ in self.findings()
                          if severity == "error"}, set(refused))
        device.start()
        failed = {re.match(r"Error during starting (\w+): ", text).group(1)
                  for severity, text in device.log_lines()
                  if severity == ERR and text.startswith("Error during starting ")}
        self.assertEqual(failed, set(refused))

    def test_the_lock_that_a_crash_left(self):
        self.device.service("web")
        daemon = self.device.start()
        self.assert_clean()
        daemon.signal(signal.SIGKILL)
        self.assertTrue(wait_until(lambda: not daemon.running))
        self.assertEqual(self.findings(), [("error", LOCK, 0, "stale-lock")])

    def test_a_key_that_everybody_may_read(self):
        device = self.device
        device.service("web")
        device.start()
        key = f"{KEYWARD}/web/server/{device.active('web')}.key"
        os.chmod(device.host(key), 0o644)
        os.chown(device.host(f"{PIPES}/web"), 0, -1)
        self.assertEqual(self.findings(), [("error", f"{PIPES}/web", 0, "wrong-owner"),
                                           ("error", key, 0, "key-readable")])

    def test_whoever_is_not_root_gets_a_note_and_no_clean_bill(self):
        device = self.device
        device.service("web")
        device.start()
        found = self.findings(user=["--userspec=4301:4301"])
        self.assertTrue(found)
        self.assertEqual({(severity, code) for severity, _, _, code in found}, {("note", "not-looked-at")})
        self.assertIn(f"{KEYWARD}/web/server/{device.active('web')}.key", [file for _, file, _, _ in found])

    def test_a_missing_configuration(self):
        self.device.remove(CONFIGURATION)
        self.assertEqual(self.findings(), [("error", CONFIGURATION, 0, "no-daemon-file")])


class Documentation(Case):
    @staticmethod
    def read(path):
        with open(f"{TOP}/{path}", encoding="utf-8") as file:
            return file.read()

    def test_the_table_of_codes_is_that_of_the_program(self):
        documented = re.findall(r"^\| `([a-z-]+)` \| (error|warning|note) \| \S", self.read("docs/check.md"),
                                re.MULTILINE)
        known = re.findall(r'\{Code::\w+, "([a-z-]+)", Severity::(\w+)\}',
                           self.read("ctl/check/Codes.cpp"))
        self.assertGreater(len(known), 50)
        self.assertEqual(documented, [(code, severity.lower()) for code, severity in known])

    def test_every_documented_code_is_produced_by_a_test_and_no_other(self):
        documented = set(re.findall(r"^\| `([a-z-]+)` \| (?:error|warning|note) ", self.read("docs/check.md"),
                                    re.MULTILINE))
        expected = set()
        for name in ("CheckKeysTest", "CheckFilesTest", "CheckCertificatesTest"):
            # Expected findings are split over lines where the formatter sees fit.
            source = re.sub(r'"\s+"', "", self.read(f"tests/unit/ctl/{name}.cpp"))
            expected |= set(re.findall(r"\[([a-z]+(?:-[a-z]+)+)\]", source))
        self.assertEqual(expected, documented)


if __name__ == "__main__":
    main()
