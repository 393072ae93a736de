# A watchdog that is fed while wexstat finds wex well: the device stays up while it is, and restarts when wex is stopped.
# boots: 2
# mostly-waits: 1
# seconds: 240
# restart: softdog: Initiating system reboot
. /test/lib.sh
if [ "$1" = 2 ]; then
  is "$(cat /data/steps)" "well stopped" "steps before the restart"
  pass
fi
[ ! -e /modules/watchdog.ko ] || insmod /modules/watchdog.ko
insmod /modules/softdog.ko soft_margin=15 || fail "no software watchdog"
check "no watchdog device" eventually 5 [ -c /dev/watchdog ]
start_service /usr/bin/service --tag one
check "wex is not well: $(wexstat --check)" eventually 20 wexstat --check
start /usr/sbin/wex-watchdog /dev/watchdog 1
fed() { one_runs /bin/sh /usr/sbin/wex-watchdog /dev/watchdog 1 && ls -l /proc/$(pids_of /bin/sh /usr/sbin/wex-watchdog /dev/watchdog 1)/fd | grep -q watchdog; }
check "the watchdog is not fed" eventually 10 fed
sleep 32                                # more than twice its time
# wex may be killed, for init starts it again.
old=$(daemon)
kill -KILL "$old"
check "wex did not come back" eventually 15 daemon_up_other_than "$old"
sleep 10
check "wex is not well: $(wexstat --check)" eventually 10 wexstat --check
printf 'well ' > /data/steps
printf stopped >> /data/steps
sync
kill -STOP "$(daemon)"
sleep 90
fail "the device was not restarted: $(wexstat --check)"
