#!/usr/bin/env python3
"""Puts the inputs that reach most into a folder, in place of what is there: CONTROL COUNT FOLDER
SEEDS. CONTROL is what a fuzzer's merge leaves behind. Up to half of them are seeds, drawn evenly: what
they reach in a library that is not instrumented, no edge tells. For scripts/fuzz."""
import hashlib
import pathlib
import sys

control, count, folder, seeds = sys.argv[1], int(sys.argv[2]), *map(pathlib.Path, sys.argv[3:])
lines = pathlib.Path(control).read_text().splitlines()
names = lines[2:2 + int(lines[0])]
reached = {}
for line in lines[2 + len(names):]:
    kind, number, *edges = line.split()
    if kind == "FT":
        reached[int(number)] = set(edges)
size = {number: pathlib.Path(names[number]).stat().st_size for number in reached}
all_edges = set().union(*reached.values())
seeds = sorted(seeds.iterdir(), key=lambda path: int(path.name.split("-")[1]))
step = max(1, -(-2 * len(seeds) // count))
chosen = [path.read_bytes() for path in seeds[::step]]
covered = set().union(*(reached[n] for n in reached if pathlib.Path(names[n]).read_bytes() in chosen))
while len(chosen) < count and covered != all_edges:
    best = max(reached, key=lambda n: (len(reached[n] - covered), -size[n], names[n]))
    covered |= reached[best]
    chosen.append(pathlib.Path(names[best]).read_bytes())
for path in folder.iterdir():
    path.unlink()
for data in chosen:
    (folder / hashlib.sha1(data).hexdigest()).write_bytes(data)
print(f"{len(chosen)} of {len(reached)} inputs kept, {len(covered)} of {len(all_edges)} edges")
