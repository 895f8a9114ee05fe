#!/bin/sh
# Makes sure the build's tools are present: g++, cmake and make, plus
# GoogleTest and the man page tools when called with "test", clang 14 and its
# libFuzzer and sanitizer runtimes when called with "fuzz". As root, missing Debian packages are
# installed with apt-get; otherwise the script names them and fails.
missing=""
command -v g++ >/dev/null 2>&1 || missing="$missing g++"
command -v cmake >/dev/null 2>&1 || missing="$missing cmake"
command -v make >/dev/null 2>&1 || missing="$missing make"
if [ "${1:-build}" = "test" ]; then
  [ -f /usr/include/gtest/gtest.h ] || missing="$missing libgtest-dev"
  command -v groff >/dev/null 2>&1 || missing="$missing groff-base"
  command -v man >/dev/null 2>&1 || missing="$missing man-db"
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
