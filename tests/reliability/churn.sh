#!/usr/bin/env bash
# Churn: link flaps and reloads that alternate two configurations, many
# times over, in bursts of 100 rounds. Memory must stay flat (RSS after the
# first burst and at the end within 5%), no descriptor or child process may be left behind, and the final
# kernel state must equal a clean start's with the same configuration.
# Ends with "N passed, N failed" and a "churn:" figures line.
# Usage: tests/reliability/churn.sh BUILD [ROUNDS]   ROUNDS a multiple of 100, at least 200
set -uo pipefail
BUILD=${1:-build} ROUNDS=${2:-1000}
WAYMARKD=$BUILD/daemon/waymarkd
WAYMARKCTL=$BUILD/cli/waymarkctl
LAB=wmchurn$$
RUN=/run/waymark-churn-$$
HERE=$(cd "$(dirname "$0")" && pwd)
source "$HERE/../../examples/lab.sh"
source "$HERE/../e2e/checks.sh"
require_namespaces "churn"
trap lab_destroy EXIT

mkdir -p "$RUN"
# The lab's configuration, with the rtnetlink executor so that rounds are
# quick; the two files swap primary and backup.
config() {  # FILE PRIMARY BACKUP
  lab_steer_config "$@"
  printf 'tunables:\n  command-executor: netlink\n' >> "$1"
}
config "$RUN/a.yaml" 198.51.100.2 198.51.100.66
config "$RUN/b.yaml" 198.51.100.66 198.51.100.2
cp "$RUN/a.yaml" "$RUN/live.yaml"

rss() { awk '/VmRSS/ {print $2}' "/proc/$DAEMON/status"; }
fds() { ls "/proc/$DAEMON/fd" | wc -l; }
children() { ps --ppid "$DAEMON" --no-headers | wc -l; }

lab_create
lab_start_daemon "$RUN/live.yaml" >/dev/null
# A first round of each, so that caches and pools have their working size.
for f in b a; do cp "$RUN/$f.yaml" "$RUN/live.yaml"; lab_ctl reload >/dev/null; done
in_ns router ip link set r-nh1 down; in_ns router ip link set r-nh1 up; lab_settle >/dev/null
rss0=$(rss) fds0=$(fds)
t0=$(date +%s.%N)
for i in $(seq "$ROUNDS"); do
  in_ns router ip link set r-nh1 down
  in_ns router ip link set r-nh1 up
  if [ $((i % 2)) = 1 ]; then cp "$RUN/b.yaml" "$RUN/live.yaml"; else cp "$RUN/a.yaml" "$RUN/live.yaml"; fi
  lab_ctl reload >/dev/null || echo "reload $i refused"
  # Rounds come in bursts of 100, each worked off before the next: memory is
  # compared between the first burst's end and the last's, so that it is
  # what the daemon keeps, not the backlog of one burst, that counts.
  if [ $((i % 100)) = 0 ]; then
    lab_ctl wait-idle --timeout 300 >/dev/null
    [ "$i" = 100 ] && rss0=$(rss)
  fi
done
sleep 0.3
check "the daemon catches up" "$(lab_ctl wait-idle --timeout 300 && echo idle)" idle
t1=$(date +%s.%N)
rss1=$(rss) fds1=$(fds)
check "RSS within 5% ($rss0 kB before, $rss1 kB after)" \
  "$(awk -v a="$rss0" -v b="$rss1" 'BEGIN {print (b <= a * 1.05) ? "flat" : "grew"}')" flat
check "no descriptor left behind ($fds0 before)" "$fds1" "$fds0"
check "no child process left behind" "$(children)" 0
check "every reload applied" "$(lab_ctl counters | awk '$2 == "reloadsFailed" {print $3}')" 0
churned=$(resolved_state)
lab_stop_daemon
lab_start_daemon "$RUN/live.yaml" >/dev/null
check "the kernel steers as after a clean start" "$churned" "$(resolved_state)"
echo "churn: $ROUNDS link flaps and $ROUNDS reloads in $(echo "$t0 $t1" | awk '{printf "%.1f", $2 - $1}') s, RSS $rss0 -> $rss1 kB, fds $fds0 -> $fds1"
finish
