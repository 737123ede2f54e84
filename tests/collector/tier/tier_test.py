#!/usr/bin/env python3
"""A collector with a store: what it answers, and that all that it acknowledges is in the store."""
import base64
import hashlib
import http.client
import json
import os
import signal
import socket
import subprocess
import threading
import unittest

import support
import tier
from support import Sender, wait_for

SENDERS = 8


def post(collector, body, path="/app", headers=None):
    """(status, reply, headers)"""
    link = http.client.HTTPConnection("127.0.0.1", collector.port, timeout=support.PATIENCE_S)
    try:
        link.request("POST", path, body, headers or {})
        answer = link.getresponse()
        text = answer.read().decode()
        return answer.status, json.loads(text) if text.startswith("{") else text, answer.headers
    finally:
        link.close()


class TierTest(support.Case):
    def send(self, count, *collectors):
        senders = [Sender([each.port for each in collectors], f"s{i}", count) for i in range(SENDERS)]
        for sender in senders:
            sender.start()
        return senders

    def finish(self, senders):
        for sender in senders:
            sender.join(support.PATIENCE_S)
            self.assertFalse(sender.is_alive(), f"answers so far: {sender.answers}")
        return [each for sender in senders for each in sender.acknowledged]

    def test_each_post_is_stored_once(self):
        self.start_nodes(1)
        self.make_stream()
        collector = self.start_collector()
        collector.wait_state("ready")
        acknowledged = self.finish(self.send(125, collector))

        self.assertEqual(1000, self.nodes[0].state("REPORTS")["state"]["messages"])
        self.assertEqual(sorted(acknowledged), sorted(self.stored()))
        self.assertEqual(1000, collector.metric("reports_stored_total"))
        self.assertEqual(0, collector.metric("reports_held"))
        collector.process.send_signal(signal.SIGTERM)
        code, rest = collector.end()
        self.assertEqual(0, code)
        self.assertIn("requests=1000 stored=1000 ", rest)

    def test_headers_tell_readers_what_they_need(self):
        self.start_nodes(1)
        self.make_stream()
        collector = self.start_collector()
        body = bytes(range(256)) * 3
        for _ in range(2):
            status, reply, _ = post(collector, body, "/app%0d%0aX:%20y/reports?v=1")
            self.assertEqual((200, "success"), (status, reply["bytes_errinfo"]))

        ids = set()
        for sequence in (1, 2):
            message = self.wire().request("$JS.API.STREAM.MSG.GET.REPORTS", {"seq": sequence})["message"]
            self.assertEqual(body, base64.b64decode(message["data"]))
            lines = base64.b64decode(message["hdrs"]).decode().strip().split("\r\n")
            headers = dict(line.split(": ", 1) for line in lines[1:])
            self.assertEqual("/app%0d%0aX:%20y/reports?v=1", headers["Quenor-Path"])
            self.assertEqual(hashlib.sha256(body).hexdigest(), headers["Quenor-Sha256"])
            self.assertRegex(headers["Quenor-Time"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$")
            ids.add(headers["Quenor-Id"])
            self.assertNotIn("Nats-Msg-Id", headers, "by which the store would drop it")
        self.assertEqual(2, len(ids), "equal reports are two reports")

    def test_node_killed_in_the_middle(self):
        self.start_nodes(1)
        self.make_stream()
        collector = self.start_collector()
        collector.wait_state("ready")
        senders = self.send(250, collector)
        wait_for("reports", lambda: collector.metric("reports_stored_total") > 300)
        self.nodes[0].kill()
        collector.wait_state("connecting")
        self.nodes[0].start()
        acknowledged = self.finish(senders)

        self.assertEqual(2000, len(acknowledged))
        stored = self.stored()
        self.assertEqual(set(), set(acknowledged) - set(stored), "acknowledged and missing")
        self.assertEqual(len(set(stored)), len(stored), "stored twice")
        self.assertEqual(1, collector.metric("store_connections_total") - 1)

    def test_collector_killed_in_the_middle(self):
        self.start_nodes(1)
        self.make_stream()
        first, second = self.start_collector(), self.start_collector()
        senders = self.send(250, first, second)
        wait_for("reports", lambda: first.metric("reports_stored_total") > 200)
        first.kill()
        for sender in senders:
            sender.ports = [second.port]
        acknowledged = self.finish(senders)

        stored = self.stored()
        self.assertEqual(set(), set(acknowledged) - set(stored), "acknowledged and missing")
        self.assertLessEqual(len(stored) - len(set(stored)), SENDERS, "no more than were in flight")

    def test_store_that_is_not_there(self):
        self.start_nodes(1)
        self.make_stream()
        self.nodes[0].kill()
        collector = self.start_collector("--hold", "300ms")
        self.assertEqual((200, "ok\n"), collector.get("/healthz"))
        self.assertEqual((503, "connecting\n"), collector.get("/readyz"))

        status, reply, headers = post(collector, b"one")
        self.assertEqual((503, "the store does not answer"), (status, reply["bytes_errinfo"]))
        self.assertEqual("1", headers["Retry-After"])
        self.nodes[0].start()
        collector.wait_state("stalled")
        self.assertEqual(200, wait_for("an acknowledgement", lambda: post(collector, b"two")[0] == 200 and 200))
        collector.wait_state("ready")

    def test_stream_that_is_not_there(self):
        self.start_nodes(1)
        collector = self.start_collector("--hold", "600ms")
        self.assertEqual(503, post(collector, b"one")[0])
        self.assertLess(0, collector.metric("published_again_total"))
        self.make_stream()
        self.assertEqual(200, post(collector, b"two")[0])

    def test_full_stream(self):
        self.start_nodes(1)
        self.make_stream(max_msgs=3)
        collector = self.start_collector()
        for _ in range(3):
            self.assertEqual(200, post(collector, b"fits")[0])
        status, reply, headers = post(collector, b"does not")
        self.assertEqual((507, "the store is full", "1"),
                         (status, reply["bytes_errinfo"], headers["Retry-After"]))
        self.assertEqual((503, "full\n"), collector.get("/readyz"))
        self.wire().request("$JS.API.STREAM.PURGE.REPORTS")
        wait_for("room", lambda: post(collector, b"fits")[0] == 200)
        self.assertEqual((200, "ready\n"), collector.get("/readyz"))

    def test_what_is_never_taken_is_retired(self):
        self.start_nodes(1)
        self.make_stream(max_msg_size=2000)
        collector = self.start_collector("--path", "/app")
        for body, path, why in ((b"x" * 2500, "/app", "maximum"), (b"x" * 1_500_000, "/app?a", "payload"),
                                (b"x", "/other", "not wanted")):
            status, reply, _ = post(collector, body, path)
            self.assertEqual(200, status)
            self.assertRegex(reply["bytes_errinfo"].lower(), f"^rejected: .*{why}")
        self.assertEqual(200, post(collector, b"x", "/app?v=2")[0])
        self.assertEqual(3, collector.metric("reports_rejected_total"))
        self.assertEqual(1, self.nodes[0].state("REPORTS")["state"]["messages"])
        listed = [json.loads(line.split("rejected: ", 1)[1]) for line in collector.said().splitlines()]
        self.assertEqual([2500, 1_500_000, 1], [each["size"] for each in listed])

    def test_what_the_store_would_acknowledge_and_not_keep_is_retired(self):
        self.nodes = tier.make_nodes(self.folder, 1)
        with open(self.nodes[0].conf) as file:
            text = file.read()
        with open(self.nodes[0].conf, "w") as file:
            file.write(text.replace("max_payload: 1MB", "max_payload: 48MB"))
        self.addCleanup(self.nodes[0].kill)
        self.nodes[0].start()
        self.nodes[0].wait_ready()
        self.make_stream()
        collector = self.start_collector("--hold", "40s", "--ack-wait", "20s")
        status, reply, _ = post(collector, b"x" * (33 << 20))
        self.assertEqual((200, "rejected: larger than the 31 MiB that the store can keep"),
                         (status, reply["bytes_errinfo"]))
        self.assertEqual((200, "success"), (post(collector, b"x" * (31 << 20))[0], post(collector, b"y")[1]["bytes_errinfo"]))
        wire = self.wire()
        sizes = [len(base64.b64decode(wire.request("$JS.API.STREAM.MSG.GET.REPORTS", {"seq": seq})["message"]["data"]))
                 for seq in (1, 2)]
        self.assertEqual([31 << 20, 1], sizes)

    def test_equal_reports_are_not_equally_long(self):
        """So a node that has one in the place of another holds another number of bytes."""
        self.start_nodes(1)
        self.make_stream()
        collector = self.start_collector()
        sizes = set()
        for _ in range(20):
            before = self.nodes[0].state("REPORTS")["state"]["bytes"]
            self.assertEqual(200, post(collector, b"the same")[0])
            sizes.add(self.nodes[0].state("REPORTS")["state"]["bytes"] - before)
        self.assertLess(8, len(sizes))

    def test_what_is_no_report(self):
        self.start_nodes(1)
        self.make_stream()
        collector = self.start_collector("--max-body", "1000")
        self.assertEqual(413, post(collector, b"x" * 1001)[0])
        self.assertEqual(413, post(collector, iter([b"x" * 600] * 2))[0], "in chunks")
        self.assertEqual(413, post(collector, b"x" * 100, headers={"Content-Length": "104857600"})[0])
        self.assertEqual(200, post(collector, b"x" * 1000)[0])
        self.assertEqual(404, collector.get("/else")[0])
        for text, status in ((b"DELETE /app HTTP/1.1\r\nHost: a\r\n\r\n", b"405"),
                             (b"POST /app HTTP/1.1\r\nHost: a\r\nContent-Length: x\r\n\r\n", b"400"),
                             (b"GET / HTTP/1.1\r\nHost: a\r\nX: " + b"x" * 20_000, b"431")):
            with socket.create_connection(("127.0.0.1", collector.port), timeout=support.PATIENCE_S) as link:
                link.sendall(text)
                self.assertEqual(status, link.recv(100).split()[1], text[:40])
        self.assertEqual(1, self.nodes[0].state("REPORTS")["state"]["messages"])

    def test_more_than_may_be_held_is_busy(self):
        self.start_nodes(1)
        self.make_stream()
        self.nodes[0].kill()
        collector = self.start_collector("--max-in-flight", "1")
        sender = Sender([collector.port], "held", 1)
        sender.start()
        wait_for("a report", lambda: collector.metric("reports_held") == 1)
        status, reply, _ = post(collector, b"one more")
        self.assertEqual((503, "too much is waiting"), (status, reply["bytes_errinfo"]))
        self.nodes[0].start()
        self.finish([sender])
        self.assertEqual(200, post(collector, b"and again")[0])

    def test_standard_descriptors_are_nothing_elses(self):
        port_file = os.path.join(self.folder, "port")
        process = subprocess.Popen(["sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh", support.COLLECTOR, "--store",
                                    f"nats://127.0.0.1:{tier.free_ports(1)[0]}", "--port-file", port_file])
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        wait_for("its port", lambda: os.path.getsize(port_file) > 0)
        self.assertEqual({"/dev/null"}, {os.readlink(f"/proc/{process.pid}/fd/{fd}") for fd in range(3)})

    def test_ends_in_order(self):
        self.start_nodes(1)
        self.make_stream()
        self.nodes[0].kill()
        collector = self.start_collector()
        sender = Sender([collector.port], "pending", 1)
        sender.start()
        wait_for("a report", lambda: collector.metric("reports_held") == 1)
        collector.process.send_signal(signal.SIGTERM)
        wait_for("the listener's end", lambda: self.refuses(collector.port))
        self.nodes[0].start()
        self.assertEqual(["pending-00000000"], self.finish([sender]))
        code, rest = collector.end()
        self.assertEqual(0, code)
        self.assertIn("requests=1 stored=1 ", rest)

    def test_store_that_takes_it_no_longer(self):
        """The collector ends, so that whoever started it does something about it."""
        self.nodes = tier.make_nodes(self.folder, 1)
        node = self.nodes[0]
        self.addCleanup(node.kill)
        allow = 'authorization { user: collector, password: "%s" }\n'
        with open(node.conf, "a") as file:
            file.write(allow % "first")
        node.start()
        node.wait_ready()
        node.host = "collector:first@" + node.host
        collector = self.start_collector("--stream", "NONE")
        wait_for("a connection", lambda: collector.metric("store_connections_total") == 1)
        node.kill()
        answers = []
        sender = threading.Thread(target=lambda: answers.append(post(collector, b"x")[0]))
        sender.start()
        wait_for("a report", lambda: collector.metric("reports_held") == 1)
        with open(node.conf) as file:
            text = file.read()
        with open(node.conf, "w") as file:
            file.write(text.replace("first", "second"))
        node.start()
        self.assertEqual(69, collector.process.wait(support.PATIENCE_S))
        self.assertIn("takes this collector no longer; check the user and the password", collector.said())
        sender.join()
        self.assertEqual([503], answers)

    @staticmethod
    def refuses(port):
        try:
            socket.create_connection(("127.0.0.1", port), timeout=1).close()
        except ConnectionRefusedError:
            return True
        return False


if __name__ == "__main__":
    unittest.main()
