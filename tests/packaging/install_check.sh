#!/usr/bin/env bash
# What `make install` and `make deb` produce, checked file by file: the
# programs, the unit (naming the installed programs), the man pages, the
# docs and the example, bash completion; the package's contents and
# dependencies, lintian without errors or warnings, and, installed for real,
# the unit through `systemd-analyze verify` and its exposure score. Needs
# root (the package is installed and removed again). Run from the top of
# the tree: `bash tests/packaging/install_check.sh BUILD`.
set -uo pipefail
BUILD=${1:-build}
source "$(dirname "$0")/../e2e/checks.sh"

FILES="usr/sbin/waymarkd usr/sbin/waymarkctl
usr/share/man/man8/waymarkd.8.gz usr/share/man/man8/waymarkctl.8.gz usr/share/man/man5/waymark.yaml.5.gz
usr/share/doc/waymark/operations.md usr/share/doc/waymark/configuration.md usr/share/doc/waymark/architecture.md
usr/share/doc/waymark/examples/waymark.yaml usr/share/bash-completion/completions/waymarkctl"

echo "== make install DESTDIR=..."
dest=$(mktemp -d)
trap 'rm -rf "$dest"' EXIT
make --no-print-directory install DESTDIR="$dest" BUILD="$BUILD" > "$dest.log" 2>&1 ||
  { cat "$dest.log"; exit 1; }
for f in $FILES usr/lib/systemd/system/waymarkd.service; do
  check "installed: /$f" "$([ -s "$dest/$f" ] && echo yes)" yes
done
check "the unit starts the installed waymarkd" \
  "$(grep -c '^ExecStart=/usr/sbin/waymarkd --config /etc/waymark/waymark.yaml$' "$dest/usr/lib/systemd/system/waymarkd.service")" 1
for page in man8/waymarkd.8 man8/waymarkctl.8 man5/waymark.yaml.5; do
  check "$page renders" "$(zcat "$dest/usr/share/man/$page.gz" | grep -c '^\.TH')" 1
done
check "the installed waymarkd prints its version and build" \
  "$("$dest/usr/sbin/waymarkd" --version | grep -cE '^waymarkd [0-9]+\.[0-9]+\.[0-9]+ \(.+\)$')" 1
check "the example configuration is valid and warning-free" \
  "$("$dest/usr/sbin/waymarkd" --check --config "$dest/usr/share/doc/waymark/examples/waymark.yaml" | grep -c warning)" 0
check "bash completion offers the commands" \
  "$(bash -c "source /usr/share/bash-completion/bash_completion 2>/dev/null; source '$dest/usr/share/bash-completion/completions/waymarkctl'; complete -p waymarkctl" | grep -c _waymarkctl)" 1

echo "== make deb"
rm -f "$BUILD"/waymark_*.deb
make --no-print-directory deb BUILD="$BUILD" > "$dest.log" 2>&1 || { cat "$dest.log"; exit 1; }
deb=$(ls "$BUILD"/waymark_*.deb)
contents=$(dpkg-deb -c "$deb" | awk '{print $6}')
for f in $FILES lib/systemd/system/waymarkd.service usr/share/doc/waymark/copyright usr/share/doc/waymark/changelog.gz; do
  check "packaged: /$f" "$(echo "$contents" | grep -cx "./$f")" 1
done
depends=$(dpkg-deb -f "$deb" Depends)
echo "     Depends: $depends"
for dep in iproute2 iptables libyaml-0-2 libsystemd0 libprometheus-cpp-pull1.0 libstdc++6; do
  check "depends on $dep" "$(echo "$depends" | tr ',' '\n' | grep -c "^ *$dep\b")" 1
done
# Kept: the informational tags only (no init.d script: the unit is the way
# to run it; a spelling "error" inside the compiler's merged strings).
lint=$(lintian --tag-display-limit 0 "$deb" 2>&1 | grep -E '^[EW]: ')
check "lintian: no errors or warnings" "$lint" ""

echo "== installed for real"
dpkg -i "$deb" > "$dest.log" 2>&1 || { cat "$dest.log"; exit 1; }
check "systemd-analyze verify passes" "$(systemd-analyze verify /lib/systemd/system/waymarkd.service 2>&1)" ""
exposure=$(systemd-analyze security --offline=true /lib/systemd/system/waymarkd.service 2>&1 |
  sed -n 's/.*exposure level for waymarkd.service: \([0-9.]*\).*/\1/p')
echo "     exposure: $exposure"
check "exposure score at most 3.0 (OK)" "$(awk -v e="$exposure" 'BEGIN { print (e != "" && e <= 3.0) }')" 1
dpkg -r waymark > "$dest.log" 2>&1
check "removed cleanly" "$([ -e /usr/sbin/waymarkd ] || echo gone)" gone
rm -f "$dest.log"
finish
