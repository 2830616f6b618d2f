"""Register maps: what they say, and what is said of those that are none."""

import pytest

import koruregfile
from koruregfile import RegisterMap, RegisterMapError, check_map

HEAD = "number,name,type,writeable,width\n"


def test_a_map_is_a_mapping_in_the_order_of_its_file(power_map):
    registers = RegisterMap.read(power_map)
    assert list(registers) == ["CONTROL", "LIMIT", "ALERTS", "VOLTAGE"]
    assert len(registers) == 4
    assert "LIMIT" in registers and "limit" not in registers and 1 not in registers
    assert registers.at(3) == registers["VOLTAGE"] != registers["LIMIT"]
    assert len({registers.at(3), registers["VOLTAGE"]}) == 1
    voltage = registers["VOLTAGE"]
    assert (voltage.name, voltage.number, voltage.type, voltage.writeable, voltage.width) == (
        "VOLTAGE", 3, "sts", False, 16)
    assert repr(voltage) == (
        "Register(name='VOLTAGE', number=0x3, type='sts', writeable=False, width=16)")
    assert repr(registers) == f"RegisterMap('{power_map}')" and registers.path == str(power_map)


def test_what_a_map_gave_outlives_it(power_map):
    registers = RegisterMap(power_map)
    names, limit = iter(registers), registers["LIMIT"]
    del registers
    assert [*names, limit.name] == ["CONTROL", "LIMIT", "ALERTS", "VOLTAGE", "LIMIT"]


@pytest.mark.parametrize("text, line, column, reason", [
    (HEAD + "0,A,cfg,true,32\nx,B,cfg,true,32\n", 3, 1, "address"),
    (HEAD + "0,A,cfg,true,33\n", 2, 14, "width"),
])
def test_a_map_that_is_refused_says_where(tmp_path, text, line, column, reason):
    path = tmp_path / "bad.csv"
    path.write_text(text)
    with pytest.raises(RegisterMapError) as caught:
        RegisterMap(path)
    error = caught.value
    assert (error.path, error.line, error.column) == (str(path), line, column)
    assert reason in error.reason.lower()
    assert str(error).startswith(f"{path}:{line}") and isinstance(error, koruregfile.KoruError)


@pytest.mark.parametrize("path, error", [
    ("/nowhere/map.csv", FileNotFoundError),
    ("/etc", RegisterMapError),
    ("a\0b", ValueError),
    (3, TypeError),
    (None, TypeError),
])
def test_what_cannot_be_opened_is_an_error_of_its_own(path, error):
    with pytest.raises(error):
        RegisterMap(path)


def test_look_ups_that_find_nothing(power_map):
    registers = RegisterMap(power_map)
    for wrong, error in [("x", KeyError), ("", KeyError), (3, TypeError), (None, TypeError)]:
        with pytest.raises(error):
            registers[wrong]
    for wrong, error in [(9, KeyError), (-1, ValueError), (1 << 40, ValueError), ("x", TypeError)]:
        with pytest.raises(error):
            registers.at(wrong)


def test_checking_lists_everything(tmp_path):
    path = tmp_path / "odd.csv"
    path.write_text(HEAD + "0,A,cfg,true,32\n0,B,cfg,true,32\nx,C,what,true,99\n")
    problems = check_map(path)
    assert {(each.line, each.severity) for each in problems} == {(3, "warning"), (4, "error"),
                                                                 (4, "warning")}
    assert str(problems[0]).startswith(f"{path}:3:") and all(each.text for each in problems)
    assert [each.line for each in check_map(tmp_path / "none.csv")] == [0]
