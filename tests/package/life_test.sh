#!/usr/bin/env bash
# The packages live and die on a bare Debian: installed, upgraded, removed, purged, unused and used. Nothing may be left, and
# no maintainer script may start the daemon. Argument: the directory in which package_test.sh has built.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
root=${here%/tests/package}
. "$here/bare.sh"
[ $# -eq 1 ] || { echo "usage: $0 DIRECTORY" >&2; exit 2; }
into=$(cd "$1" && pwd)
bare=$(bare_root "$root")
[ -n "$(ls "$into"/packages/release/wex_*.deb)" ]

# A lower version of each package: the same but for its number and a line of the start script, so that it is upgraded.
rm -rf "$into/lower" && mkdir -p "$into/lower/tree"
for package in "$into"/packages/release/*.deb; do
  case $package in *-dbgsym_*) continue ;; esac
  rm -rf "$into/lower/tree"
  dpkg-deb -R "$package" "$into/lower/tree"
  sed -i -e 's/^Version: .*/Version: 0.0.1/' -e 's/libwex1 (= [^)]*)/libwex1 (= 0.0.1)/' "$into/lower/tree/DEBIAN/control"
  [ ! -e "$into/lower/tree/etc/init.d/wex" ] || echo '# of a lower version' >> "$into/lower/tree/etc/init.d/wex"
  dpkg-deb --root-owner-group -b "$into/lower/tree" "$into/lower/" > /dev/null
done
rm -rf "$into/lower/tree"

cd "$into"
exec "$root/tools/sandbox" --leak-check -- bash "$here/life_inside.sh" "$bare" "$into"
