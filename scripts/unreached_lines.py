#!/usr/bin/env python3
"""Tells what of a source file an lcov report says was not reached: SOURCE LCOV. For scripts/fuzz."""
import pathlib
import sys

source, report = sys.argv[1:]
text = pathlib.Path(source).read_text().splitlines()
lines, branches, current = {}, [0, 0], False
for record in pathlib.Path(report).read_text().splitlines():
    kind, _, value = record.partition(":")
    if kind == "SF":
        current = value.endswith(source)
    elif current and kind == "DA":
        number, count = value.split(",")[:2]
        lines[int(number)] = lines.get(int(number), 0) + int(count)
    elif current and kind == "BRDA":
        branches[1] += 1
        branches[0] += value.split(",")[3] not in ("-", "0")
if not lines:
    sys.exit(f"{source}: nothing is known of it")
reached = sum(count > 0 for count in lines.values())
print(f"{source}: {reached} of {len(lines)} lines ({100 * reached // len(lines)} %), "
      f"{branches[0]} of {branches[1]} branches ({100 * branches[0] // max(1, branches[1])} %)")
for number in sorted(lines):
    # Nothing to reach in a line of brackets only.
    if lines[number] == 0 and text[number - 1].strip(" {}();"):
        print(f"  {number:5} {text[number - 1]}")
