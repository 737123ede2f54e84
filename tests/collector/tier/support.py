"""What the tests of a collector's tier share: nodes of a store, collectors, senders, and a reader that
knows the store's protocol itself, so that what the programs say is compared with what is there."""
import base64
import http.client
import json
import os
import pathlib
import re
import socket
import sys
import tempfile
import threading
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[3] / "scripts"))
import tier
from tier import PATIENCE_S, wait_for

COLLECTOR = os.environ["QUENOR_COLLECTOR"]
NO_SUCH_MESSAGE = 10037


class Wire:
    """A client of the store, as little of it as is needed."""

    def __init__(self, host, port):
        self.socket = socket.create_connection((host, port), timeout=PATIENCE_S)
        self.file = self.socket.makefile("rb")
        self.file.readline()  # INFO
        self.send(b'CONNECT {"verbose":false,"headers":true,"no_responders":true}\r\nSUB inbox 1\r\n')

    def close(self):
        self.file.close()
        self.socket.close()

    def send(self, data):
        self.socket.sendall(data)

    def request(self, subject, value=None):
        body = json.dumps(value).encode() if value is not None else b""
        self.send(f"PUB {subject} inbox {len(body)}\r\n".encode() + body + b"\r\n")
        return json.loads(self.message())

    def message(self):
        while True:
            line = self.file.readline()
            if not line:
                raise OSError("the node has closed the connection")
            words = line.split()
            if words[0] == b"PING":
                self.send(b"PONG\r\n")
            elif words[0] in (b"MSG", b"HMSG"):
                data = self.file.read(int(words[-1]) + 2)[:-2]
                return data[int(words[-2]):] if words[0] == b"HMSG" else data
            elif words[0] == b"-ERR":
                raise OSError(line.decode())


class Sender(threading.Thread):
    """Posts numbered bodies one after the other, each again until it is answered 200."""

    def __init__(self, ports, name, count=None, size=100, pause_s=0.0):
        super().__init__(daemon=True)
        self.ports, self.prefix, self.count, self.size, self.pause_s = ports, name, count, size, pause_s
        self.acknowledged = []
        self.answers = {}
        self.worst_s = 0.0
        self.enough = threading.Event()

    def run(self):
        number = 0
        link = None
        while not self.enough.is_set() and (self.count is None or number < self.count):
            body = f"{self.prefix}-{number:08d} ".encode().ljust(self.size, b"x")
            begun = time.monotonic()
            try:
                if link is None:
                    port = self.ports[number % len(self.ports)]
                    link = http.client.HTTPConnection("127.0.0.1", port, timeout=PATIENCE_S)
                link.request("POST", "/app/reports?v=1", body)
                answer = link.getresponse()
                text = answer.read()
                status = answer.status
                if status == 200 and json.loads(text)["bytes_errinfo"] == "success":
                    self.acknowledged.append(body.split()[0].decode())
                    number += 1
            except (OSError, http.client.HTTPException):
                status = 0
                link.close()
                link = None
            if status == 200:
                self.worst_s = max(self.worst_s, time.monotonic() - begun)
            else:
                self.enough.wait(0.1)
            self.answers[status] = self.answers.get(status, 0) + 1
            if self.pause_s:
                self.enough.wait(self.pause_s)
        if link:
            link.close()


class Case(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.nodes = []

    def start_nodes(self, count):
        self.nodes = tier.make_nodes(self.folder, count)
        for node in self.nodes:
            self.addCleanup(node.kill)
            node.start()
        for node in self.nodes:
            node.wait_ready()

    def wire(self):
        wire = Wire(self.nodes[0].host, self.nodes[0].port)
        self.addCleanup(wire.close)
        return wire

    def make_stream(self, **more):
        settings = {"name": "REPORTS", "subjects": ["REPORTS.>"], "storage": "file", "discard": "new",
                    "num_replicas": len(self.nodes), **more}
        answer = self.wire().request("$JS.API.STREAM.CREATE.REPORTS", settings)
        self.assertNotIn("error", answer)

    def start_collector(self, *options):
        collector = tier.Collector(COLLECTOR, self.nodes, *options)
        self.addCleanup(collector.close)
        return collector

    def stored(self, stream="REPORTS"):
        """The first words of all stored bodies, as a reader has them: of one id the first, so what is there twice
        a sender has sent twice."""
        wire = self.wire()
        state = wire.request(f"$JS.API.STREAM.INFO.{stream}")["state"]
        found, ids, count = [], set(), 0
        for sequence in range(state["first_seq"], state["last_seq"] + 1):
            def ask():
                found = wire.request(f"$JS.API.STREAM.MSG.GET.{stream}", {"seq": sequence})
                return found if found.get("error", {}).get("err_code", NO_SUCH_MESSAGE) == NO_SUCH_MESSAGE else None
            answer = wait_for(f"message {sequence}", ask)  # Not while leaders change.
            if "error" in answer:
                continue  # A new leader may leave a number out; the count below tells if it was more.
            count += 1
            identity = re.search(rb"Quenor-Id: *(\S+)", base64.b64decode(answer["message"]["hdrs"]))[1]
            if identity not in ids:
                found.append(base64.b64decode(answer["message"].get("data", "")).split()[0].decode())
            ids.add(identity)
        self.assertEqual(state["messages"], count)
        return found
