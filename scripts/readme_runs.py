#!/usr/bin/env python3
"""readme_runs.py: runs the README's program many times against a healthy, a slow (2 s) and a dead
server, looks up what became of each message, and prints a table.

usage: scripts/readme_runs.py [--runs N] [--at-a-time N] BIN NAME COMMAND...
(BIN: the folder of quenor-collector and quenor-report; NAME: of the program, for the table)

Each run has a cache folder and a path of the server's of its own. What it said is compared with what
the server has on record and with what its cache file holds; then what was kept is sent to a healthy
server, as the next start would. A message is unaccounted for when it neither arrived nor was said to
be lost, or when it did not end as the program said. Exit code: 0, or 1 when one is, or was lost.
Times are printed, and judge nothing: whole processes from start to end, on a machine that does
something else as well.
"""
import argparse
import collections
import concurrent.futures
import json
import os
import pathlib
import re
import socket
import statistics
import subprocess
import sys
import tempfile
import time

DEADLINE_MS = 2000  # The program's own.
SAID = re.compile(r"^(\d+) acknowledged, (\d+) kept for the next start, (\d+) lost$")
PATIENCE_S = 100


class Collector:
    """quenor-collector; how often each path was answered 200 is known once it has ended."""

    def __init__(self, bin_folder, folder, misbehaviour=()):
        self.log = folder / "requests.jsonl"
        folder.mkdir(parents=True)
        self.process = subprocess.Popen(
            [bin_folder / "quenor-collector", "--log", self.log, *misbehaviour],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        self.url = re.search(r"url=(\S+)/\n", self.process.stdout.readline())[1]

    def end(self):
        self.process.terminate()
        self.process.communicate(timeout=PATIENCE_S)
        lines = map(json.loads, self.log.read_text().splitlines()) if self.log.exists() else ()
        return collections.Counter(line["path"] for line in lines if line["status"] == 200)


class DeadServer:
    """A port that is taken and refuses every connection."""

    def __init__(self):
        self.socket = socket.socket()
        self.socket.bind(("127.0.0.1", 0))
        self.url = f"http://127.0.0.1:{self.socket.getsockname()[1]}"

    def end(self):
        self.socket.close()
        return collections.Counter()


class Run:
    """One start of the program, and what became of its message."""

    def __init__(self, number, folder):
        self.path = f"/run/{number}"
        self.state = folder / str(number)
        self.arrived = self.arrived_later = 0

    def start(self, command, url):
        began = time.monotonic()
        done = subprocess.run([*command, url + self.path], stdin=subprocess.DEVNULL, text=True,
                              env={**os.environ, "XDG_STATE_HOME": str(self.state)},
                              capture_output=True, timeout=PATIENCE_S)
        self.took_ms = (time.monotonic() - began) * 1000
        said = SAID.match(done.stdout.strip())
        self.output = f"exit code {done.returncode}: {done.stdout}{done.stderr}"
        self.code = done.returncode
        self.acknowledged, self.kept, self.lost = map(int, said.groups()) if said else (0, 0, 0)

    def look_into_cache(self, bin_folder):
        file = self.state / "quenor/quenor_report/usage.mmap"
        self.in_cache = 0
        if file.exists():
            done = subprocess.run([bin_folder / "quenor-report", "cache", "list", file],
                                  capture_output=True, text=True, timeout=PATIENCE_S)
            self.in_cache = int(re.search(r"^kind=.* packets=(\d+)", done.stdout, re.M)[1])

    def send_what_is_kept(self, bin_folder, url):
        if self.in_cache > 0:
            subprocess.run([bin_folder / "quenor-report", "send", "--url", url + self.path,
                            "--channel", "usage", "--cache-dir", self.state / "quenor"],
                           stdin=subprocess.DEVNULL, capture_output=True, timeout=PATIENCE_S)

    def complaint(self):
        """Empty when everything is as it was said."""
        if self.acknowledged + self.kept + self.lost != 1:
            return "its message is not in what it said"
        if self.code != (0 if self.acknowledged else 1):
            return "its exit code is not what it said"
        if self.acknowledged > self.arrived:
            return "it said acknowledged, and nothing arrived"
        # A busy machine may leave its thread a moment in which what was said to be kept is delivered.
        if not self.in_cache <= self.kept <= self.in_cache + self.arrived:
            return f"it said {self.kept} kept, and its file holds {self.in_cache}"
        if self.lost == 0 and self.arrived + self.arrived_later == 0:
            return "it never arrived"
        return ""


def try_server(name, server, options, folder):
    """The table's line, and whether all is accounted for and nothing lost."""
    runs = [Run(number, folder / "state") for number in range(options.runs)]
    with concurrent.futures.ThreadPoolExecutor(options.at_a_time) as pool:
        list(pool.map(lambda run: run.start(options.command, server.url), runs))
    arrived = server.end()
    healthy = Collector(options.bin, folder / "later")
    for run in runs:
        run.look_into_cache(options.bin)
    with concurrent.futures.ThreadPoolExecutor(options.at_a_time) as pool:
        list(pool.map(lambda run: run.send_what_is_kept(options.bin, healthy.url), runs))
    arrived_later = healthy.end()
    for run in runs:
        run.arrived, run.arrived_later = arrived[run.path], arrived_later[run.path]
    complaints = [f"  {name}{run.path}: {complaint}; {run.output}"
                  for run in runs for complaint in [run.complaint()] if complaint]
    took = [run.took_ms for run in runs]
    total = lambda field: sum(getattr(run, field) for run in runs)
    print(f"{options.name:8}{name:9}{len(runs):6}{total('acknowledged'):8}{total('kept'):6}{total('lost'):6}"
          f"{sum(run.arrived > 0 for run in runs):9}{total('in_cache'):9}"
          f"{sum(run.arrived + run.arrived_later > 0 for run in runs):10}"
          f"{sum(run.arrived + run.arrived_later > 1 for run in runs):7}{len(complaints):13}"
          f"{statistics.median(took):9.0f}{max(took):7.0f}"
          f"{sum(ms > DEADLINE_MS + 100 for ms in took):7}", flush=True)
    for line in complaints[:10]:
        print(line, flush=True)
    return not complaints and total("lost") == 0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--runs", type=int, default=300)
    parser.add_argument("--at-a-time", type=int, default=8)
    parser.add_argument("bin", type=pathlib.Path)
    parser.add_argument("name")
    parser.add_argument("command", nargs=argparse.REMAINDER)
    options = parser.parse_args()
    print("                       |------- it said -------|--- found ---|  -- after next start --"
          "               process, ms  over\n"
          "program server     runs  ackn.  kept  lost  arrived  on disk   arrived  twice"
          "  unaccounted   median    max  2100")
    good = True
    with tempfile.TemporaryDirectory(prefix="quenor-readme-") as scratch:
        folder = pathlib.Path(scratch)
        for name, make in (
                ("healthy", lambda: Collector(options.bin, folder / "healthy/at")),
                ("slow", lambda: Collector(options.bin, folder / "slow/at",
                                           ["--misbehave", "all: delay=2s"])),
                ("dead", DeadServer)):
            good = try_server(name, make(), options, folder / name) and good
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
