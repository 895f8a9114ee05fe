#!/usr/bin/env bash
# What -x costs: the parent-children list and the maximal pruning on the shared
# chess and mushroom data, against the mining time of the same run.
#
#   bench/lattice.sh [RUNS]     (default 5 runs per row, medians printed)
#
# Per row, RUNS alternating runs of "quarlo ARGS FILE" and "quarlo ARGS -x
# FILE" give the wall time of both, the mining time ("Generating Frequent
# Pattern File") and the two post-processing times the -x run reports. Then the
# post-processing alone runs on that row's pattern file through
# bench/lattice_bench.cpp for its peak resident size. Nothing is written inside
# the repository except the build tree build/bench-post.
set -euo pipefail
cd "$(dirname "$0")/.."

runs=${1:-5}
build=build/bench-post
data=../shared/data
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j 2 --target quarlo_lib quarlo_cli quarlo >/dev/null
g++ -std=c++20 -O2 -Wall -Wextra -Iinclude -Isrc -I. bench/lattice_bench.cpp \
  "$build/libquarlo_cli.a" "$build/libquarlo.a" -lpthread -o "$build/lattice_bench"
bin=$PWD/$build/quarlo
driver=$PWD/$build/lattice_bench
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# A length-decreasing table for chess: long patterns need less support, so
# their shorter subsets are often not frequent and parents lie levels down.
printf '1 80\n4 72\n8 64\n12 58\n' >"$work/chess.supp"

median() { sort -n | awk '{v[NR] = $1} END {print v[int((NR + 1) / 2)]}'; }
seconds() { grep "$1" "$2" | awk '{print $(NF - 1)}'; }
now() { date +%s.%N; }

# row NAME DATAFILE ARGS...: one line of the table.
row() {
  local name=$1 file=$2
  shift 2
  cp "$data/$file" "$work/$file"
  : >"$work/plain.t"; : >"$work/x.t"; : >"$work/mine.t"; : >"$work/pc.t"; : >"$work/prune.t"
  for _ in $(seq "$runs"); do
    local t0 t1
    t0=$(now); (cd "$work" && "$bin" "$@" "$file" >plain.out); t1=$(now)
    awk -v a="$t0" -v b="$t1" 'BEGIN {print b - a}' >>"$work/plain.t"
    seconds "Generating Frequent Pattern File" "$work/plain.out" >>"$work/mine.t"
    t0=$(now); (cd "$work" && "$bin" "$@" -x "$file" >x.out); t1=$(now)
    awk -v a="$t0" -v b="$t1" 'BEGIN {print b - a}' >>"$work/x.t"
    seconds "Generating PC List File" "$work/x.out" >>"$work/pc.t"
    seconds "Pruning Non-Maximal Patterns" "$work/x.out" >>"$work/prune.t"
  done
  local patterns maximal plain x mine pc prune
  patterns=$(grep 'Number of Frequent Patterns:' "$work/plain.out" | awk '{print $NF}')
  maximal=$(grep 'Number of Maximal Frequent Patterns:' "$work/x.out" | awk '{print $NF}')
  plain=$(median <"$work/plain.t"); x=$(median <"$work/x.t"); mine=$(median <"$work/mine.t")
  pc=$(median <"$work/pc.t"); prune=$(median <"$work/prune.t")
  # The run without -x leaves every pattern in FILE.fp; the labels of these
  # files are numbers, so it reads as a numbered pattern file of the same size.
  (cd "$work" && "$bin" "$@" "$file" >/dev/null)
  local fp_kb peak_kb
  fp_kb=$(($(stat -c %s "$work/$file.fp") / 1024))
  peak_kb=$("$driver" "$work/$file.fp" 1 | sed 's/.*peak \([0-9]*\) KB/\1/')
  awk -v n="$name" -v p="$patterns" -v m="$maximal" -v mi="$mine" -v pl="$plain" -v x="$x" \
    -v pc="$pc" -v pr="$prune" -v fp="$fp_kb" -v pk="$peak_kb" 'BEGIN {
      added = x - pl
      printf "| %s | %s | %s | %.3f | %.3f | %.3f | %.3f | %.2f | %.3f | %.3f | %.1f | %.1f | %.2f |\n",
        n, p, m, mi, pl, x, added, added / mi, pc, pr, fp / 1024, pk / 1024, pk / fp }'
}

echo "runs per row: $runs; $(nproc) cores; load average $(cut -d' ' -f1-3 /proc/loadavg)"
echo "| data, support | patterns | maximal | mining s | run s | run -x s | added s | added/mining | PC list s | pruning s | pattern file MB | post peak MB | peak/file |"
echo "|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|"
row "chess -s 65" chess.dat -s 65
row "chess -s 52" chess.dat -s 52
row "mushroom -s 15" mushroom.dat -s 15
row "mushroom -s 7" mushroom.dat -s 7
row "chess -S (72..58%)" chess.dat -S chess.supp
