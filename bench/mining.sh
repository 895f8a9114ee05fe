#!/bin/sh
# Times the mining engine alone (binary transaction file in, numbered pattern
# file out) on the shared benchmark data: two constant supports and one
# decreasing table per data set, median wall time of three runs and the peak
# resident memory, as a Markdown table. The second constant support of every
# data set is the table's lowest value, so the two rows compare directly.
# Usage (from the repository root): sh bench/mining.sh [runs]
. bench/common.sh
build_driver
cd "$WORK"
runs=${1:-3}

# One configuration: prints "patterns engine-s process-s peak-MB", the times
# being medians. The process time adds the driver's text-to-binary conversion.
measure() {
  : > times
  for i in $(seq "$runs"); do
    /usr/bin/time -f "%e %M" -o one "$RUN" "$@" >/dev/null 2>err
    printf '%s %s\n' "$(awk '/engine seconds/ { print $3 }' err)" "$(cat one)" >> times
  done
  patterns=$(wc -l < "$(eval echo \${$#}).fp_conv")
  k=$(( (runs + 1) / 2 ))
  e=$(awk '{ print $1 }' times | sort -n | sed -n "${k}p")
  t=$(awk '{ print $2 }' times | sort -n | sed -n "${k}p")
  m=$(awk '$3 > m { m = $3 } END { printf "%.1f", m / 1024 }' times)
  echo "$patterns $e $t $m"
}

row() {
  set -- $(measure "$@")
  echo "$1 | $2 | $3 | $4"
}

echo "| data set | support | patterns | engine s | process s | peak MB |"
echo "|---|---|---:|---:|---:|---:|"
while read -r f s1 s2; do
  for s in $s1 $s2; do
    echo "| $f | -s $s | $(row -s "$s" "$f.dat") |"
  done
  echo "| $f | -S tables/$f.supp (lowest $(lowest_of "$f.supp")) | $(row -S "$f.supp" "$f.dat") |"
  rm -f "$f.dat.fp_conv"
done <<LIST
chess 62.578 46.933
mushroom 9.995 4.9236
retail 0.056713 0.0113425
T10I4D100K 0.49999 0.09999
LIST
rm -f times one err
