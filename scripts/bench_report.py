#!/usr/bin/env python3
"""Makes a page and pictures of the benchmarks' figures.

  bench_report.py check RESULTS AREA...        every area has rows, and every row all its rounds
  bench_report.py show RESULTS AREA...         prints the table
  bench_report.py write RESULTS PAGE AREA...   writes the page, and pictures into the folder beside it
"""
import datetime
import json
import os
import platform
import re
import subprocess
import sys


def load(results, areas):
    pages = []
    for area in areas:
        with open(os.path.join(results, area + ".json")) as file:
            pages.append(json.load(file))
    return pages


def figure(value):
    if value == 0:
        return "0"
    if abs(value) >= 1000:
        return f"{value:,.0f}"
    return f"{value:.3g}"


def spread(entry):
    return f"{figure(entry['median'])} ({figure(entry['min'])} to {figure(entry['max'])})"


def target_text(target):
    if "at_most" in target:
        return f"at most {target['at_most']:g}"
    return f"at least {target['at_least']:g}"


def verdict(entry):
    return "met" if entry["met"] else "**missed**"


def row_lines(row):
    """Table lines of one row: ours first, with each rival's figure and the ratio to it."""
    ours = row["contenders"][0]
    judged = {}
    for target in row["targets"]:
        judged.setdefault(tuple(target["against"]), []).append(target)
    lines = []
    for rival in row["contenders"][1:]:
        targets = judged.pop((rival["name"],), [])
        ratio = ours["median"] / rival["median"] if rival["median"] else float("inf")
        if targets:
            for target in targets:
                lines.append((rival["name"], spread(rival), f"{target['median']:.2f}",
                              target_text(target), verdict(target)))
        else:
            lines.append((rival["name"], spread(rival), f"{ratio:.2f}", "", ""))
    for names, targets in judged.items():
        for target in targets:
            lines.append(("the best of " + ", ".join(names), "", f"{target['median']:.2f}",
                          target_text(target), verdict(target)))
    first = f"**{row['name']}**, {row['unit']}"
    out = [f"| {first} | {ours['name']} | {spread(ours)} | | | |"]
    out += ["| | " + " | ".join(line) + " |" for line in lines]
    return out


def count_targets(pages):
    met = missed = 0
    for page in pages:
        judged = [t for row in page["rows"] for t in row["targets"]]
        judged += [fact for fact in page["facts"] if "met" in fact]
        met += sum(entry["met"] for entry in judged)
        missed += sum(not entry["met"] for entry in judged)
    return met, missed


def area_text(page, pictures):
    tried = f"design/performance/{page['area']}.md"
    out = [f"## {page['title']}", "",
           f"What was mended and tried, and why a miss stands: [{tried}]({tried}).", ""]
    out += [line for text in page["texts"] for line in (text, "")]
    if page["rows"]:
        out += ["| row | who | median (min to max) | ours / theirs | target | |",
                "|---|---|---|---|---|---|"]
        for row in page["rows"]:
            out += row_lines(row)
        out.append("")
    if page["facts"]:
        out += ["| what | figure | target | |", "|---|---|---|---|"]
        for fact in page["facts"]:
            limit = f"at most {figure(fact['at_most'])}" if "at_most" in fact else ""
            out.append(f"| {fact['name']} | {figure(fact['value'])} {fact['unit']} | {limit} | "
                       f"{verdict(fact) if limit else ''} |")
        out.append("")
    notes = [(entry["name"], entry["note"]) for entry in page["rows"] + page["facts"] if entry["note"]]
    out += [f"- {name}: {note}" for name, note in notes]
    out += [""] if notes else []
    for plot in page["plots"]:
        out += [f"![{plot['title']}]({pictures}/{page['area']}_{plot['name']}.svg)", ""]
        out += [plot["note"], ""] if plot["note"] else []
    return out


def gnuplot(script):
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


def quoted(text):
    return '"' + text.replace("\\", "").replace('"', "'") + '"'


HEAD = ("set terminal svg size {width},{height} font 'sans-serif,12' background '#ffffff'\n"
        "set output {output}\nset border 3\nset grid ytics lc rgb '#dddddd'\n"
        "set key inside left top\n")


def cost_ratios(row):
    """What ours costs divided by what each rival does: below 1 is better, of a rate too."""
    ours = row["contenders"][0]["median"]
    theirs = [rival["median"] for rival in row["contenders"][1:]]
    ratios = [ours / other for other in theirs if ours > 0 and other > 0]
    return [1 / ratio for ratio in ratios] if row["unit"].endswith(" per s") else ratios


def draw_ratios(pages, path):
    """Every ratio of every area on one logarithmic axis: a line for each row, in the order of the tables."""
    bands, lines = [], 0
    for page in pages:
        if page["rows"]:
            bands.append((page["title"].split(":")[0], lines, lines + len(page["rows"]), page["rows"]))
            lines += len(page["rows"])
    script = HEAD.format(width=900, height=140 + 7 * lines, output=quoted(path))
    names = ", ".join(f"{quoted(name)} {(begin + end - 1) / 2}" for name, begin, end, _ in bands)
    script += ("unset key\nset title 'our cost divided by theirs, a point for each rival: left is better'\n"
               f"set ytics ({names}) noenhanced scale 0\nset yrange [{lines - 0.5}:-0.5]\nset grid noytics xtics\n"
               "set logscale x\nset arrow from 1, graph 0 to 1, graph 1 nohead lw 2 lc rgb '#888888'\n")
    script += "".join(f"set arrow from graph 0, first {begin - 0.5} to graph 1, first {begin - 0.5} nohead lc rgb '#dddddd'\n"
                      for _, begin, _, _ in bands[1:])
    script += "plot " + ", ".join("'-' with points pt 7 ps 0.4 lc rgb '#1f5fa8'" for _ in bands) + "\n"
    for _, begin, _, rows in bands:
        script += "".join(f"{ratio} {begin + index}\n" for index, row in enumerate(rows) for ratio in cost_ratios(row)) + "e\n"
    gnuplot(script)


def draw_plot(plot, path):
    script = HEAD.format(width=900, height=420, output=quoted(path))
    script += (f"set title {quoted(plot['title'])} noenhanced\nset xlabel {quoted(plot['x'])} noenhanced\n"
               f"set ylabel {quoted(plot['y'])} noenhanced\n")
    xs = [x for line in plot["lines"] for x, _ in line["points"]]
    ys = [y for line in plot["lines"] for _, y in line["points"]]
    if min(xs) > 0 and max(xs) / min(xs) > 100:
        script += "set logscale x\n"
    if min(ys) > 0 and max(ys) / min(ys) > 100:
        script += "set logscale y\n"
    else:
        script += "set yrange [0:*]\n"
    points = max(len(line["points"]) for line in plot["lines"])
    style = "linespoints pt 7 ps 0.6" if points < 100 else "lines"
    script += "plot " + ", ".join(f"'-' with {style} title {quoted(line['name'])} noenhanced"
                                  for line in plot["lines"]) + "\n"
    for line in plot["lines"]:
        script += "".join(f"{x} {y}\n" for x, y in line["points"]) + "e\n"
    gnuplot(script)


def processor():
    with open("/proc/cpuinfo") as file:
        found = re.search(r"model name\s*:\s*(.*)", file.read())
    return found.group(1) if found else platform.machine()


def machine():
    with open("/proc/meminfo") as file:
        memory_gib = int(file.readline().split()[1]) / (1 << 20)
    compiler = subprocess.run(["c++", "--version"], capture_output=True, text=True).stdout.split("\n")[0]
    load_now = os.getloadavg()[0]
    return (f"{os.cpu_count()} cores of {processor()}, {memory_gib:.0f} GiB, Linux {platform.release()}, "
            f"{compiler}, load at the end {load_now:.1f}")


def write(pages, path):
    pictures = os.path.splitext(path)[0]
    os.makedirs(pictures, exist_ok=True)
    for name in os.listdir(pictures):
        os.remove(os.path.join(pictures, name))
    met, missed = count_targets(pages)
    out = ["# Performance", "",
           "`./dev bench` wrote this page: each figure and its rival's were measured in the same run, in turn, round",
           "by round. What counts are the ratios, the median over the rounds of ours divided by theirs; the figures",
           "themselves belong to this machine and its noise. Repeat it with `./dev bench`, one area with",
           "`./dev bench AREA`. Rivals come from Debian's packages and are never part of the library's own build.",
           "", f"{datetime.date.today().isoformat()}, {machine()}. Targets met: {met}, missed: {missed}.", "",
           f"![Every ratio]({os.path.basename(pictures)}/ratios.svg)", "",
           "A line for each row of the tables below, in their order, and on it a point for each rival; of rates the",
           "inverse, so that left of 1 is better everywhere.", ""]
    draw_ratios(pages, os.path.join(pictures, "ratios.svg"))
    for page in pages:
        out += area_text(page, os.path.basename(pictures))
        for plot in page["plots"]:
            draw_plot(plot, os.path.join(pictures, f"{page['area']}_{plot['name']}.svg"))
    while out[-1] == "":
        out.pop()
    with open(path, "w") as file:
        file.write("\n".join(out) + "\n")
    print(f"bench: {path}: {met} targets met, {missed} missed")


def check(pages, areas):
    rows = 0
    for page, area in zip(pages, areas):
        problem = None
        if page["area"] != area:
            problem = "calls itself " + page["area"]
        elif not page["rows"] and not page["facts"]:
            problem = "has measured nothing"
        for row in page["rows"]:
            counts = {len(contender["rounds"]) for contender in row["contenders"]}
            if len(counts) != 1 or counts == {0}:
                problem = f"row {row['name']}: contenders with {sorted(counts)} rounds"
            if not all(contender["min"] > 0 for contender in row["contenders"]):
                problem = f"row {row['name']}: a figure that is not above 0"
        if problem:
            sys.exit(f"bench: {area} {problem}")
        rows += len(page["rows"]) + len(page["facts"])
    print(f"bench: {rows} rows of {len(pages)} areas have their shape")


def main():
    if len(sys.argv) < 4 or sys.argv[1] not in ("check", "show", "write"):
        sys.exit(__doc__)
    command, results = sys.argv[1:3]
    if command == "write":
        return write(load(results, sys.argv[4:]), sys.argv[3])
    pages = load(results, sys.argv[3:])
    if command == "check":
        return check(pages, sys.argv[3:])
    for page in pages:
        print("\n".join(area_text(page, ".")))


if __name__ == "__main__":
    main()
