#!/usr/bin/env bash
# Growth with the input: Quest files of 100K, 1M, 10M and 30M transactions
# (../shared/tools/gen_quest.py -T 10 -I 4 -L 2000 -N 1000, seed 1; generated
# once into DIR, never committed), mined at -s 0.05, side by side with
# Borgelt's fpgrowth at the count quarlo takes from -s 0.05 (the ceiling of
# n x 0.05 / 100 in extended precision, 501 for 1M).
# Prints per size: both pattern counts (which must agree), wall time and
# peak resident size of each, quarlo's mining time, quarlo's time against the
# previous size and against fpgrowth.
#   bash bench/growth.sh [FPGROWTH [DIR [SIZES...]]]
# FPGROWTH: ../shared/peers/build.sh OUT gives OUT/fpgrowth ("-": quarlo only).
# DIR keeps the generated files (default /tmp/quarlo-quest).
set -euo pipefail
cd "$(dirname "$0")/.."
peer=${1:--}
dir=${2:-/tmp/quarlo-quest}
shift $(( $# > 2 ? 2 : $# ))
sizes=${*:-100000 1000000 10000000 30000000}
. bench/program.sh
[ -x "$peer" ] || peer=""
mkdir -p "$dir"

# timed DIR OUT CMD... : "wall peak_kb" of one run in DIR, stdout to OUT.
timed() {
  local d=$1 out=$2; shift 2
  (cd "$d" && /usr/bin/time -f "%e %M" "$@" >"$out" 2>"$out.time") || true
  tail -n 1 "$d/$out.time"
}

echo "| transactions | quarlo patterns | fpgrowth patterns | quarlo s | mining s | quarlo peak MiB | time / previous | fpgrowth s | fpgrowth peak MiB | quarlo / fpgrowth |"
echo "|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|"
prev=""
for n in $sizes; do
  f=$dir/q$n.txt
  [ -s "$f" ] || /usr/bin/python3 ../shared/tools/gen_quest.py -D "$n" -T 10 -I 4 -L 2000 -N 1000 --seed 1 -o "$f"
  read -r wall kb < <(timed "$dir" "q$n.out" "$quarlo" -s 0.05 "q$n.txt")
  mine=$(awk '/Generating Frequent Pattern File/ { print $(NF - 1) }' "$dir/q$n.out")
  pats=$(awk -F: '/Number of Frequent Patterns:/ { gsub(/ /, "", $2); print $2 }' "$dir/q$n.out")
  rm -f "$dir/q$n.txt.fp"
  ratio="-" pwall="-" pmib="-" ppats="-" vs="-"
  [ -n "$prev" ] && ratio=$(awk -v a="$wall" -v b="$prev" 'BEGIN { printf "%.1f", a / b }')
  if [ -n "$peer" ]; then
    count=$(/usr/bin/python3 -c "
import numpy as np  # x86 long double: the precision quarlo turns a percentage into a count with
n, f, hundred = np.longdouble($n), np.longdouble(0.05), np.longdouble(100)
q = np.trunc((n * f) / hundred)
print(int(q + 1 if q < n * (f / hundred) else q))")
    read -r pwall pkb < <(timed "$dir" "q$n.peer" "$peer" -ts -S101 "-s-$count" '-v %a' "q$n.txt" "q$n.fpg")
    ppats=$(grep -c '' "$dir/q$n.fpg" || true)
    pmib=$(( pkb / 1024 ))
    vs=$(awk -v a="$wall" -v b="$pwall" 'BEGIN { printf "%.2f", (b > 0 ? a / b : 0) }')
    rm -f "$dir/q$n.fpg"
  fi
  printf '| %s | %s | %s | %s | %s | %d | %s | %s | %s | %s |\n' "$n" "$pats" "$ppats" "$wall" \
    "$mine" $(( kb / 1024 )) "$ratio" "$pwall" "$pmib" "$vs"
  prev=$wall
done
