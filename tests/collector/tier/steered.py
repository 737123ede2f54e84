#!/usr/bin/env python3
"""steered.py: two thousand channels of the shipped library, whose collectors' policy tells them how often to send.

usage: steered.py BIN REAL_FLEET
Through nginx with TLS to two collectors and three nodes, each of which is restarted, one after the other, and then
both collectors are gone for a minute. Prints what was sent in each ten seconds; exit code 1 if a report is lost, a
channel was never told an interval, or more arrived after the outage than the collectors are said to take.
"""
import argparse
import contextlib
import os
import signal
import subprocess
import sys
import tempfile
import threading
import time

import faults
import tier
from tier import wait_for

CHANNELS, EVERY_S, LENGTH_S = 2000, 60, 330
CAPACITY = 25  # Of each collector, a second: 33 arrive at both.
MOST = 1.7  # Of both. When all channels have something to send, 73 a second come: 2,000 × ln 3 / 30 s.
OUTAGE_S = 60
SPAN_S = 10  # Over which a peak is counted.


class Fleet(threading.Thread):
    """The channels, and what they say each second."""

    def __init__(self, program, nginx):
        super().__init__(daemon=True)
        self.rows = []  # (second, sent, acknowledged, lost, waiting, told)
        self.process = subprocess.Popen(
            [program, f"https://127.0.0.1:{nginx.port}/app", str(CHANNELS), str(EVERY_S), str(LENGTH_S), nginx.cert],
            stdout=subprocess.PIPE, text=True)
        if self.process.stdout.readline() != "started\n":
            raise SystemExit("the channels do not start")

    def run(self):
        for line in self.process.stdout:
            self.rows.append(tuple(map(int, line.split())))

    def sent(self, begin, end):
        return sum(row[1] for row in self.rows[begin:end]) / (end - begin)


class Steered(faults.Run):
    def set_up(self):
        self.start_nodes(False, False)
        wait_for("a stream", lambda: self.command("provision", "--max-bytes", "500MiB").returncode == 0)
        done = self.command("control", "policy", "steer", "--capacity", str(CAPACITY))
        if done.returncode != 0:
            raise SystemExit(done.stderr)
        self.collectors = [self.start_collector(port) for port in tier.free_ports(2)]
        for collector in self.collectors:
            collector.wait_state("ready")
        self.nginx = tier.Nginx(self.folder, self.collectors, {"worker_connections 120000;": "worker_connections 9000;"})
        self.at_end(self.nginx.kill)
        self.nginx.start()

    def arrived(self):
        """Until a report has gone through again."""
        before = self.answered(200)
        wait_for("a report", lambda: self.answered(200) > before)

    def restart_nodes(self):
        for node in self.nodes:
            node.process.send_signal(signal.SIGTERM)
            node.process.wait()
            node.start()
            wait_for("its page", lambda node=node: node.state("REPORTS"))
            wait_for("all nodes to hold the same", self.is_whole)
            self.arrived()

    def is_whole(self):
        return self.command("provision", "--check", *tier.monitors_of(self.nodes)).returncode == 0

    def end_collector(self, number):
        self.collectors[number].process.send_signal(signal.SIGTERM)
        self.collectors[number].end()

    def start_again(self, number):
        self.collectors[number] = self.start_collector(self.collectors[number].port)
        self.collectors[number].wait_state("ready")

    def restart_others(self):
        for number in range(2):
            self.end_collector(number)
            self.start_again(number)
            self.arrived()
        self.nginx.kill()
        self.nginx.start()
        self.arrived()

    def books(self, fleet):
        check = self.command("provision", "--check", "--settle", "40s", *tier.monitors_of(self.nodes))
        exported = self.exported()
        lost, waiting, told = fleet.rows[-1][3:]
        acknowledged = sum(row[2] for row in fleet.rows)
        print(f"handed over {acknowledged + lost + waiting}, acknowledged {acknowledged}, lost {lost}, exported "
              f"{len(exported)}, by their senders' doing twice {exported.total() - len(exported)}; "
              f"told an interval: {told} of {CHANNELS} channels\n{check.stdout.strip().splitlines()[-1]}")
        return check.returncode == 0 and not lost and len(exported) == acknowledged and told == CHANNELS

    def all(self, real_fleet):
        self.set_up()
        fleet = Fleet(real_fleet, self.nginx)
        self.at_end(fleet.process.kill)
        fleet.start()
        while len(fleet.rows) < EVERY_S + SPAN_S and fleet.process.poll() is None:  # All have reported once.
            time.sleep(1)
        self.restart_nodes()
        self.restart_others()
        for number in range(2):
            self.end_collector(number)
        gone = len(fleet.rows)
        time.sleep(OUTAGE_S)
        for number in range(2):
            self.start_again(number)
        back = len(fleet.rows)
        fleet.process.wait()
        fleet.join()
        for begin in range(0, len(fleet.rows), SPAN_S):
            span = fleet.rows[begin:begin + SPAN_S]
            print(f"{begin:4} s: {sum(row[1] for row in span) / len(span):7.1f} requests a second, "
                  f"{span[-1][4]:5} wait")
        peak = max(fleet.sent(second, second + SPAN_S) for second in range(back, len(fleet.rows) - SPAN_S))
        print(f"no collector from {gone} to {back} s: {fleet.sent(gone, back):.1f} requests a second, afterwards at "
              f"most {peak:.1f}; the collectors are said to take {2 * CAPACITY}")
        return self.books(fleet) and peak <= MOST * 2 * CAPACITY


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("bin")
    parser.add_argument("real_fleet")
    options = parser.parse_args()
    options.watch = True
    options.collector = os.path.join(options.bin, "quenor-collector")
    with contextlib.ExitStack() as stack:
        folder = stack.enter_context(tempfile.TemporaryDirectory(prefix="quenor-steered-"))
        return 0 if Steered(options, folder, stack.callback).all(options.real_fleet) else 1


if __name__ == "__main__":
    sys.exit(main())
