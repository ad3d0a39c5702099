#!/usr/bin/env bash
# Kernel faults: waymarkd runs with a fault-injecting `ip` and
# iptables-restore/ip6tables-restore first on its PATH, which fail, hang
# past the daemon's child time limit, or are killed by a signal on demand.
# Checks that the failure is recorded and shown, that the daemon keeps
# serving, and that the work is done once the fault is gone and the
# behaviour retries it (a nexthop's subnet comes back), or once the daemon
# restarts (a refused iptables batch is counted, not retried). A start whose
# rules cannot be written (no iptables-restore) is not ready, says why, and
# writes them again, backing off, until it can.
# Ends with "N passed, N failed" and a "faults:" figures line.
set -uo pipefail
BUILD=${1:-build}
WAYMARKD=$BUILD/daemon/waymarkd
WAYMARKCTL=$BUILD/cli/waymarkctl
LAB=wmflt$$
RUN=/run/waymark-faults-$$
CONFIG=$RUN/faults.yaml
HERE=$(cd "$(dirname "$0")" && pwd)
source "$HERE/../../examples/lab.sh"
source "$HERE/../e2e/checks.sh"
require_namespaces "faults"
trap lab_destroy EXIT

# The fault-injecting tools: each reads its mode from $RUN/faults/NAME.
mkdir -p "$RUN/bin" "$RUN/faults"
for tool in ip iptables-restore ip6tables-restore; do
  cat > "$RUN/bin/$tool" <<SCRIPT
#!/bin/sh
mode=\$(cat "$RUN/faults/$tool" 2>/dev/null)
[ -n "\$mode" ] && echo "\$mode" >> "$RUN/faults/injected"
case "\$mode" in
  fail) echo "$tool: injected failure" >&2; exit 2 ;;
  hang) sleep 60 ;;
  signal) kill -KILL \$\$ ;;
esac
exec $(command -v "$tool") "\$@"
SCRIPT
  chmod +x "$RUN/bin/$tool"
done
fault() { echo "$2" > "$RUN/faults/$1"; }
clear_faults() { rm -f "$RUN/faults/ip" "$RUN/faults/iptables-restore" "$RUN/faults/ip6tables-restore"; }
DAEMON_ENV="PATH=$RUN/bin:$PATH"
DAEMON_ARGS="--child-time-limit 2"
state_of() { lab_ctl nexthops | awk -v a="$1" '$1 == a {s = $9; for (i = 10; i <= NF; i++) s = s " " $i; print s}'; }
counter() { lab_ctl counters | awk -v g="$1" -v c="$2" '$1 == g && $2 == c {print $3}'; }
serving() { lab_ctl status >/dev/null 2>&1 && echo yes || echo no; }
flap() { in_ns router ip link set "$1" down; lab_settle >/dev/null; in_ns router ip link set "$1" up; lab_settle >/dev/null; }

# Routing commands as `ip` processes, so that the fault-injecting `ip` runs.
cat > "$CONFIG" <<'YAML'
tunables: {command-executor: shell}
access-lists:
  web: [permit tcp any any eq 80]
class-maps:
  web: [web]
policy-maps:
  steer:
    - class: web
      nexthops: [198.51.100.2, 198.51.100.66]
interfaces:
  r-client: steer
YAML
lab_create

echo "== ip fails at start: refused, shown, retried when the subnet comes back"
fault ip fail
lab_start_daemon "$CONFIG" >/dev/null
check "nexthop shown as refused" "$(state_of 198.51.100.2)" "kernel refused"
check "daemon serving" "$(serving)" yes
check "traffic not steered meanwhile" "$(lab_arrived 4 tcp 80)" dflt
clear_faults
flap r-nh1; flap r-nh2
check "programmed once its subnet is back" "$(state_of 198.51.100.2)" programmed
check "traffic steered again" "$(lab_arrived 4 tcp 80)" nh1

for mode in hang signal; do
  echo "== ip: $mode while reprogramming a nexthop"
  fault ip "$mode"
  flap r-nh1
  check "$mode: nexthop shown as refused" "$(state_of 198.51.100.2)" "kernel refused"
  check "$mode: daemon serving" "$(serving)" yes
  check "$mode: traffic on the backup" "$(lab_arrived 4 tcp 80)" nh2
  clear_faults
  flap r-nh1
  check "$mode: programmed again" "$(state_of 198.51.100.2)" programmed
  check "$mode: traffic back on the primary" "$(lab_arrived 4 tcp 80)" nh1
done
check "a hung ip was killed at the limit and logged" \
  "$(grep -q 'timed out after 2 s, killed' "$RUN/waymarkd.log" && echo yes)" yes

# A clean start's state, to compare the restarts after iptables faults with.
lab_stop_daemon
lab_start_daemon "$CONFIG" >/dev/null

clean=$(kernel_state)
for mode in fail hang signal; do
  echo "== iptables-restore: $mode on a reload"
  failed=$(counter ipv4 batchesFailed)
  fault iptables-restore "$mode"
  sed -i 's/eq 80\]/eq 80, permit tcp any any eq 8080]/' "$CONFIG"
  lab_ctl reload >/dev/null; lab_settle >/dev/null
  check "$mode: batch counted as failed" "$(( $(counter ipv4 batchesFailed) > failed ))" 1
  check "$mode: error shown" "$([ -n "$(counter ipv4 lastError)" ] && echo yes)" yes
  check "$mode: daemon serving" "$(serving)" yes
  clear_faults
  sed -i 's/, permit tcp any any eq 8080\]/]/' "$CONFIG"
  lab_ctl reload >/dev/null
  lab_stop_daemon
  lab_start_daemon "$CONFIG" >/dev/null
  check "$mode: a restart converges to a clean start's state" "$(kernel_state)" "$clean"
done

echo "== iptables-restore missing at start: not ready until it is there"
lab_stop_daemon
in_ns router "$WAYMARKD" --cleanup --state "$RUN/state.json" >/dev/null 2>&1
# A PATH with what the daemon runs, but no restore tools.
mkdir -p "$RUN/sparse"
for tool in ip iptables-save ip6tables-save; do ln -s "$(command -v "$tool")" "$RUN/sparse/$tool"; done
DAEMON_ENV="PATH=$RUN/sparse" lab_launch_daemon "$CONFIG"
write_error() { lab_ctl status --json 2>/dev/null | jq -r '.startup.writeError // ""'; }
check "the start says why its rules are not written" \
  "$(wait_for 20 '[ -n "$(write_error)" ]' && write_error | grep -Ec 'ip6?tables-restore could not be started')" 1
check "...is not ready" "$(lab_ctl status --json | jq -r '.startup.phase, .idle' | tr '\n' ' ')" "writing rules false "
check "...and says when it tries again" "$(lab_ctl status --json | jq '.startup.nextWriteIn != null')" true
for tool in iptables-restore ip6tables-restore; do ln -s "$(command -v "$tool")" "$RUN/sparse/$tool"; done
check "ready by itself once the tools are there" "$(lab_ctl wait-idle --timeout 60 && echo idle)" idle
check "...steering" "$(lab_arrived 4 tcp 80)" nh1
check "...with the error gone" "$(write_error)" ""

echo "faults: $(wc -l < "$RUN/faults/injected") injected"
finish
