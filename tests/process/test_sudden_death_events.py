"""A daemon that is killed at any moment: its owner has been told whatever is in force afterwards, and what is gone.

KILLS is how many times it is killed; SEED repeats the choices of an earlier run, though not its exact instants.
"""

import hashlib
import os
import random
import re
import signal
import threading
import time

from kwtest import Case, certificates, main
from kwtest.channel import NoAnswer
from kwtest.device import CALLBACK, KEYWARD, LOCK, NETWORK, WORK
from kwtest.settings import SETTINGS
from kwtest.syslog import ERR

KILLS = int(os.environ.get("KILLS", "10" if SETTINGS.sanitizer else "60"))
SEED = int(os.environ.get("SEED", random.randrange(1 << 32)))
ANSWER = 0.5
DAY = 86400
STORES = ("ca", "client")
# Few names, so that an id is soon free for another certificate of the same name.
NAMES = 4

# Says at its end what it was run for, and which certificate it found at its beginning; it is killed on its way as
# the daemon is. The certificate is its base64 text in one line.
OWNER = f'''found=-
case "$2 $3" in
"server new" | "ca new" | "client new")
    if [ -f "{KEYWARD}/$1/$2/$4" ]; then
        found=
        while read -r text; do
            case $text in -----*) ;; *) found=$found$text ;; esac
        done <"{KEYWARD}/$1/$2/$4"
    fi
    ;;
esac
pause=$(($$ % 31))
[ $pause -gt 9 ] || pause=0$pause
sleep 0.0$pause
line=
for word in "$@"; do line="$line$word\t"; done
echo "$line$found" >>{WORK}/events'''


def fingerprint(base64):
    return hashlib.sha256(base64.encode()).hexdigest()[:16]


class Owner:
    """What the owner knows: every event in the order in which it was told, with the certificate that was there."""

    def __init__(self, device):
        self.device = device
        device.script(CALLBACK, OWNER)

    def events(self):
        """(service, store, word, ids, fingerprint) of every change that was told."""
        if not self.device.exists(f"{WORK}/events"):
            return []
        lines = [line.split("\t") for line in self.device.read(f"{WORK}/events").decode().splitlines()]
        return [(words[0], words[1], words[2], tuple(words[3:-1]), fingerprint(words[-1]))
                for words in lines if len(words) > 4 and words[2] in ("new", "revoke")]

    def found(self, service, store, identifier):
        """The fingerprint of what is in force now."""
        text = self.device.read(f"{KEYWARD}/{service}/{store}/{identifier}").decode()
        return fingerprint("".join(line for line in text.splitlines() if not line.startswith("-----")))


class Work(threading.Thread):
    """Keeps the daemon busy with one kind of work until it does not answer any more."""

    def __init__(self, test, kind):
        super().__init__()
        self.test, self.device = test, test.device
        self.turn = getattr(self, kind)
        self.answered = 0

    def run(self):
        try:
            while True:
                self.turn()
        except (NoAnswer, OSError, AssertionError):
            pass

    def ask(self, service, *fields):
        answer = self.device.channel(service).ask(*fields, timeout=ANSWER)
        self.answered += int(answer[0] == 0)
        return answer

    def network(self):
        self.test.change_network()
        self.device.notify("n", timeout=ANSWER)
        self.ask("web", "config", "status")

    def clock(self):
        self.test.change_clock()
        self.device.notify("t", timeout=ANSWER)
        self.ask("web", "config", "status")

    def stores(self):
        for store in STORES:
            path = f"{WORK}/new.pem"
            self.device.write(path, self.test.fresh_certificate(store))
            code, text = self.ask("web", store, "add", path)
            listed = self.test.in_store(store)
            if code != 0 or len(listed) >= NAMES:
                self.ask("web", store, "revoke", *listed[:2])

    def apply(self):
        self.ask("bank", "server", "createcsr")
        request = self.device.read(f"{KEYWARD}/bank/server/.cacheddata/csr.csr")
        path = f"{WORK}/signed.pem"
        self.device.write(path, self.test.pki.sign(request, days=36500, start=self.device.now() - DAY))
        self.ask("bank", "server", "applycrt", path)


class Events(Case):
    def setUp(self):
        super().setUp()
        self.random = random.Random(SEED)
        self.pki = certificates.Pki()
        self.turns = 0
        self.lost = {}
        self.owner = Owner(self.device)
        self.device.set_clock(time.time())
        # The monitor sleeps through it all; only without one there would be an ERR at each start.
        self.device.configure(TimeDriftSleepTime="3600", TimeDriftThresholdValue="3600")
        self.device.service("bank", selfSignedGeneration="no")
        self.device.service("web", trustedClients="yes", ca="yes", includeFQDN="yes", selfSignedValidity="5",
                            selfSignedOnExpiration="yes")

    # What changes on the device.

    def change_network(self):
        self.turns += 1
        self.device.network({**NETWORK, "fqdn.0": f"unit{self.turns}.test"})

    def change_clock(self):
        self.device.set_clock(self.device.now() + 7 * DAY)

    def fresh_certificate(self, store):
        self.turns += 1
        name = f"{store} {self.turns % NAMES}"
        return certificates.Pki(name).pem() if store == "ca" else self.pki.leaf(name)

    # How it ends.

    def kill_everything(self):
        """As a service manager does: the daemon, and then what it had started."""
        self.device.daemon.kill()
        self.device.remove(LOCK)

    def end_at_work(self):
        time.sleep(self.random.uniform(0.0, 0.2))

    def end_in_a_stop(self):
        time.sleep(self.random.uniform(0.0, 0.2))
        self.device.daemon.signal(signal.SIGTERM)
        time.sleep(self.random.uniform(0.0, 0.15))

    def end_in_the_next_start(self):
        """Killed at work and then once more, before it is ready again."""
        self.end_at_work()
        self.kill_everything()
        self.change_network()
        self.device.start(ready=False)
        time.sleep(self.random.uniform(0.0, 0.2))

    def kill_once(self):
        """Returns the kind of work, the kind of end, and how many requests were answered before."""
        kind = self.random.choice(("network", "clock", "stores", "stores", "apply"))
        end = self.random.choice(("at_work", "at_work", "at_work", "in_a_stop", "in_the_next_start"))
        work = Work(self, kind)
        work.start()
        getattr(self, f"end_{end}")()
        self.kill_everything()
        work.join()
        return kind, end, work.answered

    # What must hold afterwards.

    def assert_whole(self):
        """Certificates have their keys, nothing half-done is left, and the start had nothing to complain of."""
        errors = [text for severity, text in self.device.log_lines(self.device.daemon.pid) if severity <= ERR]
        self.assertEqual(errors, [], self.device.log_text())
        left = [path for path in self.device.listing(KEYWARD) if re.match(r"\..*\.new\Z", os.path.basename(path))
                or path.endswith(".journal")]
        self.assertEqual(left, [], self.device.log_text())
        self.assert_whole_store("web")
        if self.device.active("bank"):
            self.assert_whole_store("bank")
        for store in STORES:
            self.assertEqual(self.device.read(f"{KEYWARD}/web/{store}/.cacheddata/list.txt").decode().split(),
                             self.in_store(store))

    def in_store(self, store):
        return [name for name in self.device.listing(f"{KEYWARD}/web/{store}") if not name.startswith(".cacheddata")]

    def in_force(self):
        """(service, store, id, fingerprint) of all that counts now."""
        found = [(service, "server", self.device.active(service)) for service in ("web", "bank")
                 if self.device.active(service)]
        found += [("web", store, name) for store in STORES for name in self.in_store(store)]
        return {(*what, self.owner.found(*what)) for what in found}

    def note_lost_events(self, circumstances):
        """An event counts when it was told while the certificate was there; for a revocation, after its certificate."""
        events = self.owner.events()
        told = {}
        for place, (service, store, word, ids, certificate) in enumerate(events):
            if word == "new":
                told.setdefault((service, store, ids[0], certificate), place)
        present = self.in_force()
        for what in present - told.keys():
            self.lost.setdefault(("new", *what), circumstances)
        for (service, store, identifier, certificate), place in told.items():
            if store == "server" or (service, store, identifier, certificate) in present:
                continue
            if not any((event[0], event[1], event[2]) == (service, store, "revoke") and identifier in event[3]
                       for event in events[place + 1:]):
                self.lost.setdefault(("revoke", service, store, identifier, certificate), circumstances)
        return len(events)

    def test_every_change_is_told_at_least_once(self):
        print(f"seed {SEED}, kills {KILLS}", flush=True)
        self.device.start()
        answered = 0
        for number in range(KILLS):
            kind, end, busy = self.kill_once()
            answered += int(busy > 0)
            self.device.start()
            circumstances = f"kill {number} {end} ({kind})"
            try:
                self.assert_whole()
            except AssertionError as wrong:
                raise AssertionError(f"after {circumstances}, seed {SEED}: {wrong}") from None
            count = self.note_lost_events(circumstances)
        self.assert_not_logged("count as no certificate")
        # The kills met a daemon that was at work, and the owner heard of it.
        self.assertGreater(answered, KILLS // 4)
        self.assertGreater(count, KILLS // 2)
        print(f"kills {KILLS}, with answered requests before {answered}, events told {count}, lost {len(self.lost)}")
        self.assertEqual(self.device.stop(), 10)
        if self.lost:
            self.fail("the owner was never told of\n" +
                      "".join(f"{' '.join(what)}, in force since {when}\n" for what, when in self.lost.items()))


if __name__ == "__main__":
    main()
