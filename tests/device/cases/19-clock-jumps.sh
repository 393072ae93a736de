# The clock is set ten years ahead below a running wex, and back again: restarts and waits take as long as ever, no
# watched thread counts as silent, and nothing restarts the machine.
# seconds: 150
. /test/lib.sh
begin=$(uptime_sec)
jump() { /usr/bin/setclock $(($(date +%s) + $1)) || fail "the clock cannot be set"; }
years=315360000

# One program waits for its self-check while the clock jumps.
echo 25 > /debug_time
parked_once() { [ "$(grep -c 'HA_WAIT_SELF_CHECK: Task: ' $LOG)" = 1 ]; }
kill_until_parked() {
  local pid
  parked_once && return 0
  pid=$(pids_of /usr/bin/service --tag parked)
  [ -n "$pid" ] && [ -e /tmp/ready.$pid ] && kill -KILL $pid
  return 1
}
start_service /usr/bin/service --tag parked
check "was not parked" eventually 40 kill_until_parked
since=$(uptime_sec)

start /usr/bin/threads
ready_threads() { process=$(pids_of /usr/bin/threads); [ -n "$process" ] && [ -s /tmp/threads.$process ]; }
check "the threads did not register" eventually 20 ready_threads
watched=$process
start_service /usr/bin/service --tag steady

restarts() {
  local old=$service
  kill -KILL $old
  check "did not come back while the clock stood $1" eventually 15 other_runs $old /usr/bin/service --tag steady
  service=$(pids_of /usr/bin/service --tag steady)
}
jump $years
check "the parked program came back at once" never 2 one_runs /usr/bin/service --tag parked
restarts "ahead"
check "the parked program did not come back" eventually 40 one_runs /usr/bin/service --tag parked
[ $(($(uptime_sec) - since)) -ge 24 ] || fail "the parked program came back after $(($(uptime_sec) - since)) s"

# The watchdog looks once a minute.
looked() { [ $(($(uptime_sec) - begin)) -ge 65 ]; }
eventually 70 looked
jump -$years
restarts "back"
is "$(pids_of /usr/bin/threads)" "$watched" "the process with watched threads"
[ ! -e /data/.wex_reboot ] || fail "a reboot was asked for"
[ ! -e /data/.wex_notify ] || fail "a thread counted as hung"
is "$(grep -c ': Start\.' /ovix/vsd/0/utils/wex/running_log1)" 1 "starts in the running log"
figures "3 programs die, one of them is parked, a thread is watched" "the clock jumps ten years ahead, and back" 3 "back after as long as ever, the thread is not taken for silent"
pass
