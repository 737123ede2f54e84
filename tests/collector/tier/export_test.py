#!/usr/bin/env python3
"""`export` has each message in its files once, whatever is killed."""
import base64
import glob
import hashlib
import json
import os
import signal
import subprocess
import unittest

import support
import tier
from support import COLLECTOR, Sender, wait_for


class ExportTest(support.Case):
    def setUp(self):
        super().setUp()
        self.out = os.path.join(self.folder, "out")

    def command(self, *words):
        return [COLLECTOR, *words, "--store", f"127.0.0.1:{self.nodes[0].port}"]

    def provision(self):
        self.start_nodes(1)
        subprocess.run(self.command("provision", "--replicas", "1", "--max-bytes", "500MiB"),
                       check=True, capture_output=True)

    def fill(self, senders, count, size=300):
        collector = self.start_collector()
        self.senders = [Sender([collector.port], f"s{i}", count, size) for i in range(senders)]
        for sender in self.senders:
            sender.start()

    def acknowledged(self):
        for sender in self.senders:
            sender.join(support.PATIENCE_S)
        return sorted(each for sender in self.senders for each in sender.acknowledged)

    def start(self, *words):
        process = subprocess.Popen(self.command("export", "--out", self.out, *words),
                                   stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def run_once(self, *words):
        process = self.start("--once", *words)
        text = process.stdout.read()
        self.assertEqual(0, process.wait(), text)
        return text

    def lines(self):
        found = []
        for name in sorted(glob.glob(os.path.join(self.out, "*"))):
            with open(name) as file:
                found += [json.loads(line) for line in file]
        return found

    def check(self, acknowledged):
        lines = self.lines()
        bodies = [base64.b64decode(line["body"]) for line in lines]
        self.assertEqual(acknowledged, sorted(body.split()[0].decode() for body in bodies))
        self.assertEqual(len(lines), len({line["sequence"] for line in lines}))
        for line, body in zip(lines, bodies):
            self.assertEqual(hashlib.sha256(body).hexdigest(), line["sha256"])
            self.assertEqual("/app/reports?v=1", line["path"])

    def test_everything_once(self):
        self.provision()
        self.fill(4, 250)
        acknowledged = self.acknowledged()
        text = self.run_once("--rotate-size", "100KiB", "--batch", "100")
        self.assertRegex(text, r"exported read=1000 written=1000 .*unread=0\n$")
        files = sorted(os.listdir(self.out))
        self.assertLess(3, len(files))
        self.assertEqual("REPORTS-" + "1".zfill(20), files[0][:28])
        self.check(acknowledged)
        self.assertIn("read=0 written=0", self.run_once())
        self.check(acknowledged)

    def test_killed_again_and_again(self):
        self.provision()
        self.fill(8, 400)
        for _ in range(6):
            process = self.start("--batch", "50", "--rotate-size", "50KiB")
            before = self.size()
            wait_for("lines", lambda: self.size() > before + 20_000)
            process.kill()
            process.wait()
        acknowledged = self.acknowledged()
        # What a killed one had been given comes again after the reader's patience, here at once.
        wire = self.wire()
        answer = wire.request("$JS.API.CONSUMER.DURABLE.CREATE.REPORTS.export", {
            "stream_name": "REPORTS", "config": {"durable_name": "export", "ack_policy": "explicit",
                                                "ack_wait": 1_000_000_000, "max_ack_pending": 100_000}})
        self.assertNotIn("error", answer)
        text = self.run_once()
        self.assertIn("unread=0", text)
        self.check(acknowledged)

    def size(self):
        return sum(os.path.getsize(name) for name in glob.glob(os.path.join(self.out, "*")))

    def test_other_reader_needs_a_folder_of_its_own(self):
        """What is in the folder is not this reader's: taken for it, it would be acknowledged and not written."""
        self.provision()
        self.fill(1, 20)
        self.acknowledged()
        self.run_once()
        subprocess.run(self.command("provision", "--replicas", "1", "--max-bytes", "500MiB", "--reader", "again"),
                       check=True, capture_output=True)
        process = self.start("--once", "--reader", "again")
        self.assertIn("give --out another folder", process.stdout.read())
        self.assertEqual(73, process.wait())
        self.assertIn("unread=0", self.run_once())
        self.out = os.path.join(self.folder, "again")
        self.assertIn("written=20", self.run_once("--reader", "again"))

    def test_reader_that_is_taken_away(self):
        self.provision()
        self.fill(1, 20)
        self.acknowledged()
        process = self.start("--progress", "50ms")
        wait_for("all", lambda: "written=20" in process.stdout.readline())
        self.assertTrue(self.wire().request("$JS.API.CONSUMER.DELETE.REPORTS.export")["success"])
        self.assertIn("reader export of stream REPORTS is not there", process.stdout.read())
        self.assertEqual(69, process.wait())

    def test_large_messages(self):
        """The bytes of a batch are bounded: a few of the largest that the store takes."""
        self.nodes = tier.make_nodes(self.folder, 1)
        with open(self.nodes[0].conf) as file:
            text = file.read()
        with open(self.nodes[0].conf, "w") as file:
            file.write(text.replace("max_payload: 1MB", "max_payload: 48MB"))
        self.addCleanup(self.nodes[0].kill)
        self.nodes[0].start()
        self.nodes[0].wait_ready()
        subprocess.run(self.command("provision", "--replicas", "1", "--max-bytes", "500MiB"),
                       check=True, capture_output=True)
        wire = self.wire()
        for size in (30 << 20, 1000, *[8 << 20] * 8, 30 << 20):
            wire.send(f"PUB REPORTS.report inbox {size}\r\n".encode() + b"x" * size + b"\r\n")
            self.assertIn("seq", json.loads(wire.message()))
        self.assertIn("read=11 written=11", self.run_once())

    def test_goes_on_with_the_store_gone(self):
        self.provision()
        self.fill(2, 100)
        acknowledged = self.acknowledged()
        process = self.start("--progress", "50ms")
        wait_for("lines", lambda: self.size() > 10_000)
        self.nodes[0].kill()
        wait_for("a line that says so", lambda: "unread=unknown" in process.stdout.readline())
        self.nodes[0].start()
        self.nodes[0].wait_ready()
        self.fill(2, 50)
        acknowledged += self.acknowledged()
        wait_for("the rest", lambda: "written=300" in process.stdout.readline())
        process.send_signal(signal.SIGTERM)
        rest = process.stdout.read()
        self.assertEqual(0, process.wait(), rest)
        self.check(sorted(acknowledged))

    def test_what_it_needs_is_named(self):
        self.start_nodes(1)
        self.make_stream()
        process = self.start("--once")
        self.assertIn("reader export of stream REPORTS is not there", process.stdout.read())
        self.assertEqual(69, process.wait())


if __name__ == "__main__":
    unittest.main()
