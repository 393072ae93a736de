#!/usr/bin/env bash
# Builds the packages of this machine, looks at a staged tree, and hands the packages to inside.sh on a private device.
# Argument: where to build.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
root=${here%/tests/package}
[ $# -eq 1 ] || { echo "usage: $0 DIRECTORY" >&2; exit 2; }
mkdir -p "$1"
into=$(cd "$1" && pwd)
"$root/packaging/build" --into "$into" release
fail() { printf 'FAIL: %s\n' "$*"; exit 1; }

lintian --allow-root --fail-on error,warning "$into"/packages/release/*.changes ||
  fail "lintian complains about the packages; lintian-explain-tags NAME says why"

# ---- Staged: everything is below the prefix given when installing, and a service builds against it there -------

stage=$into/stage
rm -rf "$stage"
cmake --install "$into/package-release/source/obj" --prefix "$stage" > "$into/stage.log" 2>&1 || { cat "$into/stage.log"; fail "no staging"; }
outside=$(sed -n 's/^-- \(Installing\|Up-to-date\): //p' "$into/stage.log" | grep -v "^$stage/" || true)
[ -z "$outside" ] || fail "installed outside the prefix: $outside"
for file in sbin/wex etc/init.d/wex etc/wex/proc etc/cmdmap; do
  [ -e "$stage/$file" ] || fail "the staged tree lacks $file"
done
! grep -r -l '@[A-Za-z_]*@' "$stage/etc" "$stage/libexec" "$stage/share/wex" || fail "these were not configured"
# shellcheck disable=SC2046
(export PKG_CONFIG_PATH && PKG_CONFIG_PATH=$(dirname "$(find "$stage" -name wex.pc)") &&
  gcc -std=c99 -Wall -Werror "$here/example/service.c" $(pkg-config --cflags --libs wex) -o "$into/staged-service") ||
  fail "a service does not build against the staged tree"

cd "$into"                                         # seen inside, writes vanish
exec "$root/tools/sandbox" --leak-check -- bash "$here/inside.sh" "$into/packages/release" "$here"
