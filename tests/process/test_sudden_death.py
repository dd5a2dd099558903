"""A daemon that is killed at any moment, in the middle of renewals, additions and revocations, and comes up again."""

import random
import signal
import threading
import time

from kwtest import Case, certificates, main
from kwtest.channel import NoAnswer
from kwtest.device import KEYWARD, LOCK, NETWORK, PIPES, WORK
from kwtest.settings import SETTINGS

KILLS = 8 if SETTINGS.sanitizer else 40
ANSWER = 0.5
CLIENTS = f"{KEYWARD}/web/client"


class Requester(threading.Thread):
    """Keeps the daemon busy until it does not answer any more, and remembers what was confirmed."""

    def __init__(self, test, number):
        super().__init__()
        self.test, self.number = test, number
        self.channel = test.device.channel("web")
        self.revoking = None

    def run(self):
        try:
            for turn in range(1000):
                self.renew(turn)
                self.add(turn)
                self.revoke()
        except (NoAnswer, OSError, AssertionError):
            pass

    def renew(self, turn):
        """The name of the device changes, so its certificate must."""
        device = self.test.device
        device.network({**NETWORK, "fqdn.0": f"unit{self.number}-{turn}.test"})
        device.notify("n", timeout=ANSWER)

    def add(self, turn):
        path = f"{WORK}/client{self.number}-{turn}.pem"
        content = self.test.pool[(self.number + turn) % len(self.test.pool)]
        self.test.device.write(path, content)
        code, identifier = self.channel.ask("client", "add", path, timeout=ANSWER)
        if code == 0:
            self.test.stored[identifier] = content

    def revoke(self):
        if len(self.test.stored) < 4:
            return
        self.revoking = sorted(self.test.stored)[:2]
        code, _ = self.channel.ask("client", "revoke", *self.revoking, timeout=ANSWER)
        if code == 0:
            for identifier in self.revoking:
                del self.test.stored[identifier]
            self.revoking = None


class Kills(Case):
    def setUp(self):
        super().setUp()
        self.seed = random.randrange(1 << 32)
        self.random = random.Random(self.seed)
        pki = certificates.Pki()
        self.pool = [certificates.issue(pki, f"client {number}")[0] for number in range(12)]
        self.stored = {}
        self.device.service("web", trustedClients="yes", includeFQDN="yes")

    def kill_at_a_random_moment(self, number):
        requester = Requester(self, number)
        requester.start()
        time.sleep(self.random.uniform(0.0, 0.15))
        self.device.daemon.signal(signal.SIGKILL)
        self.assertEqual(self.device.daemon.wait_exit(15), -signal.SIGKILL)
        requester.join()
        self.device.remove(LOCK)
        return requester

    def assert_clients(self, revoking):
        """The folder is what was confirmed, but for the one request that the kill met; the indexes are the folder."""
        found = [name for name in self.device.listing(CLIENTS) if not name.startswith(".cacheddata")]
        self.assertEqual(self.device.listing(CLIENTS), sorted([".cacheddata", ".cacheddata/list.txt", *found]))
        for identifier, content in self.stored.items():
            if identifier not in (revoking or []):
                self.assertEqual(self.device.read(f"{CLIENTS}/{identifier}"), content)
        if revoking:
            self.assertIn(sum(1 for identifier in revoking if identifier in found), (0, len(revoking)))
        self.assertLessEqual(len(set(found) - set(self.stored)), 1)
        self.assertEqual(self.device.read(f"{CLIENTS}/.cacheddata/list.txt").decode(),
                         "".join(identifier + "\n" for identifier in sorted(found)))
        listed = self.device.read(f"{PIPES}/web/client/id_cn.map").decode().splitlines()
        self.assertEqual([line.split(" ")[0] for line in listed], sorted(found))
        self.stored = {identifier: self.device.read(f"{CLIENTS}/{identifier}") for identifier in found}

    def test_pair_and_indexes_are_whole_after_every_kill(self):
        with self.subTest(seed=self.seed):
            self.device.start()
            answered = 0
            for number in range(KILLS):
                before = len(self.stored)
                requester = self.kill_at_a_random_moment(number)
                answered += int(len(self.stored) != before)
                self.device.start()
                self.assert_whole_store("web")
                self.assert_clients(requester.revoking)
            self.assert_not_logged("count as no certificate")
            # The kills met a daemon that was at work.
            self.assertGreater(answered, 0)
            print(f"kills: {KILLS}, survived: {KILLS}, with confirmed changes before: {answered}")
            self.assertEqual(self.device.stop(), 10)


if __name__ == "__main__":
    main()
