#!/usr/bin/env bash
# waymark's demo: in a lab of network namespaces (examples/lab.sh), waymarkd
# steers a client's web traffic to a primary nexthop, fails over to the
# backup when the primary's link goes down, and comes back. IPv4 and IPv6.
# Needs root; removes everything it made, whatever happens.
set -euo pipefail
BUILD=${1:-build}
WAYMARKD=$BUILD/daemon/waymarkd
WAYMARKCTL=$BUILD/cli/waymarkctl
LAB=wmdemo$$
RUN=/run/waymark-demo-$$
source "$(dirname "$0")/lab.sh"
trap lab_destroy EXIT

say() { printf '\n\033[1m%s\033[0m\n' "$*"; }
FAILED=0
expect() {  # WHAT GOT WANTED
  if [ "$2" = "$3" ]; then
    printf '  %-52s -> %s\n' "$1" "$2"
  else
    printf '  %-52s -> %s (expected %s)\n' "$1" "${2:-nowhere}" "$3"
    FAILED=1
  fi
}

[ "$(id -u)" = 0 ] || { echo "make demo needs root (network namespaces)"; exit 1; }
[ -x "$WAYMARKD" ] || { echo "build first: $WAYMARKD is missing"; exit 1; }

say "Building the lab: a client, a router and three hosts behind it"
lab_create

say "Starting waymarkd on the router with examples/lab.yaml"
grep -v '^#' examples/lab.yaml | sed 's/^/  /'
lab_start_daemon examples/lab.yaml

say "Web traffic is steered to the primary nexthop; other traffic follows the default route"
expect "IPv4 web (TCP 80) from the client reaches" "$(lab_arrived 4 tcp 80)" nh1
expect "IPv6 web (TCP 80) from the client reaches" "$(lab_arrived 6 tcp 80)" nh1
expect "IPv4 other traffic (TCP 8080) reaches" "$(lab_arrived 4 tcp 8080)" dflt
expect "IPv6 other traffic (TCP 8080) reaches" "$(lab_arrived 6 tcp 8080)" dflt

say "The primary's link goes down: waymark withdraws it and the backup takes over"
in_ns router ip link set r-nh1 down
lab_settle
expect "IPv4 web reaches" "$(lab_arrived 4 tcp 80)" nh2
expect "IPv6 web reaches" "$(lab_arrived 6 tcp 80)" nh2

say "The link comes back: traffic returns to the primary"
in_ns router ip link set r-nh1 up
lab_settle
expect "IPv4 web reaches" "$(lab_arrived 4 tcp 80)" nh1
expect "IPv6 web reaches" "$(lab_arrived 6 tcp 80)" nh1

say "waymarkctl status"
lab_ctl status | sed 's/^/  /'

say "Removing the lab"
if [ "$FAILED" = 0 ]; then
  echo "verdict: PASS - waymark steered IPv4 and IPv6 web traffic, failed over and came back"
else
  echo "verdict: FAIL - see the lines marked 'expected' above"
fi
exit "$FAILED"
