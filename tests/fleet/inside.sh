#!/usr/bin/env bash
# Inside the sandbox: a daemon, a service that was restarted once, and what wexstat tells of them. Arguments: wex, wexstat,
# the directory of the example services, examples/fleet, and where to put the output.
set -u
[ "${WEX_SANDBOX-}" = 1 ] || { echo "start me through fleet_test.sh" >&2; exit 1; }
wex=$1 stat=$2 services=$3 examples=$4 out=$5
fail() { echo "FAIL: $*"; exit 1; }
export DATA_OVIX_DIR=/data/.ovix/vsd/0
PATH=${stat%/*}:$PATH
"$wex" < /dev/null & daemon=$!
(cd / && setsid "$services/worker" < /dev/null > /dev/null 2>&1 &) 2> /dev/null
wexstat --wait worker --timeout 20 || fail "worker does not run"
pid() { wexstat --json | sed -n 's/.*"name":"worker","pid":\([0-9]*\).*/\1/p'; }
first=$(pid)
kill -KILL "$first" || fail "which pid? $(wexstat --json)"
for _ in $(seq 200); do
  second=$(pid)
  [ -n "$second" ] && [ "$second" != "$first" ] && wexstat --wait worker --timeout 0 2> /dev/null && break
  sleep 0.1
done
wexstat --openmetrics > "$out/openmetrics" || fail "no OpenMetrics"
"$examples/wex-textfile" "$out/wex.prom" || fail "wex-textfile"
[ "$(ls "$out" | tr '\n' ' ')" = "openmetrics wex.prom " ] || fail "wex-textfile leaves something: $(ls "$out")"
# Without output the file from before stays.
PATH=/usr/bin:/bin "$examples/wex-textfile" "$out/wex.prom" 2> /dev/null && fail "wex-textfile is content with nothing"
grep -q '^wex_up 1$' "$out/wex.prom" && [ "$(ls "$out" | wc -l)" = 2 ] || fail "wex-textfile spoils the file"
kill -INT "$daemon"
wait "$daemon"
kill -KILL "$(pid)"
exit 0
