# Seven failed forks in the fork-failure file end the daemon with status 1; it is started again and forgets nobody.
. /test/lib.sh
start_service /usr/bin/service --tag kept
kept=$service
wex=$(daemon)
printf aaaaaa > /tmp/wex/forkfile
check "six failures ended the daemon" never 2 daemon_up_other_than $wex
printf a >> /tmp/wex/forkfile
check "seven failures did not end the daemon" eventually 15 daemon_up_other_than $wex
is "$(cat /run/wex.status)" 1 "status of the daemon"
check "not in the running log" grep -q 'Unable to restart the process, wex will be restart\.' /ovix/vsd/0/utils/wex/running_log1
check "the fork-failure file stayed" [ ! -e /tmp/wex/forkfile ]
is "$(pids_of /usr/bin/service --tag kept)" $kept "pid of the service"
kill -KILL $kept
check "the service was forgotten" eventually 15 other_runs $kept /usr/bin/service --tag kept
pass
