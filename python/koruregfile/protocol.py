"""The agent's lines: how requests are written, and answers are read from whoever may send them."""

from __future__ import annotations

import json
import os
from collections import deque
from collections.abc import Mapping
from typing import Any

from . import _core
from .errors import AgentRefusal
from .results import senseless

LONGEST_REQUEST = 65536
LONGEST_ANSWER = 1 << 24
"""In bytes. Of a line that is longer no more than this is ever kept."""
MOST_EVENTS = 100_000
"""That wait for somebody to take them."""


def socket_path(socket: str | os.PathLike[str] | None,
                state_directory: str | os.PathLike[str] | None) -> str:
    """Where the agent listens."""
    if socket is not None:
        return os.fspath(socket)
    directory = _core.state_directory() if state_directory is None else state_directory
    return os.path.join(os.fspath(directory), "korud.sock")


class LineBuffer:
    """Lines out of pieces."""

    def __init__(self) -> None:
        self._lines: deque[bytes] = deque()
        self._begun: list[bytes] = []
        self._size = 0

    def add(self, piece: bytes) -> None:
        """Takes a piece. Raises AgentProtocolError for a line that does not end."""
        first, *others = piece.split(b"\n")
        self._begun.append(first)
        self._size += len(first)
        if others:
            self._lines.extend([b"".join(self._begun), *others[:-1]])
            self._begun, self._size = [others[-1]], len(others[-1])
        if self._size > LONGEST_ANSWER:
            raise senseless(f"a line has no end within {LONGEST_ANSWER} bytes")

    def take(self) -> bytes | None:
        """The next whole line, if there is one."""
        return self._lines.popleft() if self._lines else None


def request_line(number: int, op: str, arguments: Mapping[str, Any]) -> bytes:
    """A request; arguments that are None are left out. Raises ValueError for one that no agent
    would take."""
    request = {"id": number, "op": op}
    request.update((key, value) for key, value in arguments.items() if value is not None)
    line = json.dumps(request).encode() + b"\n"
    if len(line) > LONGEST_REQUEST:
        raise ValueError(f"a request has {LONGEST_REQUEST} bytes at most, this one {len(line)}")
    return line


def parsed(line: bytes) -> dict[str, Any]:
    """The object that a line holds."""
    try:
        answer = json.loads(line)
    except (ValueError, RecursionError) as error:
        raise senseless(f"{line[:60]!r} is no JSON") from error
    if not isinstance(answer, dict):
        raise senseless(f"{line[:60]!r} is no object")
    return answer


def result_of(answer: dict[str, Any]) -> Any:
    """The result in an answer. Raises AgentRefusal with the reason when there is none."""
    if answer.get("ok") is True:
        return answer.get("result")
    error = answer.get("error")
    if answer.get("ok") is not False or not isinstance(error, dict):
        raise senseless("it is neither a result nor a refusal")
    raise AgentRefusal(str(error.get("message", "the agent gave no reason")),
                       kind=str(error.get("kind", "")))
