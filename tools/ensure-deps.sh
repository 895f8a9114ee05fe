#!/bin/sh
# Makes sure the build's tools are present: g++, cmake and make, plus
# GoogleTest, the man page tools and the Python module's packages when called
# with "test", the Python module's packages alone with "python", clang 14 and
# its libFuzzer and sanitizer runtimes with "fuzz". As root, missing Debian
# packages are installed with apt-get; otherwise the script names them and fails.
missing=""
command -v g++ >/dev/null 2>&1 || missing="$missing g++"
command -v cmake >/dev/null 2>&1 || missing="$missing cmake"
command -v make >/dev/null 2>&1 || missing="$missing make"
if [ "${1:-build}" = "test" ]; then
  [ -f /usr/include/gtest/gtest.h ] || missing="$missing libgtest-dev"
  command -v groff >/dev/null 2>&1 || missing="$missing groff-base"
  command -v man >/dev/null 2>&1 || missing="$missing man-db"
  # The package's pip install, in a virtual environment.
  /usr/bin/python3 -c 'import ensurepip, setuptools' >/dev/null 2>&1 || missing="$missing python3-venv python3-setuptools"
  /usr/bin/python3 -m pip --version >/dev/null 2>&1 || missing="$missing python3-pip"
fi
if [ "${1:-build}" = "test" ] || [ "${1:-build}" = "python" ]; then
  # The module is built for and tested with Debian's interpreter.
  /usr/bin/python3 -c 'import pybind11, pandas, numpy, pytest, dask, distributed' >/dev/null 2>&1 ||
    missing="$missing python3-pybind11 python3-pandas python3-numpy python3-pytest python3-dask python3-distributed"
  [ -f /usr/lib/cmake/pybind11/pybind11Config.cmake ] || missing="$missing pybind11-dev"
  ls /usr/include/python3*/Python.h >/dev/null 2>&1 || missing="$missing python3-dev"
fi
if [ "${1:-build}" = "fuzz" ]; then
  command -v clang++-14 >/dev/null 2>&1 || missing="$missing clang-14"
  ls /usr/lib/llvm-14/lib/clang/*/lib/linux/libclang_rt.fuzzer-*.a >/dev/null 2>&1 ||
    missing="$missing libclang-rt-14-dev"
fi
[ -n "$missing" ] || exit 0
if [ "$(id -u)" = "0" ] && command -v apt-get >/dev/null 2>&1; then
  echo "quarlo: installing$missing"
  apt-get update -q && DEBIAN_FRONTEND=noninteractive apt-get install -y -q $missing && exit 0
  echo "quarlo: apt-get could not install$missing" >&2
  exit 1
fi
echo "quarlo: missing Debian package(s):$missing; install them (apt-get install$missing) and run make again" >&2
exit 1
