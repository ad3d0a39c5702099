#!/usr/bin/env bash
# Sharing the router: waymarkd next to other tools' rules, tables and mangle
# rules, and next to another waymarkd. Real namespaces, the real kernel and
# real traffic (examples/lab.sh). Ends with "N passed, N failed".
# Usage: tests/e2e/sharing_e2e.sh BUILD [FLAPS]
set -uo pipefail
BUILD=${1:-build}
FLAPS=${2:-100}
WAYMARKD=$BUILD/daemon/waymarkd
WAYMARKCTL=$BUILD/cli/waymarkctl
LAB=wmshare$$
RUN=/run/waymark-share-$$
CONFIG=$RUN/c.yaml
source "$(dirname "$0")/../../examples/lab.sh"
source "$(dirname "$0")/checks.sh"
require_namespaces "sharing e2e"
trap lab_destroy EXIT
mkdir -p "$RUN"

# Another tool's policy routing, at the first priority and the first table
# waymark would otherwise take, in both families, with routes of its own.
foreign_routing() {
  in_ns router ip rule add priority 2 from 192.0.2.62 lookup 100
  in_ns router ip -6 rule add priority 2 from 2001:db8:1::62 lookup 100
  in_ns router ip route add default via 203.0.113.2 table 2
  in_ns router ip -6 route add default via 2001:db8:4::2 table 2
  in_ns router ip route add 192.0.2.0/24 via 203.0.113.2 table 100
}
reserved_priorities() {
  lab_ctl status --json | tr -d ' \n' | grep -o '"reserved":{[^}]*}' | grep -o '"priorities":\[[0-9,]*\]'
}
foreign_state() {
  in_ns router ip rule show priority 2; in_ns router ip -6 rule show priority 2
  in_ns router ip route show table 2; in_ns router ip -6 route show table 2
  in_ns router ip route show table 100
}

lab_create
lab_steer_config "$CONFIG" 198.51.100.2 198.51.100.66
foreign_routing
theirs=$(foreign_state)

echo "== another tool's rules and tables survive a start, flaps, reloads, a restart and --cleanup"
lab_start_daemon "$CONFIG"
check "after the start" "$(foreign_state)" "$theirs"
check "steering works around them" "$(lab_arrived 4 tcp 80)" nh1
check "the status names the reserved numbers" "$(reserved_priorities)" '"priorities":[2]'
for i in $(seq "$FLAPS"); do
  in_ns router ip link set r-nh1 down
  in_ns router ip link set r-nh1 up
  [ $((i % 10)) = 0 ] && lab_ctl reload >/dev/null
  [ $((i % 25)) = 0 ] && lab_settle >/dev/null
done
lab_settle
check "after $FLAPS flaps and $((FLAPS / 10)) reloads" "$(foreign_state)" "$theirs"
lab_stop_daemon
lab_start_daemon "$CONFIG"
check "after a restart" "$(foreign_state)" "$theirs"
check "steering works after the restart" "$(lab_arrived 4 tcp 80)" nh1

echo "== a rule another tool adds later is never taken"
in_ns router ip rule add priority 7 from 192.0.2.63 lookup 107
lab_settle
check "its priority is reserved" "$(reserved_priorities)" '"priorities":[2,7]'

echo "== one daemon at a time"
second=$(ip netns exec "$LAB-router" "$WAYMARKD" --config "$CONFIG" --socket "$RUN/other.sock" \
  --state "$RUN/state.json" 2>&1; echo "exit $?")
check "a second waymarkd on the same state is refused" "$(echo "$second" | tail -1)" "exit 4"
check "...and says who holds it" "$(echo "$second" | grep -c "pid $DAEMON")" 1
second=$(ip netns exec "$LAB-router" "$WAYMARKD" --config "$CONFIG" --socket "$RUN/waymarkd.sock" \
  --state "$RUN/other.json" 2>&1; echo "exit $?")
check "a second waymarkd on the same socket is refused" "$(echo "$second" | tail -1)" "exit 4"
cleanup=$(in_ns router "$WAYMARKD" --cleanup --state "$RUN/state.json" 2>&1; echo "exit $?")
check "--cleanup is refused while the daemon runs" "$(echo "$cleanup" | tail -1)" "exit 4"
check "the first daemon still answers" "$(lab_ctl status >/dev/null && echo yes)" yes
check "...still reloads" "$(lab_ctl reload)" "reloaded
changes: nothing"
check "...and still steers" "$(lab_arrived 4 tcp 80)" nh1
check "...and its socket is still there" "$([ -S "$RUN/waymarkd.sock" ] && echo yes)" yes

lab_stop_daemon
in_ns router "$WAYMARKD" --cleanup --state "$RUN/state.json" >/dev/null 2>&1
check "after --cleanup" "$(foreign_state)" "$theirs"
check "--cleanup removed waymark's own" "$(rules | grep -c fwmark)" 0

echo "== bad state paths"
refused=$(ip netns exec "$LAB-router" "$WAYMARKD" --config "$CONFIG" --socket "$RUN/other.sock" \
  --state "$RUN" 2>&1; echo "exit $?")
check "--state naming a directory is refused" "$(echo "$refused" | tail -2 | tr '\n' ' ')" \
  "waymarkd: --state names a directory, not a file: $RUN exit 1 "

echo "== a state journal naming the kernel's own rules and tables is not believed"
kernel_own() {
  in_ns router ip rule; in_ns router ip -6 rule
  in_ns router ip route show table main; in_ns router ip route show table local
  in_ns router ip -6 route show table main
}
own_before=$(kernel_own)
printf '+rule 4 0 5 255\n+rule 4 32766 5 254\n+rule 4 32767 5 253\n+rule 6 32766 5 254\n+table 4 254\n+table 4 255\n+table 6 254\n+table 4 0\n' \
  >> "$RUN/state.json.journal"
mask=$(umask); umask 000
lab_start_daemon "$CONFIG" >/dev/null
umask "$mask"
check "under umask 000 the state is the daemon's alone" \
  "$(stat -c %a "$RUN/state.json" "$RUN/state.json.journal" "$RUN/waymarkd.sock" | sort -u)" 600
rm -f "$RUN/state.json" "$RUN/state.json.journal"
wait_for 20 '[ -s "$RUN/state.json" ]'
check "a state file deleted while running is written again" \
  "$(lab_ctl events | grep -c 'or its journal was deleted or replaced: written again from memory')" 1
check "...with what the daemon holds" "$(jq '.rules | length' "$RUN/state.json")" \
  "$(lab_ctl status --json | jq '[.nexthops[] | select(.programmed)] | length')"
check "a start leaves the kernel's rules and tables" "$(kernel_own | grep -v fwmark)" "$(echo "$own_before" | grep -v fwmark)"
check "...steers" "$(lab_arrived 4 tcp 80)" nh1
check "...and says what it did not trust" "$(lab_ctl status --json | jq '.journal.problems | length')" 8
check "...as warnings too" "$(lab_ctl status --json | jq '[.warnings[] | select(test("never hands out"))] | length')" 8
lab_stop_daemon
printf '+rule 4 0 5 255\n+table 4 254\n' >> "$RUN/state.json.journal"
in_ns router "$WAYMARKD" --cleanup --state "$RUN/state.json" >/dev/null 2>&1
check "--cleanup leaves them too" "$(kernel_own | grep -v fwmark)" "$(echo "$own_before" | grep -v fwmark)"

echo "== another tool's mangle rules"
in_ns router iptables -t mangle -A FORWARD -p tcp --tcp-flags SYN,RST SYN -j TCPMSS --clamp-mss-to-pmtu
in_ns router ip6tables -t mangle -N OPERATOR
refused=$(ip netns exec "$LAB-router" "$WAYMARKD" --config "$CONFIG" --socket "$RUN/waymarkd.sock" \
  --state "$RUN/state.json" 2>&1; echo "exit $?")
check "a start is refused" "$(echo "$refused" | tail -1)" "exit 3"
check "...naming the IPv4 rule" "$(echo "$refused" | grep -c 'iptables -t mangle -A FORWARD .*TCPMSS')" 1
check "...and the IPv6 chain" "$(echo "$refused" | grep -c 'ip6tables -t mangle -N OPERATOR')" 1
check "the rule is still there" "$(in_ns router iptables -t mangle -S FORWARD | grep -c TCPMSS)" 1
printf 'mangle-table: take-over\n' >> "$CONFIG"
lab_start_daemon "$CONFIG"
check "with take-over the start goes ahead" "$(lab_arrived 4 tcp 80)" nh1
check "...and the log names what it flushed" \
  "$(grep -c 'taking over the mangle table, flushing: iptables -t mangle -A FORWARD .*TCPMSS' "$RUN/waymarkd.log")" 1
finish
