"""Fixtures of the Python module's tests: the quarlo program to compare with,
and the package from the build when PYTHONPATH does not give it."""

import os
import subprocess
import sys
import tempfile
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]

try:
    import quarlo  # noqa: F401
except ImportError:
    sys.path.insert(0, str(ROOT / "build/python"))  # where make python puts it


@pytest.fixture(scope="session")
def program() -> Path:
    """The quarlo program: $QUARLO_BINARY, else the one make builds."""
    for candidate in (os.environ.get("QUARLO_BINARY"), ROOT / "build/release/quarlo"):
        if candidate and Path(candidate).is_file():
            return Path(candidate)
    pytest.fail("no quarlo program: run make first, or set QUARLO_BINARY")


@pytest.fixture
def run_program(program, tmp_path):
    """run(data, *args): the program on a copy of `data` in a directory of its
    own (a Path among the args is copied there too); the text of FILE.fp and
    FILE.pc ("" when not written)."""
    def run(data, *args):
        work = Path(tempfile.mkdtemp(dir=tmp_path))
        for path in (data, *[a for a in args if isinstance(a, Path)]):
            (work / path.name).write_bytes(path.read_bytes())
        argv = [program, *[a.name if isinstance(a, Path) else a for a in args], data.name]
        done = subprocess.run(argv, cwd=work, capture_output=True)
        assert done.returncode == 0, done.stderr
        text = {s: (work / (data.name + s)).read_bytes().decode("utf-8", "surrogateescape")
                if (work / (data.name + s)).exists() else "" for s in (".fp", ".pc")}
        return text[".fp"], text[".pc"]
    return run

