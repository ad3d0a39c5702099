#!/usr/bin/env bash
# Health checks end to end, with real traffic (examples/lab.sh): a nexthop
# that stops answering is withdrawn and its classes fail over in both
# families within down-after x interval + timeout + 0.5 s, and come back
# within up-after x interval + 0.5 s; a remote target counts only when it
# answers through its nexthop; a nexthop whose address goes away on the far
# side is withdrawn; random loss of a fifth of the probes withdraws nothing.
# The times are the daemon's own (its events' uptime), measured from a status
# read before each change. Ends with "N passed, N failed"; needs root.
set -uo pipefail
BUILD=${1:-build}
WAYMARKD=$BUILD/daemon/waymarkd
WAYMARKCTL=$BUILD/cli/waymarkctl
LAB=wmhc$$
RUN=/run/waymark-health-$$
CONFIG=$RUN/health.yaml
source "$(dirname "$0")/../../examples/lab.sh"

source "$(dirname "$0")/checks.sh"
require_namespaces "health-check e2e"
trap lab_destroy EXIT

mkdir -p "$RUN"
lab_steer_config "$CONFIG" 198.51.100.2 198.51.100.66
CHECK="interval: 0.2, timeout: 0.3, down-after: 3, up-after: 3"
# nh2's remote target: beyond nh2, and beyond dflt, where the main table
# sends it.
TARGET=203.0.113.100
cat >> "$CONFIG" <<YAML
health-checks:
  198.51.100.2: {$CHECK}
  '2001:db8:2::2': {$CHECK}
  198.51.100.66: {targets: [$TARGET], $CHECK}
YAML
DOWN_BOUND=1.4  # 3 x 0.2 + 0.3 + 0.5
UP_BOUND=1.1    # 3 x 0.2 + 0.5

lab_create
in_ns nh2 ip addr add $TARGET/32 dev lo
in_ns dflt ip addr add $TARGET/32 dev lo
lab_start_daemon "$CONFIG"

nexthop() {  # ADDRESS FIELD...: the nexthop's status fields, space-separated
  local address=$1
  shift
  lab_ctl status --json | jq -r --arg a "$address" --arg f "$*" \
    '.nexthops[] | select(.address == $a) | [($f | split(" "))[] as $k | getpath($k | split(".")) | tostring] | join(" ")'
}
echo_filter() {  # -I|-D HOST [MATCH...]: drops or lets through the host's echo requests
  local op=$1 host=$2
  shift 2
  in_ns "$host" iptables "$op" INPUT -p icmp --icmp-type echo-request "$@" -j DROP
  in_ns "$host" ip6tables "$op" INPUT -p ipv6-icmp --icmpv6-type echo-request "$@" -j DROP
}

echo "== every checked nexthop answers at first"
wait_for 20 '[ "$(nexthop 198.51.100.66 healthCheck.lastRound)" = answered ]'
check "nh1 is up and answered (IPv4)" "$(nexthop 198.51.100.2 health healthCheck.lastRound)" "up answered"
check "nh1 is up and answered (IPv6)" "$(nexthop 2001:db8:2::2 health healthCheck.lastRound)" "up answered"
check "nh2's remote target answers through nh2" "$(nexthop 198.51.100.66 health)" up
check "an unchecked nexthop says so" "$(nexthop 2001:db8:3::2 health)" "not checked"
check "web goes to nh1 (IPv4)" "$(lab_arrived 4 tcp 80)" nh1
check "web goes to nh1 (IPv6)" "$(lab_arrived 6 tcp 80)" nh1

echo "== a nexthop that drops echo requests while its link stays up"
t0=$(uptime_now)
echo_filter -I nh1
check "IPv4 web fails over within $DOWN_BOUND s" \
  "$(within "$t0" 'class web: nexthop 198.51.100.2 -> 198.51.100.66' $DOWN_BOUND)" yes
check "IPv6 web fails over within $DOWN_BOUND s" \
  "$(within "$t0" 'class web6: nexthop 2001:db8:2::2 -> 2001:db8:3::2' $DOWN_BOUND)" yes
check "IPv4 web traffic reaches nh2" "$(lab_arrived 4 tcp 80)" nh2
check "IPv6 web traffic reaches nh2" "$(lab_arrived 6 tcp 80)" nh2
check "nh1 is down and keeps its table and rule" "$(nexthop 198.51.100.2 health programmed)" "down true"
check "the event says why" \
  "$(lab_ctl events | grep -c 'nexthop 198.51.100.2 down: no answer from 198.51.100.2 in 3 rounds in a row')" 1
check "the metric says it is down" \
  "$(lab_ctl metrics | grep -c '^waymark_nexthop_up{nexthop="198.51.100.2"} 0')" 1
t1=$(uptime_now)
echo_filter -D nh1
check "IPv4 web comes back within $UP_BOUND s" \
  "$(within "$t1" 'class web: nexthop 198.51.100.66 -> 198.51.100.2' $UP_BOUND)" yes
check "IPv6 web comes back within $UP_BOUND s" \
  "$(within "$t1" 'class web6: nexthop 2001:db8:3::2 -> 2001:db8:2::2' $UP_BOUND)" yes
check "IPv4 web traffic reaches nh1 again" "$(lab_arrived 4 tcp 80)" nh1
check "IPv6 web traffic reaches nh1 again" "$(lab_arrived 6 tcp 80)" nh1

echo "== a remote target counts only through its nexthop"
# The main table sends the target to dflt, which answers; through nh2 nobody
# does now.
t2=$(uptime_now)
in_ns nh2 ip addr del $TARGET/32 dev lo
check "nh2 is withdrawn: its target answers only the other way" \
  "$(within "$t2" 'class dns: nexthop 198.51.100.66 -> none' $DOWN_BOUND)" yes
check "DNS, whose only nexthop is down, follows the normal route" "$(lab_arrived 4 udp 53)" dflt
t3=$(uptime_now)
in_ns nh2 ip addr add $TARGET/32 dev lo
check "nh2 comes back when its target answers through it" \
  "$(within "$t3" 'class dns: nexthop none -> 198.51.100.66' $UP_BOUND)" yes
check "DNS reaches nh2 again" "$(lab_arrived 4 udp 53)" nh2

echo "== a nexthop whose address goes away on the far side"
t4=$(uptime_now)
in_ns nh1 ip addr del 198.51.100.2/26 dev nh1-router
in_ns nh1 ip addr del 2001:db8:2::2/64 dev nh1-router
check "IPv4: withdrawn" "$(within "$t4" 'nexthop 198.51.100.2 down' $DOWN_BOUND)" yes
check "IPv6: withdrawn" "$(within "$t4" 'nexthop 2001:db8:2::2 down' $DOWN_BOUND)" yes
check "the router's own subnet did not change: no withdrawal for that" \
  "$(lab_ctl events | grep -c 'withdrawn: outside every connected subnet')" 0
t5=$(uptime_now)
in_ns nh1 ip addr add 198.51.100.2/26 dev nh1-router
in_ns nh1 ip addr add 2001:db8:2::2/64 dev nh1-router nodad
check "IPv4: back once it answers" "$(within "$t5" 'nexthop 198.51.100.2 up' 10)" yes
check "IPv6: back once it answers" "$(within "$t5" 'nexthop 2001:db8:2::2 up' 10)" yes
check "IPv4 web traffic reaches nh1" "$(lab_arrived 4 tcp 80)" nh1

echo "== a fifth of the probes lost at random"
t6=$(uptime_now)
rounds=$(nexthop 198.51.100.2 healthCheck.rounds)
echo_filter -I nh1 -m statistic --mode random --probability 0.2
wait_for 60 '[ "$(nexthop 198.51.100.2 healthCheck.rounds)" -ge $((rounds + 60)) ]'
check "sixty rounds later nh1 never went down" \
  "$(lab_ctl events --json | jq --argjson t "$t6" '[.events[] | select(.uptime >= $t and .kind == "nexthop-down")] | length')" 0
check "...although echo requests were dropped" \
  "$(in_ns nh1 iptables -L INPUT -v -x -n | awk '/statistic/ {print ($1 > 0)}')" 1
echo_filter -D nh1 -m statistic --mode random --probability 0.2

finish
