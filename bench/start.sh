#!/usr/bin/env bash
# waymark's start benchmark: one policy of C classes holding S sub-rules over
# N nexthops, applied to one interface, from waymarkd's start to idle, with
# each executor, against the limit: the same final state loaded at once (one
# iptables-restore per family and one `ip -batch` per family, one after the
# other). Then a restart of the rtnetlink run onto its own state. All in one
# run and one private namespace; every run starts from an empty namespace
# but the restart.
#
# Usage: bench/start.sh BUILD_DIR [S:N:C]   default 10000:100:50
# Prints one line of figures and the ratios. Needs root.
set -uo pipefail
BUILD=${1:-build}
SIZE=${2:-10000:100:50}
S=${SIZE%%:*}; rest=${SIZE#*:}; N=${rest%%:*}; C=${rest#*:}
WAYMARKD=$BUILD/daemon/waymarkd
WAYMARKCTL=$BUILD/cli/waymarkctl
NS=wmstart$$
RUN=/run/waymark-start-$$
[ "$(id -u)" = 0 ] || { echo "start benchmark: needs root"; exit 1; }
mkdir -p "$RUN"
DAEMON=
cleanup() {
  [ -n "$DAEMON" ] && kill "$DAEMON" 2>/dev/null && wait "$DAEMON" 2>/dev/null
  ip netns del "$NS" 2>/dev/null
  rm -rf "$RUN"
}
trap cleanup EXIT
source "$(dirname "$0")/../examples/scale-lab.sh"
now() { date +%s.%N; }
since() { awk -v a="$1" -v b="$(now)" 'BEGIN {printf "%.3f", b - a}'; }

# Starts waymarkd with EXECUTOR; TOOK is the seconds to idle.
run_waymarkd() {  # EXECUTOR
  local t0
  sed -i "s/^  command-executor: .*/  command-executor: $1/" "$RUN/c.yaml"
  t0=$(now)
  ip netns exec "$NS" "$WAYMARKD" --config "$RUN/c.yaml" --socket "$RUN/s.sock" \
    --state "$RUN/state.json" --trace-level 0 >"$RUN/d.log" 2>&1 &
  DAEMON=$!
  "$WAYMARKCTL" --socket "$RUN/s.sock" wait-idle --timeout 3600 >/dev/null
  TOOK=$(since "$t0")
}
stop_waymarkd() { kill "$DAEMON"; wait "$DAEMON" 2>/dev/null; DAEMON=; }
fresh() { rm -f "$RUN"/state.json*; scale_namespace "$NS"; }
mangle_lines() { ip netns exec "$NS" sh -c 'iptables -t mangle -S; ip6tables -t mangle -S' | grep -c '^-A PBR_'; }

generate_one_policy "$S" "$N" "$C" "$RUN/c.yaml"
fresh
run_waymarkd shell; shell=$TOOK
stop_waymarkd
fresh
run_waymarkd netlink; netlink=$TOOK
[ "$(mangle_lines)" = $((2 * S)) ] || echo "waymarkd left $(mangle_lines) rules, expected $((2 * S))"
save_final_state "$NS" "$RUN"
stop_waymarkd
run_waymarkd netlink; restart=$TOOK
stop_waymarkd
fresh
l0=$(now)
load_final_state "$NS" "$RUN"
limit=$(since "$l0")
[ "$(mangle_lines)" = $((2 * S)) ] || echo "the limit loaded $(mangle_lines) rules, expected $((2 * S))"
echo "start: $S sub-rules, $C classes, $N nexthops: waymarkd rtnetlink $netlink s, shell $shell s, restart $restart s; limit $limit s"
awk -v n="$netlink" -v s="$shell" -v r="$restart" -v l="$limit" \
  'BEGIN {printf "ratios to the limit: rtnetlink %.2fx, shell %.2fx, restart %.2fx\n", n / l, s / l, r / l}'
