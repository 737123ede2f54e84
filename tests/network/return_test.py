#!/usr/bin/env python3
"""A network that comes back, or becomes another one: how soon the next message arrives, with and
without being told, and what a watch costs while nothing changes."""
import os
import time

import support
from support import FULL, say, wait_until

OUTAGE_S = 60 if FULL else 4
NAME = "collector.test"


class ReturnTest(support.Case):
    def setUp(self):
        super().setUp()
        self.need_namespaces()
        support.make_certificates(self.folder, ["DNS:" + NAME])
        self.home = self.namespace("home")
        self.away = self.namespace("away")
        self.link = self.wire(self.home, self.away)
        self.link.address(self.home, "10.77.0.1/16")
        self.link.address(self.away, "10.77.1.1/16")
        self.home.set_hosts({NAME: "10.77.1.1"})
        self.judge = self.collector(self.away, "10.77.1.1")

    def arrived(self):
        return len(self.judge.records())

    def start(self, watch, name="application"):
        host = self.application(self.judge.url(NAME), namespace=self.home, name=name)
        if watch:
            self.assertTrue(host.do("watch on").startswith("ok"))
        host.do("start")
        before = self.arrived()
        host.do("send 1")
        wait_until(lambda: self.arrived() == before + 1, "the first message has arrived")
        return host

    def link_goes(self, up):
        self.home.run("ip", "link", "set", self.link.DEVICE, "up" if up else "down")

    def hole_opens(self, up):
        self.link.is_dead = not up

    def test_after_an_outage(self):
        seconds = {}
        for outage, switch in (("link", self.link_goes), ("hole", self.hole_opens)):
            for notice in (("none", "watch", "told") if outage == "link" else ("none", "told")):
                with self.subTest(outage, notice=notice):
                    host = self.start(notice == "watch", f"{outage}-{notice}")
                    before = self.arrived()
                    switch(False)
                    host.do("send 3")
                    time.sleep(OUTAGE_S)
                    self.assertEqual(before, self.arrived(), "the outage was none")
                    switch(True)
                    back = time.monotonic()
                    if notice == "told":
                        host.do("changed")
                    wait_until(lambda: self.arrived() > before, "one has arrived")
                    seconds[outage, notice] = time.monotonic() - back
                    wait_until(lambda: host.counts()["acknowledged"] == 4, "all have arrived")
                    counts = host.counts()
                    say(f"after_an_outage: {OUTAGE_S} s, {outage}, notice {notice}: first after "
                        f"{seconds[outage, notice]:.2f} s, failed={counts['failed']} "
                        f"dropped={counts['dropped']}")
                    self.assertEqual(0, counts["dropped"] + counts["refused"])
                    self.assertEqual(0, host.finish())

    def test_address_that_goes_away(self):
        host = self.start(watch=True)
        host.do("send 1")
        wait_until(lambda: self.arrived() == 2, "the second has arrived")
        self.link.is_dead = True  # Its answer would not come.
        host.do("send 1")
        wait_until(lambda: host.counts()["sent"] == 3, "the third is on its way")
        # At once: between the two a message would be sent, and fail.
        changes = os.path.join(self.folder, "changes")
        with open(changes, "w") as file:
            file.write(f"addr del 10.77.0.1/16 dev {self.link.DEVICE}\naddr add 10.77.0.2/16 dev {self.link.DEVICE}\n")
        self.home.run("ip", "-batch", changes)
        self.link.is_dead = False
        gone = time.monotonic()

        wait_until(lambda: self.arrived() == 3, "the third has arrived from another address")

        say(f"address_that_goes_away: arrived after {time.monotonic() - gone:.2f} s, "
            f"failed={host.counts()['failed']}")
        self.assertEqual(1, host.counts()["failed"])
        self.assertEqual(0, host.finish())

    # Routes to anywhere but everywhere, addresses whose life is prolonged: no change.
    def test_nothing_changes(self):
        host = self.start(watch=True)
        port = self.judge.port
        self.assertEqual(1, support.connections_of(host.pid, port))

        def switches():
            return sum(sum(counts) for name, counts in support.switches_of(host.pid).items()
                       if name.startswith("quenor-http"))

        time.sleep(1)  # The watch over the I/O thread ends.
        before = switches()
        time.sleep(3)
        at_rest = switches() - before
        self.home.run("sh", "-c", "for i in $(seq 1 100); do "
                      f"ip route add 10.99.$i.0/24 dev {self.link.DEVICE}; done; "
                      "for i in $(seq 1 100); do ip addr change 10.77.0.1/16 dev "
                      f"{self.link.DEVICE} valid_lft 10000 preferred_lft 10000; done")
        messages = switches() - before - at_rest
        say(f"nothing_changes: switches at rest {at_rest}, for 200 messages {messages}")
        # A default route that is there: its renewal is no change, once it has been told of.
        replace = ("ip", "route", "replace", "default", "dev", self.link.DEVICE)
        self.home.run(*replace)
        time.sleep(0.5)
        host.do("send 1")
        wait_until(lambda: self.arrived() == 2, "the one behind the new route has arrived")
        opened = self.link.opened[f"tcp 10.77.1.1:{port}"]
        self.home.run(*replace)
        time.sleep(0.5)
        self.assertEqual(0, at_rest)
        self.assertLess(messages, 100, "a burst is looked at once in a while")
        host.do("send 1")
        wait_until(lambda: self.arrived() == 3, "the third has arrived")
        self.assertEqual(opened, self.link.opened[f"tcp 10.77.1.1:{port}"])
        self.assertEqual(0, host.finish())


if __name__ == "__main__":
    support.main()
