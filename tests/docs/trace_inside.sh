#!/usr/bin/env bash
# Inside the sandbox: start, registration, restart, a domain created, filled, shown and deleted, a program below wexrun; all
# under strace. Argument: the directory with wex, wexrun, wexstat, worker and the library, which takes the traces.
set -u
[ "${WEX_SANDBOX-}" = 1 ] || { echo "start me through system_calls_test.sh" >&2; exit 1; }
work=$1
status=0
within() { local end=$((SECONDS + $1)); shift; until "$@"; do [ "$SECONDS" -ge "$end" ] && return 1; sleep 0.05; done; }
trace() { local to=$1; shift; env --default-signal strace -f -qq -s 256 -o "$work/$to.trace" "$@" < /dev/null; }
registered() {                                     # not under the pid $1; its pid in $pid; NAME, or worker
  local file
  for file in /tmp/vsd/0/wex/db/"${2-worker}".*; do
    pid=${file##*.}
    [ -e "$file" ] && [ "$pid" != "$1" ] && [ -d "/proc/$pid" ] && return 0
  done
  return 1
}
threads_watched() { [ "$(tail -c +33 /dev/shm/UTILS-wex-shm-001 2> /dev/null | head -c 20481 | tr -d '\0' | wc -c)" -gt 0 ]; }
daemon_pid() { [ -e /tmp/wex/wex.pid ] && daemon=$(tr -d '\0' < /tmp/wex/wex.pid) && [ -n "$daemon" ] && [ -S /tmp/wex/.wex ] &&
  awk -v pid="$daemon" '$2 == 11 && $3 == pid && $4 != "00000000" { found = 1 } END { exit !found }' /proc/net/netlink; }
fail() { echo "$*"; status=1; }

export DATA_OVIX_DIR=/data/.ovix/vsd/0
mkdir -p /etc/rc.d/rc.vsd
rm -f /bin/run-parts && cp /usr/bin/true /bin/run-parts   # foreign programs are not what is looked at
cp /usr/bin/true /sbin/nothing
trace daemon "$work/wex" & tracer=$!
within 20 daemon_pid || fail "the daemon does not answer"
(cd / && trace client "$work/worker") &
within 15 registered 0 || fail "the service does not register"
within 15 threads_watched || fail "its thread does not register"
old=$pid
kill -KILL "$old"
within 15 registered "$old" || fail "the service does not come back"
(cd / && trace wexrun "$work/wexrun" --notify -- /usr/bin/sleep 1000) &
within 15 registered 0 wexrun && within 15 pgrep -P "$pid" sleep > /dev/null || fail "wexrun does not start its program"
kill -TERM "$pid"
trace show_status "$work/wexstat" --json > /dev/null
trace watch_status "$work/wexstat" --watch > /dev/null &
watches() { grep -q ppoll "$work/watch_status.trace" && read -r watcher _ < "$work/watch_status.trace"; }
within 15 watches && kill -TERM "$watcher" || fail "wexstat does not watch"
trace create "$work/wex" -c 1 || fail "no domain can be created"
trace add "$work/wex" add nothing 1
trace show "$work/wex" -s
trace delete "$work/wex" -d 1 || fail "no domain can be deleted"
kill -INT "$daemon"
# The restarted service is below the tracer too.
within 10 registered "$old" && kill -KILL "$pid"
{ wait $tracer; wait; } 2> /dev/null
exit $status
