# SIGTERM means stopped on purpose: the program stays away and its registration is gone.
. /test/lib.sh
start_service /usr/bin/service --tag stop
start_service /usr/bin/service --tag witness
witness=$service
stopped=$(pids_of /usr/bin/service --tag stop)
kill -TERM $stopped
check "the database file stayed" eventually 10 [ ! -e $DB/service.$stopped ]
kill -KILL $witness
check "the daemon no longer restarts" eventually 15 other_runs $witness /usr/bin/service --tag witness
check "a program stopped on purpose was started again" never 3 one_runs /usr/bin/service --tag stop
pass
