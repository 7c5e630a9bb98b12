"""README.md promises the versions that the tests run with, and no others."""

from __future__ import annotations

import platform
import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "scripts"))

import tested_versions  # noqa: E402 importable only with the path above


def test_column_of_this_release_is_what_is_installed() -> None:
    name = platform.freedesktop_os_release()["VERSION_CODENAME"]
    assert tested_versions.table()[name] == tested_versions.of_this_system()


def test_column_of_32_bit_arm_is_what_its_root_is_made_of() -> None:
    assert tested_versions.table()["armhf"] == tested_versions.of_armhf()


def test_nothing_else_in_the_document_promises_a_range_of_versions() -> None:
    assert not re.findall(r"\d+\.\d+ to \d+\.\d+", (ROOT / "README.md").read_text(encoding="utf-8"))
