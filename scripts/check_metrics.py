#!/usr/bin/env python3
"""Fails when standard input is no text that monitoring systems scrape (Prometheus text format 0.0.4),
and asks promtool, too, where that is installed (Debian: prometheus).

check_metrics.py < TEXT      with QUENOR_NEED_PROMTOOL=1 it fails where there is none
"""
import os, re, shutil, subprocess, sys

NAME, LABEL = r"[a-zA-Z_:][a-zA-Z0-9_:]*", r'[a-zA-Z_][a-zA-Z0-9_]*="(?:[^"\\\n]|\\["\\n])*"'
HEAD = re.compile(rf"# (HELP|TYPE) ({NAME}) (\S.*)")
SAMPLE = re.compile(rf"({NAME})(?:\{{({LABEL}(?:,{LABEL})*)\}})? (\S+)")
TYPES = {"counter", "gauge", "histogram", "summary", "untyped"}


def histogram(samples):
    """What is wrong with the samples of one histogram: (suffix, labels, value)."""
    series = {}
    for suffix, labels, value in samples:
        bound = next((float(l[4:-1]) for l in labels if l.startswith('le="')), None)
        rest = tuple(l for l in labels if not l.startswith('le="'))
        series.setdefault(rest, {}).setdefault(suffix, []).append((bound, value))
    for rest, parts in series.items():
        buckets = parts.get("_bucket", [])
        if [bound for bound, _ in buckets] != sorted({bound for bound, _ in buckets}):
            yield f"{rest}: bounds do not rise"
        if [value for _, value in buckets] != sorted(value for _, value in buckets):
            yield f"{rest}: buckets do not add up"
        if not buckets or buckets[-1][0] != float("inf"):
            yield f"{rest}: no bucket +Inf"
        elif [(None, buckets[-1][1])] != parts.get("_count") or len(parts.get("_sum", [])) != 1:
            yield f"{rest}: _count or _sum is missing or wrong"


def problems(text):
    if not text.endswith("\n"):
        yield "the last line has no end"
    metrics, name, seen = {}, None, set()  # name -> its type and samples
    for number, line in enumerate(text.split("\n")[:-1], 1):
        where = f"line {number}: {line!r}:"
        if line.startswith("#"):
            head = HEAD.fullmatch(line)
            if not head:
                yield f"{where} no HELP and no TYPE"
            elif head[1] == "HELP":
                name = head[2]
                if name in metrics:
                    yield f"{where} a second time"
                metrics[name] = [None, []]
            elif head[2] != name or metrics[name][0] or metrics[name][1] or head[3] not in TYPES:
                yield f"{where} not behind its HELP, or of no type"
            else:
                metrics[name][0] = head[3]
                if (head[3] == "counter") != name.endswith("_total"):
                    yield f"{where} counters, and nothing else, end with _total"
            continue
        sample = SAMPLE.fullmatch(line)
        if not sample:
            yield f"{where} no sample"
            continue
        suffix = sample[1][len(name or ""):]
        is_histogram = name and metrics[name][0] == "histogram"
        if not name or not sample[1].startswith(name) or not metrics[name][0] or \
                suffix not in (("_bucket", "_sum", "_count") if is_histogram else ("",)):
            yield f"{where} of another metric than the head before it"
            continue
        labels = tuple(re.findall(LABEL, sample[2] or ""))
        if (sample[1], labels) in seen or len({l.split("=")[0] for l in labels}) != len(labels):
            yield f"{where} a second time"
        seen.add((sample[1], labels))
        try:
            metrics[name][1].append((suffix, labels, float(sample[3])))
        except ValueError:
            yield f"{where} no number"
    for name, (kind, samples) in metrics.items():
        if not kind or not samples:
            yield f"{name}: no TYPE or no sample"
        if kind == "histogram":
            yield from (f"{name}{what}" for what in histogram(samples))
    if not metrics:
        yield "there is no metric"


def main():
    data = sys.stdin.buffer.read()
    try:
        found = list(problems(data.decode()))
    except UnicodeDecodeError as error:
        found = [str(error)]
    promtool = shutil.which("promtool")
    if promtool:
        told = subprocess.run([promtool, "check", "metrics"], input=data, capture_output=True)
        if told.returncode != 0 or told.stderr:
            found.append("promtool: " + (told.stdout + told.stderr).decode(errors="replace"))
    elif os.environ.get("QUENOR_NEED_PROMTOOL"):
        found.append("there is no promtool; install prometheus")
    print("\n".join(found) or f"accepted, {'by promtool, too' if promtool else 'without promtool'}")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
