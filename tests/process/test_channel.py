"""The command channel: every word at every target with every number of arguments, and what each command does."""

from kwtest import Case, certificates, main
from kwtest.device import KEYWARD, PIPES, WORK
from kwtest.syslog import ERR

TARGETS = ("server", "ca", "client", "config")
ANY = range(0, 100)
MANY = range(1, 100)
# Which targets take a word, and with how many arguments.
ACCEPTED = {
    "reload": {"config": [0]},
    "status": {"config": [0]},
    "getcsr": {"server": [0]},
    "getcsrinfo": {"server": [0]},
    "createcsr": {"server": ANY},
    "createcrt": {"server": [3]},
    "applycrt": {"server": [1]},
    "getkey": {"server": [0]},
    "revoke": {"server": [0], "ca": MANY, "client": MANY},
    "add": {"ca": [1], "client": [1]},
    "list": {"ca": [0], "client": [0]},
    "listByCN": {"ca": [1], "client": [1]},
    "info": {"server": [0, 2, 3, 4], "ca": MANY, "client": MANY, "config": [2, 3, 4]},
    "help": {"server": [0], "ca": [0], "client": [0], "config": [0]},
    "getOverwrittenData": {"server": [0], "ca": [1], "client": [1]},
    "setOverwrittenData": {"server": [2], "ca": [3], "client": [3]},
    "details": {"server": [0], "ca": [1], "client": [1]},
    "path": {"server": [0, 2, 3, 4], "ca": [0, 2, 3, 4], "client": [0, 2, 3, 4]},
    "getcert": {"server": [0], "ca": [1], "client": [1]},
    "getcertinfo": {"server": ANY, "ca": ANY, "client": ANY},
    "getcsrtimestamp": {"server": [0]},
}
EXECUTED = {"config": ("status", "reload"),
            "server": ("createcsr", "applycrt", "revoke", "getcsrinfo", "getcertinfo"),
            "ca": ("add", "revoke", "getcertinfo"), "client": ("add", "revoke", "getcertinfo")}
BAD_COMMAND = {"config": "Bad Command config", "server": "Bad Command server", "ca": "Bad Command ca",
               "client": "Bad Command Trusted certificate"}
MISSING = {"server": "Server doesn't exist for web", "ca": "CA doesn't exist for web",
           "client": "Trusted certificate doesn't exist for web"}
COMBINATIONS = [(word, target, count) for word in ACCEPTED for target in TARGETS for count in range(5)]


def is_accepted(word, target, count):
    return count in ACCEPTED[word].get(target, ())


class Words(Case):
    """All 420 combinations, on a service that has every store and on one that has none."""

    def ask(self, channel, word, target, count):
        return channel.ask(target, word, *("a", "b", "c", "d")[:count])

    def assert_refusals(self, channel):
        refused = [combination for combination in COMBINATIONS if not is_accepted(*combination)]
        self.assertEqual(len(refused), 334)
        for word, target, count in refused:
            text = f"Bad format for command. Incorrect arguments received for: {word}"
            self.assertEqual(self.ask(channel, word, target, count), (4, text), (word, target, count))
        logged = [line for line in self.device.log_lines() if line[1].endswith("received for: createcrt")]
        self.assertEqual(len(logged), sum(1 for word, _, _ in refused if word == "createcrt"))
        self.assertEqual(set(logged), {(ERR, "std::exception caught while creating command structure for service 'web' "
                                             "Bad format for command. Incorrect arguments received for: createcrt")})

    def test_with_every_store(self):
        self.device.service("web", ca="yes", trustedClients="yes")
        self.device.start()
        channel = self.device.channel("web")
        self.assert_refusals(channel)
        for word, target, count in COMBINATIONS:
            if is_accepted(word, target, count) and word not in EXECUTED[target]:
                self.assertEqual(self.ask(channel, word, target, count), (4, BAD_COMMAND[target]),
                                 (word, target, count))
        self.assert_executed(channel)
        self.assert_whole_store("web")

    def assert_executed(self, channel):
        failure = "Daemon exception during user request process for service 'web': "
        expected = {
            ("status", "config", 0): (0, "running"),
            ("reload", "config", 0): (0, "Reload Successful"),
            ("applycrt", "server", 1): (1, failure + "Certificate a doesn't exit."),
            ("revoke", "server", 0): (0, ""),
            ("add", "ca", 1): (1, failure + "Certificate does not exist for a"),
            ("add", "client", 1): (1, failure + "Certificate does not exist for a"),
        }
        for word, target, count in COMBINATIONS:
            if not is_accepted(word, target, count) or word not in EXECUTED[target]:
                continue
            answer = self.ask(channel, word, target, count)
            if word == "createcsr" or word == "revoke":
                self.assertEqual(answer, (0, ""), (word, target, count))
            elif word in ("getcertinfo", "getcsrinfo"):
                # No such certificate, whatever the argument; none at all without one; no request after a reload.
                self.assertEqual(answer[0], 1, (word, target, count, answer))
                self.assertTrue(answer[1].startswith(failure), answer)
                self.assertGreater(len(answer[1]), len(failure) + 10)
            else:
                self.assertEqual(answer, expected[word, target, count], (word, target, count))

    def test_without_any_store(self):
        self.device.service("web", server=None)
        self.device.start()
        channel = self.device.channel("web")
        for word, target, count in COMBINATIONS:
            if is_accepted(word, target, count) and target != "config":
                self.assertEqual(self.ask(channel, word, target, count), (7, MISSING[target]), (word, target, count))
        self.assert_logged_text(MISSING["server"])
        self.assertEqual(self.ask(channel, "help", "config", 0), (4, "Bad Command config"))
        self.assertEqual(self.ask(channel, "status", "config", 0), (0, "running"))

    def assert_logged_text(self, text):
        self.assertIn(text, [found for _, found in self.device.log_lines()])

    def test_a_bad_command_of_the_server_is_logged(self):
        self.device.service("web")
        self.device.start()
        self.assertEqual(self.device.channel("web").ask("server", "getcert"), (4, "Bad Command server"))
        self.assert_logged_text("Bad command server for service: web")


class Lines(Case):
    """Lines that are no command."""

    def setUp(self):
        super().setUp()
        self.device.service("web")
        self.device.start()
        self.channel = self.device.channel("web")

    def assert_refused(self, line, text):
        self.assertEqual(self.channel.request(line), (4, text))
        self.assert_logged(ERR, f"std::exception caught while creating command structure for service 'web' {text}")

    def test_too_few_fields(self):
        for line in ("status", "a\tb", "a\tb\tconfig", "\n"):
            self.assert_refused(line, "Bad format for command.")

    def test_an_unknown_target_is_answered_with_the_short_text(self):
        for target in ("Server", "", "servers", "config ", "none"):
            self.assert_refused(f"a\tb\t{target}\tstatus", "format for command. Invalid target received: ")

    def test_an_unknown_word(self):
        for word in ("Status", "", "status ", "quit"):
            self.assert_refused(f"a\tb\tconfig\t{word}",
                                "Bad format for command. Incorrect arguments received for: " + word)

    def test_a_line_feed_belongs_to_the_last_field(self):
        self.assert_refused("a\tb\tconfig\tstatus\n",
                            "Bad format for command. Incorrect arguments received for: status\n")

    def test_a_tab_at_the_end_makes_an_empty_argument(self):
        self.assert_refused("a\tb\tconfig\tstatus\t",
                            "Bad format for command. Incorrect arguments received for: status")

    def test_the_header_fields_do_not_matter(self):
        for header in ("\t", "x\ty", "\0\t\xff", "web\tweb"):
            self.assertEqual(self.channel.request(header + "\tconfig\tstatus"), (0, "running"))


class Execution(Case):
    def setUp(self):
        super().setUp()
        self.device.service("web", ca="yes", trustedClients="yes")
        self.device.start()
        self.channel = self.device.channel("web")

    def test_createcsr_makes_a_request_that_getcsrinfo_describes(self):
        self.assertEqual(self.channel.ask("server", "createcsr", "x", "y"), (0, ""))
        csr = certificates.load_request(self.device.read(f"{KEYWARD}/web/server/.cacheddata/csr.csr"))
        key = certificates.load_key(self.device.read(f"{PIPES}/web/server/csr.key"))
        self.assertEqual(certificates.public_bytes(csr), certificates.public_bytes(key))
        code, text = self.channel.ask("server", "getcsrinfo")
        self.assertEqual(code, 0)
        self.assertIn("device.test", text)
        texts = [text for _, text in self.device.log_lines()]
        self.assertIn("CSR creation request received for service: web with nb parameters: 2", texts)
        self.assertIn("CSR creation request processed for service: web", texts)

    def test_getcsrinfo_without_a_request_fails(self):
        code, text = self.channel.ask("server", "getcsrinfo")
        self.assertEqual(code, 1)
        self.assertTrue(text.startswith("Daemon exception during user request process for service 'web': Std exception "
                                        "caught while getting server csr data for service 'web' "), text)
        self.assert_logged(ERR, text, count=1)

    def test_a_pending_request_does_not_survive_a_restart(self):
        self.assertEqual(self.channel.ask("server", "createcsr"), (0, ""))
        self.device.stop()
        self.device.start()
        self.assertFalse(self.device.exists(f"{KEYWARD}/web/server/.cacheddata/csr.csr"))
        self.assertEqual(self.channel.ask("server", "getcsrinfo")[0], 1)

    def test_getcertinfo_describes_a_file_of_the_server_and_an_id_of_a_store(self):
        pki = certificates.Pki()
        self.device.write(f"{WORK}/ca.pem", pki.pem())
        path = f"{KEYWARD}/web/server/{self.device.active('web')}"
        code, text = self.channel.ask("server", "getcertinfo", path)
        self.assertEqual(code, 0)
        self.assertIn("device.test", text)
        code, identifier = self.channel.ask("ca", "add", f"{WORK}/ca.pem")
        self.assertEqual(code, 0)
        code, text = self.channel.ask("ca", "getcertinfo", identifier)
        self.assertEqual(code, 0)
        begin = certificates.seconds(pki.certificate.not_valid_before)
        end = certificates.seconds(pki.certificate.not_valid_after)
        self.assertEqual(text, f"issuerName: Outside CA\nsubjectName: Outside CA\nCA: yes\nCASigned: no\n"
                               f"selfSigned: yes\nvalidFrom: {begin}\nvalidUntil: {end}\n")

    def test_getcertinfo_refuses_what_is_no_file_and_what_is_no_id(self):
        for target, argument in (("server", "/dev/zero"), ("server", WORK), ("server", f"{PIPES}/web/web.in"),
                                 ("server", ""), ("ca", f"{KEYWARD}/web/server/{self.device.active('web')}"),
                                 ("ca", "../server/x"), ("client", "/etc/passwd"), ("client", "00000000.0")):
            with self.subTest(target=target, argument=argument):
                code, text = self.channel.ask(target, "getcertinfo", argument)
                self.assertEqual(code, 1)
                self.assertNotIn("keyuser", text)

    def test_revoke_makes_a_new_server_certificate(self):
        first, before = self.assert_whole_store("web"), len(self.device.log_lines())
        self.assertEqual(self.channel.ask("server", "revoke"), (0, ""))
        self.assertNotEqual(self.assert_whole_store("web").serial_number, first.serial_number)
        texts = [text for _, text in self.device.log_lines()[before:]]
        self.assertEqual(texts, [
            "Create and Apply SelfSigned certificate for service 'web' as the old one is revoked.",
            "The service web is creating a server selfsigned certificate...",
            f"New certificate with id '{self.device.active('web')}' for service 'web' has been installed. "
            "Calling the callback script...",
            "The service web is stopping its timer...", "The service web stopped its timer.",
            "The service web is starting his timer...", "The service web started his timer.",
            "Revoke request processed for service: web"])

    def test_the_stores_refuse_what_they_may_not_take(self):
        failure = "Daemon exception during user request process for service 'web': "
        pki = certificates.Pki()
        self.device.write(f"{WORK}/ca.pem", pki.pem())
        self.device.write(f"{WORK}/leaf.pem", pki.leaf("leaf"))
        self.assertEqual(self.channel.ask("ca", "add", f"{WORK}/leaf.pem"),
                         (9, failure + "No valid certificate found."))
        self.assertEqual(self.channel.ask("ca", "add", f"{WORK}/ca.pem")[0], 0)
        code, text = self.channel.ask("ca", "add", f"{WORK}/ca.pem")
        self.assertEqual(code, 43)
        self.assertTrue(text.startswith(failure))
        self.assert_logged(ERR, text, count=1)


class RevokeWithoutGeneration(Case):
    def test_the_files_go_and_a_restart_brings_the_service_up_again(self):
        device = self.device
        device.service("web")
        device.start()
        device.stop()
        device.service("web", selfSignedGeneration=None)
        device.start()
        active = device.active("web")
        self.assertEqual(device.channel("web").ask("server", "revoke"), (0, ""))
        self.assertIn("Certificate for service 'web' can not be generated as signed type is disabled.",
                      [text for _, text in device.log_lines()])
        self.assertEqual(device.listing(f"{KEYWARD}/web/server"), [".cacheddata", ".cacheddata/active.txt"])
        self.assertEqual(device.active("web"), active)
        self.assertEqual(device.stop(), 10)
        device.start()
        self.assertEqual(device.channel("web").ask("config", "status"), (0, "running"))


if __name__ == "__main__":
    main()
