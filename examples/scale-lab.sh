# Large configurations for the scale benchmarks and the crash test, to be
# sourced: generate() writes S sub-rules over 10 policies and N nexthops,
# generate_one_policy() S sub-rules in one policy, generate_varied() S
# sub-rules of varied shapes in one policy, scale_namespace() makes a
# namespace whose one link covers every nexthop they use, and
# save_final_state() / load_final_state() load what waymarkd programmed the
# fastest way there is (the limit).

# The n-th nexthop: IPv4 from 198.51.100.0/24 and 203.0.113.0/24 for even n,
# IPv6 from 2001:db8:1::/64 for odd n.
nexthop() {
  local n=$1 k=$(( $1 / 2 ))
  if [ $((n % 2)) = 0 ]; then
    if [ $k -lt 250 ]; then echo "198.51.100.$((k + 2))"; else echo "203.0.113.$((k - 248))"; fi
  else
    printf '2001:db8:1::%x\n' $((k + 2))
  fi
}

# Class c of a policy: it forwards to two nexthops of its family (IPv4 for
# even c) out of N.
policy_class() {  # C N
  local c=$1 n=$2 a b
  a=$(( (c * 2) % n )); [ $((a % 2)) != $((c % 2)) ] && a=$(( (a + 1) % n ))
  b=$(( (a + 2) % n ))
  echo "    - class: c$c"
  echo "      nexthops: ['$(nexthop $a)', '$(nexthop $b)']"
}

# A configuration of S sub-rules (10 rules per class) over 10 policies and N
# nexthops; each class forwards to two nexthops of its family.
generate() {
  local s=$1 n=$2 classes=$(( $1 / 10 )) c r fam
  {
    echo "tunables:"
    echo "  command-executor: shell"
    echo "access-lists:"
    for c in $(seq 0 $((classes - 1))); do
      fam=$((c % 2))
      if [ $fam = 0 ]; then echo "  l$c:"; else echo "  l$c:"; echo "    ipv6: true"; echo "    rules:"; fi
      for r in $(seq 0 9); do
        [ $fam = 0 ] && echo "    - permit tcp any any eq $((1000 + c % 60000 + r))" \
                     || echo "      - permit udp any any eq $((1000 + c % 60000 + r))"
      done
    done
    echo "class-maps:"
    for c in $(seq 0 $((classes - 1))); do echo "  c$c: [l$c]"; done
    echo "policy-maps:"
    for p in $(seq 0 9); do
      echo "  p$p:"
      for c in $(seq "$p" 10 $((classes - 1))); do policy_class "$c" "$n"; done
    done
    echo "interfaces:"
    for p in $(seq 0 9); do echo "  in$p: p$p"; done
  } > "$3"
}

# The sections of one policy of C classes of PER rules each (IPv4 and IPv6
# classes alternating), applied to one interface, each class forwarding to
# two nexthops of its family out of N; `RULE K FAM` prints the K-th rule's
# line (K from 0, FAM 1 for IPv6).
one_policy() {  # C PER N RULE
  local classes=$1 per=$2 n=$3 rule=$4 c r fam
  echo "access-lists:"
  for c in $(seq 0 $((classes - 1))); do
    fam=$((c % 2))
    echo "  l$c:"
    [ $fam = 1 ] && echo "    ipv6: true"
    echo "    rules:"
    for r in $(seq 0 $((per - 1))); do "$rule" $((c * per + r)) "$fam"; done
  done
  echo "class-maps:"
  for c in $(seq 0 $((classes - 1))); do echo "  c$c: [l$c]"; done
  echo "policy-maps:"
  echo "  p0:"
  for c in $(seq 0 $((classes - 1))); do policy_class "$c" "$n"; done
  echo "interfaces:"
  echo "  in0: p0"
}

# One port rule: TCP for IPv4, UDP for IPv6.
port_rule() {  # K FAM
  [ "$2" = 0 ] && echo "      - permit tcp any any eq $((1000 + $1))" \
               || echo "      - permit udp any any eq $((1000 + $1))"
}

# Rules of the shapes a large configuration has: hosts and prefixes, single
# ports, lists and ranges, TCP flags, both families.
varied_rule() {  # K FAM
  local k=$1
  if [ "$2" = 1 ]; then
    # Decimal digits read as hexadecimal groups: no process per line.
    echo "      - permit tcp any 2001:db8:$((k % 10000)):$((k / 10000))::/64 gt $((k % 60000))"
    return
  fi
  case $((k % 4)) in
    0) echo "      - permit tcp any host 198.51.$((k / 250 % 250)).$((k % 250 + 1)) eq $((1024 + k % 60000))" ;;
    1) echo "      - permit udp 203.0.$((k % 250)).0/24 any range $((1024 + k % 50000)) $((1030 + k % 50000))" ;;
    2) echo "      - permit tcp 192.0.$((k % 250)).0/24 eq 80 443 any syn" ;;
    *) echo "      - permit icmp host 192.0.2.$((k % 250 + 1)) 10.$((k / 65536 % 250)).$((k / 256 % 256)).$((k % 256))/32" ;;
  esac
}

# S sub-rules in one policy of C classes over N nexthops.
generate_one_policy() {  # S N C FILE
  { printf 'tunables:\n  command-executor: shell\n'; one_policy "$3" $(($1 / $3)) "$2" port_rule; } > "$4"
}

# S sub-rules of varied shapes in one policy (50 rules a class).
generate_varied() {  # S FILE
  one_policy $(($1 / 50)) 50 4 varied_rule > "$2"
}

# Saves what waymarkd programmed in namespace NS into DIR: the mangle tables
# as iptables-save prints them (restorable), each family's nexthop routes
# and rules as an `ip -batch` file.
save_final_state() {  # NS DIR
  local fam t
  ip netns exec "$1" iptables-save -t mangle > "$2/v4.save"
  ip netns exec "$1" ip6tables-save -t mangle > "$2/v6.save"
  for fam in 4 6; do
    { ip netns exec "$1" ip -$fam rule | awk '/fwmark/ {sub(":", "", $1); print "rule add priority", $1, "fwmark", $5, "lookup", $7}'
      for t in $(ip netns exec "$1" ip -$fam rule | awk '/fwmark/ {print $7}'); do
        ip netns exec "$1" ip -$fam route show table "$t" | awk -v t="$t" '{print "route add default via", $3, "table", t}'
      done
    } > "$2/ip$fam.batch"
  done
}

# Loads what save_final_state() saved into NS at once: one restore per
# family and one `ip -batch` per family, one after the other.
load_final_state() {  # NS DIR
  ip netns exec "$1" iptables-restore -w < "$2/v4.save"
  ip netns exec "$1" ip6tables-restore -w < "$2/v6.save"
  ip netns exec "$1" ip -4 -force -batch "$2/ip4.batch"
  ip netns exec "$1" ip -6 -force -batch "$2/ip6.batch"
}

scale_namespace() {  # NS
  ip netns del "$1" 2>/dev/null
  ip netns add "$1"
  ip netns exec "$1" ip link set lo up
  ip netns exec "$1" ip link add nh0 type veth peer name nh1
  ip netns exec "$1" ip link set nh0 up
  ip netns exec "$1" ip link set nh1 up
  ip netns exec "$1" ip addr add 198.51.100.1/24 dev nh0
  ip netns exec "$1" ip addr add 203.0.113.1/24 dev nh0
  ip netns exec "$1" ip -6 addr add 2001:db8:1::1/64 dev nh0 nodad
}
