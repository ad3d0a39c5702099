#!/usr/bin/env bash
# The state journal on a full file system: the state file on a small tmpfs
# that is filled while waymarkd runs. A reload to a new nexthop is refused
# with nothing changed; a nexthop whose numbers cannot be recorded is not
# programmed, says so, and is programmed by itself once there is room; after
# kill -9 on a full disk and a restart with room, the kernel holds exactly
# what the record holds, and the state file parses throughout. A damaged
# state file is said, and what waymark's own chains marked for is still
# recognised as its own, by a start and by --cleanup. Real
# namespaces and traffic (examples/lab.sh). Ends with "N passed, N failed".
# Usage: tests/e2e/journal_e2e.sh BUILD
set -uo pipefail
BUILD=${1:-build}
WAYMARKD=$BUILD/daemon/waymarkd
WAYMARKCTL=$BUILD/cli/waymarkctl
LAB=wmjrnl$$
RUN=/run/waymark-journal-$$
HERE=$(cd "$(dirname "$0")" && pwd)
source "$HERE/../../examples/lab.sh"
source "$HERE/checks.sh"
require_namespaces "journal"

DISK=$RUN/disk
STATE=$DISK/state.json
NOT_RECORDED="not recorded: the state journal cannot be written"
cleanup() {
  lab_stop_daemon
  umount -l "$DISK" 2>/dev/null
  lab_destroy
}
trap cleanup EXIT

mkdir -p "$DISK"
mount -t tmpfs -o size=1m,mode=0700 waymark-e2e "$DISK"
fill() { dd if=/dev/zero of="$DISK/filler" bs=4k 2>/dev/null; }
make_room() { rm -f "$DISK/filler"; }

# What the record on disk holds: "FAMILY PRIORITY" of each rule and
# "FAMILY TABLE" of each table, the journal replayed over the snapshot.
recorded() {  # rule|table
  {
    jq -r --arg k "$1s" '.[$k][] | "+\(.[0]) \(.[1])"' "$STATE" 2>/dev/null
    awk -v k="$1" '$1 == "+" k || $1 == "-" k {print substr($1, 1, 1) $2, $3}' "$STATE.journal" 2>/dev/null
  } | awk '{k = substr($1, 2) " " $2; if (substr($1, 1, 1) == "+") held[k] = 1; else delete held[k]}
           END {for (k in held) print k}' | sort
}
# The same of the kernel: waymark's rules (those with a mark) and every
# table but local, main and default that holds a route.
in_kernel() {  # rule|table
  local fam
  for fam in 4 6; do
    if [ "$1" = rule ]; then
      in_ns router ip -"$fam" rule | awk -v f="$fam" '/fwmark/ {sub(":", "", $1); print f, $1}'
    else
      in_ns router ip -"$fam" route show table all | grep -o 'table [0-9][0-9]*' |
        awk -v f="$fam" '$2 != 253 && $2 != 254 && $2 != 255 {print f, $2}' | sort -u
    fi
  done | sort
}
unrecorded_in_kernel() {
  { comm -23 <(in_kernel rule) <(recorded rule); comm -23 <(in_kernel table) <(recorded table); } |
    tr '\n' ' '
}
refused_nexthops() {
  lab_ctl status --json | jq -r --arg s "$NOT_RECORDED" '[.nexthops[] | select(.state == $s) | .address] | join(" ")'
}
parses() { jq -e . "$STATE" >/dev/null && echo parses; }
# Flaps nh1's link until a nexthop's numbers cannot be recorded: the
# journal's last page takes lines until it is full (at most 60 flaps).
flap_until_refused() {
  local i
  for i in $(seq 60); do
    in_ns router ip link set r-nh1 down; lab_settle >/dev/null
    in_ns router ip link set r-nh1 up; lab_settle >/dev/null
    [ -n "$(refused_nexthops)" ] && return 0
  done
  return 1
}

lab_create
lab_steer_config "$RUN/a.yaml" 198.51.100.2 198.51.100.66
lab_steer_config "$RUN/b.yaml" 198.51.100.2 203.0.113.2
cp "$RUN/a.yaml" "$RUN/live.yaml"
lab_start_daemon "$RUN/live.yaml" >/dev/null
check "steering before the disk fills" "$(lab_arrived 4 tcp 80)" nh1

echo "== the disk fills"
fill
before=$(kernel_state)
cp "$RUN/b.yaml" "$RUN/live.yaml"
reply=$(lab_ctl reload 2>&1; echo "exit $?")
check "a reload to a new nexthop is refused" "$(echo "$reply" | tail -1)" "exit 1"
check "...saying why" "$(echo "$reply" | grep -c 'cannot record new nexthops in the state journal')" 1
check "...and changes nothing" "$(kernel_state)" "$before"
cp "$RUN/a.yaml" "$RUN/live.yaml"

flap_until_refused
refused=$(refused_nexthops)
check "a nexthop whose numbers cannot be recorded is not programmed" "$([ -n "$refused" ] && echo refused)" refused
check "...and nothing unrecorded is in the kernel" "$(unrecorded_in_kernel)" ""
check "the status warns why" \
  "$(lab_ctl status --json | jq '[.warnings[] | select(startswith("state journal: cannot write"))] | length')" 1
check "...and an event names it" \
  "$(lab_ctl events | grep -c 'not programmed: the state journal cannot record it')" \
  "$(echo "$refused" | wc -w)"
check "the state file still parses" "$(parses)" parses

echo "== room again"
make_room
check "the refused nexthops are programmed by themselves" \
  "$(wait_for 20 '[ -z "$(refused_nexthops)" ]' && lab_settle >/dev/null &&
     lab_ctl status --json | jq '[.nexthops[] | select(.state != "programmed")] | length')" 0
check "...steering as before" "$(lab_arrived 4 tcp 80)" nh1
check "...recorded" "$(unrecorded_in_kernel)" ""
check "...and the warning is gone" \
  "$(lab_ctl status --json | jq '[.warnings[] | select(startswith("state journal"))] | length')" 0

echo "== kill -9 on a full disk, then a restart with room"
fill
flap_until_refused
check "refused again" "$([ -n "$(refused_nexthops)" ] && echo refused)" refused
kill -9 "$DAEMON"; wait "$DAEMON" 2>/dev/null; DAEMON=
check "what the killed daemon left in the kernel is recorded" "$(unrecorded_in_kernel)" ""
check "...in a state file that parses" "$(parses)" parses
make_room
lab_start_daemon "$RUN/live.yaml" >/dev/null
check "after the restart the kernel holds exactly what is recorded (rules)" "$(in_kernel rule)" "$(recorded rule)"
check "...and tables" "$(in_kernel table)" "$(recorded table)"
check "...which is what is in use" "$(in_kernel rule | wc -l)" \
  "$(lab_ctl status --json | jq '[.nexthops[] | select(.programmed)] | length')"
check "...and it steers" "$(lab_arrived 4 tcp 80)" nh1

echo "== a damaged state file"
# Another tool's marked rule, which no chain of waymark's marks for.
in_ns router ip route add default via 203.0.113.2 table 77
in_ns router ip rule add priority 100 fwmark 0x77 lookup 77
theirs="4 100"
lab_stop_daemon
before=$(in_kernel rule | grep -vx "$theirs")
printf '{"rules": [[4, 2, 2' > "$STATE"
rm -f "$STATE.journal"
lab_start_daemon "$RUN/live.yaml" >/dev/null
check "the start says so" \
  "$(lab_ctl status --json | jq '[.journal.problems[] | select(test("is damaged"))] | length')" 1
check "...takes the rules its own chains marked for as the previous run's" \
  "$(grep -c 'the state file is damaged or lost: [1-9][0-9]* rule' "$RUN/waymarkd.log")" 1
check "...so that the kernel holds what is recorded once it is started" \
  "$(in_kernel rule | grep -vx "$theirs")" "$(recorded rule)"
check "...leaves another tool's rule and table" "$(in_ns router ip rule show priority 100 | wc -l) $(in_ns router ip route show table 77 | wc -l)" "1 1"
check "...and steers" "$(lab_arrived 4 tcp 80)" nh1
lab_stop_daemon
printf 'garbage' > "$STATE"
in_ns router "$WAYMARKD" --cleanup --config "$RUN/live.yaml" --state "$STATE" >>"$RUN/waymarkd.log" 2>&1
check "--cleanup with a damaged state file removes waymark's rules" "$(in_kernel rule)" "$theirs"
check "...its tables" "$(in_kernel table)" "4 77"
check "...and its chains" "$(mangle | grep -c PBR)" 0
finish
