"""run.py BUILD TEST...: runs files of tests by pytest, on a simulated board of their own."""

import os
import pathlib
import subprocess
import sys
import tempfile

NO_TESTS = 5  # pytest's word for it; a whole file may be skipped

here = pathlib.Path(__file__).parent


def main() -> int:
    build, *tests = sys.argv[1:]
    try:
        import pytest  # noqa: F401
    except ImportError:
        print("pytest is not installed")
        return 77
    with tempfile.TemporaryDirectory(prefix="koru-python-") as directory:
        environment = dict(
            os.environ,
            PATH=f"{build}/bin:{os.environ['PATH']}",
            PYTHONPATH=f"{build}/python",
            PYTHONDONTWRITEBYTECODE="1",
            KORU_BUILD=build,
            KORU_TREE=str(here.parents[1]),
            KORU_BOARD=str(here / "board.toml"),
            KORU_BOARD_STATE=f"{directory}/board",
            KORU_STATE_DIR=f"{directory}/state")
        os.mkdir(environment["KORU_STATE_DIR"], 0o750)
        command = [f"{build}/bin/korusim", "--state", environment["KORU_BOARD_STATE"],
                   environment["KORU_BOARD"], "--", sys.executable, "-m", "pytest", "-q", "-rs",
                   "-p", "no:cacheprovider", "--rootdir", str(here), *tests]
        code = subprocess.run(command, env=environment, check=False).returncode
        return 77 if code == NO_TESTS else code


sys.exit(main())
