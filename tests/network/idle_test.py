#!/usr/bin/env python3
"""Channels at rest, with their connections open, wake nobody; and what each one costs."""
import os, socket, time

import support
from support import say, wait_until

MOST_CONNECTIONS = 6  # To one host, under either protocol.


class IdleTest(support.Case):
    def setUp(self):
        super().setUp()
        support.make_certificates(self.folder, ["DNS:localhost", "IP:127.0.0.1"])

    def server(self):
        """The URL of a server that speaks HTTP/2, and its port."""
        placeholder = socket.socket()  # Keeps the port for it.
        placeholder.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        placeholder.bind(("127.0.0.1", 0))
        self.ending(placeholder, "close")
        port = placeholder.getsockname()[1]
        self.nginx("127.0.0.1", port, "return 200 '{}';")
        return f"https://127.0.0.1:{port}/", port

    def switches(self, app):
        """Of the threads that are ours: the host's main and a sanitizer's are not."""
        return {name: count for name, count in support.switches_of(app.pid).items()
                if name.startswith(("quenor-http ", "app-"))}

    def at_rest(self, app):
        """The switches of a process that has come to rest."""
        def twice_the_same():
            before = self.switches(app)
            time.sleep(0.5)
            return before if self.switches(app) == before else None
        return wait_until(twice_the_same, "the process rests", 30)

    def measure(self, channels, seconds, http2):
        if http2:
            url, port = self.server()
        else:
            server = self.collector(options=["--idle-timeout", "3600"], name=f"for-{channels}")
            url, port = server.url("127.0.0.1"), server.port
        app = self.application(url, channels=channels, cache=True, http2=http2,
                               name=f"app-{channels}")
        app.do("start")
        app.do("send 1")
        app.do(f"wait acknowledged {channels}")
        before = self.at_rest(app)
        time.sleep(seconds)
        after = self.switches(app)
        cost = {"threads": len(support.threads_of(app.pid)),
                "descriptors": support.descriptors_of(app.pid),
                "private_dirty_kb": support.private_dirty_kb(app.pid)}
        connections = support.connections_of(app.pid, port)
        say(f"{self._testMethodName}: {channels} channels, {seconds} s idle: "
            f"{sum(before[name] != after.get(name) for name in before)} of {len(before)} threads "
            f"switched; connections={connections} " +
            " ".join(f"{name}={value}" for name, value in cost.items()))
        self.assertEqual(channels + 1, len(before))
        self.assertEqual(before, after, "somebody was woken")
        self.assertGreaterEqual(connections, 1, "no connection was open")
        self.assertLessEqual(connections, 1 if http2 and channels == 1 else MOST_CONNECTIONS)
        self.assertEqual(0, app.finish())
        return cost

    def measure_all(self, counts, seconds, http2):
        costs = [(count, self.measure(count, seconds, http2)) for count in counts]
        for (few, less), (many, more) in zip(costs, costs[1:]):
            each = {name: (more[name] - less[name]) / (many - few) for name in more}
            say(f"{self._testMethodName}: each further channel, from {few} to {many}: " +
                " ".join(f"{name}={value:.2f}" for name, value in each.items()))
            self.assertLessEqual(each["threads"], 1)
            # What the first few connections bring is no channel's.
            self.assertLessEqual(each["descriptors"] * (many - few),
                                 3 * (many - few) + MOST_CONNECTIONS)

    def test_http1(self):
        self.measure_all([1, 10], 3, http2=False)

    def test_http2(self):
        self.measure_all([1, 10], 3, http2=True)

    def test_http1_long(self):
        self.measure_all([1, 10, 100], 20, http2=False)

    def test_http2_long(self):
        self.measure_all([1, 10, 100], 20, http2=True)


if __name__ == "__main__":
    support.main()
