"""What can be asked of the agent: once for both clients, which differ in how they wait.

Each method returns what ``_ask()`` of the client returns: the result, or an awaitable of it. Their
types are in agent.pyi.
"""

from __future__ import annotations

import operator
from collections.abc import Iterable, Mapping
from typing import Any

from .results import (Chip, ChipRegister, Counter, EntityName, Field, HardwareRegister,
                      LogicalRegister, Part, RegisterValue, Value, Written)

_NUMBER = Part(int, "value")


def _value(value: int | str) -> dict[str, Any]:
    """A raw number, or a text as people write it."""
    if isinstance(value, str):
        return {"text": value}
    return {"value": operator.index(value)}


class Operations:
    """The agent's operations."""

    def _ask(self, hint: Any, op: str, /, **arguments: Any) -> Any:
        raise NotImplementedError

    def ask(self, op: str, /, **arguments: Any) -> Any:
        """Ask for any operation; the result as it came, in dicts, lists, numbers and texts."""
        return self._ask(Any, op, **arguments)

    def chips(self) -> Any:
        """All chips that the agent's file has."""
        return self._ask(list[Chip], "chip.list")

    def chip(self, chip: str) -> Any:
        """One of them."""
        return self._ask(Chip, "chip.show", chip=chip)

    def chip_registers(self, chip: str) -> Any:
        """The hardware registers that have fields, in the order of the map."""
        return self._ask(list[ChipRegister], "chip.registers", chip=chip)

    def rewrite(self, chip: str, registers: Iterable[str] | None = None) -> Any:
        """Write all registers that have fields anew, or these, as they are wanted; how many."""
        names = None if registers is None else list(registers)
        return self._ask(Part(int, "written"), "chip.rewrite", chip=chip, registers=names)

    def restore_defaults(self, chip: str) -> Any:
        """Give all fields the values of the agent's file."""
        return self._ask(Written, "chip.defaults", chip=chip)

    def fields(self, chip: str, register: str | None = None) -> Any:
        """The fields of a chip, or of one logical or status register."""
        return self._ask(list[Field], "field.list", chip=chip, register=register)

    def read_field(self, chip: str, register: str, field: str, *, live: bool = False) -> Any:
        """A field as last written; with ``live``, and for status fields, as the chip has it."""
        return self._ask(Value, "field.read", chip=chip, register=register, field=field,
                         live=live or None)

    def write_field(self, chip: str, register: str, field: str, value: int | str) -> Any:
        """Write a field: its raw number, or a text such as ``"x2"`` or ``"24.75 °C"``."""
        return self._ask(Value, "field.write", chip=chip, register=register, field=field,
                         **_value(value))

    def reset_field(self, chip: str, register: str, field: str) -> Any:
        """Give a field the value of the agent's file."""
        return self._ask(Value, "field.reset", chip=chip, register=register, field=field)

    def write_fields(self, chip: str, fields: Mapping[tuple[str, str], int | str], *,
                     order: str | None = None, dry_run: bool = False) -> Any:
        """Write fields together, each register once: ``{("config", "gain"): 2}``.

        ``order`` of the registers is ``"map"`` or ``"given"``; a ``dry_run`` says what would be.
        """
        items = [{"register": register, "field": field, **_value(value)}
                 for (register, field), value in fields.items()]
        return self._ask(Written, "fields.write", chip=chip, fields=items, order=order,
                         dry_run=dry_run or None)

    def registers(self, chip: str) -> Any:
        """The logical registers of a chip, and those that are read live."""
        return self._ask(list[LogicalRegister], "register.list", chip=chip)

    def read_register(self, chip: str, register: str) -> Any:
        """A logical register as last written, or a status register from the chip; its fields."""
        return self._ask(RegisterValue, "register.read", chip=chip, register=register)

    def write_register(self, chip: str, register: str, value: int) -> Any:
        """Write all fields of a logical register, together."""
        return self._ask(_NUMBER, "register.write", chip=chip, register=register,
                         value=operator.index(value))

    def hw_registers(self, chip: str) -> Any:
        """All registers of a chip's map."""
        return self._ask(list[HardwareRegister], "hw.list", chip=chip)

    def read_hw(self, chip: str, register: str) -> Any:
        """A register of the map, from the chip."""
        return self._ask(_NUMBER, "hw.read", chip=chip, register=register)

    def write_hw(self, chip: str, register: str, value: int, *, force: bool = False) -> Any:
        """Write a register of the map; if it has fields, or is read-only, with ``force`` only."""
        return self._ask(_NUMBER, "hw.write", chip=chip, register=register,
                         value=operator.index(value), force=force or None)

    def counters(self) -> Any:
        """All counters of the agent."""
        return self._ask(list[Counter], "stats")

    def metrics(self) -> Any:
        """How the board does, in figures, in the text format of OpenMetrics."""
        return self._ask(Part(str, "text"), "metrics")

    def entities(self) -> Any:
        """All named objects of the agent."""
        return self._ask(list[EntityName], "entity.list")

    def entity(self, type: str, name: str, attribute: str | None = None) -> Any:
        """The attributes of one of them, or one attribute, in string form."""
        return self._ask(dict[str, str], "entity.get", type=type, name=name, attribute=attribute)

    def subscribe(self, chip: str | None = None) -> Any:
        """Have events of a chip, or of all of them, told from now on: see ``events()``."""
        return self._ask(None, "subscribe", chip=chip)

    def unsubscribe(self) -> Any:
        """Have none told any more."""
        return self._ask(None, "unsubscribe")
