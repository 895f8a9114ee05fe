#!/bin/sh
# Installs quarlo into a fresh prefix, builds examples/embed against the
# installed package, mines a few inputs at once with it and checks every
# result against the program's FILE.fp; also checks the installed man page
# and that the archive keeps its symbols inside namespace quarlo.
set -eu
export LC_ALL=C
top=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$top/build/release" --prefix "$work/prefix" > /dev/null
cmake -S "$top/examples/embed" -B "$work/embed" -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_PREFIX_PATH="$work/prefix" > /dev/null
# Run from make test, whose jobserver this build has no part in.
MAKEFLAGS= cmake --build "$work/embed" > /dev/null
mkdir "$work/data"
cp "$top/examples/groceries.txt" "$top/examples/groceries.supp" "$work/data/"
cp "$top/tests/data/cli/market.txt" "$top/tests/data/cli/market.supp" "$work/data/"
cp "$top/tests/data/pipeline/lattice.txt" "$top/tests/data/pipeline/lattice.supp" "$work/data/"
cd "$work/data"
"$work/embed/mine_example" groceries.txt groceries.supp market.txt market.supp \
  lattice.txt lattice.supp
for name in groceries market lattice; do
  "$work/prefix/bin/quarlo" -S "$name.supp" "$name.txt" > /dev/null
  # FILE.fp: id, support, percent, labels (each followed by a blank).
  awk '{ n = split("", l); for (i = 4; i <= NF; i++) l[++n] = $i;
         for (i = 2; i <= n; i++) for (j = i; j > 1 && (l[j-1] "") > (l[j] ""); j--) { t = l[j]; l[j] = l[j-1]; l[j-1] = t }
         s = l[1]; for (i = 2; i <= n; i++) s = s " " l[i]; print s "\t" $2 }' \
    "$name.txt.fp" | LC_ALL=C sort > want
  LC_ALL=C sort "$name.txt.embed.txt" > got
  if ! cmp -s want got; then
    echo "check-embed: $name differs from the program's result" >&2
    diff want got | head >&2
    exit 1
  fi
done
# The installed archive defines nothing outside namespace quarlo but what the
# C++ runtime and the standard library's templates bring.
outside=$(nm -C --defined-only "$work/prefix/lib/libquarlo.a" | awk '$2 ~ /^[TDBRVW]$/' |
  cut -d' ' -f3- | grep -v -e '^quarlo::' -e '^std::' -e '^void std::' -e '^bool std::' \
    -e '^__gnu_cxx::' -e '^DW\.ref\.' -e '^typeinfo for std::' -e '^typeinfo name for std::' \
    -e '^vtable for std::' -e '^vtable for quarlo::' -e '^typeinfo for quarlo::' \
    -e '^typeinfo name for quarlo::' -e '^non-virtual thunk to quarlo::' -e '^guard variable for quarlo::' || true)
if [ -n "$outside" ]; then
  echo "check-embed: the installed library defines symbols outside namespace quarlo:" >&2
  echo "$outside" | head -n 20 >&2
  exit 1
fi
page="$work/prefix/share/man/man1/quarlo.1"
MANWIDTH=80 man -l "$page" | grep -q "frequent itemsets"
if [ -n "$(groff -man -ww -z "$page" 2>&1)" ]; then
  echo "check-embed: groff warns about the installed man page" >&2
  exit 1
fi
echo "check-embed: installed program, library, CMake package and man page agree"

