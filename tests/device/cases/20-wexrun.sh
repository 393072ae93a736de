# Programs that know nothing of wex, below wexrun: a script comes back, registered anew; one that tells how it is has its
# signs of life reported, gets the signals, and wex sees how it ended.
. /test/lib.sh
locked() { grep -q "POSIX .* WRITE $1 " /proc/locks; }

printf '#!/bin/sh\nwhile :; do sleep 1; done\n' > /usr/sbin/feeder && chmod 0755 /usr/sbin/feeder
feeder="/bin/sh /usr/sbin/feeder"
start /sbin/wexrun -- /usr/sbin/feeder
check "the script was not started" eventually 20 one_runs $feeder
first=$(pids_of $feeder)
check "the script is not registered" eventually 10 registered 0 wexrun $first
is "$(sed -n 3p $DB/wexrun.$first)" "/sbin/wexrun -- /usr/sbin/feeder" "what a restart repeats"
check "the lock was lost when the script was executed" locked $first
kill -KILL $first
check "the script did not come back" eventually 20 other_runs $first $feeder
second=$(pids_of $feeder)
check "the script is not registered anew" eventually 10 registered 0 wexrun $second
check "nor its lock held" eventually 10 locked $second

minder="/sbin/wexrun --notify /usr/bin/notify"
start $minder
check "the program that notifies was not started" eventually 20 one_runs /usr/bin/notify
parent=$(pids_of $minder)
program=$(pids_of /usr/bin/notify)
check "that it is ready was not logged" eventually 20 grep -q "notify/$program is ready" $LOG
check "its status was not logged" eventually 5 grep -q "notify/$program says: watched for 120000000" $LOG
watched() { [ "$(alive_bit $parent)" = 1 ]; }
check "it is not watched" eventually 20 watched
moved() { [ "$(alive_sequence $parent)" != "$1" ]; }
check "its signs of life are not reported" eventually 10 moved "$(alive_sequence $parent)"

kill -USR2 $parent
check "the signal was not handed on, or the exit status not" eventually 10 grep -q "/$parent receives event:0900" $LOG
check "it did not come back" eventually 20 other_runs $program /usr/bin/notify
parent=$(pids_of $minder)
program=$(pids_of /usr/bin/notify)
check "it is not registered anew" eventually 10 registered 0 wexrun $parent
kill -QUIT $program
check "wex does not see the signal that ended it" eventually 10 grep -q "/$parent receives event:0003" $LOG
check "it did not come back a second time" eventually 20 other_runs $program /usr/bin/notify
parent=$(pids_of $minder)
check "it is not registered a third time" eventually 10 registered 0 wexrun $parent
program=$(pids_of /usr/bin/notify)
kill -TERM $parent
check "SIGTERM was not handed on" eventually 10 grep -q "notify/$program says: got SIGTERM" $LOG
check "the program outlived its stop" eventually 10 none_runs /usr/bin/notify
check "a stopped program kept its registration" eventually 10 [ ! -e $DB/wexrun.$parent ]
check "a stopped program came back" never 3 one_runs /usr/bin/notify

check "what a restart cannot repeat is not refused" [ "$(/sbin/wexrun /bin/touch /tmp/started "two words" 2>&1)" = 'wexrun: word 3, "two words", holds a blank, a restart would part it there' ]
check "it was started all the same" [ ! -e /tmp/started ]
pass
