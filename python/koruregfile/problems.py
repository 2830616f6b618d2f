"""What is wrong with a register map, as ``check_map()`` tells it."""

from __future__ import annotations

from typing import Literal, NamedTuple


class MapProblem(NamedTuple):
    """One fault of a map."""

    path: str
    line: int
    """From 1; 0 for a file that cannot be read."""
    column: int
    """From 1, the byte where the field begins; 0 when no field is to blame."""
    severity: Literal["warning", "error"]
    """An error has the map refused; with a warning it is read, but hardly as it was meant."""
    text: str

    def __str__(self) -> str:
        place = f"{self.path}:{self.line}" if self.line else self.path
        if self.column:
            place += f":{self.column}"
        return f"{place}: {self.severity}: {self.text}"
