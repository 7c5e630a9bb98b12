"""Scenario files: what to do to a camera, and what is to come of it. README.md has the format."""

from __future__ import annotations

import json
from collections.abc import Callable, Iterable
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

from simulator import faults
from simulator.cli.scenarios.positions import Document, DocumentError, Place
from simulator.cli.scenarios.settings import SETTINGS
from simulator.errors import CameraError
from simulator.faults import FaultError, Order

COMMANDS = ("whiteListDown", "whiteListClear", "faceNotHitDown")
# What can become of a command besides a status: no reply at all, or nobody there to take it.
NO_REPLY, UNDELIVERED = "none", "undelivered"


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


def _is_text(value: Any) -> bool:
    return isinstance(value, str)


def _is_count(value: Any) -> bool:
    return type(value) is int and value >= 0


def _is_texts(value: Any) -> bool:
    return isinstance(value, list) and all(isinstance(one, str) for one in value)


def _is_seconds(value: Any) -> bool:
    return not isinstance(value, bool) and isinstance(value, (int, float)) and 0 < value <= 600


def _is_hex(value: Any) -> bool:
    try:
        bytes.fromhex(value)
    except (TypeError, ValueError):
        return False
    return True


def _is_status(value: Any) -> bool:
    return value in (NO_REPLY, UNDELIVERED) or _is_count(value)


# A check and what it wants, for the complaint.
Check = tuple[Callable[[Any], bool], str]
_TEXT: Check = (_is_text, "a text")
_COUNT: Check = (_is_count, "a whole number from 0")
_SECONDS: Check = (_is_seconds, "a number of seconds above 0, at most 600")
_ANYTHING: Check = (lambda value: True, "")
_FAULT: Check = (lambda value: isinstance(value, (str, dict)), "a fault")

# The members of each kind of step; the first one names it.
STEPS: dict[str, dict[str, Check]] = {
    "send": {"send": (lambda value: value in COMMANDS, f"one of {', '.join(COMMANDS)}"), "faces": _COUNT,
             "info": (lambda value: isinstance(value, dict), "an object"),
             "status": (_is_status, f'a status like 200, or "{NO_REPLY}" or "{UNDELIVERED}"'),
             "wait": (lambda value: isinstance(value, bool), "true or false"), "seconds": _SECONDS},
    "raw": {"raw": (_is_hex, "bytes as hexadecimal digits")},
    "publish": {"publish": _ANYTHING},
    "on": {"on": _FAULT},
    "off": {"off": _TEXT},
    "took_hold": {"took_hold": _TEXT, "seconds": _SECONDS},
    "log": {"log": _TEXT, "seconds": _SECONDS},
    "end": {"end": (lambda value: value is True, "true")},
}
EXPECTATIONS: dict[str, Check] = {
    "reports": _COUNT, "page_requests": _COUNT, "imported": _COUNT, "lists": _COUNT, "exit_code": _COUNT,
    "log": (_is_texts, "a list of texts"), "no_log": (_is_texts, "a list of texts")}
_MEMBERS: dict[str, Check] = {
    "about": _TEXT, "settings": (lambda value: isinstance(value, dict), "an object"),
    "faults": (lambda value: isinstance(value, list), "a list of faults"),
    "steps": (lambda value: isinstance(value, list) and bool(value), "a list of steps"),
    "expect": (lambda value: isinstance(value, dict), "an object")}


def load(path: Path) -> Scenario:
    """Reads and checks a scenario file. Raises DocumentError that names file, line and member."""
    try:
        text = path.read_text(encoding="utf-8")
    except (OSError, UnicodeDecodeError) as error:
        raise CameraError(f"the scenario {path} cannot be read: {error}") from error
    document = Document(str(path), text)
    _check_members(document, (), _MEMBERS, ("about", "steps", "expect"))
    value = document.value
    return Scenario(
        name=path.stem, about=value["about"], settings=_settings(document, path.parent),
        faults=[_fault(document, ("faults", index)) for index in range(len(value.get("faults", [])))],
        steps=[_step(document, ("steps", index)) for index in range(len(value["steps"]))],
        expect=_checked_expect(document))


def _at(document: Document, place: Place) -> Any:
    value = document.value
    for part in place:
        value = value[part]
    return value


def _check_members(document: Document, place: Place, known: dict[str, Check], needed: Iterable[str] = ()) -> None:
    """Holds the object at a place against the members that are known."""
    value = _at(document, place)
    if not isinstance(value, dict):
        raise document.error(place, "this is to be an object: {...}")
    for name, member in value.items():
        if name not in known:
            raise document.error((*place, name), f"there is no {name!r} here; there are {', '.join(known)}"
                                 + faults.suggestion(name, known))
        check, wanted = known[name]
        if not check(member):
            shown = json.dumps(member, ensure_ascii=False)
            near = faults.suggestion(member, wanted.replace(",", "").split()) if isinstance(member, str) else ""
            raise document.error((*place, name), f"this is to be {wanted}, not {shown[:80]}{near}")
    for name in needed:
        if name not in value:
            raise document.error(place, f"{name!r} is missing here")


def _settings(document: Document, folder: Path) -> dict[str, Any]:
    settings: dict[str, Any] = {"picture_bytes": (800, 1000)}  # quick unless wanted otherwise
    for name, value in document.value.get("settings", {}).items():
        place = ("settings", name)
        if name not in SETTINGS:
            raise document.error(place, f"there is no setting {name!r}; there are {', '.join(SETTINGS)}"
                                 + faults.suggestion(name, SETTINGS))
        try:
            settings[name] = SETTINGS[name].check(value)
        except ValueError as error:
            raise document.error(place, f"this is to be {error}, not {json.dumps(value)}") from error
    if "pictures" in settings:
        settings["pictures"] = str(folder / settings["pictures"])
    return settings


def _fault(document: Document, place: Place) -> Order:
    try:
        return faults.from_document(_at(document, place))
    except FaultError as error:
        raise document.error(place if error.about == "fault" or isinstance(_at(document, place), str)
                             else (*place, error.about), str(error)) from error


def _step(document: Document, place: Place) -> Step:
    value = _at(document, place)
    if not isinstance(value, dict):
        raise document.error(place, "a step is an object: {...}")
    kinds = [name for name in value if name in STEPS]
    if len(kinds) != 1:
        near = "".join(faults.suggestion(name, STEPS) for name in list(value)[:1])
        raise document.error(place, f"a step has exactly one of {', '.join(STEPS)}{near}")
    kind = kinds[0]
    _check_members(document, place, STEPS[kind])
    values = dict(value)
    if kind == "on":
        values["on"] = _fault(document, (*place, "on"))
    elif kind in ("off", "took_hold"):
        try:
            values[kind] = faults.find(value[kind])
        except FaultError as error:
            raise document.error((*place, kind), str(error)) from error
    elif kind == "send" and value["send"] != "whiteListDown" and ("faces" in value or "wait" in value):
        raise document.error(place, "only whiteListDown has \"faces\" and \"wait\"")
    return Step(kind, values, document.lines[place])


def _checked_expect(document: Document) -> dict[str, Any]:
    _check_members(document, ("expect",), EXPECTATIONS)
    expect: dict[str, Any] = document.value["expect"]
    return expect


__all__ = ["COMMANDS", "EXPECTATIONS", "NO_REPLY", "STEPS", "UNDELIVERED", "DocumentError", "Scenario", "Step", "load"]
