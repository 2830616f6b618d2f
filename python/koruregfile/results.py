"""What the agent answers and tells, as values with names. What an older or newer agent says beside
them is left out."""

from __future__ import annotations

import dataclasses
import functools
import types
import typing
from dataclasses import dataclass
from typing import Any, NamedTuple, TypeVar

from .errors import AgentProtocolError

T = TypeVar("T")

Bits = tuple[int, int]
"""The highest and the lowest bit."""


class Result:
    """The base of all results: an immutable value, which prints what was said, and no defaults."""

    def __repr__(self) -> str:
        cls = type(self)
        parts = [f"{name}={getattr(self, name)!r}" for name, _, _, is_needed in _members(cls)
                 if is_needed or getattr(self, name) != getattr(cls, name, {})]
        return f"{cls.__name__}({', '.join(parts)})"


class Part(NamedTuple):
    """The one part of an answer that counts, and its type."""

    hint: Any
    key: str


@dataclass(frozen=True, repr=False)
class Chip(Result):
    """A chip as the agent keeps it."""

    name: str
    state: str
    """``"up"``, ``"rewriting"``, ``"failed"``, ``"refused"``; in events also ``"gone"``."""
    reason: str = ""
    device_id: str = ""
    profile: str = ""
    register_map: str = ""
    transport: str = ""
    device: str = ""
    address: int | None = None
    on_start: str = ""
    fields: int = 0
    registers: int = 0
    attempts: int = 0
    failed_writes: int = 0
    rewrites: int = 0
    pending_writes: int = 0
    drifted: int = 0
    resets: int = 0
    in_flight: int = 0


@dataclass(frozen=True, repr=False)
class _Register(Result):
    name: str
    address: int
    width: int
    type: str


@dataclass(frozen=True, repr=False)
class ChipRegister(_Register):
    """A hardware register that has fields: what it is to hold, and what was written."""

    wanted: int
    written: int
    verified: int
    """Which bits have to be read as they were written."""
    why: str = ""
    """Why none of them, when it is 0."""
    read_changes: bool = False


@dataclass(frozen=True, repr=False)
class HardwareRegister(_Register):
    """A register of a chip's map."""

    writeable: bool
    readable: bool
    configured: bool
    why: str = ""
    """Why it is not readable."""
    read_changes: bool = False


@dataclass(frozen=True, repr=False)
class Field(Result):
    """A field, where it lies and what is said of it."""

    register: str
    field: str
    kind: str
    """``"stored"``, ``"pulse"``, ``"write1clear"``, ``"volatile"`` or ``"status"``."""
    hw_register: str
    hw_bits: Bits
    bits: Bits | None = None
    hw_field: str = ""
    default: int | None = None
    wanted: int | None = None
    written: int | None = None
    text: str = ""
    number: float | None = None
    name: str = ""
    unit: str = ""
    description: str = ""
    scale: float = 1
    offset: float = 0
    signed: bool = False
    values: dict[str, int] = dataclasses.field(default_factory=dict)
    read_changes: bool = False


@dataclass(frozen=True, repr=False)
class Value(Result):
    """A field's raw value and, as far as that was said, what it stands for."""

    value: int
    text: str = ""
    number: float | None = None
    """In the field's unit."""
    name: str = ""
    live: bool = False
    """Whether it was read from the chip just now."""

    def __int__(self) -> int:
        return self.value

    __index__ = __int__


@dataclass(frozen=True, repr=False)
class FieldChange(Result):
    """What a field is, or would be, and what it was."""

    register: str
    field: str
    value: int
    was: int
    text: str = ""
    was_text: str = ""
    number: float | None = None
    name: str = ""


@dataclass(frozen=True, repr=False)
class RegisterChange(Result):
    """A hardware register that is, or would be, written."""

    name: str
    before: int = dataclasses.field(metadata={"key": "from"})
    now: int = dataclasses.field(metadata={"key": "to"})


@dataclass(frozen=True, repr=False)
class Written(Result):
    """What was written together, or would be."""

    fields: list[FieldChange]
    registers: list[RegisterChange]


@dataclass(frozen=True, repr=False)
class LogicalRegister(Result):
    """A logical register, or one that is read live."""

    name: str
    kind: str
    """``"logical"`` or ``"status"``."""
    fields: int
    value: int | None = None


@dataclass(frozen=True, repr=False)
class RegisterValue(Result):
    """The value of a logical or status register, and its fields."""

    value: int
    fields: dict[str, int]
    texts: dict[str, str] = dataclasses.field(default_factory=dict)
    live: bool = False


@dataclass(frozen=True, repr=False)
class Counter(Result):
    """A counter of the agent's."""

    owner: str
    name: str
    value: int


@dataclass(frozen=True, repr=False)
class EntityName(Result):
    """A named object of the agent's."""

    type: str
    name: str


@dataclass(frozen=True, repr=False)
class FieldEvent(Result):
    """A field has another value."""

    chip: str
    register: str
    field: str
    value: int
    text: str = ""
    number: float | None = None
    name: str = ""
    pulse: bool = False
    """Whether the value was sent once, and is held as 0 from now on."""


@dataclass(frozen=True, repr=False)
class ChipEvent(Result):
    """A chip has another state."""

    chip: Chip


@dataclass(frozen=True, repr=False)
class DriftEvent(Result):
    """A register was found to hold something else than was written."""

    chip: str
    register: str
    written: int
    found: int


@dataclass(frozen=True, repr=False)
class ResetEvent(Result):
    """A chip was reset behind the agent's back."""

    chip: str
    reason: str


@dataclass(frozen=True, repr=False)
class OtherEvent(Result):
    """An event of a kind that this client does not know."""

    event: str
    content: dict[str, Any]


Event = FieldEvent | ChipEvent | DriftEvent | ResetEvent | OtherEvent

_EVENTS = {"field": FieldEvent, "chip": ChipEvent, "drift": DriftEvent, "reset": ResetEvent}


def senseless(what: str) -> AgentProtocolError:
    """An answer does not hold what it has to."""
    return AgentProtocolError(f"the agent's answer makes no sense: {what}")


def _members(cls: Any) -> list[tuple[str, str, Any, bool]]:
    """Of a result: name, key, type and whether it has to be there."""
    return _found_members(cls)


@functools.cache
def _found_members(cls: Any) -> list[tuple[str, str, Any, bool]]:
    hints = typing.get_type_hints(cls)
    return [(each.name, each.metadata.get("key", each.name), hints[each.name],
             each.default is dataclasses.MISSING and each.default_factory is dataclasses.MISSING)
            for each in dataclasses.fields(cls)]


def make(hint: Any, json: Any) -> Any:
    """A value of that type, of what has come. Raises AgentProtocolError when it cannot be one."""
    origin, arguments = typing.get_origin(hint), typing.get_args(hint)
    if hint is Any or (hint is None and json is None):
        return json
    if isinstance(hint, Part) and isinstance(json, dict) and hint.key in json:
        return make(hint.hint, json[hint.key])
    if dataclasses.is_dataclass(hint) and isinstance(json, dict):
        return _make_result(hint, json)
    if origin is types.UnionType or origin is typing.Union:
        if json is None and type(None) in arguments:
            return None
        return make(arguments[0], json)
    if origin is list and isinstance(json, list):
        return [make(arguments[0], each) for each in json]
    if origin is tuple and isinstance(json, list) and len(json) == len(arguments):
        return tuple(make(each, part) for each, part in zip(arguments, json))
    if origin is dict and isinstance(json, dict):
        return {key: make(arguments[1], value) for key, value in json.items()}
    if type(json) is hint or (hint is float and type(json) is int):
        return json
    raise senseless(f"{_shortened(json)} is no {getattr(hint, '__name__', hint)}")


def _make_result(cls: type[T], json: dict[str, Any]) -> T:
    found = {}
    for name, key, hint, is_needed in _members(cls):
        if key in json:
            found[name] = make(hint, json[key])
        elif is_needed:
            raise senseless(f"it has no '{key}'")
    return cls(**found)


def event_of(json: dict[str, Any]) -> Event:
    """The event that a line tells."""
    kind = json["event"]
    if not isinstance(kind, str):
        raise senseless(f"{_shortened(kind)} is no event")
    if kind in _EVENTS:
        known: Event = make(_EVENTS[kind], json)
        return known
    return OtherEvent(kind, {key: value for key, value in json.items() if key != "event"})


def _shortened(json: Any) -> str:
    text = repr(json)
    return text if len(text) <= 60 else text[:57] + "..."
