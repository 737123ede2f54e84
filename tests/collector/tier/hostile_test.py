#!/usr/bin/env python3
"""Senders that are none: a collector with a store serves others meanwhile, and keeps nothing of them."""
import contextlib
import os
import random
import resource
import signal
import socket
import struct
import threading
import unittest

import support
from support import wait_for
from tier_test import post


def resident_kb(process):
    with open(f"/proc/{process.pid}/status") as file:
        return next(int(line.split()[1]) for line in file if line.startswith("VmRSS:"))


class Swallower(threading.Thread):
    """A store that answers nothing, and ends each connection when it has got so many bytes of reports over it."""
    host = "127.0.0.1"
    rounds = 0

    def __init__(self, report_bytes):
        super().__init__(daemon=True)
        self.report_bytes = report_bytes
        self.server = socket.create_server((self.host, 0))
        self.port = self.server.getsockname()[1]

    def run(self):
        with contextlib.suppress(OSError):  # The test's end.
            while True:
                link, _ = self.server.accept()
                with link, contextlib.suppress(ConnectionError):
                    self.serve(link)

    def serve(self, link):
        link.sendall(b'INFO {"server_id":"a","version":"2.9.10","headers":true,"max_payload":8388608}\r\n')
        left = self.report_bytes
        with link.makefile("rb") as file:
            while left > 0:
                words = file.readline().split()
                if not words:
                    return
                if words[0] == b"PING":
                    link.sendall(b"PONG\r\n")
                elif words[0] in (b"PUB", b"HPUB"):
                    file.read(int(words[-1]) + 2)
                    left -= int(words[-1]) if words[1] == b"REPORTS.report" else 0
        self.rounds += 1


class FlappingTest(support.Case):
    def test_reports_are_kept_once_however_often_the_store_goes(self):
        reports, size, rounds = 32, 500_000, 20
        store = Swallower(reports * size)
        self.addCleanup(store.server.close)
        store.start()
        self.nodes = [store]
        collector = self.start_collector("--hold", "40s", "--ack-wait", "20s")
        collector.wait_state("ready")
        before = resident_kb(collector.process)
        for _ in range(reports):
            link = socket.create_connection(("127.0.0.1", collector.port), timeout=support.PATIENCE_S)
            self.addCleanup(link.close)
            link.sendall(b"POST /a HTTP/1.1\r\nHost: a\r\nContent-Length: %d\r\n\r\n" % size + b"x" * size)
        wait_for("its reports again and again", lambda: store.rounds >= rounds)
        # A sanitizer keeps what is freed for a while.
        if not os.environ.get("QUENOR_SANITIZED"):
            self.assertLess(resident_kb(collector.process) - before, 6 * reports * size // 1024)
        self.assertEqual(reports, collector.metric("reports_held"))


class HostileTest(support.Case):
    def setUp(self):
        super().setUp()
        self.start_nodes(1)
        self.make_stream()

    def start(self, *options):
        self.collector = self.start_collector(*options)
        self.collector.wait_state("ready")

    def connect(self):
        link = socket.create_connection(("127.0.0.1", self.collector.port), timeout=support.PATIENCE_S)
        self.addCleanup(link.close)
        return link

    def assert_serves(self):
        self.assertEqual(200, post(self.collector, b"a report")[0])

    def assert_ends_in_order(self):
        """With a sanitizer: and has lost no memory."""
        self.collector.process.send_signal(signal.SIGTERM)
        code, _ = self.collector.end()
        self.assertEqual(0, code, self.collector.said())

    def messages(self):
        return self.nodes[0].state("REPORTS")["state"]["messages"]

    def test_body_without_end(self):
        """Chunks for ever end at four times the limit, and are not kept meanwhile."""
        self.start("--max-body", "1MiB")
        self.assert_serves()
        before = resident_kb(self.collector.process)
        link = self.connect()
        link.sendall(b"POST /a HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n")
        chunk = b"10000\r\n" + b"x" * 65536 + b"\r\n"
        sent = 0
        with self.assertRaises((ConnectionResetError, BrokenPipeError)):
            while sent < 100 << 20:
                link.sendall(chunk)
                sent += 65536
        self.assertLess(resident_kb(self.collector.process) - before, 8 << 10)
        self.assert_serves()
        self.assertEqual(2, self.messages())

    def test_hundred_megabytes_announced(self):
        self.start("--max-body", "1MiB")
        link = self.connect()
        link.sendall(b"POST /a HTTP/1.1\r\nHost: a\r\nContent-Length: 104857600\r\n\r\n" + b"x" * 100_000)
        self.assertEqual(b"413", link.recv(1000).split()[1])
        self.assert_serves()
        self.assertEqual(1, self.messages())

    def test_many_connections(self):
        """Each of them begun: idle, in its head, in its body. As many as this user may have, at most 10,000."""
        soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
        self.addCleanup(resource.setrlimit, resource.RLIMIT_NOFILE, (soft, hard))
        count = min(10_000, hard - 500)
        self.start()
        links = []
        self.addCleanup(lambda: [link.close() for link in links])
        beginnings = (b"", b"POST /a HTTP/1.1\r\nHost:", b"POST /a HTTP/1.1\r\nHost: a\r\nContent-Length: 50\r\n\r\nx")
        for number in range(count):
            link = socket.create_connection(("127.0.0.1", self.collector.port), timeout=support.PATIENCE_S)
            link.sendall(beginnings[number % 3])
            links.append(link)
        wait_for("connections", lambda: self.collector.metric("connections_open") > count)
        self.assert_serves()
        # A sanitizer's shadow is two to four times as large as what it watches.
        self.assertLess(resident_kb(self.collector.process), (1600 if os.environ.get("QUENOR_SANITIZED") else 400) << 10)
        while links:
            links.pop().close()
        wait_for("their end", lambda: self.collector.metric("connections_open") < 10)
        self.assertEqual(1, self.messages())
        self.assert_ends_in_order()

    def test_sender_that_leaves_before_the_answer(self):
        """Its report is stored all the same, and its connection is not touched any more."""
        self.start()
        self.nodes[0].pause()
        links = [self.connect() for _ in range(100)]
        for number, link in enumerate(links):
            link.sendall(b"POST /a HTTP/1.1\r\nHost: a\r\nContent-Length: 5\r\n\r\n%05d" % number)
        wait_for("all", lambda: self.collector.metric("reports_held") == 100)
        for link in links:  # A reset, not an orderly end.
            link.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            link.close()
        self.nodes[0].go_on()
        wait_for("none", lambda: self.collector.metric("reports_held") == 0)
        self.assert_serves()
        self.assertEqual(101, self.messages())
        self.assert_ends_in_order()

    def test_rubbish(self):
        self.start()
        seed = int(os.environ.get("QUENOR_TEST_SEED", "1"))
        print(f"seed {seed}")
        draw = random.Random(seed)
        good = b"POST /a?b HTTP/1.1\r\nHost: a\r\nContent-Length: 3\r\nExpect: 100-continue\r\n\r\nabc"
        for _ in range(300):
            text = bytearray(good)
            for _ in range(draw.randint(1, 8)):
                at = draw.randrange(len(text))
                text[at:at + draw.randint(0, 3)] = draw.randbytes(draw.randint(0, 3))
            with socket.create_connection(("127.0.0.1", self.collector.port)) as link:
                link.sendall(text)
        self.assert_serves()
        self.assert_ends_in_order()


if __name__ == "__main__":
    unittest.main()
