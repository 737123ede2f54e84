#!/usr/bin/env python3
"""Nodes whose network is cut, while they run on: each is in a namespace of its own, and a bridge is between
them, all in a namespace that this process makes for itself."""
import ctypes
import os
import subprocess
import unittest


from cluster_test import AFTER, SENDERS, Cluster
from support import tier, wait_for

NEW_NETWORK = 0x40000000  # CLONE_NEWNET
PORTS = (4222, 8222, 6222)


def ip(*words):
    done = subprocess.run(["ip", *words], capture_output=True, text=True)
    if done.returncode != 0:
        raise unittest.SkipTest(f"no network of its own here: ip {' '.join(words)}: {done.stderr.strip()}")


def setUpModule():
    if ctypes.CDLL(None, use_errno=True).unshare(NEW_NETWORK) != 0:
        raise unittest.SkipTest("no network of its own here: " + os.strerror(ctypes.get_errno()))
    ip("link", "set", "lo", "up")
    ip("link", "add", "bridge", "type", "bridge")
    ip("addr", "add", "10.9.0.1/24", "dev", "bridge")
    ip("link", "set", "bridge", "up")


class PartedTest(Cluster):
    def start_nodes(self, count):
        hosts = [f"10.9.0.{number}" for number in range(2, 2 + count)]
        routes = [f"{host}:{PORTS[2]}" for host in hosts]
        for number, host in enumerate(hosts, 1):
            holder = subprocess.Popen(["unshare", "-n", "sh", "-c", "echo up; exec cat"],
                                      stdin=subprocess.PIPE, stdout=subprocess.PIPE)
            self.addCleanup(holder.stdout.close)
            self.addCleanup(holder.wait)
            self.addCleanup(holder.stdin.close)
            holder.stdout.readline()
            within = ["nsenter", "-t", str(holder.pid), "-n"]
            ip("link", "add", f"n{number}", "type", "veth", "peer", "name", "wire", "netns", str(holder.pid))
            ip("link", "set", f"n{number}", "master", "bridge", "up")
            self.addCleanup(subprocess.run, ["ip", "link", "del", f"n{number}"])
            subprocess.run([*within, "ip", "addr", "add", f"{host}/24", "dev", "wire"], check=True)
            for device in ("lo", "wire"):
                subprocess.run([*within, "ip", "link", "set", device, "up"], check=True)
            node = tier.Node(self.folder, f"n{number}", host, PORTS, routes, within)
            self.nodes.append(node)
            self.addCleanup(node.kill)
            node.start()
        for node in self.nodes:
            node.wait_ready()

    def cut(self, *nodes):
        for node in nodes:
            ip("link", "set", node.name, "down")

    def join(self, *nodes):
        for node in nodes:
            ip("link", "set", node.name, "up")

    def test_follower_is_parted(self):
        follower = self.leader()[1][0]
        self.cut(follower)
        self.reach(AFTER)
        self.join(follower)
        self.assertEqual({200}, set(self.books()))

    def test_leader_is_parted(self):
        leader = self.leader()[0]
        self.cut(leader)
        self.reach(AFTER)
        self.join(leader)
        self.reach(AFTER)
        self.assertEqual({200}, set(self.books()))

    def test_each_is_alone(self):
        self.cut(*self.nodes[1:])
        before = self.acknowledged()
        wait_for("refusals", lambda: all(sender.answers.get(503) for sender in self.senders))
        self.assertLessEqual(self.acknowledged() - before, SENDERS)
        self.join(*self.nodes[1:])
        self.reach(AFTER)
        self.books(repeats=2 * SENDERS)


if __name__ == "__main__":
    unittest.main()
