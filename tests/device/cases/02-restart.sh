# A service that dies comes back as a new process, again and again, and is announced.
. /test/lib.sh
start_service /usr/bin/service --tag one
first=$service
check "no database file" registered 0 service $first
is "$(sed -n 2p $DB/service.$first)" 2 "action in the database file"

kill -KILL $first
check "did not come back after SIGKILL" eventually 15 other_runs $first /usr/bin/service --tag one
second=$(pids_of /usr/bin/service --tag one)
check "the old database file stayed" eventually 5 [ ! -e $DB/service.$first ]
check "the new process has no database file" eventually 10 registered 0 service $second
check "the exit was not announced" eventually 5 grep -q "HA-5-HA_SELF_CHECK: Task: .*/$first receives event:0009" $LOG
check "the restart was not announced" eventually 5 grep -q "HA-5-HA_SELF_CHECK_INFO: Self-checking OK: 1 times and new id .*/$second" $LOG

is "$(cat /proc/$second/oom_score_adj)" 0 "score of the restarted program for the low-memory killer"
is "$(field $second SigBlk | tr -d 0)" "" "blocked signals of the restarted program"
is "$(readlink /proc/$second/fd/0)" /dev/null "standard input of the restarted program"
is "$(readlink /proc/$second/fd/1)" /dev/console "standard output of the restarted program"
is "$(readlink /proc/$second/cwd)" / "working directory of the restarted program"
foreign=$(ls -l /proc/$second/fd | grep -c -e '/tmp/wex/' -e inotify -e eventpoll -e NETLINK)
is "$foreign" 0 "descriptors of the daemon in the restarted program"

# Its record has moved along: the daemon knows the new pid, and an end without a signal counts too.
kill -SEGV $second
check "did not come back a second time" eventually 15 other_runs $second /usr/bin/service --tag one
check "the core dump was not announced" eventually 5 grep -q "/$second receives event:008b" $LOG
start_service /usr/bin/service --tag ends --exit 3000 0
check "an orderly end was not announced" eventually 10 grep -q "HA_RE_INIT: Job .* will be re-initialized" $LOG
pass
