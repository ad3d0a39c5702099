# What the namespace tests share, to be sourced after examples/lab.sh: the
# root check, check() with its tally, the kernel state of the lab's router,
# and timing by the daemon's events. The caller sets LAB and RUN.

# Exits 77 (skipped) without root and namespaces, 1 under CI.
require_namespaces() {
  if [ "$(id -u)" != 0 ] || ! ip netns add "$LAB-probe" 2>/dev/null; then
    echo "$1: needs root and network namespaces"
    [ -n "${CI:-}" ] && exit 1
    exit 77
  fi
  ip netns del "$LAB-probe"
}

PASSED=0
FAILED=0
check() {  # WHAT GOT WANTED
  if [ "$2" = "$3" ]; then
    PASSED=$((PASSED + 1))
    echo "ok   $1"
  else
    FAILED=$((FAILED + 1))
    echo "FAIL $1: got '$2', wanted '$3'"
  fi
}
# Prints the tally and exits with its verdict.
finish() {
  echo "$PASSED passed, $FAILED failed"
  [ "$FAILED" = 0 ]
}

mangle() { in_ns router iptables -t mangle -S; in_ns router ip6tables -t mangle -S; }
rules() { in_ns router ip rule; in_ns router ip -6 rule; }
tables() {
  local t
  for t in $(in_ns router ip rule | awk '/fwmark/ {print $NF}'); do in_ns router ip route show table "$t"; done
  for t in $(in_ns router ip -6 rule | awk '/fwmark/ {print $NF}'); do in_ns router ip -6 route show table "$t"; done
}
# Everything waymark programs on the router, for comparing two states.
kernel_state() { rules; tables; mangle; }
# The router's state with the numbers a run happens to allocate resolved
# away: each MARK rule names the nexthop its mark leads to (through its ip
# rule and table), chains lose their sequence number, and the rules are
# counted. Two runs that steer the same traffic the same way print the same.
resolved_state() {
  local fam tool via
  for fam in -4 -6; do
    tool=iptables; [ "$fam" = -6 ] && tool=ip6tables
    via=$(in_ns router ip "$fam" rule | awk '/fwmark/ {print $5, $7}' | while read -r mark table; do
      echo "$mark $(in_ns router ip "$fam" route show table "$table" | awk '{print $3}')"
    done)
    in_ns router "$tool" -t mangle -S | sed -E 's/PBR_[0-9]+_/PBR_N_/g' |
      awk -v via="$via" 'BEGIN { n = split(via, l, "\n"); for (i = 1; i <= n; i++) { split(l[i], f, " "); to[f[1]] = f[2] } }
        /--set-xmark/ { for (i = 1; i <= NF; i++) if ($i == "--set-xmark") { split($(i + 1), m, "/"); $(i + 1) = "to " to[m[1]] } }
        { print }'
    echo "fwmark rules: $(in_ns router ip "$fam" rule | grep -c fwmark)"
  done
}

# Polls CONDITION (a shell command) every 0.1 s until it holds, at most
# SECONDS; false, naming what was awaited, when it never did.
wait_for() {  # SECONDS CONDITION
  local deadline=$((SECONDS + $1))
  while [ "$SECONDS" -lt "$deadline" ]; do
    eval "$2" && return 0
    sleep 0.1
  done
  echo "waited $1 s in vain for: $2" >&2
  return 1
}

# The daemon's own clock, for timing a change by its events: read before the
# change, compared with the uptime of the event that answers it.
uptime_now() { lab_ctl status --json | jq '.uptime'; }
# The uptime of the first event since UPTIME whose text matches PATTERN.
event_at() {  # PATTERN UPTIME
  lab_ctl events --json |
    jq -r --arg p "$1" --argjson t "$2" '[.events[] | select(.uptime >= $t and (.text | test($p)))][0].uptime // empty'
}
# Waits for the event (20 s at most); "yes" when it came at most BOUND
# seconds after START, else when it came. The delay goes to standard error.
within() {  # START PATTERN BOUND
  wait_for 20 "[ -n \"\$(event_at '$2' $1)\" ]" || { echo never; return; }
  awk -v a="$1" -v b="$(event_at "$2" "$1")" -v bound="$3" \
    'BEGIN { printf "     (%.2f s)\n", b - a > "/dev/stderr"; if (b - a <= bound) print "yes"; else printf "after %.2f s\n", b - a }'
}
