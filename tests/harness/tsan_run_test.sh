#!/bin/sh
# usage: tsan_run_test.sh TSAN_RUN SUPPRESSIONS RACER   (inside tools/sandbox)
# A race in a process that the test only started fails it, also when nobody looks at its status or its output.
rm -rf /tmp/tsan-reports
"$1" "$2" sh -c '"$1" locked > /dev/null 2>&1; exit 0' sh "$3" || { echo "FAIL: refused without a race"; exit 1; }
rm -rf /tmp/tsan-reports
said=$("$1" "$2" sh -c '"$1" > /dev/null 2>&1; exit 0' sh "$3") && { echo "FAIL: the race was not seen"; exit 1; }
case $said in *'data race'*write_often*) exit 0 ;; esac
echo "FAIL: $said"
exit 1
