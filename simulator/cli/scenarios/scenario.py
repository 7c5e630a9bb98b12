"""Scenario files: what to do to a camera, and what is to come of it. scenario.schema.json is their form."""

from __future__ import annotations

import json
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

import jsonschema
import yaml

from simulator import faults
from simulator.cli.scenarios.settings import SCHEMA
from simulator.errors import CameraError
from simulator.faults import FaultError, Order

# What can become of a command besides a status: no reply at all, or nobody there to take it.
NO_REPLY, UNDELIVERED = "none", "undelivered"
# The members of each kind of step; its name is the first one.
STEPS: dict[str, list[str]] = {
    kind: list(SCHEMA["definitions"][kind]["properties"])
    for kind in (step["$ref"].rpartition("/")[2] for step in SCHEMA["properties"]["steps"]["items"]["anyOf"])}
EXPECTATIONS: list[str] = list(SCHEMA["properties"]["expect"]["properties"])

# Names and indexes from the top of a document to a value.
Place = tuple[Any, ...]


@dataclass(frozen=True)
class Step:
    """One step: what to do, and the members of its object as they are checked."""

    do: str
    values: dict[str, Any]
    line: int


@dataclass(frozen=True)
class Scenario:
    """A scenario as read.

    settings  values by the names in settings.SETTINGS
    faults    switched on before the service starts
    expect    what is expected at the end, by the names in EXPECTATIONS
    """

    name: str
    about: str
    settings: dict[str, Any] = field(default_factory=dict)
    faults: list[Order] = field(default_factory=list)
    steps: list[Step] = field(default_factory=list)
    expect: dict[str, Any] = field(default_factory=dict)


class DocumentError(CameraError):
    """Something is wrong with a file; the text begins with its name and line."""


def load(path: Path) -> Scenario:
    """Reads and checks a scenario file. Raises DocumentError that names file, line and member."""
    try:
        return _Reader(path, path.read_text(encoding="utf-8")).scenario()
    except (OSError, UnicodeDecodeError) as error:
        raise CameraError(f"the scenario {path} cannot be read: {error}") from error


class _Reader:
    """Reads one file; `lines` has the line, from 1, in which the value at each place begins."""

    def __init__(self, path: Path, text: str) -> None:
        self._path = path
        self._lines: dict[Place, int] = {}
        try:
            self._value = json.loads(text)
        except json.JSONDecodeError as error:
            raise DocumentError(f"{path}, line {error.lineno}: this is not JSON: {error.msg}") from error
        except RecursionError as error:
            raise DocumentError(f"{path}, line 1: this is nested too deeply") from error
        # JSON is YAML, but for tabs, and that reader tells lines.
        self._note_lines((), yaml.compose(text.replace("\t", " "), yaml.CSafeLoader))

    def scenario(self) -> Scenario:
        for error in jsonschema.Draft4Validator(SCHEMA).iter_errors(self._value):
            raise self._complaint(error)
        value, folder = self._value, self._path.parent
        settings = {"picture_bytes": (800, 1000), **value.get("settings", {})}  # quick unless wanted otherwise
        if "pictures" in settings:
            settings["pictures"] = str(folder / settings["pictures"])
        return Scenario(self._path.stem, value["about"], settings,
                        [self._fault(("faults", index), fault) for index, fault in enumerate(value.get("faults", []))],
                        [self._step(("steps", index), step) for index, step in enumerate(value["steps"])],
                        value["expect"])

    def _note_lines(self, place: Place, node: yaml.Node) -> None:
        self._lines[place] = node.start_mark.line + 1
        if isinstance(node, yaml.SequenceNode):
            for index, element in enumerate(node.value):
                self._note_lines((*place, index), element)
        elif isinstance(node, yaml.MappingNode):
            for name, value in node.value:
                if (*place, name.value) in self._lines:
                    line = name.start_mark.line + 1
                    raise DocumentError(f"{self._path}, line {line}: {name.value!r} is here twice")
                self._note_lines((*place, name.value), value)

    def _error(self, place: Place, text: str) -> DocumentError:
        """An error about the value at a place, or about the nearest one around it that is there."""
        known = place
        while known not in self._lines:
            known = known[:-1]
        where = "".join(f"[{part}]" if isinstance(part, int) else f".{part}" for part in place).lstrip(".")
        return DocumentError(f"{self._path}, line {self._lines[known]}{f', {where}' if where else ''}: {text}")

    def _complaint(self, error: jsonschema.ValidationError) -> DocumentError:
        """What a violation of the schema means to who wrote the file."""
        place, value = tuple(error.absolute_path), error.instance
        values = error.schema.get("enum")
        wanted = error.schema.get("title", f"one of {', '.join(values)}" if values else "something else")
        if wanted == "a fault":
            self._fault(place, value)  # which says it better
        if error.validator == "anyOf" and place[:1] == ("steps",) and len(place) == 2:
            return self._wrong_step(place, error)
        if error.validator == "additionalProperties":
            known = error.schema["properties"]
            name = next(name for name in value if name not in known)
            return self._error((*place, name), f"there is no {name!r} here; there are {', '.join(known)}"
                               + faults.suggestion(name, known))
        if error.validator == "required":
            missing = next(name for name in error.validator_value if name not in value)
            return self._error(place, f"{missing!r} is missing here")
        near = faults.suggestion(value, wanted.replace(",", "").split()) if isinstance(value, str) else ""
        shown = json.dumps(value, ensure_ascii=False)[:80]
        return self._error(place, f"this must be {wanted}, not {shown}{near}")

    def _wrong_step(self, place: Place, error: jsonschema.ValidationError) -> DocumentError:
        step = error.instance
        if not isinstance(step, dict):
            return self._error(place, "a step is an object: {...}")
        kinds = [name for name in step if name in STEPS]
        if len(kinds) != 1:
            near = "".join(faults.suggestion(name, STEPS) for name in list(step)[:1])
            return self._error(place, f"a step has exactly one of {', '.join(STEPS)}{near}")
        return self._complaint(next(one for one in error.context
                                    if one.relative_schema_path[0] == list(STEPS).index(kinds[0])))

    def _step(self, place: Place, step: dict[str, Any]) -> Step:
        kind = next(name for name in step if name in STEPS)
        values = dict(step)
        if kind == "on":
            values["on"] = self._fault((*place, "on"), step["on"])
        elif kind in ("off", "took_hold"):
            try:
                values[kind] = faults.find(step[kind])
            except FaultError as error:
                raise self._error((*place, kind), str(error)) from error
        elif kind == "send" and step["send"] != "whiteListDown" and ("faces" in step or "wait" in step):
            raise self._error(place, "only whiteListDown has \"faces\" and \"wait\"")
        return Step(kind, values, self._lines[place])

    def _fault(self, place: Place, fault: Any) -> Order:
        try:
            return faults.from_document(fault)
        except FaultError as error:
            at_member = error.about != "fault" and isinstance(fault, dict)
            raise self._error((*place, error.about) if at_member else place, str(error)) from error
