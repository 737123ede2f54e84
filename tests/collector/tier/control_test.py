#!/usr/bin/env python3
"""What an operator sets is in every collector's replies, whatever happens to the store meanwhile."""
import json
import subprocess
import unittest

import support
from support import COLLECTOR, wait_for
from tier_test import post


class ControlTest(support.Case):
    def run_tool(self, *words):
        store = ",".join(f"127.0.0.1:{node.port}" for node in self.nodes)
        done = subprocess.run([COLLECTOR, *words, "--store", store], capture_output=True, text=True,
                              timeout=support.PATIENCE_S)
        return done.returncode, done.stdout + done.stderr

    def provision(self, nodes):
        self.start_nodes(nodes)
        wait_for("the store", lambda: self.run_tool("provision", "--replicas", str(nodes),
                                                   "--max-bytes", "100MiB")[0] == 0)

    def control(self, *words):
        code, text = self.run_tool("control", *words)
        self.assertEqual(0, code, text)
        name, revision, value = text.split(" ", 2)
        self.assertEqual("revision", name)
        return int(revision), json.loads(value)

    def wait_revision(self, collector, revision):
        wait_for(f"revision {revision}", lambda: collector.metric("control_revision") == revision)

    def test_every_collector_applies_it(self):
        self.provision(1)
        early = self.start_collector()
        self.assertEqual((200, {"bytes_errinfo": "success", "uint32_max_resend_count": 2147483647}),
                         post(early, b"x")[:2])
        self.assertEqual(0, self.control("show")[0])
        revision, value = self.control("set", "--report-duration", "300", "--max-resend", "0")
        self.assertEqual((300, 0), (value["report_duration_s"], value["max_resend_count"]))
        late = self.start_collector("--report-duration", "7")
        for collector in (early, late):
            self.wait_revision(collector, revision)
            self.assertEqual({"bytes_errinfo": "success", "uint32_report_duration": 300},
                             post(collector, b"x")[1])
        second, value = self.control("policy", "fixed", "--low", "40000", "--high", "40000")
        self.assertLess(revision, second)
        self.assertEqual(300, value["report_duration_s"], "what is not given stays")
        for collector in (early, late):
            self.wait_revision(collector, second)
            self.assertEqual(40000, post(collector, b"x")[1]["uint32_send_interval"])
        self.assertEqual((second, "fixed"), (self.control("show")[0], self.control("show")[1]["policy"]))

    def test_what_cannot_be_meant_is_refused(self):
        self.provision(1)
        for words, why in ((("set", "--send-interval", "14999"), "at least 15000"),
                           (("set", "--max-resend", "2147483648"), "at most 2147483647"),
                           (("set", "--report-duration", "4294968"), "at most 4294967"),
                           (("policy", "flood"), "none, fixed, brake, pace or steer"),
                           (("policy", "steer", "--high", "20000"), "the smaller one first")):
            code, text = self.run_tool("control", *words)
            self.assertEqual(64, code, text)
            self.assertIn(why, text)
        self.assertEqual(0, self.control("show")[0])

        collector = self.start_collector()
        collector.wait_state("ready")
        bad = json.dumps({"policy": "none", "send_interval_ms": 1})
        wire = self.wire()
        wire.send(f"PUB $KV.CONTROL.REPORTS {len(bad)}\r\n{bad}\r\n".encode())
        wait_for("a refusal", lambda: collector.metric("control_refused_total") == 1)
        self.assertEqual(2147483647, post(collector, b"x")[1]["uint32_max_resend_count"])
        self.assertIn("control revision 1 is ignored", collector.said())
        code, text = self.run_tool("control", "show")
        self.assertEqual(65, code, text)
        self.assertIn("set it anew with quenor-collector control set --anew", text)
        revision, value = self.control("set", "--anew", "--report-duration", "60")
        self.assertEqual(60, value["report_duration_s"])
        self.wait_revision(collector, revision)

    def test_what_a_policy_leaves_without_effect_is_said(self):
        self.provision(1)
        code, text = self.run_tool("control", "set", "--max-resend", "7")
        self.assertEqual((0, 1), (code, len(text.splitlines())), text)
        code, text = self.run_tool("control", "policy", "steer")
        self.assertEqual((0, 1), (code, len(text.splitlines())), text)
        code, text = self.run_tool("control", "set", "--send-interval", "20000")
        self.assertEqual(0, code, text)
        self.assertIn("policy steer decides the replies", text.splitlines()[1])

    def test_bucket_of_another_name(self):
        self.start_nodes(1)
        wait_for("the store", lambda: self.run_tool("provision", "--replicas", "1", "--max-bytes", "100MiB",
                                                   "--bucket", "OTHER")[0] == 0)
        collector = self.start_collector("--bucket", "OTHER")
        self.wait_revision(collector, self.control("set", "--report-duration", "60", "--bucket", "OTHER")[0])
        self.assertEqual(60, post(collector, b"x")[1]["uint32_report_duration"])

    def test_what_is_no_longer_set(self):
        """A key that is deleted, and a bucket that is made anew, whose revisions begin anew, too."""
        self.provision(1)
        collector = self.start_collector("--report-duration", "7")
        for duration in ("60", "61", "62"):
            revision, _ = self.control("set", "--report-duration", duration)
        self.wait_revision(collector, revision)
        wire = self.wire()
        deleted = b"NATS/1.0\r\nKV-Operation: DEL\r\n\r\n"
        wire.send(b"HPUB $KV.CONTROL.REPORTS %d %d\r\n%b\r\n" % (len(deleted), len(deleted), deleted))
        self.wait_revision(collector, 0)
        self.assertEqual(7, post(collector, b"x")[1]["uint32_report_duration"])

        revision, _ = self.control("set", "--report-duration", "63")
        self.wait_revision(collector, revision)
        wire.request("$JS.API.STREAM.DELETE.KV_CONTROL")
        self.assertEqual(0, self.run_tool("provision", "--replicas", "1", "--max-bytes", "100MiB")[0])
        self.assertEqual(1, self.control("set", "--report-duration", "64")[0])
        self.wait_revision(collector, 1)
        self.wait_revision(collector, self.control("set", "--report-duration", "65")[0])

    def test_node_of_the_watcher_dies(self):
        self.provision(3)
        collector = self.start_collector()
        collector.wait_state("ready")
        for node in self.nodes:
            node.kill()
            revision = wait_for("a revision", lambda: self.set_duration())
            self.wait_revision(collector, revision)
            node.start()
            # Its own health page waits for the reader to read.
            wait_for("the bucket", lambda: node.state("KV_CONTROL")["state"]["last_seq"] >= revision)

    def set_duration(self):
        code, text = self.run_tool("control", "set", "--report-duration", "60")
        return int(text.split()[1]) if code == 0 else None

    def test_without_a_bucket(self):
        self.start_nodes(1)
        code, text = self.run_tool("control", "show")
        self.assertEqual(69, code, text)
        self.assertIn("make it with quenor-collector provision", text)


if __name__ == "__main__":
    unittest.main()
