# Large configurations for the scale benchmark and the crash test, to be
# sourced: generate() writes S sub-rules over 10 policies and N nexthops,
# and scale_namespace() makes a namespace whose one link covers every
# nexthop generate() uses.

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
      for c in $(seq "$p" 10 $((classes - 1))); do
        fam=$((c % 2))
        a=$(( (c * 2) % n )); [ $((a % 2)) != $fam ] && a=$(( (a + 1) % n ))
        b=$(( (a + 2) % n ))
        echo "    - class: c$c"
        echo "      nexthops: ['$(nexthop $a)', '$(nexthop $b)']"
      done
    done
    echo "interfaces:"
    for p in $(seq 0 9); do echo "  in$p: p$p"; done
  } > "$3"
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
