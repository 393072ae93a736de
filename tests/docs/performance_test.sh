#!/usr/bin/env bash
# The figures of docs/performance.md are those of bench/performance.json, and a page with another figure is noticed.
set -u
. "$(dirname "$0")/lib.sh"
"$root/bench/peers/report.py" check || complain "docs/performance.md and bench/performance.json differ"

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
