#!/bin/sh
# Runs two builds of the program side by side on the same settings and
# compares everything a user sees: standard output and quarlo.log (timing
# lines masked), FILE.fp, FILE.pc, FILE.tid and the exit status.
# Usage (from the repository root): sh bench/identity.sh OLD_BINARY NEW_BINARY [quick]
# With QUARLO_THREADS set in the environment, both builds get it.
# Prints one line per setting and "identical: N of M"; exits 1 on a difference.
set -u
old=$1 new=$2 quick=${3:-}
data=${QUARLO_DATA:-../shared/data}
tables=${QUARLO_TABLES:-../shared/peers/tables}
root=$PWD
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

run() {  # run DIR BINARY ARGS... : one run in DIR, outputs kept there
  dir=$1 bin=$2; shift 2
  (cd "$dir" && "$bin" "$@" > stdout 2> stderr; echo $? > status)
  sed -i 's/[0-9.]* sec$/ sec/' "$dir/stdout" "$dir/quarlo.log" 2>/dev/null
}

same=0 all=0 bad=0
check() {  # check NAME INPUT ARGS... (INPUT copied into each side's folder)
  name=$1 input=$2; shift 2
  for side in a b; do
    rm -rf "$work/$side" && mkdir -p "$work/$side"
    cp "$input" "$work/$side/" 2>/dev/null
    for a in "$@"; do [ -f "$root/$a" ] && cp "$root/$a" "$work/$side/"; done
  done
  base=$(basename "$input")
  args=$(for a in "$@"; do [ -f "$root/$a" ] && basename "$a" || echo "$a"; done)
  # shellcheck disable=SC2086
  run "$work/a" "$old" $args "$base"
  # shellcheck disable=SC2086
  run "$work/b" "$new" $args "$base"
  all=$((all + 1))
  if diff -r "$work/a" "$work/b" > "$work/diff" 2>&1; then
    same=$((same + 1)); echo "same  $name"
  else
    bad=1; echo "DIFF  $name"; head -n 5 "$work/diff"
  fi
}

g=examples/groceries.txt
check groceries-S-x $g -S examples/groceries.supp -x
check groceries-S-p $g -S examples/groceries.supp -p
check groceries-s20 $g -s 20
check groceries-m2M3 $g -s 10 -m 2 -M 3 -p
check groceries-s0 $g -s 0 -x
check missing-file /nonexistent -s 10
for f in tests/data/*/*.txt; do check "$(basename "$f")-x" "$f" -s 5 -x; done
if [ -z "$quick" ] && [ -d "$data" ]; then
  for t in chess mushroom retail T10I4D100K; do
    check "$t.tbl" "$data/$t.dat" -S "$tables/$t.tbl"
    check "$t-steep.tbl" "$data/$t.dat" -S "$tables/$t-steep.tbl"
  done
  check chess.tbl-x "$data/chess.dat" -S "$tables/chess.tbl" -x
  check retail.tbl-p "$data/retail.dat" -S "$tables/retail.tbl" -p
  check chess-s70 "$data/chess.dat" -s 70 -p
fi
echo "identical: $same of $all"
exit $bad
