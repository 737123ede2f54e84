#!/usr/bin/env python3
"""Breaks the library on purpose, one line at a time, and tells which test notices.

Each mutant of tests/mutants/list.txt is applied alone to a copy of the tree, built, and run against
the tests that the list names. One that no test kills shows something that no test asserts.

The work tree is only read. Exit code: 0 all killed, 1 some survived, 2 the list or the unmutated
tests are at fault, 130 interrupted. docs/design/mutants.md describes the list and the method.
"""
import argparse
import os
import pathlib
import queue
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
LIST = "tests/mutants/list.txt"
BUILDS = {  # CMake arguments of each build that a mutant may ask for
    "plain": ["-DCMAKE_CXX_FLAGS=-O0"],
    "thread": ["-DCMAKE_CXX_FLAGS=-O1", "-DQUENOR_SANITIZE=thread"],
    "address": ["-DCMAKE_CXX_FLAGS=-O1", "-DQUENOR_SANITIZE=address"],
}
TIME_LIMIT_S = 60  # per executable, or ten times what it takes unmutated


class Fault(Exception):
    """The list, the build or the unmutated tests are wrong; nothing can be said about mutants."""


class Interrupted(Exception):
    pass


class Mutant:
    def __init__(self, name, why, which, of, file, build, runs, line):
        self.name, self.why, self.which, self.of = name, why, which, of
        self.file, self.build, self.runs, self.line = file, build, runs, line
        self.old, self.new = [], []

    def apply(self, text):
        """The file's text with this mutant in it. Lines are compared without their indentation."""
        lines = text.split("\n")
        stripped = [line.strip() for line in lines]
        n = len(self.old)
        found = [i for i in range(len(lines) - n + 1) if stripped[i : i + n] == self.old]
        if len(found) != self.of:
            raise Fault(f"{LIST}:{self.line}: {self.name} no longer applies: its old text stands "
                        f"{len(found)} times in {self.file}, not {self.of}")
        at = found[self.which - 1]
        return "\n".join(lines[:at] + self.new + lines[at + n :])


def read_list(path):
    mutants, file, build, runs = [], None, None, None
    for number, line in enumerate(path.read_text().splitlines(), 1):
        where = f"{LIST}:{number}"
        if not line.strip() or line.startswith("#"):
            continue
        if line.startswith("["):
            file, build, runs = line.strip("[] "), None, None
        elif line.startswith("run "):
            words = line.split()[1:]
            build = words.pop(0) if words[0] in BUILDS else "plain"
            runs = [tuple(word.split("/", 1)) if "/" in word else (word, "*") for word in words]
        elif line[0] in "-+":
            if not mutants:
                raise Fault(f"{where}: a change without a mutant")
            (mutants[-1].old if line[0] == "-" else mutants[-1].new).append(line[1:].strip())
        else:
            head = re.fullmatch(r"([a-z0-9-]+)(?: \((\d+) of (\d+)\))?: (.+)", line)
            if head is None or not runs:
                raise Fault(f"{where}: expected [FILE], run, NAME: WHY, - or +, in that order")
            mutants.append(Mutant(head[1], head[4], int(head[2] or 1), int(head[3] or 1), file,
                                  build, runs, number))
    seen = set()
    for mutant in mutants:
        if mutant.name in seen:
            raise Fault(f"{LIST}:{mutant.line}: {mutant.name} is there twice")
        seen.add(mutant.name)
        if not mutant.old or mutant.old == mutant.new:
            raise Fault(f"{LIST}:{mutant.line}: {mutant.name} changes nothing")
        path = ROOT / mutant.file
        if not path.is_file():
            raise Fault(f"{LIST}:{mutant.line}: {mutant.name}: there is no {mutant.file}")
        mutant.apply(path.read_text())
    return mutants


class Runner:
    """Runs commands, each in a session of its own that ends with it. Any thread."""

    def __init__(self):
        self.stop = threading.Event()

    def run(self, command, cwd, log, limit_s=None, env=None):
        """The exit code, negative for a signal; None when the time limit passed."""
        with open(log, "wb") as out:
            child = subprocess.Popen([str(c) for c in command], cwd=cwd, env=env, stdout=out,
                                     stderr=out, stdin=subprocess.DEVNULL, start_new_session=True)
        end = None if limit_s is None else time.monotonic() + limit_s
        # Left unreaped until its group is gone: until then nobody else can get its number.
        has_ended = lambda: os.waitid(os.P_PID, child.pid,
                                      os.WEXITED | os.WNOHANG | os.WNOWAIT) is not None
        try:
            while not has_ended():
                if self.stop.is_set():
                    raise Interrupted()
                if end is not None and time.monotonic() > end:
                    return None
                time.sleep(0.02)
        finally:
            if not has_ended():  # Ninja ends its compilers, which have groups of their own.
                os.killpg(child.pid, signal.SIGTERM)
                grace_end = time.monotonic() + 5
                while not has_ended() and time.monotonic() < grace_end:
                    time.sleep(0.02)
            os.killpg(child.pid, signal.SIGKILL)  # What a test left running, too.
            child.wait()
        return child.returncode


class Worker:
    """One copy of the tree with its builds."""

    def __init__(self, runner, folder, build_jobs):
        self.runner, self.folder, self.build_jobs = runner, folder, build_jobs
        self.tree = folder / "tree"
        self.log = folder / "log.txt"
        # Instead of Thread.join(): a Ctrl-C in there makes Python take the thread for ended, and
        # the next join() returns while the thread still has its file to put back.
        self.done = threading.Event()
        self.programs = {}  # (build, executable) -> path
        self.env = dict(os.environ, TSAN_OPTIONS="halt_on_error=1", QUENOR_TEST_SEED=os.environ.get(
            "QUENOR_TEST_SEED", "1"), CCACHE_BASEDIR=str(folder))

    def copy(self, files):
        for name in files:
            source, target = ROOT / name, self.tree / name
            target.parent.mkdir(parents=True, exist_ok=True)
            if not target.is_file() or target.read_bytes() != source.read_bytes():
                shutil.copyfile(source, target)
                shutil.copymode(source, target)
        wanted = {self.tree / name for name in files}
        for path in self.tree.rglob("*"):
            if path.is_file() and path not in wanted:
                path.unlink()

    def configure(self, build):
        arguments = ["cmake", "-S", self.tree, "-B", self.folder / build, "-G", "Ninja",
                     "-DCMAKE_BUILD_TYPE=None", "-DQUENOR_BUILD_TESTS=ON",
                     "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST", *BUILDS[build]]
        if shutil.which("ccache"):
            arguments.append("-DCMAKE_CXX_COMPILER_LAUNCHER=ccache")
        if self.runner.run(arguments, self.folder, self.log, env=self.env) != 0:
            raise Fault(f"cmake failed:\n{self.output()}")

    def output(self):
        return self.log.read_text(errors="replace")

    def compile(self, build, executables):
        command = ["ninja", f"-j{self.build_jobs}", *executables]
        return self.runner.run(command, self.folder / build, self.log, env=self.env) == 0

    def test(self, build, executable, gtest_filter, limit_s):
        """None when all tests passed, else what killed."""
        if (build, executable) not in self.programs:
            found = [p for p in (self.folder / build).rglob(executable)
                     if p.is_file() and os.access(p, os.X_OK)]
            if len(found) != 1:
                raise Fault(f"the {build} build has {len(found)} executables {executable}")
            self.programs[build, executable] = found[0]
        program = self.programs[build, executable]
        code = self.runner.run([program, "--gtest_fail_fast", f"--gtest_filter={gtest_filter}"],
                               program.parent, self.log, limit_s, self.env)
        if code == 0:
            return None
        output = self.output()
        failed = re.search(r"^\[  FAILED  \] ([^ ,\n]+)", output, re.M)
        if failed and code is not None:
            return failed[1]
        started = re.findall(r"^\[ RUN      \] (\S+)", output, re.M)
        where = started[-1] if started else executable
        if code is None:
            return f"{where} (hangs)"
        if "LeakSanitizer: detected" in output:
            return f"{executable}, at its end (LeakSanitizer)"
        report = re.search(r"(ThreadSanitizer|AddressSanitizer): ([a-z-]+(?: race)?)", output)
        undefined = re.search(r"runtime error: ([^\n]+)", output)
        if report:
            return f"{where} ({report[1]}: {report[2]})"
        if undefined:
            return f"{where} (undefined behaviour: {undefined[1]})"
        if code < 0:
            return f"{where} ({signal.Signals(-code).name})"
        return f"{where} (exit code {code})"

    def try_mutant(self, mutant, limits):
        """What killed the mutant, or None. Raises Fault when it does not compile."""
        path = self.tree / mutant.file
        original = path.read_text()
        try:
            path.write_text(mutant.apply(original))
            for run in mutant.runs:
                if not self.compile(mutant.build, [run[0]]):
                    error = re.search(r"^.*(error:|undefined reference).*$", self.output(), re.M)
                    raise Fault(f"{mutant.name} does not compile: "
                                f"{error[0] if error else self.output()[-2000:]}")
                killer = self.test(mutant.build, *run, limits[mutant.build, run])
                if killer is not None:
                    return killer
            return None
        finally:
            path.write_text(original)


def measure_base(worker, mutants):
    """Builds and runs the unmutated tests; returns the time limit of each run."""
    limits = {}
    for build in BUILDS:
        runs = dict.fromkeys(run for m in mutants if m.build == build for run in m.runs)
        if not runs:
            continue
        began = time.monotonic()
        worker.configure(build)
        if not worker.compile(build, sorted({executable for executable, _ in runs})):
            raise Fault(f"the {build} build fails without any mutant:\n{worker.output()[-4000:]}")
        print(f"base: {build} build in {time.monotonic() - began:.0f} s", flush=True)
        for run in runs:
            began = time.monotonic()
            killer = worker.test(build, *run, 15 * TIME_LIMIT_S)
            if killer is not None:
                raise Fault(f"{run[0]} fails without any mutant in the {build} build: {killer}")
            count = re.search(r"^\[  PASSED  \] (\d+) test", worker.output(), re.M)
            if count is None or count[1] == "0":
                raise Fault(f"{run[0]} has no test {run[1]}")
            seconds = time.monotonic() - began
            limits[build, run] = max(TIME_LIMIT_S, 10 * seconds)
            print(f"base: {build} {run[0]} {run[1]}: {count[1]} tests in {seconds:.1f} s",
                  flush=True)
    return limits


class Table:
    """The results, printed as they come. Any thread."""

    def __init__(self, mutants):
        self.lock = threading.Lock()
        self.total, self.done, self.killed = len(mutants), 0, 0
        self.survived, self.faults = [], []
        self.width = max(len(m.name) for m in mutants)

    def add(self, mutant, result, seconds):
        with self.lock:
            self.done += 1
            if isinstance(result, Fault):
                self.faults.append(str(result))
                text = "DID NOT COMPILE"
            elif result is None:
                self.survived.append(mutant)
                text = "SURVIVED"
            else:
                self.killed += 1
                text = result
            print(f"[{self.done:3}/{self.total}] {mutant.name:{self.width}}  {text}  "
                  f"({seconds:.0f} s)", flush=True)

    def finish(self):
        for mutant in self.survived:
            print(f"\n{LIST}:{mutant.line}: {mutant.name} survived: {mutant.why}\n  {mutant.file}")
            for sign, lines in (("-", mutant.old), ("+", mutant.new)):
                for line in lines:
                    print(f"  {sign} {line}")
        for fault in self.faults:
            print(f"mutants: {fault}", file=sys.stderr)
        print(f"mutants: {self.killed} killed, {len(self.survived)} survived")


def work(worker, todo, limits, table, problems):
    try:
        while True:
            mutant = todo.get_nowait()
            began = time.monotonic()
            try:
                result = worker.try_mutant(mutant, limits)
            except Fault as fault:
                result = fault
            table.add(mutant, result, time.monotonic() - began)
    except (queue.Empty, Interrupted):
        pass
    except BaseException as problem:  # Shown by the main thread, which ends the others.
        problems.append(problem)
        worker.runner.stop.set()
    finally:
        worker.done.set()


def run_all(options, mutants, runner, scratch):
    files = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, check=True,
                           capture_output=True).stdout.decode().split("\0")
    files = [name for name in files if name and (ROOT / name).is_file()]
    workers = []
    for index in range(options.jobs):
        folder = scratch / str(index)
        folder.mkdir(parents=True, exist_ok=True)
        workers.append(Worker(runner, folder, options.jobs if index == 0 else 1))
        workers[-1].copy(files)
    limits = measure_base(workers[0], mutants)
    workers[0].build_jobs = 1
    for worker in workers[1:]:
        for build in sorted({m.build for m in mutants}):
            worker.configure(build)

    todo = queue.SimpleQueue()
    for mutant in mutants:
        todo.put(mutant)
    table, problems = Table(mutants), []
    for worker in workers:
        threading.Thread(target=work, args=(worker, todo, limits, table, problems)).start()
    try:
        for worker in workers:
            worker.done.wait()
    finally:  # Also after Ctrl-C: let each worker put its file back.
        runner.stop.set()
        for worker in workers:
            worker.done.wait()
        table.finish()
    if problems:
        raise problems[0]
    return 2 if table.faults else 1 if table.survived else 0


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--jobs", type=int, default=1, metavar="N", help="mutants tried at a time")
    parser.add_argument("--only", metavar="REGEX", help="only mutants whose name matches")
    parser.add_argument("--build", choices=BUILDS, help="only mutants that are tried in this build")
    parser.add_argument("--sample", type=int, metavar="N", help="only N of them, drawn at random")
    parser.add_argument("--seed", type=int, metavar="N", help="repeats the draw of --sample")
    parser.add_argument("--check", action="store_true", help="only check that each applies")
    parser.add_argument("--scratch", type=pathlib.Path, metavar="DIR",
                        help="keep the copy and its build in DIR for the next run")
    options = parser.parse_args()
    if options.jobs < 1:
        parser.error("--jobs must be at least 1")
    try:
        mutants = read_list(ROOT / LIST)
        if options.check:
            print(f"mutants: {len(mutants)} apply")
            return 0
        if options.only:
            mutants = [m for m in mutants if re.search(options.only, m.name)]
        if options.build:
            mutants = [m for m in mutants if m.build == options.build]
        if options.sample is not None:
            seed = random.randrange(1 << 31) if options.seed is None else options.seed
            print(f"mutants: --seed {seed} --sample {options.sample}")
            chosen = random.Random(seed).sample(mutants, min(options.sample, len(mutants)))
            mutants = [m for m in mutants if m in chosen]
        if not mutants:
            raise Fault("no mutant is left to try")
    except Fault as fault:
        print(f"mutants: {fault}", file=sys.stderr)
        return 2
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, signal.default_int_handler)
    scratch = options.scratch.resolve() if options.scratch else pathlib.Path(tempfile.mkdtemp(
        prefix="mutants-"))
    runner = Runner()
    try:
        return run_all(options, mutants, runner, scratch)
    except Fault as fault:
        print(f"mutants: {fault}", file=sys.stderr)
        return 2
    except (KeyboardInterrupt, Interrupted):
        print("mutants: interrupted", file=sys.stderr)
        return 130
    finally:
        if not options.scratch:
            shutil.rmtree(scratch, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
