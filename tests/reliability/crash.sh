#!/usr/bin/env bash
# Crash and restart: waymarkd is killed with SIGKILL at random points of a
# large initial programming (S sub-rules, N nexthops, routing commands as
# rtnetlink requests so that a run takes seconds), then started again; each
# time the kernel must converge to exactly the state of a clean start: every
# ip rule, every nexthop table, both mangle tables, nothing stale.
# Ends with "N passed, N failed" and a "crash:" figures line.
# Usage: tests/reliability/crash.sh BUILD [KILLS] [S] [N]
set -uo pipefail
BUILD=${1:-build} KILLS=${2:-20} S=${3:-10000} N=${4:-1000}
WAYMARKD=$BUILD/daemon/waymarkd
WAYMARKCTL=$BUILD/cli/waymarkctl
LAB=wmcrash$$
NS=$LAB-router
RUN=/run/waymark-crash-$$
HERE=$(cd "$(dirname "$0")" && pwd)
source "$HERE/../../examples/scale-lab.sh"
in_ns() { shift; ip netns exec "$NS" "$@"; }
source "$HERE/../e2e/checks.sh"
require_namespaces "crash"
DAEMON=
cleanup() {
  [ -n "$DAEMON" ] && kill -9 "$DAEMON" 2>/dev/null
  ip netns del "$NS" 2>/dev/null
  rm -rf "$RUN"
}
trap cleanup EXIT
mkdir -p "$RUN"
ctl() { "$WAYMARKCTL" --socket "$RUN/s.sock" "$@"; }
start() {
  rm -f "$RUN/s.sock"
  ip netns exec "$NS" "$WAYMARKD" --config "$RUN/c.yaml" --socket "$RUN/s.sock" \
    --state "$RUN/state.json" --trace-level 0 >>"$RUN/d.log" 2>&1 &
  DAEMON=$!
}
idle() { ctl wait-idle --timeout 600 >/dev/null; }
# Everything in the kernel, with rules and routes sorted so that only what
# is there counts, not the order the listing happens to give.
snapshot() {
  { rules; tables; } | sort
  mangle
}
# Every table's routes, whether or not a rule points at it: stale routes
# count too.
tables() {
  in_ns router ip route show table all | grep -v -E 'table (local|main)|^local|^broadcast|^multicast|^fe80|proto kernel' || true
  in_ns router ip -6 route show table all | grep -v -E 'table (local|main)|^local|^multicast|^fe80|proto kernel' || true
}

generate "$S" "$N" "$RUN/c.yaml"
sed -i 's/^  command-executor: .*/  command-executor: netlink/' "$RUN/c.yaml"
scale_namespace "$NS"
t0=$(date +%s.%N)
start; idle
t1=$(date +%s.%N)
clean=$(snapshot)
full=$(echo "$t1 - $t0" | awk '{print $1 - $3}')
kill "$DAEMON"; wait "$DAEMON" 2>/dev/null
echo "clean start: $(echo "$clean" | grep -c '^-A PBR_') mangle rules, $(echo "$clean" | grep -c fwmark) ip rules, ${full} s"
ip netns exec "$NS" "$WAYMARKD" --cleanup --state "$RUN/state.json" >/dev/null 2>&1

converged=0 worst=0
for k in $(seq "$KILLS"); do
  # A kill point anywhere from the start to the end of a clean start.
  point=$(awk -v f="$full" -v r="$RANDOM" 'BEGIN {printf "%.3f", f * r / 32767}')
  start; sleep "$point"; kill -9 "$DAEMON"; wait "$DAEMON" 2>/dev/null
  r0=$(date +%s.%N)
  start; idle
  r1=$(date +%s.%N)
  took=$(echo "$r0 $r1" | awk '{printf "%.2f", $2 - $1}')
  worst=$(echo "$worst $took" | awk '{print ($2 > $1) ? $2 : $1}')
  if [ "$(snapshot)" = "$clean" ]; then converged=$((converged + 1)); fi
  check "kill at ${point}s: the restart converges to a clean start's state" "$(snapshot)" "$clean"
  kill "$DAEMON"; wait "$DAEMON" 2>/dev/null; DAEMON=
done
echo "crash: $KILLS kills, $converged converged, longest restart to idle ${worst} s"
finish
