#!/usr/bin/env python3
"""check_full.py: every part of ./dev check --full, each in a process of its own, whatever the parts
before it came to; at the end one table of what they came to and how long they took.

usage: scripts/check_full.py [PART...]    (all of them; ./dev check --part PART runs one bare)
What a part prints goes to build/check/PART.log, too. Exit code: 0 all passed, 1 not.
"""
import os
import re
import subprocess
import sys
import threading
import time

PARTS = {  # In this order. What only waits runs beside those behind it, which work in other trees.
    "checks": "format, layers, documentation, thread safety",
    "random": "a million random steps, a hundred thousand payloads",
    "network": "bad links, proxies, hostile servers, forks",
    "kills": "kills at every step, at random, among processes",
    "cache": "damage, failing calls, full disks, power losses",
    "hosts": "hosts files of several machines",
    "waiting": "the soak, a long rest",
    "model": "model checking",
    "fuzzers": "fuzzers",
    "coverage": "what the fuzzers' inputs reach",
    "mutants": "mutants: the library broken one line at a time",
    "generated": "sixty generated mutants, by a seed that is printed",
    "asan": "all tests, address and undefined behaviour sanitizers",
    "tsan": "all tests, thread sanitizer",
}
BESIDE = "waiting"
COUNTS = re.compile(r"^(?:tests|check|mutants): (\d+) (?:passed|killed), (\d+) (?:failed|survived)"
                    r"(?:, (\d+) skipped)?$")


class Part:
    def __init__(self, name):
        self.name, self.counts, self.minutes = name, [0, 0, 0], 0.0
        self.skipped = []

    def run(self):
        began = time.monotonic()
        part = subprocess.Popen(["./dev", "check", "--part", self.name], stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                errors="replace")
        counted = False
        with open(f"build/check/{self.name}.log", "w") as log:
            for line in part.stdout:
                log.write(line)
                log.flush()
                if self.name != BESIDE:
                    print(line, end="", flush=True)
                if line.startswith("skipped: "):
                    self.skipped.append(line.strip())
                found = COUNTS.match(line)
                if found:
                    counted = True
                    self.counts = [sum(pair) for pair in zip(
                        self.counts, (int(count or 0) for count in found.groups()))]
        good = part.wait() == 0
        # A part that does not count is one check; one may fail in what it does not count.
        if not counted and good:
            self.counts[0] = 1
        if not good and self.counts[1] == 0:
            self.counts[1] = 1
        self.minutes = (time.monotonic() - began) / 60


def main(names):
    unknown = [name for name in names if name not in PARTS]
    if unknown:
        print(f"check_full: there is no part {unknown[0]}; there are {' '.join(PARTS)}",
              file=sys.stderr)
        return 64
    os.makedirs("build/check", exist_ok=True)
    parts = [Part(name) for name in PARTS if not names or name in names]
    beside = None
    for part in parts:
        print(f"\n== {part.name}: {PARTS[part.name]}", flush=True)
        if part.name == BESIDE:
            beside = threading.Thread(target=part.run)
            beside.start()
        else:
            part.run()
    if beside is not None:
        beside.join()
    print(f"\n{'part':10}{'passed':>8}{'failed':>8}{'skipped':>9}{'minutes':>9}")
    for part in parts:
        print(f"{part.name:10}{part.counts[0]:8}{part.counts[1]:8}{part.counts[2]:9}"
              f"{part.minutes:9.1f}  {PARTS[part.name]}")
    for part in parts:
        for line in part.skipped:
            print(f"{part.name}: {line}")
    passed, failed, skipped = (sum(part.counts[i] for part in parts) for i in range(3))
    print(f"{passed} passed, {failed} failed, {skipped} skipped")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
