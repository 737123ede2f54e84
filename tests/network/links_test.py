#!/usr/bin/env python3
"""Every message arrives over a bad link, in namespaces with a wire between them."""
import os, time

import support
from support import FULL, RESEND_LIMIT, say, sha256, wait_until

COUNT = 200 if FULL else 20
NAME = "collector.test"


class LinksTest(support.Case):
    def setUp(self):
        super().setUp()
        self.need_namespaces()
        support.make_certificates(self.folder, ["DNS:" + NAME])
        self.seed = int(os.environ.get("QUENOR_TEST_SEED", "7"))

    def make_link(self, ipv6=False):
        self.home = self.namespace("home", ipv6)
        self.away = self.namespace("away", ipv6)
        self.link = self.wire(self.home, self.away, self.seed)
        # On one network: an address that nobody has is silent, as that of a host that is gone.
        addresses = ("fd77::1/64", "fd77::2/64") if ipv6 else ("10.77.0.1/16", "10.77.1.1/16")
        self.link.address(self.home, addresses[0])
        self.link.address(self.away, addresses[1])
        host = addresses[1].split("/")[0]
        self.home.set_hosts({NAME: host})
        self.judge = self.collector(self.away, f"[{host}]" if ipv6 else host)
        self.started = time.monotonic()

    def messages(self, count, size=100):
        return [f"{self._testMethodName} {i} ".encode().ljust(size, b".") for i in range(count)]

    def connect(self):
        return self.sender(self.judge.url(NAME), namespace=self.home)

    def arrived(self):
        return len(self.judge.accepted())

    def finish(self, sender, judges=()):
        counts = sender.finish()
        accepted = sum((judge.accepted() for judge in judges), self.judge.accepted())
        expected = {sha256(message) for message in sender.handed_over}
        duplicates = sum(accepted.values()) - len(accepted)
        say(f"{self._testMethodName}: messages={len(expected)} arrived={len(accepted)} "
            f"lost={len(expected - set(accepted))} duplicates={duplicates} "
            f"failed_attempts={counts['failed_attempts']} resend_limit={RESEND_LIMIT} "
            f"seconds={time.monotonic() - self.started:.1f} packets_carried={self.link.carried} "
            f"packets_lost={self.link.lost} seed={self.seed}")
        self.assertEqual(set(accepted), expected, sender.said)
        self.assertEqual((counts["delivered"], counts["dropped"], counts["left"]),
                         (len(sender.handed_over), 0, 0), sender.said)
        # A message comes again only after an attempt whose answer did not arrive.
        self.assertLessEqual(duplicates, counts["failed_attempts"], sender.said)
        return counts

    def test_delay_and_loss(self):
        self.make_link()
        self.link.delay_s, self.link.loss = 0.3, 0.1
        sender = self.connect()
        sender.send(self.messages(COUNT))
        self.finish(sender)
        self.assertGreater(self.link.lost, 0)

    def test_narrow(self):
        self.make_link()
        self.link.bits_per_s = 64000
        size = 1000
        sender = self.connect()
        sender.send(self.messages(COUNT, size))
        self.finish(sender)
        seconds = time.monotonic() - self.started
        self.assertGreater(seconds, COUNT * size * 8 / 64000, "the link was not narrow")

    def interrupt(self, off, on, seconds):
        """Half of the messages before the interruption, a quarter in it, a quarter after it."""
        sender = self.connect()
        messages = self.messages(COUNT)
        sender.send(messages[:COUNT // 2])
        wait_until(lambda: self.arrived() >= COUNT // 4, "some have arrived")
        off()
        sender.send(messages[COUNT // 2:COUNT * 3 // 4])
        time.sleep(seconds)
        before = self.arrived()
        self.assertLess(before, COUNT * 3 // 4, "the interruption interrupted nothing")
        on()
        sender.send(messages[COUNT * 3 // 4:])
        self.finish(sender)

    def test_down_and_up(self):
        self.make_link()
        device = self.link.DEVICE
        self.interrupt(lambda: self.home.run("ip", "link", "set", device, "down"),
                       lambda: self.home.run("ip", "link", "set", device, "up"), 60 if FULL else 3)

    def test_blackhole(self):
        self.make_link()
        self.interrupt(lambda: setattr(self.link, "is_dead", True),
                       lambda: setattr(self.link, "is_dead", False), 40 if FULL else 3)
        self.assertGreater(self.link.lost, 0)

    def test_ipv6_only(self):
        self.make_link(ipv6=True)
        self.assertEqual("", self.home.run("ip", "-4", "addr", "show", "dev", self.link.DEVICE))
        sender = self.connect()
        sender.send(self.messages(COUNT))
        self.finish(sender)
        self.assertTrue(all(key.split()[1].startswith("[") for key in self.link.sent))

    def test_address_changes(self):
        self.make_link()
        sender = self.connect()
        messages = self.messages(COUNT)
        sender.send(messages[:COUNT // 2])
        wait_until(lambda: self.arrived() == COUNT // 2, "the first half has arrived")
        old = self.judge
        if FULL:  # It falls silent, with connections open.
            self.away.run("ip", "addr", "del", "10.77.1.1/16", "dev", self.link.DEVICE)
            old.kill()
        else:  # It says goodbye, and the old address is known to be gone.
            old.stop()
            self.away.run("ip", "addr", "del", "10.77.1.1/16", "dev", self.link.DEVICE)
            self.home.run("ip", "route", "add", "unreachable", "10.77.1.1/32")
        self.link.address(self.away, "10.77.2.2/16")
        self.judge = support.Collector(self.folder, self.away, "10.77.2.2", name="moved")
        self.judge.port = old.port
        self.ending(self.judge, "kill").start()
        self.home.set_hosts({NAME: "10.77.2.2"})
        moved = time.monotonic()
        sender.send(messages[COUNT // 2:])
        # Sooner than an answer that is kept for a minute would let it.
        wait_until(lambda: self.arrived() > 0, "one has arrived at the new address", 50)
        say(f"the new address was found after {time.monotonic() - moved:.1f} s")
        self.finish(sender, [old])


if __name__ == "__main__":
    support.main()
