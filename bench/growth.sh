#!/usr/bin/env bash
# Growth with the input: Quest files of 100K, 1M and 10M transactions
# (../shared/tools/gen_quest.py -T 10 -I 4 -L 2000 -N 1000, seed 1), mined at
# -s 0.05; wall time, peak resident size and each step's time ratio.
#   bash bench/growth.sh [DIR]   (DIR keeps the generated files; default /tmp/quarlo-quest)
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-/tmp/quarlo-quest}
. bench/program.sh
mkdir -p "$dir"
echo "| transactions | patterns | wall s | mining s | peak MiB | time / previous |"
echo "|---:|---:|---:|---:|---:|---:|"
prev=""
for n in 100000 1000000 10000000; do
  f=$dir/q$n.txt
  [ -s "$f" ] || /usr/bin/python3 ../shared/tools/gen_quest.py -D $n -T 10 -I 4 -L 2000 -N 1000 --seed 1 -o "$f"
  (cd "$dir" && /usr/bin/time -f "%e %M" "$quarlo" -s 0.05 "q$n.txt" >"q$n.out" 2>"q$n.time")
  read -r wall kb < <(tail -n 1 "$dir/q$n.time")
  mine=$(awk '/Generating Frequent Pattern File/ { print $(NF - 1) }' "$dir/q$n.out")
  pats=$(awk -F: '/Number of Frequent Patterns:/ { gsub(/ /, "", $2); print $2 }' "$dir/q$n.out")
  ratio="-"
  [ -n "$prev" ] && ratio=$(awk -v a="$wall" -v b="$prev" 'BEGIN { printf "%.1f", a / b }')
  printf '| %s | %s | %s | %s | %d | %s |\n' "$n" "$pats" "$wall" "$mine" $(( kb / 1024 )) "$ratio"
  prev=$wall
  rm -f "$dir/q$n.txt.fp"
done
