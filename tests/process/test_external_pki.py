"""Requests of the running daemon, signed by tools of other people, applied, and served to a client that trusts that
authority only; and everything that is not the certificate asked for."""

import hashlib
import os
import ssl
import tempfile

from kwtest import Case, certificates, main
from kwtest.device import KEYWARD, PIPES, WORK
from kwtest.outside_pki import Certtool, Cfssl, OpensslCa, run
from kwtest.syslog import ERR
from kwtest.webserver import WebServer

STORE, VOLATILE = f"{KEYWARD}/web/server", f"{PIPES}/web/server"
CSR, KEY, NETWORK = f"{STORE}/.cacheddata/csr.csr", f"{VOLATILE}/csr.key", f"{VOLATILE}/csr.network"
FAILURE = "Daemon exception during user request process for service 'web': "
READING = "Certificate reading failed during applyCrt operation for service 'web' "
NO_REQUEST = f"Failed allocate memory for BIO buffer during loading csr file: {CSR}"
NAMES = [("DNS", "unit42.test"), ("DNS", "10.0.0.5"), ("IP", "10.0.0.5")]
WITHOUT_ADDRESSES = NAMES[:1]


class External(Case):
    def setUp(self):
        super().setUp()
        self.device.request_settings("/etc/keywarden/service.cnf", subjectKeyIdentifier="hash",
                                     keyUsage="critical,digitalSignature", extendedKeyUsage="serverAuth")
        self.device.service("web", includeFQDN="yes", **{"networkInterface.0": "eth0", "includeIPv4.0": "yes"})
        self.device.start()
        self.channel = self.device.channel("web")

    def authority(self, tool):
        folder = tempfile.TemporaryDirectory(prefix="kwpki")
        self.addCleanup(folder.cleanup)
        os.chmod(folder.name, 0o755)
        return tool(folder.name)

    def request(self, *options):
        self.assertEqual(self.channel.ask("server", "createcsr", *options), (0, ""))
        return self.device.read(CSR)

    def apply(self, content, path=f"{WORK}/new.pem"):
        self.device.write(path, content)
        return self.channel.ask("server", "applycrt", path)

    def certificate_path(self):
        return self.device.host(f"{STORE}/{self.device.active('web')}")

    def state(self):
        """Every file of the store: its rights, digest and inode, so that a file rewritten as it was counts too."""
        found = {}
        for path in [f"{folder}/{name}" for folder in (STORE, VOLATILE) for name in self.device.listing(folder)]:
            found[path] = self.device.rights(path)
            if not os.path.isdir(self.device.host(path)):
                info = os.lstat(self.device.host(path))
                # A digest: a failed comparison is printed, and some of these are keys.
                digest = hashlib.sha256(self.device.read(path)).hexdigest()
                found[path] += (digest, info.st_ino, info.st_mtime_ns)
        return found


class Signed(External):
    def assert_full_circle(self, authority, names, *options, served=None):
        """From request to a client that is served. `served` makes the server's own chain file of the store's."""
        request = self.request(*options)
        key = self.device.read(KEY)
        asked = certificates.load_request(request)
        self.assertEqual(certificates.alternative_names(asked), names)
        pem = authority.sign(request)
        signed = certificates.load(pem)
        self.assertEqual(certificates.public_bytes(signed), certificates.public_bytes(asked))
        self.assertEqual(certificates.alternative_names(signed), names)
        told = len(self.device.calls())
        self.assertEqual(self.apply(pem), (0, ""))
        self.assertEqual(self.device.calls()[told:], [("web", "server", "new", self.device.active("web"))])
        self.assertEqual(self.assert_whole_store("web", "device.test"), signed)
        self.assertTrue(self.device.read(f"{STORE}/{self.device.active('web')}.key") == key, "not the request's key")
        self.assertEqual(self.device.rights(f"{STORE}/{self.device.active('web')}.key"),
                         ("-", 0o640, "keyuser", "kwkey"))
        self.assert_served(authority, signed, names, served)

    def assert_served(self, authority, signed, names, served):
        path = self.certificate_path()
        with WebServer(served(path) if served else path, path + ".key") as server:
            for kind, name in names:
                # An address is looked for among the addresses only.
                if kind == "DNS" and ("IP", name) not in names:
                    status, _, shown = server.get(authority.ca_file, name)
                    self.assertEqual((status, certificates.load_der(shown)), (200, signed))
            if ("IP", "10.0.0.5") in names:
                self.assertEqual(server.get(authority.ca_file, "10.0.0.5")[0], 200)
            else:
                with self.assertRaises(ssl.SSLCertVerificationError):
                    server.get(authority.ca_file, "10.0.0.5")
            with self.assertRaises(ssl.SSLCertVerificationError):
                server.get(authority.ca_file, "other.test")

    def test_by_openssl_ca_with_its_policy(self):
        authority = self.authority(OpensslCa)
        self.assert_full_circle(authority, NAMES)
        self.assert_full_circle(authority, WITHOUT_ADDRESSES, "CA-CB_compliant")

    def test_by_certtool(self):
        authority = self.authority(Certtool)
        self.assert_full_circle(authority, NAMES)
        self.assert_full_circle(authority, WITHOUT_ADDRESSES, "x", "CA-CB_compliant")

    def test_by_cfssl_through_an_intermediate_authority(self):
        authority = self.authority(Cfssl)

        def with_intermediate(path):
            with open(path, "rb") as leaf:
                return authority.write("served.pem", leaf.read() + authority.intermediate)
        self.assert_full_circle(authority, NAMES, served=with_intermediate)
        self.assert_full_circle(authority, WITHOUT_ADDRESSES, "CA-CB_compliant", served=with_intermediate)

    def test_nobody_else_is_trusted_and_nobody_else_may_read_the_key(self):
        authority = self.authority(OpensslCa)
        self.assertEqual(self.apply(authority.sign(self.request())), (0, ""))
        path = self.certificate_path()
        other = self.authority(Certtool)
        with WebServer(path, path + ".key") as server, self.assertRaises(ssl.SSLCertVerificationError):
            server.get(other.ca_file, "unit42.test")
        # The web server gets at the key as a member of the key group, not because everybody may.
        os.chown(self.device.host(f"{STORE}/{self.device.active('web')}.key"), -1, 4251)
        with self.assertRaisesRegex(AssertionError, "(?s)nginx did not start.*Permission denied"):
            WebServer(path, path + ".key").__enter__()

    def test_of_a_chain_file_the_leaf_is_installed_and_nothing_else(self):
        authority = self.authority(Cfssl)
        leaf = authority.sign(self.request())
        self.assertEqual(self.apply(leaf + authority.intermediate + authority.read("ca.pem")), (0, ""))
        self.assertEqual(self.assert_whole_store("web"), certificates.load(leaf))
        path = self.certificate_path()
        with open(path, "rb") as stored:
            self.assertEqual(stored.read().count(b"BEGIN CERTIFICATE"), 1)
        # So a server that shows the file as it stands does not reach clients that know the root only.
        with WebServer(path, path + ".key") as server:
            with self.assertRaises(ssl.SSLCertVerificationError):
                server.get(authority.ca_file, "unit42.test")
            both = authority.write("both.pem", authority.read("ca.pem") + authority.intermediate)
            self.assertEqual(server.get(both, "unit42.test")[0], 200)

    def test_text_before_the_pem_block_does_not_matter(self):
        leaf = self.authority(OpensslCa).sign(self.request())
        self.assertEqual(self.apply(b"Issued for you.\r\n\r\n" + leaf.replace(b"\n", b"\r\n")), (0, ""))
        self.assertEqual(self.assert_whole_store("web"), certificates.load(leaf))


class Descriptions(External):
    """The texts, each value taken from another library's reading of the same file."""

    ENDING = ("basicConstraints|short_name CA:FALSE|long_name CA:FALSE|comment ",
              "keyUsage|short_name Digital Signature|long_name Digital Signature|comment ",
              "extendedKeyUsage|short_name TLS Web Server Authentication|long_name TLS Web Server Authentication|"
              "comment ",
              "subjectAltName|short_name DNS:unit42.test, DNS:10.0.0.5, IP Address:10.0.0.5|long_name "
              "DNS:unit42.test, DNS:10.0.0.5, IP Address:10.0.0.5|comment ")
    JOINED = "DNS.1:unit42.test, DNS.2:10.0.0.5, IP.1:10.0.0.5"
    SUBJECT = "subject_name C=DE, ST=BY, L=Hof, O=Acme, OU=Ops, CN=device.test"

    def extensions(self, *own):
        lines = (f"subjectAltName|short_name {self.JOINED}|long_name {self.JOINED}|comment ", *own, *self.ENDING)
        return [f"v3Extention{number} obj_id {line}" for number, line in enumerate(lines)]

    def key_identifier(self, name, holder, extension):
        value = holder.extensions.get_extension_for_class(extension).value
        digest = getattr(value, "digest", None) or value.key_identifier
        shown = ":".join(f"{byte:02X}" for byte in digest)
        return f"{name}|short_name {shown}|long_name {shown}|comment "

    def test_getcsrinfo(self):
        asked = certificates.load_request(self.request())
        own = self.key_identifier("subjectKeyIdentifier", asked, certificates.x509.SubjectKeyIdentifier)
        self.assertEqual(self.channel.ask("server", "getcsrinfo"), (0, "\n".join([
            self.SUBJECT, "public_key_size_bits 256", "csr_version 3", "public_key_type ecc",
            "signatureAlgorithm_type ecdsa-with-SHA256", *self.extensions(own), ""])))

    def test_getcertinfo(self):
        pem = self.authority(OpensslCa).sign(self.request())
        self.assertEqual(self.apply(pem), (0, ""))
        signed = certificates.load(pem)
        issuer = self.key_identifier("authorityKeyIdentifier", signed, certificates.x509.AuthorityKeyIdentifier)
        own = self.key_identifier("subjectKeyIdentifier", signed, certificates.x509.SubjectKeyIdentifier)
        expected = "\n".join([
            "public_key_size_bits 256", f"cert_serial {signed.serial_number:02X}", "validity_days 365",
            "cert_version 3", "signatureAlgorithm_type ecdsa-with-SHA256", "public_key_type ecc",
            f"validNotBeforeDate {certificates.seconds(signed.not_valid_before)}",
            f"validNotAfterDate {certificates.seconds(signed.not_valid_after)}", "public_key ",
            self.SUBJECT, "issuer_name C=DE, O=Outside, CN=OpenSSL root", *self.extensions(issuer, own), ""])
        for path in (f"{WORK}/new.pem", f"{STORE}/{self.device.active('web')}"):
            self.assertEqual(self.channel.ask("server", "getcertinfo", path), (0, expected))


class Refused(External):
    def setUp(self):
        super().setUp()
        self.pki = certificates.Pki()

    def assert_refused(self, answer, code, text):
        self.assertEqual(answer, (code, FAILURE + text))
        self.assert_logged(ERR, FAILURE + text)

    def assert_refused_unchanged(self, code, text, content=None, path=f"{WORK}/new.pem"):
        """Nothing of the store moves, neither the active certificate nor the request, and nobody is told."""
        if content is not None:
            self.device.write(path, content)
        before, told = self.state(), self.device.calls()
        self.assert_refused(self.channel.ask("server", "applycrt", path), code, text)
        self.assertEqual(self.state(), before)
        self.assertEqual(self.device.calls(), told)

    def test_paths_that_name_no_readable_file(self):
        request = self.request()
        self.assert_refused_unchanged(1, "Certificate path is empty.", path="")
        self.assert_refused_unchanged(1, "Certificate /none/at/all doesn't exit.", path="/none/at/all")
        irregular = "Impossible to read the file '{}': It is not a regular file"
        os.mkfifo(self.device.host(f"{WORK}/fifo"), 0o666)
        for path in (WORK, f"{WORK}/fifo", "/dev/zero", f"{PIPES}/web/web.in"):
            self.assert_refused_unchanged(9, READING + irregular.format(path), path=path)
        self.device.write(f"{WORK}/secret", b"x", mode=0o600)
        self.assert_refused_unchanged(
            9, READING + f"Impossible to read the file '{WORK}/secret': Permission denied", path=f"{WORK}/secret")
        self.assertEqual(self.apply(self.pki.sign(request)), (0, ""))

    def test_files_that_hold_no_pem_certificate(self):
        request = self.request()
        signed = self.pki.sign(request)
        self.device.write(f"{WORK}/new.pem", signed)
        der = run("openssl", "x509", "-in", self.device.host(f"{WORK}/new.pem"), "-outform", "DER")
        unreadable = READING + f"Failed to read certificate from file: {WORK}/new.pem"
        for content in (b"", b"\n", der, request, signed[:-60], b"no certificate\n"):
            with self.subTest(content=content[:40]):
                self.assert_refused_unchanged(9, unreadable, content)
        self.assert_refused_unchanged(9, READING + f"Impossible to read the file '{WORK}/new.pem': It is larger than "
                                                   "131072 bytes", b" " * 131073)
        self.assertEqual(self.apply(signed), (0, ""))

    def test_certificates_for_another_key(self):
        mismatch = "Error in validating csr and crt"
        older = self.request()
        request = self.request()
        self.assertNotEqual(older, request)
        authority = self.authority(Cfssl)
        for content in (self.pki.leaf("device.test"), self.pki.sign(older), authority.sign(older),
                        # Of a chain in the wrong order the first certificate counts.
                        authority.intermediate + authority.sign(request),
                        self.device.read(f"{STORE}/{self.device.active('web')}")):
            self.assert_refused_unchanged(26, mismatch, content)
        self.assertEqual(self.apply(self.pki.sign(request)), (0, ""))

    def test_an_expired_certificate(self):
        request = self.request()
        expired = self.pki.sign(request, days=1, start=int(self.device.now()) - 30 * 86400)
        self.assert_refused_unchanged(
            1, "End date of Certificate you are trying to apply is beyond the current system", expired)
        self.assertEqual(self.apply(self.pki.sign(request)), (0, ""))

    def test_without_a_readable_request_or_its_key_the_rest_of_it_is_removed(self):
        before = self.state()
        reading = "Not able to create the CSR for service 'web' "
        for gone, reason in ((CSR, NO_REQUEST), (KEY, "Extract of private key from file failed.")):
            signed = self.pki.sign(self.request())
            self.device.remove(gone)
            self.assert_refused(self.apply(signed), 21, reading + reason)
            self.assertEqual(self.state(), before)
        signed = self.pki.sign(self.request())
        with open(self.device.host(CSR), "wb") as broken:
            broken.write(b"broken")
        self.assert_refused(self.apply(signed), 21, f"{reading}Failed to read csr from BIO buffer for file {CSR}")
        self.assertEqual(self.state(), before)
        self.assert_refused(self.apply(self.pki.leaf("device.test")), 21, reading + NO_REQUEST)
        self.assertEqual(self.state(), before)


class Pending(External):
    """The request between its making and its certificate."""

    def test_its_files(self):
        request = self.request()
        self.assertEqual([self.device.rights(path) for path in (CSR, KEY, NETWORK)],
                         [("-", 0o644, "keyuser", "kwmgmt"), ("-", 0o640, "keyuser", "kwkey"),
                          ("-", 0o644, "keyuser", "kwmgmt")])
        self.assertTrue(request.endswith(b"-----END CERTIFICATE REQUEST-----\n\n"))
        self.assertTrue(self.device.read(KEY).endswith(b"-----\n\n"))
        whole = b"HOSTNAME.1 unit42.test\nINTERFACE.1 eth0\neth0.1 10.0.0.5\n"
        self.assertEqual(self.device.read(NETWORK), whole)
        # The identity is recorded whole, also for a request without addresses.
        self.request("CA-CB_compliant")
        self.assertEqual(self.device.read(NETWORK), whole)

    def test_a_second_request_takes_its_place(self):
        first, first_key = self.request(), self.device.read(KEY)
        second = self.request()
        self.assertNotEqual(first, second)
        self.assertFalse(first_key == self.device.read(KEY), "the second request has the key of the first")
        self.assertEqual(certificates.public_bytes(certificates.load_request(second)),
                         certificates.public_bytes(certificates.load_key(self.device.read(KEY))))

    def test_a_request_that_cannot_be_made_takes_the_earlier_one_with_it(self):
        before = self.state()
        self.request()
        self.device.remove("/etc/keywarden/service.cnf")
        text = (FAILURE + "Std exception caught while creating CSR for service 'web' Failed to read configuration "
                          "file-/etc/keywarden/service.cnf")
        self.assertEqual(self.channel.ask("server", "createcsr"), (1, text))
        self.assert_logged(ERR, text, count=1)
        self.assertEqual(self.state(), before)

    def test_a_restart_discards_it_and_keeps_the_certificate(self):
        signed = self.authority(OpensslCa).sign(self.request())
        self.assertEqual(self.apply(signed), (0, ""))
        store = self.device.listing(STORE)
        late = certificates.Pki().sign(self.request())
        self.assertEqual(self.device.stop(), 10)
        self.device.start()
        self.assertEqual(self.assert_whole_store("web"), certificates.load(signed))
        self.assertEqual([name for name in self.device.listing(STORE) if not name.endswith(".overwrite")], store)
        text = f"{FAILURE}Std exception caught while getting server csr data for service 'web' {NO_REQUEST}"
        self.assertEqual(self.channel.ask("server", "getcsrinfo"), (1, text))
        self.assertEqual(self.apply(late)[0], 21)
        self.assertEqual(self.assert_whole_store("web"), certificates.load(signed))

    def test_the_owner_hears_of_certificates_not_of_requests(self):
        told = len(self.device.calls())
        self.request()
        self.channel.ask("server", "getcsrinfo")
        self.assertEqual(self.apply(self.pki_leaf())[0], 26)
        self.assertEqual(self.device.calls()[told:], [])
        self.assertEqual(self.apply(self.authority(Certtool).sign(self.request())), (0, ""))
        self.assertEqual(self.device.stop(), 10)
        self.assertEqual(self.device.calls()[told:], [("web", "server", "new", self.device.active("web")),
                                                      ("web", "stop")])

    def pki_leaf(self):
        return certificates.Pki().leaf("device.test")


if __name__ == "__main__":
    main()
