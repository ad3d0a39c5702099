#!/usr/bin/env bash
# waymark's scale benchmark: waymarkd against the naive way and the limit,
# in one run and one private network namespace per size.
#
# For each size (S sub-rules over 10 policies and N nexthops, IPv4 and IPv6
# classes mixed) it measures, for waymarkd: the time from start to idle
# (every rule and route checked by reading the kernel back), the longest
# event-loop turn, CPU time, peak RSS, and a reload that changes one class's
# nexthops. In the same namespace it measures the limit (every line in one
# iptables-restore per family, every routing command in one `ip -batch`) and
# the naive way (one iptables process per line, one ip process per command)
# on samples, because running it whole would take hours at the large sizes:
# its totals are estimated from per-line and per-command costs measured at
# the start and at the end of the table, and are marked as estimates.
#
# waymarkd runs twice per size: with routing commands as rtnetlink requests
# (time to idle and the nexthop loop's own total), then with an ip process per
# command (the shell executor), for everything else.
#
# Usage: bench/scale.sh BUILD_DIR [SIZES...]   sizes as S:N, default 1000:10 10000:100 50000:1000
# Prints a table; writes docs/bench-scale.tsv and, with gnuplot,
# docs/bench-scale.png beside the benchmarks' page. Needs root.
set -uo pipefail
BUILD=${1:-build}; shift || true
SIZES=${*:-"1000:10 10000:100 50000:1000"}
WAYMARKD=$BUILD/daemon/waymarkd
WAYMARKCTL=$BUILD/cli/waymarkctl
NS=wmscale$$
RUN=/run/waymark-scale-$$
DOCS=$(cd "$(dirname "$0")/../docs" && pwd)
OUT=$DOCS/bench-scale.tsv
[ "$(id -u)" = 0 ] || { echo "scale benchmark: needs root"; exit 0; }
mkdir -p "$RUN"
DAEMON=
cleanup() {
  [ -n "$DAEMON" ] && kill "$DAEMON" 2>/dev/null && wait "$DAEMON" 2>/dev/null
  ip netns del "$NS" 2>/dev/null
  rm -rf "$RUN"
}
trap cleanup EXIT

in_ns() { ip netns exec "$NS" "$@"; }
now() { date +%s.%N; }
elapsed() { echo "$2 - $1" | bc -l; }

source "$(dirname "$0")/../examples/scale-lab.sh"

# A fresh namespace, and no state file: each run is a clean start.
setup_ns() {
  rm -f "$RUN"/state.json*
  scale_namespace "$NS"
}

kernel_lines() { in_ns sh -c 'iptables -t mangle -S; ip6tables -t mangle -S' | grep -c '^-A PBR_'; }
kernel_rules() { in_ns sh -c 'ip rule; ip -6 rule' | grep -c fwmark; }

# Starts waymarkd with EXECUTOR on the generated configuration and waits for
# idle; sets T0 T1 and the daemon's pid.
start_waymarkd() {
  sed -i "s/^  command-executor: .*/  command-executor: $1/" "$RUN/scale.yaml"
  t0=$(now)
  ip netns exec "$NS" "$WAYMARKD" --config "$RUN/scale.yaml" --socket "$RUN/s.sock" \
    --state "$RUN/state.json" --trace-level 0 >"$RUN/d.log" 2>&1 &
  DAEMON=$!
  "$WAYMARKCTL" --socket "$RUN/s.sock" wait-idle --timeout 3600 >/dev/null
  t1=$(now)
}
stop_waymarkd() { kill "$DAEMON"; wait "$DAEMON" 2>/dev/null; DAEMON=; rm -f "$RUN/s.sock"; }
counter() { "$WAYMARKCTL" --socket "$RUN/s.sock" counters | awk -v g="$1" -v c="$2" '$1 == g && $2 == c {print $3}'; }

printf 'size\tsubrules\tnexthops\twaymarkd_s\twaymarkd_netlink_s\tnexthop_loop_netlink_s\tlongest_turn_s\tcpu_s\tpeak_rss_kb\treload_s\tlimit_s\tnaive_s_est\n' > "$OUT"
for size in $SIZES; do
  S=${size%%:*}; N=${size##*:}
  generate "$S" "$N" "$RUN/scale.yaml"
  # waymarkd with routing commands as rtnetlink requests, to idle.
  setup_ns
  start_waymarkd netlink
  netlink_total=$(elapsed "$t0" "$t1")
  nexthop_loop=$(counter nexthops totalProgrammingTime)
  stop_waymarkd
  # waymarkd as configured by default (an ip process per command), to idle,
  # checked against the kernel.
  setup_ns
  start_waymarkd shell
  lines=$(kernel_lines); rules=$(kernel_rules)
  turn=$(counter daemon longestLoopTurn)
  cpu=$(awk '{printf "%.2f", ($14 + $15) / 100}' /proc/$DAEMON/stat)
  rss=$(awk '/VmHWM/ {print $2}' /proc/$DAEMON/status)
  # A reload that changes one class's nexthops.
  sed -i "0,/nexthops: \['\([^']*\)', '\([^']*\)'\]/s//nexthops: ['\2', '\1']/" "$RUN/scale.yaml"
  r0=$(now)
  "$WAYMARKCTL" --socket "$RUN/s.sock" reload >/dev/null
  "$WAYMARKCTL" --socket "$RUN/s.sock" wait-idle --timeout 600 >/dev/null
  r1=$(now)
  [ "$lines" = $((2 * S)) ] || echo "size $size: $lines rules in the kernel, expected $((2 * S))"
  [ "$rules" = "$N" ] || echo "size $size: $rules ip rules in the kernel, expected $N"

  # The final state waymarkd reached, as the limit loads it.
  save_final_state "$NS" "$RUN"
  grep -- '^-A' "$RUN/v4.save" > "$RUN/v4.lines"
  grep -- '^-A' "$RUN/v6.save" > "$RUN/v6.lines"
  stop_waymarkd
  setup_ns
  l0=$(now)
  load_final_state "$NS" "$RUN"
  l1=$(now)
  [ "$(kernel_lines)" = $((2 * S)) ] && [ "$(kernel_rules)" = "$N" ] ||
    echo "size $size: the limit did not load everything"

  # The naive way, sampled: 200 lines at the start and 200 at the end of the
  # table, 200 routing commands; totals are estimated from them.
  setup_ns
  cp "$RUN/v4.lines" "$RUN/v4.appends"
  { echo '*mangle'; grep -E '^:(PBR_|TAMBRO_)' "$RUN/v4.save"; echo COMMIT; } |
    in_ns iptables-restore --noflush -w
  head -200 "$RUN/v4.appends" | sed 's/^/iptables -w -t mangle /' > "$RUN/naive.head"
  n0=$(now); in_ns sh "$RUN/naive.head"; n1=$(now)
  { echo '*mangle'; cat "$RUN/v4.appends"; echo COMMIT; } | in_ns iptables-restore --noflush -w
  tail -200 "$RUN/v4.appends" | sed 's/^/iptables -w -t mangle /' > "$RUN/naive.tail"
  n2=$(now); in_ns sh "$RUN/naive.tail"; n3=$(now)
  head -200 "$RUN/ip4.batch" | sed 's/^/ip /' > "$RUN/naive.ip"
  n4=$(now); in_ns sh "$RUN/naive.ip" >/dev/null 2>&1; n5=$(now)
  per_line_start=$(echo "($n1 - $n0) / $(wc -l < "$RUN/naive.head")" | bc -l)
  per_line_end=$(echo "($n3 - $n2) / $(wc -l < "$RUN/naive.tail")" | bc -l)
  per_cmd=$(echo "($n5 - $n4) / $(wc -l < "$RUN/naive.ip")" | bc -l)
  total_lines=$(cat "$RUN/v4.lines" "$RUN/v6.lines" | wc -l)
  naive=$(echo "($per_line_start + $per_line_end) / 2 * $total_lines + $per_cmd * $(cat "$RUN/ip4.batch" "$RUN/ip6.batch" | wc -l)" | bc -l)

  printf '%s\t%s\t%s\t%.2f\t%.2f\t%.3f\t%.2f\t%s\t%s\t%.2f\t%.2f\t%.0f\n' "$size" "$S" "$N" \
    "$(elapsed "$t0" "$t1")" "$netlink_total" "$nexthop_loop" "$turn" "$cpu" "$rss" "$(elapsed "$r0" "$r1")" \
    "$(elapsed "$l0" "$l1")" "$naive" >> "$OUT"
done
ip netns del "$NS" 2>/dev/null
column -t -s $'\t' "$OUT"
# Time to idle against size, for the three ways, on log scales.
if command -v gnuplot >/dev/null; then
  gnuplot <<GNUPLOT
set terminal pngcairo size 800,500
set output '$DOCS/bench-scale.png'
set title 'Time to program S sub-rules (2S mangle rules) and N nexthops'
set xlabel 'sub-rules (S); nexthops N = S / 100'
set ylabel 'seconds'
set logscale xy
set key top left
set grid
plot '$OUT' every ::1 using 2:4 with linespoints title 'waymarkd, ip processes', \
     '' every ::1 using 2:5 with linespoints title 'waymarkd, rtnetlink', \
     '' every ::1 using 2:11 with linespoints title 'limit: one restore, one ip -batch', \
     '' every ::1 using 2:12 with linespoints title 'naive: a process per line (estimated)'
GNUPLOT
  echo "plot: $DOCS/bench-scale.png"
fi
