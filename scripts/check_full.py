#!/usr/bin/env python3
"""check_full.py: every part of ./dev check --full, each in a process of its own, whatever the others
came to; at the end one table of what they came to, how long they took and how much of a processor.

usage: scripts/check_full.py [PART...]    (all of them; ./dev check --part PART runs one bare)
Two parts run at a time, the longest first: most of them use one core at most, or wait. What a part
prints goes to build/check/PART.log; its last lines are shown when it fails. Exit code: 0 all passed, 1 not.
"""
import concurrent.futures
import os
import pathlib
import re
import subprocess
import sys
import threading
import time

PARTS = {  # Started in this order.
    "waiting": "the soak, a long rest",
    "mutants": "mutants: the library broken one line at a time",
    "kills": "kills at every step, at random, among processes",
    "tsan": "all tests that have threads, thread sanitizer",
    "asan": "all tests, address and undefined behaviour sanitizers",
    "cache": "damage, failing calls, full disks, power losses",
    "generated": "sixty generated mutants, by a seed that is printed",
    "fuzzers": "fuzzers",
    "network": "bad links, proxies, hostile servers, forks, the README's programs 300 times",
    "fleets": "whole fleets in virtual time, a tier whose nodes die, its page in a browser",
    "model": "model checking",
    "random": "a million random steps, a hundred thousand payloads",
    "compiling": "projects that compile the library, or the contracts' suites, themselves",
    "abi": "what programs that were built before would find in the shared library",
    "coverage": "what the fuzzers' inputs reach",
    "metrics": "what scrapers read, by promtool",
    "hosts": "hosts files of several machines",
    "checks": "format, layers, documentation, thread safety",
}
TOLD = ("skipped: ", "mutants: --seed ", "generated: ", "survived: ")  # Lines that the end repeats.
BESIDE = "waiting"  # It needs hardly any processor time, and counts for none of the two.
AT_A_TIME = 2
LAST_LINES = 40
COUNTS = re.compile(r"^(?:tests|check|mutants): (\d+) (?:passed|killed), (\d+) (?:failed|survived)"
                    r"(?:, (\d+) skipped)?$")


class Part:
    def __init__(self, name):
        self.name, self.counts = name, [0, 0, 0]
        self.minutes = self.processor_minutes = 0.0
        self.told = []

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
                if line.startswith(TOLD):
                    self.told.append(line.strip())
                found = COUNTS.match(line)
                if found:
                    counted = True
                    self.counts = [sum(pair) for pair in zip(
                        self.counts, (int(count or 0) for count in found.groups()))]
        _, status, usage = os.wait4(part.pid, 0)  # With all that it has waited for itself.
        part.returncode = os.waitstatus_to_exitcode(status)
        good = part.returncode == 0
        # A part that does not count is one check; one may fail in what it does not count.
        if not counted and good:
            self.counts[0] = 1
        if not good and self.counts[1] == 0:
            self.counts[1] = 1
        self.minutes = (time.monotonic() - began) / 60
        self.processor_minutes = (usage.ru_utime + usage.ru_stime) / 60
        self.tell(good)

    def tell(self, good):
        print(f"{time.strftime('%H:%M')} {self.row()}", flush=True)
        if not good:
            log = pathlib.Path(f"build/check/{self.name}.log").read_text(errors="replace")
            print("\n".join(f"  {line}" for line in log.splitlines()[-LAST_LINES:]), flush=True)

    def row(self):
        passed, failed, skipped = self.counts
        return (f"{self.name:10}{passed:8}{failed:8}{skipped:9}{self.minutes:9.1f}"
                f"{self.processor_minutes:11.1f}  {PARTS[self.name]}")


def main(names):
    unknown = [name for name in names if name not in PARTS]
    if unknown:
        print(f"check_full: there is no part {unknown[0]}; there are {' '.join(PARTS)}",
              file=sys.stderr)
        return 64
    os.makedirs("build/check", exist_ok=True)
    os.environ["QUENOR_CHECK_RUN"] = f"{os.getpid()} {time.time()}"  # ./dev builds once in a run.
    parts = [Part(name) for name in PARTS if not names or name in names]
    head = f"{'part':10}{'passed':>8}{'failed':>8}{'skipped':>9}{'minutes':>9}{'processor':>11}"
    print(f"      {head}", flush=True)
    beside = [threading.Thread(target=part.run) for part in parts if part.name == BESIDE]
    for thread in beside:
        thread.start()
    with concurrent.futures.ThreadPoolExecutor(AT_A_TIME) as pool:
        list(pool.map(Part.run, (part for part in parts if part.name != BESIDE)))
    for thread in beside:
        thread.join()
    print(f"\n{head}")
    for part in parts:
        print(part.row())
    for part in parts:
        for line in part.told:
            print(f"{part.name}: {line}")
    passed, failed, skipped = (sum(part.counts[i] for part in parts) for i in range(3))
    print(f"{passed} passed, {failed} failed, {skipped} skipped")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
