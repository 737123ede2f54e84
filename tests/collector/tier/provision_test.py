#!/usr/bin/env python3
"""`provision` makes what a tier needs, once, and `--check` tells from each node's own page what it holds."""
import http.server
import json
import subprocess
import threading
import unittest

import support
from support import COLLECTOR


def page(first, messages, stream="REPORTS"):
    """What a node says that holds so much."""
    state = {"first_seq": first, "last_seq": 40, "messages": messages, "bytes": 1}
    detail = [{"name": stream, "state": state}]
    return json.dumps({"config": {"max_storage": 1000}, "account_details": [{"stream_detail": detail}]})


class ProvisionTest(support.Case):
    def provision(self, *words, nodes=None):
        store = ",".join(f"127.0.0.1:{node.port}" for node in nodes or self.nodes) or "127.0.0.1:1"
        done = subprocess.run([COLLECTOR, "provision", "--store", store, *words],
                              capture_output=True, text=True, timeout=support.PATIENCE_S)
        return done.returncode, done.stdout + done.stderr

    def monitors(self):
        return [word for node in self.nodes for word in ("--monitor", f"http://127.0.0.1:{node.monitor}")]

    def test_three_nodes(self):
        self.start_nodes(3)
        code, text = self.provision("--max-bytes", "900MiB", *self.monitors())
        self.assertEqual(64, code, text)
        self.assertIn("more than 80 per cent", text)
        code, text = self.provision("--max-bytes", "100MiB", "--max-age", "72h", *self.monitors())
        self.assertEqual(0, code, text)
        for line in ("stream REPORTS made replicas=3 max_bytes=104857600 max_age_s=259200 ",
                     "bucket CONTROL made replicas=3", "reader export made"):
            self.assertIn(line, text)
        config = self.wire().request("$JS.API.STREAM.INFO.REPORTS")["config"]
        self.assertEqual(("file", "new", 3, ["REPORTS.>"], 100_000_000),
                         (config["storage"], config["discard"], config["num_replicas"], config["subjects"],
                          config["duplicate_window"]))

        collector = self.start_collector()
        senders = [support.Sender([collector.port], f"s{i}", 50) for i in range(4)]
        for sender in senders:
            sender.start()
        for sender in senders:
            sender.join(support.PATIENCE_S)
        code, text = self.provision("--check", *self.monitors())
        self.assertEqual(0, code, text)
        self.assertEqual(3, text.count(" first=1 last=200 messages=200 "), text)
        self.assertIn("check passed: 3 nodes hold the same", text)

        code, text = self.provision("--max-bytes", "200MiB", "--replicas", "1")
        self.assertEqual(65, code, text)
        self.assertIn("stream REPORTS found", text)
        self.assertIn("differs replicas=3 asked=1", text)
        self.assertIn("differs max_bytes=104857600 asked=209715200", text)
        self.assertEqual(200, self.nodes[0].state("REPORTS")["state"]["messages"], "it changes nothing")

        code, text = self.provision("--check", *self.monitors()[:4])
        self.assertEqual(65, code, text)
        self.assertIn("the stream has 3 replicas, and only 2 were asked", text)
        code, text = self.provision("--check", *self.monitors()[:4], *self.monitors()[:2])
        self.assertEqual(65, code, text)
        self.assertIn("are one node", text)

        self.nodes[2].kill()
        code, text = self.provision("--check", "--settle", "300ms", *self.monitors())
        self.assertEqual(65, code, text)
        self.assertIn("does not answer", text)

    def test_what_would_lose_reports_is_said(self):
        """A stream and a reader of somebody else's making."""
        self.start_nodes(1)
        wire = self.wire()
        for subject, config in (
                ("STREAM.CREATE.REPORTS", {"name": "REPORTS", "subjects": ["REPORTS.>", "b"], "retention": "workqueue",
                                           "discard": "new", "no_ack": True, "max_msgs": 7, "max_msgs_per_subject": 5,
                                           "max_msg_size": 900, "max_age": 60_000_000_000}),
                ("CONSUMER.DURABLE.CREATE.REPORTS.export", {"stream_name": "REPORTS", "config": {
                    "durable_name": "export", "ack_policy": "explicit", "max_deliver": 3, "headers_only": True,
                    "filter_subject": "REPORTS.a"}})):
            self.assertNotIn("error", wire.request("$JS.API." + subject, config))
        code, text = self.provision("--replicas", "1")
        self.assertEqual(65, code, text)
        self.assertEqual(["acknowledges=0", "keeps_until_its_limits=0", "max_age_s=60", "max_msg_size=900", "max_msgs=7",
                          "max_msgs_per_subject=5", "reader_filters=1", "reader_max_deliver=3", "reader_reads_bodies=0",
                          "subject_is_REPORTS.>=0"],
                         sorted(line.split()[1] for line in text.splitlines() if line.startswith("differs ")))

    def test_size_must_be_said(self):
        self.start_nodes(1)
        code, text = self.provision("--replicas", "1")
        self.assertEqual(64, code, text)
        self.assertIn("give --max-bytes", text)

    def test_store_that_is_not_there(self):
        code, text = self.provision("--max-bytes", "1MiB")
        self.assertEqual(69, code, text)
        self.assertIn("cannot connect to the store 127.0.0.1:1", text)

    def test_node_that_lost_messages(self):
        """A page says what a node has that calls itself current."""
        answers = [page(1, 40), page(1, 40), page(1, 40)]

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                body = answers[self.server.number].encode()
                self.send_response(200)
                self.send_header("Content-Length", str(len(body)))
                self.end_headers()
                self.wfile.write(body)

            def log_message(self, *_):
                pass

        words = []
        for number in range(3):
            server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
            server.number = number
            threading.Thread(target=server.serve_forever, daemon=True).start()
            self.addCleanup(server.server_close)
            self.addCleanup(server.shutdown)
            words += ["--monitor", f"http://127.0.0.1:{server.server_address[1]}"]
        self.assertEqual(0, self.provision("--check", *words)[0])
        for lost, why in ((page(31, 10), "begins at 31"), (page(1, 39), "misses 1"),
                          (page(1, 40, "OTHER"), "holds no replica"), ("[", "no JSON")):
            answers[1] = lost
            code, text = self.provision("--check", "--settle", "10ms", *words)
            self.assertEqual(65, code, text)
            self.assertRegex(text, f"check failed: .*{why}")


if __name__ == "__main__":
    unittest.main()
