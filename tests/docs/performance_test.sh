#!/usr/bin/env bash
# The figures of docs/performance.md are those of bench/performance.json, and a page with another figure is noticed.
set -u
. "$(dirname "$0")/lib.sh"
"$root/bench/peers/report.py" check || complain "docs/performance.md and bench/performance.json differ"

# What the device has to have is told with the limits themselves; of flash in thousands of bytes, rounded up.
budget() { sed -n "s/^$1  *\([0-9]*\)$/\1/p" "$root/bench/device-budget"; }
kilobytes() { echo "$((($(budget "stripped-bytes-$1") + 999) / 1000)) KB"; }
costs="Below $(kilobytes wex) of flash for the daemon, $(kilobytes libwex) for the library and $(kilobytes wexstat) for \`wexstat\`;
below $(budget resident-kib-0-services) KiB of resident memory without services and $(budget resident-kib-100-services) KiB with a hundred."
tr '\n' ' ' < "$root/docs/integrator.md" | grep -qF "$(echo "$costs" | tr '\n' ' ' | sed 's/ $//')" ||
  complain "docs/integrator.md does not say: $costs"

mkdir -p "$work/bench/peers" "$work/docs"
cp "$root"/bench/peers/*.py "$work/bench/peers/"
cp "$root/bench/performance.json" "$work/bench/"
cp "$root"/docs/performance* "$work/docs/"
sed -i '/^| floor-wait /s/[0-9]\( |[^|]*|\)$/x\1/' "$work/docs/performance.md"
cmp -s "$root/docs/performance.md" "$work/docs/performance.md" && complain "the page was not changed"
"$work/bench/peers/report.py" check > /dev/null 2>&1 && complain "a changed figure is not noticed"
rm "$work"/docs/*.svg
cp "$root/docs/performance.md" "$work/docs/"
"$work/bench/peers/report.py" check > /dev/null 2>&1 && complain "missing charts are not noticed"
finish
