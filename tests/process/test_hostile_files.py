"""Garbage where files and printed settings should be: random bytes, halves of real files, huge lines, NULs.

Every kind of input is spoilt in every way, each for a service of its own beside a sound one. The seed of a failed run
is printed; KWTEST_SEED repeats it.
"""

import os
import random
import sys
import time

from kwtest import SETTINGS, Case, certificates, main
from kwtest.device import KEYWARD, NETWORK, PIPES, REQUEST_SETTINGS, SCRIPTS, SERVICE_SETTINGS, SERVICES, WORK, \
    settings_text
from kwtest.process import limit, status_of, wait_until
from kwtest.syslog import ERR, NOTICE

# Of the ways below, how many each test tries; instrumented code draws some.
WAYS = 6 if SETTINGS.sanitizer else 15
SEED = int(os.environ.get("KWTEST_SEED") or random.randrange(1 << 32))


def spoilt(sound, source):
    """Ways in which a file may be garbage, by name."""
    middle = source.randrange(len(sound))
    flipped = bytearray(sound)
    for _ in range(1 + len(flipped) // 50):
        flipped[source.randrange(len(flipped))] ^= 1 << source.randrange(8)
    lines = sound.splitlines(keepends=True)
    source.shuffle(lines)
    return {
        "empty": b"",
        "noise": source.randbytes(source.randrange(1, 20_000)),
        "half": sound[:middle],
        "tail": sound[middle:],
        "last byte": sound[:-1],
        "flipped": bytes(flipped),
        "shuffled": b"".join(lines),
        "twice": sound + sound,
        "nuls": b"\0" * 4096,
        "nuls inside": sound[:middle] + b"\0" * 100 + sound[middle:],
        "huge line": sound + b"x" * 2_000_000 + b"\n" + sound,
        "only line feeds": b"\n" * 50_000,
        "carriage returns": sound.replace(b"\n", b"\r\n"),
        "high bytes": bytes(range(128, 256)) * 20 + sound,
        "spaces": b" " * 100_000,
    }


class Garbage(Case):
    def setUp(self):
        super().setUp()
        self.source = random.Random(SEED)
        self.device.service("good", ca="yes", trustedClients="yes", includeFQDN="yes")
        self.tried = 0

    def tearDown(self):
        print(f"{self.id().rpartition('.')[2]}: {self.tried} spoilt inputs, seed {SEED}", file=sys.stderr)

    def spoil(self, sound):
        ways = spoilt(sound, self.source)
        drawn = self.source.sample(sorted(ways), WAYS)
        self.tried += WAYS
        return {way: ways[way] for way in drawn}

    def assert_serves(self, service="good"):
        begin = time.monotonic()
        self.assertEqual(self.device.channel(service).ask_locked("config", "status", timeout=10), (0, "running"))
        self.assertLess(time.monotonic() - begin, limit(1))

    def assert_unharmed(self):
        """The daemon runs, the sound service has all that is its own, and the stop takes no longer for it."""
        self.assertTrue(self.device.daemon.running)
        self.assert_serves()
        self.assert_whole_store("good")
        if not SETTINGS.sanitizer:
            self.assertLess(int(status_of(self.device.daemon.pid)["VmHWM"].split()[0]), 96 * 1024)
        begin = time.monotonic()
        self.assert_stopped_cleanly(self.device.stop())
        self.assertLess(time.monotonic() - begin, SETTINGS.stop_limit)

    def assert_own(self, *services):
        """Whatever of a spoilt service runs has a whole pair, or none."""
        for service in services:
            if self.device.exists(f"{PIPES}/{service}/{service}.in"):
                self.assert_serves(service)
                path = f"{KEYWARD}/{service}/server/"
                active = self.device.active(service) if self.device.exists(path + ".cacheddata/active.txt") else ""
                if self.device.exists(path + active + ".key") and active:
                    certificate = certificates.load(self.device.read(path + active))
                    key = certificates.load_key(self.device.read(path + active + ".key"))
                    self.assertEqual(certificates.public_bytes(certificate), certificates.public_bytes(key), service)

    @staticmethod
    def named(prefix, ways):
        return {f"{prefix}{number}": content for number, content in enumerate(ways.values())}


class Settings(Garbage):
    def test_service_files(self):
        sound = settings_text({**SERVICE_SETTINGS, "callbackTimeoutSecs": "5", "maximumCA": "5", "ca": "yes",
                               "selfSignedValidity": "90", "networkInterface.0": "eth0"}).encode()
        services = self.named("bad", self.spoil(sound))
        for name, content in services.items():
            self.device.write(f"{SERVICES}/{name}.conf", content)
        self.device.start()
        self.assert_own(*services)
        self.assert_unharmed()

    def test_service_files_that_become_garbage_and_are_reloaded(self):
        sound = settings_text(SERVICE_SETTINGS).encode()
        services = self.named("bad", self.spoil(sound))
        for name in services:
            self.device.service(name)
        self.device.start()
        for name, content in services.items():
            channel = self.device.channel(name)
            self.device.write(f"{SERVICES}/{name}.conf", content)
            code, text = channel.ask("config", "reload")
            self.assertEqual(channel.ask("config", "status"), (0, "stoped" if code else "running"), text)
            self.assertIn(code, (0, 1))
            self.assert_serves()
        self.assert_unharmed()

    def test_request_settings_files(self):
        services = self.named("bad", self.spoil(settings_text(REQUEST_SETTINGS).encode()))
        for name, content in services.items():
            self.device.write(f"/etc/keywarden/{name}.cnf", content)
            self.device.service(name, cnfFile=f"/etc/keywarden/{name}.cnf")
        self.device.start()
        self.assert_own(*services)
        self.assert_unharmed()

    def test_what_the_settings_hook_prints(self):
        services = self.named("bad", self.spoil(settings_text(REQUEST_SETTINGS).encode()))
        for name, content in services.items():
            self.device.write(f"{WORK}/{name}.printed", content)
            self.device.script(f"/opt/hooks/{name}", f"cat {WORK}/{name}.printed")
            self.device.service(name, cnfFile=None, cnfHookFile=f"/opt/hooks/{name}")
        self.device.start()
        self.assert_own(*services)
        self.assert_unharmed()

    def test_what_the_common_name_script_prints(self):
        services = self.named("bad", self.spoil(b"device.test\n"))
        for name, content in services.items():
            self.device.write(f"{WORK}/{name}.printed", content)
            self.device.script(f"/opt/hooks/{name}", f"cat {WORK}/{name}.printed")
            self.device.request_settings(f"/etc/keywarden/{name}.cnf", CN=None, commonNameScript=f"/opt/hooks/{name}")
            self.device.service(name, cnfFile=f"/etc/keywarden/{name}.cnf")
        self.device.start()
        self.assert_own(*services)
        self.assert_unharmed()


class Fifos(Garbage):
    """A fifo that nobody writes, in the place of each file that a service names."""

    def fifo(self, path):
        self.device.remove(path)
        os.mkfifo(self.device.host(path))
        os.chmod(self.device.host(path), 0o666)
        self.tried += 1
        return path

    def setUp(self):
        super().setUp()
        self.device.request_settings("/etc/keywarden/bad.cnf")
        self.device.service("bad", cnfFile="/etc/keywarden/bad.cnf", ca="yes")

    def test_request_settings(self):
        path = self.fifo("/etc/keywarden/bad.cnf")
        self.device.start()
        self.assert_logged(ERR, "std exception caught while creating and applying self signed certificate for service "
                                f"'bad' Failed to read configuration file-{path}", count=1)
        self.assert_own("bad")
        self.assert_unharmed()

    def test_a_callback_library(self):
        self.device.write(f"{WORK}/owner.so", "")
        path = self.fifo(f"{WORK}/owner.so")
        self.device.service("bad", callbackScript=None, callbackLibrary=path)
        self.device.start()
        self.assert_logged(ERR, "Error during starting bad: Std exception during loading service object for service-"
                                f"bad: Cannot load the callback library {path} for the service bad: "
                                "It is not a regular file", count=1)
        self.assert_unharmed()

    def test_a_service_file_that_is_reloaded(self):
        self.device.start()
        self.fifo(f"{SERVICES}/bad.conf")
        code, text = self.device.channel("bad").ask("config", "reload")
        self.assertEqual(code, 1)
        self.assertIn("No configuration file for the service bad", text)
        self.assert_unharmed()


class Network(Garbage):
    def test_what_the_network_script_prints(self):
        sound = settings_text({**NETWORK, "ipv6.0.0": "fe80::1", "dns.0": "10.0.0.1"}).encode()
        self.device.service("bad", includeFQDN="yes", **{"networkInterface.0": "eth0", "includeIPv4.0": "yes",
                                                         "includeIPv6.0": "yes", "regenerateIfOff.0": "yes"})
        self.device.start()
        for count, (way, content) in enumerate(self.spoil(sound).items(), 1):
            with self.subTest(way=way):
                self.device.write(f"{SCRIPTS}/network.txt", content)
                self.device.notify("n")
                self.device.wait_log(NOTICE, "Notification reload network completed", count=count)
                self.assert_serves()
                self.assert_own("bad")
        self.device.network(NETWORK)
        self.device.notify("n")
        self.device.wait_log(NOTICE, "Notification reload network completed", count=self.tried + 1)
        names = certificates.alternative_names(self.assert_whole_store("bad"))
        self.assertIn(("DNS", "unit42.test"), names)
        self.assert_unharmed()


class Stores(Garbage):
    """A store whose files became garbage while the daemon was down."""

    def spoil_stores(self, path, sound=None):
        """One service for each way, all with a pair, a CA, a client; then one file of each is spoilt."""
        first = [f"bad{number}" for number in range(WAYS)]
        for name in first:
            self.device.service(name, ca="yes", trustedClients="yes")
        self.device.start()
        pki = certificates.Pki()
        self.device.write(f"{WORK}/ca.pem", pki.pem())
        self.device.write(f"{WORK}/client.pem", pki.leaf("client"))
        ids = {}
        for name in first:
            channel = self.device.channel(name)
            ids[name] = (channel.ask("ca", "add", f"{WORK}/ca.pem")[1],
                         channel.ask("client", "add", f"{WORK}/client.pem")[1])
        self.assertEqual(self.device.stop(), 10)
        for name, content in zip(first, self.contents(first[0], path, ids)):
            target = f"{KEYWARD}/{name}/" + self.filled(path, name, ids)
            self.assertTrue(self.device.exists(target), target)
            # In place: its owner and its rights stay.
            with open(self.device.host(target), "wb") as file:
                file.write(content)
        self.device.start()
        self.assert_own(*first)
        for name in first:
            for target in ("ca", "client"):
                self.device.channel(name).ask_locked(target, "getcertinfo", ids[name][target == "client"])
        self.assert_unharmed()

    def filled(self, path, name, ids):
        return path.format(active=self.device.active(name), ca=ids[name][0], client=ids[name][1])

    def contents(self, name, path, ids):
        sound = self.device.read(f"{KEYWARD}/{name}/" + self.filled(path, name, ids))
        return list(self.spoil(sound or b"0a1b2c3d.0 device.test\n").values())

    def test_certificates(self):
        self.spoil_stores("server/{active}")

    def test_keys(self):
        self.spoil_stores("server/{active}.key")

    def test_active_files(self):
        self.spoil_stores("server/.cacheddata/active.txt")

    def test_saved_networks(self):
        self.spoil_stores("server/.cacheddata/{active}.network")

    def test_trusted_authorities(self):
        self.spoil_stores("ca/{ca}")

    def test_id_lists(self):
        self.spoil_stores("client/.cacheddata/list.txt")


class Running(Garbage):
    """What members of the management group may write below a running service, and what they offer it."""

    def setUp(self):
        super().setUp()
        self.device.service("bad", ca="yes", trustedClients="yes")
        self.device.start()
        self.channel = self.device.channel("bad")
        self.pki = certificates.Pki()

    def test_certificates_that_are_offered(self):
        sound = self.pki.pem()
        for way, content in self.spoil(sound.encode() if isinstance(sound, str) else sound).items():
            with self.subTest(way=way):
                self.device.write(f"{WORK}/offered.pem", content)
                for target in ("ca", "client"):
                    self.assertIn(self.channel.ask(target, "add", f"{WORK}/offered.pem")[0], (0, 1, 9, 42, 43))
                self.channel.ask("server", "getcertinfo", f"{WORK}/offered.pem")
                self.channel.ask("server", "applycrt", f"{WORK}/offered.pem")
                self.assert_serves("bad")
        self.assert_own("bad")
        self.assert_unharmed()

    def test_records_and_maps(self):
        self.device.write(f"{WORK}/ca.pem", self.pki.pem())
        code, identifier = self.channel.ask("ca", "add", f"{WORK}/ca.pem")
        self.assertEqual(code, 0)
        active = self.device.active("bad")
        for path in (f"ca/{identifier}.info", f"ca/{identifier}.detail", "ca/id_cn.map", f"server/{active}.info"):
            sound = self.device.read(f"{PIPES}/bad/{path}")
            for way, content in self.spoil(sound).items():
                with self.subTest(path=path, way=way):
                    with open(self.device.host(f"{PIPES}/bad/{path}"), "wb") as file:
                        file.write(content)
                    self.assertIn(self.channel.ask("ca", "getcertinfo", identifier)[0], (0, 1))
                    self.assertIn(self.channel.ask("ca", "add", f"{WORK}/ca.pem")[0], (1, 43))
                    self.assert_serves("bad")
            with open(self.device.host(f"{PIPES}/bad/{path}"), "wb") as file:
                file.write(sound)
        self.assert_unharmed()

    def test_pending_requests(self):
        good = f"{KEYWARD}/good/server/{self.device.active('good')}"
        for path in (f"{KEYWARD}/bad/server/.cacheddata/csr.csr", f"{PIPES}/bad/server/csr.key",
                     f"{PIPES}/bad/server/csr.network"):
            self.assertEqual(self.channel.ask("server", "createcsr"), (0, ""))
            for way, content in self.spoil(self.device.read(path) or b"fqdn.0 unit42.test\n").items():
                with self.subTest(path=path, way=way):
                    self.assertEqual(self.channel.ask("server", "createcsr"), (0, ""))
                    with open(self.device.host(path), "wb") as file:
                        file.write(content)
                    self.assertIn(self.channel.ask("server", "getcsrinfo")[0], (0, 1))
                    # Another service's certificate, which fits no request of this one.
                    self.assertIn(self.channel.ask("server", "applycrt", good)[0], (1, 9, 21, 26))
                    self.assert_serves("bad")
        self.assert_whole_store("good")
        self.assert_own("bad")
        self.assert_unharmed()


if __name__ == "__main__":
    main()
