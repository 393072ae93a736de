# The daemon comes up as the device expects it: threads, limits, lock, tree, table, and only once.
. /test/lib.sh
wex=$(daemon)

names=$(cat /proc/$wex/task/*/comm | sort | tr '\n' ' ')
for thread in wex wex_process_net wex_process_dom wex_thread_noti wex_inotify_for wex_delay_resta; do
  case " $names" in *" $thread "*) ;; *) fail "no thread $thread among: $names" ;; esac
done

is "$(cat /proc/$wex/oom_score_adj)" -1000 "score for the low-memory killer"
is "$(awk '/^Max open files/ {print $4, $5}' /proc/$wex/limits)" "2304 2304" "descriptor limit (the hard one was 1024)"
is "$(tr -d '\0' < /tmp/wex/wex.pid)" "$wex" "lock file"
is "$(wc -c < /tmp/wex/wex.pid)" $((${#wex} + 1)) "length of the lock file, closing zero byte included"
is "$(mode /tmp/wex/wex.pid)" 700 "mode of the lock file"
is "$(readlink /proc/$wex/fd/0)" /dev/null "standard input"
is "$(readlink /proc/$wex/fd/1)" /dev/console "standard output"

for dir in /tmp/wex /qx_cfg /qx_cfg/vsd_common /qx_cfg/vsd/0 /ovix/vsd/0/utils/wex /data /data/.ovix/vsd/0 \
  /data/var/run/vsd /tmp/vsd_common /tmp/vsd/0 /etc/vsd/0 /tmp/vsd/0/wex /tmp/vsd/0/wex/db; do
  is "$(mode $dir)" 777 "mode of $dir"
done
check "no directory of a second data disk" [ ! -e /data2 ]
check "no directory of a domain that does not exist" [ ! -e /tmp/vsd/1 ]

is "$(stat -c %s $ALIVE)" 188416 "size of the alive table"
is "$(mode $ALIVE)" 777 "mode of the alive table"
is "$(od -An -tu4 -j 8 -N 4 $ALIVE | tr -d ' ')" 184356 "size word of the alive table"
is "$(sort /etc/wex/third_part_proc | grep . | tr '\n' ' ')" \
  "/usr/bin/detach WEX_RESTART /usr/bin/plain WEX_RESTART " "list of third-part programs"
check "no Start. in the running log" grep -q ': Start\.' /ovix/vsd/0/utils/wex/running_log1

before=$(ls -l /proc/$wex/task | wc -l)
/sbin/wex
is $? 255 "status of a second daemon"
is "$(daemon)" "$wex" "owner of the lock after a second daemon was refused"
is "$(ls -l /proc/$wex/task | wc -l)" "$before" "threads after a second daemon was refused"

kill -TERM $wex
kill -HUP $wex
check "SIGTERM or SIGHUP ended the daemon" never 2 daemon_up_other_than "$wex"
note "up $(awk '{print $1}' /proc/uptime) s after power-on"
pass
