"""Every type of key, read by the programs of other people: self-signed, requested, signed by an authority of every type,
and served."""

import subprocess

from cryptography import x509
from cryptography.hazmat.primitives.asymmetric import ec, ed25519, rsa

from kwtest import Case, certificates, main
from kwtest.device import KEYWARD, PIPES, WORK
from kwtest.outside_pki import ToolFailed, run
from kwtest.syslog import ERR
from kwtest.webserver import WebServer

# The other library's class and size, what certtool calls key and signature, and what the records say.
TYPES = {
    "PRIME256V1": (ec.EllipticCurvePublicKey, 256, "EC/ECDSA", "ECDSA-SHA256", "ecc", "ecdsa-with-SHA256"),
    "SECP384R1": (ec.EllipticCurvePublicKey, 384, "EC/ECDSA", "ECDSA-SHA256", "ecc", "ecdsa-with-SHA256"),
    "ED25519": (ed25519.Ed25519PublicKey, 256, "EdDSA (Ed25519)", "EdDSA-Ed25519", "ed25519", "ED25519"),
    "RSA2048": (rsa.RSAPublicKey, 2048, "RSA", "RSA-SHA256", "rsa", "sha256WithRSAEncryption"),
}
NEW = ("SECP384R1", "ED25519")
LEAF = {"keyUsage": "critical,digitalSignature", "extendedKeyUsage": "serverAuth", "subjectKeyIdentifier": "hash"}
AUTHORITY = {"CN": "Local CA", "basicConstraints": "critical,CA:TRUE", "keyUsage": "critical,keyCertSign,cRLSign",
             "subjectKeyIdentifier": "hash"}


def is_authority(certificate):
    return certificate.extensions.get_extension_for_class(x509.BasicConstraints).value.ca


class KeyTypes(Case):
    def settings(self, name, key_type, **changes):
        return self.device.request_settings(f"/etc/keywarden/{name}.cnf", CONFIG_KEY=key_type, **changes)

    def certificate_path(self, service):
        return self.device.host(f"{KEYWARD}/{service}/server/{self.device.active(service)}")

    def assert_kind(self, holder, key_type):
        kind, bits = TYPES[key_type][:2]
        key = holder.public_key()
        self.assertIsInstance(key, kind)
        if key_type != "ED25519":
            self.assertEqual(key.key_size, bits)

    def assert_read_by_gnutls(self, text, key_type, signer):
        """What certtool prints of a certificate or a request."""
        self.assertIn(f"Subject Public Key Algorithm: {TYPES[key_type][2]}\n", text)
        self.assertIn(f"Signature Algorithm: {TYPES[signer][3]}\n", text)

    def assert_accepted(self, service, key_type, authority, authority_type):
        """The certificate of the service, by three libraries, as one of the authority."""
        leaf, root = self.assert_whole_store(service), self.certificate(authority)
        self.assert_kind(leaf, key_type)
        self.assertTrue(certificates.is_signed_by(leaf, root))
        path, root_path = self.certificate_path(service), self.certificate_path(authority)
        run("openssl", "verify", "-check_ss_sig", "-CAfile", root_path, path)
        # It takes nobody's word but a CA's, not even a certificate's that was put among the CAs.
        if is_authority(root):
            run("certtool", "--verify", "--load-ca-certificate", root_path, "--infile", path)
        self.assert_read_by_gnutls(run("certtool", "--certificate-info", "--infile", path).decode(),
                                   key_type, authority_type)

    def assert_served(self, service, authority, name):
        """nginx serves it, and `openssl s_client`, which trusts the authority only, accepts the server as `name`."""
        path = self.certificate_path(service)
        with WebServer(path, path + ".key") as server:
            self.assertEqual(server.get(self.certificate_path(authority), name)[0], 200)
            self.assertIn("Verify return code: 0 (ok)", self.talk(server, authority, name))
            with self.assertRaisesRegex(ToolFailed, "(?i)hostname mismatch"):
                self.talk(server, authority, "other.test")

    def talk(self, server, authority, name):
        return run("openssl", "s_client", "-unix", f"{server.folder}/socket", "-CAfile",
                   self.certificate_path(authority), "-verify_hostname", name, "-verify_return_error",
                   stdin=b"").decode()

    def test_self_signed_ones_are_accepted_and_served(self):
        for key_type in TYPES:
            name = key_type.lower()
            self.device.service(name, cnfFile=self.settings(name, key_type, **LEAF), includeFQDN="yes")
        self.device.start()
        for key_type in TYPES:
            with self.subTest(key_type):
                self.assert_accepted(key_type.lower(), key_type, key_type.lower(), key_type)
                self.assert_served(key_type.lower(), key_type.lower(), "unit42.test")

    def assert_signs_for_each(self, authority_type):
        self.device.service("pkiroot", cnfFile=self.settings("pkiroot", authority_type, **AUTHORITY))
        for key_type in TYPES:
            name = key_type.lower()
            self.device.service(name, cnfFile=self.settings(name, key_type, **LEAF), selfSignedGeneration=None,
                                CASignedGeneration="yes", CAServiceId="pkiroot", includeFQDN="yes")
        self.device.start()
        self.assert_accepted("pkiroot", authority_type, "pkiroot", authority_type)
        for key_type in TYPES:
            with self.subTest(key_type):
                self.assert_accepted(key_type.lower(), key_type, "pkiroot", authority_type)
                self.assert_served(key_type.lower(), "pkiroot", "unit42.test")

    def test_a_p256_authority_signs_for_each(self):
        self.assert_signs_for_each("PRIME256V1")

    def test_a_p384_authority_signs_for_each(self):
        self.assert_signs_for_each("SECP384R1")

    def test_an_ed25519_authority_signs_for_each(self):
        self.assert_signs_for_each("ED25519")

    def test_an_rsa_authority_signs_for_each(self):
        self.assert_signs_for_each("RSA2048")

    def test_a_request_of_each_is_read_signed_and_applied(self):
        pki = certificates.Pki()
        for key_type in NEW:
            name = key_type.lower()
            self.device.service(name, cnfFile=self.settings(name, key_type, **LEAF), includeFQDN="yes")
        self.device.start()
        for key_type in NEW:
            with self.subTest(key_type):
                self.assert_request_goes_round(pki, key_type)

    def assert_request_goes_round(self, pki, key_type):
        service, (_, bits, _, _, described, signature) = key_type.lower(), TYPES[key_type]
        channel = self.device.channel(service)
        self.assertEqual(channel.ask("server", "createcsr"), (0, ""))
        path = f"{KEYWARD}/{service}/server/.cacheddata/csr.csr"
        pem = self.device.read(path)
        asked = certificates.load_request(pem)
        self.assert_kind(asked, key_type)
        verified = subprocess.run(["openssl", "req", "-noout", "-verify", "-in", self.device.host(path)],
                                  capture_output=True, check=True, timeout=60)
        self.assertIn(b"verify OK", verified.stdout + verified.stderr)
        self.assert_read_by_gnutls(run("certtool", "--crq-info", "--infile", self.device.host(path)).decode(),
                                   key_type, key_type)
        text = channel.ask("server", "getcsrinfo")[1]
        self.assertIn(f"public_key_size_bits {bits}\ncsr_version 3\npublic_key_type {described}\n"
                      f"signatureAlgorithm_type {signature}\n", text)

        key = self.device.read(f"{PIPES}/{service}/server/csr.key")
        signed = pki.sign(pem)
        self.device.write(f"{WORK}/{service}.pem", signed)
        self.assertEqual(channel.ask("server", "applycrt", f"{WORK}/{service}.pem"), (0, ""))
        self.assertEqual(self.assert_whole_store(service), certificates.load(signed))
        self.assertTrue(self.device.read(f"{KEYWARD}/{service}/server/{self.device.active(service)}.key") == key)
        text = channel.ask("server", "getcertinfo", f"{WORK}/{service}.pem")[1]
        self.assertIn(f"public_key_size_bits {bits}\n", text)
        self.assertIn(f"\npublic_key_type {described}\n", text)

    def test_an_authority_of_each_is_trusted_and_described(self):
        """Each in the trust store of another service."""
        for key_type in NEW:
            self.device.service(key_type.lower(), cnfFile=self.settings(key_type.lower(), key_type, **AUTHORITY))
        self.device.service("web", ca="yes", trustedClients="yes")
        self.device.start()
        channel = self.device.channel("web")
        for key_type in NEW:
            name = key_type.lower()
            path = f"{KEYWARD}/{name}/server/{self.device.active(name)}"
            code, added = channel.ask("ca", "add", path)
            self.assertEqual(code, 0, added)
            code, text = channel.ask("ca", "getcertinfo", added)
            self.assertEqual(code, 0, text)
            self.assertIn("CA: yes\nCASigned: no\nselfSigned: yes\n", text)
            described = channel.ask("server", "getcertinfo", path)[1]
            self.assertIn(f"\npublic_key_type {TYPES[key_type][4]}\n", described)
            self.assertIn(f"\nsignatureAlgorithm_type {TYPES[key_type][5]}\n", described)

    def test_a_type_that_cannot_be_made_is_refused_as_ever(self):
        for number, unknown in enumerate(("SECP521R1", "ed25519", "ED448")):
            self.device.service(f"s{number}", cnfFile=self.settings(f"s{number}", unknown))
        self.device.start()
        for number in range(3):
            self.assertEqual(self.device.active(f"s{number}"), "")
            self.assert_logged_like(ERR, f".*Failed creating X509 Certificate for service 's{number}' "
                                         r"Unsupported key format\..*")


if __name__ == "__main__":
    main()
