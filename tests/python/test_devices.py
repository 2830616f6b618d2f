"""Devices over simulated buses; the board, looked at from outside, is the witness."""

import fcntl
import os
import pickle
import signal
import subprocess
import sys
import threading
import time

import pytest

import koruregfile
from koruregfile import Device, RegisterMap, TransportError

POWER = "/dev/i2c-1:0x40"


@pytest.mark.parametrize("how", [
    {"i2c": f"{POWER},word"},
    {"i2c": f"{POWER},word-low-first"},
    {"relay": f"{POWER},value_bits=16,value_order=low-first"},
])
def test_what_is_written_is_on_the_board(board, power_map, how):
    board("--reset")
    with Device(power_map, **how) as device:
        assert (device["VOLTAGE"], device.read("LIMIT")) == (0x0CE4, 0x0800)
        device["CONTROL"] = 0x1234
        device.write("LIMIT", 0xFFFF)  # finds the bus busy at first
        assert (board.get("power", 0), board.get("power", 1)) == (0x1234, 0xFFFF)
        board("--set", "power:0=0x4321")
        assert device["CONTROL"] == 0x4321
        assert list(device) == ["CONTROL", "LIMIT", "ALERTS", "VOLTAGE"] and len(device) == 4
        assert "LIMIT" in device and "X" not in device


def test_spi_takes_writes_and_formats_read(board, tmp_path):
    path = tmp_path / "spi.csv"
    path.write_text("number,name,type,writeable,width\n1,WIDE,cfg,true,16\n")
    with Device(path, spi="/dev/spidev0.0") as dac:
        dac["WIDE"] = 0xBEEF
        assert board.get("dac", 1) == 0xBEEF
        with pytest.raises(TransportError, match="writes only") as caught:
            dac["WIDE"]
        assert caught.value.errno is None and caught.value.register == "WIDE"
    path.write_text("number,name,type,writeable,width\n2,BYTE,cfg,true,8\n")
    place = "/dev/spidev0.1,command_bits=8,read_command=0x0b,write_command=2,dummy_bits=8"
    with Device(path, spi=place) as flash:
        assert flash["BYTE"] == 0x5A
        flash["BYTE"] = 0xA5
        assert flash["BYTE"] == board.get("flash", 2) == 0xA5


def test_windows_of_memory_outlive_their_device_when_they_have_a_file(power_map):
    for how, expected in [({"memory": "window"}, 7), ({"memory": True}, 0)]:
        Device(power_map, **how)["LIMIT"] = 7
        assert Device(power_map, **how)["LIMIT"] == expected
    mapped = f"{koruregfile.state_directory()}/window"
    assert Device(power_map, pci=f"{mapped},value_bits=16")["LIMIT"] == 7


def test_handles_to_registers_and_bits(board, power_map):
    board("--reset")
    device = Device(RegisterMap(power_map), i2c=f"{POWER},word")
    control, rate = device.register("CONTROL"), device.register("CONTROL[7:4]")
    control.value = 0x0F0F
    rate.value = 9
    assert (control.value, rate.read(), board.get("power", 0)) == (0x0F9F, 9, 0x0F9F)
    device["CONTROL[0]"] = 0
    assert device["CONTROL[3:0]"] == 0xE
    assert (rate.name, rate.width, rate.address, rate.writeable) == ("CONTROL[7:4]", 4, 0, True)
    assert repr(rate) == f"<register CONTROL[7:4] of i2c {POWER},word>"
    assert repr(device) == f"<device i2c {POWER},word, map {power_map}>"
    del device  # the handle keeps it
    assert rate.device["CONTROL"] == rate.value << 4 | 0x0F0E


def test_nothing_works_behind_a_closed_device(power_map):
    with Device(power_map, memory=True) as device:
        handle = device.register("LIMIT")
    assert device.closed
    for use in [handle.read, lambda: handle.write(1), lambda: device["LIMIT"],
                lambda: list(device), lambda: device.register("LIMIT"), lambda: len(device),
                device.__enter__]:
        with pytest.raises(ValueError, match="closed"):
            use()
    device.close()
    assert repr(device).startswith("<closed device")


@pytest.mark.parametrize("arguments, error, text", [
    ({}, TypeError, "one way"),
    ({"memory": True, "mock": True}, TypeError, "one way"),
    ({"usb": "x"}, TypeError, "no transport 'usb'"),
    ({"i2c": True}, TypeError, "where"),
    ({"i2c": 3}, TypeError, ""),
    ({"mock": "x"}, TypeError, "no place"),
    ({"i2c": "x"}, ValueError, "no chip on a bus"),
    ({"i2c": "/dev/i2c-1:0x99"}, ValueError, "i2c"),
    ({"i2c": "/dev/i2c-1:0x40,speed=3"}, ValueError, "speed"),
    ({"transport": object()}, TypeError, "read"),
    ({"memory": True, "timeout": "x"}, TypeError, ""),
    ({"memory": True, "timeout": -1}, ValueError, "timeout"),
    ({"memory": True, "timeout": float("nan")}, ValueError, "timeout"),
    ({"i2c": "/dev/i2c-7:0x40"}, TransportError, "no such bus"),
    ({"pci": "/nowhere"}, TransportError, "/nowhere"),
])
def test_what_no_device_is_made_of(power_map, arguments, error, text):
    with pytest.raises(error, match=text):
        Device(power_map, **arguments)


@pytest.mark.parametrize("name, value, error", [
    ("LIMIT", 0x10000, ValueError),
    ("LIMIT", -1, ValueError),
    ("LIMIT", 1 << 80, ValueError),
    ("LIMIT", 1.0, TypeError),
    ("LIMIT", "1", TypeError),
    ("LIMIT", None, TypeError),
    ("VOLTAGE", 1, ValueError),
    ("LIMIT[7:4]", 16, ValueError),
    ("LIMIT[16]", 1, ValueError),
    ("LIMIT[4:7]", 1, ValueError),
    ("LIMIT[", 1, KeyError),
    ("X", 1, KeyError),
    ("", 1, KeyError),
    (3, 1, TypeError),
])
def test_what_cannot_be_written_touches_nothing(power_map, name, value, error):
    with Device(power_map, memory=True) as device:
        device["LIMIT"] = 5
        with pytest.raises(error):
            device[name] = value
        assert (device["LIMIT"], device["VOLTAGE"]) == (5, 0)
        device.write("VOLTAGE", 1, force=True)
        assert device["VOLTAGE"] == 1


def test_a_failure_has_its_reason(board, power_map):
    device = Device(power_map, i2c=f"{POWER},word")
    board("--unplug", "power")
    try:
        with pytest.raises(TransportError, match="cannot read LIMIT over i2c") as caught:
            device["LIMIT"]
    finally:
        board("--plug", "power")
    error = caught.value
    assert isinstance(error, OSError) and error.errno == 6 and error.register == "LIMIT"
    assert "nothing acknowledges" in str(error) and "No such device" in error.reason
    other = pickle.loads(pickle.dumps(error))
    assert (str(other), other.errno, other.reason, other.register) == (
        str(error), 6, error.reason, "LIMIT")
    assert device["LIMIT"] == board.get("power", 1)


def test_a_busy_bus_is_given_up_in_time_and_by_ctrl_c(power_map, soon):
    device = Device(power_map, i2c="/dev/i2c-1:0x41,word", timeout=0.1)
    with pytest.raises(TransportError) as caught:
        device["LIMIT"]
    assert caught.value.errno == 11
    device.timeout = None
    soon(lambda: os.kill(os.getpid(), signal.SIGINT))
    with pytest.raises(KeyboardInterrupt):
        device["LIMIT"]


def test_a_queue_behind_a_locked_bus_waits_and_lets_others_go_on(board, power_map, soon):
    relay = Device(power_map, relay=f"{POWER},word-low-first", timeout=None)
    memory = Device(power_map, memory=True)
    node = os.open("/dev/i2c-1", os.O_RDWR)
    fcntl.flock(node, fcntl.LOCK_EX)
    soon(lambda: os.kill(os.getpid(), signal.SIGINT))
    with pytest.raises(KeyboardInterrupt):
        relay["VOLTAGE"]
    relay.timeout = 0.1
    with pytest.raises(TransportError, match="in time") as caught:
        relay["VOLTAGE"]
    assert caught.value.errno == 110 and "check the address" not in str(caught.value)
    relay.timeout = None
    read = []
    waiting = threading.Thread(target=lambda: read.append(relay["VOLTAGE"]))
    waiting.start()
    begun = time.monotonic()
    for value in range(1000):
        memory["LIMIT"] = value
    assert memory["LIMIT"] == 999 and time.monotonic() - begun < 20 and not read
    os.close(node)
    waiting.join()
    assert read == [0x0CE4]


def test_closing_ends_no_access_that_is_under_way(power_map, soon):
    device = Device(power_map, i2c="/dev/i2c-1:0x41,word", timeout=1)
    soon(device.close)
    with pytest.raises(TransportError):
        device["LIMIT"]
    assert device.closed


def test_threads_that_wait_at_once_all_come_to_their_end(power_map):
    device = Device(power_map, relay=f"{POWER},word-low-first", timeout=5)
    handle = device.register("CONTROL[7:4]")
    failures = []

    def hammer(number):
        try:
            for _ in range(200):
                handle.value = number
                assert handle.value < 4
                Device(power_map, memory=True)["LIMIT"] = number
        except Exception as error:
            failures.append(error)

    threads = [threading.Thread(target=hammer, args=[number]) for number in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert not failures


def test_the_interpreter_ends_while_threads_wait(power_map):
    script = ("import fcntl, koruregfile, os, threading, time\n"
              "fcntl.flock(os.open('/dev/i2c-1', os.O_RDWR), fcntl.LOCK_EX)\n"
              "place = '/dev/i2c-1:0x41,word-low-first'\n"
              "for how in [{'i2c': place}, {'relay': place}]:\n"
              f"    device = koruregfile.Device({str(power_map)!r}, timeout=None, **how)\n"
              "    for _ in range(3):\n"
              "        threading.Thread(target=device.read, args=['LIMIT'], daemon=True).start()\n"
              "time.sleep(0.2)\n")
    ended = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True)
    assert (ended.returncode, ended.stderr) == (0, "")


def test_the_interpreter_ends_with_devices_left_open(power_map):
    script = ("import koruregfile, threading, sys\n"
              f"kept = koruregfile.Device({str(power_map)!r}, relay='{POWER},word-low-first')\n"
              "class Kept:\n"
              "    def read(self, address): return kept['VOLTAGE']\n"
              "    def write(self, address, value): pass\n"
              f"own = koruregfile.Device({str(power_map)!r}, transport=Kept())\n"
              "sys.stdout.write(hex(own['VOLTAGE']))\n")
    ended = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True)
    assert (ended.returncode, ended.stdout, ended.stderr) == (0, "0xce4", "")
