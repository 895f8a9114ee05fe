#!/bin/sh
# Installs the Python package with pip into a fresh virtual environment that
# sees Debian's site packages (no download: Debian's pip, setuptools and
# pybind11), then checks from outside the tree, without PYTHONPATH, that it
# imports and mines, that pip's version is the library's, that the docstring
# examples run, and that pip uninstall leaves no file of it behind.
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# Debian's pip, seen through the system site packages, installs into the
# environment it runs in: the environment needs no pip of its own.
/usr/bin/python3 -m venv --without-pip --system-site-packages "$work/venv"
python="$work/venv/bin/python"
pip() { "$python" -m pip "$@"; }
# The module comes from the optimised tree when make has built it there
# (setup.py builds it anew otherwise).
touch "$work/before-install"
(cd "$top" && QUARLO_CMAKE_BUILD_DIR="$top/build/release" \
  pip install -q --no-build-isolation --no-index .)
if [ -f "$top/build/release/CMakeCache.txt" ] &&
   [ -n "$(find "$top/build" -path '*/temp.*/cmake/CMakeCache.txt' -newer "$work/before-install")" ]; then
  echo "check-pip: pip compiled the library again instead of taking the module from build/release" >&2
  exit 1
fi
cd "$work"
site=$("$python" -c 'import sysconfig; print(sysconfig.get_paths()["purelib"])')
version=$(env -u PYTHONPATH "$python" -c '
import doctest, quarlo
assert quarlo.__file__.startswith("'"$site"'/quarlo/"), quarlo.__file__
assert doctest.testmod(quarlo).failed == 0
assert len(quarlo.rules([["a", "b"], ["a", "b"], ["b"]], 1)) == 1
print(quarlo.__version__)')
pip_version=$(pip show quarlo | sed -n 's/^Version: //p')
if [ "$version" != "$pip_version" ]; then
  echo "check-pip: pip says $pip_version, the library $version" >&2
  exit 1
fi
pip uninstall -q -y quarlo
left=$(ls -d "$site"/quarlo* 2>/dev/null || true)
if [ -n "$left" ]; then
  echo "check-pip: pip uninstall left $left" >&2
  exit 1
fi
if env -u PYTHONPATH "$python" -c 'import quarlo' 2>/dev/null; then
  echo "check-pip: quarlo still imports after pip uninstall" >&2
  exit 1
fi
echo "check-pip: pip installs quarlo $version, it imports and mines, and pip uninstall removes it"
