#!/usr/bin/env bash
# Association rules end to end against Borgelt's fpgrowth, side by side in
# one run: for each data set and constant count, bench/rules_run (file to
# rules file through quarlo::rules, single-item consequents, confidence at
# least 0.8) and `fpgrowth -tr -o -m2 -c80` (single-item heads; -o makes a
# rule's support that of all its items, so X u Y must be frequent, and -m2
# leaves out rules with an empty body: the same rule set), alternating runs,
# each in a folder holding a copy of the data. Prints the median wall time of
# each, their ratio and peak resident sizes, checks that both wrote the same
# rules with the same counts, and times plain `fpgrowth -tr -c80` (rule
# support = body support, empty bodies too: a different rule set) for
# reference. Then quarlo alone with consequents of any size, and
# quarlo.rules in Python (file to DataFrame) for both, at the same counts and
# under the shared length-decreasing tables, where sides of rules are not
# frequent at their own length and are counted in the data.
# CPU seconds (user + system) are medians as well: on a shared machine they
# move less than wall time. PART "compare" runs the first table alone.
#   bash bench/rules.sh FPGROWTH [RUNS [PART]]   (FPGROWTH: ../shared/peers/build.sh OUT gives OUT/fpgrowth)
set -euo pipefail
cd "$(dirname "$0")/.."
peer=${1:?usage: bash bench/rules.sh FPGROWTH [RUNS]}
runs=${2:-5}
part=${3:-all}
shared=../shared
. bench/program.sh
cmake --build build/release -j 2 --target quarlo_lib >/dev/null
g++ -std=c++20 -O2 -Wall -Wextra -Iinclude bench/rules_run.cpp build/release/libquarlo.a -lpthread \
  -o build/release/rules_run
rules_run=$PWD/build/release/rules_run
python=/usr/bin/python3
make python >/dev/null

# time_run DIR CMD... : wall seconds, peak KB and CPU seconds of one run.
time_run() {
  local dir=$1; shift
  (cd "$dir" && /usr/bin/time -f "%e %M %U %S" "$@" >/dev/null 2>"$dir/time.err") || true
  tail -n 1 "$dir/time.err" | awk '{ print $1, $2, $3 + $4 }'
}

# The rules of a "Y <- X... count count" file with each side sorted, sorted.
canon() { awk '{ n = 0; for (i = 3; i <= NF - 2; i++) b[++n] = $i;
                 for (i = 2; i <= n; i++) for (j = i; j > 1 && b[j-1] > b[j]; j--) { t = b[j]; b[j] = b[j-1]; b[j-1] = t }
                 s = $1 " <-"; for (i = 1; i <= n; i++) s = s " " b[i]; print s, $(NF-1), $NF }' "$1" | LC_ALL=C sort; }

peak_max() { printf '%s\n' "$@" | sort -n | tail -n 1; }

echo "| data | count | rules | quarlo s | fpgrowth -o -m2 s | ratio | quarlo CPU s | fpgrowth CPU s | CPU ratio | quarlo MiB | fpgrowth MiB | fpgrowth -tr -c80 s | same rules |"
echo "|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---|"
while read -r data count; do
  dir=$work/$data-$count
  mkdir -p "$dir"; cp "$shared/data/$data.dat" "$dir/in.txt"
  qt=() qm=() qc=() pt=() pm=() pc=() rt=()
  for _ in $(seq "$runs"); do
    read -r t m c < <(time_run "$dir" "$rules_run" in.txt "$count" 0.8 1 quarlo.rules)
    qt+=("$t"); qm+=("$m"); qc+=("$c")
    read -r t m c < <(time_run "$dir" "$peer" -tr -o -m2 -S101 "-s-$count" -c80 '-v %a %b' in.txt peer.rules)
    pt+=("$t"); pm+=("$m"); pc+=("$c")
    read -r t _ _ < <(time_run "$dir" "$peer" -tr -S101 "-s-$count" -c80 in.txt plain.rules); rt+=("$t")
  done
  q=$(printf '%s\n' "${qt[@]}" | median); p=$(printf '%s\n' "${pt[@]}" | median)
  r=$(printf '%s\n' "${rt[@]}" | median)
  qcpu=$(printf '%s\n' "${qc[@]}" | median); pcpu=$(printf '%s\n' "${pc[@]}" | median)
  same=no
  if cmp -s <(canon "$dir/quarlo.rules") <(canon "$dir/peer.rules"); then same=yes; fi
  printf '| %s | %s | %s | %s | %s | %.2f | %s | %s | %.2f | %d | %d | %s | %s |\n' "$data" "$count" \
    "$(grep -c '' "$dir/quarlo.rules")" "$q" "$p" "$(awk -v a="$q" -v b="$p" 'BEGIN { print a / b }')" \
    "$qcpu" "$pcpu" "$(awk -v a="$qcpu" -v b="$pcpu" 'BEGIN { print a / b }')" \
    $(( $(peak_max "${qm[@]}") / 1024 )) $(( $(peak_max "${pm[@]}") / 1024 )) "$r" "$same"
  rm -rf "$dir"
done <<'SETTINGS'
retail 20
retail 10
T10I4D100K 100
SETTINGS
[ "$part" = compare ] && exit 0

echo
echo "| data | count | consequents | rules | counted apart | quarlo s | quarlo MiB | Python quarlo.rules s | Python MiB |"
echo "|---|---:|---|---:|---:|---:|---:|---:|---:|"
while read -r data count heads; do
  dir=$work/$data-${count##*/}-$heads
  mkdir -p "$dir"; cp "$shared/data/$data.dat" "$dir/in.txt"
  support=$count
  case $count in *.tbl) cp "$shared/peers/tables/$count" "$dir/table.supp"; support=table.supp
                        count=${count%.tbl}; count=${count#"$data"}; count=table${count:-}
                        py_support="'table.supp'" ;;
                 *) py_support=$count ;; esac
  qt=() qm=() yt=() ym=()
  limit=$([ "$heads" = 1 ] && echo 1 || echo None)
  for _ in $(seq "$runs"); do
    read -r t m _ < <(time_run "$dir" "$rules_run" in.txt "$support" 0.8 "$heads" quarlo.rules); qt+=("$t"); qm+=("$m")
    read -r t m _ < <(time_run "$dir" env PYTHONPATH="$PWD/build/python" "$python" -c \
      "import quarlo; quarlo.rules('in.txt', $py_support, min_threshold=0.8, max_consequent_len=$limit)")
    yt+=("$t"); ym+=("$m")
  done
  (cd "$dir" && "$rules_run" in.txt "$support" 0.8 "$heads" quarlo.rules 2>rules.err >/dev/null)
  printf '| %s | %s | %s | %s | %s | %s | %d | %s | %d |\n' "$data" "$count" \
    "$([ "$heads" = 1 ] && echo one item || echo any size)" "$(grep -c '' "$dir/quarlo.rules")" \
    "$(awk '{ print $3 }' "$dir/rules.err")" \
    "$(printf '%s\n' "${qt[@]}" | median)" $(( $(peak_max "${qm[@]}") / 1024 )) \
    "$(printf '%s\n' "${yt[@]}" | median)" $(( $(peak_max "${ym[@]}") / 1024 ))
  rm -rf "$dir"
done <<'SETTINGS'
retail 20 1
retail 20 0
retail 10 1
retail 10 0
T10I4D100K 100 1
T10I4D100K 100 0
retail retail.tbl 1
retail retail.tbl 0
retail retail-steep.tbl 1
T10I4D100K T10I4D100K.tbl 1
T10I4D100K T10I4D100K.tbl 0
T10I4D100K T10I4D100K-steep.tbl 1
T10I4D100K T10I4D100K-steep.tbl 0
SETTINGS
