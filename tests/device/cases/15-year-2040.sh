# The clock stands in 2040, beyond what 32 bits of seconds hold: wex starts, supervises and writes its logs.
# seconds: 90
. /test/lib.sh
running_log=/ovix/vsd/0/utils/wex/running_log1
event_log=/tmp/wex/wex.log1

# The shell's own looks at files written after January 2038 fail, so this case opens what it would look at.
there() { cat "$1" > /dev/null 2>&1; }
ready() { local pid; pid=$(pids_of "$@"); [ -n "$pid" ] && there /tmp/ready.$pid; }

touch /etc/debug_log /run/hold
kill -INT $(daemon)
check "the daemon does not stop" eventually 10 none_runs /sbin/wex
/usr/bin/setclock 2224432000 || fail "the clock cannot be set"   # in June 2040
rm /run/hold
check "no start in the running log with its time" eventually 30 grep -q '^2040/06/.*: Start\.' $running_log
check "one daemon does not stay" eventually 10 one_runs /sbin/wex
wex=$(pids_of /sbin/wex)

start_service /usr/bin/service --tag late
first=$service
check "no database file" registered 0 service $first
kill -KILL $first
check "did not come back" eventually 15 other_runs $first /usr/bin/service --tag late
second=$(pids_of /usr/bin/service --tag late)
check "the new process has no database file" eventually 10 registered 0 service $second
gone() { ! there "$1"; }
check "the old database file stayed" eventually 5 gone $DB/service.$first
check "the restart is not in the event log with its time" eventually 5 grep -q ' 2040 .*service' $event_log

# A daemon that is killed is followed by one that knows the registration.
kill -KILL $wex
check "the daemon was not started again" eventually 20 other_runs $wex /sbin/wex
starts() { [ "$(grep -c '^2040/.*: Start\.' $running_log)" = 2 ]; }
check "the second start is not in the running log" eventually 20 starts
kill -KILL $second
check "the new daemon forgot the registration" eventually 20 other_runs $second /usr/bin/service --tag late
figures "a program dies twice, the daemon once in between" "the clock stands in June 2040" 3 "each is back, the logs have the time"
pass
