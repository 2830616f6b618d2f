"""docs/Python.md, typed in from top to bottom: it prints what it says it prints."""

import contextlib
import io
import os
import pathlib
import re
import shutil
import subprocess
import sys

TREE = pathlib.Path(os.environ["KORU_TREE"])
MANUAL = TREE / "docs" / "Python.md"

BLOCK = re.compile(r"^```(\w*)\n(.*?)^```$", re.MULTILINE | re.DOTALL)


def typed_in(text: str) -> str:
    """The document, with what its blocks print in the place of what they are said to print."""
    names = {"__name__": "__main__"}
    printed = ""

    def replaced(block: re.Match) -> str:
        nonlocal printed
        kind, content = block.groups()
        if kind == "python":
            assert not printed, f"what is printed before line {line_of(block)} is not shown"
            output = io.StringIO()
            with contextlib.redirect_stdout(output):
                code = "\n" * (line_of(block)) + content
                exec(compile(code, MANUAL, "exec"), names)
            printed = output.getvalue()
        elif kind == "text":
            content, printed = printed, ""
        return f"```{kind}\n{content}```"

    def line_of(block: re.Match) -> int:
        return text.count("\n", 0, block.start()) + 1

    result = BLOCK.sub(replaced, text)
    assert not printed, "what is printed last is not shown"
    return result


def test_the_manual_prints_what_it_says(tmp_path):
    for file in (TREE / "examples" / "simulator").iterdir():
        shutil.copy(file, tmp_path)
    environment = {name: value for name, value in os.environ.items() if name != "LD_PRELOAD"}
    state = tmp_path / "state"
    state.mkdir(0o750)
    environment["KORU_STATE_DIR"] = str(state)
    ended = subprocess.run(
        ["korusim", "board.toml", "--", sys.executable, __file__], cwd=tmp_path, env=environment,
        capture_output=True, text=True, check=False)
    assert ended.returncode == 0, ended.stderr
    assert ended.stdout == MANUAL.read_text()


# What it prints may be put into the document, once it was read.
if __name__ == "__main__":
    sys.stdout.write(typed_in(MANUAL.read_text()))
