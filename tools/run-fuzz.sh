#!/bin/sh
# Runs each fuzz target for SECONDS seconds, one after the other, on a work
# corpus under BUILD_DIR seeded from its checked-in corpus in fuzz/corpus/ (the
# seeds are copied, never written to). Crashing inputs go to
# BUILD_DIR/findings/TARGET/ and the target's output to BUILD_DIR/TARGET.log.
# Fails when any target stops on a crash, a failed check, a leak or a timeout.
#   sh tools/run-fuzz.sh BUILD_DIR SECONDS TARGET...
set -u
dir=$1
seconds=$2
shift 2
failed=""
for t in "$@"; do
  work=$dir/corpus/$t
  findings=$dir/findings/$t
  log=$dir/fuzz_$t.log
  mkdir -p "$work" "$findings"
  cp fuzz/corpus/"$t"/* "$work"/
  "$dir/fuzz_$t" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$findings/" "$work" >"$log" 2>&1
  status=$?
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  echo "fuzz_$t: ${seconds} s, ${execs:-?} execs, corpus $(ls "$work" | wc -l) files, exit $status"
  if [ "$status" -ne 0 ]; then
    failed="$failed fuzz_$t"
    grep -m 1 -E 'ERROR|check failed|runtime error' "$log"
    echo "  see $log and $findings/"
  fi
done
if [ -n "$failed" ]; then
  echo "fuzzing found a crash in:$failed" >&2
  exit 1
fi
