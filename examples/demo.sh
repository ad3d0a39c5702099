#!/usr/bin/env bash
# waymark's demo: a lab of network namespaces in which waymarkd steers a
# client's web traffic to a primary nexthop, fails over to the backup when
# the primary's link goes down, and comes back. IPv4 and IPv6. Needs root;
# removes everything it made, whatever happens.
#
#   client --- router --+-- nh1   (primary nexthop)   198.51.100.2,  2001:db8:2::2
#                       +-- nh2   (backup nexthop)    198.51.100.66, 2001:db8:3::2
#                       +-- dflt  (normal default)    203.0.113.2,   2001:db8:4::2
#
# Every host behind the router answers for the service address 203.0.113.200
# (2001:db8:ff::200); the story is which of them the client's packets reach.
set -euo pipefail
BUILD=${1:-build}
WAYMARKD=$BUILD/daemon/waymarkd
WAYMARKCTL=$BUILD/cli/waymarkctl
P=wmdemo$$
RUN=/run/waymark-demo-$$
SOCK=$RUN/waymarkd.sock
SERVICE4=203.0.113.200
SERVICE6=2001:db8:ff::200
DAEMON=

cleanup() {
  [ -n "$DAEMON" ] && kill "$DAEMON" 2>/dev/null && wait "$DAEMON" 2>/dev/null || true
  for n in client router nh1 nh2 dflt; do ip netns del "$P-$n" 2>/dev/null || true; done
  rm -rf "$RUN"
}
trap cleanup EXIT

say() { printf '\n\033[1m%s\033[0m\n' "$*"; }
in_ns() { local n=$1; shift; ip netns exec "$P-$n" "$@"; }
link() {  # link NS_A DEV_A NS_B DEV_B
  ip link add "$2" netns "$P-$1" type veth peer name "$4" netns "$P-$3"
  in_ns "$1" ip link set "$2" up
  in_ns "$3" ip link set "$4" up
}
addr() { in_ns "$1" ip addr add "$3" dev "$2" ${4:-}; }

# SYNs to the service address that each host has seen so far.
seen() {
  local host=$1 fam=$2 tool=iptables dst=$SERVICE4
  [ "$fam" = 6 ] && tool=ip6tables && dst=$SERVICE6
  in_ns "$host" "$tool" -t mangle -L PREROUTING -v -x -n | awk -v d="$dst" '$0 ~ d {print $1; exit}'
}
# Sends `count` connection attempts from the client to the service port.
send() {
  local fam=$1 port=$2 count=${3:-5} dst=$SERVICE4
  [ "$fam" = 6 ] && dst=$SERVICE6
  for _ in $(seq "$count"); do
    in_ns client timeout 1 bash -c "echo > /dev/tcp/$dst/$port" 2>/dev/null || true
  done
}
# Sends traffic and says on which host it arrived.
arrived() {
  local fam=$1 port=$2 before=() host
  for host in nh1 nh2 dflt; do before+=("$(seen $host "$fam")"); done
  send "$fam" "$port"
  local i=0 where=""
  for host in nh1 nh2 dflt; do
    [ "$(seen $host "$fam")" -gt "${before[$i]}" ] && where="$where $host"
    i=$((i + 1))
  done
  echo "${where# }"
}
expect() {  # expect WHAT GOT WANTED
  if [ "$2" = "$3" ]; then
    printf '  %-52s -> %s\n' "$1" "$2"
  else
    printf '  %-52s -> %s (expected %s)\n' "$1" "${2:-nowhere}" "$3"
    FAILED=1
  fi
}

FAILED=0
[ "$(id -u)" = 0 ] || { echo "make demo needs root (network namespaces)"; exit 1; }
[ -x "$WAYMARKD" ] || { echo "build first: $WAYMARKD is missing"; exit 1; }
mkdir -p "$RUN"

say "Building the lab: a client, a router and three hosts behind it"
for n in client router nh1 nh2 dflt; do
  ip netns add "$P-$n"
  in_ns "$n" ip link set lo up
done
link client c-router router r-client
link router r-nh1 nh1 nh1-router
link router r-nh2 nh2 nh2-router
link router r-dflt dflt dflt-router
addr client c-router 192.0.2.10/26;       addr client c-router 2001:db8:1::10/64 nodad
addr router r-client 192.0.2.1/26;        addr router r-client 2001:db8:1::1/64 nodad
addr router r-nh1 198.51.100.1/26;        addr router r-nh1 2001:db8:2::1/64 nodad
addr router r-nh2 198.51.100.65/26;       addr router r-nh2 2001:db8:3::1/64 nodad
addr router r-dflt 203.0.113.1/26;        addr router r-dflt 2001:db8:4::1/64 nodad
addr nh1 nh1-router 198.51.100.2/26;      addr nh1 nh1-router 2001:db8:2::2/64 nodad
addr nh2 nh2-router 198.51.100.66/26;     addr nh2 nh2-router 2001:db8:3::2/64 nodad
addr dflt dflt-router 203.0.113.2/26;     addr dflt dflt-router 2001:db8:4::2/64 nodad
in_ns client ip route add default via 192.0.2.1
in_ns client ip -6 route add default via 2001:db8:1::1
in_ns router sysctl -qw net.ipv4.ip_forward=1 net.ipv6.conf.all.forwarding=1
# A router keeps its IPv6 addresses while a link is down, as it does IPv4 ones.
for dev in r-client r-nh1 r-nh2 r-dflt; do
  in_ns router sysctl -qw net.ipv6.conf.$dev.keep_addr_on_down=1
done
in_ns router ip route add default via 203.0.113.2
in_ns router ip -6 route add default via 2001:db8:4::2
for h in nh1 nh2 dflt; do
  in_ns "$h" ip addr add $SERVICE4/32 dev lo
  in_ns "$h" ip -6 addr add $SERVICE6/128 dev lo
  in_ns "$h" iptables -t mangle -A PREROUTING -d $SERVICE4 -p tcp --syn
  in_ns "$h" ip6tables -t mangle -A PREROUTING -d $SERVICE6 -p tcp --syn
  in_ns "$h" sysctl -qw net.ipv4.conf.all.rp_filter=0
done
in_ns nh1 ip route add default via 198.51.100.1;  in_ns nh1 ip -6 route add default via 2001:db8:2::1
in_ns nh2 ip route add default via 198.51.100.65; in_ns nh2 ip -6 route add default via 2001:db8:3::1
in_ns dflt ip route add default via 203.0.113.1;  in_ns dflt ip -6 route add default via 2001:db8:4::1

say "Starting waymarkd on the router with examples/lab.yaml"
sed 's/^/  /' examples/lab.yaml | grep -v '^  #'
in_ns router "$WAYMARKD" --config examples/lab.yaml --socket "$SOCK" --state "$RUN/state.json" \
  >"$RUN/waymarkd.log" 2>&1 &
DAEMON=$!
for _ in $(seq 50); do [ -S "$SOCK" ] && break; sleep 0.1; done
"$WAYMARKCTL" --socket "$SOCK" wait-idle --timeout 10

say "Web traffic is steered to the primary nexthop; other traffic follows the default route"
expect "IPv4 web (TCP 80) from the client reaches" "$(arrived 4 80)" nh1
expect "IPv6 web (TCP 80) from the client reaches" "$(arrived 6 80)" nh1
expect "IPv4 other traffic (TCP 8080) reaches" "$(arrived 4 8080)" dflt
expect "IPv6 other traffic (TCP 8080) reaches" "$(arrived 6 8080)" dflt

say "The primary's link goes down: waymark withdraws it and the backup takes over"
in_ns router ip link set r-nh1 down
sleep 0.3; "$WAYMARKCTL" --socket "$SOCK" wait-idle --timeout 10
expect "IPv4 web reaches" "$(arrived 4 80)" nh2
expect "IPv6 web reaches" "$(arrived 6 80)" nh2

say "The link comes back: traffic returns to the primary"
in_ns router ip link set r-nh1 up
for _ in $(seq 50); do
  in_ns router ip -6 addr show dev r-nh1 tentative | grep -q inet6 || break; sleep 0.1
done
sleep 0.3; "$WAYMARKCTL" --socket "$SOCK" wait-idle --timeout 10
expect "IPv4 web reaches" "$(arrived 4 80)" nh1
expect "IPv6 web reaches" "$(arrived 6 80)" nh1

say "waymarkctl status"
"$WAYMARKCTL" --socket "$SOCK" status | sed 's/^/  /'

say "Removing the lab"
if [ "$FAILED" = 0 ]; then
  echo "verdict: PASS - waymark steered IPv4 and IPv6 web traffic, failed over and came back"
else
  echo "verdict: FAIL - see the lines marked 'expected' above"
fi
exit "$FAILED"
