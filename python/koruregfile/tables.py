"""The tables that the agent keeps in shared memory, read while it writes them."""

from __future__ import annotations

import os
from collections.abc import Iterator, Mapping
from typing import NamedTuple

from . import _core


class FieldKey(NamedTuple):
    """Where a field lies: the register's address, the first bit and the number of bits."""

    address: int
    start: int
    size: int

    def __repr__(self) -> str:
        return f"FieldKey(address={self.address:#x}, start={self.start}, size={self.size})"


class Change(NamedTuple):
    """A field whose value has changed; None where it was not, or is no more, in the table."""

    key: FieldKey
    before: int | None
    now: int | None


class Table(Mapping[FieldKey, int]):
    """A table of shadow fields: what the agent wants a chip to hold, or what it has written there.

    ``path`` is as ``korureg shadow`` takes it: ``"KoruRegFile/shadowFieldsStatus/power"``, below
    the state directory. A mapping from FieldKey (or a tuple like it) to the field's value, which
    cannot be changed and is live: each look-up sees what the table holds at that moment. A writer
    that ends leaves the table as it was; one that comes back is followed.

    Used on any thread; calls take turns, a wait gives its turn away.

    Raises FileNotFoundError when there is no such table, TableError for what is no table of shadow
    fields, ValueError for a path that no table can have, and, here and wherever the table is read,
    DamagedTableError.
    """

    def __init__(self, path: str, *,
                 state_directory: str | os.PathLike[str] | None = None) -> None:
        self._path = path
        self._live = _core.LiveTable(path, state_directory)

    @property
    def path(self) -> str:
        """The table's path."""
        return self._path

    @property
    def type(self) -> str:
        """``"KoruRegFile::ShadowFieldsConfig"`` or ``"KoruRegFile::ShadowFieldsStatus"``."""
        return self._live.type

    @property
    def status(self) -> str:
        """``"attached"``: the writer is there; ``"detached"``: its last contents are served;
        ``"waiting"`` and ``"damaged"``."""
        return self._live.status

    @property
    def generation(self) -> int:
        """How many times the table has been made anew."""
        return self._live.generation

    @property
    def closed(self) -> bool:
        """Whether it has been closed."""
        return self._live.closed

    def __getitem__(self, key: tuple[int, int, int]) -> int:
        address, start, size = _parts(key)
        value = self._live.get(address, start, size)
        if value is None:
            raise KeyError(key)
        return value

    def __iter__(self) -> Iterator[FieldKey]:
        return iter([FieldKey(*place) for place, _ in sorted(self._live.entries())])

    def __len__(self) -> int:
        return len(self._live.entries())

    def snapshot(self) -> dict[FieldKey, int]:
        """All of it at once, in the order of the keys."""
        return {FieldKey(*place): value for place, value in sorted(self._live.entries())}

    def wait(self, timeout: float | None = None) -> list[Change]:
        """What has changed since the last call, or since the table was opened.

        Waits until there is something, without the interpreter's lock, and ends with an empty list
        after that many seconds. Values in between may be missed, the last one is not.
        """
        return [Change(FieldKey(*place), before, now)
                for place, before, now in self._live.wait(timeout)]

    def changes(self, timeout: float | None = None) -> Iterator[Change]:
        """One change after the other, until none comes for that many seconds."""
        while found := self.wait(timeout):
            yield from found

    def close(self) -> None:
        """Let go of the table; what is used afterwards raises ValueError."""
        self._live.close()

    def __enter__(self) -> Table:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __repr__(self) -> str:
        closed = "closed " if self.closed else ""
        return f"<{closed}table {self._path}>"


def _parts(key: object) -> tuple[int, int, int]:
    if isinstance(key, tuple) and len(key) == 3:
        return key[0], key[1], key[2]
    raise TypeError("a key is a FieldKey, or a tuple (address, start, size)")
