# How many system calls the daemon and its child make for the restart of one of 20 services; tools/device compares that with
# bench/device-budget. The least of five counts: what the daemon does now and then anyway falls into some.
# seconds: 240
. /test/lib.sh
wex=$(daemon)
start_stamps
for n in 1 2 3 4 5; do
  restart_cost calls /tmp/stamp.$n $wex >> /tmp/calls || fail "service $n was not restarted below the counter"
  sleep 1
done
note "system calls: $(sort -n /tmp/calls | tr '\n' ' ')"
echo "SIZE restart-system-calls $(sort -n /tmp/calls | head -n 1)"
is "$(daemon)" "$wex" "pid of the daemon"
pass
