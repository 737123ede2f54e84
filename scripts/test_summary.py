#!/usr/bin/env python3
"""test_summary.py REPORT: after a run of ctest, each test that was skipped and why, and the counts.

REPORT is what ctest --output-junit wrote. The last line is "tests: N passed, N failed, N skipped".
Exit code: 0 no test failed, 1 some did, or there is no report.
"""
import re
import sys
import xml.etree.ElementTree as xml


def reason(output):
    """Why a test was skipped, in its own words: GoogleTest's, or those of tests/network."""
    said = re.search(r": Skipped\n(.*?)\n*\[  SKIPPED \]", output, re.S)
    said = said or re.search(r"^SKIPPED: \w+: (.*)$", output, re.M)
    return " ".join(said[1].split()) if said else "it does not say why"


def main():
    try:
        cases = xml.parse(sys.argv[1]).getroot().findall("testcase")
    except (OSError, xml.ParseError) as error:
        print(f"tests: no report of ctest: {error}\ntests: 0 passed, 1 failed, 0 skipped")
        return 1
    passed = failed = 0
    skipped = []
    for case in cases:
        skip = case.find("skipped")
        if case.get("status") == "run":
            passed += 1
        # What could not be started is "skipped" to ctest, too.
        elif skip is not None and skip.get("message", "").startswith("SKIP_"):
            skipped.append((case.get("name"), reason(case.findtext("system-out") or "")))
        else:
            failed += 1
            print(f"failed: {case.get('name')}")
    for name, why in skipped:
        print(f"skipped: {name}: {why}")
    print(f"tests: {passed} passed, {failed} failed, {len(skipped)} skipped")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
