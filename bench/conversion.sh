#!/bin/sh
# Times the conversion stages (label numbering, FILE.conv, FILE.qr) alone on
# ../shared/data/retail.dat and on two generated files of 1,000,000
# transactions (numeric and labelled), next to `wc -w` on the same file.
# Prints one table row per file: medians of 3 runs, in seconds.
# Run from the repository root: sh bench/conversion.sh
set -e
shared=${QUARLO_SHARED:-../shared}
runs=3
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build/release --target quarlo_lib quarlo_cli quarlo -j 2 >/dev/null
g++ -std=c++20 -O2 -Wall -Wextra -Iinclude -Isrc -I. bench/conv_run.cpp \
  build/release/libquarlo_cli.a build/release/libquarlo.a -lpthread -o "$tmp/conv_run"

cp "$shared/data/retail.dat" "$tmp/retail.dat"
python3 "$shared/tools/gen_quest.py" -D 1000000 -T 10 -I 4 -L 2000 -N 1000 --seed 1 \
  -o "$tmp/quest-numeric.dat"
python3 "$shared/tools/gen_quest.py" -D 1000000 -T 10 -I 4 -L 2000 -N 1000 --seed 2 --labels \
  -o "$tmp/quest-labels.dat"

# median of the numbers on standard input
median() { sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }

# seconds taken by the command given as arguments
seconds() {
  s=$(date +%s.%N)
  "$@" >/dev/null
  e=$(date +%s.%N)
  echo "$s $e" | awk '{ printf "%.3f\n", $2 - $1 }'
}

printf '%-20s %9s %9s %8s %8s %8s %8s %7s\n' file MiB lines load convert ttoqr total "wc -w"
for f in retail quest-numeric quest-labels; do
  data="$tmp/$f.dat"
  : > "$tmp/times"
  : > "$tmp/wc"
  for i in $(seq $runs); do
    "$tmp/conv_run" "$data" >> "$tmp/times"
    seconds wc -w "$data" >> "$tmp/wc"
  done
  load=$(cut -d' ' -f1 "$tmp/times" | median)
  conv=$(cut -d' ' -f2 "$tmp/times" | median)
  ttoqr=$(cut -d' ' -f3 "$tmp/times" | median)
  total=$(awk '{ print $1 + $2 + $3 }' "$tmp/times" | median)
  wcw=$(median < "$tmp/wc")
  mib=$(du -m "$data" | cut -f1)
  lines=$(wc -l < "$data")
  printf '%-20s %9s %9s %8s %8s %8s %8s %7s\n' "$f" "$mib" "$lines" "$load" "$conv" "$ttoqr" "$total" "$wcw"
done
