"""Results as JUnit's XML, which continuous integration shows."""

from __future__ import annotations

from collections.abc import Sequence
from pathlib import Path
from xml.etree import ElementTree

from simulator.platform_check.check import FAILED, NOT_JUDGED, WARNING
from simulator.platform_check.kit import Result


def write(path: Path, url: str, results: Sequence[Result]) -> None:
    """Raises OSError."""
    verdicts = [result.finding.verdict for result in results]
    counts = {"tests": str(len(results)), "failures": str(verdicts.count(FAILED)), "errors": "0",
              "skipped": str(verdicts.count(NOT_JUDGED)), "time": f"{sum(one.seconds for one in results):.3f}"}
    root = ElementTree.Element("testsuites", counts)
    suite = ElementTree.SubElement(root, "testsuite", {"name": f"camsim check-platform {url}", **counts})
    for result in results:
        finding = result.finding
        case = ElementTree.SubElement(suite, "testcase", {
            "classname": "platform", "name": f"{result.check.name}: {result.check.demand}",
            "time": f"{result.seconds:.3f}"})
        said = f"{finding.seen}\n{finding.do}".strip()
        if finding.verdict == FAILED:
            ElementTree.SubElement(case, "failure", {"message": finding.seen}).text = said
        elif finding.verdict == NOT_JUDGED:
            ElementTree.SubElement(case, "skipped", {"message": finding.seen})
        else:
            ElementTree.SubElement(case, "system-out").text = (
                f"warning: {said}" if finding.verdict == WARNING else said)
    ElementTree.indent(root)
    ElementTree.ElementTree(root).write(path, encoding="utf-8", xml_declaration=True)
