#!/usr/bin/env bash
# Mining on one thread against QUARLO_THREADS=2..N, side by side in one run:
# the mining stage's own timer ("Generating Frequent Pattern File") and the
# whole run, medians, and the ratio to one thread; the pattern files must be
# identical. Settings: retail with its steep table, T10I4D100K with its table,
# mushroom with its table (output-bound), and a Quest file when one is given.
#   bash bench/threads.sh [RUNS] [QUEST_FILE [QUEST_ARGS]]
# e.g. bash bench/threads.sh 5 /tmp/q10000000.txt "-s 0.05"
set -euo pipefail
cd "$(dirname "$0")/.."
runs=${1:-3}
quest=${2:-}
quest_args=${3:--s 0.05}
shared=$(cd ../shared && pwd)
. bench/program.sh

# one DIR THREADS ARGS... : "mining-seconds wall-seconds peak-KB" of one run
one() {
  local dir=$1 n=$2; shift 2
  (cd "$dir" && QUARLO_THREADS=$n /usr/bin/time -f "%e %M" "$quarlo" "$@" >out.txt 2>time.err)
  local mine
  mine=$(awk '/Generating Frequent Pattern File/ { print $(NF - 1) }' "$dir/out.txt")
  echo "$mine $(tail -n 1 "$dir/time.err")"
}

# setting NAME INPUT ARGS...
setting() {
  local name=$1 input=$2; shift 2
  local dir=$work/$name
  mkdir -p "$dir"; ln -sf "$(realpath "$input")" "$dir/in.txt"
  declare -A mine wall peak
  for _ in $(seq "$runs"); do
    for n in 1 2; do
      read -r m w p < <(one "$dir" $n "$@" in.txt)
      mine[$n]+="$m "; wall[$n]+="$w "; peak[$n]=$p
      cp "$dir/in.txt.fp" "$dir/fp.$n"
    done
    cmp -s "$dir/fp.1" "$dir/fp.2" || { echo "$name: pattern files differ" >&2; exit 1; }
  done
  local m1 m2 w1 w2
  m1=$(tr ' ' '\n' <<<"${mine[1]}" | grep . | median); m2=$(tr ' ' '\n' <<<"${mine[2]}" | grep . | median)
  w1=$(tr ' ' '\n' <<<"${wall[1]}" | grep . | median); w2=$(tr ' ' '\n' <<<"${wall[2]}" | grep . | median)
  printf '| %s | %s | %s | %.2f | %s | %s | %.2f | %d / %d |\n' "$name" "$m1" "$m2" \
    "$(awk -v a="$m2" -v b="$m1" 'BEGIN { print a / b }')" "$w1" "$w2" \
    "$(awk -v a="$w2" -v b="$w1" 'BEGIN { print a / b }')" $(( peak[1] / 1024 )) $(( peak[2] / 1024 ))
  rm -rf "$dir"
}

echo "| setting | mining 1 thread s | mining 2 threads s | ratio | run 1 s | run 2 s | ratio | peak MiB 1 / 2 |"
echo "|---|---:|---:|---:|---:|---:|---:|---:|"
setting retail-steep "$shared/data/retail.dat" -S "$shared/peers/tables/retail-steep.tbl"
setting T10I4D100K "$shared/data/T10I4D100K.dat" -S "$shared/peers/tables/T10I4D100K.tbl"
setting mushroom "$shared/data/mushroom.dat" -S "$shared/peers/tables/mushroom.tbl"
if [ -n "$quest" ]; then
  # shellcheck disable=SC2086
  setting "$(basename "$quest" .txt)" "$quest" $quest_args
fi
