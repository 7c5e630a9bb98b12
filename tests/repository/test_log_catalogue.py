"""The catalogue of log lines: it agrees with the sources, and the script that says so sees every difference."""

from __future__ import annotations

import shutil
import subprocess
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
SCRIPT = ROOT / "scripts/log_catalogue.py"
TRANSMITTER = "src/media_server/IPCService/Public/IPCUnixTransmitter.cpp"
CLEAR = "src/media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_WhiteListClearHandler.cpp"
EVENTS = "src/public/utils/alg_utils/utils_srvfs_eventcache.cpp"
DOWN_WHITE = "src/media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_DownWhiteHandler.cpp"
FACE_NOT_HIT = "src/media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_FaceNotHitHandler.cpp"
REPORT = "src/media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_PageResultReport.cpp"
HTTP = "src/media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_HttpParam.cpp"
NO_ENTRY = "no entry in"
NO_LINE = "nothing in"


@pytest.fixture
def copy(tmp_path: Path) -> Path:
    """A copy of the sources and of the catalogue that a test may change."""
    shutil.copytree(ROOT / "src", tmp_path / "src")
    shutil.copy(ROOT / "docs/log.md", tmp_path / "log.md")
    return tmp_path


def compare(folder: Path) -> subprocess.CompletedProcess[str]:
    return subprocess.run([SCRIPT, folder / "src", folder / "log.md"], capture_output=True, text=True, check=False)


def replace(path: Path, old: str, new: str) -> None:
    text = path.read_text()
    assert text.count(old) == 1, f"{old!r} is {text.count(old)} times in {path}"
    path.write_text(text.replace(old, new))


def expect(copy: Path, *findings: str) -> str:
    """The comparison fails with so many findings, each containing one of these texts."""
    result = compare(copy)
    assert result.returncode == 1, result.stdout + result.stderr
    found = [line for line in result.stdout.splitlines() if not line.startswith(" ")]
    assert len(found) == len(findings), result.stdout
    assert all(any(text in line for line in found) for text in findings), result.stdout
    return result.stdout


def test_catalogue_agrees_with_the_sources() -> None:
    result = subprocess.run([SCRIPT], capture_output=True, text=True, check=False)
    assert result.returncode == 0, result.stdout + result.stderr


@pytest.mark.parametrize("call", [
    'LOG(Error, "a new line %s.", name);', 'LOG_AT(Information, 4711,\n    "a new "\n    "line %s.", f(1, ")"));',
    'UTILS_LOG(UTILS_LOG_DEBUG,\n          "a new line %s.", UTILS_LOG_TAG);',
    'LOG(Error, "a new \\"line\\" // %s.");'])
def test_added_line_is_found(copy: Path, call: str) -> None:
    replace(copy / TRANSMITTER, "    bindToPath(m_socket, m_address);", f"    bindToPath(m_socket, m_address);\n{call}")
    output = expect(copy, "IPCUnixTransmitter.cpp:50: " + NO_ENTRY)
    assert "a new" in output and "line" in output
    assert "## `media_server/IPCService/Public/IPCUnixTransmitter`" in output


def test_removed_line_is_found(copy: Path) -> None:
    replace(copy / TRANSMITTER, 'LOG(Error, "unknown exception");', "")
    assert '"unknown exception"' in expect(copy, NO_LINE)


def test_commented_line_is_no_line(copy: Path) -> None:
    replace(copy / TRANSMITTER, 'LOG(Error, "unknown exception");', '// LOG(Error, "unknown exception");')
    expect(copy, NO_LINE)


CHANGES = {
    "format": (TRANSMITTER, '"sendTo fail:%s."', '"sendTo fail: %s."'),
    "space at its end": (CLEAR, '"parser Err %s "', '"parser Err %s"'),
    "level": (TRANSMITTER, 'LOG(Error, "sendTo', 'LOG(Information, "sendTo'),
    "fixed line": (CLEAR, "LOG_AT(Error, 357,", "LOG_AT(Error, 358,"),
    "no fixed line": (CLEAR, "LOG_AT(Error, 357,", "LOG(Error,"),
    "block of lines": (REPORT, "2000};", "3000};"),
    "format in a constant": (HTTP, '"------------------------------"', '"-----------------------------"'),
    "format chosen at run time": (EVENTS, '"[%s]:stMMapAddr pBufData NULL"', '"[%s]:stMMapAddr NULL"'),
}


@pytest.mark.parametrize("path, old, new", CHANGES.values(), ids=CHANGES.keys())
def test_changed_line_is_found(copy: Path, path: str, old: str, new: str) -> None:
    replace(copy / path, old, new)
    expect(copy, NO_ENTRY, NO_LINE)


def line_of(path: str, text: str) -> int:
    return (ROOT / path).read_text().split(text)[0].count("\n") + 1


def test_files_whose_blocks_of_lines_overlap_are_found(copy: Path) -> None:
    line = 1000 + line_of(DOWN_WHITE, 'LOG(Information, "taskID')
    before = line - line_of(FACE_NOT_HIT, 'LOG(Error, "malloc')
    replace(copy / FACE_NOT_HIT, ", 2000}", f", {before}}}")
    path = "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_JsonMsgLoop"
    assert f"line {line} of {path} is also that of" in compare(copy).stdout


def test_fixed_line_that_is_also_that_of_a_call_is_found(copy: Path) -> None:
    line = 1000 + line_of(DOWN_WHITE, 'LOG(Information, "taskID')
    replace(copy / CLEAR, "LOG_AT(Error, 357,", f"LOG_AT(Error, {line},")
    assert f"line {line} of" in compare(copy).stdout


def test_line_that_moved_to_another_file_is_found(copy: Path) -> None:
    (copy / TRANSMITTER).rename((copy / TRANSMITTER).with_name("Moved.cpp"))
    expect(copy, *[NO_ENTRY, NO_LINE] * 5)


def test_other_path_in_the_log_is_found(copy: Path) -> None:
    replace(copy / TRANSMITTER, '"media_server/IPCService/Public/IPCUnixTransmitter"', '"another/path"')
    assert "## `another/path`" in expect(copy, *[NO_ENTRY, NO_LINE] * 5)


def test_record_written_past_the_macros_is_found(copy: Path) -> None:
    replace(copy / TRANSMITTER, 'LOG(Error, "unknown exception");',
            'LOG(Error, "unknown exception"); QL_WriteLog(4, 3, 0, 0, LOG_SOURCE, 1, "more");')
    assert "called past the macros" in expect(copy, NO_ENTRY)


@pytest.mark.parametrize("row", [
    '| `"unknown exception"` | Error | `IPCUnixTransmitter.cpp` | Means. | | Check. |',
    '| `"unknown exception"` | Error | `IPCUnixTransmitter.cpp` | Means. | Causes. |',
    '| `"unknown exception"` | Error | IPCUnixTransmitter.cpp | Means. | Causes. | Check. |'])
def test_incomplete_entry_is_refused(copy: Path, row: str) -> None:
    document = copy / "log.md"
    lines = [row if line.startswith('| `"unknown exception"`') else line for line in document.read_text().splitlines()]
    document.write_text("\n".join(lines))
    result = compare(copy)
    assert result.returncode == 1
    assert "not a row of six filled cells" in result.stderr


def test_entry_twice_is_found(copy: Path) -> None:
    document = copy / "log.md"
    row = next(line for line in document.read_text().splitlines() if line.startswith('| `"unknown exception"`'))
    replace(document, row, f"{row}\n{row}")
    expect(copy, "the same entry as")
