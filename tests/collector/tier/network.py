"""Nodes of a store with a network between them that can be cut: each is in a namespace of its own, and a
bridge is between them, all in a namespace that the calling process makes for itself."""
import ctypes
import os
import subprocess

import tier

NEW_NETWORK = 0x40000000  # CLONE_NEWNET
PORTS = (4222, 8222, 6222)


class NotAllowed(Exception):
    """What a test needs and this user may not have."""


def ip(*words):
    done = subprocess.run(["ip", *words], capture_output=True, text=True)
    if done.returncode != 0:
        raise NotAllowed(f"no network of its own here: ip {' '.join(words)}: {done.stderr.strip()}")


def leave():
    """Takes this process out of the machine's network."""
    if ctypes.CDLL(None, use_errno=True).unshare(NEW_NETWORK) != 0:
        raise NotAllowed("no network of its own here: " + os.strerror(ctypes.get_errno()))
    ip("link", "set", "lo", "up")
    ip("link", "add", "bridge", "type", "bridge")
    ip("addr", "add", "10.9.0.1/24", "dev", "bridge")
    ip("link", "set", "bridge", "up")


def make_nodes(folder, count, at_end):
    """After leave(). `at_end` is handed what undoes each step."""
    hosts = [f"10.9.0.{number}" for number in range(2, 2 + count)]
    routes = [f"{host}:{PORTS[2]}" for host in hosts]
    nodes = []
    for number, host in enumerate(hosts, 1):
        holder = subprocess.Popen(["unshare", "-n", "sh", "-c", "echo up; exec cat"],
                                  stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        at_end(holder.stdout.close)
        at_end(holder.wait)
        at_end(holder.stdin.close)
        holder.stdout.readline()
        within = ["nsenter", "-t", str(holder.pid), "-n"]
        ip("link", "add", f"n{number}", "type", "veth", "peer", "name", "wire", "netns", str(holder.pid))
        ip("link", "set", f"n{number}", "master", "bridge", "up")
        at_end(subprocess.run, ["ip", "link", "del", f"n{number}"])
        subprocess.run([*within, "ip", "addr", "add", f"{host}/24", "dev", "wire"], check=True)
        for device in ("lo", "wire"):
            subprocess.run([*within, "ip", "link", "set", device, "up"], check=True)
        nodes.append(tier.Node(folder, f"n{number}", host, PORTS, routes, within))
    return tier.acquaint(nodes)


def cut(*nodes):
    for node in nodes:
        ip("link", "set", node.name, "down")


def join(*nodes):
    for node in nodes:
        ip("link", "set", node.name, "up")
