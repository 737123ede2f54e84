#!/usr/bin/env python3
"""The operators' page as it is served, without a browser: what it shows, whom it lets change what."""
import contextlib
import http.client
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import sys
import unittest
import urllib.parse

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tier"))
import support
from support import COLLECTOR, tier, wait_for
from tier_test import post


class PageCase(support.Case):
    def set_up(self, nodes=1, collectors=1):
        self.start_nodes(nodes)
        wait_for("the store", lambda: self.tool("provision", "--replicas", str(nodes), "--max-bytes", "100MiB",
                                               "--reader", "export")[0] == 0)
        self.collectors = [self.start_collector() for _ in range(collectors)]
        for collector in self.collectors:
            collector.wait_state("ready")
        self.page = tier.Page(COLLECTOR, self.nodes, self.collectors, "--listen", "127.0.0.1:0")
        self.addCleanup(self.page.close)
        self.wait_text("All is well.")

    def tool(self, *words):
        done = subprocess.run([COLLECTOR, *words, "--store", tier.store_of(self.nodes)], capture_output=True,
                              text=True, timeout=support.PATIENCE_S)
        return done.returncode, done.stdout + done.stderr

    def request(self, method, path, body=None, **headers):
        """(status, text, headers)"""
        link = http.client.HTTPConnection("127.0.0.1", self.page.port, timeout=support.PATIENCE_S)
        try:
            link.request(method, path, body, {name.replace("_", "-"): value for name, value in headers.items()})
            answer = link.getresponse()
            return answer.status, answer.read().decode(), answer.headers
        finally:
            link.close()

    def text(self):
        status, text, _ = self.request("GET", "/")
        self.assertEqual(200, status)
        return text

    def wait_text(self, part):
        def ask():
            text = self.text()
            return text if part in text else None
        return wait_for(part, ask)

    def row(self, text, begin):
        """What the cells of a table's row say, by their heads."""
        row = re.search(rf'<tr><td data-head="[^"]*"[^>]*>{re.escape(begin)}<.*?</tr>', text, re.S)[0]
        return dict(re.findall(r'<td data-head="([^"]*)"[^>]*>([^<]*)<', row))

    def form(self, text):
        return dict(re.findall(r'name="(\w+)"(?: inputmode="numeric")? value="([^"]*)"', text))

    def send_form(self, fields, **headers):
        status, text, _ = self.request("POST", "/control", urllib.parse.urlencode(fields), **headers)
        return status, text

    def revision(self):
        return int(self.tool("control", "show")[1].split()[1])


class PageTest(PageCase):
    def test_shows_the_tier(self):
        self.set_up(nodes=1, collectors=2)
        for number in range(20):
            self.assertEqual(200, post(self.collectors[number % 2], b"x" * 1000)[0])
        node = self.nodes[0]
        wait_for("all messages", lambda: self.row(self.text(), node.page())["messages"] == "20")
        self.wait_text('<td data-head="not exported yet">20</td>')
        text = wait_for("answers", lambda: self.row(self.text(), "200")["since the collectors began"] == "20"
                        and self.text())
        collector = self.row(text, f"http://127.0.0.1:{self.collectors[0].port}")
        self.assertEqual(("ready", "0", "its own"),
                         (collector["state"], collector["in flight"], collector["control"]))
        self.assertRegex(collector["p99"], r"^[\d.]+ m?s$")
        shown = self.row(text, node.page())
        self.assertEqual(("1", "0", "as the others"), (shown["first"], shown["lag"], shown["copy"]))
        self.assertRegex(shown["disk"], r"^[\d.]+ KiB of [\d.]+ [MG]iB$")
        self.assertIn('<td data-head="not exported yet">20</td>', text)
        self.assertIn('<td data-head="filled">0.0 %</td>', text)
        self.assertIn("nothing is set, each collector says its own", text)
        self.assertNotIn('class="bad"', text.split("<main")[1].split("</main>")[0])

        self.page = tier.Page(COLLECTOR, self.nodes, self.collectors, "--listen", "127.0.0.1:0", "--reader", "other")
        self.addCleanup(self.page.close)
        text = self.wait_text("reader other is not there; make it with quenor-collector provision")
        self.assertIn('<td data-head="not exported yet" class="bad">not known</td>', text)

    def test_what_does_not_answer_is_red(self):
        self.set_up(nodes=3, collectors=2)
        dead, alive = (f"http://127.0.0.1:{each.port}" for each in self.collectors)
        self.collectors[0].kill()
        text = self.wait_text(f"collector {dead} does not answer (Connection) since ")
        self.assertEqual("ready", self.row(text, alive)["state"])
        self.nodes[1].pause()
        text = self.wait_text(f"node {self.nodes[1].page()} does not answer (Read) since ")
        self.assertEqual("as the others", self.row(text, self.nodes[0].page())["copy"])
        self.nodes[1].go_on()
        self.nodes[2].kill()
        text = self.wait_text(f"node {self.nodes[2].page()} does not answer (Connection) since ")
        self.assertIn(f'<td data-head="address">{self.nodes[2].page()}</td><td data-head="first" class="bad"',
                      text)
        wait_for("the stopped one", lambda: self.row(self.text(), self.nodes[1].page()).get("copy") == "as the others")
        self.wait_text('<form method="post"')
        self.nodes[0].kill()
        self.nodes[1].kill()
        text = self.wait_text("the store does not answer (")
        self.assertNotIn('<form method="post"', text)
        self.assertIn("There is no form, as what is set is not known: the store does not answer (", text)

    def test_connection_that_ended_for_good_is_made_anew(self):
        """The client library gives up a connection that the node refuses twice."""
        self.set_up()
        node = self.nodes[0]
        with open(node.conf) as file:
            open_to_all = file.read()
        with open(node.conf, "w") as file:
            file.write(open_to_all + '\nauthorization { user: "u", password: "p" }\n')
        node.kill()
        node.start()
        self.wait_text("the store does not answer (cannot connect to the store ")
        with open(node.conf, "w") as file:
            file.write(open_to_all)
        node.kill()
        node.start()
        wait_for("the store", lambda: "the store does not" not in self.text())

    def test_nodes_that_differ_are_red(self):
        """A node that holds something else calls itself well: here it is one of another store."""
        self.set_up()
        folder = os.path.join(self.folder, "other")
        os.mkdir(folder)
        other = tier.make_nodes(folder, 1)[0]
        self.addCleanup(other.kill)
        other.start()
        other.wait_ready()
        wire = support.Wire(other.host, other.port)
        self.addCleanup(wire.close)
        wire.request("$JS.API.STREAM.CREATE.REPORTS", {"name": "REPORTS", "subjects": ["REPORTS.>"]})
        for number in range(5):
            post(self.collectors[0], b"x")
            wire.request("REPORTS.report", number)
        page = tier.Page(COLLECTOR, self.nodes, self.collectors, "--listen", "127.0.0.1:0", "--monitor", other.page())
        self.addCleanup(page.close)
        self.page = page
        text = self.wait_text(f"node {self.nodes[0].page()} may be no copy: up to message 5 ")
        self.assertIn(f"node {other.page()} may be no copy: up to message 5 ", text)
        self.assertIn("may be no copy", self.row(text, other.page())["copy"])
        self.assertTrue(wire.request("$JS.API.STREAM.MSG.DELETE.REPORTS", {"seq": 3})["success"])
        text = self.wait_text(f"node {other.page()} misses 1 between first and last, others 0")
        self.assertIn('<td data-head="copy" class="bad">misses 1 between first and last, others 0</td>', text)
        self.assertIn(f"node {self.nodes[0].page()} misses 0 between first and last, others 1", text)

    def test_form_changes_control(self):
        self.set_up()
        fields = self.form(self.text())
        self.assertEqual(("0", "2147483647"), (fields["revision"], fields["max_resend_count"]))
        fields["report_duration_s"] = "300"
        status, text = self.send_form(fields)
        self.assertEqual(200, status)
        self.assertIn('<td data-head="old">0</td><td data-head="new">300</td>', text)
        self.assertEqual(0, self.revision(), "it has only been asked")

        confirmed = self.form(text)
        status, text = self.send_form(confirmed)
        self.assertEqual(200, status)
        revision = self.revision()
        self.assertIn(f"Revision {revision} is set.", text)
        self.assertIn(f"Revision {revision} is set.", self.send_form(confirmed)[1], "a reload")
        self.assertEqual(revision, self.revision())
        wait_for("the revision", lambda: self.collectors[0].metric("control_revision") == revision)
        self.assertEqual(300, post(self.collectors[0], b"x")[1]["uint32_report_duration"])
        self.wait_text(f"Control: revision {revision}")

        self.assertEqual(0, self.tool("control", "set", "--report-duration", "77")[0])
        confirmed["revision"], confirmed["report_duration_s"] = str(revision), "500"
        status, text = self.send_form(confirmed)
        self.assertEqual(409, status)
        self.assertIn(f"Revision {self.revision()} has been set meanwhile.", text)
        self.assertEqual("77", self.form(text)["report_duration_s"])
        self.assertEqual(77, json.loads(self.tool("control", "show")[1].split(" ", 2)[2])["report_duration_s"])

        fields = self.form(text)
        fields["send_interval_ms"] = "14999"
        status, text = self.send_form(fields)
        self.assertEqual(400, status)
        self.assertIn("give at least 15000", text)

    def test_form_from_elsewhere_is_refused(self):
        self.set_up()
        fields = {**self.form(self.text()), "report_duration_s": "300", "confirmed": "yes"}
        own = f"127.0.0.1:{self.page.port}"
        for headers, why in (({"Origin": "http://attacker.example"}, "another origin"),
                             ({"Origin": "null"}, "another origin"),
                             ({"Origin": f"http://127.0.0.1:{self.page.port + 1}"}, "another origin"),
                             ({"Sec_Fetch_Site": "cross-site"}, "another page"),
                             ({"Origin": f"http://{own}", "Sec_Fetch_Site": "same-site"}, "another page"),
                             ({"Host": "attacker.example"}, "attacker.example"),
                             ({"Host": f"attacker.example:{self.page.port}"}, "attacker.example")):
            status, text = self.send_form(fields, **headers)
            self.assertEqual((403, True), (status, why in text), (headers, text))
        for token in ("", "0" * 32):
            status, text = self.send_form({**fields, "token": token})
            self.assertEqual((403, True), (status, "load the page anew" in text))
        status, text, _ = self.request("GET", "/", Host=f"attacker.example:{self.page.port}")
        self.assertEqual((403, False), (status, fields["token"] in text), "the token is not told either")
        self.assertEqual(0, self.revision())

        status, text = self.send_form(fields, Origin=f"http://{own}", Sec_Fetch_Site="same-origin")
        self.assertEqual(200, status)
        self.assertEqual(1, self.revision())

    def test_what_is_no_request(self):
        self.set_up()
        for path in ("/", "/style.css", "/page.js", "/nothing"):
            headers = self.request("GET", path)[2]
            self.assertEqual(("no-store", "nosniff", "DENY"), tuple(
                headers[name] for name in ("Cache-Control", "X-Content-Type-Options", "X-Frame-Options")))
            for part in ("default-src 'none'", "frame-ancestors 'none'", "form-action 'self'"):
                self.assertIn(part, headers["Content-Security-Policy"])
        self.assertEqual("", self.request("HEAD", "/")[1])
        self.assertEqual(404, self.request("GET", "/control")[0])
        self.assertEqual(404, self.request("POST", "/", "a=1")[0])
        self.assertEqual(405, self.request("DELETE", "/")[0])
        self.assertEqual(403, self.request("POST", "/control", b"\xff\x00%" * 100)[0])
        self.assertEqual(413, self.request("POST", "/control", b"x" * 9000)[0])
        self.assertEqual(431, self.request("GET", "/", X="y" * 40000)[0])
        with socket.create_connection(("127.0.0.1", self.page.port), timeout=support.PATIENCE_S) as link:
            link.sendall(b"POST /control HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: chunked\r\n\r\n")
            with self.assertRaises(OSError):
                while True:  # Without an end: it is closed.
                    link.sendall(b"1000\r\n" + b"x" * 4096 + b"\r\n")
        with socket.create_connection(("127.0.0.1", self.page.port), timeout=support.PATIENCE_S) as link:
            link.sendall(b"\x16\x03\x01 rubbish\r\n\r\n")
            with contextlib.suppress(ConnectionResetError):
                link.recv(1000)
        self.wait_text("All is well.")

    def test_events_are_few_and_end(self):
        self.set_up()
        def open_stream():
            link = http.client.HTTPConnection("127.0.0.1", self.page.port, timeout=support.PATIENCE_S)
            self.addCleanup(link.close)
            link.request("GET", "/events")
            links.append(link)
            return link.getresponse()
        def event(stream):
            text = ""
            while (line := stream.readline()) != b"\n":
                self.assertTrue(line.startswith(b"data: "), line)
                text += line[6:].decode()
            return text
        links = []
        streams = [open_stream() for _ in range(16)]
        self.assertEqual("text/event-stream", streams[0].headers["Content-Type"])
        for stream in streams:
            self.assertIn("All is well.", event(stream))
        self.assertEqual(503, open_stream().status)
        for site, status in (("cross-site", 403), ("same-site", 403), ("same-origin", 503)):
            self.assertEqual(status, self.request("GET", "/events", Sec_Fetch_Site=site)[0])
        post(self.collectors[0], b"x")
        self.collectors[0].kill()
        wait_for("the event", lambda: "does not answer" in event(streams[0]))

        streams[1].close()
        links[1].close()
        def again():
            stream = open_stream()
            return stream.status == 200 and event(stream)
        wait_for("room for one more", again)
        self.page.process.send_signal(signal.SIGTERM)
        self.assertEqual(0, self.page.end()[0])

    def test_ends_with_a_line(self):
        self.start_nodes(1)
        store = tier.store_of(self.nodes)
        for words, code, why in (
                (("--listen", f"127.0.0.1:{self.nodes[0].port}"), 69, "give --listen a local address"),
                (("--listen", "127.0.0.1:0", "--port-file", "/nowhere/port"), 73, "--port-file"),
                (("--listen", "nowhere"), 64, "not an address to listen on"),
                (("--collector", "127.0.0.1:9001"), 64, "not an address as in http://127.0.0.1:9001"),
                (("--monitor", "http://one:8222/jsz"), 64, "not an address as in"),
                *((("--monitor", f"http://{host}"), 64, "not an address as in") for host in
                  ("one:0", "one:65536", "one:99999999999", "one:", "one:x", ":8222", "::1:8222", "[one]:8222")),
                *((("--name", name), 64, "without scheme and port") for name in
                  ("page.example:8390", "http://page.example")),
                (("--reader", "a.b"), 64, "not a name for the store")):
            done = subprocess.run([COLLECTOR, "page", "--store", store, *words], capture_output=True, text=True,
                                  timeout=support.PATIENCE_S)
            self.assertEqual((code, 1), (done.returncode, len(done.stderr.splitlines())), done.stderr)
            self.assertIn(why, done.stderr)


if __name__ == "__main__":
    unittest.main()
