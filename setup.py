"""Builds the extension module quarlo._quarlo for pip through the project's
CMake build (the QUARLO_PYTHON option), so the package and `make python`
compile the same sources with the same flags. The version is the library's,
read from the project() line of CMakeLists.txt. See pyproject.toml."""

import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = Path(__file__).resolve().parent


def library_version() -> str:
    found = re.search(r"project\(quarlo VERSION (\d+\.\d+\.\d+)", (ROOT / "CMakeLists.txt").read_text())
    if not found:
        raise RuntimeError("CMakeLists.txt names no version of quarlo")
    return found.group(1)


class CMakeBuild(build_ext):
    """Configures and builds the target quarlo_python into the directory
    that receives the package."""

    def copy_from_tree(self, jobs, target):
        """With $QUARLO_CMAKE_BUILD_DIR naming a CMake tree made from this
        source with the module configured for this interpreter (the test suite
        points it at the optimised tree, so that the library is not compiled
        once more to check the pip install), builds the module there and
        copies it to `target`. False, with nothing done, otherwise."""
        named = os.environ.get("QUARLO_CMAKE_BUILD_DIR")
        cache = Path(named or "-") / "CMakeCache.txt"
        if not named or not cache.is_file():
            return False
        # Entries read "NAME:TYPE=VALUE"; a variable given on the command line
        # without a type stays UNINITIALIZED, so only names are compared.
        entries = {}
        for line in cache.read_text().splitlines():
            if "=" in line and not line.startswith(("#", "//")):
                key, value = line.split("=", 1)
                entries[key.split(":", 1)[0]] = value
        python = Path(entries.get("Python_EXECUTABLE", "-")).resolve()
        if (entries.get("CMAKE_HOME_DIRECTORY") != str(ROOT)
                or entries.get("QUARLO_PYTHON") != "ON" or python != Path(sys.executable).resolve()):
            return False
        subprocess.run(["cmake", "--build", named, "--target", "quarlo_python", "-j", jobs], check=True)
        built = Path(entries["QUARLO_PYTHON_DIR"]) / "quarlo" / target.name
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(built, target)
        return True

    def build_extension(self, ext):
        import pybind11

        jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", "2")
        if self.copy_from_tree(jobs, Path(self.get_ext_fullpath(ext.name))):
            return
        package_root = Path(self.get_ext_fullpath(ext.name)).resolve().parent.parent
        build_dir = Path(self.build_temp).resolve() / "cmake"
        subprocess.run(["cmake", "-S", str(ROOT), "-B", str(build_dir), "-DCMAKE_BUILD_TYPE=Release",
                        "-DQUARLO_PYTHON=ON", f"-DPython_EXECUTABLE={sys.executable}",
                        f"-Dpybind11_DIR={pybind11.get_cmake_dir()}",
                        f"-DQUARLO_PYTHON_DIR={package_root}"], check=True)
        subprocess.run(["cmake", "--build", str(build_dir), "--target", "quarlo_python", "-j", jobs],
                       check=True)


setup(version=library_version(), ext_modules=[Extension("quarlo._quarlo", sources=[])],
      cmdclass={"build_ext": CMakeBuild})
