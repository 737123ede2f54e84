#!/usr/bin/env python3
"""speed.py: what a whole tier on this machine takes, with nothing wrong with it.

usage: speed.py BIN [--collector FILE] [--seconds N]
Three nodes, collectors and nginx with TLS, and wrk, which posts reports of 1 KiB as fast as they are answered, with
one, two and three collectors; the answers' times at 3,000 reports a second; what a reader writes and syncs a second
of what was stored; the processor time of each part. Run it where nothing else runs.
"""
import argparse
import contextlib
import os
import re
import subprocess
import sys
import tempfile
import time

import faults
import tier

TICKS = os.sysconf("SC_CLK_TCK")
BODY = 1024
WARM_S = 3
LUA = f'wrk.method = "POST"\nwrk.body = string.rep("x", {BODY})\n'


def processor_s(pids):
    """Of these processes and their children so far."""
    total = 0
    for pid in pids:
        with open(f"/proc/{pid}/stat") as file:
            fields = file.read().rsplit(")", 1)[1].split()
        total += int(fields[11]) + int(fields[12])
    return total / TICKS


def children(pid):
    with open(f"/proc/{pid}/task/{pid}/children") as file:
        return [int(word) for word in file.read().split()]


class Speed(faults.Run):
    def set_up(self, collectors):
        self.start_nodes(False, False)
        tier.wait_for("a stream", lambda: self.command("provision", "--max-bytes", "800MiB").returncode == 0)
        self.collectors = [self.start_collector(port) for port in tier.free_ports(collectors)]
        for collector in self.collectors:
            collector.wait_state("ready")
        self.nginx = tier.Nginx(self.folder, self.collectors)
        self.at_end(self.nginx.kill)
        self.nginx.start()
        self.url = f"https://127.0.0.1:{self.nginx.port}/app"

    def parts(self):
        leader, followers = self.leader()
        return {"nginx": children(self.nginx.process.pid), "collectors": [each.process.pid for each in self.collectors],
                "leader": [leader.process.pid], "followers": [each.process.pid for each in followers]}

    def wrk(self, seconds):
        script = os.path.join(self.folder, "post.lua")
        with open(script, "w") as file:
            file.write(LUA)
        parts = self.parts()
        before = {name: processor_s(pids) for name, pids in parts.items()}
        text = subprocess.run([tier.tool("wrk"), "-t1", "-c200", f"-d{seconds}s", "--latency", "-s", script, self.url],
                              check=True, capture_output=True, text=True).stdout
        count = int(re.search(r"(\d+) requests in", text)[1])
        used = " ".join(f"{name}={1e6 * (processor_s(pids) - before[name]) / count:.0f}"
                        for name, pids in parts.items())
        rate = re.search(r"Requests/sec: *([\d.]+)", text)[1]
        late = re.search(r"99% *(\S+)", text)[1]
        bad = re.search(r"Non-2xx or 3xx responses: \d+", text)
        print(f"{len(self.collectors)} collectors: {rate} reports a second, p99 {late}, us a report: {used}"
              + (f" {bad[0]}" if bad else ""), flush=True)

    def calm_times(self, seconds):
        answers = os.path.join(self.folder, "answers")
        with open(answers, "w") as file:
            load = subprocess.Popen([os.path.join(self.options.bin, "quenor_collector_load"), self.url, self.nginx.cert,
                                     "3000", "300", str(BODY)], stdin=subprocess.PIPE, stdout=file)
            time.sleep(seconds)
            load.stdin.close()
            load.wait()
        with open(answers) as file:
            rows = [[int(word) for word in line.split()[2:4]] for line in file if not line.startswith("answer")]
        # Without the first seconds, in which 300 connections are made.
        took = sorted(took for took, answered_at in rows if answered_at >= WARM_S * 1000)
        print(f"{len(took) / (seconds - WARM_S):.0f} reports a second: p50 {took[len(took) // 2]} ms, "
              f"p99 {took[len(took) * 99 // 100]} ms, worst {took[-1]} ms", flush=True)

    def reader(self):
        reader = subprocess.run([self.options.collector, "export", "--store", tier.store_of(self.nodes), "--out",
                                 os.path.join(self.folder, "exported"), "--once"], capture_output=True, text=True)
        print(reader.stdout.splitlines()[-1], flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("bin")
    parser.add_argument("--collector")
    parser.add_argument("--seconds", type=int, default=15)
    options = parser.parse_args()
    options.watch = False
    options.collector = options.collector or os.path.join(options.bin, "quenor-collector")
    for count in (1, 2, 3):
        with contextlib.ExitStack() as stack:
            folder = stack.enter_context(tempfile.TemporaryDirectory(prefix="quenor-speed-"))
            speed = Speed(options, folder, stack.callback)
            speed.set_up(count)
            if count == 2:
                speed.calm_times(options.seconds)
            speed.wrk(options.seconds)
            if count == 2:
                speed.reader()


if __name__ == "__main__":
    sys.exit(main())
