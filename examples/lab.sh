# The namespace lab of waymark's demo and end-to-end tests, to be sourced.
#
#   client --- router --+-- nh1   (primary nexthop)   198.51.100.2,  2001:db8:2::2
#                       +-- nh2   (backup nexthop)    198.51.100.66, 2001:db8:3::2
#                       +-- dflt  (normal default)    203.0.113.2,   2001:db8:4::2
#
# Every host behind the router answers for the service address 203.0.113.200
# (2001:db8:ff::200) and counts the packets it receives for it; the lab tells
# which host a client's packets reached. Needs root. The caller sets LAB (a
# unique prefix) and RUN (a directory) and calls lab_destroy on exit.

SERVICE4=203.0.113.200
SERVICE6=2001:db8:ff::200
DAEMON=

in_ns() { local n=$1; shift; ip netns exec "$LAB-$n" "$@"; }

lab_link() {  # NS_A DEV_A NS_B DEV_B
  ip link add "$2" netns "$LAB-$1" type veth peer name "$4" netns "$LAB-$3"
  in_ns "$1" ip link set "$2" up
  in_ns "$3" ip link set "$4" up
}

lab_addr() { in_ns "$1" ip addr add "$3" dev "$2" ${4:-}; }

lab_create() {
  local n h
  for n in client router nh1 nh2 dflt; do
    ip netns add "$LAB-$n"
    in_ns "$n" ip link set lo up
    # Links made from here on skip duplicate address detection: their
    # link-local addresses, which neighbour discovery needs, are usable at
    # once instead of a second or two later.
    in_ns "$n" sysctl -qw net.ipv6.conf.all.accept_dad=0 net.ipv6.conf.default.accept_dad=0
  done
  lab_link client c-router router r-client
  lab_link router r-nh1 nh1 nh1-router
  lab_link router r-nh2 nh2 nh2-router
  lab_link router r-dflt dflt dflt-router
  lab_addr client c-router 192.0.2.10/26;   lab_addr client c-router 2001:db8:1::10/64 nodad
  lab_addr router r-client 192.0.2.1/26;    lab_addr router r-client 2001:db8:1::1/64 nodad
  lab_addr router r-nh1 198.51.100.1/26;    lab_addr router r-nh1 2001:db8:2::1/64 nodad
  lab_addr router r-nh2 198.51.100.65/26;   lab_addr router r-nh2 2001:db8:3::1/64 nodad
  lab_addr router r-dflt 203.0.113.1/26;    lab_addr router r-dflt 2001:db8:4::1/64 nodad
  lab_addr nh1 nh1-router 198.51.100.2/26;  lab_addr nh1 nh1-router 2001:db8:2::2/64 nodad
  lab_addr nh2 nh2-router 198.51.100.66/26; lab_addr nh2 nh2-router 2001:db8:3::2/64 nodad
  lab_addr dflt dflt-router 203.0.113.2/26; lab_addr dflt dflt-router 2001:db8:4::2/64 nodad
  in_ns client ip route add default via 192.0.2.1
  in_ns client ip -6 route add default via 2001:db8:1::1
  in_ns router sysctl -qw net.ipv4.ip_forward=1 net.ipv6.conf.all.forwarding=1
  # A router keeps its IPv6 addresses while a link is down, as it does IPv4 ones.
  for n in r-client r-nh1 r-nh2 r-dflt; do
    in_ns router sysctl -qw net.ipv6.conf.$n.keep_addr_on_down=1
  done
  in_ns router ip route add default via 203.0.113.2
  in_ns router ip -6 route add default via 2001:db8:4::2
  for h in nh1 nh2 dflt; do
    in_ns "$h" ip addr add $SERVICE4/32 dev lo
    in_ns "$h" ip -6 addr add $SERVICE6/128 dev lo
    in_ns "$h" iptables -t mangle -A PREROUTING -d $SERVICE4
    in_ns "$h" ip6tables -t mangle -A PREROUTING -d $SERVICE6
  done
  in_ns nh1 ip route add default via 198.51.100.1;  in_ns nh1 ip -6 route add default via 2001:db8:2::1
  in_ns nh2 ip route add default via 198.51.100.65; in_ns nh2 ip -6 route add default via 2001:db8:3::1
  in_ns dflt ip route add default via 203.0.113.1;  in_ns dflt ip -6 route add default via 2001:db8:4::1
  lab_links_running
}

lab_destroy() {
  lab_stop_daemon
  local n
  for n in client router nh1 nh2 dflt; do ip netns del "$LAB-$n" 2>/dev/null || true; done
  rm -rf "$RUN"
}

# Writes the lab's steering configuration to FILE: web (TCP 80) to PRIMARY
# with BACKUP behind it, DNS (UDP 53) to BACKUP, IPv6 web to nh1 then nh2.
lab_steer_config() {  # FILE PRIMARY BACKUP
  cat > "$1" <<YAML
access-lists:
  web: [permit tcp any any eq 80]
  dns: [permit udp any any eq 53]
  web6:
    ipv6: true
    rules: [permit tcp any any eq 80]
class-maps:
  web: [web]
  dns: [dns]
  web6: [web6]
policy-maps:
  steer:
    - class: web
      nexthops: [$2, $3]
    - class: dns
      nexthops: [$3]
    - class: web6
      nexthops: ['2001:db8:2::2', '2001:db8:3::2']
interfaces:
  r-client: steer
YAML
}

# Starts waymarkd on the router with CONFIG and waits until it is idle.
# DAEMON_ENV (VAR=value words) and DAEMON_ARGS, when set, go to waymarkd;
# STATE, when set, is its state file (else RUN/state.json).
lab_start_daemon() { lab_launch_daemon "$1"; lab_ctl wait-idle --timeout 60; }

# The same without waiting.
lab_launch_daemon() {
  local config=$1
  mkdir -p "$RUN"
  rm -f "$RUN/waymarkd.sock"
  # Not through in_ns: $! must be the daemon itself (ip netns exec execs it),
  # not a subshell running a function.
  ip netns exec "$LAB-router" env ${DAEMON_ENV:-} "$WAYMARKD" --config "$config" \
    --socket "$RUN/waymarkd.sock" --state "${STATE:-$RUN/state.json}" ${DAEMON_ARGS:-} \
    >>"$RUN/waymarkd.log" 2>&1 &
  DAEMON=$!
}

lab_stop_daemon() {
  [ -n "$DAEMON" ] || return 0
  kill "$DAEMON" 2>/dev/null || true
  wait "$DAEMON" 2>/dev/null || true
  DAEMON=
}

lab_ctl() { "$WAYMARKCTL" --socket "$RUN/waymarkd.sock" "$@"; }

# Waits, at most 5 s, until every link of the router that is set up is
# running: the kernel reports a new carrier up to a second after the command
# that raised the link returned, and waymarkd rightly waits for it.
lab_links_running() {
  local i links
  for i in $(seq 250); do
    # Read whole first: a search that stops early would break the pipe.
    links=$(in_ns router ip -o link show up | grep -v ': lo:')
    [ -n "$links" ] && grep -qv ' state UP ' <<<"$links" || return 0
    sleep 0.02
  done
}

# Lets waymarkd see a change and finish its kernel work: once the links are
# running, the kernel has reported them, and wait-idle takes in what the
# kernel reported before it answers.
lab_settle() { lab_links_running; lab_ctl wait-idle --timeout 60; }

# Packets each host has received for the service address so far.
lab_seen() {
  local host=$1 fam=$2 tool=iptables dst=$SERVICE4
  [ "$fam" = 6 ] && tool=ip6tables && dst=$SERVICE6
  in_ns "$host" "$tool" -t mangle -L PREROUTING -v -x -n | awk -v d="$dst" '$0 ~ d {print $1; exit}'
}

# Sends COUNT packets of PROTO (tcp or udp) from the client to the service port.
lab_send() {
  local fam=$1 proto=$2 port=$3 count=${4:-3} dst=$SERVICE4 i
  [ "$fam" = 6 ] && dst=$SERVICE6
  for i in $(seq "$count"); do
    in_ns client timeout 1 bash -c "echo > /dev/$proto/$dst/$port" 2>/dev/null || true
  done
}

# Sends traffic and prints the hosts it reached. Sends in rounds until
# something arrives: the first packets of a flow can be lost while neighbour
# discovery runs, and UDP does not retransmit.
lab_arrived() {
  local fam=$1 proto=$2 port=$3 before=() host where="" i round
  for host in nh1 nh2 dflt; do before+=("$(lab_seen $host "$fam")"); done
  for round in 1 2 3 4 5 6 7 8 9 10; do
    lab_send "$fam" "$proto" "$port"
    i=0
    where=""
    for host in nh1 nh2 dflt; do
      [ "$(lab_seen $host "$fam")" -gt "${before[$i]}" ] && where="$where $host"
      i=$((i + 1))
    done
    [ -n "$where" ] && break
    sleep 0.3
  done
  echo "${where# }"
}
