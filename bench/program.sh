# Shared by the whole-program benchmarks (sourced from the repository root):
# builds the optimised program, makes a scratch folder removed at exit, and
# gives the median of the numbers on standard input.
quarlo=$PWD/build/release/quarlo
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build/release -j 2 --target quarlo >/dev/null
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
median() { sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
