#!/usr/bin/env python3
"""Runs every scenario that is shipped, whole, and writes docs/fleet: a picture each, and the page.

  scripts/fleet_pictures.py PROGRAM [NAME...]    PROGRAM: quenor-fleet; NAME: those scenarios alone

The page is written anew from what the runs print; with NAMEs only their pictures are.
"""
import pathlib
import shutil
import subprocess
import sys
import tempfile
import textwrap

ROOT = pathlib.Path(__file__).resolve().parent.parent
SCENARIOS = ROOT / "fleet" / "scenarios"
DOCS = ROOT / "docs" / "fleet"

HEAD = """# What a fleet does

Written by `./dev fleet-pictures` from the scenarios in [fleet/scenarios](../../fleet/scenarios), each run whole; what
the words and the measures mean: [the guide](../guide/fleet.md). The incident is shaded; each point of a curve is the most
of 6 to 50 seconds. Each second of a run is in its CSV file: `quenor-fleet run fleet/scenarios/NAME.fleet --out DIR`.

| scenario | lost | refused | peak | gone after |
|---|---|---|---|---|
"""
COLUMNS = ["lost", "refused", "peak", "gone"]


def describe(path):
    """A scenario's title, what its comment says, and the lines that it is made of."""
    lines = path.read_text().splitlines()
    comment = " ".join(line[1:].strip() for line in lines if line.startswith("#"))
    rest = [line for line in lines if not line.startswith("#")]
    title = next(line[len("title "):] for line in rest if line.startswith("title "))
    return title, comment, [line for line in rest if not line.startswith("title ")]


def run(program, path, folder):
    """Draws the picture; the measures that the program prints, by name."""
    command = [program, "run", str(path), "--out", str(folder)]
    done = subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True)
    shutil.copy(folder / f"{path.stem}.svg", DOCS)
    measures = {}
    for line in done.stdout.splitlines()[1:]:
        measures[line.split()[0]] = line[12:33].strip()
    return measures


def section(path):
    title, comment, lines = describe(path)
    text = "\n".join(f"    {line}" for line in lines)
    said = textwrap.fill(f"{title}. {comment}", 120, break_on_hyphens=False)
    return (f"\n## {path.stem}\n\n{said}\n\n{text}\n\n"
            f"![{title}]({path.stem}.svg)\n")


def main():
    program, names = sys.argv[1], sys.argv[2:]
    DOCS.mkdir(exist_ok=True)
    paths = sorted(SCENARIOS.glob("*.fleet"))
    table, sections = "", ""
    with tempfile.TemporaryDirectory() as folder:
        for path in paths:
            if names and path.stem not in names:
                continue
            print(path.stem, flush=True)
            measures = run(program, path, pathlib.Path(folder))
            cells = [f"[{path.stem}](#{path.stem})"] + [measures[each] for each in COLUMNS]
            table += "| " + " | ".join(cells) + " |\n"
            sections += section(path)
    if not names:
        (DOCS / "README.md").write_text(HEAD + table + sections)


if __name__ == "__main__":
    main()
