"""Tables, while an agent writes them and after it."""

import os
import signal

import pytest

from koruregfile import Change, DamagedTableError, FieldKey, Table, TableError

PATH = "KoruRegFile/shadowFieldsStatus/chip0"
RATE = FieldKey(0, 4, 4)


@pytest.fixture
def table(korud, agent):
    with Table(PATH, state_directory=korud.directory) as table:
        yield table


def test_a_table_is_a_live_mapping(table, agent):
    expected = {(0, 0, 1): 1, (0, 4, 4): 1, (0, 15, 1): 0, (4, 0, 16): 0}
    assert dict(table) == table.snapshot() == expected and list(table) == sorted(expected)
    assert (len(table), table.status, table.path) == (4, "attached", PATH)
    assert table.type == "KoruRegFile::ShadowFieldsStatus" and table.generation >= 1
    agent.write_field("chip0", "monitor", "rate", "fast")
    assert table[RATE] == table[0, 4, 4] == 9
    assert RATE in table and (0, 5, 4) not in table and table.get((9, 9, 9)) is None
    assert repr(RATE) == "FieldKey(address=0x0, start=4, size=4)"
    assert repr(table) == f"<table {PATH}>"


def test_changes_are_waited_for(table, agent, soon):
    assert table.wait(0) == []
    agent.write_field("chip0", "monitor", "rate", 2)
    agent.write_field("chip0", "monitor", "rate", 3)
    assert table.wait(5) == [Change(RATE, 1, 3)]
    soon(lambda: agent.write_fields("chip0", {("monitor", "rate"): 4, ("monitor", "enable"): 0}))
    told = {change.key: (change.before, change.now) for change in table.changes(1)}
    assert told == {RATE: (3, 4), (0, 0, 1): (1, 0)}


def test_a_wait_ends_by_ctrl_c_and_by_close(table, soon):
    soon(lambda: os.kill(os.getpid(), signal.SIGINT))
    with pytest.raises(KeyboardInterrupt):
        table.wait()
    soon(table.close)
    with pytest.raises(ValueError, match="closed"):
        table.wait()


def test_a_writer_goes_and_comes_back(table, korud):
    korud.stop()
    assert table.wait(0.1) == [] and table.status == "detached" and table[RATE] == 1
    with korud.start() as agent:
        agent.write_field("chip0", "monitor", "rate", 7)
        assert Change(RATE, 1, 7) in table.wait(10)
        assert table.status == "attached"


def test_damage_is_told_and_never_a_value(table, korud):
    korud.stop()
    with open(korud.directory / PATH, "r+b") as file:
        sound = file.read()
        file.seek(64)
        file.write(bytes(byte ^ 0x55 for byte in sound[64:]))
    for look in [lambda: table[RATE], table.snapshot, lambda: list(table), lambda: table.wait(0),
                 lambda: Table(PATH, state_directory=korud.directory)]:
        with pytest.raises(DamagedTableError, match="chip0") as caught:
            look()
        assert caught.value.path == PATH and caught.value.reason


def test_a_file_that_is_cut_short_takes_nobody_along(table, korud):
    korud.stop()
    os.truncate(korud.directory / PATH, 4096)
    with pytest.raises(DamagedTableError):
        table.snapshot()
        table.wait(0)
    os.truncate(korud.directory / PATH, 10)
    with pytest.raises(TableError):
        Table(PATH, state_directory=korud.directory)


@pytest.mark.parametrize("path, error", [
    ("KoruRegFile/none", FileNotFoundError),
    ("", ValueError),
    ("/etc/passwd", ValueError),
    ("../x", ValueError),
    ("a\0b", ValueError),
    (3, TypeError),
])
def test_what_is_no_table(tmp_path, path, error):
    with pytest.raises(error):
        Table(path, state_directory=tmp_path)


@pytest.mark.parametrize("key, error", [
    (0, TypeError), ((0, 0), TypeError), (("a", 0, 1), TypeError), ((-1, 0, 1), ValueError),
    ((1 << 32, 0, 1), ValueError), ((0, 0, 256), ValueError), ((0, 200, 1), KeyError),
])
def test_what_is_no_key(table, key, error):
    with pytest.raises(error):
        table[key]


def test_timeouts_that_are_none_and_use_after_close(table):
    for wrong, error in [("x", TypeError), (-1, ValueError), (float("nan"), ValueError)]:
        with pytest.raises(error):
            table.wait(wrong)
    table.close()
    for use in [lambda: table[RATE], lambda: len(table), lambda: table.status, table.snapshot,
                lambda: table.wait(0)]:
        with pytest.raises(ValueError, match="closed"):
            use()
    assert repr(table).startswith("<closed")
