"""What the tests share: a map, the simulated board from outside, an agent."""

import os
import pathlib
import subprocess
import threading
import time

import pytest

import koruregfile

MAP = """number,name,type,writeable,width
0,CONTROL,cfg,true,16
1,LIMIT,cfg,true,16
2,ALERTS,sts,true,16
3,VOLTAGE,sts,false,16
"""

BOARD = """[[chip]]
name = "chip0"
register_map = "map.csv"
memory = "window0"
[chip.physical.CONTROL]
ENABLE = { bits = 0 }
RATE = { bits = "7:4", values = { slow = 1, fast = 9 } }
START = { bits = 15, kind = "pulse" }
[chip.physical.LIMIT]
LIMIT = { bits = "15:0", scale = 0.5, unit = "mA" }
[chip.status.VOLTAGE]
VALUE = { bits = "15:0", unit = "mV" }
[chip.logical.monitor]
enable = { to = "CONTROL.ENABLE", value = 1 }
rate = { to = "CONTROL.RATE", bits = "7:4", value = "slow" }
start = { to = "CONTROL.START", bits = 8 }
limit = { to = "LIMIT.LIMIT", bits = "31:16" }
"""


class Board:
    """The simulated board, as somebody beside it sees it."""

    def __call__(self, *arguments: str) -> str:
        command = ["korusim", "--state", os.environ["KORU_BOARD_STATE"], os.environ["KORU_BOARD"]]
        environment = {k: v for k, v in os.environ.items() if k != "LD_PRELOAD"}
        return subprocess.run([*command, *arguments], check=True, capture_output=True, text=True,
                              env=environment).stdout

    def get(self, chip: str, address: int) -> int:
        return int(self("--get", f"{chip}:{address:#x}").split()[-1], 16)


class Korud:
    """An agent on a state directory, until the test ends."""

    def __init__(self, directory: pathlib.Path) -> None:
        self.directory = directory
        self.socket = directory / "korud.sock"
        self._process = None

    def start(self) -> koruregfile.Agent:
        self._process = subprocess.Popen(
            ["korud", "--config", self.directory / "board.toml", "--state-dir", self.directory],
            stderr=subprocess.DEVNULL)
        return until(self._agent)

    def _agent(self):
        try:
            return koruregfile.Agent(self.socket)
        except koruregfile.AgentGone:
            return None

    def stop(self) -> None:
        if self._process:
            self._process.kill()
            self._process.wait()


def until(condition, seconds: float = 30):
    """Waits for what nothing tells of; returns it."""
    end = time.monotonic() + seconds
    while not (found := condition()):
        assert time.monotonic() < end, "waited in vain"
        time.sleep(0.01)
    return found


@pytest.fixture(scope="session")
def board() -> Board:
    return Board()


@pytest.fixture
def power_map(tmp_path) -> pathlib.Path:
    path = tmp_path / "map.csv"
    path.write_text(MAP)
    return path


@pytest.fixture
def korud(tmp_path, power_map):
    """An agent that is yet to be started."""
    tmp_path.chmod(0o750)
    (tmp_path / "board.toml").write_text(BOARD)
    agent = Korud(tmp_path)
    yield agent
    agent.stop()


@pytest.fixture
def agent(korud):
    with korud.start() as client:
        yield client


@pytest.fixture
def soon():
    """Calls something from another thread, a little later."""
    threads = []

    def begin(function, seconds: float = 0.2):
        threads.append(threading.Timer(seconds, function))
        threads[-1].start()

    yield begin
    for thread in threads:
        thread.join()
