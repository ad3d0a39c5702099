#!/usr/bin/env bash
# Builds the Debian package from a tree that `make install PREFIX=/usr
# DESTDIR=ROOT` filled: strips the programs, adds the copyright file and a
# changelog, computes the shared-library dependencies with dpkg-shlibdeps,
# writes the control file and builds OUTDIR/waymark_VERSION_ARCH.deb.
set -euo pipefail
ROOT=$(realpath "$1")
OUTDIR=$(realpath "$2")
HERE=$(cd "$(dirname "$0")" && pwd)

VERSION=$("$ROOT/usr/sbin/waymarkd" --version | awk '{print $2}')
ARCH=$(dpkg --print-architecture)
DOC=$ROOT/usr/share/doc/waymark

strip --strip-unneeded --remove-section=.comment --remove-section=.note \
  "$ROOT/usr/sbin/waymarkd" "$ROOT/usr/sbin/waymarkctl"
# Debian 12 keeps units under /lib (merged with /usr/lib at run time).
mkdir -p "$ROOT/lib/systemd"
mv "$ROOT/usr/lib/systemd/system" "$ROOT/lib/systemd/"
rmdir -p --ignore-fail-on-non-empty "$ROOT/usr/lib/systemd"
install -m 644 "$HERE/copyright" "$DOC/copyright"
cat > "$DOC/changelog" <<CHANGES
waymark ($VERSION) unstable; urgency=medium

  * Release $VERSION; what changed is in the project's history.

 -- The waymark developers <waymark@example.org>  $(date -R -d @"${SOURCE_DATE_EPOCH:-$(date +%s)}")
CHANGES
gzip -9nf "$DOC/changelog"

# dpkg-shlibdeps reads the package's name from a debian/control of its own.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/debian"
printf 'Source: waymark\n\nPackage: waymark\nArchitecture: any\n' > "$work/debian/control"
libs=$(cd "$work" && dpkg-shlibdeps -O "$ROOT/usr/sbin/waymarkd" "$ROOT/usr/sbin/waymarkctl" |
  sed -n 's/^shlibs:Depends=//p')

find "$ROOT" -type d -exec chmod 755 {} +
find "$ROOT" -type f -exec chmod 644 {} +
chmod 755 "$ROOT/usr/sbin/waymarkd" "$ROOT/usr/sbin/waymarkctl"
mkdir -p "$ROOT/DEBIAN"
(cd "$ROOT" && find . -type f ! -path './DEBIAN/*' -printf '%P\0' | sort -z | xargs -0 md5sum) \
  > "$ROOT/DEBIAN/md5sums"
cat > "$ROOT/DEBIAN/control" <<CONTROL
Package: waymark
Version: $VERSION
Architecture: $ARCH
Maintainer: The waymark developers <waymark@example.org>
Installed-Size: $(du -sk --exclude=DEBIAN "$ROOT" | cut -f1)
Depends: iproute2, iptables, $libs
Section: net
Priority: optional
Description: policy-based routing daemon for Linux routers
 waymarkd steers traffic entering chosen interfaces to chosen nexthops by
 access lists of addresses, protocols, ports and TCP flags. It programs
 iptables mangle marks, one policy rule and one routing table per nexthop,
 follows the interfaces' addresses, withdraws nexthops that fail their
 health checks, and paces its kernel work. waymarkctl shows what it did.
CONTROL
dpkg-deb --root-owner-group -Zxz --build "$ROOT" "$OUTDIR/waymark_${VERSION}_${ARCH}.deb"
