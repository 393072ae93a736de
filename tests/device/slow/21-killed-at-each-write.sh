# The daemon is killed before each of its writes while it restarts a program, and before some of them while it restarts the
# device and while it starts; a program before each write of its registration. Each time all programs run again, once, and
# are registered. Then the power fails while the daemon is being killed.
# boots: 3
# count-instructions: 1
# seconds: 250
# restart: reboot: Restarting system\|sysrq: Resetting
. /test/lib.sh
running_log=/ovix/vsd/0/utils/wex/running_log1
starts() { grep -c ': Start\.' $running_log; }
tags="one two three"
tried=0 calls=

start_all() { for tag in $tags; do start_service /usr/bin/service --tag $tag; done; }
# The tags of all services that run. Programs of the userland do this in one look each.
running() { cat $(pidof service | sed 's,[0-9]*,/proc/&/cmdline,g') 2> /dev/null | tr '\0' '\n' | grep -v -e '^/' -e '^-' | sort; }
# all_run_once [OLD]: each of them runs, once, it is not the process OLD, and the daemon has acted on its registration.
all_run_once() {
  local pid
  [ "$(running | grep -v client)" = "$(echo "$tags" | tr ' ' '\n' | sort)" ] || return 1
  for pid in $(pidof service); do
    [ $pid != "${1-}" ] && [ -e /tmp/ready.$pid ] && registered 0 service $pid || return 1
  done
}

# killed_at N SIGNAL (its number): the daemon, before its Nth write after one of the programs got the signal. False: it made fewer.
killed_at() {
  local old=$(daemon) tag=$(echo $tags | cut -d ' ' -f $((tried % 3 + 1))) victim call status
  victim=$(pids_of /usr/bin/service --tag $tag)
  call=$(kill_at $1 daemon $old $2 $victim)
  status=$?
  [ $status = 3 ] && return 1
  is $status 0 "status of kill_at"
  tried=$((tried + 1)) calls="$calls $call"
  check "the daemon was not started again after its write $1, $call" eventually 20 daemon_up_other_than $old
  check "not all run once after the daemon's write $1, $call: $(running)" eventually 30 all_run_once $victim
}

# start_killed_at N: a daemon that starts, with one program to start again and two to find.
start_killed_at() {
  local old=$(daemon) call status
  touch /run/hold
  kill -KILL $old
  check "the daemon survived SIGKILL" eventually 10 [ ! -d /proc/$old ]
  kill -KILL "$(pids_of /usr/bin/service --tag one)"
  call=$(kill_at $1 start /sbin/wex)
  status=$?
  rm /run/hold
  check "the daemon was not started again after its write $1, $call" eventually 20 daemon_up_other_than $old
  check "not all run once after the starting daemon's write $1, $call" eventually 30 all_run_once
  [ $status = 3 ] && return 1
  is $status 0 "status of kill_at"
  tried=$((tried + 1)) calls="$calls $call"
}

# A program that was killed runs once when the daemon knew of it, or not at all.
client_killed_at() {
  local call status
  call=$(kill_at $1 start /usr/bin/service --tag client$1)
  status=$?
  [ $status = 3 ] && return 1
  is $status 0 "status of kill_at"
  tried=$((tried + 1)) calls="$calls $call"
}
clients_run_once() { [ -z "$(running | uniq -d)" ]; }

case $1 in
  1)
    start_all
    while killed_at $((tried + 1)) 9; do :; done
    check "not all run once when the daemon was not killed" eventually 20 all_run_once
    note "killed before:$calls"
    figures "a program is restarted" "the daemon is killed before each of its writes" $tried "each time back once"
    # One core dump restarts the device; the daemon is killed on the way, until that comes too late.
    echo '60 1' > /etc/wex_config
    tried=0 calls=
    while killed_at $((tried * 3 + 1)) 11; do
      echo "$tried$calls" > /data/tried
      sync
    done
    sleep 20
    fail "one core dump did not restart the device" ;;
  2)
    read -r tried calls < /data/tried
    check "the last reboot is not in the record" grep -q 'detect more than 1 process exit in shorttime\[60\]s' /data/.wex_reboot
    note "killed before: $calls"
    figures "the device is restarted after a core dump" "the daemon is killed before some of its writes" $tried "each time the program is back once; restarted where it was not killed"

    start_all
    tried=0 calls=
    while start_killed_at $((tried * 10 + 1)); do :; done
    note "killed before:$calls"
    figures "the daemon starts, one of three programs is dead" "it is killed before some of its writes" $tried "the next one has each of them once"

    tried=0 calls=
    while client_killed_at $((tried + 1)); do :; done
    tags="$tags after"
    start_service /usr/bin/service --tag after
    wex=$(daemon)
    kill -KILL $wex
    check "the daemon was not started again" eventually 20 daemon_up_other_than $wex
    check "not all run once after programs were killed that registered" eventually 30 all_run_once
    sleep 2
    check "a program that was killed while it registered runs twice" clients_run_once
    note "killed before:$calls"
    figures "a program registers" "it is killed before each of its writes" $tried "back once or not at all, all others once"

    # The power fails.
    (while :; do kill -KILL "$(daemon)"; sleep 4; done) 2> /dev/null &
    round=0
    while [ $round -lt 2 ]; do
      before=$(starts)
      started_again() { [ "$(starts)" -gt $before ]; }
      check "no daemon starts" eventually 20 started_again
      round=$((round + 1))
    done
    starts > /data/starts
    sync
    sleep 5                                 # one or two further starts, one of them perhaps half-way
    echo b > /proc/sysrq-trigger
    sleep 20
    fail "the device was not restarted" ;;
esac
check "starts were lost that the running log had when the power failed" [ "$(starts)" -gt "$(cat /data/starts)" ]
check "a file of the disk was in the way of a start" [ -z "$(find /data /ovix -name 'aside-*')" ]
is "$(grep -c -v '^[0-9/]* [0-9:]*: ' $running_log)" 0 "broken lines of the running log"
start_all
for tag in $tags; do
  service=$(pids_of /usr/bin/service --tag $tag)
  kill -KILL $service
  check "$tag does not come back after the power had failed" eventually 15 other_runs $service /usr/bin/service --tag $tag
done
figures "the power fails" "the daemon starts and is killed again and again" 1 "logs whole, wex starts and restarts as ever"
pass
