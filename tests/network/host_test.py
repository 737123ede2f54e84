#!/usr/bin/env python3
"""What is the host's stays the host's: its own use of libcurl, its signals."""
import os, signal

import support
from support import say

# All but SIGKILL, SIGSTOP and the two that the C library keeps for itself.
ALL_BLOCKED = 0xfffffffe7ffbfeff


class HostTest(support.Case):
    def setUp(self):
        super().setUp()
        support.make_certificates(self.folder, ["DNS:localhost", "IP:127.0.0.1"])
        self.server = self.collector()
        self.acknowledged = 0
        url = self.server.url("localhost")
        self.health = url.replace("/reports", "/healthz")
        self.app = self.application(url, channels=2)

    def send(self, count=5):
        self.app.do(f"send {count}")
        self.acknowledged += 2 * count
        self.app.do(f"wait acknowledged {self.acknowledged}")

    def host_gets(self):
        self.assertEqual("status=200", self.app.do(f"curl-get {self.health}"))

    def finish(self):
        counts = self.app.counts()
        say(f"{self._testMethodName}: {counts}")
        self.assertEqual((self.acknowledged, 0), (counts["acknowledged"], counts["failed"]))
        self.assertEqual(self.acknowledged, sum(self.server.accepted().values()))
        self.assertEqual(0, self.app.finish(), open(self.app.errors).read())

    def test_libcurl_is_initialised_by_the_host_before(self):
        self.app.do("curl-init")
        self.host_gets()
        self.app.do("start")
        self.send()
        self.host_gets()
        self.app.do("curl-cleanup")
        self.send()
        self.finish()

    def test_libcurl_is_initialised_by_the_host_after(self):
        self.app.do("start")
        self.send()
        self.app.do("curl-init")
        self.host_gets()
        self.send()
        self.app.do("curl-cleanup")
        self.send()
        self.finish()

    def test_libcurl_is_cleaned_up_by_the_host_in_between(self):
        self.app.do("curl-init")
        self.host_gets()
        self.app.do("curl-cleanup")  # Nobody uses it any more.
        self.app.do("start")
        self.send()
        for _ in range(3):
            self.app.do("curl-init")
            self.host_gets()
            self.app.do("curl-cleanup")
            self.send()
            self.app.do("restart")
            self.send()
        self.finish()

    def test_signals_stay_as_the_host_has_set_them(self):
        app = self.app
        app.do("own-signals")
        before = app.do("signals")
        app.do("start")
        self.send()
        app.do("restart")
        self.send()
        for i in range(300):  # While channels and HTTP client work.
            os.kill(app.pid, (signal.SIGUSR1, signal.SIGCHLD, signal.SIGALRM)[i % 3])
            if i % 30 == 0:
                self.send(1)
        handled = app.do("handled")
        after = app.do("signals")

        threads = support.threads_of(app.pid)
        for number, status in sorted(threads.items()):
            say(f"{self._testMethodName}: thread {status['Name']}: blocked {status['SigBlk']}")
            if number != app.pid:
                self.assertEqual(ALL_BLOCKED, int(status["SigBlk"], 16), status["Name"])
        say(f"{self._testMethodName}: handled {handled}")
        self.assertGreaterEqual(len(threads), 4)  # Main, two queues, the HTTP client.
        self.assertEqual(before, after)
        self.assertIn("elsewhere=0", handled)
        self.assertNotIn("here=0", handled.split()[0])
        self.finish()

    def test_server_that_dies_does_not_end_a_host_without_a_handler(self):
        # SIGPIPE has its default action here, which is to end the process.
        app = self.app
        app.do("start")
        self.send()
        for _ in range(3):
            self.server.kill()
            app.do("send 5")
            self.server.start()
            app.do("send 1")
            self.acknowledged += 12
            app.do(f"wait acknowledged {self.acknowledged}")
        counts = app.counts()
        say(f"{self._testMethodName}: {counts}")
        self.assertEqual(0, app.finish(), open(app.errors).read())
        self.assertGreater(counts["failed"], 0)


if __name__ == "__main__":
    support.main()
