#!/usr/bin/env bash
# A daemon that is linked in another way (against musl, static) keeps services, measured against its budget.
#
#   variant_test.sh PRESET    after building build/PRESET, as root
#
# Inside the sandbox it is started, examples of the same build (each linked with its libwex.so) register, are
# killed and come back, and hang reports arrive. bench/device-budget.PRESET holds what it may cost.
set -u
. "$(dirname "$0")/lib_inside.sh"
here=$(cd "$(dirname "$0")" && pwd)
root=${here%/tests/package}

if [ "${WEX_SANDBOX-}" != 1 ]; then
  [ $# -eq 1 ] && [ -x "$root/build/$1/wex" ] || { echo "usage: $0 PRESET (one that has been built)" >&2; exit 2; }
  exec "$root/tools/sandbox" --leak-check -- bash "$0" "$1"
fi
preset=$1
build=$root/build/$preset
sizes=/tmp/sizes
services=(clock worker)

fail() {
  printf 'FAIL: %s\n' "$*"
  tail -n 20 /dev/console.log
  end_all
  exit 1
}
registered_other_than() {                          # PROGRAM OLD-PID
  local now
  now=$(pid_of "$1") && [ "$now" != "$2" ] && [ -e "/tmp/vsd/0/wex/db/${1##*/}.$now" ]
}
answers() {                                        # the daemon listens, and is subscribed to the process connector
  [ -S /tmp/wex/.wex ] &&
    awk -v pid="$daemon" '$2 == 11 && $3 == pid && $4 != "00000000" { found = 1 } END { exit !found }' /proc/net/netlink
}
reports() {                                        # a thread of worker has advanced its byte in the alive table
  local tid
  for tid in /proc/"$(pid_of "$build/examples/worker")"/task/*; do
    [ "$(od -An -tu1 -j $((20513 + ${tid##*/})) -N 1 /dev/shm/UTILS-wex-shm-001)" -gt 1 ] && return 0
  done
  return 1
}
end_all() {
  local name pid
  kill -INT "$daemon" 2> /dev/null
  within 10 gone "$build/wex"
  for name in "${services[@]}"; do
    while pid=$(pid_of "$build/examples/$name"); do kill -KILL "$pid"; sleep 0.05; done
  done
}
resident() { sed -n 's/^VmRSS:[^0-9]*\([0-9]*\) kB$/\1/p' "/proc/$daemon/status"; }

"$build/wex" < /dev/null > /dev/null 2>&1 &
daemon=$!
within 20 answers || fail "the daemon does not answer"
echo "SIZE resident-kib-0-services $(resident)" > $sizes
for name in "${services[@]}"; do
  (cd / && exec setsid "$build/examples/$name" < /dev/null > /dev/null 2>&1) &
  disown $!
  within 20 registered_other_than "$build/examples/$name" 0 || fail "$name did not register"
done
within 30 reports || fail "no thread of worker reports"
for name in "${services[@]}"; do
  old=$(pid_of "$build/examples/$name")
  kill -KILL "$old"
  within 20 registered_other_than "$build/examples/$name" "$old" || fail "$name was killed and did not come back"
done
echo "SIZE resident-kib-2-services $(resident)" >> $sizes
end_all
for file in wex libwex.so; do
  strip -o /tmp/stripped "$build/$file" && echo "SIZE stripped-bytes-${file%.so} $(stat -c %s /tmp/stripped)" >> $sizes
done
"$root/bench/compare-budget" "$root/bench/device-budget.$preset" $sizes
