"""A service that is the local authority, those that it signs for, and when they follow its renewals."""

import calendar
import os
import tempfile
import time

from cryptography import x509
from cryptography.x509.oid import ExtendedKeyUsageOID

from kwtest import Case, certificates, main
from kwtest.device import KEYWARD
from kwtest.outside_pki import ToolFailed, run
from kwtest.process import limit, wait_until
from kwtest.syslog import ERR, NOTICE

DAY = 86400
SUMMER = calendar.timegm((2035, 6, 15, 12, 0, 0))
TODAY = SUMMER - SUMMER % DAY
TIME_DONE = (NOTICE, "Time reload notification completed")
NETWORK_DONE = (NOTICE, "Notification reload network completed")
AUTHORITY = {"CN": "Local CA", "basicConstraints": "critical,CA:TRUE", "keyUsage": "critical,keyCertSign,cRLSign",
             "subjectKeyIdentifier": "hash"}
USAGES = {"web": ("serverAuth", ExtendedKeyUsageOID.SERVER_AUTH),
          "mqtt": ("clientAuth", ExtendedKeyUsageOID.CLIENT_AUTH)}


def followed(service):
    return (NOTICE, f"Creating a new CA-Signed certificate for service '{service}' as the CA server certificate got "
                    "renewed.")


class Local(Case):
    def authority(self, **changes):
        self.device.request_settings("/etc/keywarden/authority.cnf", **AUTHORITY)
        self.device.service("pkiroot", cnfFile="/etc/keywarden/authority.cnf", **changes)

    def dependant(self, name, **changes):
        usage = USAGES[name][0]
        self.device.request_settings(f"/etc/keywarden/{name}.cnf", CN=f"{name}.test", keyUsage="digitalSignature",
                                     extendedKeyUsage=usage)
        self.device.service(name, **{"selfSignedGeneration": None, "CASignedGeneration": "yes",
                                     "CAServiceId": "pkiroot", "cnfFile": f"/etc/keywarden/{name}.cnf", **changes})

    def start_all(self, **changes):
        """The authority and two dependants with their first certificates, on a device of summer 2035."""
        self.device.set_clock(SUMMER)
        self.authority(**changes)
        self.dependant("web")
        self.dependant("mqtt")
        self.device.start()
        self.let_a_second_pass()
        return self.serials()

    def serials(self):
        return {name: self.certificate(name).serial_number for name in ("pkiroot", "web", "mqtt")}

    def let_a_second_pass(self):
        """File times are compared in whole seconds: what is renewed from here on is newer than what there is."""
        newest = max(int(os.stat(self.certificate_path(name)).st_ctime) for name in ("pkiroot", "web", "mqtt"))
        self.assertTrue(wait_until(lambda: time.time() >= newest + 1.01))

    def certificate_path(self, service):
        return self.device.host(f"{KEYWARD}/{service}/server/{self.device.active(service)}")

    def notify(self, character):
        done = TIME_DONE if character == "t" else NETWORK_DONE
        count = self.device.log_lines().count(done) + 1
        self.device.notify(character)
        self.device.wait_log(*done, count=count)

    def assert_renewed(self, before, *names):
        """These have a new certificate, the others have not."""
        now = self.serials()
        self.assertEqual({name for name in now if now[name] != before[name]}, set(names), self.device.log_text())
        return now

    def assert_verified(self, service):
        """Accepted by `openssl verify` and by another library as a certificate of the authority."""
        root, leaf = self.certificate("pkiroot"), self.assert_whole_store(service)
        self.assertEqual(leaf.issuer, root.subject)
        self.assertTrue(certificates.is_signed_by(leaf, root))
        self.verify_by_openssl(service)
        return leaf

    def verify_by_openssl(self, service, *more):
        purpose = {"serverAuth": "sslserver", "clientAuth": "sslclient"}[USAGES[service][0]]
        moment = str(int(self.device.now()))
        return run("openssl", "verify", "-attime", moment, "-purpose", purpose, *more, "-CAfile",
                   self.certificate_path("pkiroot"), self.certificate_path(service))


class Signature(Local):
    def test_other_tools_accept_what_it_signs(self):
        self.start_all()
        root = self.assert_whole_store("pkiroot", "Local CA")
        self.assertTrue(certificates.is_signed_by(root, root))
        constraints = root.extensions.get_extension_for_class(x509.BasicConstraints)
        self.assertEqual((constraints.critical, constraints.value.ca), (True, True))
        usage = root.extensions.get_extension_for_class(x509.KeyUsage)
        self.assertTrue(usage.critical and usage.value.key_cert_sign and usage.value.crl_sign)
        for name, (_, wanted) in USAGES.items():
            leaf = self.assert_verified(name)
            self.assertEqual(certificates.common_name(leaf), f"{name}.test")
            self.assertEqual(leaf.version, x509.Version.v3)
            self.assertEqual(list(leaf.extensions.get_extension_for_class(x509.ExtendedKeyUsage).value), [wanted])
            self.assertFalse(leaf.extensions.get_extension_for_class(x509.BasicConstraints).value.ca)
            self.assertEqual(certificates.alternative_names(leaf), [("DNS", "localhost")])
            self.assertEqual(leaf.serial_number.bit_length(), 64)

    def test_another_authority_or_purpose_is_not_accepted(self):
        self.start_all()
        with tempfile.NamedTemporaryFile(suffix=".pem") as other:
            other.write(certificates.Pki("Local CA").pem())
            other.flush()
            with self.assertRaises(ToolFailed):
                run("openssl", "verify", "-CAfile", other.name, self.certificate_path("web"))
        with self.assertRaisesRegex(ToolFailed, "purpose"):
            self.verify_by_openssl("web", "-purpose", "sslclient")

    def assert_validity(self, service, begin, end):
        leaf = self.assert_verified(service)
        self.assertEqual((leaf.not_valid_before, leaf.not_valid_after),
                         (certificates.utc(TODAY + begin * DAY), certificates.utc(TODAY + end * DAY)))

    def test_the_validity_is_the_services_own_within_that_of_the_authority(self):
        self.device.set_clock(SUMMER)
        self.authority(selfSignedValidity="40", selfSignedValidityOffset="10")
        self.dependant("web", CASignedValidity="7", CASignedValidityOffset="2")
        self.device.start()
        self.assert_validity("web", -2, 5)

    def test_the_validity_is_cut_to_that_of_the_authority(self):
        self.device.set_clock(SUMMER)
        self.authority(selfSignedValidity="30")
        self.dependant("web", CASignedValidity="3650", CASignedValidityOffset="10")
        # The length counts from the start that was asked for.
        self.dependant("mqtt", CASignedValidity="20", CASignedValidityOffset="5")
        self.device.start()
        self.assert_validity("web", 0, 30)
        self.assert_validity("mqtt", 0, 15)


class Followers(Local):
    """A dependant follows its authority at its own next check of the time, and not before."""

    def test_a_revocation_is_followed_at_the_next_time_notification(self):
        before = self.start_all()
        told = len(self.device.calls())
        self.assertEqual(self.device.channel("pkiroot").ask("server", "revoke"), (0, ""))
        now = self.assert_renewed(before, "pkiroot")
        self.assertEqual(self.device.calls()[told:], [("pkiroot", "server", "new", self.device.active("pkiroot"))])
        # Neither a look at the network nor a request is a check of the time.
        self.notify("n")
        self.assertEqual(self.device.channel("web").ask("server", "createcsr"), (0, ""))
        self.assertEqual(self.device.channel("web").ask("config", "status"), (0, "running"))
        self.assert_renewed(now, *())
        told = len(self.device.calls())
        self.notify("t")
        now = self.assert_renewed(now, "web", "mqtt")
        for name in USAGES:
            self.assert_verified(name)
            self.assert_logged(*followed(name), count=1)
            self.assertEqual([call for call in self.device.calls()[told:] if call[0] == name],
                             [(name, "server", "expireIn", "29"), (name, "server", "new", self.device.active(name))])
        self.assertEqual([call for call in self.device.calls()[told:] if call[0] == "pkiroot"],
                         [("pkiroot", "server", "expireIn", "29")])
        # Once is enough.
        self.notify("t")
        self.assert_renewed(now, *())

    def test_a_change_of_the_authoritys_network_is_followed_too(self):
        before = self.start_all(includeFQDN="yes")
        self.device.network({"fqdn.0": "moved.test"})
        self.notify("n")
        now = self.assert_renewed(before, "pkiroot")
        self.assertEqual(certificates.alternative_names(self.certificate("pkiroot")), [("DNS", "moved.test")])
        self.notify("t")
        self.assert_renewed(now, "web", "mqtt")
        self.assert_verified("web")

    def test_the_end_of_the_authoritys_certificate_is_followed_in_the_same_round(self):
        self.device.set_clock(SUMMER)
        self.authority(selfSignedValidity="10")
        self.dependant("web")
        self.dependant("mqtt", CASignedOnExpiration="yes")
        self.device.start()
        self.let_a_second_pass()
        before, told = self.serials(), len(self.device.calls())
        self.device.set_clock(SUMMER + 20 * DAY)
        self.notify("t")
        self.assert_renewed(before, "pkiroot", "web", "mqtt")
        # One reports its end and then follows, the other renews because of its end; neither does so twice.
        calls = self.device.calls()[told:]
        self.assertEqual([call for call in calls if call[0] == "web"],
                         [("web", "server", "expireFrom", "10"), ("web", "server", "new", self.device.active("web"))])
        self.assertEqual([call for call in calls if call[0] == "mqtt"],
                         [("mqtt", "server", "new", self.device.active("mqtt"))])
        self.assert_logged(*followed("web"), count=1)
        self.assert_logged(NOTICE, "Creating a new CA-Signed certificate for service 'mqtt' as it is expired.", count=1)
        self.assert_not_logged(followed("mqtt")[1])
        for name in USAGES:
            self.assert_verified(name)

    def test_the_daily_check_follows_at_its_own_hour(self):
        self.device.set_clock(SUMMER)
        self.authority()
        self.dependant("web")
        # Its hour of the day is over before midnight.
        self.dependant("mqtt", CertDailyExpiryChkTimeOffsetSecs="3600")
        self.device.start()
        self.let_a_second_pass()
        before = self.serials()
        self.device.set_clock(TODAY + DAY - limit(6))
        self.notify("t")
        self.assert_renewed(before, *())
        self.assertEqual(self.device.channel("pkiroot").ask("server", "revoke"), (0, ""))
        self.assertLess(self.device.now(), TODAY + DAY, "too slow to see that nobody follows before midnight")
        before = self.assert_renewed(before, "pkiroot")
        self.device.wait_log(*followed("web"))
        self.assertGreaterEqual(self.device.now(), TODAY + DAY)
        self.assertTrue(wait_until(lambda: self.serials()["web"] != before["web"]))
        now = self.assert_renewed(before, "web")
        self.assert_verified("web")
        self.notify("t")
        self.assert_renewed(now, "mqtt")

    def test_a_restart_renews_nobody(self):
        before = self.start_all()
        self.assertEqual(self.device.stop(), 10)
        self.device.start()
        self.notify("t")
        self.assert_renewed(before, *())

    def test_a_reload_of_the_authority_renews_nobody(self):
        before = self.start_all()
        for name in ("pkiroot", "web", "pkiroot"):
            self.assertEqual(self.device.channel(name).ask("config", "reload"), (0, "Reload Successful"))
        self.notify("t")
        self.assert_renewed(before, *())

    def test_a_renewal_that_was_missed_is_made_up_for_at_the_start(self):
        before = self.start_all()
        self.assertEqual(self.device.channel("pkiroot").ask("server", "revoke"), (0, ""))
        self.assertEqual(self.device.stop(), 10)
        before = self.assert_renewed(before, "pkiroot")
        self.device.start()
        self.assert_renewed(before, "web", "mqtt")

    def test_a_revocation_of_a_dependant_is_signed_by_the_authority_again(self):
        before = self.start_all()
        self.assertEqual(self.device.channel("web").ask("server", "revoke"), (0, ""))
        self.assert_renewed(before, "web")
        self.assert_verified("web")
        self.assert_logged(NOTICE, "Create and Apply CA-Signed certificate for service 'web' as the old one is "
                                   "revoked.", count=1)


class NoAuthority(Local):
    """Without an authority there is no certificate; the service itself is up."""

    GENERATION = "Daemon exception caught while creating and applying CA signed certificate for service 'web' "
    REQUEST = "Daemon exception during user request process for service 'web': "
    NOT_ALLOWED = "CA signed certificate for service 'web' is not allowed"

    def assert_no_certificate(self, reason, **changes):
        # A certificate of its own would be a fall-back that nobody asked for.
        self.dependant("web", selfSignedGeneration="yes", **changes)
        self.device.start()
        self.assert_logged(NOTICE, "Create and Apply CA-Signed certificate for service 'web' as generatin is needed.",
                           count=1)
        self.assert_logged(ERR, self.GENERATION + reason, count=1)
        self.assertEqual(self.device.active("web"), "")
        self.assertEqual(self.device.listing(f"{KEYWARD}/web/server"), [".cacheddata", ".cacheddata/active.txt"])
        channel = self.device.channel("web")
        self.assertEqual(channel.ask("config", "status"), (0, "running"))
        self.assertEqual(channel.ask("server", "revoke"), (1, self.REQUEST + reason))
        self.assert_logged(ERR, self.REQUEST + reason, count=1)
        self.assertEqual([call for call in self.device.calls() if call[0] == "web"],
                         [("web", "start"), ("web", "allStarted")])

    def loading(self, service, name=""):
        return ("Std exception caught while loading CA files for service ' web' Failed to read certificate from file: "
                f"{KEYWARD}/{service}/server/{name}")

    def test_a_service_is_not_its_own_authority(self):
        self.assert_no_certificate(self.NOT_ALLOWED, CAServiceId="web")

    def test_no_authority_is_named(self):
        self.assert_no_certificate(self.NOT_ALLOWED, CAServiceId=None)

    def test_an_unknown_service_is_named(self):
        self.assert_no_certificate(self.loading("nobody"), CAServiceId="nobody")

    def test_the_authority_has_no_certificate(self):
        self.authority(selfSignedGeneration=None)
        self.assert_no_certificate(self.loading("pkiroot"))

    def test_the_authority_gets_its_certificate_later(self):
        self.authority(selfSignedGeneration=None)
        self.assert_no_certificate(self.loading("pkiroot"))
        self.authority()
        self.assertEqual(self.device.channel("pkiroot").ask("config", "reload"), (0, "Reload Successful"))
        self.assertEqual(self.device.active("web"), "")
        self.notify("t")
        self.assert_verified("web")

    def test_the_authority_was_revoked_and_makes_no_other(self):
        self.authority()
        self.dependant("web")
        self.device.start()
        first, active = self.assert_verified("web"), self.device.active("pkiroot")
        self.authority(selfSignedGeneration=None)
        channel = self.device.channel("pkiroot")
        self.assertEqual(channel.ask("config", "reload"), (0, "Reload Successful"))
        self.assertEqual(channel.ask("server", "revoke"), (0, ""))
        # Nothing to sign with; what was signed stays.
        reason = self.loading("pkiroot", active)
        self.assertEqual(self.device.channel("web").ask("server", "revoke"), (1, self.REQUEST + reason))
        self.notify("t")
        self.assertEqual(self.assert_whole_store("web"), first)


if __name__ == "__main__":
    main()
