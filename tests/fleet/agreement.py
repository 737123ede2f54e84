#!/usr/bin/env python3
"""agreement.py FLEET REFERENCE COUNT: COUNT random small fleets, run by the simulator's engine and
by the tests' virtual time, have the same events at the same times and the same seconds, and their
books close. QUENOR_TEST_SEED is the first seed; of the first that differs, the first line that does."""
import itertools
import os
import subprocess
import sys


def lines(program, *arguments):
    run = subprocess.run([program, *map(str, arguments)], capture_output=True, text=True)
    return run.returncode, run.stdout.splitlines(), run.stderr


def main(fleet, reference, count):
    first = int(os.environ.get("QUENOR_TEST_SEED", "1"))
    codes, said, errors = zip(*(lines(program, first, count) for program in (fleet, reference)))
    print(f"seeds {first} to {first + count - 1}")
    for ours, theirs in itertools.zip_longest(*said):
        if ours == theirs:
            continue
        seed = (ours or theirs).split()[1].rstrip(":")
        print(f"the engine: {ours}\nvirtual time: {theirs}")
        events = [lines(program, seed, 1, "--events")[1] for program in (fleet, reference)]
        for number, (our_event, their_event) in enumerate(itertools.zip_longest(*events), 1):
            if our_event != their_event:
                print(f"line {number}:\n  the engine: {our_event}\n  virtual time: {their_event}")
                break
        return 1
    if codes != (0, 0) or len(said[0]) != count:
        print(f"exit codes {codes}, {len(said[0])} of {count} fleets", *errors, sep="\n")
        return 1
    events = sum(int(line.split()[2]) for line in said[0])
    print(f"{count} fleets, {events} events: no difference, all books close")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], sys.argv[2], int(sys.argv[3])))
