#!/bin/sh
# Checks, on the shared benchmark data, that a run with a decreasing support
# table finds exactly the patterns (itemset and support) of a run at the
# table's lowest constant support that the table accepts for their length.
# Usage (from the repository root): sh bench/scale_check.sh [dataset...]
. bench/common.sh
build_driver
cd "$WORK"
status=0
for f in ${*:-chess mushroom retail T10I4D100K}; do
  low=$(lowest_of "$f.supp")
  "$RUN" -S "$f.supp" "$f.dat" >/dev/null 2>&1
  awk '{ s = ""; for (i = 4; i <= NF; i++) s = s " " $i; print s " " $2 }' "$f.dat.fp_conv" |
    LC_ALL=C sort > "$f.table.set"
  "$RUN" --table -S "$f.supp" "$f.dat" > "$f.counts"
  "$RUN" -s "$low" "$f.dat" >/dev/null 2>&1
  awk 'NR == FNR { need[$1] = $2; next }
       { len = NF - 3; if ($2 + 0 < need[len] + 0) next
         s = ""; for (i = 4; i <= NF; i++) s = s " " $i; print s " " $2 }' \
    "$f.counts" "$f.dat.fp_conv" | LC_ALL=C sort > "$f.const.set"
  total=$(wc -l < "$f.dat.fp_conv")
  if cmp -s "$f.table.set" "$f.const.set"; then
    echo "$f: same $(wc -l < "$f.table.set") patterns (table) as the $total at -s $low, filtered"
  else
    echo "$f: DIFFERENT: $(wc -l < "$f.table.set") with the table, $(wc -l < "$f.const.set") filtered from -s $low"
    status=1
  fi
  rm -f "$f.table.set" "$f.const.set" "$f.counts" "$f.dat.fp_conv"
done
exit $status
