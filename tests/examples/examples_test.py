#!/usr/bin/env python3
"""Each example as a reader builds and runs it, against a collector."""
import os, pathlib, resource, shutil, signal, subprocess, sys

SOURCE, BUILD = pathlib.Path(os.environ["QUENOR_SOURCE"]), pathlib.Path(os.environ["QUENOR_BUILD"])
sys.path.insert(0, str(SOURCE / "tests/network"))
import support

RUNS = os.environ.get("QUENOR_README_RUNS", "4")


class ExamplesTest(support.Case):
    def setUp(self):
        super().setUp()
        self.state = os.path.join(self.folder, "state")
        self.environment = {**os.environ, "XDG_STATE_HOME": self.state}
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))

    def call(self, *command):
        done = subprocess.run([str(part) for part in command], stdin=subprocess.DEVNULL, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.assertEqual(0, done.returncode, done.stdout)

    def install(self):
        prefix = os.path.join(self.folder, "prefix")
        if not os.path.exists(prefix):
            self.call("cmake", "--install", BUILD, "--prefix", prefix)
        return prefix

    def build(self, name):
        """The program, from a copy away from the tree: only what is installed counts."""
        copy, build = os.path.join(self.folder, name), os.path.join(self.folder, name + "-build")
        shutil.copytree(SOURCE / "examples" / name, copy)
        self.call("cmake", "-S", copy, "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
                  "-DCMAKE_PREFIX_PATH=" + self.install())
        self.call("cmake", "--build", build)
        return os.path.join(build, name)

    def start(self, *command):
        child = subprocess.Popen(command, env=self.environment, stdin=subprocess.PIPE,
                                 stdout=subprocess.PIPE, text=True)
        self.addCleanup(child.communicate)
        self.addCleanup(child.kill)
        return child

    def run_to_end(self, *command, code=0):
        """The lines that it prints."""
        done = subprocess.run(command, env=self.environment, stdin=subprocess.DEVNULL, text=True,
                              capture_output=True, timeout=support.PATIENCE_S)
        self.assertEqual(code, done.returncode, done.stdout + done.stderr)
        return done.stdout.splitlines()

    def healthy(self):
        """A collector, and where it puts bodies."""
        bodies = os.path.join(self.folder, "bodies")
        server = self.collector(tls=False, options=["--out", bodies, "--report-duration", "1"])
        return server.url("127.0.0.1"), lambda: sorted(
            path.read_text() for path in pathlib.Path(bodies).glob("*.bin"))

    def dead(self):
        server = support.Collector(self.folder, tls=False, name="dead")
        self.addCleanup(server.end)
        return server.url("127.0.0.1")

    def runs_of_readme(self, name, *command):
        done = subprocess.run([sys.executable, "-B", SOURCE / "scripts/readme_runs.py", "--runs", RUNS,
                               BUILD / "bin", name, *command], env=self.environment, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        support.say(done.stdout)
        self.assertEqual(0, done.returncode)

    def test_readme_cxx(self):
        self.runs_of_readme("C++", self.build("embed"))

    def test_readme_c(self):
        self.runs_of_readme("C", self.build("c_program"))

    def test_readme_python(self):
        library = next(pathlib.Path(self.install()).rglob("libquenor.so.0"))
        self.environment.update(PYTHONPATH=str(SOURCE / "python"), QUENOR_LIBRARY=str(library))
        self.runs_of_readme("Python", sys.executable, "-B", SOURCE / "examples/python_script/main.py")

    def test_channel(self):
        url, bodies = self.healthy()
        program = self.build("channel")

        self.run_to_end(program, self.dead())  # Keeps its message, whatever the server does.
        said = self.run_to_end(self.build("embed"), url)  # Of the same name: takes it over.

        self.assertEqual(["2 acknowledged, 0 kept for the next start, 0 lost"], said)
        self.assertEqual(["started", "started"], bodies())

    def test_crash_reporter(self):
        url, bodies = self.healthy()
        program, folder = self.build("crash_reporter"), os.path.join(self.folder, "crashes")
        dead = self.dead()

        self.run_to_end(program, url, folder, "crash", code=-signal.SIGSEGV)
        kept = self.run_to_end(program, dead, folder)
        sent = self.run_to_end(program, url, folder)
        nothing = self.run_to_end(program, url, folder)

        self.assertEqual([["0 acknowledged, 1 kept for the next start"],
                          ["1 acknowledged, 0 kept for the next start"],
                          ["0 acknowledged, 0 kept for the next start"]], [kept, sent, nothing])
        self.assertEqual(1, len(bodies()))
        self.assertRegex(bodies()[0], r"^crash signal=11 address=0x0 process=\d+ time=\d+\n$")

    def test_call_statistics(self):
        url, bodies = self.healthy()

        said = self.run_to_end(self.build("call_statistics"), url, "3")

        self.assertEqual(["the server wants a report every 1000 ms",
                          "3 acknowledged, 0 kept for the next start"], said)
        self.assertEqual([f'{{"report":{i},"packets":5000,"lost":12}}' for i in (1, 2, 3)], bodies())

    def test_shared_cache(self):
        url, bodies = self.healthy()
        program, folder, dead = self.build("shared_cache"), os.path.join(self.folder, "shared"), self.dead()
        users = [self.start(program, dead, folder, who, "3") for who in ("one", "two", "three")]

        for user in users:
            self.assertEqual("0 acknowledged, 3 kept, 0 in memory only\n", user.stdout.readline())
        users[0].kill()
        ends = [user.communicate()[0] for user in users]
        said = self.run_to_end(program, url, folder, "none", "0")

        self.assertEqual(["", *2 * ["0 acknowledged, 3 kept for the next start\n"]], ends)
        self.assertEqual("9 acknowledged, 0 kept for the next start", said[-1])
        self.assertEqual(sorted(f"{who}/{i}" for who in ("one", "two", "three") for i in (1, 2, 3)),
                         bodies())


if __name__ == "__main__":
    support.main()
