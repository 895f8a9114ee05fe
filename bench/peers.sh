#!/usr/bin/env bash
# quarlo against Borgelt's fpgrowth on the shared benchmark settings, side by
# side in one run: the eight length-decreasing tables and the six constant
# counts of ../shared/peers/README.md. Whole processes, FILE to FILE.fp,
# alternating runs, each in a folder holding a copy of the data; prints the
# median wall time of each, their ratio, quarlo's peak resident size and the
# pattern counts of both (which must agree).
#   bash bench/peers.sh FPGROWTH [RUNS]     (FPGROWTH: ../shared/peers/build.sh OUT gives OUT/fpgrowth)
# Without a built fpgrowth ("-" or a missing file) only quarlo is timed.
set -euo pipefail
cd "$(dirname "$0")/.."
peer=${1:--}
runs=${2:-3}
shared=../shared
. bench/program.sh
[ -x "$peer" ] || peer=""

# time_run DIR CMD... : wall seconds and peak KB of one run, output discarded.
time_run() {
  local dir=$1; shift
  (cd "$dir" && /usr/bin/time -f "%e %M" "$@" >/dev/null 2>"$dir/time.err") || true
  tail -n 1 "$dir/time.err"
}

# setting NAME DATA QUARLO_ARGS FPGROWTH_ARGS
setting() {
  local name=$1 data=$2 qargs=$3 pargs=$4 dir=$work/$1
  mkdir -p "$dir"; cp "$shared/data/$data" "$dir/in.txt"
  local qt=() pt=() qm=()
  for _ in $(seq "$runs"); do
    read -r t m < <(time_run "$dir" $quarlo $qargs in.txt); qt+=("$t"); qm+=("$m")
    if [ -n "$peer" ]; then
      read -r t _ < <(time_run "$dir" $peer -ts -S101 $pargs '-v %a' in.txt out.fpg); pt+=("$t")
    fi
  done
  local qn pn="-" q p ratio="-"
  qn=$(grep -c '' "$dir/in.txt.fp")
  q=$(printf '%s\n' "${qt[@]}" | median)
  p="-"
  if [ -n "$peer" ]; then
    pn=$(grep -c '' "$dir/out.fpg"); p=$(printf '%s\n' "${pt[@]}" | median)
    ratio=$(awk -v a="$q" -v b="$p" 'BEGIN { printf "%.2f", (b > 0 ? a / b : 0) }')
  fi
  printf '| %s | %s | %s | %s | %s | %s | %s |\n' "$name" "$qn" "$pn" "$q" "$p" "$ratio" \
    "$(( $(printf '%s\n' "${qm[@]}" | sort -n | tail -n 1) / 1024 ))"
  rm -rf "$dir"
}

echo "| setting | quarlo patterns | fpgrowth patterns | quarlo s | fpgrowth s | ratio | quarlo peak MiB |"
echo "|---|---:|---:|---:|---:|---:|---:|"
for tbl in chess chess-steep mushroom mushroom-steep retail retail-steep T10I4D100K T10I4D100K-steep; do
  data=${tbl%-steep}.dat
  mkdir -p "$work/tables"; cp "$shared/peers/tables/$tbl.tbl" "$work/tables/$tbl.supp"
  setting "$tbl.tbl" "$data" "-S $work/tables/$tbl.supp" "$(cat "$shared/peers/borders/$tbl.args")"
done
while read -r data count pct; do
  setting "$data@$count" "$data.dat" "-s $pct" "-s-$count"
done <<'SETTINGS'
chess 2000 62.562578
chess 1500 46.918023
mushroom 812 9.988922
retail 20 0.022118
retail 10 0.010776
T10I4D100K 100 0.099500
SETTINGS
