"""Fixtures of the Python module's tests: the quarlo program to compare with,
and the package itself from the build when PYTHONPATH does not give it."""

import os
import subprocess
import sys
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]

try:
    import quarlo  # noqa: F401
except ImportError:
    sys.path.insert(0, str(ROOT / "build" / "python"))  # where make python puts it


@pytest.fixture(scope="session")
def program() -> Path:
    """The quarlo program: $QUARLO_BINARY, else the one make builds."""
    for candidate in (os.environ.get("QUARLO_BINARY"), ROOT / "build/release/quarlo",
                      ROOT / "build/py-cmake/quarlo"):
        if candidate and Path(candidate).is_file():
            return Path(candidate)
    pytest.fail("no quarlo program: run make first, or set QUARLO_BINARY")


@pytest.fixture
def run_program(program, tmp_path):
    """Runs the program on a copy of `data` in a fresh directory with `args`
    (a support-table file given as the Path after -S is copied beside it).
    Returns the text of FILE.fp and of FILE.pc ("" when not written)."""
    counter = iter(range(1000))

    def run(data: Path, *args):
        work = tmp_path / f"run{next(counter)}"
        work.mkdir()
        argv = [str(program)]
        for arg in args:
            if isinstance(arg, Path):
                (work / arg.name).write_bytes(arg.read_bytes())
                arg = arg.name
            argv.append(str(arg))
        (work / data.name).write_bytes(data.read_bytes())
        argv.append(data.name)
        done = subprocess.run(argv, cwd=work, capture_output=True)
        assert done.returncode == 0, done.stderr
        pc = work / (data.name + ".pc")
        return ((work / (data.name + ".fp")).read_bytes().decode("utf-8", "surrogateescape"),
                pc.read_bytes().decode("utf-8", "surrogateescape") if pc.exists() else "")

    return run
