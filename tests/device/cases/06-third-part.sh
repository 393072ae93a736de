# Third-part programs of the device's list are supervised as soon as they are executed, also when they detach.
. /test/lib.sh
start /usr/bin/plain
check "plain was not registered when it was executed" eventually 15 one_registered /usr/bin/plain
plain=$(pids_of /usr/bin/plain)
kill -KILL $plain
check "plain was not restarted" eventually 20 other_runs $plain /usr/bin/plain
again=$(pids_of /usr/bin/plain)
kill -KILL $again
check "plain was not restarted a second time" eventually 20 other_runs $again /usr/bin/plain

start /usr/bin/detach
sleep 2
check "detach does not run once" eventually 15 one_runs /usr/bin/detach
detached=$(pids_of /usr/bin/detach)
check "the detached process was not registered" eventually 15 one_registered /usr/bin/detach
kill -KILL $detached
check "the detached process was not restarted" eventually 30 other_runs $detached /usr/bin/detach
pass
