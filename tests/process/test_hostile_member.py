"""A member of one service's management group, who may write that service's pipes folder, attacks the daemon.

He is a real user of the device: not root, not the daemon's user, in no other group. Whatever he puts into that folder,
and however fast he changes it, he hurts nobody but his own service.
"""

import contextlib
import json
import os
import resource
import time

from kwtest import SETTINGS, certificates, main
from kwtest.attack import (BOX, MEMBER, MEMBER_GROUP, NETWORK_DONE, ROOTS, SECRET, Attack, acting_as, identity,
                           rounds)
from kwtest.channel import NoAnswer
from kwtest.device import KEYWARD, PIPES, WORK
from kwtest.process import limit, wait_until
from kwtest.syslog import NOTICE, WARNING

DAY = 86400


class Links(Attack):
    """Links in the places of the folders that a reload makes again in the pipes folder."""

    RELOADS = 20

    def attack(self, target):
        """`target` is planted where there is nothing, and exchanged for the folders that are made."""
        self.run_services()
        target = target.format(key=self.keys[0])
        folders, beside = self.in_pipes("server", "ca", "client"), self.in_pipes("server.1", "ca.1", "client.1")
        # The server's alone may not be missing: a service whose certificate has no place does not come up.
        self.reload_amid(("plant", "20", "0", "link:" + target, *folders[1:]))
        self.reload_amid(("plant", "20", "0", "link:" + target, *beside),
                         ("swap", "20", "0", *(path for pair in zip(folders, beside) for path in pair)))
        self.assert_serves()

    def reload_amid(self, *attacks):
        with contextlib.ExitStack() as stack:
            stack.enter_context(self.never_readable())
            for words in attacks:
                stack.enter_context(self.hostile(*words))
            for _ in rounds(self.RELOADS):
                self.assertIn(self.ask("config", "reload")[0], (0, 1))
                self.assert_unharmed()
                # One that could not be loaded is not reloaded.
                if self.ask("config", "status") != (0, "running"):
                    self.restart()

    def test_to_the_key_of_another_service(self):
        self.attack("{key}")

    def test_to_the_pipes_folder_of_another_service(self):
        self.attack(f"{PIPES}/shop")

    def test_to_a_folder_of_the_daemons_store(self):
        self.attack(f"{KEYWARD}/shop/server")

    def test_to_the_daemons_store(self):
        self.attack(KEYWARD)

    def test_to_a_file_of_roots(self):
        self.attack(SECRET)

    def test_to_a_folder_of_roots(self):
        self.attack(ROOTS)


class Requests(Attack):
    """The folder of a pending request is exchanged while one is made."""

    FILES = ("csr.network", "csr.key", "csr.csr")

    def test_for_one_whose_files_are_folders_and_links_in_turn(self):
        self.run_services()
        mine, names = f"{self.pipes}/mine", []
        with acting_as(MEMBER):
            os.mkdir(mine)
            for name in self.FILES:
                os.mkdir(f"{mine}/{name}")
                os.symlink(self.keys[0], f"{mine}/{name}.other")
                # Seen from inside the folder, wherever it is at the moment.
                names += [name, name + ".other"]
        with self.never_readable(), self.hostile("swap", "20", "0", *self.in_pipes("server", "mine"), *names, cwd=mine):
            for _ in rounds(600, 8):
                self.ask("server", "createcsr")
                self.assert_unharmed()
        self.assert_serves()


class Removal(Attack):
    """What the member puts into his folder is removed at a reload, and by the next start as root."""

    NAMES = tuple(f"note{number}" for number in range(60))

    def setUp(self):
        super().setUp()
        self.secrets = [f"secret{number}" for number in range(60)]
        for name in self.secrets:
            self.device.write(f"{ROOTS}/{name}", b"root's\n", 0o600)

    def bait(self, number, names, target):
        """A folder with files of these names, and a link to one with other people's files of the same names."""
        folder, link = f"{self.pipes}/bait{number}", f"{self.box}/bait{number}"
        with acting_as(MEMBER):
            self.clear(folder)
            self.clear(link)
            os.mkdir(folder)
            os.chmod(folder, 0o777)
            for name in names:
                with open(f"{folder}/{name}", "wb"):
                    pass
            os.symlink(target, link)
        return [folder, link]

    @staticmethod
    def clear(path):
        if os.path.islink(path):
            os.unlink(path)
        elif os.path.isdir(path):
            for name in os.listdir(path):
                os.unlink(f"{path}/{name}")
            os.rmdir(path)

    def run_with_notes(self):
        """The other service's folder holds more than its pair, under names that others know."""
        self.device.start()
        for name in self.NAMES:
            with open(self.device.host(f"{KEYWARD}/shop/server/{name}"), "wb") as file:
                file.write(b"shop's\n")
                os.fchown(file.fileno(), 4242, 4252)
                os.fchmod(file.fileno(), 0o640)
        self.guard()

    def test_at_a_reload_removes_nothing_elsewhere(self):
        self.run_with_notes()
        names = [os.path.basename(self.keys[0]), *self.NAMES]
        for _ in rounds(60):
            pairs = [path for number in range(3) for path in self.bait(number, names, f"{KEYWARD}/shop/server")]
            with self.hostile("swap", "20", "0", *pairs):
                self.assertIn(self.ask("config", "reload")[0], (0, 1))
            self.assert_unharmed()
            if self.ask("config", "status") != (0, "running"):
                self.restart()
        self.assert_serves()

    def test_of_moved_folders_at_a_reload_removes_nothing_elsewhere(self):
        self.run_with_notes()
        for _ in rounds(60):
            pair = self.bait(0, [], f"{KEYWARD}/shop")
            with acting_as(MEMBER):
                os.makedirs(f"{pair[0]}/server/deep")
                for name in (os.path.basename(self.keys[0]), *self.NAMES):
                    with open(f"{pair[0]}/server/{name}", "wb"):
                        pass
                os.chmod(f"{pair[0]}/server", 0o777)
            with self.hostile("swap", "20", "0", *pair):
                self.assertIn(self.ask("config", "reload")[0], (0, 1))
            self.assert_unharmed()
            if self.ask("config", "status") != (0, "running"):
                self.restart()
            with acting_as(MEMBER):
                for folder in pair:
                    for name in ("server/deep", "server"):
                        if not os.path.islink(folder) and os.path.isdir(f"{folder}/{name}"):
                            self.clear(f"{folder}/{name}")
        self.assert_serves()

    def test_by_a_start_as_root_spares_what_root_has_put_into_a_folder_of_the_members(self):
        self.run_services()
        self.crash()
        important = f"{BOX}/folder/important"
        with acting_as(MEMBER):
            os.mkdir(f"{self.box}/folder")
        self.device.write(important, b"root's alone\n", 0o600)
        self.device.write(f"{BOX}/folder/inner/important", b"root's alone\n", 0o600)
        numbers = {os.lstat(self.device.host(path)).st_ino: self.look(path)
                   for path in (important, f"{BOX}/folder/inner/important", f"{BOX}/folder/inner")}
        with acting_as(MEMBER):
            os.rename(f"{self.box}/folder", f"{self.pipes}/folder")
        self.device.start()
        # Where they are now is not asked, only whether.
        found = {os.lstat(self.device.host(path)).st_ino: path for top in ("/run", "/srv", "/var", "/tmp")
                 for path in (f"{top}/{name}" for name in self.device.listing(top))}
        self.assertEqual({number: self.look(found[number]) for number in numbers if number in found}, numbers)
        self.assert_unharmed()
        self.assert_serves()

    def race_the_start(self, names, target):
        for _ in rounds(40, 5):
            self.crash()
            pairs = [path for number in range(3) for path in self.bait(number, names, target)]
            with self.hostile("swap", "20", "0", *pairs):
                self.device.start()
            self.assert_unharmed()
            self.assert_serves()

    def test_by_a_start_as_root_removes_nothing_of_roots(self):
        self.run_services()
        self.race_the_start(self.secrets, ROOTS)

    def test_by_a_start_as_root_removes_nothing_of_another_service(self):
        self.run_with_notes()
        self.race_the_start([os.path.basename(self.keys[0]), *self.NAMES], f"{KEYWARD}/shop/server")


class OwnFolder(Attack):
    """A folder of the member's in the place of the daemon's, with files that are no good to read."""

    LARGE = 2 << 30

    def setUp(self):
        super().setUp()
        self.run_services()
        self.pki = certificates.Pki()
        self.device.write(f"{WORK}/ca.pem", self.pki.pem())
        self.device.write(f"{WORK}/client.pem", self.pki.leaf("client"))
        self.server = f"{self.pipes}/server"
        self.begin = time.monotonic()

    def run_services(self):
        """Rather than let it have all that the machine has; where it gets near, it has taken too much already."""
        before = resource.getrlimit(resource.RLIMIT_DATA)
        if not SETTINGS.sanitizer:
            resource.setrlimit(resource.RLIMIT_DATA, (512 << 20, before[1]))
        try:
            super().run_services()
        finally:
            resource.setrlimit(resource.RLIMIT_DATA, before)

    def pending_request(self):
        """Leaves a certificate for it at the path that is returned."""
        self.assertEqual(self.ask("server", "createcsr"), (0, ""))
        request = self.device.read(f"{KEYWARD}/web/server/.cacheddata/csr.csr")
        self.device.write(f"{WORK}/signed.pem", self.pki.sign(request))
        return f"{WORK}/signed.pem"

    def trusted(self):
        code, added = self.ask("ca", "add", f"{WORK}/ca.pem")
        self.assertEqual(code, 0)
        return added

    def replace(self, store="server"):
        with acting_as(MEMBER):
            os.rename(f"{self.pipes}/{store}", f"{self.pipes}/{store}.gone")
            os.mkdir(f"{self.pipes}/{store}")

    def sparse(self, path, size):
        """As large as asked for, or as the file system allows."""
        with acting_as(MEMBER), open(path, "wb") as file:
            while True:
                try:
                    return file.truncate(size)
                except OSError:
                    size //= 2

    def ask_all(self, *requests):
        """What the answers are is the member's affair; that they come soon is not."""
        for fields in requests:
            try:
                self.ask(*fields)
            except NoAnswer:
                self.fail(f"no answer to {fields}:\n{self.device.log_text()[-2000:]}")

    def ask_everything(self, certificate, added):
        self.ask_all(("server", "applycrt", certificate), ("server", "createcsr"), ("server", "getcsrinfo"),
                     ("ca", "getcertinfo", added), ("client", "add", f"{WORK}/client.pem"), ("ca", "revoke", added),
                     ("ca", "add", f"{WORK}/ca.pem"), ("server", "revoke"))
        self.assert_others_are_told()
        self.ask_all(("config", "reload"))

    def assert_nobody_is_hurt(self):
        self.assert_others_are_told()
        self.assert_serves()
        self.assertEqual(self.ask("config", "status")[0], 0)
        self.assert_small()
        self.assert_unharmed()
        self.assert_stops()
        self.assertLess(time.monotonic() - self.begin, limit(10))

    def test_a_key_as_large_as_can_be(self):
        certificate, added = self.pending_request(), self.trusted()
        self.replace()
        self.sparse(f"{self.server}/csr.key", (1 << 63) - 1)
        self.ask_everything(certificate, added)
        self.assert_nobody_is_hurt()

    def test_a_network_of_two_gigabytes(self):
        certificate, added = self.pending_request(), self.trusted()
        self.replace()
        with acting_as(MEMBER):
            os.symlink("../server.gone/csr.key", f"{self.server}/csr.key")
        self.sparse(f"{self.server}/csr.network", self.LARGE)
        self.ask_everything(certificate, added)
        self.assert_nobody_is_hurt()

    def records(self, added):
        """What stands in the pipes folder of each store, beside a pending request."""
        active = self.device.active("web")
        return {"server": (f"{active}.info", f"{active}.detail"),
                "ca": ("id_cn.map", f"{added}.info", f"{added}.detail"), "client": ("id_cn.map",)}

    def test_records_of_two_gigabytes(self):
        certificate, added = self.pending_request(), self.trusted()
        for store, names in self.records(added).items():
            self.replace(store)
            for name in names:
                self.sparse(f"{self.pipes}/{store}/{name}", self.LARGE)
        self.ask_everything(certificate, added)
        self.assert_nobody_is_hurt()

    def test_fifos_that_nobody_writes(self):
        certificate, added = self.pending_request(), self.trusted()
        for store, names in self.records(added).items():
            self.replace(store)
            with acting_as(MEMBER):
                for name in names + (("csr.key", "csr.network") if store == "server" else ()):
                    os.mkfifo(f"{self.pipes}/{store}/{name}")
                    os.chmod(f"{self.pipes}/{store}/{name}", 0o666)
        self.ask_everything(certificate, added)
        self.assert_nobody_is_hurt()

    def test_a_key_that_is_a_file_when_it_is_looked_at_and_a_fifo_when_it_is_opened(self):
        self.replace()
        for name, make in (("csr.key", lambda path: os.close(os.open(path, os.O_CREAT))), ("key.other", os.mkfifo),
                           ("csr.network", lambda path: os.close(os.open(path, os.O_CREAT))),
                           ("network.other", os.mkfifo)):
            with acting_as(MEMBER):
                make(f"{self.server}/{name}")
                os.chmod(f"{self.server}/{name}", 0o666)
        names = ("csr.key", "key.other", "csr.network", "network.other")
        with self.hostile("swap", "20", "0", *names, cwd=self.server):
            for _ in rounds(150, 5):
                with acting_as(MEMBER):
                    os.rename(self.server, f"{self.pipes}/mine")
                    os.rename(f"{self.pipes}/server.gone", self.server)
                certificate = self.pending_request()
                with acting_as(MEMBER):
                    os.rename(self.server, f"{self.pipes}/server.gone")
                    os.rename(f"{self.pipes}/mine", self.server)
                self.ask_all(("server", "applycrt", certificate))
        self.assert_nobody_is_hurt()


class Record(Attack):
    """A record of the member's own making, put there while the script of the service's owner runs."""

    SUMMER = 2065516200
    FAR = 4102444800

    def test_does_not_keep_a_certificate_from_its_renewal(self):
        device = self.device
        device.set_clock(self.SUMMER)
        device.service("web", managmentGroup="kwweb", selfSignedValidity="30", callbackScript="/opt/hooks/slow")
        device.recording_script("/opt/hooks/slow", "slow", body='case "$3" in new) '
                                f'while [ ! -e {WORK}/go ]; do sleep 0.02; done;; esac')
        device.start(ready=False)
        self.assertTrue(wait_until(lambda: [call for call in device.calls("slow") if "new" in call], 10))
        self.plant(device.active("web"))
        device.write(f"{WORK}/go", b"")
        device.wait_ready()
        first = self.pair()
        device.set_clock(self.SUMMER + 40 * DAY)
        device.notify("t")
        device.wait_log(NOTICE, "Time reload notification completed")
        second = self.pair()
        self.assertNotEqual(second.serial_number, first.serial_number)
        self.assertGreater(certificates.seconds(second.not_valid_after), device.now())

    def plant(self, active):
        record = json.loads(self.device.read(f"{PIPES}/web/server/{active}.info"))
        with acting_as(MEMBER):
            os.rename(f"{self.pipes}/server", f"{self.pipes}/gone")
            os.mkdir(f"{self.pipes}/server")
            with open(f"{self.pipes}/server/{active}.info", "w", encoding="utf-8") as file:
                json.dump({**record, "validUntil": self.FAR}, file)

    def pair(self):
        certificate = self.certificate("web")
        key = self.device.read(f"{KEYWARD}/web/server/{self.device.active('web')}.key")
        self.assertEqual(certificates.public_bytes(certificate),
                         certificates.public_bytes(certificates.load_key(key)))
        return certificate


class Moved(Attack):
    def test_a_folder_that_is_gone_is_told_of_once_and_made_again_at_a_reload(self):
        self.run_services()
        pki = certificates.Pki()
        with acting_as(MEMBER):
            os.rename(f"{self.pipes}/server", f"{self.pipes}/gone")
        for _ in range(3):
            self.assertEqual(self.ask("server", "createcsr"), (0, ""))
            self.assertEqual(self.ask("server", "getcsrinfo")[0], 0)
        request = self.device.read(f"{KEYWARD}/web/server/.cacheddata/csr.csr")
        self.device.write(f"{WORK}/signed.pem", pki.sign(request))
        self.assertEqual(self.ask("server", "applycrt", f"{WORK}/signed.pem"), (0, ""))
        self.assertEqual(certificates.public_bytes(self.certificate("web")),
                         certificates.public_bytes(certificates.load_request(request)))
        self.assertEqual(self.ask("server", "revoke"), (0, ""))
        told = [text for severity, text in self.device.log_lines()
                if severity == WARNING and f"{PIPES}/web/server" in text]
        self.assertEqual(len(told), 1, self.device.log_text())
        self.assertEqual(self.ask("config", "reload"), (0, "Reload Successful"))
        self.assertEqual(self.device.rights(f"{PIPES}/web/server"), ("d", 0o711, "keyuser", MEMBER_GROUP))
        self.assert_whole_store("web")
        self.assert_unharmed()


class Space(Attack):
    """The room of a file system that others share, taken by a file that the member may write."""

    def setUp(self):
        super().setUp()
        if not self.device.root.namespace:
            self.skipTest("a file system of its own cannot be mounted in the chroot")
        address = {"networkInterface.0": "eth0", "includeIPv4.0": "yes"}
        self.device.service("web", managmentGroup="kwweb", **address)
        self.device.service("shop", **address)
        self.device.configure(continueOnServiceFailure="yes")
        self.address = 1
        self.told = 0

    def small(self, path, size):
        uid, groups = identity("keyuser")
        self.device.root.make_folder(path)
        self.device.root._mount("tmpfs", self.device.host(path), "tmpfs", 0,
                                f"mode=0755,size={size},uid={uid},gid={groups[0]}")

    def move(self):
        """Another address, which every service has to have in its certificate."""
        self.address += 1
        self.device.network({"fqdn.0": "", "interface.0": "eth0", "ipv4.0.0": f"10.0.0.{self.address}"})
        self.told += 1
        self.device.notify("n")
        self.device.wait_log(*NETWORK_DONE, count=self.told)

    def has_address(self, service):
        names = str(certificates.alternative_names(self.certificate(service)))
        return f"10.0.0.{self.address}'" in names

    def take(self, path):
        with acting_as(MEMBER), open(self.device.host(path), "ab", buffering=0) as file:
            with contextlib.suppress(OSError):
                while True:
                    file.write(b"\0" * 65536)

    def take_and_give_back(self, path, release):
        self.move()
        self.assertTrue(self.has_address("web") and self.has_address("shop"))
        self.take(path)
        self.move()
        for service in ("web", "shop"):
            self.assert_whole_store(service)
            self.assertEqual(self.device.channel(service).ask("config", "status"), (0, "running"))
        release()
        self.move()
        self.assertTrue(self.has_address("web") and self.has_address("shop"), self.device.log_text())
        for service in ("web", "shop"):
            self.assert_whole_store(service)
        self.assert_stops()

    def test_of_the_pipes_costs_no_pair_and_comes_back_with_the_room(self):
        self.small(PIPES, "1m")
        self.device.start()
        self.take_and_give_back(f"{PIPES}/web/junk", lambda: os.remove(f"{self.pipes}/junk"))

    def test_of_the_store_costs_no_pair_and_comes_back_with_the_room(self):
        self.small(KEYWARD, "1m")
        self.device.start()
        # The file that the owner may write is added by a start that finds the certificate.
        self.assertEqual(self.device.stop(), 10)
        self.device.start()
        path = f"{KEYWARD}/web/server/.cacheddata/{self.device.active('web')}.overwrite"
        self.assertEqual(self.device.rights(path), ("-", 0o664, "keyuser", MEMBER_GROUP))
        self.take_and_give_back(path, lambda: os.truncate(self.device.host(path), 0))


if __name__ == "__main__":
    main()
