#!/bin/sh
# usage: tsan_run_test.sh TSAN_RUN SUPPRESSIONS RACER   (inside tools/sandbox)
# A race in a process that the test only started fails it, also when nobody looks at its status or its output, and is kept.
race() { "$run" "$supp" /tmp/kept sh -c '"$@" > /dev/null 2>&1; exit 0' sh "$@"; }
run=$1 supp=$2 racer=$3

race "$racer" locked || { echo "FAIL: refused without a race"; exit 1; }
[ -e /tmp/kept ] && { echo "FAIL: kept without a race: $(cat /tmp/kept)"; exit 1; }
rm -r /tmp/tsan-reports
race "$racer" > /tmp/said && { echo "FAIL: the race was not seen"; exit 1; }
for text in /tmp/said /tmp/kept; do
  grep -q 'data race.*write_often' "$text" || { echo "FAIL: $text: $(cat "$text")"; exit 1; }
done
