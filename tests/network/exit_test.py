#!/usr/bin/env python3
"""A process ends when it wants to, whatever its requests wait for, and keeps what it had saved."""
import os, random, re, socket, statistics, subprocess, time

import support
from support import FULL, REPORT, say, sha256

MESSAGES = 50
RUNS = 20 if FULL else 2
WAYS = [("main", "return"), *((where, way) for where in ("main", "thread", "queue")
                              for way in ("exit", "quick_exit", "_exit"))]
# Far above what an end takes, below any wait for the network and the exit handler's own limit.
LIMIT_S = 4


class ExitTest(support.Case):
    def setUp(self):
        super().setUp()
        support.make_certificates(self.folder, ["DNS:localhost", "IP:127.0.0.1"])
        self.number = 0

    def start(self, url, namespace=None):
        self.number += 1
        app = self.application(url, cache=True, namespace=namespace, name=f"app{self.number}")
        app.do("start")
        return app

    def end(self, app, command):
        """Milliseconds from its decision to end to its end, and what it said was kept."""
        app.tell(command)
        announced = {name: int(value) for name, value in re.findall(r"(\w+)=(\d+)", app.answer())}
        code = app.process.wait(LIMIT_S)
        took_ms = time.monotonic_ns() / 1e6 - announced["at_us"] / 1000
        with open(app.errors) as file:
            self.assertEqual(0, code, file.read())
        app.close()
        return took_ms, announced

    def cache_file(self, app):
        return os.path.join(app.cache_folder, "quenor_report", "app-0.mmap")

    def packets(self, app):
        """How many messages its cache file holds, as the tool reads it."""
        done = subprocess.run([REPORT, "cache", "list", self.cache_file(app)],
                              capture_output=True, text=True)
        self.assertEqual(0, done.returncode, done.stdout + done.stderr)
        summary = done.stdout.splitlines()[-1]
        self.assertIn("damaged=no", summary)
        return int(re.search(r" packets=(\d+)", summary)[1])

    def measure(self, url, namespace=None, ways=WAYS):
        """Ends with requests in flight beside ends of the same program without any."""
        for where, way in ways:
            control, hanging, kept = [], [], []
            for _ in range(RUNS):
                control.append(self.end(self.start(url, namespace), f"end {where} {way}")[0])
                app = self.start(url, namespace)
                app.do(f"send {MESSAGES}")
                app.do(f"wait saved {MESSAGES}")
                app.do(f"wait sent {MESSAGES}")
                took_ms, announced = self.end(app, f"end {where} {way}")
                hanging.append(took_ms)
                kept.append(self.packets(app))
                # Ended on the queue: by the admission of one more, which was not yet saved.
                self.assertEqual(MESSAGES, announced["saved"])
                self.assertEqual(MESSAGES, kept[-1])
            say(f"{self._testMethodName}: {way} from {where}: median of {RUNS}: "
                f"{statistics.median(control):.1f} ms without requests, "
                f"{statistics.median(hanging):.1f} ms with {MESSAGES} in flight "
                f"(longest {max(hanging):.1f} ms); messages kept {min(kept)} of {MESSAGES}")

    def test_server_that_never_answers(self):
        server = self.collector(options=["--misbehave", "all: hang=0"])
        self.measure(server.url("localhost"))

    def test_server_that_never_shakes_hands(self):
        silent = self.ending(socket.socket(), "close")
        silent.bind(("127.0.0.1", 0))
        silent.listen(100)  # Connections are made, nobody ever reads them.
        self.measure(f"https://127.0.0.1:{silent.getsockname()[1]}/",
                     ways=WAYS if FULL else [("main", "return"), ("thread", "exit")])

    def test_name_server_that_never_answers(self):
        self.need_namespaces()
        home, away = self.namespace("home"), self.namespace("away")
        link = self.wire(home, away)
        link.address(home, "10.77.0.1/16")
        home.set_name_server("10.77.9.9")
        self.measure("https://collector.test/", home,
                     WAYS if FULL else [("main", "return"), ("thread", "exit")])
        self.assertGreater(link.sent["udp 10.77.9.9:53"], 0)

    def test_in_the_middle_of_traffic(self):
        # Whatever a save held is on the server or in the cache, at whichever moment it ends.
        seed = int(os.environ.get("QUENOR_TEST_SEED", random.randrange(1 << 30)))
        chance = random.Random(seed)
        server = self.collector()
        url = server.url("localhost")
        for way in ("exit", "quick_exit", "_exit"):
            safe = left = longest = 0
            shortest = LIMIT_S * 1000
            for _ in range(RUNS):
                before = server.accepted()
                app = self.start(url)
                took_ms, announced = self.end(app, f"end-busy {way} {chance.randrange(20, 300)}")
                path = self.cache_file(app)
                raw = os.path.join(app.cache_folder, "raw")
                found = set()
                if os.path.exists(path):  # On a busy machine it may end before it has made it.
                    done = subprocess.run([REPORT, "cache", "dump", path, "--raw", raw],
                                          capture_output=True, text=True)
                    self.assertEqual(0, done.returncode, done.stdout + done.stderr)
                for name in os.listdir(raw) if os.path.exists(path) else ():
                    with open(os.path.join(raw, name), "rb") as file:
                        found.add(sha256(file.read()))
                now = server.accepted()
                now.subtract(before)
                arrived = {body for body, count in now.items() if count > 0}
                wanted = {sha256(f"app-0/{i}/{'x' * (i % 200)}".encode())
                          for i in range(announced["safe"])}
                self.assertEqual(set(), wanted - arrived - found, f"lost; seed={seed}")
                left += len(wanted - arrived)
                shortest = min(shortest, took_ms)
                longest = max(longest, took_ms)
                safe += announced["safe"]
            say(f"{self._testMethodName}: {way}: {RUNS} runs of {shortest:.1f} to "
                f"{longest:.1f} ms, {safe} messages saved, 0 lost, {left} of them not on the "
                f"server but in the cache; seed={seed}")


if __name__ == "__main__":
    support.main()
