#!/usr/bin/python3
"""Counts the tests of a JUnit report.

usage: count_tests.py REPORT EXIT_CODE

EXIT_CODE is that of the program which ran the tests. Prints "PASSED FAILED" to standard output and every test that did
not pass, with its message, to standard error. Only tests that ran count as passed: a skipped or disabled one is a
failed one, and so is, as one test, a run without tests or one that failed beside its tests. Exits with 1 when one
failed.
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


def failures(report: Path, exit_code: int) -> tuple[int, dict[str, str]]:
    """How many tests passed, and the others with their messages; a run that failed beside its tests is one of them."""
    cases = list(ET.parse(report).iter("testcase")) if report.exists() else []
    failed: dict[str, str] = {}
    passed = 0
    for case in cases:
        text = problem(case)
        if text is None:
            passed += 1
        else:
            name = f"{case.get('classname')} {case.get('name')}"
            failed[name] = f"{failed[name]}\n{text}" if name in failed else text
    if not cases:
        failed["No test ran."] = ""
    elif exit_code and not failed:
        failed[f"The run of the tests itself ended with exit code {exit_code}."] = ""
    return passed, failed


def main() -> int:
    report, exit_code = Path(sys.argv[1]), int(sys.argv[2])
    passed, failed = failures(report, exit_code)
    problems = [f"{name}: {text}" if text else name for name, text in failed.items()]
    print(passed, len(problems))
    print("\n\n".join(problems), file=sys.stderr)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
