# All disks full, then none that can be written, then no process id left: services come back, and the device restarts, when
# it must, on full disks, too. It comes up with one, and with other things at the names of wex's files on it. Last, the clock
# passes January 2038 below wex, goes back by years, and forth again.
# boots: 3
# count-instructions: 1
# seconds: 250
. /test/lib.sh
tags="one two three four five"
running_log=/ovix/vsd/0/utils/wex/running_log1

start_all() { for tag in $tags; do start_service /usr/bin/service --tag $tag; done; }
pids_now() { for tag in $tags; do pids_of /usr/bin/service --tag $tag; done; }
# One instance of each runs, and none of $old.
all_back() {
  local pid now=$(pids_now)
  [ "$(echo "$now" | grep -c .)" = 5 ] || return 1
  for pid in $old; do case " $(echo $now) " in *" $pid "*) return 1 ;; esac; done
}
# Each has its database file, by which the next daemon knows it.
all_filed() {
  local pid now=$(pids_now)
  [ "$(echo "$now" | grep -c .)" = 5 ] || return 1
  for pid in $now; do registered 0 service $pid || return 1; done
}
# die_and_return WHEN: all services are killed, and come back; $took.
died=0
die_and_return() {
  local since=$(uptime_sec)
  old=$(pids_now)
  kill -KILL $old
  died=$((died + 5))
  check "not all came back $1" eventually 40 all_back
  took=$(($(uptime_sec) - since))
}
next_daemon() {
  local old=$(daemon)
  kill -KILL $old
  check "the daemon was not started again $1" eventually 20 daemon_up_other_than $old
}
# No process can be made from here on: as few ids as a kernel allows for its processors are there to be given, and then none.
# Whoever finds that ends, so the loop is in a shell of its own. Until there are more, this one uses builtins only.
take_all_ids() {
  ids=$(cat /proc/sys/kernel/pid_max)   # not by read: it takes byte after byte, and this file tells but the first one so
  (
    for least in 301 320 384 512; do echo $least > /proc/sys/kernel/pid_max && break; done
    while :; do sleep 1000 & done
  ) 2> /dev/null
}
fork_failed() {
  local now end
  read -r end _ < /proc/uptime
  end=$((${end%.*} + 20 * ${time_factor:-1}))
  until [ -s /tmp/wex/forkfile ]; do
    read -r now _ < /proc/uptime
    [ ${now%.*} -lt $end ] || return 1
  done
}
give_ids_back() { echo $ids > /proc/sys/kernel/pid_max; }

fill() { dd if=/dev/zero of=$1/filler bs=4k 2> /dev/null; [ "$(room $1)" -lt 8 ] || fail "$1 is not full"; }
room() { df -P $1 | awk 'END { print $4 }'; }
# One core dump restarts the device.
end_by_crash() {
  rm -rf /tmp/wex_reboot_avail /tmp/core
  echo '60 1' > /etc/wex_config
  sync
  kill -SEGV "$(pids_of /usr/bin/service --tag one)"
  sleep 30
  fail "a core dump did not restart the device $1"
}

# Names that the daemon reads or writes: its own that outlive a restart of the device, others of its own, and those of
# others.
kept="/data/.wex_notify /data/.wex_notify_count /data/.wex_reboot /data/.wex_history /data/.wex_hang $running_log
  /ovix/vsd/0/utils/wex/running_log2"
own="/etc/wex/third_part_proc /tmp/wex/wex.pid /tmp/wex/.wex $ALIVE /dev/shm/wex-status /tmp/.wex_semphore_path"
others="/data/.ovix/vsd/0/qx_utils/qx_utils_dbg_cfg.txt /data/.wex_debug_pid /debug_time /etc/wex_config /etc/wex/proc/odd
  /tmp/wex_reboot_avail $DB/odd.99999001 /tmp/vsd/0/wex/99999002 /tmp/vsd/3"
put() {
  rm -rf $2
  mkdir -p $(dirname $2)
  case $1 in
    directory) mkdir -p $2/d ;;
    fifo) mkfifo $2 ;;
    loop) ln -s $2 $2 ;;
    noise) head -c 5000 /dev/urandom > $2 ;;
    endless) mknod $2 c 1 5 ;;
    empty) printf '' > $2 ;;
  esac
}
# start_among KIND: the next daemon starts with KIND at all of these names, and one of the services dead.
start_among() {
  local name wex=$(daemon) one=$(pids_of /usr/bin/service --tag one)
  touch /run/hold
  kill -KILL $wex
  check "the daemon survived SIGKILL" eventually 10 [ ! -d /proc/$wex ]
  kill -KILL $one
  for name in $kept $own $others; do put $1 $name || fail "no $1 at $name"; done
  rm /run/hold
  check "the daemon was not started again where $1 lay at its names" eventually 20 daemon_up_other_than $wex
  old=$one
  check "not all run where $1 lay at the daemon's names" eventually 20 all_back
  check "not all have their database file where $1 lay at the daemon's names" eventually 20 all_filed
}

case $1 in
  1)
    for disk in /tmp /dev/shm; do mount -o remount,size=4m $disk; done
    start_all
    for disk in /tmp /dev/shm /data; do fill $disk; done
    die_and_return "on full disks"
    next_daemon "on full disks"
    figures "5 programs die, the daemon is killed" "all disks are full" 6 "back after $took s"
    rm -f /tmp/filler /dev/shm/filler
    end_by_crash "with its disk full" ;;
  2)
    [ "$(room /data)" -lt 8 ] || fail "the disk is not full any more"
    rm /data/filler
    start_all
    # Mounted once more each: nothing that is in use can be made read-only.
    for disk in /tmp/wex /tmp/vsd /data /ovix /dev/shm; do
      mount --bind $disk $disk && mount -o remount,bind,ro $disk || fail "$disk cannot be made read-only"
    done
    ! touch /tmp/wex/probe 2> /dev/null || fail "/tmp/wex can be written"
    die_and_return "with disks that cannot be written"
    for disk in /tmp/wex /tmp/vsd /data /ovix /dev/shm; do umount $disk; done
    figures "5 programs die" "no disk can be written" 5 "back after $took s"
    die_and_return "when disks could be written again"
    check "not all have their database file again" eventually 20 all_filed

    old=$(pids_now)
    wex=$(daemon)
    take_all_ids
    kill -KILL $old
    tried=none
    fork_failed && tried=fork
    pids_now > /run/without_ids
    give_ids_back
    since=$(uptime_sec)
    is $tried fork "what failed for want of an id"
    [ ! -s /run/without_ids ] || fail "a program came back without an id"
    check "not all came back when there were ids again" eventually 40 all_back
    is "$(daemon)" $wex "the daemon, which needed no other"
    figures "5 programs die, and cannot be started" "no process id is left on the whole device" 5 "back $(($(uptime_sec) - since)) s after there is one"
    kill $(pids_of sleep 1000)
    check "not all have their database file after that" eventually 20 all_filed

    kinds=0
    for kind in directory fifo loop noise endless empty; do
      start_among $kind
      kinds=$((kinds + 1))
    done
    names=$(echo $kept $own $others | wc -w)
    figures "the daemon starts, one of 5 programs is dead" "directories, fifos, links, noise, an endless device or nothing at its $names names" $((kinds * names)) "the program is back, the others run on"
    rm -rf $others
    for name in $kept; do put directory $name || fail "no directory at $name"; done
    end_by_crash "with directories at the names of its logs" ;;
esac

is "$(grep -c ': Start\.' $running_log)" 1 "starts in the running log, at whose name a directory was"
check "the last restart of the device is not recorded, at whose name a directory was" grep -q 'detect more than 1 process exit in shorttime' /data/.wex_reboot
start_all
figures "the device is restarted" "its disk is full; directories are in the way of its logs" 2 "wex starts again, and on the full disk"

# The shell's own looks at files written after January 2038 fail; processes it still finds.
died=0
/usr/bin/setclock 2147483642 || fail "the clock cannot be set"
die_and_return "six seconds before the time has more than 31 bits"
sleep 7
die_and_return "after that"
wex=$(daemon)
kill -KILL $wex
check "the daemon was not started again in 2038" eventually 20 other_runs $wex /sbin/wex
check "its start does not have the time" eventually 20 grep -q '^2038/01/19 03:14:.*: Start\.' $running_log
die_and_return "with the daemon that started then"
/usr/bin/setclock 1700000000
die_and_return "years before"
/usr/bin/setclock 2224432000
die_and_return "in 2040"
figures "5 programs die again and again, the daemon once" "the clock passes January 2038, then jumps back and ahead" $((died + 1)) "all back"
pass
