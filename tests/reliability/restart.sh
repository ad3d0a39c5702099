#!/usr/bin/env bash
# Restart without a gap: a steady UDP stream (a datagram every 2 ms) to a
# steered class runs while waymarkd is stopped (SIGTERM, then kill -9) and
# started again. Every datagram must keep going to the class's nexthop: with
# the rtnetlink executor none may go another way; with the shell executor no
# more than one nexthop's command sequence's worth (its rule and route are
# replaced in place), measured from the daemon's own programming time.
# Ends with "N passed, N failed" and one "restart:" figures line per run.
# Usage: tests/reliability/restart.sh BUILD
set -uo pipefail
BUILD=${1:-build}
WAYMARKD=$BUILD/daemon/waymarkd
WAYMARKCTL=$BUILD/cli/waymarkctl
STREAM=$BUILD/tests/udp_stream
LAB=wmrestart$$
RUN=/run/waymark-restart-$$
HERE=$(cd "$(dirname "$0")" && pwd)
source "$HERE/../../examples/lab.sh"
source "$HERE/../e2e/checks.sh"
require_namespaces "restart"
STREAMER=
stop_stream() { [ -n "$STREAMER" ] && kill "$STREAMER" 2>/dev/null; wait "$STREAMER" 2>/dev/null; STREAMER=; }
trap 'stop_stream; lab_destroy' EXIT
mkdir -p "$RUN"

# Waits, at most 30 s, until HOST has received COUNT more datagrams than
# BEFORE; says what it waited for when it runs out.
await_arrivals() {  # HOST BEFORE COUNT
  local i
  for i in $(seq 1500); do
    [ "$(lab_seen "$1" 4)" -ge $(($2 + $3)) ] && return 0
    sleep 0.02
  done
  echo "gave up after 30 s waiting for $3 datagrams at $1" >&2
  return 1
}

# One run: EXECUTOR, the signal that stops the daemon.
run() {  # EXECUTOR SIGNAL
  local executor=$1 signal=$2 nh1 nh2 dflt per diverted allowed
  lab_steer_config "$RUN/c.yaml" 198.51.100.2 198.51.100.66
  printf 'tunables:\n  command-executor: %s\n' "$executor" >> "$RUN/c.yaml"
  lab_start_daemon "$RUN/c.yaml" >/dev/null
  before=$(kernel_state)
  nh2=$(lab_seen nh2 4)
  ip netns exec "$LAB-client" "$STREAM" "$SERVICE4" 53 2 > "$RUN/sent" &
  STREAMER=$!
  check "$executor: the stream goes to nh2 before the restart" \
    "$(await_arrivals nh2 "$nh2" 25 && echo yes)" yes
  # Counted from here: every datagram sent so far has landed somewhere.
  nh1=$(lab_seen nh1 4) dflt=$(lab_seen dflt 4)
  kill "-$signal" "$DAEMON"; wait "$DAEMON" 2>/dev/null; DAEMON=
  lab_start_daemon "$RUN/c.yaml" >/dev/null
  local after_start
  after_start=$(lab_seen nh2 4)
  await_arrivals nh2 "$after_start" 25
  stop_stream
  local to_nh1=$(( $(lab_seen nh1 4) - nh1 )) to_dflt=$(( $(lab_seen dflt 4) - dflt ))
  diverted=$((to_nh1 + to_dflt))
  # One nexthop's command sequence, in datagrams: the daemon's programming
  # time per nexthop, over the 2 ms of the stream, and one more.
  per=$(lab_ctl counters --json | tr -d ' \n' | grep -o '"nexthops":{[^}]*}' |
        awk -F'[:,}]' '{for (i = 1; i <= NF; i++) {if ($i ~ /"nexthopsAdded"/) a = $(i + 1); if ($i ~ /"totalProgrammingTime"/) t = $(i + 1)}} END {printf "%d", (a > 0 ? t / a / 0.002 : 0) + 1}')
  allowed=0
  [ "$executor" = shell ] && allowed=$per
  check "$executor, $signal: at most $allowed of the stream went another way" \
    "$([ "$diverted" -le "$allowed" ] && echo yes || echo "$diverted went another way")" yes
  check "$executor, $signal: every nexthop keeps its rule, table and marks" "$(kernel_state)" "$before"
  check "$executor, $signal: the journal holds no more than is in the kernel" \
    "$(lab_ctl status --json | tr -d ' \n' | grep -o '"numbersHeld":[0-9]*' | cut -d: -f2)" \
    "$(( $(rules | grep -c fwmark) * 2 ))"
  if [ "$diverted" -gt "$allowed" ]; then
    echo "-- the restarted daemon's log:"; tail -20 "$RUN/waymarkd.log"
  fi
  echo "restart: $executor, SIG$signal: $(cat "$RUN/sent") datagrams sent, $diverted went another way ($to_nh1 to nh1, $to_dflt to the default route; one sequence: $per)"
  lab_stop_daemon
  ip netns exec "$LAB-router" "$WAYMARKD" --cleanup --state "$RUN/state.json" >/dev/null 2>&1
}

lab_create
for executor in ${EXECUTORS:-netlink shell}; do
  run "$executor" TERM
  run "$executor" KILL
done
finish
