"""The stores of trusted authorities and clients: what they take, what they refuse, and who else can work with them."""

import os
import tempfile

from kwtest import Case, certificates, main
from kwtest.device import KEYWARD, PIPES, WORK
from kwtest.outside_pki import OpensslCa, ToolFailed, run, subject_hash
from kwtest.syslog import ERR, NOTICE
from kwtest.webserver import WebServer

FAILURE = "Daemon exception during user request process for service 'web': "


def folder(store):
    return f"{KEYWARD}/web/{store}"


class Stores(Case):
    settings = {}

    def setUp(self):
        super().setUp()
        self.service()
        self.device.start()
        self.channel = self.device.channel("web")
        self.told = len(self.device.calls())

    def service(self, **changes):
        self.device.service("web", **{"ca": "yes", "trustedClients": "yes", **self.settings, **changes})

    def add(self, store, content, name="new.pem"):
        self.device.write(f"{WORK}/{name}", content)
        return self.channel.ask(store, "add", f"{WORK}/{name}")

    def added(self, store, content):
        """Adds what must be taken; returns its id."""
        code, identifier = self.add(store, content)
        self.assertEqual(code, 0, identifier)
        self.assertRegex(identifier, r"\A[0-9a-f]{8}\.[0-9]\Z")
        self.assert_stored(store, identifier, content)
        return identifier

    def assert_stored(self, store, identifier, content):
        """Byte for byte, under the hash that OpenSSL computes, and with its records."""
        self.assertEqual(self.device.read(f"{folder(store)}/{identifier}"), content)
        self.assertEqual(self.device.rights(f"{folder(store)}/{identifier}"), ("-", 0o644, "keyuser", "kwmgmt"))
        self.assertEqual(identifier[:8], subject_hash(content))
        for ending in ("info", "detail"):
            self.assertEqual(self.device.rights(f"{PIPES}/web/{store}/{identifier}.{ending}"),
                             ("-", 0o644, "keyuser", "kwmgmt"))

    def assert_refused(self, answer, code, text):
        self.assertEqual(answer, (code, FAILURE + text))
        self.assert_logged(ERR, FAILURE + text)

    def assert_holds(self, store, *entries):
        """Exactly these (id, common name) and every file of theirs, and the two indexes byte for byte."""
        ids = sorted(identifier for identifier, _ in entries)
        self.assertEqual(self.device.listing(folder(store)), sorted([".cacheddata", ".cacheddata/list.txt"] + ids))
        self.assertEqual(self.device.read(f"{folder(store)}/.cacheddata/list.txt").decode(),
                         "".join(identifier + "\n" for identifier in ids))
        self.assertEqual(self.device.read(f"{PIPES}/web/{store}/id_cn.map").decode(),
                         "".join(f"{identifier} {common}\n" for identifier, common in sorted(entries)))
        self.assertEqual(self.device.listing(f"{PIPES}/web/{store}"),
                         sorted([f"{name}.{ending}" for name in ids for ending in ("info", "detail")] + ["id_cn.map"]))

    def assert_told(self, *expected):
        calls = self.device.calls()
        self.assertEqual(calls[self.told:], [("web", *call) for call in expected])
        self.told = len(calls)

    def restart(self):
        self.assertEqual(self.device.stop(), 10)
        self.device.start()
        self.told = len(self.device.calls())


class Additions(Stores):
    def test_of_one_subject_there_is_room_for_ten(self):
        authorities = [certificates.Pki("Same name").pem() for _ in range(11)]
        ids = [self.added("ca", pem) for pem in authorities[:10]]
        self.assertEqual(ids, [f"{subject_hash(authorities[0])}.{suffix}" for suffix in range(10)])
        self.assert_told(*[("ca", "new", identifier) for identifier in ids])
        full = "Reached maximum limit of certificates with same hash."
        self.assert_refused(self.add("ca", authorities[10]), 42, full)
        # Another subject is another row; a gap is filled.
        other = self.added("ca", certificates.Pki("Other name").pem())
        self.assertEqual(self.channel.ask("ca", "revoke", ids[4]), (0, ids[4]))
        self.assertEqual(self.added("ca", authorities[10]), ids[4])
        self.assert_refused(self.add("ca", authorities[4]), 42, full)
        self.assert_told(("ca", "new", other), ("ca", "revoke", ids[4]), ("ca", "new", ids[4]))
        self.assert_holds("ca", (other, "Other name"), *[(identifier, "Same name") for identifier in ids])

    def test_the_same_certificate_is_taken_once(self):
        pki = certificates.Pki()
        first = self.added("ca", pki.pem())
        twin = self.added("ca", certificates.Pki().pem())
        self.assertEqual((first[:8], first[9], twin[9]), (twin[:8], "0", "1"))
        pem, present = pki.pem(), "Certificate already present inside ca for web"
        for again in (pem, pem.replace(b"\n", b"\r\n"), b"Issued by nobody\n\n" + pem, pem + b"\n\n",
                      pem + certificates.Pki("Further").pem()):
            self.assert_refused(self.add("ca", again), 43, present)
        # Each store for itself.
        self.assertEqual(self.added("client", pem), first)
        self.assert_refused(self.add("client", pem), 43, "Certificate already present inside client for web")
        self.assert_holds("ca", (first, "Outside CA"), (twin, "Outside CA"))

    def test_text_and_line_ends_are_stored_as_they_come(self):
        for store, decorate in (("ca", lambda pem: b"Text before, \xff\n" + pem + b"text behind"),
                                ("client", lambda pem: pem.replace(b"\n", b"\r\n"))):
            content = decorate(certificates.Pki().pem())
            identifier = self.added(store, content)
            self.assertEqual(self.add(store, certificates.load(content).public_bytes(
                certificates.serialization.Encoding.PEM))[0], 43)
            self.assert_holds(store, (identifier, "Outside CA"))

    def test_only_an_authority_is_one(self):
        leaf = certificates.Pki().leaf("leaf.test")
        self.assert_refused(self.add("ca", leaf), 9, "No valid certificate found.")
        self.assert_holds("ca")
        self.assert_told()
        self.assert_holds("client", (self.added("client", leaf), "leaf.test"))

    def test_sources_that_are_none(self):
        self.assert_refused(self.channel.ask("ca", "add", f"{WORK}/none"), 1,
                            f"Certificate does not exist for {WORK}/none")
        self.assert_refused(self.channel.ask("client", "add", ""), 1, "Certificate does not exist for ")
        os.mkfifo(self.device.host(f"{WORK}/fifo"), 0o666)
        for path in (WORK, f"{WORK}/fifo", f"{PIPES}/web/web.in"):
            self.assert_refused(self.channel.ask("client", "add", path), 1,
                                f"Impossible to read the file '{path}': It is not a regular file")
        pem, key = certificates.issue(certificates.Pki(), "client")
        der = certificates.load(pem).public_bytes(certificates.serialization.Encoding.DER)
        for content in (b"", der, pem[:-60], b"none\n"):
            for store in ("ca", "client"):
                self.assert_refused(self.add(store, content), 9,
                                    f"Failed to read certificate from file: {WORK}/new.pem")
        self.assert_refused(self.add("client", pem + key), 9, "The certificate file holds a private key.")
        self.assert_holds("ca")
        self.assert_holds("client")
        self.assert_told()


class Limits(Stores):
    settings = {"maximumCA": "2", "maximumTrustedClients": "1"}

    def test_a_full_store_takes_no_more(self):
        first, second = certificates.Pki("One"), certificates.Pki("Two")
        ids = [self.added("ca", pki.pem()) for pki in (first, second)]
        text = "Too many certificates found while adding certificate inside {} for web"
        self.assert_refused(self.add("ca", certificates.Pki("Three").pem()), 42, text.format("ca"))
        # Being full is seen before anything else about the source.
        self.assert_refused(self.add("ca", first.pem()), 42, text.format("ca"))
        self.assert_refused(self.channel.ask("ca", "add", "/none"), 42, text.format("ca"))
        client = self.added("client", first.leaf("a"))
        self.assert_refused(self.add("client", first.leaf("b")), 42, text.format("client"))
        self.assertEqual(self.channel.ask("ca", "revoke", ids[0]), (0, ids[0]))
        third = self.added("ca", certificates.Pki("Three").pem())
        self.assert_holds("ca", (ids[1], "Two"), (third, "Three"))
        self.assert_holds("client", (client, "a"))

    def test_what_is_stored_counts_after_a_restart_too(self):
        for name in ("One", "Two"):
            self.added("ca", certificates.Pki(name).pem())
        self.restart()
        self.assertEqual(self.add("ca", certificates.Pki("Three").pem())[0], 42)

    def test_the_clients_limit_needs_that_of_the_authorities(self):
        self.service(maximumCA=None)
        self.restart()
        for name in ("a", "b", "c"):
            self.added("client", certificates.Pki().leaf(name))


class Unique(Stores):
    settings = {"uniqueCaByCn": "yes"}

    def test_a_later_authority_of_the_same_subject_takes_the_place(self):
        first, second = certificates.Pki("Same name"), certificates.Pki("Same name")
        identifier = self.added("ca", first.pem())
        self.assertEqual(identifier[8:], ".0")
        self.assertEqual(self.added("ca", second.pem()), identifier)
        self.assert_refused(self.add("ca", second.pem()), 43, "Certificate already present inside ca for web")
        self.assertEqual(self.added("ca", first.pem()), identifier)
        self.assert_told(*[("ca", "new", identifier)] * 3)
        self.assert_holds("ca", (identifier, "Same name"))
        begin = certificates.seconds(first.certificate.not_valid_before)
        self.assertIn(f"validFrom: {begin}\n", self.channel.ask("ca", "getcertinfo", identifier)[1])

    def test_the_other_store_has_a_setting_of_its_own(self):
        ids = [self.added("client", certificates.Pki("Same name").pem()) for _ in range(2)]
        self.assertEqual([identifier[8:] for identifier in ids], [".0", ".1"])


class Revocations(Stores):
    def fill(self, *names):
        return {name: self.added("client", certificates.Pki().leaf(name)) for name in names}

    def test_one_several_and_unknown_ones(self):
        ids = self.fill("a", "b", "c", "d")
        self.told = len(self.device.calls())
        revoke = lambda *wanted: self.channel.ask("client", "revoke", *wanted)
        self.assertEqual(revoke(ids["a"]), (0, ids["a"]))
        self.assert_told(("client", "revoke", ids["a"]))
        self.assertEqual(self.channel.ask("client", "getcertinfo", ids["a"]),
                         (1, f"{FAILURE}Certificate '{ids['a']}' doesn't exist inside client for web"))
        # Nothing of these is there; nobody is told.
        before = self.device.listing(folder("client"))
        for unknown in (ids["a"], "00000000.0", "", "../client/" + ids["b"], ids["b"][:8], ".cacheddata/list.txt"):
            self.assertEqual(revoke(unknown), (0, ""))
        self.assertEqual(self.device.listing(folder("client")), before)
        self.assert_told()
        # In ascending order, each once, and only those that were there.
        gone = sorted([ids["b"], ids["d"]])
        self.assertEqual(revoke(gone[1], "00000000.0", gone[0], gone[1]), (0, " ".join(gone)))
        self.assert_told(("client", "revoke", *gone))
        self.assert_holds("client", (ids["c"], "c"))
        self.assertEqual(revoke(ids["c"]), (0, ids["c"]))
        self.assert_holds("client")

    def test_the_other_store_is_left_alone(self):
        pem = certificates.Pki().pem()
        identifier = self.added("ca", pem)
        self.assertEqual(self.added("client", pem), identifier)
        self.assertEqual(self.channel.ask("client", "revoke", identifier), (0, identifier))
        self.assert_holds("ca", (identifier, "Outside CA"))
        self.assert_holds("client")


class Restart(Stores):
    def test_everything_but_the_certificates_is_made_anew(self):
        authorities = {self.added("ca", certificates.Pki(name).pem()): name for name in ("Web Server CA", "Ö", "x")}
        clients = {self.added("client", certificates.Pki().leaf(name)): name for name in ("a", "b")}
        answers = {identifier: self.channel.ask("ca", "getcertinfo", identifier) for identifier in authorities}
        details = {identifier: self.device.read(f"{PIPES}/web/ca/{identifier}.detail") for identifier in authorities}
        self.device.remove(f"{folder('client')}/.cacheddata/list.txt")
        self.restart()
        self.assert_holds("ca", *authorities.items())
        self.assert_holds("client", *clients.items())
        for identifier in authorities:
            self.assertEqual(self.channel.ask("ca", "getcertinfo", identifier), answers[identifier])
            self.assertEqual(self.device.read(f"{PIPES}/web/ca/{identifier}.detail"), details[identifier])
            self.assertEqual(details[identifier], run("openssl", "x509", "-noout", "-text", "-nameopt", "compat",
                                                      stdin=self.device.read(f"{folder('ca')}/{identifier}")))

    def test_what_was_revoked_stays_away(self):
        ids = [self.added("ca", certificates.Pki(name).pem()) for name in ("One", "Two")]
        self.assertEqual(self.channel.ask("ca", "revoke", ids[0]), (0, ids[0]))
        self.restart()
        self.assert_holds("ca", (ids[1], "Two"))
        self.assertEqual(self.channel.ask("ca", "revoke", ids[0]), (0, ""))

    def test_an_id_whose_file_is_gone_leaves_the_indexes(self):
        ids = [self.added("ca", certificates.Pki(name).pem()) for name in ("One", "Two")]
        self.device.remove(f"{folder('ca')}/{ids[0]}")
        self.restart()
        self.assert_holds("ca", (ids[1], "Two"))
        self.assertEqual(self.channel.ask("config", "status"), (0, "running"))

    def test_a_server_certificate_that_was_revoked_without_another(self):
        self.service(selfSignedGeneration=None)
        self.restart()
        active = self.device.active("web")
        self.assertEqual(self.channel.ask("server", "revoke"), (0, ""))
        self.restart()
        self.assert_logged(ERR, f"The certificate '{active}' of service 'web' cannot be loaded, going on without it: "
                                "Its files are missing.", count=1)
        self.assert_logged(NOTICE, "Certificate for service 'web' can not be created as signed type is disabled.",
                           count=1)
        self.assertEqual(self.channel.ask("server", "revoke"), (0, ""))
        self.added("ca", certificates.Pki().pem())
        self.service()
        self.assertEqual(self.channel.ask("config", "reload"), (0, "Reload Successful"))
        self.assert_whole_store("web")


class OtherPrograms(Stores):
    """The folder of the authorities is what OpenSSL calls a CApath."""

    def setUp(self):
        super().setUp()
        scratch = tempfile.TemporaryDirectory(prefix="kwtrust")
        self.addCleanup(scratch.cleanup)
        self.scratch = scratch.name
        os.chmod(self.scratch, 0o755)

    def file(self, name, content):
        with open(f"{self.scratch}/{name}", "wb") as file:
            file.write(content)
        return file.name

    def verify(self, leaf):
        return run("openssl", "verify", "-no-CAfile", "-no-CAstore", "-CApath", self.device.host(folder("ca")),
                   self.file("leaf.pem", leaf))

    def test_openssl_verifies_against_the_folder(self):
        # Two of one subject: OpenSSL finds the right one by its key identifier, suffix after suffix.
        one, other = OpensslCa(f"{self.scratch}/one"), OpensslCa(f"{self.scratch}/other")
        self.file("openssl.key", certificates.issue(certificates.Pki(), "leaf")[1])
        request = run("openssl", "req", "-new", "-key", f"{self.scratch}/openssl.key", "-subj",
                      "/C=DE/ST=BY/O=Acme/CN=leaf")
        ids = [self.added("ca", pki.read("ca.pem")) for pki in (one, other)]
        self.assertEqual(ids[1], ids[0][:9] + "1")
        for pki in (one, other):
            self.assertIn(b"leaf.pem: OK", self.verify(pki.sign(request)))
        with self.assertRaisesRegex(ToolFailed, "unable to get local issuer certificate"):
            self.verify(certificates.Pki("Stranger").leaf("leaf"))
        self.assertEqual(self.channel.ask("ca", "revoke", ids[0]), (0, ids[0]))
        # The suffixes are looked for from 0 on: behind a gap OpenSSL finds nothing.
        for pki in (one, other):
            with self.assertRaisesRegex(ToolFailed, "unable to get local issuer certificate"):
                self.verify(pki.sign(request))
        self.assertEqual(self.added("ca", one.read("ca.pem")), ids[0])
        self.assertEqual(self.channel.ask("ca", "revoke", ids[1]), (0, ids[1]))
        self.verify(one.sign(request))
        with self.assertRaises(ToolFailed):
            self.verify(other.sign(request))

    def bundle(self):
        """What nginx wants: the certificates of the folder in one file."""
        host = self.device.host(folder("ca"))
        content = b""
        for name in sorted(name for name in os.listdir(host) if not name.startswith(".")):
            with open(f"{host}/{name}", "rb") as certificate:
                content += certificate.read()
        return self.file("bundle.pem", content)

    def client(self, pki, name):
        certificate, key = certificates.issue(pki, name)
        return self.file(f"{name}.crt", certificate), self.file(f"{name}.key", key)

    def accepted(self, *clients):
        """Which clients the web server serves while it trusts the store as it is now."""
        path = self.device.host(f"{KEYWARD}/web/server/{self.device.active('web')}")
        found = []
        with WebServer(path, path + ".key", client_bundle=self.bundle()) as server:
            for client in clients:
                # The service's certificate is self-signed and made for "localhost".
                status, body, _ = server.get(path, "localhost", client)
                self.assertIn((status, body == "served to SUCCESS\n"), ((200, True), (400, False)))
                found.append(status == 200)
        return found

    def test_nginx_serves_exactly_the_clients_whose_authority_is_in_it(self):
        one, two, stranger = certificates.Pki("One"), certificates.Pki("Two"), certificates.Pki("One")
        clients = [self.client(one, "a"), self.client(two, "b"), self.client(stranger, "c"), None]
        ids = [self.added("ca", pki.pem()) for pki in (one, two)]
        self.assertEqual(self.accepted(*clients), [True, True, False, False])
        self.assertEqual(self.channel.ask("ca", "revoke", ids[0]), (0, ids[0]))
        self.assertEqual(self.accepted(*clients), [False, True, False, False])
        self.assertEqual(self.added("ca", stranger.pem()), ids[0])
        self.assertEqual(self.accepted(*clients), [False, True, True, False])


if __name__ == "__main__":
    main()
