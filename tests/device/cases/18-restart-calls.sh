# How many system calls the daemon and its child make for the restart of one of 20 services; tools/device compares that with
# bench/device-budget. The least of five counts: what the daemon does now and then anyway falls into some.
# seconds: 240
. /test/lib.sh
wex=$(daemon)
n=0
while [ $n -lt 20 ]; do
  n=$((n + 1))
  start /usr/bin/stamp /tmp/stamp.$n
done
all_there() { [ "$(ls /tmp/stamp.*[0-9] 2> /dev/null | wc -l)" = 20 ]; }
check "20 services did not start" eventually 60 all_there
sleep 2
for n in 1 2 3 4 5; do
  restart_cost calls /tmp/stamp.$n $wex >> /tmp/calls || fail "service $n was not restarted below the counter"
  sleep 1
done
note "system calls: $(sort -n /tmp/calls | tr '\n' ' ')"
echo "SIZE restart-system-calls $(sort -n /tmp/calls | head -n 1)"
is "$(daemon)" "$wex" "pid of the daemon"
pass
