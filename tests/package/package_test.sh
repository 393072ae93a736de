#!/usr/bin/env bash
# Builds the packages of this machine and hands them to inside.sh on a private device. Argument: where to build.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
root=${here%/tests/package}
[ $# -eq 1 ] || { echo "usage: $0 DIRECTORY" >&2; exit 2; }
mkdir -p "$1"
into=$(cd "$1" && pwd)
"$root/packaging/build" --into "$into" release
cd "$into"                                         # seen inside, writes vanish
exec "$root/tools/sandbox" --leak-check -- bash "$here/inside.sh" "$into/packages/release" "$here"
