#!/usr/bin/env bash
# The growth gate: every cost that grows with the configuration is measured
# at N and at 4N sub-rules in one run, and fails when the ratio shows more
# than linear growth. Linear gives about 4x (less, with fixed costs), n log n
# a little more, quadratic 16x; the bound is 6x. No absolute time is judged,
# so a slow or busy machine slows both sizes alike. Each time is the best of
# five (of three for a start), which keeps a scheduling hiccup out of the
# ratio.
#
# Measured: `waymarkd --check` (varied rule shapes, so that the warnings'
# search meets prefixes, ranges and flags; its CPU time), a start to idle in a private
# namespace, `status --json`, `counters --json` and `explain` of the
# running daemon, and a reload that changes one rule's port, to idle.
# Usage: tests/e2e/growth_e2e.sh BUILD [N]   N sub-rules, default 2500
# Ends with "N passed, N failed".
set -uo pipefail
BUILD=${1:-build}
N=${2:-2500}
BOUND=6
WAYMARKD=$BUILD/daemon/waymarkd
WAYMARKCTL=$BUILD/cli/waymarkctl
LAB=wmgrowth$$
NS=$LAB-router
RUN=/run/waymark-growth-$$
source "$(dirname "$0")/../../examples/scale-lab.sh"
source "$(dirname "$0")/checks.sh"
require_namespaces "growth gate"
DAEMON=
cleanup() {
  [ -n "$DAEMON" ] && kill "$DAEMON" 2>/dev/null && wait "$DAEMON" 2>/dev/null
  ip netns del "$NS" 2>/dev/null
  rm -rf "$RUN"
}
trap cleanup EXIT
mkdir -p "$RUN"

now() { date +%s.%N; }
# Seconds COMMAND takes, the best of five runs.
best_of_five() {
  local best="" t0 t i
  for i in 1 2 3 4 5; do
    t0=$(now)
    "$@" >/dev/null 2>&1
    t=$(awk -v a="$t0" -v b="$(now)" 'BEGIN {printf "%.4f", b - a}')
    if [ -z "$best" ] || awk -v t="$t" -v b="$best" 'BEGIN {exit !(t < b)}'; then best=$t; fi
  done
  echo "$best"
}
# CPU seconds (user and system) COMMAND takes, the best of five runs: for
# work done by one process alone, which other load on the machine does not
# stretch as it stretches the wall clock.
best_cpu_of_five() {
  local best="" t i TIMEFORMAT='%U %S'
  for i in 1 2 3 4 5; do
    t=$({ time "$@" >/dev/null 2>&1; } 2>&1 | awk '{printf "%.4f", $1 + $2}')
    if [ -z "$best" ] || awk -v t="$t" -v b="$best" 'BEGIN {exit !(t < b)}'; then best=$t; fi
  done
  echo "$best"
}
# Judges one operation's times at N and 4N.
judge() {  # WHAT SMALL LARGE
  local ratio verdict
  ratio=$(awk -v s="$2" -v l="$3" 'BEGIN {printf "%.2f", l / (s > 0.0001 ? s : 0.0001)}')
  verdict=$(awk -v r="$ratio" -v b="$BOUND" 'BEGIN {print (r <= b ? "linear" : "superlinear")}')
  echo "   $1: ${2}s at $N, ${3}s at $((4 * N)): ${ratio}x"
  check "$1 grows at most ${BOUND}x from $N to $((4 * N)) sub-rules" "$verdict" linear
}

ctl() { "$WAYMARKCTL" --socket "$RUN/s.sock" "$@"; }
start_daemon() {  # CONFIG
  ip netns exec "$NS" "$WAYMARKD" --config "$1" --socket "$RUN/s.sock" \
    --state "$RUN/state.json" --trace-level 0 >"$RUN/d.log" 2>&1 &
  DAEMON=$!
  ctl wait-idle --timeout 600 >/dev/null
}
stop_daemon() { kill "$DAEMON"; wait "$DAEMON" 2>/dev/null; DAEMON=; }
# A start from an empty namespace to idle; TOOK is its seconds.
fresh_start() {  # CONFIG
  [ -n "$DAEMON" ] && stop_daemon
  rm -f "$RUN"/state.json*
  scale_namespace "$NS"
  local t0
  t0=$(now)
  start_daemon "$1"
  TOOK=$(awk -v a="$t0" -v b="$(now)" 'BEGIN {printf "%.4f", b - a}')
}
# The first rule's port changed (1000 to 65000 and back), reloaded, to idle.
one_rule_reload() {  # CONFIG
  if grep -q 'eq 1000$' "$1"; then
    sed -i '0,/eq 1000$/s//eq 65000/' "$1"
  else
    sed -i '0,/eq 65000$/s//eq 1000/' "$1"
  fi
  ctl reload >/dev/null && ctl wait-idle --timeout 600 >/dev/null
}
# The best of three fresh starts; BEST is its seconds, the last one runs on.
best_start() {  # CONFIG
  local i
  BEST=
  for i in 1 2 3; do
    fresh_start "$1"
    if [ -z "$BEST" ] || awk -v t="$TOOK" -v b="$BEST" 'BEGIN {exit !(t < b)}'; then BEST=$TOOK; fi
  done
}

declare -A at
for size in "$N" $((4 * N)); do
  generate_varied "$((10 * size))" "$RUN/varied$size.yaml"
  generate_one_policy "$size" 20 $((size / 50)) "$RUN/c$size.yaml"
  sed -i '/command-executor/d; /^tunables:/d' "$RUN/c$size.yaml"
  at[check$size]=$(best_cpu_of_five "$WAYMARKD" --check --config "$RUN/varied$size.yaml")
  best_start "$RUN/c$size.yaml"
  at[start$size]=$BEST
  at[status$size]=$(best_of_five ctl status --json)
  at[counters$size]=$(best_of_five ctl counters --json)
  # A packet no class takes: every rule of the policy is looked at.
  at[explain$size]=$(best_of_five ctl explain --in in0 --proto tcp --src 192.0.2.10 \
    --dst 198.51.100.200 --dport 9 --json)
  at[reload$size]=$(best_of_five one_rule_reload "$RUN/c$size.yaml")
  check "the daemon at $size sub-rules wrote every rule" \
    "$(ip netns exec "$NS" sh -c 'iptables -t mangle -S; ip6tables -t mangle -S' | grep -c '^-A PBR_')" $((2 * size))
  stop_daemon
done

echo "== growth from $N to $((4 * N)) sub-rules (check: $((10 * N)) to $((40 * N)))"
judge "waymarkd --check" "${at[check$N]}" "${at[check$((4 * N))]}"
judge "start to idle" "${at[start$N]}" "${at[start$((4 * N))]}"
judge "status --json" "${at[status$N]}" "${at[status$((4 * N))]}"
judge "counters --json" "${at[counters$N]}" "${at[counters$((4 * N))]}"
judge "explain" "${at[explain$N]}" "${at[explain$((4 * N))]}"
judge "one-rule reload to idle" "${at[reload$N]}" "${at[reload$((4 * N))]}"
finish
