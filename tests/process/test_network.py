"""Notifications of network changes: what each does, in which order, and what comes through the fifo unharmed."""

import os
import shutil
import threading

from kwtest import Case, certificates, main
from kwtest.case import last_line
from kwtest.channel import write_fifo
from kwtest.device import KEYWARD, LOCK, PID, PIPES, SCRIPTS
from kwtest.process import wait_until
from kwtest.syslog import EMERG, ERR, INFO, NOTICE

RECEIVED = (NOTICE, "Notification reload network received")
COMPLETED = (NOTICE, "Notification reload network completed")
ETH0 = {"networkInterface.0": "eth0", "includeIPv4.0": "yes"}


def checking(service):
    return NOTICE, f"The service {service} is checking server certificate because network changed..."


def checked(service):
    return NOTICE, f"The service {service} checked server certificate because network changed."


def network(*addresses):
    return {"interface.0": "eth0", **{f"ipv4.0.{index}": address for index, address in enumerate(addresses)}}


class Change(Case):
    def change_to(self, entries, count=1):
        self.device.network(entries)
        self.device.notify("n")
        self.device.wait_log(*COMPLETED, count=count)

    def addresses(self, service="web"):
        return [text for kind, text in certificates.alternative_names(self.certificate(service)) if kind == "IP"]

    def test_a_new_address_gives_a_new_certificate_and_the_owner_is_told(self):
        device = self.device
        device.network(network("10.0.0.5"))
        device.service("web", **ETH0)
        device.start()
        first, told = self.assert_whole_store("web"), len(device.calls())
        lines = len(device.log_lines())
        self.change_to(network("10.0.0.77"))
        second = self.assert_whole_store("web")
        self.assertEqual(self.addresses(), ["10.0.0.77"])
        self.assertNotEqual(second.serial_number, first.serial_number)
        self.assertNotEqual(certificates.public_bytes(second), certificates.public_bytes(first))
        self.assertEqual(device.calls()[told:], [("web", "server", "new", device.active("web"))])
        self.assertEqual(device.log_lines()[lines:], [
            RECEIVED,
            (INFO, "Handling reload network."),
            checking("web"),
            (NOTICE, "Create and Apply SelfSigned certificate for service 'web' as the network changed."),
            (NOTICE, "The service web is creating a server selfsigned certificate..."),
            (NOTICE, f"New certificate with id '{device.active('web')}' for service 'web' has been installed. "
                     "Calling the callback script..."),
            (INFO, "The service web is stopping its timer..."),
            (INFO, "The service web stopped its timer."),
            (INFO, "The service web is starting his timer..."),
            (INFO, "The service web started his timer."),
            checked("web"),
            (INFO, "Network reload operation completed"),
            COMPLETED,
        ])

    def test_a_new_subject_takes_the_files_of_the_old_one_away(self):
        device = self.device
        device.write("/etc/keywarden/name.txt", "first.test")
        device.script("/opt/hooks/name", "cat /etc/keywarden/name.txt")
        device.request_settings("/etc/keywarden/named.cnf", CN=None, commonNameScript="/opt/hooks/name")
        device.network(network("10.0.0.5"))
        device.service("web", cnfFile="/etc/keywarden/named.cnf", **ETH0)
        device.start()
        self.assert_whole_store("web", common="first.test")
        old = device.active("web")
        device.write("/etc/keywarden/name.txt", "second.test")
        self.change_to(network("10.0.0.6"))
        # Nothing but the new certificate's files stands there now.
        self.assert_whole_store("web", common="second.test")
        self.assertNotEqual(device.active("web"), old)

    def test_without_a_change_nothing_is_made(self):
        device = self.device
        device.network(network("10.0.0.5"))
        device.service("web", **ETH0)
        device.start()
        first, told, lines = self.certificate("web"), device.calls(), len(device.log_lines())
        device.notify("n")
        device.wait_log(*COMPLETED)
        self.assertEqual(self.certificate("web"), first)
        self.assertEqual(device.calls(), told)
        self.assertEqual(device.log_lines()[lines:], [RECEIVED, (INFO, "Handling reload network."), checking("web"),
                                                      checked("web"), (INFO, "Network reload operation completed"),
                                                      COMPLETED])

    def test_an_address_that_goes_away_leaves_the_certificate(self):
        self.device.network(network("10.0.0.5", "10.0.0.6"))
        self.device.service("web", **ETH0)
        self.device.start()
        first = self.certificate("web")
        self.change_to(network("10.0.0.5"))
        self.assertEqual(self.certificate("web"), first)

    def test_interfaces_that_the_service_does_not_list_do_not_matter(self):
        self.device.network(network("10.0.0.5"))
        self.device.service("web", **ETH0)
        self.device.start()
        first = self.certificate("web")
        self.change_to({**network("10.0.0.5"), "interface.1": "eth1", "ipv4.1.0": "10.1.0.1", "fqdn.0": "x.test"})
        self.assertEqual(self.certificate("web"), first)

    def test_a_change_while_the_daemon_was_down_is_seen_at_the_start(self):
        self.device.network(network("10.0.0.5"))
        self.device.service("web", **ETH0)
        self.device.start()
        self.device.stop()
        self.device.network(network("10.0.0.9"))
        self.device.start()
        self.assertEqual(self.addresses(), ["10.0.0.9"])
        self.assert_logged(NOTICE, "Network information fo the server certificate for service 'web' are not valid "
                                   "anymore.", count=1)

    def test_a_network_script_that_fails_keeps_the_last_network(self):
        self.device.network(network("10.0.0.5"))
        self.device.service("web", **ETH0)
        self.device.start()
        first = self.certificate("web")
        self.device.remove(f"{SCRIPTS}/network.sh")
        self.device.notify("n")
        self.device.wait_log(*COMPLETED)
        self.assert_logged_like(3, rf"Runtime exception caught during executing {SCRIPTS}/network\.sh : .+")
        self.assertEqual(self.certificate("web"), first)


class Kinds(Case):
    """Who signed the certificate decides what a network change does."""

    def test_a_local_authority_signs_anew_and_pki_services_are_told_first(self):
        device = self.device
        device.request_settings("/etc/keywarden/ca.cnf", CN="Local CA", basicConstraints="critical,CA:TRUE")
        device.network(network("10.0.0.5"))
        for name in ("alpha", "beta"):
            device.service(name, selfSignedGeneration=None, CASignedGeneration="yes", CAServiceId="pkiroot", **ETH0)
        device.service("pkiroot", cnfFile="/etc/keywarden/ca.cnf")
        device.start()
        first = self.certificate("alpha")
        self.assertTrue(certificates.is_signed_by(first, self.certificate("pkiroot")))
        device.network(network("10.0.0.6"))
        device.notify("n")
        device.wait_log(*COMPLETED)
        second = self.assert_whole_store("alpha")
        self.assertNotEqual(second, first)
        self.assertTrue(certificates.is_signed_by(second, self.certificate("pkiroot")))
        self.assert_logged(NOTICE, "Create and Apply CA-Signed certificate for service 'alpha' as the network changed.",
                           count=1)
        told = [(severity, text) for severity, text in device.log_lines()
                if text.startswith("The service") and "network changed" in text]
        self.assertEqual(told[:2], [checking("pkiroot"), checked("pkiroot")])
        self.assertEqual(len(told), 6)

    def with_outside_certificate(self, **settings):
        device = self.device
        device.network(network("10.0.0.5"))
        device.service("web", **ETH0, **settings)
        device.start()
        channel = device.channel("web")
        self.assertEqual(channel.ask("server", "createcsr"), (0, ""))
        pem = certificates.Pki().sign(device.read(f"{KEYWARD}/web/server/.cacheddata/csr.csr"))
        device.write("/srv/scratch/outside.pem", pem)
        self.assertEqual(channel.ask("server", "applycrt", "/srv/scratch/outside.pem"), (0, ""))
        self.assertEqual(self.assert_whole_store("web"), certificates.load(pem))
        device.network(network("10.0.0.6"))
        device.notify("n")
        device.wait_log(*COMPLETED)
        return certificates.load(pem)

    def test_a_certificate_of_an_outside_pki_stays(self):
        outside = self.with_outside_certificate()
        self.assertEqual(self.certificate("web"), outside)
        self.assert_in_order([checking("web"), checked("web")])
        self.assert_not_logged("as the network changed")

    def test_a_certificate_of_an_outside_pki_is_replaced_where_that_is_wanted(self):
        outside = self.with_outside_certificate(networkInvalidRevokePKIcert="yes")
        self.assertNotEqual(self.assert_whole_store("web"), outside)
        self.assert_logged(NOTICE, "Create and Apply SelfSigned certificate for service 'web' as the network changed "
                                   "and revoke PKI certificate on network invaid flag is set True.", count=1)

    def test_a_service_without_a_server_is_left_alone(self):
        self.device.service("web", server=None)
        self.device.start()
        self.device.notify("nt")
        self.device.wait_log(NOTICE, "Time reload notification completed")
        self.assert_not_logged("is checking server certificate")


class Fatal(Case):
    """A certificate that cannot be renewed for a new network ends the daemon: a supervisor starts it afresh."""

    def assert_ends(self, reason):
        device = self.device
        device.network({"fqdn.0": "renamed.test"})
        device.notify("n")
        self.assertEqual(device.daemon.wait_exit(), 12)
        self.assertEqual(device.log_lines()[-1], (EMERG, last_line(12, reason)))
        for path in (LOCK, PID):
            self.assertFalse(device.exists(path))
        self.assertEqual(device.listing("/run/ready"), [])

    def setUp(self):
        super().setUp()
        self.device.service("web", includeFQDN="yes")
        self.device.start()

    def test_request_settings_that_are_gone(self):
        self.device.remove("/etc/keywarden/service.cnf")
        self.assert_ends("Runtime error caught while network reload: Failed to read configuration "
                         "file-/etc/keywarden/service.cnf")

    def test_a_key_that_cannot_be_made(self):
        first = self.assert_whole_store("web")
        self.device.request_settings("/etc/keywarden/service.cnf", CONFIG_KEY="RSA2048", default_bits="many")
        self.assert_ends("Daemon exception caught while network reload: Failed creating X509 Certificate for service "
                         "'web' Failed to generate RSA key pair.")
        self.assertEqual(self.certificate("web"), first)
        # With good settings the next start goes on where this one ended.
        self.device.request_settings("/etc/keywarden/service.cnf")
        self.device.start()
        self.assertEqual(certificates.alternative_names(self.assert_whole_store("web")), [("DNS", "renamed.test")])

    def test_a_notification_fifo_that_cannot_be_made_again(self):
        path = f"{PIPES}/notification.signal"
        writer = os.open(self.device.host(path), os.O_WRONLY)
        shutil.rmtree(self.device.host(PIPES))
        os.write(writer, b"x")
        os.close(writer)
        self.assertEqual(self.device.daemon.wait_exit(), 12)
        reason = f"Failed to open the fifo file:{path} to read the notifications."
        self.assertEqual(self.device.log_lines()[-1], (EMERG, last_line(12, reason)))

    def test_a_folder_of_pipes_that_was_moved_away_is_still_served(self):
        os.rename(self.device.host(PIPES), self.device.host("/run/moved"))
        write_fifo(self.device.host("/run/moved/notification.signal"), b"n")
        self.device.wait_log(*COMPLETED)
        os.rename(self.device.host("/run/moved"), self.device.host(PIPES))

    def test_a_notification_fifo_that_was_replaced_is_made_again(self):
        path = f"{PIPES}/notification.signal"
        os.rename(self.device.host(path), self.device.host("/run/moved"))
        self.device.write(path, "a file")
        write_fifo(self.device.host("/run/moved"), b"x")
        self.assertTrue(wait_until(lambda: self.device.rights(path)[0] == "p"))
        self.device.notify("n")
        self.device.wait_log(*COMPLETED)
        self.assertEqual(self.device.rights(path), ("p", 0o720, "keyuser", "kwnotify"))


class PassedOver(Case):
    """With 'continueOnServiceFailure yes' a service that fails is logged, and the others are renewed."""

    FAILURE = "Runtime error caught while network reload: Failed to read configuration file-/etc/keywarden/bad.cnf"

    def start(self, switch):
        device = self.device
        device.configure(continueOnServiceFailure=switch)
        device.request_settings("/etc/keywarden/bad.cnf")
        # The one that is told first.
        device.service("pkibad", cnfFile="/etc/keywarden/bad.cnf", includeFQDN="yes")
        device.service("web", includeFQDN="yes")
        device.network({"fqdn.0": "first.test"})
        device.start()
        device.remove("/etc/keywarden/bad.cnf")
        device.network({"fqdn.0": "second.test"})
        device.notify("n")

    def names(self, service):
        return certificates.alternative_names(self.assert_whole_store(service))

    def test_a_service_that_fails(self):
        device = self.device
        self.start("yes")
        device.wait_log(*COMPLETED)
        self.assertIn((ERR, self.FAILURE), device.log_lines())
        self.assertEqual(self.names("pkibad"), [("DNS", "first.test")])
        self.assertEqual(self.names("web"), [("DNS", "second.test")])
        for service in ("pkibad", "web"):
            self.assertEqual(device.channel(service).ask("config", "status"), (0, "running"))
        # The next notification makes good what this one could not.
        device.request_settings("/etc/keywarden/bad.cnf")
        device.notify("n")
        device.wait_log(*COMPLETED, count=2)
        self.assertEqual(self.names("pkibad"), [("DNS", "second.test")])
        self.assertEqual(device.stop(), 10)

    def test_any_other_value_is_off(self):
        self.start("Yes")
        self.assertEqual(self.device.daemon.wait_exit(), 12)
        self.assertEqual(self.device.log_lines()[-1], (EMERG, last_line(12, self.FAILURE)))


class Fifo(Case):
    def setUp(self):
        super().setUp()
        self.device.service("web")
        self.device.start()
        self.before = len(self.device.log_lines())

    def notifications(self):
        texts = [text for _, text in self.device.log_lines()[self.before:]]
        return [text for text in texts if text in ("Notification reload network received",
                                                   "Time reload notification received")]

    def test_two_characters_and_a_line_feed(self):
        self.device.notify("nt\n")
        self.device.wait_log(NOTICE, "Time reload notification completed")
        self.assert_in_order([
            RECEIVED, (INFO, "Handling reload network."), checking("web"), checked("web"),
            (INFO, "Network reload operation completed"), COMPLETED,
            (NOTICE, "Time reload notification received"), (INFO, "Handling reload time."),
            (NOTICE, "The service web is checking server certificate because time changed."),
            (NOTICE, "The service web checked server certificate because time changed."),
            (INFO, "Time reload operation completed"), (NOTICE, "Time reload notification completed")])
        self.assertEqual(len(self.notifications()), 2)

    def test_other_bytes_are_ignored(self):
        self.device.notify(bytes(byte for byte in range(256) if byte not in b"nt"))
        self.device.notify("t")
        self.device.wait_log(NOTICE, "Time reload notification completed")
        self.assertEqual(self.notifications(), ["Time reload notification received"])

    def test_a_megabyte_of_junk_does_no_harm(self):
        self.device.notify(b"x\0\xff\n" * (256 * 1024), timeout=30)
        self.device.notify("n")
        self.device.wait_log(*COMPLETED, timeout=30)
        self.assertEqual(self.notifications(), ["Notification reload network received"])
        self.assertTrue(self.device.daemon.running)

    def test_no_writer_of_many_is_lost(self):
        def write():
            for _ in range(20):
                self.device.notify("n")
        writers = [threading.Thread(target=write) for _ in range(3)]
        for writer in writers:
            writer.start()
        for writer in writers:
            writer.join()
        self.device.wait_log(*COMPLETED, count=60, timeout=60)
        self.assertEqual(len(self.notifications()), 60)

    def test_writers_that_write_nothing_do_no_harm(self):
        for _ in range(50):
            self.device.notify("")
        self.device.notify("t")
        self.device.wait_log(NOTICE, "Time reload notification completed")
        self.assertEqual(self.notifications(), ["Time reload notification received"])


if __name__ == "__main__":
    main()
