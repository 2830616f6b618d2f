"""The package as it is installed, its types and its documentation."""

import ast
import base64
import hashlib
import inspect
import os
import pathlib
import subprocess
import sys
import zipfile

import pytest

import koruregfile
from koruregfile import _core, agent

PACKAGE = pathlib.Path(koruregfile.__file__).parent

# Prints the version, as the module and as the package's description have it, and reads a map.
CONSUMER = """
import importlib.metadata, sys, koruregfile
print(koruregfile.__version__, importlib.metadata.version('koruregfile'), koruregfile.__file__)
print(len(koruregfile.RegisterMap(sys.argv[1])))
"""


def run(*command: str, **environment: str) -> str:
    clean = {name: value for name, value in os.environ.items() if name != "LD_PRELOAD"}
    return subprocess.run(list(map(str, command)), env=clean | environment, check=True,
                          capture_output=True, text=True).stdout


def consumed(folder: pathlib.Path, power_map: pathlib.Path) -> None:
    """Whether a Python finds the package in that folder, and the libraries from there."""
    version, described, place, size = run(sys.executable, "-c", CONSUMER, power_map,
                                          PYTHONPATH=str(folder)).split()
    assert version == described == koruregfile.__version__ and size == "4"
    assert pathlib.Path(place).parent == folder / "koruregfile"


def test_what_is_installed_works_wherever_it_is_moved(tmp_path, power_map):
    run("cmake", "--install", os.environ["KORU_BUILD"], "--prefix", tmp_path / "elsewhere")
    (tmp_path / "elsewhere").rename(tmp_path / "prefix")
    folder = tmp_path / "prefix" / "lib" / "python3" / "dist-packages"
    consumed(folder, power_map)
    assert (folder / "koruregfile" / "py.typed").exists()
    assert {path.name for path in folder.glob("*.dist-info/*")} >= {"METADATA", "INSTALLER"}


def test_a_wheel_has_all_it_needs_and_says_so(tmp_path, power_map):
    script = f"{os.environ['KORU_TREE']}/scripts/wheel"
    wheel = run(sys.executable, script, os.environ["KORU_BUILD"]).strip()
    folder = tmp_path / "site"
    with zipfile.ZipFile(wheel) as archive:
        names = archive.namelist()
        archive.extractall(folder)
    consumed(folder, power_map)
    listed = {}
    for line in next(folder.glob("*.dist-info/RECORD")).read_text().splitlines():
        name, digest, _ = line.split(",")
        listed[name] = digest
    assert set(listed) == set(names) and len(names) == len(set(names))
    for name, digest in listed.items():
        if digest:
            content = hashlib.sha256((folder / name).read_bytes()).digest()
            assert digest == "sha256=" + base64.urlsafe_b64encode(content).decode().rstrip("=")


def signatures(stub: ast.Module) -> dict[str, dict[str, list[str] | None]]:
    """The classes of a stub: their members, with the parameters of those that are methods."""
    found = {}
    for each in stub.body:
        if not isinstance(each, ast.ClassDef) or each.name.startswith("_"):
            continue
        members = found[each.name] = {}
        for member in each.body:
            if isinstance(member, ast.AnnAssign):
                members[member.target.id] = None
            elif any(getattr(mark, "id", "") == "property" for mark in member.decorator_list):
                members[member.name] = None
            else:
                arguments = member.args
                members[member.name] = [argument.arg for argument in (
                    *arguments.posonlyargs, *arguments.args, *arguments.kwonlyargs)]
    return found


@pytest.mark.parametrize("module, name", [(_core, "_core"), (agent, "agent")])
def test_stubs_say_what_there_is(module, name):
    told = signatures(ast.parse((PACKAGE / f"{name}.pyi").read_text()))
    for cls, members in told.items():
        actual = getattr(module, cls)
        for member, parameters in members.items():
            assert hasattr(actual, member) or member == "timeout", f"{cls}.{member}"
            if parameters is not None and name == "agent":
                given = inspect.signature(getattr(actual, member)).parameters.values()
                assert parameters == [each.name for each in given if each.kind not in (
                    each.VAR_POSITIONAL, each.VAR_KEYWORD)], f"{cls}.{member}"
        public = {each for each in dir(actual) if not each.startswith("_")}
        assert public <= set(members), f"{cls} has no types for {public - set(members)}"


def test_everything_has_documentation():
    for name in koruregfile.__all__:
        thing = getattr(koruregfile, name)
        if not inspect.isclass(thing) or thing is koruregfile.Event:
            continue
        assert thing.__doc__ and thing.__doc__.strip(), name
        for member, value in vars(thing).items():
            if not member.startswith("_") and (callable(value) or isinstance(value, property)):
                assert value.__doc__, f"{name}.{member}"
                assert "::" not in value.__doc__ or thing is koruregfile.Table, f"{name}.{member}"
