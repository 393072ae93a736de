# Ten minutes with a watchdog of twenty seconds, fed while wex is well: programs die, one is parked and comes back, and the
# device stays up.
# count-instructions: 1
# mostly-waits: 1
# seconds: 900
. /test/lib.sh
[ ! -e /modules/watchdog.ko ] || insmod /modules/watchdog.ko
insmod /modules/softdog.ko soft_margin=20 || fail "no software watchdog"
check "no watchdog device" eventually 5 [ -c /dev/watchdog ]
start /usr/sbin/wex-watchdog /dev/watchdog 2
check "the watchdog is not fed" eventually 10 one_runs /bin/sh /usr/sbin/wex-watchdog /dev/watchdog 2
start_service /usr/bin/service --tag one
start_service /usr/bin/service --tag loop
for death in 1 2 3 4 5; do
  kill -KILL $service
  [ $death = 5 ] || check "loop did not come back" eventually 15 other_runs $service /usr/bin/service --tag loop
  service=$(pids_of /usr/bin/service --tag loop)
done
parked() { wexstat --check > /dev/null; [ $? = 1 ]; }
check "loop is not parked: $(wexstat --check)" eventually 15 parked
end=$(($(uptime_sec) + 600))
while [ "$(uptime_sec)" -lt $end ]; do
  service=$(pids_of /usr/bin/service --tag one)
  [ -n "$service" ] && kill -KILL $service
  wexstat --check > /dev/null
  [ $? -le 1 ] || fail "wex is not well: $(wexstat --check)"
  sleep 40
done
check "loop did not come back: $(wexstat --check)" wexstat --check
pass
