"""Something of a member's of the management group stands in the place of one of the channel's files."""

import contextlib
import os
import time
from functools import partial

from kwtest import main
from kwtest.attack import MEMBER, MEMBER_ID, SECRET, Attack, acting_as
from kwtest.device import PIPES
from kwtest.process import wait_until


class Occupied(Attack):
    KINDS = ("folder", "full", "file", "socket", "fifo", "blank", f"link:{SECRET}", "link:nowhere")
    PLACES = ("in", "lock", "out")
    GATE = "/srv/gate"

    def setUp(self):
        super().setUp()
        self.device.root.make_folder(self.GATE, 0o777)
        # The moment when the folder is there and the channel is not: the daemon waits for the owner's script.
        self.device.script("/opt/hooks/gate", f"""
            [ "$2" = start ] && [ -e {self.GATE}/closed ] || exit 0
            touch {self.GATE}/entered.$1
            while [ ! -e {self.GATE}/go.$1 ]; do sleep 0.01; done
            rm {self.GATE}/*.$1""")
        for place in self.PLACES:
            self.device.service(f"w{place}", managmentGroup="kwweb", server=None, callbackScript="/opt/hooks/gate")

    def occupy_behind_the_gate(self, kind, places, begin):
        """One service after the other, in whatever order they come after `begin`."""
        gate, waiting = self.device.host(self.GATE), set(places)
        open(f"{gate}/closed", "wb").close()
        begin()
        while waiting:
            entered = wait_until(lambda: [name for name in waiting if os.path.exists(f"{gate}/entered.w{name}")], 10)
            self.assertTrue(entered, self.device.log_text()[-2000:])
            waiting.remove(entered[0])
            self.plant(kind, self.place(entered[0]))
            if not waiting:
                os.unlink(f"{gate}/closed")
            open(f"{gate}/go.w{entered[0]}", "wb").close()
        self.assertTrue(wait_until(lambda: not os.listdir(gate), 5))

    @staticmethod
    def place(name):
        return f"{PIPES}/w{name}/w{name}.{name}"

    def with_each(self, attack):
        """On the same device, and a daemon that has not seen the last one."""
        self.run_services()
        for kind in self.KINDS:
            with self.subTest(kind=kind):
                self.start_afresh()
                attack(kind)
                self.assert_all_serve()

    def start_afresh(self):
        self.crash()
        self.device.start()
        for name in self.PLACES:
            self.assert_comes_back(f"w{name}")

    def test_before_a_start(self):
        self.with_each(self.attack_a_start)

    def attack_a_start(self, kind):
        self.crash()
        self.occupy_behind_the_gate(kind, self.PLACES, lambda: self.device.start(ready=False))
        self.device.wait_ready()

    def test_at_a_reload(self):
        self.with_each(self.attack_a_reload)

    def attack_a_reload(self, kind):
        for name in ("in", "lock"):
            # It is not removed at a reload, since the requester holds it.
            if name == "lock":
                self.take_away(name)
            channel, request = self.device.channel(f"w{name}"), f"tester\tw{name}\tconfig\treload"
            self.occupy_behind_the_gate(kind, [name], partial(channel.send, request))

    def test_while_it_runs(self):
        self.with_each(self.attack_a_running_one)

    def attack_a_running_one(self, kind):
        for name in self.PLACES:
            self.take_away(name, "moved")
            self.plant(kind, self.place(name))
        # Through the fifo that the daemon still reads: behind this request it looks at the path again.
        with acting_as(MEMBER):
            end = os.open(self.device.host(self.place("in") + ".moved"), os.O_WRONLY | os.O_NONBLOCK)
            os.write(end, b"tester\twin\tconfig\tstatus")
            os.close(end)

    def test_all_the_time_at_a_start_that_succeeds_nevertheless(self):
        self.run_services()
        for kind in self.KINDS:
            with self.subTest(kind=kind):
                self.crash()
                for name in self.PLACES:
                    self.take_away(name)
                paths = [self.device.host(self.place(name)) for name in self.PLACES]
                with self.hostile("plant", "20", "0", kind, *paths) as planter:
                    self.device.start()
                    self.assert_serves()
                    self.assertGreater(planter.stop(), 0)
                self.assert_unharmed()

    def take_away(self, name, ending=""):
        path = self.device.host(self.place(name))
        with acting_as(MEMBER), contextlib.suppress(FileNotFoundError):
            os.rename(path, f"{path}.{ending or time.monotonic_ns()}")

    def assert_all_serve(self):
        """Those in whose way something stands may need it taken away by him who put it there."""
        for name in self.PLACES:
            # An output is the requester's to make: what stands there keeps only him from it.
            if name == "out" or not self.is_answered_soon(name):
                self.take_what_is_his(name)
            self.assert_comes_back(f"w{name}")
        self.assert_serves()
        self.assert_unharmed()

    def take_what_is_his(self, name):
        path = self.device.host(self.place(name))
        if os.path.lexists(path) and os.lstat(path).st_uid == MEMBER_ID:
            self.take_away(name)

    def is_answered_soon(self, name):
        with contextlib.suppress(AssertionError):
            self.assert_comes_back(f"w{name}", within=2)
            return True
        return False


if __name__ == "__main__":
    main()
