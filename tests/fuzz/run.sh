#!/usr/bin/env bash
# Runs every fuzzer for SECONDS each, two at a time, over the corpus kept in
# the repository (read only) and a scratch corpus in the build directory.
# A crash leaves its input in BUILD/crash-*: turn it into a regression test.
# Usage: tests/fuzz/run.sh BUILD SECONDS
set -uo pipefail
BUILD=$1 SECONDS_EACH=$2
HERE=$(cd "$(dirname "$0")" && pwd)
FUZZERS="address_fuzz acl_rule_fuzz rule_key_fuzz config_fuzz status_fuzz"
run() {
  local name=$1 scratch=$BUILD/corpus/$1
  mkdir -p "$scratch"
  if "$BUILD/tests/fuzz/$name" -max_total_time="$SECONDS_EACH" -timeout=10 -rss_limit_mb=2048 \
       -artifact_prefix="$BUILD/crash-$name-" -print_final_stats=1 \
       "$scratch" "$HERE/corpus/$name" > "$BUILD/$name.log" 2>&1; then
    echo "ok   $name: $(grep -m1 -o 'stat::number_of_executed_units: *[0-9]*' "$BUILD/$name.log" | awk '{print $2}') runs"
    return 0
  fi
  echo "FAIL $name (log: $BUILD/$name.log)"
  tail -40 "$BUILD/$name.log"
  return 1
}
pids=() failed=0 passed=0
set -- $FUZZERS
while [ $# -gt 0 ]; do
  run "$1" & pids+=($!)
  shift
  if [ $# -gt 0 ]; then run "$1" & pids+=($!); shift; fi
  for p in "${pids[@]}"; do
    if wait "$p"; then passed=$((passed + 1)); else failed=$((failed + 1)); fi
  done
  pids=()
done
echo "fuzz: $passed passed, $failed failed"
[ "$failed" = 0 ]
