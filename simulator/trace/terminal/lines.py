"""Text in lines of a terminal's width: broken between words, and a word that no line holds where it hurts least."""

from __future__ import annotations

import re
from collections.abc import Iterator

from rich.cells import cell_len
from rich.text import Text

# A word; in JSON a member's name stays beside its value.
_WORD = re.compile(r'(?:(?<=":) +|(?<=") +(?=: )|(?<=" :) +|\S)+')
# What a word is made of that is longer than a line: compact JSON, a URL, a path.
_PART = re.compile(r"[^,;&?/]*[,;&?/]+|[^,;&?/]+")


def in_lines(text: Text, first: int, rest: int) -> list[Text]:
    """The text in lines of `rest` columns, the first one of `first`; that one is empty if no word fits into it."""
    plain = text.plain
    lines: list[Text] = []
    begin, end = 0, 0
    for start, stop in _pieces(plain, rest):
        room = rest if lines else first
        if "\n" in plain[end:start] or end > begin and cell_len(plain[begin:stop]) > room:
            lines.append(text[begin:end])
            begin = start
        elif end == 0 and cell_len(plain[:stop]) > room:
            lines.append(Text())
            begin = start
        end = stop
    return [*lines, text[begin:end]]


def longest_word(text: str) -> int:
    """Its columns."""
    return max((cell_len(match[0]) for match in _WORD.finditer(text)), default=0)


def _pieces(plain: str, room: int) -> Iterator[tuple[int, int]]:
    """Begin and end of everything that stays together in a line."""
    for word in _WORD.finditer(plain):
        if cell_len(word[0]) <= room:
            yield word.span()
            continue
        for part in _PART.finditer(plain, *word.span()):
            yield from _cut(plain, *part.span(), room)


def _cut(plain: str, begin: int, end: int, room: int) -> Iterator[tuple[int, int]]:
    while cell_len(plain[begin:end]) > room:
        stop = begin + 1
        while cell_len(plain[begin:stop + 1]) <= room:
            stop += 1
        yield begin, stop
        begin = stop
    yield begin, end
