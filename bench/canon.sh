#!/bin/sh
# Prints the number of patterns and the first 16 hex digits of the sha256 over
# "<items ascending> <support>" lines, sorted byte-wise and joined by "\n":
# the canonical digest of a numbered pattern file ("L-N support pct items").
# Optional second argument: a support table "LEN PCT" and ntrans; then only
# patterns whose support reaches the table's count for their length are kept.
set -e
file=$1
awk '{ s = $2; line = ""; for (i = 4; i <= NF; i++) line = line (i > 4 ? " " : "") $i; print line " " s }' "$file" |
  LC_ALL=C sort > "$file.canon"
n=$(wc -l < "$file.canon")
h=$(head -c -1 "$file.canon" | sha256sum | cut -c1-16)
[ -s "$file.canon" ] || h=$(printf '' | sha256sum | cut -c1-16)
echo "$n $h"
rm -f "$file.canon"
