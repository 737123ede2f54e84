#!/usr/bin/env python3
"""scripts/test_summary.py and scripts/check_full.py, run on what a test writes for them."""
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

SCRIPTS = pathlib.Path(__file__).resolve().parent.parent.parent / "scripts"


class ScriptTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def run_script(self, name, *arguments):
        done = subprocess.run([sys.executable, "-B", SCRIPTS / name, *arguments], cwd=self.folder,
                              capture_output=True, text=True, timeout=60)
        return done.returncode, done.stdout


class SummaryTest(ScriptTest):
    def summary(self, *cases):
        report = self.folder / "report.xml"
        report.write_text("<testsuite>" + "".join(
            f'<testcase name="t{i}" status="{status}">{inside}</testcase>'
            for i, (status, inside) in enumerate(cases)) + "</testsuite>")
        return self.run_script("test_summary.py", report)

    def test_tells_why_each_was_skipped(self):
        regex = '<skipped message="SKIP_REGULAR_EXPRESSION_MATCHED"/><system-out>'
        code, said = self.summary(
            ("run", ""),
            ("notrun", regex + "[ RUN      ] A.B\n/x/y.cc:7: Skipped\nno disk\nhere\n\n"
             "[  SKIPPED ] A.B (0 ms)\n</system-out>"),
            ("notrun", '<skipped message="SKIP_RETURN_CODE=77"/><system-out>'
             "x\nSKIPPED: test_b: no wire\n</system-out>"),
            ("notrun", regex + "</system-out>"))

        self.assertEqual((0, ["skipped: t1: no disk here", "skipped: t2: no wire",
                              "skipped: t3: it does not say why",
                              "tests: 1 passed, 0 failed, 3 skipped"]), (code, said.splitlines()))

    def test_what_did_not_pass_and_was_not_skipped_has_failed(self):
        code, said = self.summary(
            ("fail", '<failure message=""/>'), ("run", ""),
            ("notrun", '<skipped message="Unable to find executable"/>'))

        self.assertEqual((1, ["failed: t0", "failed: t2", "tests: 1 passed, 2 failed, 0 skipped"]),
                         (code, said.splitlines()))

    def test_no_report_is_a_failure(self):
        code, said = self.run_script("test_summary.py", "missing.xml")

        self.assertEqual((1, "tests: 0 passed, 1 failed, 0 skipped"), (code, said.splitlines()[-1]))


class FullCheckTest(ScriptTest):
    def check(self, behaviour, *parts):
        """check_full.py with a ./dev that does in each part what `behaviour`, shell text, says."""
        dev = self.folder / "dev"
        dev.write_text("#!/bin/sh\n" + behaviour)
        os.chmod(dev, 0o755)
        code, said = self.run_script("check_full.py", *parts)
        rows = {line.split()[0]: line.split()[1:4] for line in said.splitlines() if line.strip()}
        return code, said, rows

    def test_every_part_runs_and_has_its_row(self):
        code, said, rows = self.check("""
            case $3 in
              checks) echo 'check: 7 passed, 1 failed'; exit 1 ;;
              network) echo 'tests: 5 passed, 0 failed, 1 skipped'
                echo 'skipped: t1: no wire'; echo 'tests: 2 passed, 1 failed, 1 skipped' ;;
              waiting) echo 'tests: 3 passed, 0 failed, 0 skipped' ;;
              mutants) echo 'mutants: 9 killed, 0 survived' ;;
              generated) echo 'mutants: --seed 7 --count 60: 60 of 7000'
                echo 'survived: a.cc:1: drop'; echo 'generated: 59 of 60 killed, 0 explained, 1 survived' ;;
              model) exit 3 ;;
            esac""")

        self.assertEqual(1, code)
        for part, counts in {"checks": "7 1 0", "network": "7 1 2", "waiting": "3 0 0",
                             "mutants": "9 0 0", "model": "0 1 0", "tsan": "1 0 0"}.items():
            self.assertEqual(counts.split(), rows[part], part)
        self.assertIn("network: skipped: t1: no wire\n", said)
        for line in ("mutants: --seed 7 ", "survived: a.cc:1: drop\n", "generated: 59 of 60 killed, "):
            self.assertIn("\ngenerated: " + line, said)
        # What does not say its counts counts as one.
        self.assertEqual("39 passed, 3 failed, 2 skipped", said.splitlines()[-1])

    def test_parts_know_that_they_are_of_one_run(self):
        runs = []
        for _ in range(2):
            self.check('echo "run $QUENOR_CHECK_RUN"', "model", "asan")
            runs += [(self.folder / f"build/check/{part}.log").read_text() for part in ("model", "asan")]

        self.assertEqual([runs[0], runs[0], runs[2], runs[2]], runs)
        self.assertNotEqual(runs[0], runs[2])

    def test_takes_some_parts(self):
        code, said, rows = self.check("echo part $3", "model", "asan")

        self.assertEqual((0, ["1", "0", "0"]), (code, rows["model"]))
        self.assertEqual("2 passed, 0 failed, 0 skipped", said.splitlines()[-1])
        self.assertEqual("part asan\n", (self.folder / "build/check/asan.log").read_text())

    def test_does_not_take_a_part_that_is_none(self):
        self.assertEqual(64, self.check("", "soak")[0])


if __name__ == "__main__":
    unittest.main()
