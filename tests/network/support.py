"""What the network tests share: namespaces of their own, a wire between two of them that delays,
loses and counts packets, servers, senders, and what /proc tells of a process.

Only Python's library, iproute2, util-linux and openssl are needed. Everything made here ends with
the test's process: namespaces live as long as their holder, which ends when its input does.
"""
import collections, ctypes, faulthandler, fcntl, hashlib, heapq, itertools, json, os, random, re, select, shutil
import signal, socket, statistics, struct, subprocess, sys, tempfile, threading, time, unittest

FULL = os.environ.get("QUENOR_NETWORK_FULL", "0") not in ("", "0")
SANITIZED = bool(os.environ.get("QUENOR_SANITIZED"))
REPORT = os.environ.get("QUENOR_REPORT", "quenor-report")
COLLECTOR = os.environ.get("QUENOR_COLLECTOR", "quenor-collector")
PROGRAM = os.environ.get("QUENOR_NETWORK_PROGRAM", "quenor_network_program")
RESEND_LIMIT = 1000000
PATIENCE_S = 600 if FULL or SANITIZED else 100  # For what must happen.
LIMIT_S = int(os.environ.get("QUENOR_TEST_LIMIT", 3600))  # For a test, whatever it waits for.
os.environ["PATH"] += ":/usr/local/sbin:/usr/sbin:/sbin"
libc = ctypes.CDLL(None, use_errno=True)


def say(text):
    print(text, flush=True)


def wait_until(condition, what, patience_s=PATIENCE_S):
    end = time.monotonic() + patience_s
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"waited {patience_s} s in vain until {what}")
        time.sleep(0.01)


# ---- Namespaces ----------------------------------------------------------------------------------

def why_no_namespaces():
    """Empty when namespaces with a wire can be made, else the reason."""
    if shutil.which("ip") is None:
        return "no ip command; install iproute2"
    for file in ("/etc/hosts", "/etc/resolv.conf"):
        if not os.path.exists(file):
            return f"no {file} over which another one could be mounted"
    if not os.access("/dev/net/tun", os.R_OK | os.W_OK):
        return "no /dev/net/tun that may be opened"
    probe = subprocess.run(
        ["unshare", "-n", "-m", "sh", "-c", "ip link set lo up && ip tuntap add probe mode tun"],
        stdin=subprocess.DEVNULL, capture_output=True, text=True)
    return probe.stderr.strip().replace("\n", "; ") if probe.returncode != 0 else ""


class Namespace:
    """A network and a mount namespace with host names and name server of its own."""

    def __init__(self, folder, name, ipv6=False):
        self.name = name
        self.holder = subprocess.Popen(["unshare", "-n", "-m", "sh", "-c", "echo up; exec cat"],
                                       stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.holder.stdout.readline()
        self.hosts_file = os.path.join(folder, name + ".hosts")
        self.resolver_file = os.path.join(folder, name + ".resolv.conf")
        self.set_hosts({})
        self.set_name_server("127.0.0.1")
        off = 0 if ipv6 else 1
        self.run("sh", "-c", f"ip link set lo up; mount --bind {self.hosts_file} /etc/hosts && "
                 f"mount --bind {self.resolver_file} /etc/resolv.conf && "
                 f"echo {off} >/proc/sys/net/ipv6/conf/all/disable_ipv6")

    def set_hosts(self, names):
        with open(self.hosts_file, "w") as file:  # In place: it is mounted.
            file.write("127.0.0.1 localhost\n")
            file.writelines(f"{address} {name}\n" for name, address in names.items())

    def set_name_server(self, address):
        with open(self.resolver_file, "w") as file:
            file.write(f"nameserver {address}\noptions timeout:2 attempts:2\n")

    def command(self, *arguments):
        base = f"/proc/{self.holder.pid}/ns/"
        return ["nsenter", "--net=" + base + "net", "--mount=" + base + "mnt", *arguments]

    def run(self, *arguments):
        done = subprocess.run(self.command(*arguments), stdin=subprocess.DEVNULL,
                              capture_output=True, text=True)
        if done.returncode != 0:
            raise RuntimeError(f"{' '.join(arguments)}: {done.stderr}{done.stdout}")
        return done.stdout

    def open_tunnel(self, device):
        """A descriptor whose packets are those of a new network device of the namespace."""
        result = []

        def inside():  # On a thread that ends: it alone changes its namespace.
            fd = os.open(f"/proc/{self.holder.pid}/ns/net", os.O_RDONLY)
            if libc.setns(fd, 0x40000000) != 0:  # CLONE_NEWNET
                result.append(OSError(ctypes.get_errno(), "setns"))
            else:
                tunnel = os.open("/dev/net/tun", os.O_RDWR | os.O_NONBLOCK | os.O_CLOEXEC)
                request = struct.pack("16sH22x", device.encode(), 0x1001)  # IFF_TUN | IFF_NO_PI
                fcntl.ioctl(tunnel, 0x400454ca, request)  # TUNSETIFF
                result.append(tunnel)
            os.close(fd)

        thread = threading.Thread(target=inside)
        thread.start()
        thread.join()
        if isinstance(result[0], Exception):
            raise result[0]
        return result[0]

    def close(self):
        self.holder.stdin.close()
        self.holder.wait()
        self.holder.stdout.close()


def has_listener(address, port, namespace=None):
    """Whether somebody listens at the IPv4 address."""
    local = "".join(f"{int(part):02X}" for part in reversed(address.split(".")))
    with open(f"/proc/{namespace.holder.pid if namespace else 'self'}/net/tcp") as file:
        return f" {local}:{port:04X} 00000000:0000 0A " in file.read()


class Wire:
    """A network device in each of two namespaces and, between them, what a test asks for.

    Stands in for a real link, whatever the kernel offers: each packet that leaves a device comes
    here, is counted by its destination, and goes on after its turn and its delay, or not at all.
    """
    DEVICE = "wire"

    def __init__(self, near, far, seed=1):
        self.near, self.far = near, far
        self.delay_s = 0.0
        self.loss = 0.0
        self.bits_per_s = 0  # 0: no limit.
        self.is_dead = False  # Swallows everything, as a filter that drops does.
        self.random = random.Random(seed)
        self.sent = collections.Counter()  # Packets from the near end by "protocol address:port".
        self.opened = collections.Counter()  # Likewise, of what begins something: all but the rest
        # of a TCP connection.
        self.lost = 0
        self.carried = 0
        self.fds = [near.open_tunnel(self.DEVICE), far.open_tunnel(self.DEVICE)]
        for namespace in (near, far):
            namespace.run("ip", "link", "set", self.DEVICE, "up", "txqueuelen", "10000")
        self.stop_reader, self.stop_writer = os.pipe()
        self.thread = threading.Thread(target=self._carry, daemon=True)
        self.thread.start()

    def address(self, namespace, *addresses):
        for address in addresses:
            nodad = ["nodad"] if ":" in address else []
            namespace.run("ip", "addr", "add", address, "dev", self.DEVICE, *nodad)

    def _carry(self):
        on_its_way, serial, free_at = [], itertools.count(), [0.0, 0.0]
        while True:
            wait_s = max(0, on_its_way[0][0] - time.monotonic()) if on_its_way else None
            ready, _, _ = select.select([*self.fds, self.stop_reader], [], [], wait_s)
            if self.stop_reader in ready:
                return
            now = time.monotonic()
            for end in (0, 1):
                if self.fds[end] not in ready:
                    continue
                for packet in self._packets(self.fds[end]):
                    if end == 0:
                        self.sent[destination(packet)] += 1
                        self.opened[destination(packet)] += begins(packet)
                    if self.is_dead or self.random.random() < self.loss:
                        self.lost += 1
                        continue
                    due = now
                    if self.bits_per_s:
                        due = max(now, free_at[end]) + len(packet) * 8 / self.bits_per_s
                        if due - now > 3:  # The queue before the narrow part is full.
                            self.lost += 1
                            continue
                        free_at[end] = due
                    heapq.heappush(on_its_way,
                                   (due + self.delay_s, next(serial), 1 - end, packet))
            while on_its_way and on_its_way[0][0] <= time.monotonic():
                _, _, end, packet = heapq.heappop(on_its_way)
                try:
                    os.write(self.fds[end], packet)
                    self.carried += 1
                except OSError:  # The device is down.
                    self.lost += 1

    @staticmethod
    def _packets(fd):
        for _ in range(64):
            try:
                yield os.read(fd, 65536)
            except OSError:  # Nothing there, or the device is down.
                return

    def close(self):
        os.write(self.stop_writer, b"x")
        self.thread.join()
        for fd in (*self.fds, self.stop_reader, self.stop_writer):
            os.close(fd)


def payload_of(packet):
    """The protocol's number and what it carries, of an IP packet."""
    if packet[0] >> 4 == 4:
        return packet[9], packet[(packet[0] & 15) * 4:]
    return packet[6], packet[40:]


def begins(packet):
    """False of a TCP packet without SYN."""
    protocol, payload = payload_of(packet)
    return protocol != 6 or payload[13] & 2 != 0


def destination(packet):
    """ "tcp 10.1.2.3:443" and so on, of an IP packet. """
    protocol, payload = payload_of(packet)
    if packet[0] >> 4 == 4:
        address = socket.inet_ntop(socket.AF_INET, packet[16:20])
    else:
        address = "[" + socket.inet_ntop(socket.AF_INET6, packet[24:40]) + "]"
    names = {1: "icmp", 6: "tcp", 17: "udp", 58: "icmp6"}
    if protocol in (6, 17):
        return f"{names[protocol]} {address}:{struct.unpack('!H', payload[2:4])[0]}"
    return f"{names.get(protocol, protocol)} {address}"


# ---- Programs ------------------------------------------------------------------------------------

def make_certificates(folder, names):
    """ca.pem, server.pem and server.key in the folder, for these subject alternative names."""
    key = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes"]
    with open(os.path.join(folder, "server.ext"), "w") as file:
        file.write("subjectAltName=" + ",".join(names) + "\nextendedKeyUsage=serverAuth\n")
    for arguments in (
            ["req", "-x509", *key, "-days", "2", "-keyout", "ca.key", "-out", "ca.pem",
             "-subj", "/CN=throw-away CA", "-addext", "keyUsage=critical,keyCertSign"],
            ["req", *key, "-keyout", "server.key", "-out", "server.csr", "-subj", "/CN=server"],
            ["x509", "-req", "-in", "server.csr", "-CA", "ca.pem", "-CAkey", "ca.key",
             "-set_serial", "2", "-days", "2", "-extfile", "server.ext", "-out", "server.pem"]):
        subprocess.run(["openssl", *arguments], cwd=folder, check=True, capture_output=True)


class Child:
    """A program that does not outlive the test."""

    def __init__(self, arguments, namespace=None, output=None, environment=None, **streams):
        if namespace is not None:
            arguments = namespace.command(*arguments)
        self.output = open(output, "ab") if output else None
        streams.setdefault("stdin", subprocess.DEVNULL)
        streams.setdefault("stderr", self.output)
        streams.setdefault("stdout", self.output)
        # SIGKILL when the test's process ends: PR_SET_PDEATHSIG.
        self.process = subprocess.Popen(arguments, env={**os.environ, **(environment or {})},
                                        preexec_fn=lambda: libc.prctl(1, signal.SIGKILL), **streams)
        self.pid = self.process.pid

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
        self.close()

    def close(self):
        self.process.wait()
        for stream in (self.process.stdin, self.process.stdout, self.output):
            if stream is not None:
                stream.close()


class Collector:
    """quenor-collector, whose log is the judge. Keeps its port from one start to the next."""

    def __init__(self, folder, namespace=None, address="127.0.0.1", tls=True, name="collector",
                 options=()):
        self.folder, self.namespace, self.address = folder, namespace, address
        self.log = os.path.join(folder, name + ".jsonl")
        self.options = [*options, *(["--cert", os.path.join(folder, "server.pem"), "--key",
                                     os.path.join(folder, "server.key")] if tls else [])]
        self.port_file = os.path.join(folder, name + ".port")
        self.output = os.path.join(folder, name + ".output")
        self.scheme = "https" if tls else "http"
        self.port = 0
        self.child = None
        if namespace is None:
            # Bound and never listening: the collector can take the port, nobody else is given it.
            self.placeholder = socket.socket()
            self.placeholder.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            self.placeholder.bind((address, 0))
            self.port = self.placeholder.getsockname()[1]

    def start(self):
        if os.path.exists(self.port_file):
            os.remove(self.port_file)
        self.child = Child([COLLECTOR, "--listen", f"{self.address}:{self.port}", "--port-file",
                            self.port_file, "--log", self.log, *self.options],
                           self.namespace, self.output)
        wait_until(lambda: os.path.exists(self.port_file) or self.child.process.poll() is not None,
                   "the collector listens")
        if self.child.process.poll() is not None:
            with open(self.output) as file:
                raise RuntimeError("the collector has ended: " + file.read())
        with open(self.port_file) as file:
            self.port = int(file.read())
        return self

    def url(self, host):
        return f"{self.scheme}://{host}:{self.port}/reports"

    def kill(self):
        if self.child is not None:
            self.child.kill()
            self.child = None

    def end(self):
        self.kill()
        if self.namespace is None:
            self.placeholder.close()

    def stop(self):
        self.child.process.terminate()
        self.child.close()
        self.child = None

    def records(self):
        """What was answered 200, in the order of the log."""
        return [record for record in self.all_records() if record["status"] == 200]

    def all_records(self):
        records = []
        if not os.path.exists(self.log):
            return records
        with open(self.log, "rb") as file:
            for line in file:
                try:
                    records.append(json.loads(line))
                except ValueError:
                    pass  # Torn off by a kill.
        return records

    def accepted(self):
        """How often each body was answered 200, by SHA-256."""
        return collections.Counter(record["sha256"] for record in self.records())


def sha256(body):
    return hashlib.sha256(body).hexdigest()


class Sender:
    """quenor-report send, fed line by line."""

    def __init__(self, folder, url, namespace=None, name="links", options=()):
        self.folder, self.name = folder, name
        self.errors = os.path.join(folder, name + ".stderr")
        ca_file = os.path.join(folder, "ca.pem")
        trust = ["--cacert", ca_file] if os.path.exists(ca_file) else []
        with open(self.errors, "ab") as errors:
            self.child = Child(
                [REPORT, "send", "--url", url, "--channel", name, "--send-now", "--cache-dir",
                 os.path.join(folder, "state"), "--max-resend", str(RESEND_LIMIT), "--wait",
                 str(PATIENCE_S), *trust, *options],
                namespace, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=errors)
        self.handed_over = []

    def send(self, messages):
        for message in messages:
            self.child.process.stdin.write(message + b"\n")
            self.handed_over.append(message)
        self.child.process.stdin.flush()

    def finish(self):
        """Its closing line's counts, once everything is delivered."""
        self.child.process.stdin.close()
        output = self.child.process.stdout.read().decode()
        self.child.close()
        counts = {name: int(value) for name, value in re.findall(r"(\w+)=(\d+)", output)}
        with open(self.errors) as file:
            self.said = file.read()
        if not counts:
            raise AssertionError(f"no closing line: {output!r} {self.said}")
        return counts


class Application(Child):
    """network_program, told what to do a line at a time."""

    def __init__(self, folder, url, channels=1, cache=False, namespace=None, http2=False,
                 name="application", environment=None):
        self.errors = os.path.join(folder, name + ".stderr")
        self.cache_folder = os.path.join(folder, name + "-state")
        ca_file = os.path.join(folder, "ca.pem")
        with open(self.errors, "ab") as errors:
            super().__init__(
                [PROGRAM, url, str(channels), self.cache_folder if cache else "-",
                 ca_file if os.path.exists(ca_file) else "-"],
                namespace,
                environment={**(environment or {}), **({"QUENOR_TEST_HTTP2": "1"} if http2 else {})},
                stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=errors)

    def tell(self, command):
        self.process.stdin.write(command.encode() + b"\n")
        self.process.stdin.flush()

    def answer(self):
        """The line that it answers; one line to each command."""
        if not select.select([self.process.stdout], [], [], PATIENCE_S)[0]:
            with open(self.errors) as file:
                raise AssertionError(f"no answer within {PATIENCE_S} s: {file.read()}")
        line = self.process.stdout.readline().decode().rstrip("\n")
        if line == "" or line.startswith("unknown"):
            with open(self.errors) as file:
                raise AssertionError(f"the application answered {line!r}: {file.read()}")
        return line

    def do(self, command):
        self.tell(command)
        return self.answer()

    def counts(self):
        return {name: int(value) for name, value in re.findall(r"(\w+)=(\d+)", self.do("counts"))}

    def finish(self):
        """Terminates its channels; its exit code."""
        self.process.stdin.close()
        code = self.process.wait()
        self.close()
        return code


# ---- What /proc tells ----------------------------------------------------------------------------

def status_of(path):
    with open(path) as file:
        return dict(re.findall(r"^(\w+):\s*(.*)$", file.read(), re.M))


def threads_of(pid):
    """Each thread's status by its number."""
    found = {}
    for task in os.listdir(f"/proc/{pid}/task"):
        try:
            found[int(task)] = status_of(f"/proc/{pid}/task/{task}/status")
        except FileNotFoundError:
            pass  # It has just ended.
    return found


def switches_of(pid):
    """Voluntary and other context switches by "name number" of each thread."""
    return {f"{status['Name']} {task}": (int(status["voluntary_ctxt_switches"]),
                                         int(status["nonvoluntary_ctxt_switches"]))
            for task, status in threads_of(pid).items()}


def descriptors_of(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def resident_kb(pid):
    return int(status_of(f"/proc/{pid}/status")["VmRSS"].split()[0])


def private_dirty_kb(pid):
    return int(status_of(f"/proc/{pid}/smaps_rollup")["Private_Dirty"].split()[0])


def connections_of(pid, port, established=False):
    """How many of the process's TCP connections lead to the port: all, or those that nobody has
    closed as far as it is known here."""
    inodes = set()
    for fd in os.listdir(f"/proc/{pid}/fd"):
        try:
            inodes.add(os.readlink(f"/proc/{pid}/fd/{fd}"))
        except FileNotFoundError:
            pass
    count = 0
    for table in ("tcp", "tcp6"):
        try:
            with open(f"/proc/{pid}/net/{table}") as file:
                lines = file.read().splitlines()[1:]
        except FileNotFoundError:
            continue  # No IPv6.
        for fields in map(str.split, lines):
            if established and fields[3] != "01":
                continue
            if int(fields[2].split(":")[1], 16) == port and f"socket:[{fields[9]}]" in inodes:
                count += 1
    return count


# ---- Tests ---------------------------------------------------------------------------------------

class Case(unittest.TestCase):
    """A test with a folder, and an end for whatever it starts, the latest first."""

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="quenor-network-")
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)

    def ending(self, thing, method):
        self.addCleanup(getattr(thing, method))
        return thing

    def need_namespaces(self):
        reason = why_no_namespaces()
        if reason:
            self.skipTest("no network namespaces here: " + reason)

    def namespace(self, name, ipv6=False):
        return self.ending(Namespace(self.folder, name, ipv6), "close")

    def wire(self, near, far, seed=1):
        return self.ending(Wire(near, far, seed), "close")

    def collector(self, *arguments, **options):
        return self.ending(Collector(self.folder, *arguments, **options), "end").start()

    def nginx(self, address, port, location, namespace=None, name="nginx"):
        """HTTPS and HTTP/2 with the folder's certificate."""
        temporary = "".join(f"  {kind}_temp_path {kind};\n" for kind in
                            ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        folder = os.path.join(self.folder, name)
        os.makedirs(folder, exist_ok=True)
        with open(folder + "/nginx.conf", "w") as file:
            file.write(f"""daemon off; master_process off; pid nginx.pid; error_log stderr warn;
events {{ worker_connections 512; }}
http {{
  access_log off; keepalive_timeout 3600; keepalive_requests 100000;
{temporary}  server {{
    listen {address}:{port} ssl http2;
    ssl_certificate {self.folder}/server.pem; ssl_certificate_key {self.folder}/server.key;
    location / {{ {location} }}
  }}
}}
""")
        child = Child(["nginx", "-e", "stderr", "-p", folder, "-c", "nginx.conf"], namespace,
                      folder + "/output")
        self.ending(child, "kill")
        wait_until(lambda: has_listener(address, port, namespace), "nginx listens")

    def sender(self, *arguments, **options):
        sender = Sender(self.folder, *arguments, **options)
        self.ending(sender.child, "kill")
        return sender

    def application(self, *arguments, **options):
        return self.ending(Application(self.folder, *arguments, **options), "kill")


def main():
    """Runs the cases whose names are given ("test_" may be left out), or all; 77 for a skip."""
    if os.geteuid() != 0 and "QUENOR_IN_USER_NAMESPACE" not in os.environ:
        # A user's own namespaces, where the system lets him have them.
        command = ["unshare", "--user", "--map-root-user", "--mount", "--"]
        if subprocess.run([*command, "true"], capture_output=True).returncode == 0:
            os.environ["QUENOR_IN_USER_NAMESPACE"] = "1"
            os.execvp(command[0], [*command, sys.executable, "-B", *sys.argv])
    # Before ctest's own limit: says where it waited, and takes what it has started along.
    faulthandler.dump_traceback_later(LIMIT_S - 5, exit=True)
    module = sys.modules["__main__"]
    suite = unittest.defaultTestLoader.loadTestsFromModule(module)
    wanted = {"test_" + name.removeprefix("test_") for name in sys.argv[1:]}
    cases = [case for group in suite for case in group
             if not wanted or case._testMethodName in wanted]
    if len(cases) < max(1, len(wanted)):
        sys.exit(f"no such case: {' '.join(sorted(wanted))}")
    result = unittest.TextTestRunner(verbosity=2).run(unittest.TestSuite(cases))
    for case, reason in result.skipped:
        say(f"SKIPPED: {case._testMethodName}: {reason}")
    if not result.wasSuccessful():
        sys.exit(1)
    sys.exit(77 if len(result.skipped) == len(cases) else 0)
