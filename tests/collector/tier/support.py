"""What the tests of a collector's tier share: nodes of a store, collectors, senders, and a reader that
knows the store's protocol itself, so that what the programs say is compared with what is there."""
import base64
import http.client
import json
import os
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest
import urllib.request

COLLECTOR = os.environ["QUENOR_COLLECTOR"]
SERVER = os.environ["QUENOR_NATS_SERVER"]
NO_SUCH_MESSAGE = 10037
PATIENCE_S = 60  # For what is to come at all; no test's subject.


def free_ports(count):
    sockets = [socket.socket() for _ in range(count)]
    for each in sockets:
        each.bind(("127.0.0.1", 0))
    ports = [each.getsockname()[1] for each in sockets]
    for each in sockets:
        each.close()
    return ports


def wait_for(what, ready):
    """Asks until it is so: for states of other processes that nothing announces."""
    end = time.monotonic() + PATIENCE_S
    while time.monotonic() < end:
        try:
            found = ready()
            if found:
                return found
        except (OSError, ValueError, KeyError, http.client.HTTPException):
            pass
        time.sleep(0.05)
    raise AssertionError(f"waited {PATIENCE_S} s for {what}")


def fetch(url):
    with urllib.request.urlopen(url, timeout=5) as answer:
        return answer.read().decode()


class Node:
    """One node of the store, with its folder, which outlives it."""

    def __init__(self, folder, name, ports, routes=(), cluster=None):
        self.name = name
        self.port, self.monitor, self.route = ports
        self.folder = os.path.join(folder, name)
        os.makedirs(self.folder, exist_ok=True)
        self.conf = os.path.join(folder, name + ".conf")
        text = f"""
            server_name: {name}
            listen: "127.0.0.1:{self.port}"
            http: "127.0.0.1:{self.monitor}"
            jetstream {{ store_dir: "{self.folder}", max_file_store: 1G, max_memory_store: 64M }}
        """
        if cluster:
            listed = ", ".join(f'"nats://127.0.0.1:{port}"' for port in routes)
            text += f'cluster {{ name: {cluster}, listen: "127.0.0.1:{self.route}", routes: [{listed}] }}\n'
        with open(self.conf, "w") as file:
            file.write(text)
        self.process = None

    def start(self):
        with open(self.conf + ".log", "a") as log:
            self.process = subprocess.Popen([SERVER, "-c", self.conf], stdout=log, stderr=log)

    def wait_ready(self):
        wait_for(f"node {self.name}", lambda: fetch(f"http://127.0.0.1:{self.monitor}/healthz"))

    def kill(self):
        if self.process:
            self.process.kill()
            self.process.wait()
            self.process = None

    def pause(self):
        self.process.send_signal(signal.SIGSTOP)

    def go_on(self):
        self.process.send_signal(signal.SIGCONT)

    def state(self, stream):
        """The stream's own state on this node, by its monitoring page; None: it has none."""
        page = json.loads(fetch(f"http://127.0.0.1:{self.monitor}/jsz?streams=1&config=1&consumers=1"))
        for account in page.get("account_details", []):
            for each in account.get("stream_detail", []):
                if each["name"] == stream:
                    return each
        return None


class Wire:
    """A client of the store, as little of it as is needed."""

    def __init__(self, port):
        self.socket = socket.create_connection(("127.0.0.1", port), timeout=PATIENCE_S)
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


class Collector:
    def __init__(self, nodes, *options, stream="REPORTS"):
        store = ",".join(f"127.0.0.1:{node.port}" for node in nodes)
        self.errors = tempfile.TemporaryFile("w+")
        self.process = subprocess.Popen(
            [COLLECTOR, "--store", "nats://" + store, "--stream", stream, *options],
            stdout=subprocess.PIPE, stderr=self.errors, text=True)
        line = self.process.stdout.readline()
        if not line:
            raise AssertionError(self.said())
        self.port = int(line.rstrip("/\n").rsplit(":", 1)[1])

    def said(self):
        self.errors.seek(0)
        return self.errors.read()

    def get(self, path):
        """(status, text)"""
        link = http.client.HTTPConnection("127.0.0.1", self.port, timeout=PATIENCE_S)
        try:
            link.request("GET", path)
            answer = link.getresponse()
            return answer.status, answer.read().decode()
        finally:
            link.close()

    def wait_state(self, name):
        wait_for(f"state {name}", lambda: self.get("/readyz")[1].strip() == name)

    def metric(self, name):
        for line in self.get("/metrics")[1].splitlines():
            if line.startswith(f"quenor_collector_{name} "):
                return float(line.split()[1])
        raise KeyError(name)

    def kill(self):
        if self.process:
            self.process.kill()
            self.end()

    def end(self):
        """The exit code and the last lines."""
        rest = self.process.stdout.read()
        code = self.process.wait()
        self.process.stdout.close()
        self.process = None
        return code, rest

    def close(self):
        self.kill()
        self.errors.close()


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
        ports = free_ports(3 * count)
        triples = [ports[3 * i:3 * i + 3] for i in range(count)]
        routes = [triple[2] for triple in triples]
        for i, triple in enumerate(triples):
            node = Node(self.folder, f"n{i}", triple, routes, "tests" if count > 1 else None)
            self.nodes.append(node)
            self.addCleanup(node.kill)
            node.start()
        for node in self.nodes:
            node.wait_ready()

    def wire(self):
        wire = Wire(self.nodes[0].port)
        self.addCleanup(wire.close)
        return wire

    def make_stream(self, **more):
        settings = {"name": "REPORTS", "subjects": ["REPORTS.>"], "storage": "file", "discard": "new",
                    "num_replicas": len(self.nodes), "duplicate_window": 120_000_000_000, **more}
        answer = self.wire().request("$JS.API.STREAM.CREATE.REPORTS", settings)
        self.assertNotIn("error", answer)

    def start_collector(self, *options):
        collector = Collector(self.nodes, *options)
        self.addCleanup(collector.close)
        return collector

    def stored(self, stream="REPORTS"):
        """The first words of all stored bodies, with repeats."""
        wire = self.wire()
        state = wire.request(f"$JS.API.STREAM.INFO.{stream}")["state"]
        found = []
        for sequence in range(state["first_seq"], state["last_seq"] + 1):
            answer = wire.request(f"$JS.API.STREAM.MSG.GET.{stream}", {"seq": sequence})
            if answer.get("error", {}).get("err_code") == NO_SUCH_MESSAGE:
                continue  # A new leader may leave a number out; the count below tells if it was more.
            found.append(base64.b64decode(answer["message"].get("data", "")).split()[0].decode())
        self.assertEqual(state["messages"], len(found))
        return found
