#!/usr/bin/env bash
# Netlink overrun: while waymarkd is stopped (SIGSTOP, as busy as a daemon
# can be), an interface goes through CHANGES address additions and removals,
# far more than its netlink socket buffers. After it resumes, the daemon's
# view of the interface's addresses must equal the kernel's.
# Ends with "N passed, N failed" and an "overrun:" figures line.
# Usage: tests/reliability/overrun.sh BUILD [CHANGES]
set -uo pipefail
BUILD=${1:-build} CHANGES=${2:-10000}
WAYMARKD=$BUILD/daemon/waymarkd
WAYMARKCTL=$BUILD/cli/waymarkctl
LAB=wmovr$$
NS=$LAB-router
RUN=/run/waymark-overrun-$$
HERE=$(cd "$(dirname "$0")" && pwd)
in_ns() { shift; ip netns exec "$NS" "$@"; }
source "$HERE/../e2e/checks.sh"
require_namespaces "overrun"
DAEMON=
cleanup() {
  [ -n "$DAEMON" ] && kill -CONT "$DAEMON" 2>/dev/null && kill "$DAEMON" 2>/dev/null
  ip netns del "$NS" 2>/dev/null
  rm -rf "$RUN"
}
trap cleanup EXIT
mkdir -p "$RUN"
ctl() { "$WAYMARKCTL" --socket "$RUN/s.sock" "$@"; }

ip netns add "$NS"
ip netns exec "$NS" ip link add d0 type veth peer name d1
ip netns exec "$NS" ip link set d1 up
ip netns exec "$NS" ip link set d0 up
printf "policy-maps: {}\ninterfaces: {}\n" > "$RUN/empty.yaml"
ip netns exec "$NS" "$WAYMARKD" --config "$RUN/empty.yaml" --socket "$RUN/s.sock" \
  --state "$RUN/state.json" --trace-level 0 >"$RUN/d.log" 2>&1 &
DAEMON=$!
ctl wait-idle >/dev/null

# Addresses of the documentation ranges, added and removed in rounds; the
# last round leaves some in place.
pool=()
for net in 192.0.2 198.51.100 203.0.113; do for h in $(seq 1 250); do pool+=("$net.$h/32"); done; done
# BURST changes while the daemon is stopped, then the comparison. The
# second burst, five times larger, overflows any socket buffer the kernel
# grants, so that the re-dump is exercised whatever the first one did.
burst() {
  local changes=$1 made=${#pool[@]} a
  {
    while [ $((made + 2 * ${#pool[@]})) -le "$changes" ]; do
      for a in "${pool[@]}"; do echo "address add $a dev d0"; done
      for a in "${pool[@]}"; do echo "address del $a dev d0"; done
      made=$((made + 2 * ${#pool[@]}))
    done
    for a in "${pool[@]}"; do echo "address add $a dev d0"; done
  } > "$RUN/changes.batch"
  ip netns exec "$NS" ip address flush dev d0
  kill -STOP "$DAEMON"
  ip netns exec "$NS" ip -batch "$RUN/changes.batch"
  ip netns exec "$NS" ip address del 192.0.2.1/32 dev d0
  kill -CONT "$DAEMON"
  ctl wait-idle >/dev/null
  kernel=$(ip netns exec "$NS" ip -4 -o address show dev d0 | awk '{print $4}' | sort)
  status=$(ctl status --json | tr -d ' \n')
  redumps=$(echo "$status" | grep -o '"netlinkRedumps":[0-9]*' | cut -d: -f2)
  daemon=$(echo "$status" | grep -o '"d0":\[[^]]*\]' | sed 's/^"d0"://' | tr -d '"[]' | tr ',' '\n' | sort)
  check "$changes changes: the daemon's addresses equal the kernel's ($(echo "$kernel" | wc -l))" "$daemon" "$kernel"
  check "$changes changes: the daemon still serves" "$(ctl status >/dev/null 2>&1 && echo yes)" yes
  echo "overrun: $(($(wc -l < "$RUN/changes.batch") + 2)) address changes while stopped, $redumps re-dumps in all"
}
burst "$CHANGES"
burst $((CHANGES * 5))
check "the daemon saw an overrun and dumped again" "$([ "${redumps:-0}" -ge 1 ] && echo yes)" yes
finish
