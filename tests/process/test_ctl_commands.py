"""keywardctl at work: every command with the real daemon, and the exit status that scripts go by."""

import json
import os
import time

from kwtest import Case, certificates, main
from kwtest.device import CONFIGURATION, KEYWARD, LOCK, PIPES, SERVICES, WORK
from kwtest.operator_tool import OperatorTool
from kwtest.process import wait_until
from kwtest.syslog import NOTICE

DONE, FAILED, USAGE, NOT_RUNNING, REFUSED = range(5)


class Commands(Case):
    def setUp(self):
        super().setUp()
        self.ctl = OperatorTool(self.device)
        self.pki = certificates.Pki()

    def run_as_operator(self, *arguments, **options):
        return self.ctl.run(*arguments, user="operator", **options)

    def assert_done(self, *arguments, user="operator", stderr=""):
        """The command succeeds and says nothing but this on standard error; returns its standard output."""
        status, out, err = self.ctl.run(*arguments, user=user)
        self.assertEqual((status, err), (DONE, stderr), out)
        return out

    def assert_problem(self, status, message, *arguments, user="operator", stdout=""):
        self.assertEqual(self.ctl.run(*arguments, user=user), (status, stdout, f"keywardctl: {message}\n"))

    def start_web(self, **changes):
        self.device.service("web", **changes)
        self.device.start()

    def pem(self, service):
        return self.device.read(f"{KEYWARD}/{service}/server/{self.device.active(service)}")


class ServerCertificate(Commands):
    def test_a_request_goes_out_and_its_certificate_comes_in(self):
        self.start_web(selfSignedGeneration=None)
        request = self.assert_done("csr", "web")
        self.assertEqual(request, self.device.read(f"{KEYWARD}/web/server/.cacheddata/csr.csr").decode()[:-1])
        self.assertTrue(request.endswith("-----END CERTIFICATE REQUEST-----\n"))
        self.assertIn("web      running  none         -     pending", self.assert_done("status"))
        self.assertEqual(self.assert_done("show", "web", "--request", "--pem").rstrip(), request.rstrip())

        # Of an operator whose files nobody else may read.
        self.device.root.make_folder("/home/operator", 0o700)
        certificate = self.pki.sign(request.encode(), days=91, start=time.time() - 86400 - 3600)
        self.device.write("/home/operator/web.crt", certificate, mode=0o600)
        for path in ("/home/operator", "/home/operator/web.crt"):
            os.chown(self.device.host(path), 4300, 4300)
        self.assertEqual(self.assert_done("apply", "web", "/home/operator/web.crt"), self.device.active("web") + "\n")
        self.assertEqual(certificates.load(self.pem("web")), certificates.load(certificate))
        self.assertIn("web      running  external     89    no", self.assert_done("status", "web"))
        self.assertEqual([name for name in self.device.listing(f"{PIPES}/web") if name.startswith("keywardctl")], [])

    def test_a_request_without_addresses_into_a_file(self):
        self.start_web(**{"includeFQDN": "yes", "networkInterface.0": "eth0", "includeIPv4.0": "yes"})
        target = f"{WORK}/web.csr"
        self.device.write(target, "old")
        os.symlink("web.csr", self.device.host(f"{WORK}/link.csr"))
        self.assertEqual(self.assert_done("csr", "web", "--no-ip", "-o", f"{WORK}/link.csr", user="root"), "")
        names = certificates.alternative_names(certificates.load_request(self.device.read(target)))
        self.assertEqual(names, [("DNS", "unit42.test")])
        self.assertEqual(self.device.rights(target), ("-", 0o644, "root", "root"))
        self.assertEqual(os.readlink(self.device.host(f"{WORK}/link.csr")), "web.csr")
        self.assertEqual(self.device.listing(WORK), ["calls", "link.csr", "web.csr"])

    def test_what_does_not_belong_to_the_request_is_refused_with_the_daemons_text(self):
        self.start_web()
        self.assert_done("csr", "web")
        self.device.write(f"{WORK}/other.crt", self.pki.leaf("other.test"))
        before = self.pem("web")
        self.assert_problem(REFUSED, "Daemon exception during user request process for service 'web': "
                            "Error in validating csr and crt", "apply", "web", f"{WORK}/other.crt")
        self.assertEqual(self.pem("web"), before)

    def test_a_file_with_a_private_key_goes_nowhere(self):
        self.start_web(ca="yes")
        certificate, key = certificates.issue(self.pki, "other.test")
        self.device.write(f"{WORK}/both.pem", certificate + key)
        for command in (("apply", "web"), ("ca", "add", "web")):
            self.assert_problem(FAILED, f"'{WORK}/both.pem' holds a private key, which does not belong here: "
                                "make a file of the certificate alone", *command, f"{WORK}/both.pem")
        self.assertNotIn("Apply CRT", self.device.log_text())

    def test_files_that_are_none(self):
        self.start_web()
        for path in (f"{WORK}/missing", WORK, "/dev/zero"):
            status, out, err = self.run_as_operator("apply", "web", path)
            self.assertEqual((status, out), (FAILED, ""))
            self.assertIn(f"keywardctl: '{path}' cannot be read: ", err)

    def test_renew_makes_a_new_certificate(self):
        self.start_web()
        before = self.pem("web")
        self.assertEqual(self.assert_done("renew", "web"), self.device.active("web") + "\n")
        self.assertNotEqual(self.pem("web"), before)

    def test_renew_is_refused_where_the_daemon_makes_none(self):
        self.start_web(selfSignedGeneration=None)
        self.assert_problem(REFUSED, f"the daemon makes no certificates for the service 'web': "
                            f"'{SERVICES}//web.conf' has neither \"selfSignedGeneration yes\" nor "
                            "\"CASignedGeneration yes\"; use 'keywardctl csr' and 'keywardctl apply'", "renew", "web")
        self.assert_not_logged("can not be generated")

    def test_renew_tells_that_the_daemon_works_with_older_settings(self):
        self.start_web(selfSignedGeneration=None)
        request = self.assert_done("csr", "web")
        self.device.write(f"{WORK}/web.crt", self.pki.sign(request.encode()))
        self.assert_done("apply", "web", f"{WORK}/web.crt")
        self.device.service("web")
        status, _, err = self.run_as_operator("renew", "web")
        self.assertEqual(status, FAILED)
        self.assertIn("use 'keywardctl reload web'", err)
        self.assertEqual(self.assert_done("reload", "web"), "Reload Successful\n")
        self.assertEqual(self.assert_done("renew", "web"), self.device.active("web") + "\n")

    def test_revoke_says_what_takes_the_certificates_place(self):
        self.start_web()
        before = self.pem("web")
        out = self.assert_done("revoke", "web", stderr="keywardctl: the daemon has made a new certificate in the "
                               "place of the old one\n")
        self.assertEqual(out, self.device.active("web") + "\n")
        self.assertNotEqual(self.pem("web"), before)

        self.device.service("web", selfSignedGeneration=None)
        self.assert_done("reload", "web")
        out = self.assert_done(
            "revoke", "web", stderr="keywardctl: the service 'web' has no certificate any more: its settings have "
            "neither \"selfSignedGeneration yes\" nor \"CASignedGeneration yes\"; install one with 'keywardctl csr' "
            "and 'keywardctl apply'\n")
        self.assertEqual(out, "")
        self.assert_done("revoke", "web", stderr="keywardctl: the service 'web' had no certificate\n")
        self.assertIn("web      running  none ", self.assert_done("status"))
        self.assert_problem(FAILED, "the service 'web' has no certificate", "show", "web")

    def test_a_reload_that_fails_leaves_a_stopped_service(self):
        self.start_web()
        self.device.write(f"{SERVICES}/web.conf", "managmentGroup kwmgmt\n")
        status, out, err = self.run_as_operator("reload", "web")
        self.assertEqual((status, out), (REFUSED, ""))
        self.assertIn("Invalid config parameter: cnf File or cnfFile must be defined", err)
        status, out, err = self.run_as_operator("status")
        self.assertEqual(status, FAILED)
        self.assertIn("web      stopped  self-signed  29 ", out)
        self.assertEqual(err, "keywardctl: Invalid config parameter: cnf File or cnfFile must be defined\n")
        self.assert_problem(REFUSED, "The service is not running.", "csr", "web")


class TrustStores(Commands):
    def setUp(self):
        super().setUp()
        self.start_web(ca="yes", maximumCA="2", trustedClients="yes")
        self.device.write(f"{WORK}/ca.pem", self.pki.pem(), mode=0o600)
        os.chown(self.device.host(f"{WORK}/ca.pem"), 4300, 4300)

    def test_a_trusted_authority_comes_and_goes(self):
        name = self.assert_done("ca", "add", "web", f"{WORK}/ca.pem").rstrip("\n")
        self.assertRegex(name, r"\A[0-9a-f]{8}\.0\Z")
        self.assertEqual(self.device.read(f"{KEYWARD}/web/ca/{name}"), self.pki.pem())
        end = certificates.seconds(self.pki.certificate.not_valid_after)
        self.assertRegex(self.assert_done("ca", "list", "web"),
                         r"\AID          DAYS  NOT AFTER                NAME\n" + name +
                         r"  8[89]    \d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC  Outside CA\n\Z")
        listing = json.loads(self.assert_done("ca", "list", "web", "--json"))
        self.assertEqual([(one["id"], one["common_name"], one["not_after"], one["is_ca"])
                          for one in listing["certificates"]], [(name, "Outside CA", end, True)])
        for command in (("ca", "show", "web", name), ("show", "web", "--ca", name)):
            self.assertIn(f"store:       ca\nid:          {name}\nsubject:     CN=Outside CA\n",
                          self.assert_done(*command))
        self.assertEqual(self.assert_done("ca", "show", "web", name, "--pem"), self.pki.pem().decode())
        self.assertIn("  no       1    0        ok\n", self.assert_done("status"))

        self.assertEqual(self.assert_done("ca", "remove", "web", name), name + "\n")
        self.assertEqual(self.assert_done("ca", "list", "web"), "ID  DAYS  NOT AFTER  NAME\n")
        self.assert_problem(FAILED, f"there is no certificate '{name}' in the store 'ca' of the service 'web'",
                            "ca", "show", "web", name)

    def test_adding_it_again_is_nothing_to_do(self):
        self.assert_done("ca", "add", "web", f"{WORK}/ca.pem")
        self.assertEqual(self.assert_done(
            "ca", "add", "web", f"{WORK}/ca.pem", stderr="keywardctl: Daemon exception during user request process "
            "for service 'web': Certificate already present inside ca for web\n"), "")

    def test_a_full_store_refuses(self):
        for number in range(2):
            self.device.write(f"{WORK}/{number}.pem", certificates.Pki(f"CA {number}").pem())
            self.assert_done("ca", "add", "web", f"{WORK}/{number}.pem")
        self.assert_problem(REFUSED, "Daemon exception during user request process for service 'web': Too many "
                            "certificates found while adding certificate inside ca for web",
                            "ca", "add", "web", f"{WORK}/ca.pem")

    def test_clients_are_removed_together_and_strangers_are_named(self):
        ids = []
        for number in range(3):
            self.device.write(f"{WORK}/client.pem", self.pki.leaf(f"client {number}"))
            ids.append(self.assert_done("client", "add", "web", f"{WORK}/client.pem").rstrip("\n"))
        self.assertEqual(self.assert_done("complete", "client", "web").split(), sorted(ids))
        self.assert_problem(FAILED, "not in the store 'client' of the service 'web': 00000000.0 ../../etc",
                            "client", "remove", "web", ids[0], "00000000.0", ids[1], "../../etc",
                            stdout=" ".join(sorted(ids[:2])) + "\n")
        self.assertEqual(json.loads(self.assert_done("client", "show", "web", ids[2], "--json"))["certificate"]["id"],
                         ids[2])
        self.assertEqual(self.assert_done("client", "remove", "web", ids[2]), ids[2] + "\n")

    def test_one_file_that_is_no_certificate_does_not_hide_the_others(self):
        good = self.assert_done("ca", "add", "web", f"{WORK}/ca.pem").rstrip("\n")
        self.device.write(f"{WORK}/second.pem", certificates.Pki("Second").pem())
        bad = self.assert_done("ca", "add", "web", f"{WORK}/second.pem").rstrip("\n")
        self.device.write(f"{KEYWARD}/web/ca/{bad}", "nothing")
        status, out, err = self.run_as_operator("ca", "list", "web")
        self.assertEqual(status, FAILED)
        self.assertIn(good, out)
        self.assertIn(f"'{KEYWARD}/web/ca/{bad}' holds no certificate", err)

    def test_a_store_that_the_service_has_not_got(self):
        self.device.service("web", trustedClients="yes")
        self.assert_done("reload", "web")
        self.assert_problem(REFUSED, "CA doesn't exist for web", "ca", "add", "web", f"{WORK}/ca.pem")


class Notifications(Commands):
    def test_a_changed_network_renews_and_the_waiting_one_hears_of_it(self):
        self.start_web(includeFQDN="yes")
        first = self.device.active("web")
        with self.ctl.start("wait", "web", "--fresh", "--timeout", "30", user="operator") as waiting:
            # Nothing shows that it has begun but its hold on the signals.
            self.assertTrue(wait_until(lambda: self.holds_signals(waiting.pid)))
            self.device.network({"interface.0": "eth0", "fqdn.0": "renamed.test"})
            self.assertEqual(self.assert_done("notify", "network"), "")
            self.assertEqual(waiting.communicate(timeout=30), (self.device.active("web") + "\n", ""))
            self.assertEqual(waiting.returncode, DONE)
        # The subject is the same and so is the id: the names are what is new.
        self.assertEqual(self.device.active("web"), first)
        self.assertEqual(certificates.alternative_names(certificates.load(self.pem("web"))),
                         [("DNS", "renamed.test")])

    @staticmethod
    def holds_signals(pid):
        with open(f"/proc/{pid}/status", encoding="ascii") as status:
            return any(line.startswith("SigBlk:") and int(line.split()[1], 16) & (1 << 14) for line in status)

    def test_a_set_clock_is_told(self):
        self.start_web()
        self.assert_done("notify", "time")
        self.device.wait_log(NOTICE, "Time reload notification completed")

    def test_those_who_may_not_are_told_how(self):
        self.start_web()
        self.assert_problem(FAILED, f"cannot open '{PIPES}/notification.signal': Permission denied; only members of "
                            "the group 'kwnotify' may notify the daemon: add the user with 'usermod -aG kwnotify "
                            "stranger' and log in again", "notify", "network", user="stranger")

    def test_nothing_fresh_in_time(self):
        self.start_web()
        self.assert_problem(FAILED, "the service 'web' got no new certificate within 1 s",
                            "wait", "web", "--fresh", "--timeout", "1")

    def test_the_daemon_ends_while_somebody_waits(self):
        self.start_web()
        with self.ctl.start("wait", "web", "--fresh", user="operator") as waiting:
            self.assertTrue(wait_until(lambda: self.holds_signals(waiting.pid)))
            self.device.stop()
            _, err = waiting.communicate(timeout=30)
            self.assertEqual((waiting.returncode, err),
                             (NOT_RUNNING, "keywardctl: the daemon is not running (nobody will make a certificate)\n"))


class WithoutDaemon(Commands):
    def test_every_request_says_so(self):
        self.device.service("web")
        self.device.write(f"{WORK}/file.pem", self.pki.pem())
        requests = [("csr", "web"), ("apply", "web", f"{WORK}/file.pem"), ("renew", "web"), ("revoke", "web"),
                    ("reload", "web"), ("ca", "add", "web", f"{WORK}/file.pem"), ("client", "remove", "web", "0.0")]
        for request in requests:
            self.assert_problem(NOT_RUNNING, f"the daemon is not running ('{PIPES}/web/web.lock' does not exist)",
                                *request, user="root")
        self.assert_problem(NOT_RUNNING, f"the daemon is not running (nobody reads '{PIPES}/notification.signal')",
                            "notify", "time", user="root")
        self.assert_problem(NOT_RUNNING, "the daemon is not running (nobody will make a certificate)",
                            "wait", "web", "--fresh", user="root")

    def test_what_is_in_files_is_still_shown(self):
        self.start_web(includeFQDN="yes")
        self.device.stop()
        self.assert_problem(NOT_RUNNING, "the daemon is not running", "status", stdout=(
            "SERVICE  STATE        CERTIFICATE  DAYS  REQUEST  CAS  CLIENTS  NAMES\n"
            "web      not running  self-signed  29    no       -    -        ok\n"))
        self.assertIn("kind:        self-signed\n", self.assert_done("show", "web"))
        self.assertEqual(self.assert_done("show", "web", "--pem").encode(), self.pem("web"))

    def test_one_that_was_killed_is_not_taken_for_a_living_one(self):
        self.start_web()
        self.device.daemon.signal(9)
        self.device.daemon.wait_exit()
        text = (f"the daemon is not running (nobody reads '{PIPES}/web/web.in'); it left '{LOCK}' behind and will not "
                "start until that file is removed")
        self.assert_problem(NOT_RUNNING, text, "renew", "web")
        status, out, _ = self.run_as_operator("status")
        self.assertEqual(status, NOT_RUNNING)
        self.assertIn("web      not running  self-signed", out)
        self.assertEqual(self.run_as_operator("notify", "network")[0], NOT_RUNNING)

    def test_a_service_that_the_daemon_did_not_start(self):
        self.device.service("broken", cnfFile=None)
        self.start_web()
        status, out, err = self.run_as_operator("status")
        self.assertEqual(status, FAILED)
        self.assertIn("broken   not running  none ", out)
        self.assertIn("the daemon runs, but nobody answers for the service 'broken'", err)
        self.assertEqual(self.run_as_operator("reload", "broken")[0], NOT_RUNNING)

    def test_a_service_whose_requests_nobody_reads(self):
        self.start_web()
        fifo = self.device.host(f"{PIPES}/web/web.in")
        before = os.stat(fifo)
        os.rename(fifo, f"{fifo}.lost")
        os.mkfifo(fifo, 0o600)
        os.chown(fifo, before.st_uid, before.st_gid)
        os.chmod(fifo, before.st_mode)
        status, out, err = self.run_as_operator("status")
        self.assertEqual(status, FAILED)
        self.assertIn("web      not running  self-signed", out)
        self.assertEqual(err, f"keywardctl: the daemon runs, but nobody reads '{PIPES}/web/web.in'; its log tells what "
                         "became of the service\n")


class Usage(Commands):
    def test_wrong_command_lines(self):
        self.device.service("web")
        wrong = [(), ("bogus",), ("csr",), ("apply", "web"), ("ca",), ("ca", "add", "web"), ("wait", "web"),
                 ("notify", "weather"), ("export",), ("status", "--color", "sometimes"), ("status", "web", "more"),
                 ("show", "web", "--request", "--ca", "x"), ("status", "--timeout", "0"), ("--timeout", "x", "status"),
                 ("apply", "web", "file", "--json")]
        for arguments in wrong:
            with self.subTest(arguments):
                status, out, err = self.run_as_operator(*arguments)
                self.assertEqual((status, out), (USAGE, ""))
                self.assertNotEqual(err, "")

    def test_help_and_version(self):
        self.assertRegex(self.assert_done("--version"), r"\Akeywardctl \d+\.\d+\.\d+\n\Z")
        self.assertIn("Exit status: 0 done or nothing to do", self.assert_done("--help"))
        self.assertIn("--no-ip", self.assert_done("csr", "--help"))

    def test_a_field_that_the_protocol_cannot_carry(self):
        self.start_web(ca="yes")
        self.assert_problem(USAGE, "a request cannot hold a tab or a line feed: 'a\tb'", "ca", "remove", "web", "a\tb")
        self.assert_problem(USAGE, "a request cannot hold a tab or a line feed: 'a\nb'", "ca", "remove", "web", "a\nb")

    def test_services_that_are_none(self):
        self.start_web()
        for name in ("nope", "../web", "", "web/../web"):
            self.assert_problem(FAILED, f"there is no service '{name}' in '{SERVICES}'; there is: web", "renew", name)

    def test_a_device_without_configuration(self):
        self.device.remove(CONFIGURATION)
        self.assert_problem(FAILED, f"the daemon's configuration '{CONFIGURATION}' cannot be used: Failed to open "
                            f"configuration file : {CONFIGURATION} ('keywardctl check' tells more)", "status")


if __name__ == "__main__":
    main()
