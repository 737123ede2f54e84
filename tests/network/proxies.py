"""Proxies for the network tests: programs of the system's packages, and one that follows a script.

Each has a port for each of its roles: "open" lets everybody through to everywhere, "login" whoever
brings USER and PASSWORD, "refusing" nobody to anywhere.
  proxies.py hang|half HOST PORT [CERTIFICATE KEY]   the one that follows a script
"""
import hashlib, os, re, shutil, signal, socket, ssl, subprocess, sys, threading

import support
from support import say

USER, PASSWORD, WRONG = "pr0xyus3r", "pa55w0rd", "wr0ngw0rd"
REALM = "behind"
ROLES = ("open", "login", "refusing")
FIRST_PORT = 3128  # The namespace's own: nobody else's.


def why_missing(program):
    """Empty when the program is there. Where it has to be, its absence fails the test."""
    if shutil.which(program) is not None:
        return ""
    package = {"squid": "squid-openssl", "tinyproxy": "tinyproxy-bin"}.get(program, program)
    if program == "squid" and os.environ.get("QUENOR_NEED_SQUID"):
        raise AssertionError("no squid; install " + package)
    return f"no {program}; install {package}"


HOME, FIRST, SECOND, SERVER = "10.77.0.1", "10.77.1.1", "10.77.1.3", "10.77.2.2"
NAME = "collector.test"
NAME_SERVER = "10.77.9.9"  # Nobody is there: who asks is seen on the wire.


class ProxyCase(support.Case):
    """A client at home, and away, beyond a wire that counts, the servers and two addresses for
    proxies. Home could reach all of them, but knows no name of a server unless it is told."""

    def setUp(self):
        super().setUp()
        self.need_namespaces()
        support.make_certificates(self.folder, ["DNS:" + NAME, f"DNS:sub.{NAME}", f"DNS:not{NAME}",
                                                "IP:" + SERVER])
        self.home, self.away = self.namespace("home"), self.namespace("away")
        self.link = self.wire(self.home, self.away)
        self.link.address(self.home, HOME + "/16")
        self.link.address(self.away, FIRST + "/16", SECOND + "/16", SERVER + "/16")
        self.home.set_name_server(NAME_SERVER)
        self.away.set_hosts({NAME: SERVER})  # Known at the proxy, not at home.

    def on_loopback(self):
        """How many packets home has sent to itself."""
        with open(f"/proc/{self.home.holder.pid}/net/dev") as file:
            return int(re.search(r"lo:\s*\d+\s+(\d+)", file.read())[1])

    def check_only(self, *allowed, moment=""):
        """What has left since the last check went to these, "ADDRESS:PORT", all of them."""
        sent = dict(self.link.sent)
        self.link.sent.clear()
        say(f"{self._testMethodName}{moment}: packets by destination: {sent}, "
            f"on the loopback device: {self.on_loopback()}")
        self.assertEqual(set(sent), {f"tcp {there}" for there in allowed})
        self.assertEqual(0, self.on_loopback())


    def serve_the_token(self):
        self.nginx(SERVER, 8443, 'set $both "$http_authorization $http_x_host"; '
                   'if ($both != "Bearer t0ken host") { return 401; } return 200;', self.away)

    def check_host(self, *command):
        """What a host reports arrives through a proxy and with a token, or not at all."""
        reason = why_missing("tinyproxy")
        if reason:
            self.skipTest(reason)
        proxy = self.ending(Tinyproxy(self.folder, self.away, FIRST), "end").start()
        self.serve_the_token()
        for token, password, wanted in (("t0ken", PASSWORD, "acknowledged=1 dropped=0 exchanges=1"),
                                        ("other", PASSWORD, "acknowledged=0 dropped=1 exchanges=1"),
                                        ("t0ken", WRONG, "acknowledged=0 dropped=1 exchanges=1")):
            host = support.Child(
                [*command, f"https://{NAME}:8443/", proxy.url("login"), USER, password,
                 self.folder + "/ca.pem", token, self.folder + "/state"],
                self.home, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            said, errors = (text.decode() for text in self.ending(host, "kill").process.communicate(
                timeout=support.PATIENCE_S))
            self.assertEqual(wanted, said.strip(), errors)
            for secret in ("t0ken", PASSWORD, WRONG):
                self.assertNotIn(secret, errors)
            self.check_only(f"{FIRST}:{proxy.ports['login']}", moment=f" {token} {wanted}")


class Proxy:
    """A proxy that listens at `address` of `namespace` while it is started, with its configuration
    and what it says in a folder of its own. Keeps its ports from one start to the next."""
    scheme = "http"
    roles = ROLES
    program = ""
    takes = "Basic"  # How it asks for user and password.

    def __init__(self, folder, namespace, address, first_port=FIRST_PORT):
        self.folder = os.path.join(folder, type(self).__name__.lower())
        os.makedirs(self.folder, exist_ok=True)
        self.namespace, self.address = namespace, address
        self.ports = {role: first_port + i for i, role in enumerate(self.roles)}
        self.children = []

    def url(self, role="open"):
        return f"{self.scheme}://{self.address}:{self.ports[role]}"

    def file(self, name, text=""):
        path = os.path.join(self.folder, name)
        with open(path, "w") as file:
            file.write(text)
        return path

    def commands(self):
        """What is to run, one program or one for each role."""
        raise NotImplementedError

    def start(self):
        for command in self.commands():
            self.children.append(support.Child(command, self.namespace,
                                               os.path.join(self.folder, "output")))

        def is_up():
            for child in self.children:
                if child.process.poll() is not None:
                    raise AssertionError(f"{self.program} has ended: {self.output()}")
            return all(support.has_listener(self.address, port, self.namespace)
                       for port in self.ports.values())
        support.wait_until(is_up, f"{self.program} listens")
        return self

    def kill(self):
        for child in self.children:
            child.kill()
        self.children = []

    def end(self):
        self.kill()

    def output(self):
        with open(os.path.join(self.folder, "output"), errors="replace") as file:
            return file.read()


class Microsocks(Proxy):
    scheme = "socks5h"
    roles = ("open", "login")  # It has no rules by which to refuse.
    program = "microsocks"
    takes = "SOCKS5"

    def commands(self):
        for role, port in self.ports.items():
            login = ["-u", USER, "-P", PASSWORD] if role == "login" else []
            yield ["microsocks", "-i", self.address, "-p", str(port), *login]


class Tinyproxy(Proxy):
    program = "tinyproxy"

    def commands(self):
        rules = {"open": "", "login": f"BasicAuth {USER} {PASSWORD}\n", "refusing": "ConnectPort 1\n"}
        for role, port in self.ports.items():
            yield ["tinyproxy", "-d", "-c", self.file(
                role + ".conf", f"Port {port}\nListen {self.address}\nTimeout 600\n{rules[role]}")]


class Squid(Proxy):
    program = "squid"

    def ports_lines(self):
        return "".join(f"http_port {self.address}:{port} name={role}\n"
                       for role, port in self.ports.items())

    def login_lines(self):
        hashed = subprocess.run(["openssl", "passwd", "-apr1", PASSWORD], check=True,
                                capture_output=True, text=True).stdout
        users = self.file("users", f"{USER}:{hashed}")
        return f"auth_param basic program /usr/lib/squid/basic_ncsa_auth {users}\n"

    def commands(self):
        scheme = self.takes.lower()
        # Names that nobody else's has: it shares memory under its own.
        name = f"quenor{os.getpid()}{type(self).__name__.lower()}"
        configuration = self.file("squid.conf", f"""{self.ports_lines()}{self.login_lines()}
auth_param {scheme} realm {REALM}
auth_param {scheme} children 1 startup=1 idle=1
acl at_login myportname login
acl at_refusing myportname refusing
acl known proxy_auth REQUIRED
http_access deny at_refusing
http_access deny at_login !known
http_access allow all
pid_filename none
access_log none
cache_log {self.folder}/output
cache deny all
cache_mem 8 MB
memory_pools off
netdb_filename none
pinger_enable off
coredump_dir {self.folder}
visible_hostname proxy.test
shutdown_lifetime 0 seconds
""")
        # It refuses to run as root: here it is somebody else, who owns what root does.
        yield ["unshare", "--user", "--map-user=13", "--map-group=13", "squid", "-N", "-n", name,
               "-f", configuration]

    def end(self):
        """In order, so that it leaves none of its shared memory behind."""
        if not self.children:
            self.start()
        for child in self.children:
            child.process.send_signal(signal.SIGTERM)
            child.close()
        self.children = []


class SquidDigest(Squid):
    takes = "Digest"

    def login_lines(self):
        hashed = hashlib.md5(f"{USER}:{REALM}:{PASSWORD}".encode()).hexdigest()
        users = self.file("users", f"{USER}:{REALM}:{hashed}\n")
        return (f"auth_param digest program /usr/lib/squid/digest_file_auth -c {users}\n"
                "auth_param digest nonce_max_count 5\n")  # So that nonces run out in a test.


class SquidTls(SquidDigest):
    """An HTTPS proxy by itself. Its certificate is the folder's "proxy"."""
    scheme = "https"

    def ports_lines(self):
        files = f"tls-cert={self.folder}/../proxy/server.pem tls-key={self.folder}/../proxy/server.key"
        return "".join(f"https_port {self.address}:{port} name={role} {files}\n"
                       for role, port in self.ports.items())


class Haproxy(Proxy):
    """TLS in front of another proxy, which makes both an HTTPS proxy. The other goes on while this
    one is down."""
    scheme = "https"
    program = "haproxy"
    inside = Tinyproxy

    def __init__(self, folder, namespace, address):
        super().__init__(folder, namespace, address)
        self.inner = self.inside(folder, namespace, address, FIRST_PORT + 100)
        self.takes = self.inner.takes

    def commands(self):
        if not self.inner.children:
            self.inner.start()
        certificate = ""
        for name in ("server.pem", "server.key"):
            with open(os.path.join(self.folder, "../proxy", name)) as file:
                certificate += file.read()
        pem = self.file("both.pem", certificate)
        lines = "".join(
            f"listen {role}\n bind {self.address}:{port} ssl crt {pem}\n"
            f" server inner {self.address}:{self.inner.ports[role]}\n"
            for role, port in self.ports.items())
        yield ["haproxy", "-db", "-f", self.file("haproxy.cfg", f"""defaults
 mode tcp
 timeout connect 10s
 timeout client 600s
 timeout server 600s
{lines}""")]

    def end(self):
        super().end()
        self.inner.end()


class HaproxySquid(Haproxy):
    inside = Squid


class Scripted(Proxy):
    """Accepts and then follows a script: "hang" answers nothing, "half" half of what opens a
    tunnel, and closes."""
    roles = ("open",)
    program = "the scripted proxy"

    def __init__(self, folder, namespace, address, port, script, scheme):
        super().__init__(folder, namespace, address, port)
        self.script, self.scheme = script, scheme

    def commands(self):
        files = [os.path.join(self.folder, "../proxy", name) for name in ("server.pem", "server.key")]
        yield [sys.executable, "-B", os.path.abspath(__file__), self.script, self.address,
               str(self.ports["open"]), *(files if self.scheme == "https" else [])]


def follow_script(script, host, port, *files):
    def serve(connection):
        if files:
            connection = context.wrap_socket(connection, server_side=True)
        got = connection.recv(65536)
        if script == "hang":
            while connection.recv(65536):
                pass
        elif got[:1] == b"\x05":
            connection.sendall(b"\x05")  # SOCKS5: half of the two bytes that choose a method.
        else:
            connection.sendall(b"HTTP/1.1 200 Connection est")
        connection.close()

    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    if files:
        context.load_cert_chain(*files)
    listener = socket.create_server((host, port))
    while True:
        threading.Thread(target=serve, args=(listener.accept()[0],), daemon=True).start()


if __name__ == "__main__":
    follow_script(sys.argv[1], sys.argv[2], int(sys.argv[3]), *sys.argv[4:])
