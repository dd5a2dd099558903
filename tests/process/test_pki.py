"""Certificates of an outside PKI: applied through the channel, or refused with the store left as it was."""

from kwtest import Case, certificates, main
from kwtest.device import KEYWARD, PIPES, WORK
from kwtest.syslog import ERR, INFO

CSR = f"{KEYWARD}/web/server/.cacheddata/csr.csr"
FAILURE = "Daemon exception during user request process for service 'web': "


class Apply(Case):
    def setUp(self):
        super().setUp()
        self.device.service("web", includeFQDN="yes")
        self.device.start()
        self.channel = self.device.channel("web")
        self.pki = certificates.Pki()

    def request(self):
        self.assertEqual(self.channel.ask("server", "createcsr"), (0, ""))
        return self.device.read(CSR)

    def apply(self, pem, path=f"{WORK}/new.pem"):
        self.device.write(path, pem)
        return self.channel.ask("server", "applycrt", path)

    def test_a_signed_request_is_installed_with_its_own_key(self):
        pem = self.pki.sign(self.request())
        key = self.device.read(f"{PIPES}/web/server/csr.key")
        told = len(self.device.calls())
        self.assertEqual(self.apply(pem), (0, ""))
        self.assertEqual(self.assert_whole_store("web"), certificates.load(pem))
        stored = self.device.read(f"{KEYWARD}/web/server/{self.device.active('web')}.key")
        self.assertEqual(stored, key)
        self.assertEqual(self.device.calls()[told:], [("web", "server", "new", self.device.active("web"))])
        texts = [text for _, text in self.device.log_lines()]
        self.assertIn("Apply CRT request received for service: web", texts)
        self.assert_in_order([
            (INFO, "The service web is stopping its timer..."), (INFO, "The service web stopped its timer."),
            (INFO, "The service web is starting his timer..."), (INFO, "The service web started his timer.")])

    def test_it_stays_over_a_restart_and_a_revocation_makes_our_own(self):
        pem = self.pki.sign(self.request())
        self.assertEqual(self.apply(pem), (0, ""))
        self.device.stop()
        self.device.start()
        self.assertEqual(self.assert_whole_store("web"), certificates.load(pem))
        self.assertEqual(self.channel.ask("server", "revoke"), (0, ""))
        self.assertNotEqual(self.assert_whole_store("web"), certificates.load(pem))

    def test_the_network_at_the_time_of_the_request_is_recorded(self):
        request = self.request()
        self.device.network({"fqdn.0": "later.test"})
        self.assertEqual(self.apply(self.pki.sign(request)), (0, ""))
        path = f"{KEYWARD}/web/server/.cacheddata/{self.device.active('web')}.network"
        self.assertEqual(self.device.read(path), b"HOSTNAME.1 unit42.test\n")

    def assert_refused(self, answer, code, text, pending=True):
        """Refused with this text, and the active certificate as before."""
        self.assertEqual(answer, (code, FAILURE + text))
        self.assert_logged(ERR, FAILURE + text)
        self.assertEqual(self.device.exists(CSR), pending)

    def test_refusals_leave_the_certificate_and_the_request(self):
        before = self.certificate("web")
        request = self.request()
        self.assert_refused(self.channel.ask("server", "applycrt", ""), 1, "Certificate path is empty.")
        self.assert_refused(self.channel.ask("server", "applycrt", "/none"), 1, "Certificate /none doesn't exit.")
        self.assert_refused(self.apply(self.pki.sign(request, days=1, start=self.device.now() - 30 * 86400)), 1,
                            "End date of Certificate you are trying to apply is beyond the current system")
        self.assert_refused(self.apply(self.pki.leaf("device.test")), 26, "Error in validating csr and crt")
        self.assertEqual(self.certificate("web"), before)
        self.assertEqual(self.apply(self.pki.sign(request)), (0, ""))

    def test_a_file_that_is_no_certificate_is_refused_with_9(self):
        self.request()
        for content in (b"", b"not a certificate\n", bytes(range(256)) * 64,
                        b"-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n"):
            code, text = self.apply(content)
            self.assertEqual(code, 9, text)
            self.assertTrue(text.startswith(
                FAILURE + "Certificate reading failed during applyCrt operation for service 'web'"), text)
            self.assertTrue(self.device.exists(CSR))
        self.assertEqual(self.channel.ask("config", "status"), (0, "running"))

    def test_without_a_request_it_is_refused_with_21(self):
        code, text = self.apply(self.pki.leaf("device.test"))
        self.assertEqual(code, 21, text)
        self.assertTrue(text.startswith(FAILURE + "Not able to create the CSR for service 'web' "), text)

    def test_a_broken_request_is_refused_with_21_and_removed(self):
        request = self.request()
        self.device.write(CSR, "broken")
        code, _ = self.apply(self.pki.sign(request))
        self.assertEqual(code, 21)
        for path in (CSR, f"{PIPES}/web/server/csr.key", f"{PIPES}/web/server/csr.network"):
            self.assertFalse(self.device.exists(path), path)


if __name__ == "__main__":
    main()
