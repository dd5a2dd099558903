"""A process of the daemon's user, such as a script that stayed, prepares for the next start as root.

What it puts in the places of the store, the pipes, the lock and the pid file gains it nothing of root's.
"""

import itertools
import os
import tempfile

from kwtest import main
from kwtest.attack import ROOTS, SECRET, Attack, acting_as, rounds
from kwtest.device import LOCK, PID, PIPES, USERS


class StartAsRoot(Attack):
    STORE = "/run/keywarden/store"

    def setUp(self):
        super().setUp()
        # In a folder that the daemon's user may write; where the ordinary one stands he may not.
        self.device.configure(keywardDirectory=self.STORE)
        self.own_folder(self.STORE, "keyuser")
        self.device.write(f"{ROOTS}/folder/file", b"root's alone\n", 0o600)
        os.chmod(self.device.host(f"{ROOTS}/folder"), 0o700)
        self.before = self.roots()
        self.gone = itertools.count()

    def roots(self):
        return {path: self.look(path) for path in (SECRET, f"{ROOTS}/folder", f"{ROOTS}/folder/file", ROOTS)}

    def out_of_the_way(self, *paths):
        for path in paths:
            if self.device.exists(path):
                os.rename(self.device.host(path), self.device.host(f"{path}.{next(self.gone)}"))

    def start_and_kill(self, codes=(0, 12)):
        """A start may be refused, or go on; what is of root's stays it."""
        daemon = self.device.start(ready=False)
        self.assertIn(daemon.wait_parent(), codes, self.device.log_text())
        daemon.kill()
        self.assertEqual(self.roots(), self.before)

    def replaced_by_a_link(self, path, target, codes=(0, 12)):
        self.out_of_the_way(LOCK, path)
        with acting_as("keyuser"):
            os.symlink(target, self.device.host(path))
        self.start_and_kill(codes)

    def test_finds_links_in_the_place_of_its_folders_and_files(self):
        for path, target in itertools.product((self.STORE, PIPES, PID, LOCK), (SECRET, f"{ROOTS}/folder")):
            with self.subTest(path=path, target=target):
                # One that is taken is another daemon's.
                self.replaced_by_a_link(path, target, codes=(12, 13) if path == LOCK else (0, 12))
            self.out_of_the_way(path)
            # After a loss the next one is judged by itself.
            os.chown(self.device.host(target), 0, 0)
            os.chmod(self.device.host(target), 0o600 if target == SECRET else 0o700)

    def race(self, path, times, most, prepare=lambda: None):
        """Exchanged for a link: `times` times as soon as it is there, or all the time."""
        link = path + ".link"
        for _ in rounds(most, 5):
            self.out_of_the_way(LOCK, path, link)
            with acting_as("keyuser"):
                prepare()
                os.symlink(SECRET, self.device.host(link))
            with self.hostile("swap", "20", times, self.device.host(path), self.device.host(link), user="keyuser"):
                self.start_and_kill()

    def test_finds_a_folder_of_roots_in_the_place_of_its_own(self):
        for path in (PIPES, self.STORE):
            admin = os.path.join(os.path.dirname(path), "admin")
            os.makedirs(self.device.host(f"{admin}/sub"), mode=0o700)
            self.device.write(f"{admin}/sub/secret", "root's", mode=0o600)
            with acting_as("keyuser"):
                if self.device.exists(path):
                    os.rename(self.device.host(path), self.device.host(path + ".gone"))
                os.rename(self.device.host(admin), self.device.host(path))
            self.start_and_kill(codes=(12,))
            self.assertEqual(self.device.read(f"{path}/sub/secret"), b"root's")
            self.assertEqual(self.device.rights(path)[2], "root")
            os.rename(self.device.host(path), self.device.host(path + ".kept"))
            self.out_of_the_way(LOCK)

    def test_races_for_its_lock(self):
        self.race(LOCK, "1", 100)

    def test_races_for_its_pid_file(self):
        # On a disk: putting a file in place takes a while there, and so gives time.
        with tempfile.TemporaryDirectory(prefix="kw", dir="/var/tmp") as folder:
            self.device.root.bind_folder(folder)
            os.chown(self.device.host(folder), *USERS["keyuser"])
            self.device.configure(keywardDirectory=self.STORE, pidFile=f"{folder}/keywardd.pid")
            self.race(f"{folder}/keywardd.pid", "1", 15)

    def test_races_for_its_pipes(self):
        self.race(PIPES, "1", 100)

    def test_races_for_its_store(self):
        self.race(self.STORE, "0", 100, prepare=lambda: os.mkdir(self.device.host(self.STORE)))


if __name__ == "__main__":
    main()
