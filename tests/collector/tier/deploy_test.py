#!/usr/bin/env python3
"""deploy/'s configurations do what their comments say, with the real programs behind them."""
import http.client
import os
import socket
import ssl
import subprocess
import threading
import unittest

import support
from support import tier

REPORT = os.environ["QUENOR_REPORT"]


class Deaf:
    """In a collector's place: reads what comes and closes, as one that is killed at that moment."""

    def __init__(self):
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.requests = 0
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        while True:
            try:
                link = self.listener.accept()[0]
            except OSError:
                return
            with link:
                self.requests += link.recv(100_000).startswith(b"POST")


class DeployTest(support.Case):
    def start_nginx(self, collectors, more=()):
        nginx = tier.Nginx(self.folder, collectors, more)
        self.addCleanup(nginx.kill)
        nginx.start()
        return nginx

    def link(self, nginx):
        context = ssl.create_default_context(cafile=nginx.cert)
        link = http.client.HTTPSConnection("127.0.0.1", nginx.port, context=context,
                                           timeout=support.PATIENCE_S)
        self.addCleanup(link.close)
        return link

    def test_channels_through_tls(self):
        self.start_nodes(1)
        self.make_stream()
        collectors = [self.start_collector(), self.start_collector()]
        nginx = self.start_nginx(collectors)
        senders = []
        for number in range(4):
            lines = "".join(f"c{number}-{line:04d} text\n" for line in range(100))
            command = [REPORT, "send", "--url", f"https://127.0.0.1:{nginx.port}/app", "--cacert", nginx.cert,
                       "--send-now", "--cache", "none", "--lines"]
            senders.append(subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                            stderr=subprocess.STDOUT, text=True))
            senders[-1].stdin.write(lines)
            senders[-1].stdin.close()
        for sender in senders:
            text = sender.stdout.read()
            self.assertEqual(0, sender.wait(), text)
            sender.stdout.close()
        self.assertEqual(sorted(f"c{number}-{line:04d}" for number in range(4) for line in range(100)),
                         sorted(self.stored()))
        for collector in collectors:
            self.assertLess(0, collector.metric("reports_stored_total"), "both have work")

    def test_what_nginx_answers_itself(self):
        self.start_nodes(1)
        self.make_stream()
        collector = self.start_collector()
        nginx = self.start_nginx([collector])
        link = self.link(nginx)
        for path in ("/metrics", "/readyz"):
            link.request("GET", path)
            answer = link.getresponse()
            answer.read()
            self.assertEqual(404, answer.status, path)
        link.putrequest("POST", "/app")
        link.putheader("Content-Length", str(65 << 20))
        link.endheaders()
        self.assertEqual(413, link.getresponse().status)
        context = ssl.create_default_context(cafile=nginx.cert)
        for text in (b"POST /app HTTP/1.1\r\nHost: a\r\nContent-Length: x\r\n\r\n",
                     b"GET /app HTTP/1.1\r\nHost: a\r\nX: " + b"x" * 40_000 + b"\r\n\r\n", b"\x00\r\n\r\n"):
            with socket.create_connection(("127.0.0.1", nginx.port), timeout=support.PATIENCE_S) as plain:
                with context.wrap_socket(plain, server_hostname="localhost") as secure:
                    secure.sendall(text)
                    self.assertEqual(b"400", secure.recv(100).split()[1], text[:40])
        self.assertEqual(0, self.nodes[0].state("REPORTS")["state"]["messages"])

    def test_who_is_too_slow(self):
        """nginx closes the connection without a word, and the collector has heard of nothing."""
        self.start_nodes(1)
        self.make_stream()
        collector = self.start_collector()
        nginx = self.start_nginx([collector], {"client_header_timeout 10s": "client_header_timeout 1s",
                                               "client_body_timeout 60s": "client_body_timeout 1s"})
        context = ssl.create_default_context(cafile=nginx.cert)
        for text in (b"POST /app HTTP/1.1\r\nHost: a\r\n",
                     b"POST /app HTTP/1.1\r\nHost: a\r\nContent-Length: 9\r\n\r\nabc"):
            with socket.create_connection(("127.0.0.1", nginx.port), timeout=support.PATIENCE_S) as plain:
                with context.wrap_socket(plain, server_hostname="localhost") as secure:
                    secure.sendall(text)
                    self.assertEqual(b"", secure.recv(1000), text)
        self.assertEqual(0, collector.metric("reports_held"))
        self.assertEqual(0, self.nodes[0].state("REPORTS")["state"]["messages"])

    def test_post_goes_to_one_collector(self):
        self.start_nodes(1)
        self.make_stream()
        collector = self.start_collector()
        deaf = Deaf()
        self.addCleanup(deaf.listener.close)
        nginx = self.start_nginx([deaf, collector])
        answers = []
        for number in range(8):
            link = self.link(nginx)
            link.request("POST", "/app", f"{number} x")
            answer = link.getresponse()
            answer.read()
            answers.append(answer.status)
        self.assertEqual({200, 502}, set(answers))
        self.assertEqual(answers.count(502), deaf.requests)
        self.assertEqual([str(n) for n in range(8) if answers[n] == 200], self.stored())

    def test_collector_that_is_gone_has_had_nothing(self):
        self.start_nodes(1)
        self.make_stream()
        collectors = [self.start_collector(), self.start_collector()]
        nginx = self.start_nginx(collectors)
        collectors[0].kill()
        for number in range(8):
            link = self.link(nginx)
            link.request("POST", "/app", f"{number} x")
            answer = link.getresponse()
            answer.read()
            self.assertEqual(200, answer.status)
        self.assertEqual([str(n) for n in range(8)], self.stored())


if __name__ == "__main__":
    unittest.main()
