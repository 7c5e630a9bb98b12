"""What a fault is: its parameters, and how effects.py declares one."""

from __future__ import annotations

import difflib
from collections.abc import Callable
from dataclasses import dataclass
from types import SimpleNamespace
from typing import Any, TypeVar

from simulator.errors import CameraError
from simulator.messages import wire

PEERS = {"itgt": "ITGT", "faces": "the face library", "platform": "the platform", "client": "the command client",
         "events": "the event cache"}

# Where a fault takes hold. Each stage has its own form of effect; see effects.py and switches.py.
ANSWER, CONNECT, TLS, SEND, NOTIFY, STATE = "answer", "connect", "tls", "send", "notify", "state"


class FaultError(CameraError):
    """A fault that is not written as the table has it. `about` names the part at fault: "fault" or a parameter."""

    def __init__(self, text: str, about: str = "fault") -> None:
        super().__init__(text)
        self.about = about


@dataclass(frozen=True)
class Parameter:
    """`default` tells the type: a whole number, seconds (a float), or one text of `choices`."""

    name: str
    default: int | float | str
    help: str
    choices: tuple[str, ...] = ()
    at_least: int = 0

    def checked(self, value: Any) -> Any:
        """The value as the effect wants it, from text or from JSON. Raises FaultError."""
        if isinstance(self.default, str):
            if str(value) not in self.choices:
                raise FaultError(f"{self.name} is one of {', '.join(self.choices)}, not {value!r}"
                                 + suggestion(str(value), self.choices), self.name)
            return str(value)
        kind = type(self.default)
        wanted = "a whole number" if kind is int else "a number"
        try:
            if isinstance(value, bool) or (kind is int and isinstance(value, float)):
                raise ValueError
            number = kind(value)
        except (TypeError, ValueError):
            raise FaultError(f"{self.name} is {wanted}, not {value!r}", self.name) from None
        if not self.at_least <= number <= 2**32 - 1:
            raise FaultError(f"{self.name} is {wanted} from {self.at_least} to {2**32 - 1}, not {value!r}", self.name)
        return number


@dataclass(frozen=True)
class Fault:
    """One line of the table. `parameters` has the ones of the fault itself first, then those of its stage."""

    peer: str
    word: str
    help: str
    stage: str
    effect: Callable[..., Any]
    parameters: tuple[Parameter, ...] = ()

    @property
    def name(self) -> str:
        return f"{self.peer}.{self.word}"

    def values(self, given: dict[str, Any]) -> SimpleNamespace:
        """All parameters with the given values, checked. Raises FaultError."""
        known = {parameter.name: parameter for parameter in self.parameters}
        for name in given:
            if name not in known:
                there = f"it takes {', '.join(known)}" if known else "it takes none"
                raise FaultError(f"{self.name} has no parameter {name!r}; {there}" + suggestion(name, known), name)
        return SimpleNamespace(**{name: parameter.checked(given.get(name, parameter.default))
                                  for name, parameter in known.items()})


@dataclass(frozen=True)
class Order:
    """A fault with its parameters, as somebody wants it."""

    fault: Fault
    values: SimpleNamespace

    def __str__(self) -> str:
        changed = [f"{parameter.name}={getattr(self.values, parameter.name)}" for parameter in self.fault.parameters
                   if getattr(self.values, parameter.name) != parameter.default]
        return self.fault.name + ("=" + ",".join(changed) if changed else "")


_CODES = {"itgt": (wire.IMPORT_FILE, wire.IMPORT_PROGRESS, wire.IMPORT_TIME),
          "faces": (wire.SET_LIST, wire.CLEAR_LISTS)}
_TIMES = Parameter("times", 0, "how often it happens; 0: until it is switched off")
_AT = Parameter("at", "all", "which requests", ("all", "pages", "results"))

Effect = TypeVar("Effect", bound=Callable[..., Any])


class Declarations:
    """Called, declares a function as the effect of a fault "PEER.WORD", or of one of several peers: "PEER,PEER.WORD".

    `{}` in the help stands for the peer. A fault in the answers to MSG_DATA can be limited to requests with a command,
    or is about one command anyway; one in the platform's answers, to requests for pages or results.

    faults  every fault that was declared, in order
    """

    def __init__(self) -> None:
        self.faults: list[Fault] = []

    def __call__(self, stage: str, name: str, help_text: str, *parameters: Parameter,
                 command: int = 0) -> Callable[[Effect], Effect]:
        def declare(effect: Effect) -> Effect:
            peers, _, word = name.partition(".")
            for peer in peers.split(","):
                more: tuple[Parameter, ...] = () if stage in (STATE, TLS) else (_TIMES,)
                if stage == ANSWER:
                    codes = (str(command),) if command else ("0", *map(str, _CODES.get(peer, ())))
                    which = Parameter("command", codes[0], "the request it is about; 0: every one", codes)
                    more = (_AT if peer == "platform" else which, *more)
                text = help_text.format(PEERS[peer])
                self.faults.append(Fault(peer, word, text, stage, effect, (*parameters, *more)))
            return effect
        return declare


def suggestion(word: str, known: Any) -> str:
    """"; did you mean ...?" when a known word is close, else nothing."""
    close = difflib.get_close_matches(word, list(known), 1, 0.55)
    return f"; did you mean {close[0]!r}?" if close else ""
