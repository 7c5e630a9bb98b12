#!/usr/bin/python3
"""Counts the tests of a JUnit report.

usage: count_tests.py REPORT EXIT_CODE

EXIT_CODE is that of the program which ran the tests. Prints "PASSED FAILED" to standard output and every test that did
not pass, with its message, to standard error. Only tests that ran count as passed: a skipped or disabled one is a
failed one, and so is, as one test, a run without tests or one that failed beside its tests.
Exits with 1 when one failed.
"""

import sys
import xml.etree.ElementTree as ET
from pathlib import Path

LINES_SHOWN = 25


def problem(case: ET.Element) -> str | None:
    """The reason why a test case does not count as passed, or None."""
    for child in case:
        if child.tag in ("failure", "error", "skipped"):
            said = case.findtext("system-out") or ""
            lines = f"{child.get('message') or ''}\n{child.text or ''}\n{said}".split("\n")
            return "\n".join([child.tag, *[f"    {line}" for line in lines if line.strip()][-LINES_SHOWN:]])
    if case.get("status", "run") != "run":
        return str(case.get("status"))
    return None


def main() -> int:
    report, exit_code = Path(sys.argv[1]), int(sys.argv[2])
    cases = list(ET.parse(report).iter("testcase")) if report.exists() else []
    problems = [f"{case.get('classname')} {case.get('name')}: {text}" for case in cases if (text := problem(case))]
    passed = len(cases) - len(problems)
    if not cases:
        problems.append("No test ran.")
    elif exit_code and not problems:
        problems.append(f"The run of the tests itself ended with exit code {exit_code}.")
    print(passed, len(problems))
    print("\n\n".join(problems), file=sys.stderr)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
