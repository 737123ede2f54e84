#!/usr/bin/env python3
"""The wheel: the same bytes wherever it is made, and all that a user needs beside Python."""
import ctypes, os, pathlib, re, shutil, subprocess, sys, zipfile

import support
from support import PATIENCE_S, sha256

ROOT = support.HERE.parent.parent
LIBRARY = os.environ["QUENOR_LIBRARY"]
USE = """
import pathlib, sys, quenor
assert pathlib.Path(quenor.__file__).is_relative_to(sys.prefix), quenor.__file__
with quenor.Reporter("wheel", sys.argv[1], folder=sys.argv[2]) as reporter:
    reporter.send(b"from a wheel")
    assert reporter.flush(float(sys.argv[3])).all_delivered
print(quenor.__version__)
"""


class WheelTest(support.Case):
    def run_alone(self, *command, **variables):
        """Without what the test has in its environment."""
        bare = {name: value for name, value in os.environ.items()
                if name not in ("PYTHONPATH", "QUENOR_LIBRARY")}
        done = subprocess.run(list(map(str, command)), cwd=self.folder, env={**bare, **variables},
                              capture_output=True, text=True)
        self.assertEqual(0, done.returncode, done.stdout + done.stderr)
        return done.stdout

    def make(self, name):
        """A wheel of a copy of the sources."""
        tree = pathlib.Path(self.folder, name)
        header = pathlib.Path("quenor_base/platform/base/abi.h")
        (tree / header.parent).mkdir(parents=True)
        (tree / "scripts").mkdir()
        for part in (header, pathlib.Path("scripts/make_wheel")):
            shutil.copyfile(ROOT / part, tree / part)
        shutil.copytree(ROOT / "python", tree / "python")
        made = self.run_alone(sys.executable, "-B", tree / "scripts/make_wheel", LIBRARY,
                              tree / "out")
        return pathlib.Path(made.strip())

    def test_is_reproducible(self):
        one, other = self.make("one"), self.make("other/deeper")
        self.assertEqual(one.name, other.name)
        self.assertRegex(one.name, r"^quenor-\d+\.\d+\.\d+-py3-none-linux_\w+\.whl$")
        self.assertEqual(one.read_bytes(), other.read_bytes())
        with zipfile.ZipFile(one) as wheel:
            self.assertEqual(pathlib.Path(LIBRARY).read_bytes(), wheel.read("quenor/libquenor.so.0"))
            self.assertIn("quenor/py.typed", wheel.namelist())

    def test_is_installed_and_used(self):
        collector = self.collector()
        self.run_alone(sys.executable, "-m", "venv", "venv")
        python = pathlib.Path(self.folder, "venv/bin/python")
        self.run_alone(python, "-m", "pip", "install", "--no-index", "--disable-pip-version-check",
                       self.make("tree"))
        said = self.run_alone(python, "-c", USE, collector.url("127.0.0.1"), support.STATE,
                              PATIENCE_S)
        self.assertRegex(said, r"^\d+\.\d+\.\d+$")
        self.assertEqual({sha256(b"from a wheel")}, set(collector.accepted()))

    def test_without_its_library_it_says_what_to_do(self):
        with_own = pathlib.Path(self.folder, "with_own")
        shutil.copytree(ROOT / "python/quenor", with_own / "quenor")
        (with_own / "quenor/libquenor.so.0").write_bytes(b"")  # Cannot be loaded, as one that lacks what it needs.
        for path, library, says in ((ROOT / "python", "/no/libquenor.so.0", "/no/libquenor.so.0.*install libquenor0"),
                                    (with_own, LIBRARY, "file too short; install libcurl4, libidn2-0, libssl3 and zlib1g")):
            done = subprocess.run([sys.executable, "-B", "-c", "import quenor"], capture_output=True, text=True,
                                  env={**os.environ, "PYTHONPATH": str(path), "QUENOR_LIBRARY": library})
            self.assertEqual(1, done.returncode)
            self.assertRegex(done.stderr, "ImportError: quenor: .*" + says)

    def test_structures_are_the_headers(self):
        from quenor import _library
        lines, mine = [], []
        for name in ("Update", "Tuning", "Options", "SendOptions", "Outcome", "Header",
                     "Http", "Thrift", "Spent"):
            structure = getattr(_library, name)
            theirs = "quenor_" + re.sub(r"\B(?=[A-Z])", "_", name).lower()
            for field, _ in structure._fields_:
                lines.append(f"offsetof({theirs}, {field})")
                mine.append(getattr(structure, field).offset)
            lines.append(f"sizeof({theirs})")
            mine.append(ctypes.sizeof(structure))
        source = pathlib.Path(self.folder, "layout.c")
        source.write_text('#include <stdio.h>\n#include "quenor/network.h"\nint main(void) {\n' +
                          "".join(f'printf("%zu\\n", {line});\n' for line in lines) + "return 0; }\n")
        self.run_alone("cc", "-I", ROOT / "c", source, "-o", "layout")
        theirs = [int(line) for line in self.run_alone("./layout").split()]
        self.assertEqual(list(zip(lines, theirs)), list(zip(lines, mine)))

    def test_types(self):
        if shutil.which("mypy") is None:
            self.skipTest("no mypy; install it")
        user = pathlib.Path(self.folder, "user.py")
        user.write_text("import quenor\n"
                        "with quenor.Reporter('a', 'https://b/', cache='file') as reporter:\n"
                        "    number: int = reporter.send(b'x', now=True)\n"
                        "    reporter.send('text')\n"
                        "    kept: str = reporter.stop(1).kept\n"
                        "quenor.Reporter('a', 'https://b/', cache='disk')\n"
                        "quenor.set_http('https://b', headers={'A': 'b'}, proxy_except=['c'],\n"
                        "                fresh_headers=lambda: {'A': 'b'}, ca_pem=b'')\n"
                        "quenor.set_http(fresh_headers=lambda: 'A')\n"
                        "used: str = quenor.spent().bytes\n")
        cache = pathlib.Path(self.folder, "cache")
        self.run_alone("mypy", "--strict", "--cache-dir", cache, ROOT / "python/quenor")
        done = subprocess.run(["mypy", "--strict", "--cache-dir", cache, user], cwd=self.folder,
                              env={**os.environ, "MYPYPATH": ROOT / "python"},
                              capture_output=True, text=True)
        self.assertEqual(["4", "5", "6", "9", "9", "10"], re.findall(r"^user.py:(\d+): error", done.stdout, re.M),
                         done.stdout + done.stderr)


if __name__ == "__main__":
    support.main()
