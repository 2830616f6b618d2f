"""Transports that are written in Python."""

import gc
import threading
import weakref

import pytest

from koruregfile import Device, Transport, TransportError


class Registers(Transport):
    """Registers in a dict, which do what a test wants besides."""

    def __init__(self, on_read=None, on_write=None):
        self.values = {}
        self.on_read = on_read
        self.on_write = on_write

    def read(self, address):
        if self.on_read:
            return self.on_read()
        return self.values.get(address, 0)

    def write(self, address, value):
        self.values[address] = value
        if self.on_write:
            self.on_write()


def raised(error):
    def raise_it():
        raise error
    return raise_it


def test_it_gets_the_numbers_of_the_map(power_map):
    transport = Registers()
    device = Device(power_map, transport=transport)
    device["LIMIT"] = 0x1234
    device["LIMIT[3:0]"] = 9
    assert transport.values == {1: 0x1239} and device["LIMIT"] == 0x1239
    assert "python" in repr(device)


@pytest.mark.parametrize("error, text, errno", [
    (ValueError("no such address"), "ValueError: no such address", None),
    (OSError(5, "the cable is out"), "the cable is out", 5),
    (BlockingIOError(11, "later"), "later", 11),
    (RuntimeError(), "RuntimeError", None),
    (RuntimeError("\udcff\0"), "RuntimeError", None),
    (StopIteration(), "StopIteration", None),
])
def test_what_it_raises_is_the_failure(power_map, error, text, errno):
    transport = Registers(raised(error), raised(error))
    device = Device(power_map, transport=transport)
    for access, attempt in [(lambda: device["LIMIT"], "read LIMIT"),
                            (lambda: device.write("LIMIT", 1), "write 0x1 to LIMIT")]:
        with pytest.raises(TransportError, match=f"cannot {attempt} over python") as caught:
            access()
        assert text in str(caught.value) and caught.value.errno == errno
        assert caught.value.__cause__ is error and caught.value.register == "LIMIT"
    transport.on_read = None
    assert device["LIMIT"] == 1


@pytest.mark.parametrize("answer", [None, "7", 7.0, -1, 0x10000, 1 << 80, [], True])
def test_what_it_returns_has_to_fit_the_register(power_map, answer):
    device = Device(power_map, transport=Registers(lambda: answer))
    if answer is True:
        assert device["LIMIT"] == 1
        return
    with pytest.raises(TransportError, match=r"read\(\) returned"):
        device["LIMIT"]


def test_ctrl_c_and_exits_go_through(power_map):
    for error in [KeyboardInterrupt, SystemExit]:
        device = Device(power_map, transport=Registers(raised(error())))
        with pytest.raises(error):
            device["LIMIT"]


def test_what_is_dropped_inside_it_is_there_until_it_returns(power_map):
    kept = []

    def drop():
        kept.pop().close()
        gc.collect()
        return 7

    transport = Registers(drop, drop)
    for access in [lambda device: device["LIMIT"], lambda device: device.write("LIMIT", 1),
                   lambda device: device.register("LIMIT[3:0]").read()]:
        device = Device(power_map, transport=transport)
        kept.append(device)
        assert access(device) in (7, None)
        with pytest.raises(ValueError, match="closed"):
            access(device)


def test_it_may_use_other_devices_itself_and_other_threads(power_map):
    inner = Device(power_map, memory=True)
    inner["LIMIT"] = 42
    read = []

    def elsewhere():
        thread = threading.Thread(target=lambda: read.append(inner["LIMIT"]))
        thread.start()
        thread.join()
        return inner["LIMIT"] + read.pop()

    assert Device(power_map, transport=Registers(elsewhere))["LIMIT"] == 84


def test_one_that_calls_itself_without_end_is_stopped(power_map):
    device = None
    device = Device(power_map, transport=Registers(lambda: device["LIMIT"]))
    with pytest.raises((TransportError, RecursionError)):
        device["LIMIT"]


def test_it_lives_as_long_as_its_device(power_map):
    transport = Registers()
    device, gone = Device(power_map, transport=transport), weakref.ref(transport)
    del transport
    gc.collect()
    assert gone() is not None and device["LIMIT"] == 0
    device.close()
    gc.collect()
    assert gone() is None


def test_one_that_has_its_own_device_is_collected_with_it(power_map):
    def made():
        transport = Registers()
        transport.device = Device(power_map, transport=transport)
        return transport

    transport = made()
    gone, handle = weakref.ref(transport), transport.device.register("LIMIT")
    del transport
    gc.collect()
    assert gone() is not None and handle.read() == 0  # the handle keeps all of it
    del handle
    gc.collect()
    assert gone() is None


def test_half_a_transport_is_none():
    class Half(Transport):
        def read(self, address):
            return 0

    with pytest.raises(TypeError, match="write"):
        Half()
