#!/usr/bin/env python3
"""Compares the lines of a file with what a collector's log says arrived, by SHA-256.

usage: compare_delivery.py INPUT LOG         exit 0 when every line arrived and nothing else did
       compare_delivery.py --count INPUT     prints how many messages the file holds
       compare_delivery.py --rest INPUT LIST  writes the lines that a saved list does not name
"""
import collections, hashlib, json, sys


def messages(path):
    with open(path, "rb") as f:
        data = f.read()
    lines = data.split(b"\n")
    return lines[:-1] if lines[-1] == b"" else lines  # The last line may lack its end.


if sys.argv[1] == "--count":
    print(len(messages(sys.argv[2])))
    sys.exit()

if sys.argv[1] == "--rest":
    with open(sys.argv[3]) as f:
        listed = f.read().split("\n")[:-1]  # What has no line end was not written whole.
    saved = {int(number) for number in listed}
    for number, message in enumerate(messages(sys.argv[2]), 1):
        if number not in saved:
            sys.stdout.buffer.write(message + b"\n")
    sys.exit()

sent = collections.Counter(hashlib.sha256(m).hexdigest() for m in messages(sys.argv[1]))
arrived = collections.Counter()
with open(sys.argv[2]) as log:
    for line in log:
        entry = json.loads(line)
        if entry["status"] == 200:
            arrived[entry["sha256"]] += 1
missing = sum((sent - arrived).values())
extra = arrived - sent
twice = sum(n for sha, n in extra.items() if sha in sent)
foreign = sum(n for sha, n in extra.items() if sha not in sent)
print(f"Result: {sum(sent.values())} lines handed over, {sum(sent.values()) - missing} arrived with "
      f"the right SHA-256, {missing} lost, {foreign} altered, {twice} arrived twice.")
sys.exit(missing != 0 or foreign != 0)
