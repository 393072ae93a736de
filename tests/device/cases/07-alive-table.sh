# Registered threads have their bit and a moving byte in the shared table; the dead have neither.
. /test/lib.sh
start /usr/bin/threads
ready_threads() { process=$(pids_of /usr/bin/threads); [ -n "$process" ] && [ -s /tmp/threads.$process ]; }
check "the threads did not register" eventually 20 ready_threads
read main second < /tmp/threads.$process
is "$main" "$process" "thread id of the main thread"
is "$(alive_bit $main) $(alive_bit $second)" "1 1" "registration bits"

moved() { now=$(alive_sequence $1); [ "$now" != "$2" ] && [ "$now" != 0 ]; }
for thread in $main $second; do
  check "the byte of thread $thread stands still" eventually 10 moved $thread "$(alive_sequence $thread)"
done

# 255 reports later the byte has come round, past 0.
zero_seen() { [ "$(alive_sequence $second)" = 0 ]; }
check "a registered thread's byte was 0" never 10 zero_seen

kill -USR1 $process
sleep 1
still=$(alive_sequence $second)
check "a silent thread's byte moves" never 2 moved $second $still
is "$(alive_bit $second)" 1 "registration bit of the silent thread"

kill -USR2 $process
gone() { [ "$(alive_bit $1)" = 0 ] && [ "$(alive_sequence $1)" = 0 ]; }
check "the withdrawn thread kept its entry" eventually 5 gone $second
is "$(alive_bit $main)" 1 "registration bit of the main thread"

kill -KILL $process
check "the dead process kept its entry" eventually 10 gone $main
check "the process did not come back" eventually 15 other_runs $process /usr/bin/threads
old=$process
new_threads() { ready_threads && [ $process != $old ]; }
check "the new process did not register its threads" eventually 20 new_threads
read main second < /tmp/threads.$process
is "$(alive_bit $main) $(alive_bit $second)" "1 1" "registration bits of the new process"

# A daemon that is started again clears the table; the next reports put the threads back by themselves.
wex=$(daemon)
kill -KILL $wex
check "the daemon was not started again" eventually 20 daemon_up_other_than $wex
back() { [ "$(alive_bit $main) $(alive_bit $second)" = "1 1" ]; }
check "the threads did not register again with the new daemon" eventually 20 back
pass
