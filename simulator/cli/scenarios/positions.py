"""Reads JSON and remembers in which line each value stands, so that a complaint can name it."""

from __future__ import annotations

import json
import re
from json.decoder import scanstring  # type: ignore[attr-defined] # there, but not in the type stubs
from typing import Any

from simulator.errors import CameraError

# Names and indexes from the top of a document to a value.
Place = tuple[Any, ...]

_BLANK = re.compile(r"[ \t\r\n]*")


class DocumentError(CameraError):
    """Something is wrong with a file; the text begins with its name and line."""


class Document:
    """A JSON document as read.

    value  the document itself
    lines  the line, from 1, in which the value at each place begins
    """

    def __init__(self, name: str, text: str) -> None:
        self.name = name
        self.lines: dict[Place, int] = {}
        self._text = text
        try:
            json.loads(text)  # its complaints are good, and after it the reader here meets only what is well formed
        except json.JSONDecodeError as error:
            raise DocumentError(f"{name}, line {error.lineno}: this is no JSON: {error.msg}") from error
        except RecursionError as error:
            raise DocumentError(f"{name}, line 1: this is nested too deeply") from error
        self.value, _ = self._read((), self._skip(0))

    def error(self, place: Place, text: str) -> DocumentError:
        """An error about the value at a place, or about the nearest one around it that is there."""
        known = place
        while known not in self.lines:
            known = known[:-1]
        where = "".join(f"[{part}]" if isinstance(part, int) else f".{part}" for part in place).lstrip(".")
        return DocumentError(f"{self.name}, line {self.lines[known]}{f', {where}' if where else ''}: {text}")

    def _skip(self, position: int) -> int:
        found = _BLANK.match(self._text, position)
        assert found is not None
        return found.end()

    def _read(self, place: Place, position: int) -> tuple[Any, int]:
        """The value that begins here, and where it ends."""
        self.lines[place] = self._text.count("\n", 0, position) + 1
        if self._text[position] == "{":
            return self._object(place, position)
        if self._text[position] == "[":
            return self._array(place, position)
        value, end = json.JSONDecoder().raw_decode(self._text, position)
        return value, end

    def _object(self, place: Place, position: int) -> tuple[dict[str, Any], int]:
        result: dict[str, Any] = {}
        position = self._skip(position + 1)
        while self._text[position] != "}":
            line = self._text.count("\n", 0, position) + 1
            name, position = scanstring(self._text, position + 1)
            if name in result:
                raise DocumentError(f"{self.name}, line {line}: {name!r} stands here twice")
            result[name], position = self._read((*place, name), self._skip(self._skip(position) + 1))
            position = self._next(position)
        return result, position + 1

    def _array(self, place: Place, position: int) -> tuple[list[Any], int]:
        result: list[Any] = []
        position = self._skip(position + 1)
        while self._text[position] != "]":
            value, position = self._read((*place, len(result)), position)
            result.append(value)
            position = self._next(position)
        return result, position + 1

    def _next(self, position: int) -> int:
        """Where the next member begins, or the closing bracket."""
        position = self._skip(position)
        return self._skip(position + 1) if self._text[position] == "," else position
