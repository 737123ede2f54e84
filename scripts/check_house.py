#!/usr/bin/env python3
"""check_house.py: sizes and habits that keep the tree readable. Fails on an offender that
scripts/house_offenders.txt does not name, on one there that has grown, and on an entry that is no
longer needed: the list may only shrink. Exit code: 0 or 1. CONTRIBUTING.md has the rules.

usage: scripts/check_house.py [--list]    (--list prints today's offenders in the list's form)
"""
import collections
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
OFFENDERS = ROOT / "scripts/house_offenders.txt"
PRODUCT = ("quenor_base/", "services/", "c/", "python/", "cli/", "collector/", "control/", "fleet/")
MOST = {"lines of a source": 700, "lines of a header": 300, "lines of a function": 60, "files in a folder": 20}
# Lines under tests/ for each line of library and tools, in hundredths.
RATIO, MOST_RATIO = "test lines per hundred product lines", 220
# What only one file may name: every other goes through it.
ONLY_IN = {
    r"\bpthread_atfork\b": ("quenor_base/platform/base/fork.h",),
    r"\bCLOCK_MONOTONIC\b|\bsteady_clock\b": (
        "quenor_base/platform/base/monotonic_time.h", "collector/clock.h", "tests/support/patience.h"),
    r"(?<![\w.>])v?fork\(\)|\bposix_spawnp?\(": ("tests/support/process.cc", "tests/support/forked.h"),
}
SUBJECT_COLUMNS = 72
# A definition's first line: not a statement, and not a type or a namespace.
NO_FUNCTION = re.compile(r"^(?:\}|#|else|do|try|if|for|while|switch|case|default|return|namespace|class|struct|union|enum|extern|"
                         r"using|constexpr char|QUENOR_[A-Z]+\(|[\w:.>*&-]+(?:\[.*\])? [-+|&]?= |.*[=(,] ?\[)")


def git(*arguments):
    return subprocess.run(["git", *arguments], cwd=ROOT, check=True, capture_output=True).stdout.decode()


def functions(lines):
    """(name, lines) of each function, as clang-format lays them out."""
    for number, line in enumerate(lines):
        if not line.endswith(" {") or ")" not in line:
            continue
        begin = number
        while begin > 0 and lines[begin - 1].strip() and not re.search(r"[;{}:]$|^\s*(?://|#|template)|^QUENOR_", lines[begin - 1]):
            begin -= 1
        head = " ".join(part.strip() for part in lines[begin:number + 1])
        name = re.match(r"[^(=]*?([\w:~]+|operator[^(]+)\(", head)
        if NO_FUNCTION.match(head) or not name:
            continue
        indent = re.match(" *", lines[begin])[0]
        end = next((n for n in range(number + 1, len(lines)) if lines[n].startswith(indent + "}")), number)
        yield name[1], end - begin + 1


def missing_conformance(files):
    """Of each service that can be linked: its contract as a suite with tests, on the default and on a fake."""
    listed = re.search(r"set\(QUENOR_SERVICES ([A-Z_\s]+)\)", (ROOT / "cmake/QuenorPlatform.cmake").read_text())
    runs = "".join((ROOT / n).read_text() for n in files if re.match(r"tests/conformance/runs/.*\.cc$", n))
    for service in listed[1].split():
        suite = "".join(word.capitalize() for word in service.split("_")) + "Conformance"
        base = f"tests/conformance/{service.lower()}_conformance"
        text = "".join((ROOT / n).read_text() for n in files if n in (base + ".h", base + ".cc"))
        if not re.search(rf"^(TYPED_)?TEST_P\({suite}, ", text, re.M):
            yield f"{service}, suite"
        for kind in ("Default", "Fake"):
            if not re.search(rf"^INSTANTIATE_(TYPED_)?TEST_SUITE_P\({kind}, {suite},", runs, re.M):
                yield f"{service}, {kind.lower()}"


def offenders():
    """{(rule, what): size}: whatever is over its bound."""
    found = {}
    def add(rule, what, size):
        found[rule, what] = max(size, found.get((rule, what), 0))
    files = [name for name in git("ls-files").splitlines() if (ROOT / name).is_file()]
    folders = collections.Counter(str(pathlib.PurePath(name).parent) for name in files)
    for folder, count in folders.items():
        kept = folder.startswith(PRODUCT + ("tests/", "benchmarks", "fuzzers", "cli", "collector")) and "/corpus/" not in folder
        if kept and count > MOST["files in a folder"]:
            add("files in a folder", folder, count)
    product_lines = test_lines = 0
    for name in files:
        is_code = name.endswith((".cc", ".h"))
        if not (is_code or name.startswith(("tests/", "python/")) and name.endswith(".py")):
            continue
        text = (ROOT / name).read_text(errors="replace")
        lines = text.splitlines()
        if name.startswith("tests/"):
            test_lines += len(lines)
        if name.startswith(PRODUCT):
            product_lines += len(lines)
            rule = "lines of a header" if name.endswith(".h") else "lines of a source"
            if len(lines) > MOST[rule]:
                add(rule, name, len(lines))
            for function, length in functions(lines):
                if length > MOST["lines of a function"]:
                    add("lines of a function", f"{name}: {function}", length)
        if is_code and not name.startswith("benchmarks/"):
            code = re.sub(r"//.*", "", text)
            for pattern, places in ONLY_IN.items():
                uses = len(re.findall(pattern, code))
                if uses and name not in places:
                    add("uses of " + re.sub(r"\W+", " ", re.sub(r"\\b|\(.*?\)", "", pattern)).strip(), name, uses)
    for what in missing_conformance(files):
        add("missing conformance", what, 1)
    ratio = (100 * test_lines + product_lines - 1) // product_lines
    print(f"house: {test_lines} lines under tests/, {product_lines} of library and tools: {test_lines / product_lines:.2f}")
    if ratio > MOST_RATIO:
        add(RATIO, "tests/", ratio)
    return found


def read_allowed():
    allowed = {}
    for line in OFFENDERS.read_text().splitlines() if OFFENDERS.exists() else []:
        if line and not line.startswith("#"):
            rule, what, size = line.split(" | ")
            allowed[rule, what] = int(size)
    return allowed


def main(arguments):
    found = offenders()
    if arguments == ["--list"]:
        print("\n".join(f"{rule} | {what} | {size}" for (rule, what), size in sorted(found.items())))
        return 0
    allowed, problems = read_allowed(), []
    for (rule, what), size in sorted(found.items()):
        if size > allowed.get((rule, what), 0):
            problems.append(f"{what}: {size} {rule}" + (f", {MOST[rule]} are allowed" if rule in MOST else ""))
    for (rule, what), size in sorted(allowed.items()):
        if found.get((rule, what), 0) < size:
            problems.append(f"{what}: {found.get((rule, what), 0)} {rule}: lower the {size} in {OFFENDERS.relative_to(ROOT)}")
    for line in git("log", "-100", "--format=%h %s").splitlines():
        commit, subject = line.split(" ", 1)
        if len(subject) > SUBJECT_COLUMNS or re.match(r"wip\b", subject, re.I):
            problems.append(f"commit {commit}: a subject of more than {SUBJECT_COLUMNS} columns, or wip: {subject}")
    for problem in problems:
        print(f"house: {problem}")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
