#!/usr/bin/env bash
# waymarkd end to end: real namespaces, the real kernel, real traffic
# (examples/lab.sh). Ends with "N passed, N failed". Needs root: without it
# the test is skipped (exit 77), except under CI, where it fails.
set -uo pipefail
BUILD=${1:-build}
WAYMARKD=$BUILD/daemon/waymarkd
WAYMARKCTL=$BUILD/cli/waymarkctl
LAB=wme2e$$
RUN=/run/waymark-e2e-$$
CONFIG=$RUN/e2e.yaml
source "$(dirname "$0")/../../examples/lab.sh"

source "$(dirname "$0")/checks.sh"
require_namespaces "daemon e2e"
trap lab_destroy EXIT

chain4() { lab_ctl policies | awk '$2 == "ipv4" {print $3; exit}'; }
packets() {  # CHAIN POSITION: the packet counter of one rule
  in_ns router iptables -t mangle -L "$1" -v -x -n --line-numbers | awk -v n="$2" '$1 == n {print $2}'
}

mkdir -p "$RUN"
lab_steer_config "$CONFIG" 198.51.100.2 198.51.100.66

lab_create
METRICS=127.0.0.1:9$((RANDOM % 900 + 100))
DAEMON_ARGS="--metrics-listen $METRICS" lab_start_daemon "$CONFIG"

echo "== steering by protocol and port"
check "IPv4 TCP 80 goes to the primary" "$(lab_arrived 4 tcp 80)" nh1
check "IPv4 UDP 53 goes to its class's nexthop" "$(lab_arrived 4 udp 53)" nh2
check "IPv4 TCP 8080 follows the default route" "$(lab_arrived 4 tcp 8080)" dflt
check "IPv6 TCP 80 goes to the primary" "$(lab_arrived 6 tcp 80)" nh1
check "IPv6 UDP 53 follows the default route" "$(lab_arrived 6 udp 53)" dflt

echo "== operator insight: per-class traffic and events"
check "the lab's configuration has no warnings" \
  "$("$WAYMARKD" --check --config "$CONFIG" | grep -c warning)" 0
class_packets() {  # CLASS FAMILY: the class's packets as waymarkctl counters reads them
  lab_ctl counters | awk -v c="$1" -v f="$2" '$3 == c && $2 == f {print $4}'
}
web_before=$(class_packets web ipv4)
lab_send 4 tcp 80 5
check "counters: the web class counted the kernel's count of its rule" \
  "$(class_packets web ipv4)" "$(packets "$(chain4)" 1)"
check "counters: ...which grew by the packets sent" \
  "$(( $(class_packets web ipv4) - web_before >= 5 ))" 1
check "counters --json has classes[]" \
  "$(lab_ctl counters --json | tr -d ' \n' | grep -o '"class":"dns"' | head -1)" '"class":"dns"'
check "events: the start's nexthops and the classes' choices" \
  "$(lab_ctl events | grep -c -e 'nexthop 198.51.100.2 programmed' -e 'class web: nexthop none -> 198.51.100.2')" 2
check "events: the same lines reached the log" \
  "$(grep -c 'class web: nexthop none -> 198.51.100.2' "$RUN/waymarkd.log")" 1

explain() { lab_ctl explain --in r-client --src 192.0.2.10 --dst "$SERVICE4" --json "$@" | tr -d '\n '; }
check "explain: web traffic names its class, rule and the nexthop it reached" \
  "$(explain --proto tcp --dport 80 --tcp-flags syn | grep -o '"class":"web".*"nexthop":"198.51.100.2"' | wc -l)" 1
check "explain: the kernel's own lookup with the mark goes to that nexthop" \
  "$(explain --proto tcp --dport 80 | grep -c 'via198.51.100.2')" 1
check "explain: traffic no class takes has no class and the normal route" \
  "$(explain --proto tcp --dport 8080 | grep -o '"class":null')" '"class":null'

scrape() { in_ns router curl -sf "http://$METRICS/metrics"; }
check "metrics: waymarkctl metrics has the web class's packets" \
  "$(lab_ctl metrics | grep -c '^waymark_class_packets_total{.*class="web"')" 1
check "metrics: ...and the endpoint serves the same names" \
  "$(wait_for 30 "scrape | grep -q 'waymark_nexthop_programmed{nexthop=\"198.51.100.2\"} 1'" && echo served)" served
check "metrics: nexthops are up" "$(scrape | grep -c '^waymark_nexthop_up{.*} 1')" 4

echo "== a dry run plans against the current kernel and changes nothing"
before=$(kernel_state)
plan=$(in_ns router "$WAYMARKD" --dry-run --config "$CONFIG" --state "$RUN/state.json" \
  --socket "$RUN/dry.sock" 2>/dev/null; echo "exit $?")
check "the dry run ends by itself" "$(echo "$plan" | tail -1)" "exit 0"
check "...prints each rule it would add once" \
  "$(echo "$plan" | grep -c 'rule add')" "$(echo "$plan" | grep 'rule add' | sort -u | wc -l)"
check "...with the numbers the nexthops hold now" \
  "$(echo "$plan" | grep -o 'rule add priority [0-9]* fwmark [0-9]* lookup [0-9]*' | awk '{print $4, $8}' | sort)" \
  "$(rules | grep -o '^[0-9]*:.*lookup [0-9]*' | grep fwmark | awk -F'[: ]+' '{print $1, $NF}' | sort)"
check "...and the kernel is as it was" "$(kernel_state)" "$before"

echo "== SIGTERM leaves the kernel programmed; a restart reaches the same state, no duplicates"
before_rules=$(rules); before_tables=$(tables); before_mangle=$(mangle)
lab_stop_daemon
check "rules stay after SIGTERM" "$(rules)" "$before_rules"
check "mangle rules stay after SIGTERM" "$(mangle)" "$before_mangle"
lab_start_daemon "$CONFIG"
check "restart: same ip rules" "$(rules)" "$before_rules"
check "restart: same nexthop tables" "$(tables)" "$before_tables"
check "restart: same mangle rules" "$(mangle)" "$before_mangle"
check "restart: one rule per nexthop" "$(rules | grep -c fwmark)" 4
check "restart: traffic still steered" "$(lab_arrived 4 tcp 80)" nh1

echo "== failover in list order and back, with routing commands as ip processes through the shell"
check "executor switched at run time" "$(lab_ctl set command-executor shell >/dev/null; lab_ctl counters | awk '$2 == "commandExecutor" {print $3}')" shell
in_ns router ip link set r-nh1 down; lab_settle
check "link down: IPv4 web moves to the backup" "$(lab_arrived 4 tcp 80)" nh2
check "events: the withdrawal and its reason" \
  "$(lab_ctl events | grep -c 'nexthop 198.51.100.2 withdrawn: outside every connected subnet')" 1
check "link down: IPv6 web moves to the backup" "$(lab_arrived 6 tcp 80)" nh2
in_ns router ip link set r-nh1 up; lab_settle
check "link up: IPv4 web returns" "$(lab_arrived 4 tcp 80)" nh1
check "link up: IPv6 web returns" "$(lab_arrived 6 tcp 80)" nh1

echo "== an address removed and re-added"
in_ns router ip addr del 198.51.100.1/26 dev r-nh1; lab_settle
check "address removed: IPv4 web moves to the backup" "$(lab_arrived 4 tcp 80)" nh2
in_ns router ip addr add 198.51.100.1/26 dev r-nh1; lab_settle
check "address back: IPv4 web returns" "$(lab_arrived 4 tcp 80)" nh1

echo "== a reload that changes one class touches only that class"
CHAIN=$(chain4)
lab_send 4 tcp 80 3
before_web=$(in_ns router iptables -t mangle -S "$CHAIN" | sed -n '2,3p')
before_count=$(packets "$CHAIN" 1)
sed -i 's/nexthops: \[198.51.100.66\]$/nexthops: [198.51.100.2]/' "$CONFIG"
check "reload accepted" "$(lab_ctl reload >/dev/null 2>&1; echo $?)" 0
lab_settle
check "web's rules keep their text and positions" \
  "$(in_ns router iptables -t mangle -S "$CHAIN" | sed -n '2,3p')" "$before_web"
check "web's counters keep counting" "$(packets "$CHAIN" 1)" "$before_count"
check "UDP 53 now goes to the new nexthop" "$(lab_arrived 4 udp 53)" nh1

echo "== a reload with an invalid file changes nothing"
before=$(mangle; rules)
cp "$CONFIG" "$RUN/good.yaml"
printf 'policy-maps:\n  steer: [nonsense]\n' >> "$CONFIG"
check "invalid reload refused" "$(lab_ctl reload >/dev/null 2>&1; echo $?)" 1
lab_settle
check "kernel unchanged after the refused reload" "$(mangle; rules)" "$before"
check "--check names the line" \
  "$("$WAYMARKD" --check --config "$CONFIG" 2>&1 | grep -oE 'e2e.yaml:[0-9]+:[0-9]+' | head -1)" \
  "e2e.yaml:21:1"
cp "$RUN/good.yaml" "$CONFIG"

echo "== signals reach the event loop, whatever thread the kernel hands them to"
for _ in $(seq 20); do kill -HUP "$DAEMON"; done
lab_settle
check "twenty SIGHUPs reload, and the daemon lives" "$(kill -0 "$DAEMON" 2>/dev/null && echo alive)" alive
check "...and still steers" "$(lab_arrived 4 tcp 80)" nh1

echo "== the control socket answers from the first moment and shows the start's phase"
lab_stop_daemon
{ cat "$CONFIG"; printf 'tunables:\n  nexthop-programming-time-limit: 0\n'; } > "$RUN/held.yaml"
rm -f "$RUN/waymarkd.sock"
ip netns exec "$LAB-router" "$WAYMARKD" --config "$RUN/held.yaml" --socket "$RUN/waymarkd.sock" \
  --state "$RUN/state.json" >>"$RUN/waymarkd.log" 2>&1 &
DAEMON=$!
phase=""; first=""
for _ in $(seq 1500); do
  phase=$(lab_ctl status --json 2>/dev/null | tr -d '\n' | grep -o '"phase": *"[^"]*"' | cut -d'"' -f4)
  [ -z "$first" ] && first=$phase
  [ "$phase" = "programming nexthops" ] && break
  sleep 0.02
done
# The file was written just now: it is read once it has been quiet.
check "the first answer is that the file is being read" "$first" "reading configuration"
check "a start held at its nexthops answers with its phase" "$phase" "programming nexthops"
check "...and is not idle" "$(lab_ctl wait-idle --timeout 0.2 >/dev/null 2>&1; echo $?)" 1
check "traffic keeps its old steering meanwhile" "$(lab_arrived 4 tcp 80)" nh1
lab_ctl set nexthop-programming-time-limit 0.5
lab_ctl wait-idle --timeout 60 >/dev/null
check "once programming may run, the start completes" \
  "$(lab_ctl status --json | tr -d '\n' | grep -o '"phase": *"[^"]*"' | cut -d'"' -f4)" running

echo "== an interface name that is not UTF-8 is data"
odd=$(printf 'x\xff\xfe'); peer=$(printf 'y\xc3')
in_ns router ip link add "$odd" type veth peer name "$peer"
in_ns router ip link set "$odd" up
in_ns router ip addr add 198.51.100.200/26 dev "$odd"
lab_ctl wait-idle --timeout 60 >/dev/null
for c in status nexthops policies counters events; do
  check "$c --json is valid JSON" "$(lab_ctl "$c" --json | jq -e . >/dev/null && echo valid)" valid
done
# The name travels as valid UTF-8, its bad bytes replaced, and so names no
# interface: the daemon says so.
check "explain of it is refused in words" "$(lab_ctl explain --in "$odd" --proto tcp \
  --src 192.0.2.10 --dst 203.0.113.200 --dport 80 --json 2>&1)" "--in must name an interface"
check "metrics are served" "$(lab_ctl metrics | grep -c '^waymark_idle ')" 1
check "the name is shown with its bad bytes replaced" \
  "$(lab_ctl status --json | jq -r '.interfaces | keys[]' | grep -c "^x$(printf '\xef\xbf\xbd')")" 1
check "the daemon still runs" "$(kill -0 "$DAEMON" && echo yes)" yes
in_ns router ip link del "$odd"

echo "== --cleanup leaves no trace"
lab_stop_daemon
in_ns router "$WAYMARKD" --cleanup --config "$CONFIG" --state "$RUN/state.json" 2>/dev/null
check "no waymark chains left" "$(mangle | grep -c -E 'PBR_|TAMBRO')" 0
check "no fwmark rules left" "$(rules | grep -c fwmark)" 0
check "no routes left in waymark's tables" \
  "$(for t in 2 3 4 5 6 7 8 9; do in_ns router ip route show table $t 2>/dev/null; done | wc -l)" 0
check "traffic follows normal routing" "$(lab_arrived 4 tcp 80)" dflt

finish
