"""A simulated board of four chips with some 300 fields, an agent that keeps it, and its page."""

import os
import pathlib
import subprocess
import time

CHIPS = {"sensor": 0x48, "power": 0x40, "clock": 0x60, "drive": 0x20}
CHANNELS = 24
CONTROL, FAULTS, MEASURED = 0, 25, 26  # numbers of registers; the channels lie in between
HOSTILE = "<img src=x onerror=alert(1)></script><b>bold</b> \\u202e \\\" '"


def register_map() -> str:
    rows = ["number,name,type,writeable,width", f"{CONTROL},CONTROL,cfg,true,16"]
    rows += [f"{1 + i},CHANNEL{i},cfg,true,16" for i in range(CHANNELS)]
    rows += [f"{FAULTS},FAULTS,sts,false,16", f"{MEASURED},MEASURED,sts,false,16"]
    return "\n".join(rows) + "\n"


def chip(name: str, address: int, note: str) -> str:
    lines = [f'[[chip]]\nname = "{name}"\nregister_map = "map.csv"\nread_changes = ["FAULTS"]',
             f'i2c = "/dev/i2c-1:{address:#x},word-high-first"',
             "[chip.physical.CONTROL]",
             'ENABLE = { bits = 0, description = "Switches all channels on" }',
             'RATE = { bits = "5:4", values = { slow = 0, normal = 1, fast = 2 }, '
             'description = "How often channels are measured" }',
             f'NOTE = {{ bits = "15:8", description = "{note}" }}']
    for i in range(CHANNELS):
        lines += [f"[chip.physical.CHANNEL{i}]",
                  'GAIN = { bits = "15:14", values = { x1 = 0, x2 = 1, x4 = 2, x8 = 3 }, '
                  'description = "Amplifier in front of the converter" }',
                  'MODE = { bits = "13:12", values = { off = 0, single = 1, differential = 2 } }',
                  'LEVEL = { bits = "11:0", signed = true, scale = 0.25, unit = "mV", '
                  f'description = "Where channel {i} tells of too much" }}']
    lines += ["[chip.status.FAULTS]", 'SEEN = { bits = "15:0", description = "Is cleared when it is read" }',
              "[chip.status.MEASURED]",
              'VALUE = { bits = "15:4", signed = true, scale = 0.0625, unit = "°C", description = "As it is now" }',
              "[chip.logical.control]", 'enable = { to = "CONTROL.ENABLE", value = 1 }',
              'rate = { to = "CONTROL.RATE", value = "normal" }', 'note = { to = "CONTROL.NOTE" }']
    for i in range(CHANNELS):
        lines += [f"[chip.logical.channel{i}]",
                  f'gain = {{ to = "CHANNEL{i}.GAIN", value = {i % 4} }}',
                  f'mode = {{ to = "CHANNEL{i}.MODE", value = {i % 3} }}',
                  f'level = {{ to = "CHANNEL{i}.LEVEL", value = "{40 + 3 * i}.5 mV" }}']
    return "\n".join(lines) + "\n"


def simulated(name: str, address: int) -> str:
    return (f'[[chip]]\nname = "{name}"\ni2c = "/dev/i2c-1:{address:#x}"\nvalue_bits = 16\n'
            f"registers = [{{ at = 0, count = {MEASURED + 1} }}]\n")


class Board:
    """In a directory of its own; what it starts is ended with it."""

    def __init__(self, directory: pathlib.Path, note: str = HOSTILE) -> None:
        self.directory = directory
        directory.chmod(0o750)
        (directory / "map.csv").write_text(register_map())
        (directory / "korud.toml").write_text("".join(chip(*each, note) for each in CHIPS.items()))
        (directory / "board.toml").write_text("".join(simulated(*each) for each in CHIPS.items()))
        # (What simulates other boards for a test does not for these programs.)
        self.environment = {key: value for key, value in os.environ.items()
                            if key != "LD_PRELOAD" and not key.startswith("KORU")}
        self.environment["KORU_STATE_DIR"] = str(directory)
        self._started = []
        self._agent = None

    def run(self, *command: str) -> str:
        return subprocess.run(command, check=True, capture_output=True, text=True, cwd=self.directory,
                              env=self.environment, timeout=60).stdout

    def start(self, *command: str, **how) -> subprocess.Popen:
        process = subprocess.Popen(command, cwd=self.directory, env=self.environment, **how)
        self._started.append(process)
        return process

    def sim(self, *arguments: str) -> str:
        return self.run("korusim", "board.toml", *arguments)

    def register(self, name: str, number: int) -> int:
        return int(self.sim("--get", f"{name}:{number:#x}").split()[-1], 16)

    def start_agent(self) -> None:
        self._agent = self.start("korusim", "board.toml", "--", "korud", "--config", "korud.toml",
                                 stderr=subprocess.DEVNULL)
        end = time.monotonic() + 30
        while subprocess.run(["korureg", "chip", "show", "drive"], env=self.environment, check=False,
                             capture_output=True).returncode != 0:
            assert time.monotonic() < end, "korud does not get ready"
            time.sleep(0.05)

    def stop_agent(self) -> None:
        self._agent.kill()
        self._agent.wait()

    def start_page(self, *options: str) -> str:
        """Its address, with the token."""
        page = self.start("korureg", "web", "--listen", "127.0.0.1:0", *options,
                          stdout=subprocess.PIPE, text=True)
        return page.stdout.readline().strip()

    def end(self) -> None:
        for process in reversed(self._started):
            process.kill()
            process.wait()
