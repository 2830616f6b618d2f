"""Peers that are no agent, or a bad one: whatever they do, the clients end in time and say why."""

import asyncio
import json
import socket
import threading
import time

import pytest

from koruregfile import (Agent, AgentError, AgentGone, AgentProtocolError, AgentRefusal,
                         AgentTimeout, AsyncAgent, OtherEvent, protocol)


class Peer:
    """Listens, and does with each connection what it is told to."""

    def __init__(self, path, behaviour):
        self.path = str(path)
        self._behaviour = behaviour
        self._listening = socket.socket(socket.AF_UNIX)
        self._listening.bind(self.path)
        self._listening.listen()
        self._thread = threading.Thread(target=self._serve)
        self._thread.start()

    def _serve(self):
        while True:
            try:
                connection, _ = self._listening.accept()
            except OSError:
                return
            with connection:
                connection.settimeout(20)
                try:
                    self._behaviour(connection)
                except OSError:
                    pass  # the client has had enough

    def close(self):
        self._listening.shutdown(socket.SHUT_RDWR)
        self._listening.close()
        self._thread.join()


@pytest.fixture
def peer(tmp_path):
    peers = []

    def make(behaviour):
        peers.append(Peer(tmp_path / f"peer{len(peers)}", behaviour))
        return peers[-1].path

    yield make
    for each in peers:
        each.close()


def says(*lines: bytes):
    """Answers a request with that."""
    def behaviour(connection):
        connection.recv(65536)
        for line in lines:
            connection.sendall(line)
        connection.recv(1)
    return behaviour


def hangs_up(connection):
    connection.recv(65536)


def says_without_end(piece: bytes):
    def behaviour(connection):
        connection.recv(65536)
        while True:
            connection.sendall(piece)
    return behaviour


def drips(connection):
    connection.recv(65536)
    while True:
        connection.sendall(b" ")
        time.sleep(0.01)


def ok(result, **more) -> bytes:
    return json.dumps({"id": 1, "ok": True, "result": result, **more}).encode() + b"\n"


CHIP = {"name": "a", "state": "up"}
EVENT = b'{"event": "reset", "chip": "a", "reason": "b"}\n'

# What a client makes of it that asks for the chips.
PEERS = {
    "silent": (says(), AgentTimeout),
    "drips": (drips, AgentTimeout),
    "only events": (says_without_end(b'{"event": "new"}\n'), AgentError),
    "hangs up": (hangs_up, AgentGone),
    "half a line": (lambda c: (c.recv(100), c.sendall(b'{"id": 1, "ok": true')), AgentGone),
    "no end": (says_without_end(b"x" * 65536), AgentProtocolError),
    "no JSON": (says(b"hello\n"), AgentProtocolError),
    "an empty line": (says(b"\n"), AgentProtocolError),
    "no text": (says(b"\xff\xfe\n"), AgentProtocolError),
    "no object": (says(b"[]\n"), AgentProtocolError),
    "deep": (says(b"[" * 200000 + b"\n"), AgentProtocolError),
    "a long number": (says(b'{"id": 1' + b"1" * 10000 + b"}\n"), AgentProtocolError),
    "neither": (says(b'{"id": 1}\n'), AgentProtocolError),
    "ok is no word": (says(b'{"id": 1, "ok": 1, "result": []}\n'), AgentProtocolError),
    "no reason": (says(b'{"id": 1, "ok": false, "error": "x"}\n'), AgentProtocolError),
    "of nobody": (says(b'{"id": 7, "ok": true, "result": []}\n'), AgentProtocolError),
    "another id": (says(b'{"id": [1], "ok": true, "result": []}\n'), AgentProtocolError),
    "no id": (says(b'{"ok": true, "result": []}\n'), AgentProtocolError),
    "full": (says(b'{"ok": false, "error": {"kind": "refused", "message": "x"}}\n'), AgentRefusal),
    "no list": (says(ok({})), AgentProtocolError),
    "null": (says(ok(None)), AgentProtocolError),
    "no name": (says(ok([{"state": "up"}])), AgentProtocolError),
    "a wrong type": (says(ok([{**CHIP, "fields": "3"}])), AgentProtocolError),
    "a truth for a number": (says(ok([{**CHIP, "fields": True}])), AgentProtocolError),
    "a number is none": (says(ok([{**CHIP, "fields": None}])), AgentProtocolError),
    "a wrong event": (says(b'{"event": 3}\n'), AgentProtocolError),
    "half an event": (says(b'{"event": "field", "chip": "a"}\n'), AgentProtocolError),
}


@pytest.fixture(autouse=True)
def small_limits(monkeypatch):
    for module in (protocol, __import__("koruregfile.agent").agent):
        monkeypatch.setattr(module, "LONGEST_ANSWER", 1 << 20)
        monkeypatch.setattr(module, "MOST_EVENTS", 1000)


@pytest.mark.parametrize("name", PEERS)
def test_a_client_ends_in_time(peer, name):
    behaviour, error = PEERS[name]
    with Agent(peer(behaviour), timeout=0.3) as client:
        begun = time.monotonic()
        with pytest.raises(error) as caught:
            client.chips()
        assert time.monotonic() - begun < 10 and str(caught.value)
        if error in (AgentGone, AgentProtocolError):
            with pytest.raises(AgentGone, match="has ended"):
                client.chips()


@pytest.mark.parametrize("name", PEERS)
def test_so_does_one_of_asyncio(peer, name):
    behaviour, error = PEERS[name]

    async def main():
        async with AsyncAgent(peer(behaviour), timeout=0.3) as client:
            begun = time.monotonic()
            with pytest.raises(error) as caught:
                await client.chips()
            assert time.monotonic() - begun < 10 and str(caught.value)
            if error in (AgentGone, AgentProtocolError):
                with pytest.raises(AgentGone, match="has ended"):
                    await client.chips()

    asyncio.run(main())


def test_an_answer_that_comes_too_late_is_nobodys(peer):
    def behaviour(connection):
        connection.recv(65536)
        connection.recv(65536)
        connection.sendall(ok([]) + EVENT + ok([CHIP], id=2, news=1))
        connection.recv(1)

    with Agent(peer(behaviour), timeout=0.2) as client:
        with pytest.raises(AgentTimeout):
            client.chips()
        client.timeout = 10
        assert [each.name for each in client.chips()] == ["a"]
        assert [each.reason for each in client.events(0)] == ["b"]

    async def main():
        async with AsyncAgent(peer(behaviour), timeout=0.2) as client:
            with pytest.raises(AgentTimeout):
                await client.chips()
            client.timeout = 10
            assert [each.name for each in await client.chips()] == ["a"]

    asyncio.run(main())


def test_one_that_reads_nothing_is_given_up(peer):
    path = peer(lambda connection: time.sleep(2))
    with Agent(path, timeout=0.2) as client:
        with pytest.raises(AgentError):
            for _ in range(100):
                client.ask("x", fill="x" * 60000)

    async def main():
        async with AsyncAgent(path, timeout=0.2) as client:
            with pytest.raises(AgentError):
                await asyncio.gather(*(client.ask("x", fill="x" * 60000) for _ in range(100)))

    asyncio.run(main())


def test_events_of_a_kind_that_nobody_knows(peer):
    with Agent(peer(says(b'{"event": "new", "x": [1]}\n', ok([])))) as client:
        client.chips()
        assert list(client.events(0)) == [OtherEvent("new", {"x": [1]})]


@pytest.mark.parametrize("make", ["none", "a file", "a crowd", "a long path"])
def test_where_nobody_listens(tmp_path, make):
    path = tmp_path / "socket"
    crowd = socket.socket(socket.AF_UNIX)
    callers = []
    if make == "a file":
        path.write_text("")
    elif make == "a crowd":
        crowd.bind(str(path))
        crowd.listen(0)
        callers = [socket.socket(socket.AF_UNIX) for _ in range(3)]
        for each in callers:
            each.setblocking(False)
            each.connect_ex(str(path))
    elif make == "a long path":
        path = tmp_path / ("x" * 200)
    error = AgentTimeout if make == "a crowd" else AgentGone
    with pytest.raises(error, match=str(path)):
        Agent(path, timeout=0.2)
    with pytest.raises(error, match=str(path)):
        asyncio.run(AsyncAgent(path, timeout=0.2).connect())
    for each in [crowd, *callers]:
        each.close()
