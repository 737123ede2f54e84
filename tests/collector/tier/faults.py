#!/usr/bin/env python3
"""faults.py: what goes wrong with a whole tier under load, again and again, and what is left of it.

usage: faults.py BIN [--runs N] [--at-a-time N] [--per-second N] [--collector FILE] [--no-watch] [--keep FOLDER]
                 [FAULT...]
Each run has three nodes, two collectors, nginx with TLS and a sender of 3,000 reports a second of its own
(BIN: the folder of quenor-collector and quenor_collector_load). Afterwards the reports are counted in each
node's own files and in what a reader exports. Prints a table; exit code 1 if a count is not what it must be.
Without FAULT: all of them. Times are printed; nothing is asserted of them.
"""
import argparse
import base64
import collections
import concurrent.futures
import contextlib
import datetime
import glob
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[3] / "scripts"))
import network
import tier
from tier import wait_for

CONNECTIONS = 300
SIZE = 300
LOGGED_MS = 300  # A leader writes that it leads when it does so already.
LEADERS = 5  # That are killed one after the other.
SKIPPED = 77
LAST_LINES = 15
CALM_S = 3  # Of load before a fault and after it.
STOPPED_S = 10
DISK = "300m"
SMALL_STREAM = "8MiB"
RECORD = re.compile(rb"NATS/1\.0\r\n((?:[^\r\n]+\r\n)+)\r\n(r-\d{9}) ")
ID = re.compile(rb"(?:Quenor-Id|Nats-Msg-Id): *(\S+)\r\n")


class Run:
    """One tier, from its start to its books."""
    ended_well = False

    def __init__(self, options, folder, at_end):
        self.options, self.folder, self.at_end = options, folder, at_end
        self.marks = {}

    def command(self, *words):
        return subprocess.run([self.options.collector, *words, "--store", tier.store_of(self.nodes)],
                              capture_output=True, text=True)

    def start_nodes(self, parted, disks):
        if parted:
            network.leave()
            self.nodes = network.make_nodes(self.folder, 3, self.at_end)
        else:
            self.nodes = tier.make_nodes(self.folder, 3)
        for node in self.nodes:
            if disks:
                disk = os.path.join(self.folder, node.name)
                os.mkdir(disk)
                mount = ["mount", "-t", "tmpfs", "-o", f"size={DISK}", "none", disk]
                if subprocess.run(mount, stderr=subprocess.DEVNULL).returncode != 0:
                    raise network.NotAllowed("this user may not mount a disk")
                self.at_end(subprocess.run, ["umount", "-l", disk])
            self.at_end(node.kill)
            node.start()
        for node in self.nodes:
            node.wait_ready()
            if self.options.watch:
                watch = node.watch()
                self.at_end(watch.wait)
                self.at_end(watch.kill)

    def revive(self):
        """As systemd does: a node that its watch has killed starts again."""
        for node in self.nodes:
            if node.process and node.process.poll() is not None:
                node.start()

    def rest(self):
        """For as long as a fault lasts."""
        for _ in range(STOPPED_S):
            time.sleep(1)
            self.revive()

    def refused(self):
        """Whether a collector has answered 503, as it does after its --hold."""
        self.revive()
        return self.answered(503) > 0

    def start(self, fault):
        self.start_nodes(fault.parted, fault.disks)
        size = SMALL_STREAM if fault.small else "800MiB"
        wait_for("a stream", lambda: self.command("provision", "--max-bytes", size).returncode == 0)
        self.collectors = [self.start_collector(port) for port in tier.free_ports(2)]
        for collector in self.collectors:
            collector.wait_state("ready")
        self.nginx = tier.Nginx(self.folder, self.collectors)
        self.at_end(self.nginx.kill)
        self.nginx.start()
        self.answers = open(os.path.join(self.folder, "answers"), "w+")
        self.began = time.monotonic()
        self.began_at = time.time()
        self.load = subprocess.Popen(
            [os.path.join(self.options.bin, "quenor_collector_load"), f"https://127.0.0.1:{self.nginx.port}/app",
             self.nginx.cert, str(self.options.per_second), str(CONNECTIONS), str(SIZE)],
            stdin=subprocess.PIPE, stdout=self.answers)
        self.at_end(self.load.kill)

    def start_collector(self, port):
        collector = tier.Collector(self.options.collector, self.nodes, "--listen", f"127.0.0.1:{port}")
        self.at_end(collector.close)
        return collector

    def start_reader(self, *words):
        reader = subprocess.Popen([self.options.collector, "export", "--store", tier.store_of(self.nodes), "--out",
                                   os.path.join(self.folder, "exported"), *words], stdout=subprocess.DEVNULL)
        self.at_end(reader.wait)
        self.at_end(reader.kill)
        return reader

    def mark(self, name):
        self.marks[name] = int((time.monotonic() - self.began) * 1000)

    def answered(self, status):
        total = 0
        for collector in self.collectors:
            found = re.search(rf'requests_total\{{status="{status}"\}} (\d+)', collector.get("/metrics")[1])
            total += int(found[1]) if found else 0
        return total

    def calm(self):
        before = self.answered(200)
        wait_for("reports", lambda: self.revive() or self.answered(200) > before + 20)
        time.sleep(CALM_S)
        self.revive()  # Whom its watch has killed last of all.

    def leader(self):
        """Who leads the stream, and the two others."""
        def find():
            for node in self.nodes:
                with contextlib.suppress(OSError, TypeError):  # It is down, or has not got so far.
                    name = node.state("REPORTS")["cluster"]["leader"]
                    return [each for each in self.nodes if each.name == name]
        found = wait_for("a leader", find)[0]
        return found, [node for node in self.nodes if node is not found]

    # ---- The books -----------------------------------------------------------------------------

    def finish(self):
        self.load.stdin.close()
        wait_for("the senders' last answers", lambda: self.revive() or self.load.poll() is not None)
        self.answers.seek(0)
        told, statuses, times = {}, collections.Counter(), []
        worst_ms = 0
        for line in self.answers:
            words = line.split()
            if words[0] == "answer":
                statuses[words[1]] += 1
                worst_ms = max(worst_ms, int(words[3]))
            else:
                told[words[0]] = int(words[1])
                statuses["200"] += 1
                worst_ms = max(worst_ms, int(words[2]))
                times.append(int(words[3]))
        check = self.command("provision", "--check", "--settle", "40s", *tier.monitors_of(self.nodes))
        nodes = [self.count(node) for node in self.nodes]
        exported = self.exported()
        times.sort()
        fault_ms, mended_ms = self.marks["fault"], self.marks.get("mended", self.marks["fault"])
        silent_ms, again_ms = max(((after - before, after) for before, after in zip(times, times[1:])
                                   if after >= fault_ms), default=(0, 0))
        union = set().union(*(numbers for numbers, _ in nodes))
        ids = max((counted for _, counted in nodes), key=lambda counted: counted.total())
        retried = sum(failures for failures in told.values())
        return {
            "acknowledged": len(told), "answers": dict(statuses), "worst_ms": worst_ms,
            "missing": [len(set(told) - set(numbers)) for numbers, _ in nodes],
            "lacking": [len(union - set(numbers)) for numbers, _ in nodes],
            "repeats": ids.total() - len(ids), "senders": len(ids) - len(union), "failures": retried,
            "unexported": len(set(told) - set(exported)), "exported_twice": exported.total() - len(exported),
            "check": check.returncode == 0, "silent_ms": silent_ms,
            "led_ms": self.led_ms(silent_ms, again_ms),
            "back_ms": next((each - mended_ms for each in times if each >= mended_ms), -1),
            "during": sum(fault_ms + 500 < each < mended_ms for each in times),
            "said": check.stdout.strip().splitlines()[-1:]}

    def led_ms(self, silent_ms, again_ms):
        """How long of the silence the stream had a leader already; 0: it had no other than before."""
        within = [each for each in self.elections() if again_ms - silent_ms < each <= again_ms + LOGGED_MS]
        return max(0, again_ms - max(within, default=again_ms))

    def elections(self):
        """When the stream had a new leader, by what the nodes wrote."""
        for node in self.nodes:
            with open(node.log) as file:
                for line in file:
                    found = re.match(r"\[\d+\] (\S+ \S+) .* new stream leader for '\$G > REPORTS'", line)
                    if found:
                        then = datetime.datetime.strptime(found[1], "%Y/%m/%d %H:%M:%S.%f")
                        yield int((then.timestamp() - self.began_at) * 1000)

    def count(self, node):
        """How often each report is in the node's own files of the stream, and how often each id."""
        numbers, ids = collections.Counter(), collections.Counter()
        pattern = os.path.join(self.folder, node.name, "jetstream", "*", "streams", "REPORTS", "msgs", "*.blk")
        for name in sorted(glob.glob(pattern)):
            with open(name, "rb") as file:
                for found in RECORD.finditer(file.read()):
                    numbers[found[2].decode()] += 1
                    ids[ID.search(found[1])[1]] += 1
        try:
            held = wait_for("its page", lambda: node.state("REPORTS"))["state"]["messages"]
        except AssertionError as reason:
            with open(node.log) as log:
                last = "".join(log.readlines()[-LAST_LINES:])
            raise SystemExit(f"{node.name}, exit code {node.process.poll()}: {reason}; it wrote:\n{last}") from None
        if held != numbers.total():
            raise SystemExit(f"{node.name} says {held} messages, and its files have {numbers.total()}")
        return numbers, ids

    def exported(self):
        wait_for("an export", lambda: self.start_reader("--once").wait() == 0)
        texts = collections.Counter()
        for name in glob.glob(os.path.join(self.folder, "exported", "*")):
            with open(name) as file:
                for line in file:
                    texts[base64.b64decode(json.loads(line)["body"])[:11].decode()] += 1
        return texts


# ---- The faults --------------------------------------------------------------------------------

def killed(run, node):
    node.kill()
    run.calm()
    node.start()
    wait_for("its page", lambda: node.state("REPORTS"))


def stopped(run, node):
    node.pause()
    run.rest()
    node.go_on()


def follower_killed(run):
    killed(run, run.leader()[1][0])


def leader_killed(run):
    killed(run, run.leader()[0])


def leaders_killed(run):
    for _ in range(LEADERS):
        leader_killed(run)
        run.calm()


def leader_stopped(run):
    stopped(run, run.leader()[0])


def follower_stopped(run):
    stopped(run, run.leader()[1][0])


def course(run):
    """What ./dev fleet does to its nodes."""
    follower_killed(run)
    run.calm()
    leader_killed(run)
    run.calm()
    leader_stopped(run)


def two_nodes_down(run):
    for node in run.nodes[1:]:
        node.kill()
    wait_for("refusals", run.refused)
    for node in run.nodes[1:]:
        node.start()
    run.mark("mended")


def all_nodes_killed(run):
    for node in run.nodes:
        node.kill()
    for node in run.nodes:
        node.start()
    run.mark("mended")


def collector_killed(run):
    port = run.collectors[0].port
    run.collectors[0].kill()
    time.sleep(CALM_S)
    run.collectors[0] = run.start_collector(port)


def disk_full(run, node):
    filler = os.path.join(run.folder, node.name, "filler")
    run.mark("fault")
    with contextlib.suppress(OSError), open(filler, "wb", buffering=0) as file:
        while True:
            file.write(b"x" * 4096)
    time.sleep(STOPPED_S)
    run.calm()
    os.unlink(filler)
    node.kill()
    node.start()
    wait_for("its page", lambda: node.state("REPORTS"))


def disk_of_leader(run):
    disk_full(run, run.leader()[0])


def disk_of_follower(run):
    disk_full(run, run.leader()[1][0])


def stream_full(run):
    wait_for("refusals", lambda: run.answered(507) > 0)
    run.mark("fault")
    time.sleep(CALM_S)
    os.environ["QUENOR_COLLECTOR"] = run.options.collector
    import support
    wire = support.Wire(run.nodes[0].host, run.nodes[0].port)
    config = wire.request("$JS.API.STREAM.INFO.REPORTS")["config"]
    config["max_bytes"] = 500 << 20
    answer = wire.request("$JS.API.STREAM.UPDATE.REPORTS", config)
    wire.close()
    if "error" in answer:
        raise SystemExit(str(answer["error"]))
    run.mark("mended")


def follower_parted(run):
    parted(run, run.leader()[1][0])


def leader_parted(run):
    parted(run, run.leader()[0])


def parted(run, node):
    network.cut(node)
    run.rest()
    network.join(node)


def each_parted(run):
    network.cut(*run.nodes[1:])
    wait_for("refusals", run.refused)
    network.join(*run.nodes[1:])
    run.mark("mended")


def reader_killed(run):
    for _ in range(3):
        reader = run.start_reader()
        time.sleep(CALM_S)
        reader.send_signal(signal.SIGKILL)
        reader.wait()


Fault = collections.namedtuple("Fault", "do parted disks small one_node", defaults=(False,) * 4)
FAULTS = {
    "follower killed": Fault(follower_killed, one_node=True),
    "leader killed": Fault(leader_killed, one_node=True),
    "five leaders killed": Fault(leaders_killed, one_node=True),
    "leader stopped": Fault(leader_stopped, one_node=True),
    "follower stopped": Fault(follower_stopped, one_node=True),
    "two nodes down": Fault(two_nodes_down),
    "all nodes killed": Fault(all_nodes_killed),
    "collector killed": Fault(collector_killed),
    "disk of a follower full": Fault(disk_of_follower, disks=True, one_node=True),
    "disk of the leader full": Fault(disk_of_leader, disks=True),
    "stream full": Fault(stream_full, small=True),
    "follower parted": Fault(follower_parted, parted=True, one_node=True),
    "leader parted": Fault(leader_parted, parted=True, one_node=True),
    "each node parted": Fault(each_parted, parted=True),
    "reader killed": Fault(reader_killed, one_node=True),
    "two kills, leader stopped": Fault(course, one_node=True),
}


def run_one(options, name):
    fault = FAULTS[name]
    with contextlib.ExitStack() as stack:
        folder = stack.enter_context(tempfile.TemporaryDirectory(prefix="quenor-faults-"))
        run = Run(options, folder, stack.callback)
        if options.keep:
            stack.callback(lambda: run.ended_well or keep(run, options.keep))
        run.start(fault)
        run.calm()
        run.mark("fault")
        fault.do(run)
        run.calm()
        result = run.finish()
        run.ended_well = not problems(fault, result)
        return result


def keep(run, folder):
    """What the nodes of a run have left, and what they wrote."""
    for node in run.nodes:
        node.kill()
    shutil.copytree(run.folder, tempfile.mkdtemp(dir=folder, prefix="run-"), dirs_exist_ok=True)


def problems(fault, result):
    """What of a run's counts is not as it must be."""
    found = []
    if any(result["missing"]) or result["unexported"]:
        found.append("acknowledged and missing")
    if any(result["lacking"]) or not result["check"]:
        found.append("a node is no copy")
    if fault.one_node and set(result["answers"]) != {"200"}:
        found.append("answers other than 200")
    # A sender's repeats: of a report whose answer was lost, or was 503 and came too late.
    if result["exported_twice"] > result["failures"]:
        found.append("exported twice without a sender's doing")
    if fault.do in (two_nodes_down, each_parted) and result["during"]:
        found.append("200 without a majority")
    return found


def row(name, results):
    def most(key):
        return max(result[key] for result in results)

    answers = collections.Counter()
    for result in results:
        answers.update(result["answers"])
    wrong = sum(bool(problems(FAULTS[name], result)) for result in results)
    missing = "/".join(str(sum(result["missing"][i] for result in results)) for i in range(3))
    lacking = "/".join(str(sum(result["lacking"][i] for result in results)) for i in range(3))
    words = " ".join(f"{status}:{count}" for status, count in sorted(answers.items()))
    acknowledged = sum(result["acknowledged"] for result in results)
    stored, senders, exported = (sum(result[key] for result in results)
                                 for key in ("repeats", "senders", "exported_twice"))
    return (f"{name:26}{len(results):4}{wrong:6}{acknowledged:9}  {missing:9} {lacking:11}{stored:8}{senders:9}"
            f"{exported:9}{most('worst_ms') / 1000:8.1f}{most('silent_ms') / 1000:8.1f}{most('led_ms') / 1000:7.1f}"
            f"{most('back_ms') / 1000:7.1f}  {words}")


HEAD = (f"{'fault':26}{'runs':>4}{'wrong':>6}{'acknowl.':>9}  {'missing':9} {'lacking':11}{'repeats':>8}{'senders':>9}"
        f"{'exported':>9}{'worst':>8}{'silent':>8}{'led':>7}{'back':>7}  answers\n"
        "missing: acknowledged, and not on the node; lacking: on another node, and not on this one; repeats: stored "
        "twice\nunder one id; senders: under two; exported: twice; seconds: the worst answer, the longest time "
        "without a 200,\nhow much of it after an election, until a 200 after the fault was mended")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("bin")
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--at-a-time", type=int, default=1)
    parser.add_argument("--per-second", type=int, default=3000)
    parser.add_argument("--collector", help="another quenor-collector than BIN's")
    parser.add_argument("--no-watch", dest="watch", action="store_false", help="nothing kills a node that hangs")
    parser.add_argument("--keep", help="a folder for what the nodes of a run that went wrong have left")
    parser.add_argument("--one", action="store_true", help="one run here, its counts as JSON")
    parser.add_argument("fault", nargs="*")
    options = parser.parse_intermixed_args()
    options.collector = options.collector or os.path.join(options.bin, "quenor-collector")
    names = options.fault or list(FAULTS)
    for name in names:
        if name not in FAULTS:
            parser.error(f"there is no fault {name!r}; there are: {', '.join(FAULTS)}")
    if options.one:
        signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
        try:
            print(json.dumps(run_one(options, names[0])))
        except network.NotAllowed as reason:
            print(reason, file=sys.stderr)
            return SKIPPED
        return 0
    return series(options, names)


def series(options, names):
    own = [sys.executable, "-B", __file__, options.bin, "--per-second", str(options.per_second), "--collector",
           options.collector, "--one"] + ([] if options.watch else ["--no-watch"]) + (["--keep", options.keep] if options.keep else [])
    print(HEAD, flush=True)
    failed = False
    done_any = False
    for name in names:
        results = []
        with concurrent.futures.ThreadPoolExecutor(options.at_a_time) as pool:
            for done in pool.map(lambda _, name=name: subprocess.run([*own, name], capture_output=True, text=True),
                                 range(options.runs)):
                if done.returncode == SKIPPED:
                    print(f"{name}: skipped: {done.stderr.strip()}", flush=True)
                    continue
                done_any = True
                if done.returncode != 0:
                    print(f"{name}: no result: {done.stderr[-2000:]}", flush=True)
                    failed = True
                    continue
                results.append(json.loads(done.stdout))
                wrong = problems(FAULTS[name], results[-1])
                if wrong:
                    failed = True
                    print(f"{name}: {', '.join(wrong)}: {json.dumps(results[-1])}", flush=True)
        if results:
            print(row(name, results), flush=True)
    if not done_any:
        return SKIPPED
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
