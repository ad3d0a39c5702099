#!/usr/bin/env bash
# Drift end to end, with real traffic (examples/lab.sh): a rule or a table
# of a programmed nexthop removed from outside, a policy chain flushed and a
# whole `nft flush ruleset` are noticed and repaired within a second, and
# steered traffic returns, another tool's mangle rule untouched; resync
# rebuilds on demand; a link going down is not drift; a tool that keeps
# deleting waymark's rule meets the rate limit, not a loop, and a reload
# repairs again. Ends with "N passed, N failed"; needs root.
set -uo pipefail
BUILD=${1:-build}
WAYMARKD=$BUILD/daemon/waymarkd
WAYMARKCTL=$BUILD/cli/waymarkctl
LAB=wmdr$$
RUN=/run/waymark-drift-$$
CONFIG=$RUN/drift.yaml
source "$(dirname "$0")/../../examples/lab.sh"

source "$(dirname "$0")/checks.sh"
require_namespaces "drift e2e"
trap lab_destroy EXIT

mkdir -p "$RUN"
lab_steer_config "$CONFIG" 198.51.100.2 198.51.100.66
lab_create
lab_start_daemon "$CONFIG"

field() { lab_ctl status --json | jq -r "$1"; }
nexthop() { field ".nexthops[] | select(.address == \"$1\") | .$2"; }
drift_events() { lab_ctl events --json | jq --argjson t "$1" '[.events[] | select(.uptime >= $t and .kind == "drift")] | length'; }

check "status: no drift at first" "$(field .drift)" none
check "web goes to nh1" "$(lab_arrived 4 tcp 80)" nh1

echo "== a rule deleted from outside"
priority=$(nexthop 198.51.100.2 priority)
t0=$(uptime_now)
in_ns router ip rule del priority "$priority"
check "noticed and put back within 1 s" \
  "$(within "$t0" 'rule of nexthop 198.51.100.2 .* put back' 1.0)" yes
check "the rule is back" "$(in_ns router ip rule | grep -c "^$priority:")" 1
check "web traffic reaches nh1 again" "$(lab_arrived 4 tcp 80)" nh1
check "status: no drift left" "$(field .drift)" none
check "the repair is counted" "$(field .daemon.driftRepairs)" 1
check "...and is a metric" "$(lab_ctl metrics | grep -c '^waymark_drift_repairs_total 1')" 1
check "...and a log line" "$(grep -c 'rule of nexthop 198.51.100.2 .* put back' "$RUN/waymarkd.log")" 1

echo "== a table flushed from outside (IPv4 and IPv6)"
table=$(nexthop 198.51.100.2 table)
table6=$(nexthop 2001:db8:2::2 table)
t1=$(uptime_now)
in_ns router ip route flush table "$table"
in_ns router ip -6 route flush table "$table6"
check "IPv4 route put back within 1 s" "$(within "$t1" 'route of nexthop 198.51.100.2 .* put back' 1.0)" yes
check "IPv6 route put back within 1 s" "$(within "$t1" 'route of nexthop 2001:db8:2::2 .* put back' 1.0)" yes
check "IPv4 web traffic reaches nh1" "$(lab_arrived 4 tcp 80)" nh1
check "IPv6 web traffic reaches nh1" "$(lab_arrived 6 tcp 80)" nh1

echo "== a policy chain flushed from outside"
# Another tool's rule in the mangle table, which no rebuild may touch.
in_ns router iptables -t mangle -A PREROUTING -s 192.0.2.250 -j ACCEPT
chain=$(in_ns router iptables -t mangle -S | awk '/^-N PBR_/ { print $2; exit }')
t5=$(uptime_now)
in_ns router iptables -t mangle -F "$chain"
check "rebuilt within 1 s" "$(within "$t5" 'mangle tables rebuilt in place' 1.0)" yes
check "the drift names the chain" \
  "$(within "$t5" "mangle tables changed from outside: IPv4: rules missing or added: $chain" 1.0)" yes
check "web traffic reaches nh1 again" "$(lab_arrived 4 tcp 80)" nh1
check "DNS reaches nh2 again" "$(lab_arrived 4 udp 53)" nh2
check "the other tool's rule is still there" \
  "$(in_ns router iptables -t mangle -S PREROUTING | grep -c -- '-s 192.0.2.250/32 -j ACCEPT')" 1
check "status: no drift left" "$(field .drift)" none

echo "== the whole ruleset flushed, as a firewall's reload does"
t6=$(uptime_now)
in_ns router nft flush ruleset
check "rebuilt within 1 s" "$(within "$t6" 'mangle tables rebuilt in place' 1.0)" yes
check "IPv4 web traffic reaches nh1" "$(lab_arrived 4 tcp 80)" nh1
check "IPv6 web traffic reaches nh1" "$(lab_arrived 6 tcp 80)" nh1
check "status: no drift left" "$(field .drift)" none
check "drift and repairs are metrics" \
  "$(lab_ctl metrics | grep -cE '^waymark_drift_(detected|repairs)_total [1-9]')" 2

echo "== resync on demand"
t7=$(uptime_now)
check "waymarkctl resync" "$(lab_ctl resync)" "resynced; drift: none"
check "it rebuilt in place" "$(event_at 'mangle tables rebuilt in place' "$t7" | grep -c .)" 1
check "web traffic reaches nh1" "$(lab_arrived 4 tcp 80)" nh1

echo "== a link going down is not drift"
t2=$(uptime_now)
in_ns router ip link set r-nh2 down
lab_settle
check "nh2 withdrawn" "$(nexthop 198.51.100.66 state)" "outside every connected subnet"
in_ns router ip link set r-nh2 up
lab_settle
check "nh2 programmed again" "$(nexthop 198.51.100.66 state)" programmed
check "no drift was seen" "$(drift_events "$t2")" 0
check "DNS reaches nh2" "$(lab_arrived 4 udp 53)" nh2

echo "== a tool that keeps deleting waymark's rule"
t3=$(uptime_now)
# The fighting tool deletes the rule ten times a second for four seconds.
in_ns router bash -c "for i in \$(seq 40); do ip rule del priority $priority 2>/dev/null; sleep 0.1; done" &
fighter=$!
check "the rate limit stops the repairs" "$(within "$t3" 'drift repairs stopped' 10)" yes
wait "$fighter"
check "status says repairs stopped" "$(field .daemon.driftRepairsStopped)" true
check "status names what is missing" \
  "$(field .drift | grep -c 'rule of nexthop 198.51.100.2 .* missing')" 1
check "at most the limit of repairs in that minute" \
  "$(lab_ctl events --json | jq --argjson t "$t3" '[.events[] | select(.uptime >= $t and (.text | test("put back")))] | length <= 10')" true
check "waymarkd goes on serving" "$(lab_ctl wait-idle --timeout 10 >/dev/null && echo yes)" yes
t4=$(uptime_now)
lab_ctl reload >/dev/null
check "a reload repairs again" "$(within "$t4" 'rule of nexthop 198.51.100.2 .* put back' 2.0)" yes
check "status: no drift left" "$(field .drift)" none
check "web traffic reaches nh1" "$(lab_arrived 4 tcp 80)" nh1

finish
