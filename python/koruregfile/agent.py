"""Clients of the agent, korud: one that blocks, and one for asyncio."""

from __future__ import annotations

import asyncio
import contextlib
import os
import socket as sockets
import time
from collections import deque
from collections.abc import AsyncIterator, Iterator
from typing import Any

from .errors import AgentError, AgentGone, AgentProtocolError, AgentRefusal, AgentTimeout
from .operations import Operations
from .protocol import (LONGEST_ANSWER, MOST_EVENTS, LineBuffer, parsed, request_line, result_of,
                       socket_path)
from .results import Event, event_of, make, senseless

_PIECE = 1 << 16
_PAUSE = 0.01
_LEAST = 0.001  # in which what is there already is taken
_TOO_MANY = f"more than {MOST_EVENTS} events wait for somebody to take them"


class Agent(Operations):
    """A connection to the agent, on which each request waits for its answer.

        with Agent() as agent:
            agent.write_field("power0", "config", "gain", 2)

    ``socket`` is the agent's, by default ``korud.sock`` in ``state_directory``, by default the one
    that the environment chooses. An answer is waited for ``timeout`` seconds at most, or for ever
    when that is None. Used on one thread at a time.

    Raises AgentGone when no agent listens or it hangs up, AgentTimeout when it does not answer,
    AgentProtocolError when what answers is no agent, AgentRefusal when it does not do what it is
    asked for; ValueError once it is closed. Only after a refusal, or an answer that did not come
    in time, can it be asked again.
    """

    def __init__(self, socket: str | os.PathLike[str] | None = None, *,
                 state_directory: str | os.PathLike[str] | None = None,
                 timeout: float | None = 10.0) -> None:
        self._connection: sockets.socket | None = None
        self._path = socket_path(socket, state_directory)
        self.timeout = timeout
        self._lines = LineBuffer()
        self._events: deque[Event] = deque()
        self._number = 0
        self._failure: AgentError | None = None
        self._connection = self._connected(_Deadline(timeout))

    def _connected(self, deadline: _Deadline) -> sockets.socket:
        connection = sockets.socket(sockets.AF_UNIX, sockets.SOCK_STREAM)
        try:
            while True:
                try:
                    connection.settimeout(deadline.left())
                    connection.connect(self._path)
                    return connection
                except BlockingIOError:  # so many others wait that this one cannot
                    time.sleep(_PAUSE)
        except _Over:
            connection.close()
            raise self._silence() from None
        except TimeoutError:
            connection.close()
            raise self._silence() from None
        except OSError as error:
            connection.close()
            raise _unreachable(self._path, error) from error

    def close(self) -> None:
        """Hang up; what is asked afterwards raises ValueError."""
        if self._connection is not None:
            self._connection.close()
        self._connection = None

    @property
    def closed(self) -> bool:
        """Whether it has been closed."""
        return self._connection is None

    def events(self, timeout: float | None = None) -> Iterator[Event]:
        """The events that ``subscribe()`` asked for, one after the other as they come.

        Ends when none comes for that many seconds; None waits for ever.
        """
        while True:
            deadline = _Deadline(timeout)
            try:
                while not self._events:
                    self._take(self._line(deadline))
            except _Over:
                return
            yield self._events.popleft()

    def _ask(self, hint: Any, op: str, /, **arguments: Any) -> Any:
        connection = self._usable()
        self._number += 1
        line = request_line(self._number, op, arguments)
        deadline = _Deadline(self.timeout)
        self._send(connection, line, deadline)
        try:
            while True:
                answer = self._take(self._line(deadline))
                if answer is not None:
                    break
        except _Over:
            raise self._silence() from None
        try:
            return make(hint, result_of(answer))
        except AgentProtocolError as error:
            raise self._ended(error) from error.__cause__

    def _send(self, connection: sockets.socket, line: bytes, deadline: _Deadline) -> None:
        try:
            connection.settimeout(deadline.left())
            connection.sendall(line)
        except (TimeoutError, _Over):
            # A part of the line may have gone: nothing can follow it.
            raise self._ended(self._silence()) from None
        except OSError:
            pass  # it has hung up, perhaps with an answer that says why

    def _line(self, deadline: _Deadline) -> bytes:
        connection = self._usable()
        while (line := self._lines.take()) is None:
            try:
                connection.settimeout(deadline.left())
                piece = connection.recv(_PIECE)
            except TimeoutError:
                continue
            except OSError as error:
                raise self._ended(AgentGone(f"the agent has hung up: {error}")) from error
            if not piece:
                raise self._ended(AgentGone("the agent has hung up"))
            try:
                self._lines.add(piece)
            except AgentProtocolError as error:
                raise self._ended(error) from None
        deadline.left()  # (there may always be something, and never the answer)
        return line

    def _take(self, line: bytes) -> dict[str, Any] | None:
        """The answer that a line holds, if it is the one that is waited for; keeps an event."""
        try:
            answer = parsed(line)
            if "event" in answer:
                self._events.append(event_of(answer))
                if len(self._events) > MOST_EVENTS:
                    raise AgentError(_TOO_MANY)
                return None
            return answer if _is_answer(answer, self._number) else None
        except AgentError as error:
            raise self._ended(error) from error.__cause__

    def _usable(self) -> sockets.socket:
        if self._failure is not None:
            raise AgentGone(f"the connection has ended: {self._failure}")
        if self._connection is None:
            raise ValueError("the agent's client is closed")
        return self._connection

    def _ended(self, error: AgentError) -> AgentError:
        """Nothing more can be asked; the failure, to be raised."""
        self._failure = error
        if self._connection is not None:
            self._connection.close()
        return error

    def _silence(self) -> AgentTimeout:
        return AgentTimeout(f"the agent at {self._path} does not answer within {self.timeout} s")

    def __enter__(self) -> Agent:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __repr__(self) -> str:
        return f"<{'closed ' if self.closed else ''}agent at {self._path}>"


class AsyncAgent(Operations):
    """A connection to the agent for asyncio: any number of requests at a time, each an awaitable.

        async with AsyncAgent() as agent:
            await agent.write_field("power0", "config", "gain", 2)

    As Agent otherwise. Used on the thread of its event loop.
    """

    def __init__(self, socket: str | os.PathLike[str] | None = None, *,
                 state_directory: str | os.PathLike[str] | None = None,
                 timeout: float | None = 10.0) -> None:
        self._path = socket_path(socket, state_directory)
        self.timeout = timeout
        self._writer: asyncio.StreamWriter | None = None
        self._reader: asyncio.Task[None] | None = None
        self._waiting: dict[int, asyncio.Future[dict[str, Any]]] = {}
        self._events: deque[Event] = deque()
        self._told = asyncio.Event()
        self._number = 0
        self._failure: AgentError | None = None
        self._is_closed = False

    async def connect(self) -> AsyncAgent:
        """Connect, once; ``async with`` does."""
        try:
            async with asyncio.timeout(self.timeout):
                reader, self._writer = await self._opened()
        except TimeoutError:
            raise self._silence() from None
        except OSError as error:
            raise _unreachable(self._path, error) from error
        self._reader = asyncio.create_task(self._read(reader))
        return self

    async def _opened(self) -> tuple[asyncio.StreamReader, asyncio.StreamWriter]:
        connection = sockets.socket(sockets.AF_UNIX, sockets.SOCK_STREAM)
        try:
            connection.setblocking(False)
            while True:
                try:
                    connection.connect(self._path)
                    break
                except BlockingIOError:  # so many others wait that this one cannot
                    await asyncio.sleep(_PAUSE)
            return await asyncio.open_unix_connection(sock=connection, limit=LONGEST_ANSWER)
        except BaseException:
            connection.close()
            raise

    async def close(self) -> None:
        """Hang up; what is asked afterwards raises ValueError."""
        self._is_closed = True
        self._end(AgentGone("the client has been closed"))
        if self._reader is not None and self._reader is not asyncio.current_task():
            self._reader.cancel()
            with contextlib.suppress(asyncio.CancelledError):
                await self._reader

    @property
    def closed(self) -> bool:
        """Whether it has been closed."""
        return self._is_closed

    async def events(self, timeout: float | None = None) -> AsyncIterator[Event]:
        """The events that ``subscribe()`` asked for, one after the other as they come.

        Ends when none comes for that many seconds; None waits for ever.
        """
        while True:
            try:
                async with asyncio.timeout(None if timeout is None else max(timeout, _LEAST)):
                    while not self._events:
                        self._usable()
                        self._told.clear()
                        await self._told.wait()
            except TimeoutError:
                return
            yield self._events.popleft()

    async def _ask(self, hint: Any, op: str, /, **arguments: Any) -> Any:
        writer = self._usable()
        self._number += 1
        number = self._number
        line = request_line(number, op, arguments)
        self._waiting[number] = asyncio.get_running_loop().create_future()
        try:
            async with asyncio.timeout(self.timeout):
                writer.write(line)
                with contextlib.suppress(OSError):  # it has hung up, perhaps with an answer
                    await writer.drain()
                answer = await self._waiting[number]
        except TimeoutError:
            raise self._silence() from None
        finally:
            self._waiting.pop(number).cancel()
        try:
            return make(hint, result_of(answer))
        except AgentProtocolError as error:
            self._end(error)
            raise

    async def _read(self, reader: asyncio.StreamReader) -> None:
        try:
            while True:
                self._take(await reader.readuntil(b"\n"))
        except asyncio.IncompleteReadError:
            self._end(AgentGone("the agent has hung up"))
        except asyncio.LimitOverrunError:
            self._end(senseless(f"a line has no end within {LONGEST_ANSWER} bytes"))
        except OSError as error:
            self._end(AgentGone(f"the agent has hung up: {error}"))
        except AgentError as error:
            self._end(error)

    def _take(self, line: bytes) -> None:
        answer = parsed(line)
        if "event" in answer:
            self._events.append(event_of(answer))
            self._told.set()
            if len(self._events) > MOST_EVENTS:
                raise AgentError(_TOO_MANY)
            return
        number = answer.get("id")
        if type(number) is not int or number not in self._waiting:
            if not _is_answer(answer, self._number + 1) or not self._waiting:
                return
            number = min(self._waiting)  # (what has no number is about what was asked first)
        if not self._waiting[number].done():
            self._waiting[number].set_result(answer)

    def _usable(self) -> asyncio.StreamWriter:
        if self._is_closed or self._writer is None:
            raise ValueError("the agent's client is closed, or not connected yet")
        if self._failure is not None:
            raise AgentGone(f"the connection has ended: {self._failure}")
        return self._writer

    def _end(self, error: AgentError) -> None:
        """Nothing more can be asked; whoever waits is told."""
        if self._failure is None:
            self._failure = error
        for waiting in self._waiting.values():
            if not waiting.done():
                waiting.set_exception(type(error)(*error.args))
        self._told.set()
        if self._writer is not None:
            self._writer.transport.abort()

    def _silence(self) -> AgentTimeout:
        return AgentTimeout(f"the agent at {self._path} does not answer within {self.timeout} s")

    async def __aenter__(self) -> AsyncAgent:
        return await self.connect()

    async def __aexit__(self, *_: object) -> None:
        await self.close()

    def __repr__(self) -> str:
        return f"<{'closed ' if self.closed else ''}agent at {self._path}>"


class _Over(Exception):
    """The time is over."""


class _Deadline:
    def __init__(self, timeout: float | None) -> None:
        self._end = None if timeout is None else time.monotonic() + max(timeout, _LEAST)

    def left(self) -> float | None:
        """The seconds that are left, None for any number. Raises _Over."""
        if self._end is None:
            return None
        left = self._end - time.monotonic()
        if left <= 0:
            raise _Over
        return left


def _unreachable(path: str, error: OSError) -> AgentGone:
    if isinstance(error, (FileNotFoundError, ConnectionRefusedError)):
        return AgentGone(f"no agent listens at {path}; start korud, or name its socket")
    return AgentGone(f"cannot reach the agent at {path}: {error.strerror or error}")


def _is_answer(answer: dict[str, Any], number: int) -> bool:
    """Whether it is the answer to that request, or to none; False for one that came too late.

    Raises AgentProtocolError for an answer to what was never asked.
    """
    given = answer.get("id")
    if given == number or (given is None and answer.get("ok") is False):
        return True
    if type(given) is int and 0 < given < number:
        return False
    raise senseless("nobody asked for it")
