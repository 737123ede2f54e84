#!/usr/bin/env python3
"""Puts into a folder, in place of what is there, the inputs that reach most of what no seed reaches:
CONTROL COUNT FOLDER SEEDS. CONTROL is what a fuzzer's merge leaves behind. For scripts/fuzz."""
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
seeds = {path.read_bytes() for path in seeds.iterdir()}
covered = set().union(*(reached[n] for n in reached if pathlib.Path(names[n]).read_bytes() in seeds))
chosen = []
while len(chosen) < count and covered != all_edges:
    best = max(reached, key=lambda n: (len(reached[n] - covered), -size[n], names[n]))
    covered |= reached[best]
    chosen.append(pathlib.Path(names[best]).read_bytes())
for path in folder.iterdir():
    path.unlink()
for data in chosen:
    (folder / hashlib.sha1(data).hexdigest()).write_bytes(data)
print(f"{len(chosen)} of {len(reached)} inputs kept beside {len(seeds)} seeds, "
      f"{len(covered)} of {len(all_edges)} edges")
