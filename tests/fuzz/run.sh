#!/bin/bash
# Runs the fuzz targets of a build, two at a time, each from its kept corpus,
# and prints a line for each. What is found new stays in the build directory.
# Ends with 1 when a target failed.
# Usage: run.sh <build directory> <seconds for each target> [target...]
set -eu

here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
seconds=$2
shift 2
[ $# -gt 0 ] || set -- metadata payload filter_parameters query configuration file_names messages web_request

export TMPDIR=$build/tmp
export ASAN_SYMBOLIZER_PATH=/usr/bin/llvm-symbolizer-14
rm -rf "$TMPDIR"
mkdir -p "$TMPDIR" "$build/log"

# An input that once failed is tried first the next time.
run_target() {
  local target=$1 log=$build/log/$1.log found=$build/findings/$1 result=0
  mkdir -p "$build/corpus/$target" "$found"
  "$build/bin/fuzz_$target" -max_total_time="$seconds" -max_len=4096 -timeout=10 \
    -rss_limit_mb=2048 -dict="$here/dictionaries/$target.dict" -artifact_prefix="$found/" \
    -print_final_stats=1 "$build/corpus/$target" "$found" "$here/corpus/$target" \
    >"$log" 2>&1 || result=$?
  local executions time
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  time=$(sed -n 's/^Done [0-9]* runs in \([0-9]*\) second.*/\1/p' "$log")
  if [ $result = 0 ]; then
    printf '%-18s %9s executions %4s s  ok\n' "$target" "$executions" "$time"
    return 0
  fi
  local input
  input=$(sed -n 's/.*Test unit written to //p' "$log" | tail -n 1)
  printf '%-18s %9s executions         failed\n' "$target" "${executions:-?}"
  grep -m 1 -A 3 -E '^Does not hold: |ERROR: |runtime error: ' "$log" | sed 's/^/    /' || true
  if [ -n "$input" ]; then
    printf '    input: %s\n    again: %s %s\n' "$input" "$build/bin/fuzz_$target" "$input"
  fi
  printf '    log:   %s\n' "$log"
  return 1
}

failed=0
running=0
for target in "$@"; do
  if [ $running = 2 ]; then
    wait -n || failed=1
    running=1
  fi
  run_target "$target" &
  running=$((running + 1))
done
while [ $running -gt 0 ]; do
  wait -n || failed=1
  running=$((running - 1))
done
rm -rf "$TMPDIR"
exit $failed
