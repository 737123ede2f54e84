#!/usr/bin/env python3
"""Breaks the library, the tool and the collector mechanically and tells what no test notices.

Faults are drawn by a seed from all those that a few rules find: the bound of a comparison moved by
one, an equality turned round, a condition or a returned truth negated, a statement dropped, a field
not reset, two neighbouring statements exchanged. All of them are compiled once, each behind a
run-time switch (tests/mutants/switch.h). One run of every test, as ctest runs it, notes which test
executes which fault; then each fault is switched on for the tests that execute it, the quickest
first, until one fails.

The work tree is only read. The same call goes on where the last one stopped. Exit code: 0 at least
three in four were killed of those that are not explained (tests/mutants/explained.txt), 1 fewer,
2 it could not be tried, 130 interrupted. docs/design/mutants.md describes the method.
"""
import argparse
import collections
import concurrent.futures
import hashlib
import json
import os
import pathlib
import random
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
EXPLAINED = ROOT / "tests/mutants/explained.txt"
SOURCES = ("quenor_base/", "services/", "cli/", "collector/", "control/")
# Tests that wait long, build other projects, or count what a switch changes.
LEFT_OUT = re.compile(r"^(package|network|fleet)\.|Soak|LongRest")

RELATIONS = {"<": ("Less", "LessEqual", "<="), "<=": ("LessEqual", "Less", "<"),
             ">": ("Greater", "GreaterEqual", ">="), ">=": ("GreaterEqual", "Greater", ">"),
             "==": ("Equal", "NotEqual", "!="), "!=": ("NotEqual", "Equal", "==")}
# One call, assignment or count; never a declaration, whose type stands before a blank.
STATEMENT = re.compile(r"^(?!return\b|delete\b|break\b|continue\b|goto\b|static_assert\b|QUENOR_|using\b)"
                       r"(?:\+\+|--|\*)?[A-Za-z_][\w:]*(?:(?:\.|->)\w+|\[[^\]]*\]|\(.*\))*"
                       r"(?: (?:[-+|&^]|<<|>>)?= .+|\+\+|--)?;$")
RESET = re.compile(r" = (?:0|-1|nullptr|false|\{\}|\"\"|\w+\(\)|k[A-Z]\w*);$|(?:\.|->)(?:clear|reset)\(\);$")
CALL = re.compile(r"^[^=]*\(.*\);$")


class Fault(Exception):
    """Nothing can be said about mutants."""


class Mutant:
    """One fault: `text` stands for columns begin to end of the lines from `line` (from 0) on."""

    def __init__(self, file, line, kind, becomes, edits):
        self.file, self.line, self.kind, self.becomes, self.edits = file, line, kind, becomes, edits
        self.number, self.old = None, None

    def lines(self):
        return {line for line, _, _, _ in self.edits}

    def key(self):
        return f"{self.file}:{self.line + 1}: {self.kind}: {self.old} -> {self.becomes}"


def mask(text):
    """The text with comments, strings and characters blanked, each line as long as before."""
    pattern = re.compile(r"//[^\n]*|/\*.*?\*/|R\"(\w*)\(.*?\)\1\"|\"(?:\\.|[^\"\\\n])*\"|'(?:\\.|[^'\\\n])+'", re.S)
    blank = lambda m: re.sub(r"[^\n]", "\x01" if m[0][0] in "\"'R" else " ", m[0])
    return pattern.sub(blank, text)


def closing(line, opening):
    depth = 0
    for at in range(opening, len(line)):
        depth += (line[at] == "(") - (line[at] == ")")
        if depth == 0:
            return at
    return None


def statements(lines):
    """Line numbers of one-line statements inside a function, as far as lines can tell."""
    found, before = set(), "{"
    for number, line in enumerate(lines):
        code = line.strip()
        if not code:
            continue
        if (STATEMENT.match(code) and not code.endswith((" = delete;", " = default;"))
                and code.count("(") == code.count(")")
                and line.startswith("  ") and before[-1] in ";{}:"):
            found.add(number)
        before = code
    return found


def candidates(file, text):
    """Every fault that the rules find in one file."""
    lines = mask(text).split("\n")
    found = []
    add = lambda line, kind, becomes, *edits: found.append(Mutant(file, line, kind, becomes, edits))
    simple = statements(lines)
    for number, line in enumerate(lines):
        code = line.strip()
        if code.startswith(("#", "static_assert", "template", "QUENOR_CHECK")) or "constexpr" in code:
            continue
        for match in re.finditer(r"(?<=[^ ] )(<=?|>=?|==|!=)(?= [^ ])", line):
            was, becomes, sign = RELATIONS[match[1]]
            place = "==" if match[1] in ("==", "!=") else "<"
            text_of = f"{place} quenor_mutants::Operator<%d, quenor_mutants::{was}, quenor_mutants::{becomes}>() {place}"
            add(number, "equality" if place == "==" else "bound",
                f"{line[:match.start()].strip()[-30:]} {sign} {line[match.end():].strip()[:30]}".replace("\x01", "_"),
                (number, match.start(), match.end(), text_of))
        for match in re.finditer(r"(?<!else )\bif \(", line):
            end = closing(line, match.end() - 1)
            if end is None or re.search(r";| = ", line[match.end():end]):
                continue
            add(number, "branch", "if (!(...))",
                (number, match.end(), match.end(), "quenor_mutants::On(%d) != static_cast<bool>("),
                (number, end, end, ")"))
        match = re.match(r"^( +(?:if \(.*\) )?return )(true|false);$", line)
        if match:
            add(number, "return", f"return !{match[2]}",
                (number, match.end(1), match.end(2), f"quenor_mutants::On(%d) != {match[2]}"))
        if number in simple:
            begin = len(line) - len(line.lstrip())
            kind = "unreset" if RESET.search(code) else "drop"
            add(number, kind, "nothing", (number, begin, begin, "{ if (!quenor_mutants::On(%d)) "),
                (number, len(line.rstrip()), len(line.rstrip()), " }"))
            if number + 1 in simple and lines[number + 1][:begin + 1].strip() == lines[number + 1][begin]:
                original = text.split("\n")
                first, second = original[number].strip(), original[number + 1].strip()
                # Two plain assignments may stand either way.
                if "//" not in first + second and (CALL.match(first) or CALL.match(second)):
                    add(number, "order", f"{second} {first}",
                        (number, begin, begin, "if (!quenor_mutants::On(%d)) { "),
                        (number + 1, len(lines[number + 1].rstrip()), len(lines[number + 1].rstrip()),
                         f" }} else {{ {second} {first} }}"))
    for mutant in found:
        mutant.old = text.split("\n")[mutant.line].strip()
    return found


def draw(files, count, seed, patterns):
    """`count` of all faults, at most one to a line, numbered from 1; and how many there are."""
    every = []
    for file in files:
        if file.startswith(SOURCES) and file.endswith((".cc", ".h")) and re.search(patterns, file):
            every += candidates(file, (ROOT / file).read_text())
    random.Random(seed).shuffle(every)
    chosen, taken = [], collections.defaultdict(set)
    for mutant in every:
        if len(chosen) == count:
            break
        if not taken[mutant.file] & mutant.lines():
            taken[mutant.file] |= mutant.lines()
            chosen.append(mutant)
    for number, mutant in enumerate(chosen, 1):
        mutant.number = number
    return chosen, len(every)


def instrument(text, mutants):
    """The text with all these mutants in it, each behind its switch, on the lines where it stood."""
    lines = text.split("\n")
    edits = [(*edit, mutant.number) for mutant in mutants for edit in mutant.edits]
    for line, begin, end, put, number in sorted(edits, reverse=True):
        lines[line] = lines[line][:begin] + put.replace("%d", str(number)) + lines[line][end:]
    return "\n".join(lines)


def write_tree(tree, files, mutants):
    by_file = collections.defaultdict(list)
    for mutant in mutants:
        by_file[mutant.file].append(mutant)
    for name in files:
        source, target = ROOT / name, tree / name
        data = source.read_bytes()
        if name in by_file:
            data = instrument(data.decode(), by_file[name]).encode()
        target.parent.mkdir(parents=True, exist_ok=True)
        if not target.is_file() or target.read_bytes() != data:
            target.write_bytes(data)
            shutil.copymode(source, target)


class Trial:
    """The copy, its build and what is known of it, in a folder that the next call finds again."""

    def __init__(self, folder, jobs, keep_going):
        self.folder, self.jobs, self.keep_going = folder, jobs, keep_going
        self.tree, self.build = folder / "tree", folder / "build"
        self.stop = threading.Event()
        self.write_lock = threading.Lock()

    def compile(self, files, mutants):
        """Builds; faults that do not compile are taken out. Returns those that are in."""
        environment = dict(os.environ, CCACHE_BASEDIR=str(self.folder))
        log = self.folder / "build.txt"
        arguments = ["cmake", "-S", self.tree, "-B", self.build, "-G", "Ninja",
                     "-DCMAKE_BUILD_TYPE=None", "-DQUENOR_BUILD_TESTS=ON", "-DQUENOR_WERROR=OFF",
                     f"-DCMAKE_CXX_FLAGS=-O0 -w -include {self.tree}/tests/mutants/switch.h"]
        if shutil.which("ccache"):
            arguments.append("-DCMAKE_CXX_COMPILER_LAUNCHER=ccache")
        for _ in range(12):
            write_tree(self.tree, files, mutants)
            with open(log, "wb") as out:
                for command in (arguments, ["ninja", "-C", self.build, f"-j{self.jobs}", "-k0"]):
                    code = subprocess.run([str(c) for c in command], stdout=out, stderr=out,
                                          env=environment).returncode
            if code == 0:
                return mutants
            places = {(m[1], int(m[2]) - 1) for m in re.finditer(
                r"^(?:In file included from )?(?:%s/|\S*?/tree/)?([\w/.]+\.(?:h|cc)):(\d+)" % re.escape(str(self.tree)),
                log.read_text(errors="replace"), re.M)}
            broken = {m for m in mutants if any((m.file, line) in places for line in m.lines())}
            if not broken:  # What is amiss shows further down: a name that is no longer declared.
                before = lambda m: [line - m.line for file, line in places if file == m.file and m.line < line]
                near = [(min(before(m)), m.number, m) for m in mutants if before(m)]
                broken = {min(near)[2]} if near else set()
            if not broken:
                raise Fault(f"the copy does not build: {log}")
            print(f"mutants: {len(broken)} do not compile and are left out", flush=True)
            mutants = [m for m in mutants if m not in broken]
        raise Fault(f"the copy does not build: {log}")

    def tests(self):
        listed = subprocess.run(["ctest", "--show-only=json-v1"], cwd=self.build, check=True,
                                capture_output=True).stdout
        found = []
        for test in json.loads(listed)["tests"]:
            about = {p["name"]: p["value"] for p in test.get("properties", [])}
            if "command" in test and "slow" not in about.get("LABELS", []) and not LEFT_OUT.search(test["name"]):
                found.append((test["name"], test["command"], about))
        return found

    def run(self, test, limit_s, **environment):
        """True when the test passes; and how long it took."""
        name, command, about = test
        env = dict(os.environ, QUENOR_TEST_SEED="1", QUENOR_TEST_STEPS="10000", **environment)
        env.update(line.split("=", 1) for line in about.get("ENVIRONMENT", []))
        began = time.monotonic()
        with tempfile.TemporaryFile() as out:
            child = subprocess.Popen(command, cwd=about.get("WORKING_DIRECTORY", self.build), env=env,
                                     stdout=out, stderr=out, stdin=subprocess.DEVNULL, start_new_session=True)
            try:
                code = child.wait(limit_s)
            except subprocess.TimeoutExpired:
                code = None
            finally:
                try:
                    os.killpg(child.pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass
                child.wait()
            out.seek(0)
            skipped = b"[  SKIPPED ]" in out.read()
        return code == 0 and not skipped, time.monotonic() - began

    def record(self, mutants):
        """Which test executes which fault: {test name: (seconds, [numbers])}, kept in reached.jsonl."""
        path, known = self.folder / "reached.jsonl", {}
        if path.exists():
            for line in path.read_text().splitlines():
                name, seconds, numbers = json.loads(line)
                known[name] = (seconds, numbers)
        size = 1 + max(m.number for m in mutants)

        def one(test):
            if self.stop.is_set():
                return
            with tempfile.NamedTemporaryFile(dir=self.folder) as marks:
                marks.write(bytes(size))
                marks.flush()
                passed, seconds = self.run(test, 300, QUENOR_MUTANTS_REACHED=marks.name)
                marks.seek(0)
                numbers = [n for n, byte in enumerate(marks.read()) if byte]
            with self.write_lock, open(path, "a") as out:
                known[test[0]] = (seconds if passed else None, numbers)
                out.write(json.dumps([test[0], *known[test[0]]]) + "\n")

        todo = [test for test in self.tests() if test[0] not in known]
        self.each(one, todo)
        return known

    def each(self, function, items):
        with concurrent.futures.ThreadPoolExecutor(self.jobs) as pool:
            futures = [pool.submit(function, item) for item in items]
            try:
                for future in concurrent.futures.as_completed(futures):
                    future.result()
            except BaseException:
                self.stop.set()
                for future in futures:
                    future.cancel()
                raise

    def attempt(self, mutant, tests, known):
        """The test that notices, or None; how many were asked, and of how many."""
        asking = sorted((t for t in tests if t[0] in known and known[t[0]][0] is not None
                         and mutant.number in known[t[0]][1]), key=lambda t: known[t[0]][0])
        spent, asked = 0.0, 0
        for test in asking:
            if self.stop.is_set() or spent > self.keep_going:
                break
            limit = 5 + 10 * known[test[0]][0]
            passed, seconds = self.run(test, limit, QUENOR_MUTANT=str(mutant.number))
            spent, asked = spent + seconds, asked + 1
            if not passed and self.run(test, 2 * limit)[0]:  # It passes without: the fault is noticed.
                return test[0], asked, len(asking)
        return None, asked, len(asking)


def read_explained():
    """{file: {(kind, line): reason}}"""
    found, file, entry = collections.defaultdict(dict), None, None
    for number, line in enumerate(EXPLAINED.read_text().splitlines() if EXPLAINED.exists() else [], 1):
        if not line.strip() or line.startswith("#"):
            continue
        if line.startswith("["):
            file = line.strip("[] ")
        elif line.startswith("    "):
            found[file][entry] += " " + line.strip()
        else:
            kind, _, old = line.partition(": ")
            entry = (kind, old.strip())
            if file is None or not old:
                raise Fault(f"{EXPLAINED}:{number}: expected [FILE], KIND: LINE, then the reason, indented")
            found[file][entry] = ""
    return found


def table(mutants, results, explained, found, began):
    rows = collections.defaultdict(collections.Counter)
    survivors = []
    for mutant in mutants:
        if mutant.number not in results:
            continue
        killer, asked, of = results[mutant.number]
        row = rows[str(pathlib.PurePath(mutant.file).parent)]
        what = "killed" if killer else "explained" if (mutant.kind, mutant.old) in explained[mutant.file] else "survived"
        row[what] += 1
        if what == "survived":
            row["not reached"] += of == 0
            survivors.append((mutant, asked, of))
    for mutant, asked, of in sorted(survivors, key=lambda s: (s[0].file, s[0].line)):
        print(f"survived: {mutant.key()} ({asked} of {of} tests that execute it)")
    columns = ("killed", "explained", "survived", "not reached")
    print(f"\n{'folder':42}" + "".join(f"{c:>13}" for c in columns))
    for folder, row in sorted(rows.items()):
        print(f"{folder:42}" + "".join(f"{row[c]:13}" for c in columns))
    total = sum(rows.values(), collections.Counter())
    print(f"{'all':42}" + "".join(f"{total[c]:13}" for c in columns))
    print(f"mutants: {len(mutants)} of {found} that the rules find; {(time.monotonic() - began) / 60:.0f} min")
    tried = sum(total[c] for c in columns[:3])
    print(f"generated: {total['killed']} of {tried} killed, {total['explained']} explained, "
          f"{total['survived']} survived; at least three in four are asked for", flush=True)
    return 0 if total["killed"] >= 3 * total["survived"] else 1


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--count", type=int, default=60, metavar="N", help="faults drawn (60)")
    parser.add_argument("--seed", type=int, metavar="N", help="repeats a draw; printed at the start")
    parser.add_argument("--only", default="", metavar="REGEX", help="only files whose name matches")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), metavar="N", help="tests run at a time")
    parser.add_argument("--patience", type=float, default=60, metavar="SECONDS",
                        help="tests run on one fault before it counts as survived (60)")
    parser.add_argument("--scratch", type=pathlib.Path, default=ROOT / "build/mutants", metavar="DIR",
                        help="the copy, its build and the results so far (build/mutants)")
    parser.add_argument("--list", action="store_true", help="only print the faults drawn")
    options = parser.parse_args()
    seed = random.randrange(1 << 31) if options.seed is None else options.seed
    began = time.monotonic()
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, signal.default_int_handler)
    try:
        explained = read_explained()
        files = [f for f in subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, check=True, capture_output=True)
                 .stdout.decode().split("\0") if f and (ROOT / f).is_file()]
        mutants, found = draw(files, options.count, seed, options.only)
        print(f"mutants: --seed {seed} --count {options.count}: {len(mutants)} of {found}", flush=True)
        if options.list:
            for mutant in mutants:
                print(f"{mutant.number:4} {mutant.key()}")
            return 0
        digest = hashlib.sha256(repr([(f, (ROOT / f).read_bytes()) for f in files]
                                     + [seed, options.count, options.only]).encode()).hexdigest()[:16]
        folder = options.scratch.resolve() / digest
        folder.mkdir(parents=True, exist_ok=True)
        trial = Trial(folder, options.jobs, options.patience)
        mutants = trial.compile(files, mutants)
        print(f"mutants: built after {time.monotonic() - began:.0f} s: {folder}", flush=True)
        known = trial.record(mutants)
        for name, (seconds, _) in sorted(known.items()):
            if seconds is None:
                print(f"mutants: {name} skips or fails without any fault and is not asked")
        results, path = {}, folder / "results.jsonl"
        if path.exists():
            results = {r[0]: r[1:] for r in map(json.loads, path.read_text().splitlines())}
        print(f"mutants: {len(known)} tests run after {time.monotonic() - began:.0f} s; "
              f"{len(results)} mutants tried before", flush=True)
        tests = trial.tests()

        def one(mutant):
            if trial.stop.is_set():
                return
            result = trial.attempt(mutant, tests, known)
            if result[0] is None and trial.stop.is_set():
                return
            with trial.write_lock, open(path, "a") as out:
                results[mutant.number] = result
                out.write(json.dumps([mutant.number, *result]) + "\n")
                print(f"[{len(results):3}/{len(mutants)}] {mutant.key()[:110]}  "
                      f"{result[0] or 'SURVIVED (%d of %d)' % result[1:]}", flush=True)

        trial.each(one, [m for m in mutants if m.number not in results])
        return table(mutants, results, explained, found, began)
    except Fault as fault:
        print(f"mutants: {fault}", file=sys.stderr)
        return 2
    except KeyboardInterrupt:
        print("mutants: interrupted; the same call goes on", file=sys.stderr)
        return 130


if __name__ == "__main__":
    sys.exit(main())
