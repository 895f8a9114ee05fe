#!/usr/bin/env bash
# What -p costs against the run without it, on the length-decreasing tables of
# chess and retail and on chess at a constant support.
#
#   bench/pc_ratio.sh BINARY [RUNS] [callgrind]
#
# Per setting, RUNS alternating runs (default 5) of "quarlo ARGS FILE" and
# "quarlo ARGS -p FILE" in a temporary folder holding a copy of the data; prints
# the medians of both wall times, of the "Generating PC List File" stage and
# the ratio of the two medians. With "callgrind", one run of each under
# valgrind --tool=callgrind adds their instruction counts and their ratio,
# which do not move with the load of the machine.
set -euo pipefail
bin=$(realpath "$1")
runs=${2:-5}
mode=${3:-}
data=${QUARLO_DATA:-../shared/data}
tables=${QUARLO_TABLES:-../shared/peers/tables}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$data/chess.dat" "$data/retail.dat" "$tables/chess.tbl" "$tables/retail.tbl" "$work/"

median() { sort -n | awk '{v[NR] = $1} END {print v[int((NR + 1) / 2)]}'; }
now() { date +%s.%N; }
instructions() {  # instructions ARGS...: instruction count of one run
  (cd "$work" && valgrind --tool=callgrind --callgrind-out-file=/dev/null "$bin" "$@" 2>&1 >/dev/null) |
    sed -n 's/.*refs: *//p' | tr -d ,
}

row() {  # row NAME FILE ARGS...
  local name=$1 file=$2
  shift 2
  : >"$work/plain.t"; : >"$work/p.t"; : >"$work/pc.t"
  for _ in $(seq "$runs"); do
    local t0 t1
    t0=$(now); (cd "$work" && "$bin" "$@" "$file" >plain.out); t1=$(now)
    awk -v a="$t0" -v b="$t1" 'BEGIN {print b - a}' >>"$work/plain.t"
    t0=$(now); (cd "$work" && "$bin" "$@" -p "$file" >p.out); t1=$(now)
    awk -v a="$t0" -v b="$t1" 'BEGIN {print b - a}' >>"$work/p.t"
    grep "Generating PC List File" "$work/p.out" | awk '{print $(NF - 1)}' >>"$work/pc.t"
  done
  local plain p pc extra=""
  plain=$(median <"$work/plain.t"); p=$(median <"$work/p.t"); pc=$(median <"$work/pc.t")
  if [ "$mode" = callgrind ]; then
    local ip ipp
    ip=$(instructions "$@" "$file"); ipp=$(instructions "$@" -p "$file")
    extra=$(awk -v a="$ip" -v b="$ipp" 'BEGIN {printf " %.0fM | %.0fM | %.2f |", a / 1e6, b / 1e6, b / a}')
  fi
  awk -v n="$name" -v a="$plain" -v b="$p" -v pc="$pc" -v e="$extra" \
    'BEGIN {printf "| %s | %.3f | %.3f | %.3f | %.2f |%s\n", n, a, b, pc, b / a, e}'
}

echo "runs: $runs; $(nproc) cores; load average $(cut -d' ' -f1-3 /proc/loadavg)"
head="| setting | run s | run -p s | PC list s | ratio |"
[ "$mode" = callgrind ] && head="$head plain Ir | -p Ir | Ir ratio |"
echo "$head"
row "chess.tbl" chess.dat -S chess.tbl
row "retail.tbl" retail.dat -S retail.tbl
row "chess -s 62.562578" chess.dat -s 62.562578
