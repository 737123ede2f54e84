"""The parts of a collectors' tier as processes on loopback: nodes of the store and nginx with the
configurations of deploy/, collectors, certificates. For the tests and for ./dev fleet. Each is ended by
its process id; what they write is in the folder that they are given."""
import http.client
import json
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import urllib.request

DEPLOY = pathlib.Path(__file__).resolve().parent.parent / "deploy"
PATIENCE_S = 60  # For what is to come at all.


def tool(name):
    """The path of a program that may be outside an ordinary user's search path."""
    found = shutil.which(name, path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin")
    if not found:
        raise SystemExit(f"{name} is not installed; ./dev setup installs it")
    return found


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
        except (OSError, ValueError, KeyError, TypeError, http.client.HTTPException):
            pass  # Nobody answers, or what does has not got so far.
        time.sleep(0.05)
    raise AssertionError(f"waited {PATIENCE_S} s for {what}")


def fetch(url):
    with urllib.request.urlopen(url, timeout=5) as answer:
        return answer.read().decode()


def render(name, changes):
    """A file of deploy/ with other names and addresses. Each must stand there."""
    text = (DEPLOY / name).read_text()
    for old, new in changes.items():
        if old not in text:
            raise SystemExit(f"deploy/{name} has no longer: {old}")
        text = text.replace(old, new)
    return text


class Process:
    process = None

    def run(self, *command):
        with open(self.log, "a") as log:
            self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log)

    def kill(self):
        if self.process:
            self.process.kill()
            self.process.wait()
            self.process = None

    def pause(self):
        self.process.send_signal(signal.SIGSTOP)

    def go_on(self):
        self.process.send_signal(signal.SIGCONT)


class Node(Process):
    """One node of the store, with its folder, which outlives it. `within` begins its command line: what
    puts it into a namespace, for one."""

    def __init__(self, folder, name, host, ports, routes, within=()):
        self.name, self.host, self.within = name, host, within
        self.port, self.monitor, route = ports
        self.conf, self.log = (os.path.join(folder, name + end) for end in (".conf", ".log"))
        self.store = os.path.join(folder, name)
        self.others = []  # Of its cluster.
        self.pid_file = self.conf + ".pid"
        listed = ", ".join(f'"nats://{route}"' for route in routes)
        text = render("nats-server.conf", {
            "server_name: one": f"server_name: {name}",
            '"0.0.0.0:4222"': f'"{host}:{self.port}"',
            '"0.0.0.0:8222"': f'"{host}:{self.monitor}"',
            '"0.0.0.0:6222"': f'"{host}:{route}"',
            '"nats://one:6222", "nats://two:6222", "nats://three:6222"': listed,
            '"/var/lib/nats"': f'"{os.path.join(folder, name)}"',
            "max_file_store: 500G": "max_file_store: 1G"})
        if len(routes) == 1:  # Alone it is no cluster.
            text = text[:text.index("cluster {")] + text[text.index("jetstream {"):]
        with open(self.conf, "w") as file:
            file.write(text)

    def start(self):
        pages = " ".join(f"{node.name}={node.page()}" for node in [self, *self.others])
        prepare = f"{DEPLOY}/nats-server-prepare {self.store} {self.name} {pages}"
        server = f"exec {tool('nats-server')} -c {self.conf}"
        self.run(*self.within, "sh", "-c", f"{prepare}; {server}" if self.others else server)
        with open(self.pid_file, "w") as file:
            file.write(str(self.process.pid))

    def watch(self):
        """A process of deploy's that kills the node where it must not go on."""
        server = f"$(cat {self.pid_file})"  # It may be dead, or still in its prepare, which must not be killed.
        kill = f"grep -qsx nats-server /proc/{server}/comm && kill -KILL {server}"
        with open(self.log, "a") as log:
            others = ",".join(node.page() for node in self.others)
            return subprocess.Popen([*self.within, DEPLOY / "nats-server-watch", self.page(), others, "sh", "-c", kill],
                                    stdin=subprocess.DEVNULL, stdout=log, stderr=log)

    def wait_ready(self):
        wait_for(f"node {self.name}", lambda: fetch(self.page() + "/healthz"))

    def page(self):
        return f"http://{self.host}:{self.monitor}"

    def renew(self):
        """Has it copy everything from the others: the remedy for a node that is no copy."""
        self.kill()
        shutil.rmtree(self.store)
        self.start()

    def state(self, stream):
        """The stream's own state on this node, by its monitoring page; None: it has none."""
        page = json.loads(fetch(self.page() + "/jsz?streams=1&config=1&consumers=1"))
        for account in page.get("account_details", []):
            for each in account.get("stream_detail", []):
                if each["name"] == stream:
                    return each
        return None


def make_nodes(folder, count):
    ports = free_ports(3 * count)
    triples = [ports[3 * i:3 * i + 3] for i in range(count)]
    routes = [f"127.0.0.1:{triple[2]}" for triple in triples]
    return acquaint([Node(folder, f"n{i + 1}", "127.0.0.1", triple, routes) for i, triple in enumerate(triples)])


def acquaint(nodes):
    for node in nodes:
        node.others = [other for other in nodes if other is not node]
    return nodes


def store_of(nodes):
    return "nats://" + ",".join(f"{node.host}:{node.port}" for node in nodes)


def monitors_of(nodes):
    return [word for node in nodes for word in ("--monitor", node.page())]


class Collector(Process):
    command = ()

    def __init__(self, program, nodes, *options):
        self.errors = tempfile.TemporaryFile("w+")
        self.process = subprocess.Popen([program, *self.command, "--store", store_of(nodes), *options],
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


class Page(Collector):
    """The operators' page."""
    command = ("page",)

    def __init__(self, program, nodes, collectors, *options):
        listed = [word for each in collectors for word in ("--collector", f"http://127.0.0.1:{each.port}")]
        super().__init__(program, nodes, *monitors_of(nodes), *listed, *options)

    def url(self):
        return f"http://127.0.0.1:{self.port}/"


def make_certificate(folder):
    """(certificate, key), ECDSA, for loopback."""
    cert, key = os.path.join(folder, "cert.pem"), os.path.join(folder, "key.pem")
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                    "-nodes", "-keyout", key, "-out", cert, "-days", "30", "-subj", "/CN=localhost",
                    "-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1"], check=True, capture_output=True)
    return cert, key


class Nginx(Process):
    def __init__(self, folder, collectors, more=()):
        """`more` changes of the configuration, as for render()."""
        self.port = free_ports(1)[0]
        self.cert, self.key = make_certificate(folder)
        self.conf, self.log = os.path.join(folder, "nginx.conf"), os.path.join(folder, "nginx.log")
        servers = "\n".join(f"server 127.0.0.1:{each.port} max_fails=3 fail_timeout=2s;" for each in collectors)
        changes = {
            "user www-data;": "daemon off;", "worker_processes auto;": "worker_processes 1;",
            "/run/nginx.pid": os.path.join(folder, "nginx.pid"),
            "/var/log/nginx/error.log": os.path.join(folder, "nginx-error.log"),
            "worker_rlimit_nofile 262144;": "", "worker_connections 120000;": "worker_connections 4000;",
            "server 127.0.0.1:9001 max_fails=3 fail_timeout=2s;": servers,
            "server 127.0.0.1:9002 max_fails=3 fail_timeout=2s;": "",
            "listen 443 ssl": f"listen 127.0.0.1:{self.port} ssl",
            "/etc/nginx/tls/cert.pem": self.cert, "/etc/nginx/tls/key.pem": self.key, **dict(more)}
        temporary = "".join(f"{kind}_temp_path {folder}/{kind};\n"
                            for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        with open(self.conf, "w") as file:
            file.write(render("nginx.conf", changes).replace("http {", "http {\n" + temporary, 1))

    def start(self):
        self.run(tool("nginx"), "-c", self.conf, "-e", self.log)
        wait_for("nginx", lambda: socket.create_connection(("127.0.0.1", self.port)).close() or True)

    def kill(self):
        """Its workers end with it, which they would not after SIGKILL."""
        if self.process:
            self.process.send_signal(signal.SIGTERM)
            self.process.wait()
            self.process = None
