#!/usr/bin/env python3
"""With a proxy set, nothing but connections to the proxy leaves the namespace, whatever happens."""
import time

import proxies, support
from proxies import FIRST, NAME, NAME_SERVER, SECOND, SERVER
from support import FULL, say, sha256, wait_until

COUNT = 200 if FULL else 20
PORT = 1080  # The namespace's own: nobody else's.


class ProxyTest(proxies.ProxyCase):
    def setUp(self):
        super().setUp()
        reason = proxies.why_missing("microsocks")
        if reason:
            self.skipTest(reason)
        self.judge = self.collector(self.away, SERVER)
        self.url = self.judge.url(NAME)

    def proxy(self, address):
        child = support.Child(["microsocks", "-i", address, "-p", str(PORT), "-b", address],
                              self.away, self.folder + "/proxy.output")
        self.ending(child, "kill")
        wait_until(lambda: support.has_listener(address, PORT, self.away), "the proxy listens")
        return child

    def check_arrived(self, bodies):
        accepted = self.judge.accepted()
        duplicates = sum(accepted.values()) - len(accepted)
        say(f"{self._testMethodName}: messages={len(bodies)} "
            f"lost={len(bodies - set(accepted))} duplicates={duplicates}")
        self.assertEqual(bodies, set(accepted))
        return duplicates

    def test_nothing_passes_the_proxy_by(self):
        self.proxy(FIRST)
        sender = self.sender(self.url, namespace=self.home, options=["--socks5", f"{FIRST}:{PORT}"])
        sender.send(b"message %d" % i for i in range(COUNT))
        counts = sender.finish()

        self.assertEqual(counts["delivered"], COUNT, sender.said)
        self.check_arrived({sha256(body) for body in sender.handed_over})
        self.check_only(f"{FIRST}:{PORT}")

    def test_without_a_proxy_the_wire_sees_the_name_server_asked(self):
        sender = self.sender(self.url, namespace=self.home)
        sender.send([b"message"])

        wait_until(lambda: self.link.sent[f"udp {NAME_SERVER}:53"], "the name server is asked")
        say(f"{self._testMethodName}: packets by destination: {dict(self.link.sent)}")

    def test_proxy_that_is_down_is_never_bypassed(self):
        proxy = self.proxy(FIRST)
        # Here both the name and the server could be reached without the proxy.
        self.home.set_hosts({NAME: SERVER})
        app = self.application(self.url, cache=True, namespace=self.home)
        app.do(f"proxy {FIRST} {PORT}")
        app.do("start")
        app.do("send 5")
        app.do("wait acknowledged 5")
        self.check_only(f"{FIRST}:{PORT}", moment=" up")
        proxy.kill()
        app.do(f"send {COUNT - 6}")
        app.do(f"wait failed {COUNT - 6}")
        self.assertEqual(5, len(self.judge.accepted()))
        self.check_only(f"{FIRST}:{PORT}", moment=" down")
        self.proxy(FIRST)
        app.do("send 1")
        app.do(f"wait acknowledged {COUNT}")
        counts = app.counts()
        self.assertEqual(0, app.finish())

        self.check_only(f"{FIRST}:{PORT}", moment=" up again")
        bodies = {sha256(f"app-0/{i}/{'x' * (i % 200)}".encode()) for i in range(COUNT)}
        self.assertLessEqual(self.check_arrived(bodies), counts["failed"])

    def test_changed_proxy_takes_effect_with_the_next_client(self):
        self.proxy(FIRST)
        self.proxy(SECOND)
        app = self.application(self.url, namespace=self.home)

        def send_five(moment):
            """Which proxies the five came through; each proxy speaks from its own address."""
            before = len(self.judge.records())
            app.do("send 5")
            app.do(f"wait acknowledged {before + 5}")
            peers = [record["peer"].split(":")[0] for record in self.judge.records()[before:]]
            say(f"{self._testMethodName} {moment}: came through {peers}")
            return peers

        app.do(f"proxy {FIRST} {PORT}")
        app.do("start")
        self.assertEqual([FIRST] * 5, send_five("at first"))
        app.do(f"proxy {SECOND} {PORT}")
        self.assertEqual([FIRST] * 5, send_five("with the old client"))
        self.check_only(f"{FIRST}:{PORT}", moment=" with the old client")
        app.do("restart")
        self.assertEqual([SECOND] * 5, send_five("after a restart"))
        if FULL:  # A channel at rest lets its client go after a minute.
            app.do(f"proxy {FIRST} {PORT}")
            time.sleep(65)
            self.assertEqual([FIRST] * 5, send_five("after a minute at rest"))
        self.assertEqual(0, app.finish())
        # Connections of the client that has gone may say goodbye.
        self.check_only(f"{FIRST}:{PORT}", f"{SECOND}:{PORT}", moment=" afterwards")


if __name__ == "__main__":
    support.main()
