"""What can go wrong with chips, maps, tables and the agent: exceptions that have the reason."""

from __future__ import annotations

import functools
from typing import Any


class KoruError(Exception):
    """The base of all exceptions of this package's own."""


class RegisterMapError(KoruError, ValueError):
    """A file is no register map.

    Attributes: ``path``; ``line`` and ``column``, from 1, or 0 when unknown; ``reason``.
    """

    def __init__(self, message: str, *, path: str = "", line: int = 0, column: int = 0,
                 reason: str = "") -> None:
        super().__init__(message)
        self.path = path
        self.line = line
        self.column = column
        self.reason = reason or message


class TransportError(KoruError, OSError):
    """An access to a chip, or the opening of its device, has failed.

    Attributes: ``errno``, or None when the system gave none; ``reason`` in words; ``register``,
    the name of the register, or None. What a transport written in Python raised is the
    ``__cause__``.
    """

    def __init__(self, message: str, *, reason: str = "", errno: int | None = None,
                 register: str | None = None) -> None:
        super().__init__(message)
        self.errno = errno  # type: ignore[assignment]
        self.reason = reason or message
        self.register = register

    def __reduce__(self) -> tuple[Any, ...]:
        # (An OSError alone would forget its errno on the way to another process.)
        attributes = {"reason": self.reason, "errno": self.errno, "register": self.register}
        return functools.partial(type(self), **attributes), (str(self),)


class TableError(KoruError):
    """Something in the place of a table is none, or not one of shadow fields.

    Attributes: ``path`` of the table, ``reason``.
    """

    def __init__(self, message: str, *, path: str = "", reason: str = "") -> None:
        super().__init__(message)
        self.path = path
        self.reason = reason or message


class DamagedTableError(TableError):
    """A table holds what was never stored there. No such value is ever returned."""


class AgentError(KoruError):
    """Something is wrong between the agent and its client."""


class AgentRefusal(AgentError):
    """The agent did not do what it was asked for, and says why; it takes the next request.

    Attributes: ``kind``, a word such as ``"noSuchField"`` or ``"failed"``; ``reason`` in words.
    """

    def __init__(self, reason: str, *, kind: str = "") -> None:
        super().__init__(reason)
        self.kind = kind
        self.reason = reason


class AgentTimeout(AgentError, TimeoutError):
    """The agent has not answered in time. What was asked may still be done."""


class AgentGone(AgentError, ConnectionError):
    """No agent listens, or it has hung up. The client is of no more use."""


class AgentProtocolError(AgentError):
    """What came from the socket is not what an agent says. The client is of no more use."""
