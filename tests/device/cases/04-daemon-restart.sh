# The daemon dies and is started again: who lives is kept, who died meanwhile is restarted.
. /test/lib.sh
start_service /usr/bin/service --tag lives
lives=$service
start_service /usr/bin/service --tag dies
dies=$service
wex=$(daemon)

touch /run/hold
kill -KILL $wex
check "the daemon survived SIGKILL" eventually 5 [ ! -d /proc/$wex ]
kill -KILL $dies
check "the service survived SIGKILL" eventually 5 none_runs /usr/bin/service --tag dies
rm /run/hold
check "the daemon was not started again" eventually 20 daemon_up_other_than $wex
check "what died meanwhile was not restarted" eventually 15 one_runs /usr/bin/service --tag dies
is "$(pids_of /usr/bin/service --tag lives)" $lives "pid of the service that lived through it"

kill -KILL $lives
check "the living one was forgotten" eventually 15 other_runs $lives /usr/bin/service --tag lives
again=$(pids_of /usr/bin/service --tag dies)
kill -KILL $again
check "the restarted one was forgotten" eventually 15 other_runs $again /usr/bin/service --tag dies

# A service that starts while no daemon runs gets through in the end.
wex=$(daemon)
touch /run/hold
kill -KILL $wex
start /usr/bin/service --tag early
eventually 5 one_runs /usr/bin/service --tag early
rm /run/hold
check "a registration made without a daemon was lost" eventually 40 ready /usr/bin/service --tag early
early=$(pids_of /usr/bin/service --tag early)
kill -KILL $early
check "a service registered while the daemon was away is not restarted" eventually 15 other_runs $early /usr/bin/service --tag early
pass
