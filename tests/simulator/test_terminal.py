"""What is drawn on a terminal of any width, and while the width changes."""

from __future__ import annotations

import json
import re

import pytest
from rich.cells import cell_len
from rich.text import Text

from screens import ESCAPES, Screen, live
from simulator.trace.terminal.lines import in_lines

TASK = {"cameraCode": "C1", "taskID": "T1", "totalNum": 75, "taskURL": "https://127.0.0.1:8443/platform/whiteList",
        "taskResultURL": "https://127.0.0.1:8443/platform/whiteListResult"}
LOG = ("INFO media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_JsonMsgLoop:161 Process info:"
       + json.dumps(TASK, separators=(",", ":")))
PICTURES = {"page": "white0", "records": 30}
NAMES = ["client", "platform", "service", "ITGT", "faces", "events"]
SHOWN = (live("client", f"sends whiteListDown: {json.dumps(TASK)}"),
         live("client", "whiteListDown, 75 faces", "service"), live("service", LOG, kind="log"),
         live("service", "7020 page file white0", "itgt"))


def words_of(text: str) -> list[str]:
    return re.findall(r"[\w.:/-]+", text)


@pytest.mark.parametrize("width", [36, 71, 111, 191])
@pytest.mark.parametrize("text", [json.dumps(TASK), LOG, "未命中 " * 40, "x" * 500, "no more  spaces\nthan  it had", ""])
def test_lines_hold_the_whole_text(text: str, width: int) -> None:
    lines = in_lines(Text(text), width // 2, width)
    assert "".join("".join(line.plain for line in lines).split()) == "".join(text.split())
    assert cell_len(lines[0].plain) <= width // 2
    assert all(cell_len(line.plain) <= width for line in lines)


def test_words_and_members_stay_whole() -> None:
    lines = [line.plain for line in in_lines(Text('say {"one": 1, "two" : "b", "three": [4]}'), 12, 12)]
    assert lines == ["say", '{"one": 1,', '"two" : "b",', '"three": [4]', "}"]  # the last is longer than a line
    compact = [line.plain for line in in_lines(Text('{"one":1,"two":2,"three":3}'), 0, 12)]
    assert compact == ["", '{"one":1,', '"two":2,', '"three":3}']


@pytest.mark.parametrize("columns", [40, 80, 120, 200])
def test_no_word_is_broken_and_names_stay(columns: int) -> None:
    screen = Screen(columns, verbose=True)
    screen.order(*SHOWN * 3)
    lines = screen.end()
    assert all(cell_len(line) <= columns for line in lines)
    whole = set(words_of("\n".join(lines)))
    assert {"whiteListDown:", "https://127.0.0.1:8443/platform/whiteListResult"} - whole == (
        set() if columns > 60 else {"https://127.0.0.1:8443/platform/whiteListResult"})
    assert {"totalNum", "taskResultURL", "7020", "page", "white0", "faces"} <= whole
    if columns > 60:
        assert lines[0].split() == lines[-1].split() == NAMES
    else:
        assert not any("│" in line for line in lines)


def test_the_bottom_follows_the_width() -> None:
    screen = Screen(120)
    screen.order(*SHOWN, live("client", "begins", progress={"pages": 3}), live("itgt", "page", progress=PICTURES))
    for columns in (80, 200, 72, 120):
        screen.resize(columns)
        screen.order(live("service", f"{columns} columns"), *[live("itgt", "picture", progress={"picture": 1})] * 3)
        names, pages, pictures = screen.lines()[-3:]
        assert names.split() == NAMES
        assert re.fullmatch(r"pages +[━─]+ 0/3 reported  0:\d\d", pages)
        assert re.fullmatch(r"pictures of white0 +[━─]+ \d+/30 imported  0:\d\d", pictures)
        assert max(map(len, (names, pages, pictures))) < 72
        row = next(line for line in screen.lines() if f"{columns} columns" in line)
        assert row.index("●") == names.index("service") + 3
    screen.order(live("client", "ended", progress={"ended": True}))
    lines = screen.end()
    assert [line for line in lines if "reported" in line or "imported" in line] == []


def test_names_come_anew_where_the_columns_move() -> None:
    screen = Screen(120)
    screen.order(*SHOWN)
    screen.resize(80)
    screen.order(*SHOWN)
    text = screen.end()
    heads = [number for number, line in enumerate(text[:-1]) if line.split() == NAMES]
    assert len(heads) == 2 and "●" in text[heads[1] + 1]


def test_a_terminal_too_narrow_for_columns_gets_lines_until_it_is_wide_enough() -> None:
    screen = Screen(60)
    screen.order(live("client", "status 200", "service"))
    screen.resize(120)
    screen.wait_for("platform")
    screen.order(live("client", "status 409", "service"))
    narrow, wide = (next(line for line in screen.lines() if status in line) for status in ("200", "409"))
    assert narrow == "  1.500 s  client       --> status 200"
    assert "─▶" in wide
    screen.end()


def test_no_color_takes_only_colours_away() -> None:
    shown = []
    for environment in ({}, {"NO_COLOR": "1"}, {"NO_COLOR": ""}):
        screen = Screen(120, **environment)
        screen.order(*SHOWN, live("itgt", "bad", kind="fault"), {"do": "heading", "words": ["The end"]},
                     {"do": "summary", "words": ["Seen", {"pages": "3"}]})
        screen.end()
        shown.append(screen.text)
    colours = re.compile(r"\x1b\[[0-9;]*\b3[0-9]m")
    assert colours.search(shown[0]) and not colours.search(shown[1])
    assert ESCAPES.sub("", shown[0]) == ESCAPES.sub("", shown[1])
    assert re.findall(r"\x1b\[[^m]*?[A-Za-ln-z]", shown[0]) == re.findall(r"\x1b\[[^m]*?[A-Za-ln-z]", shown[1])
    assert shown[2] == shown[0]


@pytest.mark.parametrize("columns, row", [
    (40, "  0  31 53 00 02 00 00 00 00  1S......"), (80, "  0  31 53 00 02" + " 00" * 12 + "  1S" + "." * 14)])
def test_a_dump_has_rows_that_fit(columns: int, row: str) -> None:
    screen = Screen(columns)
    screen.order({"do": "dump", "words": ["events", "a record", "31530002" + "00" * 28]})
    lines = screen.end()
    assert any(line.endswith(row) for line in lines), lines
    assert all(len(line) <= columns for line in lines)
