"""The whole table of commands, on a service that has every store: what is executed, with every number of arguments
and what the owner is told of it; and that the owner is told of nothing else."""

import shutil

from kwtest import SETTINGS, Case, certificates, main
from kwtest.device import KEYWARD, PIPES, WORK
from kwtest.outside_pki import subject_hash
from test_channel import BAD_COMMAND, COMBINATIONS, EXECUTED, is_accepted

FAILURE = "Daemon exception during user request process for service 'web': "


class Table(Case):
    """Each row gets arguments with which it can succeed."""

    def setUp(self):
        super().setUp()
        self.done = set()
        self.pki = certificates.Pki()
        self.furnish()
        self.device.start()
        self.channel = self.device.channel("web")

    def furnish(self):
        self.device.service("web", ca="yes", trustedClients="yes", includeFQDN="yes")

    def told(self):
        """What the owner was told since the last look."""
        calls = self.device.calls()
        new, self.seen = calls[self.seen:], len(calls)
        return new

    seen = 0

    def told_as(self, call):
        return ("web", *call)

    def ask(self, target, word, arguments, expected, *calls):
        """One row: its answer, and what the owner was told."""
        self.done.add((word, target, len(arguments)))
        self.told()
        answer = self.channel.ask(target, word, *arguments)
        row = f"{target} {word} {arguments}"
        if callable(expected):
            expected(answer)
        else:
            self.assertEqual(answer, expected, row)
        self.assertEqual(self.told(), [self.told_as(call) for call in calls], row)
        return answer[1]

    def test_every_row_that_is_executed(self):
        self.server_rows()
        for store in ("ca", "client"):
            self.store_rows(store)
        self.config_rows()
        executed = {row for row in COMBINATIONS if is_accepted(*row) and row[0] in EXECUTED[row[1]]}
        self.assertEqual(self.done, executed)

    def server_rows(self):
        csr, active = f"{KEYWARD}/web/server/.cacheddata/csr.csr", self.device.active("web")
        for count in range(5):
            self.ask("server", "createcsr", ("a", "b", "c", "d")[:count], (0, ""))
        request = self.device.read(csr)
        self.ask("server", "getcsrinfo", (), self.described("csr_version 3"))
        self.assertEqual(self.device.read(csr), request)
        path = f"{WORK}/signed.pem"
        self.device.write(path, self.pki.sign(request))
        self.ask("server", "applycrt", (path,), (0, ""), ("server", "new", active))
        self.ask("server", "getcertinfo", (), (1, FAILURE + "The path of the certificate is missing."))
        # The first argument counts.
        for count in range(1, 5):
            self.ask("server", "getcertinfo", (path, "b", "c", "d")[:count],
                     self.described("issuer_name CN=Outside CA"))
        self.ask("server", "revoke", (), (0, ""), ("server", "new", active))

    def described(self, line):
        def check(answer):
            self.assertEqual(answer[0], 0, answer)
            self.assertIn(line, answer[1].splitlines())
        return check

    def store_rows(self, store):
        ids = []
        for number in range(11):
            pem = certificates.Pki(f"Authority {number}").pem()
            self.device.write(f"{WORK}/new.pem", pem)
            expected = subject_hash(pem) + ".0"
            ids.append(self.ask(store, "add", (f"{WORK}/new.pem",), (0, expected), (store, "new", expected)))
        self.ask(store, "getcertinfo", (), (1, FAILURE + "The id of the certificate is missing."))
        for count in range(1, 5):
            self.ask(store, "getcertinfo", (ids[0], "b", "c", "d")[:count], self.described("subjectName: Authority 0"))
        for count in range(1, 5):
            wanted, ids = ids[:count], ids[count:]
            self.ask(store, "revoke", wanted, (0, " ".join(sorted(wanted))), (store, "revoke", *sorted(wanted)))
        self.assertEqual(self.device.read(f"{PIPES}/web/{store}/id_cn.map").decode(), f"{ids[0]} Authority 10\n")

    def config_rows(self):
        self.ask("config", "status", (), (0, "running"))
        self.ask("config", "reload", (), (0, "Reload Successful"), ("stop",), ("server", "expireIn", "29"), ("start",))
        self.ask("config", "status", (), (0, "running"))

    def test_the_owner_hears_nothing_of_the_other_rows(self):
        self.told()
        store = self.device.listing(f"{KEYWARD}/web")
        for word, target, count in COMBINATIONS:
            if not is_accepted(word, target, count):
                expected = (4, f"Bad format for command. Incorrect arguments received for: {word}")
            elif word not in EXECUTED[target]:
                expected = (4, BAD_COMMAND[target])
            else:
                continue
            answer = self.channel.ask(target, word, *("a", "b", "c", "d")[:count])
            self.assertEqual(answer, expected, (word, target, count))
        self.assertEqual(self.told(), [])
        self.assertEqual(self.device.listing(f"{KEYWARD}/web"), store)


class TableByLibrary(Table):
    """The same rows for an owner that is a library."""

    LIBRARY, RECORD = "/opt/hooks/callbacks.so", f"{WORK}/library"
    # What stands for the beginning of a script's arguments.
    EVENTS = {("server", "new"): "newGenerated", ("server", "expireIn"): "updateValidity 0", ("start",): "started",
              ("stop",): "stopped", ("ca", "new"): "newExternal ca",
              ("client", "new"): "newExternal client", ("ca", "revoke"): "revokedSeveral ca",
              ("client", "revoke"): "revokedSeveral client"}

    def furnish(self):
        self.device.root.make_folder("/opt/hooks")
        shutil.copy(SETTINGS.callback_library, self.device.host(self.LIBRARY))
        self.device.service("web", ca="yes", trustedClients="yes", includeFQDN="yes", callbackScript=None,
                            callbackLibrary=self.LIBRARY)

    def told(self):
        # Its object comes and goes with a reload; the owner's own events are the others.
        lines = [line for line in self.device.read(self.RECORD).decode().splitlines()
                 if line not in ("web: create", "web: destroy")]
        new, self.seen = lines[self.seen:], len(lines)
        return new

    def told_as(self, call):
        return " ".join((f"web: {self.EVENTS[call[:2]]}",) + call[2:])


if __name__ == "__main__":
    main()
