#!/usr/bin/env python3
"""Tells what of a source file an lcov report says was not reached: SOURCE LCOV [SECTION]. For
scripts/fuzz. A section goes from the banner with its name to the next one."""
import pathlib
import sys

source, report, *section = sys.argv[1:]
text = pathlib.Path(source).read_text().splitlines()
wanted = range(1, len(text) + 1)
if section:
    banners = [n for n, line in enumerate(text, 1) if line.startswith("// ") and line.endswith("---")]
    begin = next(n for n in banners if text[n - 1].startswith(f"// {section[0]} -"))
    wanted = range(begin, min([n for n in banners if n > begin], default=len(text) + 1))
lines, branches, current = {}, [0, 0], False
for record in pathlib.Path(report).read_text().splitlines():
    kind, _, value = record.partition(":")
    if kind == "SF":
        current = value.endswith(source)
    elif kind in ("DA", "BRDA") and int(value.split(",")[0]) not in wanted:
        continue
    elif current and kind == "DA":
        number, count = value.split(",")[:2]
        lines[int(number)] = lines.get(int(number), 0) + int(count)
    elif current and kind == "BRDA":
        branches[1] += 1
        branches[0] += value.split(",")[3] not in ("-", "0")
if not lines:
    sys.exit(f"{source}: nothing is known of it")
reached = sum(count > 0 for count in lines.values())
print(f"{source}{''.join(', ' + name for name in section)}: {reached} of {len(lines)} lines ({100 * reached // len(lines)} %), "
      f"{branches[0]} of {branches[1]} branches ({100 * branches[0] // max(1, branches[1])} %)")
for number in sorted(lines):
    # Nothing to reach in a line of brackets only.
    if lines[number] == 0 and text[number - 1].strip(" {}();"):
        print(f"  {number:5} {text[number - 1]}")
