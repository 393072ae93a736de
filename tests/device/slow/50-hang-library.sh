# The client library's shortest agreement: 120 s, five misses. One silent thread of two, aborted at 600 s.
# mostly-waits: 1
# seconds: 780
. /test/lib.sh
start /usr/bin/threads
ready_threads() { process=$(pids_of /usr/bin/threads); [ -n "$process" ] && [ -s /tmp/threads.$process ]; }
check "the threads did not register" eventually 20 ready_threads
hung=$process
read main second < /tmp/threads.$hung
kill -USR1 $hung
began=$(uptime_sec)
check "aborted too early" never 530 other_runs $hung /usr/bin/threads
check "not aborted and restarted" eventually 150 other_runs $hung /usr/bin/threads
note "silent for $(($(uptime_sec) - began)) s"
check "not aborted: $(grep "/$hung receives" $LOG)" grep -q "/$hung receives event:0086" $LOG
check "not in the hang ring" grep -q "detect process:\[threads/$hung\] thread threads:$second hung\." /data/.wex_notify
is "$(cat /data/.wex_notify_count)" 1 "next slot of the hang ring"
pass
