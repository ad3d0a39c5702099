#!/usr/bin/env bash
# A configuration on its way, reloaded: every cut of the lab's file at a
# line boundary is refused with the kernel unchanged, and only the whole
# file is applied; an editor writing the file in place, slowly, with
# reloads arriving meanwhile, ends with the whole file applied and the
# interface's jump never missing. Real namespaces and traffic
# (examples/lab.sh). Ends with "N passed, N failed".
# Usage: tests/e2e/config_e2e.sh BUILD
set -uo pipefail
BUILD=${1:-build}
WAYMARKD=$BUILD/daemon/waymarkd
WAYMARKCTL=$BUILD/cli/waymarkctl
LAB=wmcfg$$
RUN=/run/waymark-config-$$
HERE=$(cd "$(dirname "$0")" && pwd)
source "$HERE/../../examples/lab.sh"
source "$HERE/checks.sh"
require_namespaces "config"
trap lab_destroy EXIT

# The interface's jumps, both families.
jumps() {
  { in_ns router iptables -t mangle -S; in_ns router ip6tables -t mangle -S; } | grep -c -- '-i r-client '
}

lab_create
mkdir -p "$RUN"
# The running file steers web to nh1; the one on its way to nh2.
lab_steer_config "$RUN/a.yaml" 198.51.100.2 198.51.100.66
lab_steer_config "$RUN/b.yaml" 198.51.100.66 198.51.100.2
cp "$RUN/a.yaml" "$RUN/live.yaml"
lab_start_daemon "$RUN/live.yaml" >/dev/null
check "steering with the running file" "$(lab_arrived 4 tcp 80)" nh1
running=$(kernel_state)
start_state=$(resolved_state)
with_jumps=$(jumps)

echo "== every cut at a line boundary"
lines=$(wc -l < "$RUN/b.yaml")
applied="" changed=""
for k in $(seq 0 $((lines - 1))); do
  head -n "$k" "$RUN/b.yaml" > "$RUN/live.yaml"
  if lab_ctl reload >/dev/null 2>&1; then
    applied="$applied $k"
    cp "$RUN/a.yaml" "$RUN/live.yaml"
    lab_ctl reload >/dev/null
  fi
  lab_settle >/dev/null
  [ "$(kernel_state)" = "$running" ] || changed="$changed $k"
done
check "each of the $lines cuts short of the whole file is refused" "${applied# }" ""
check "...and leaves the kernel as it was" "${changed# }" ""
cp "$RUN/b.yaml" "$RUN/live.yaml"
check "the whole file is applied" "$(lab_ctl reload)" "reloaded
changes: policies changed: steer; classes changed: steer/dns steer/web"
lab_settle >/dev/null
check "...and steers as it says" "$(lab_arrived 4 tcp 80)" nh2

echo "== an editor writing the file in place, slowly"
# The writer truncates the file and writes it a line at a time, as an
# editor saving in place over a slow disk would, each line only once the
# jumps have been sampled twice since the last: reloads keep arriving
# until it is done, and every partial file is there to be read.
samples() { wc -l < "$RUN/samples"; }
: > "$RUN/samples"
(
  while [ ! -e "$RUN/written" ]; do
    if [ "$(jumps)" = "$with_jumps" ]; then echo ok; else echo missing; fi
  done > "$RUN/samples"
) &
sampler=$!
(
  exec 3>"$RUN/live.yaml"
  while IFS= read -r line; do
    printf '%s\n' "$line" >&3
    seen=$(samples)
    wait_for 20 "[ \$(samples) -ge $((seen + 2)) ]" || exit 1
  done < "$RUN/a.yaml"
) &
writer=$!
reloads=0
while kill -0 "$writer" 2>/dev/null; do
  lab_ctl reload >/dev/null 2>&1
  reloads=$((reloads + 1))
done
wait "$writer"
written=$?
lab_ctl reload >/dev/null 2>&1
lab_settle >/dev/null
touch "$RUN/written"
wait "$sampler"
check "the editor wrote the whole file" "$written" 0
check "the interface's jumps were never missing ($((reloads + 1)) reloads, $(samples) samples while it was written)" \
  "$(grep -c missing "$RUN/samples")" 0
check "the whole file is applied in the end" "$(lab_ctl status --json | jq -r .daemon.lastReloadError)" ""
check "...and steers as it says" "$(lab_arrived 4 tcp 80)" nh1
check "...as at the start" "$(resolved_state)" "$start_state"
finish
