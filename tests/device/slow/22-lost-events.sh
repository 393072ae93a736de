# The kernel's queue of events is filled while the daemon is stopped, and programs die, are executed, or both: those that
# registered and those of the third-part list. Then processes are started as fast as the device can. All are back, none
# ran twice, also after the power has failed in the middle of it.
# boots: 2
# count-instructions: 1
# seconds: 250
# restart: sysrq: Resetting
. /test/lib.sh
# The book in which each life writes itself down (tests/faults/counted.c), and how many lives each name must have.
book=/data/f/book due=/run/due
mkdir -p /data/f
mount -t tmpfs book /data/f
mkdir /data/f/locks
: > $due
registering=
n=0
while [ $n -lt 20 ]; do n=$((n + 1)); registering="$registering s$n"; done
listed="p1 p2 p3 p4 detach_0_0 detach_5_20 detach_30_5"

command_of() { case $1 in s*) echo /usr/bin/counted $1 ;; *) echo /usr/bin/$1 ;; esac; }
begin() { local name; for name in "$@"; do start $(command_of $name); echo $name >> $due; done; }
# The living instance, as it has written itself down.
pid_of() { awk -v name=$1 '$1 == name { pid = $2 } END { print pid }' $book; }
die() {
  local name pids=
  for name in "$@"; do
    pids="$pids $(pid_of $name)"
    echo $name >> $due
  done
  kill -KILL $pids
}
# As many lives as are due, the last of each has come up, and the daemon shows it.
lives() { awk '$3 != "ready" { print $1 }' $book | sort | uniq -c; }
last_ready() { awk '$3 == "ready" { pid[$1] = $2 } END { for (name in pid) print pid[name] }' $book | sort; }
supervised() { wexstat | awk '$4 == "running" { print $2 }' | sort; }
all_up() {
  sort $due | uniq -c > /run/wanted
  lives | cmp -s - /run/wanted && last_ready > /run/last && supervised | cmp -s - /run/last
}
# whole WHEN [SECONDS]: so they are within so many, or a minute, and none of them ran twice; $took.
whole() {
  local since=$(uptime_sec)
  eventually ${2:-60} all_up || fail "$1: lives due and lived: $(lives | diff /run/wanted - | grep '^[-+] '), supervised and up: $(supervised | diff - /run/last | grep '^[-+][0-9]')"
  ! grep twin $book || fail "$1: ran twice"
  took=$(($(uptime_sec) - since))
}
is_dead() { ! cat /proc/$1/stat 2> /dev/null | grep -v ') Z '; }
dropped() { awk -v pid=$(daemon) '$2 == 11 && $3 == pid { print $9 }' /proc/net/netlink; }
is_stopped() { [ "$(cat /proc/$(daemon)/task/*/stat | grep -c ') T ')" = "$(ls /proc/$(daemon)/task | wc -l)" ]; }
stop_daemon() { kill -STOP "$(daemon)"; check "the daemon is not stopped" eventually 20 is_stopped; }

for name in $listed p5; do
  [ -e /usr/bin/$name ] || cp /usr/bin/counted /usr/bin/$name
  printf '/usr/bin/%s WEX_RESTART' $name > /etc/wex/proc/$name
done
wex=$(daemon)
kill -KILL $wex
check "no other daemon, which has the list" eventually 20 daemon_up_other_than $wex
begin $registering $listed
whole "started"
if [ "$1" = 2 ]; then
  die $registering $listed
  whole "after the power had failed"
  figures "27 programs start and die" "the power failed while the queue of events was full" 54 "all up after $took s"
  pass
fi

# p5 is executed, p1 and p2 are started again by hand, while all events are lost.
small_queue "$(daemon)" 16384 || fail "the queue of events stays large"
stop_daemon
overflows() { /usr/bin/storm 1 exec 20; [ "$(dropped)" -gt 0 ]; }
check "the small queue of events does not overflow" eventually 60 overflows
die $registering $listed
begin p5
for name in p1 p2; do
  pid=$(pid_of $name)
  check "$name does not die" eventually 10 is_dead $pid
  start /usr/bin/$name
done
by_hand() { [ "$(awk '$1 ~ /^p[125]$/ && $3 == "ready"' $book | wc -l)" = 5 ]; }
check "what is started by hand does not come up" eventually 20 by_hand
lost_events=$(dropped)
kill -CONT "$(daemon)"
whole "after the queue was full" 30         # before the minute's look finds the exits
figures "27 programs die, 3 are executed" "the daemon is stopped, its queue small, $lost_events events are dropped" 30 "all up once after $took s"

storm 2 fork & storm=$!
begun=$(awk '/^processes/ { print $2 }' /proc/stat)
since=$(uptime_sec)
die $registering $listed
whole "while processes were forked"
forks=$((($(awk '/^processes/ { print $2 }' /proc/stat) - begun) / ($(uptime_sec) - since + 1)))
# Killed again as soon as it has begun to live.
before=$(pid_of p4)
die p4
again() { [ "$(pid_of p4)" != $before ]; }
check "p4 does not come back" eventually 30 again
die p4
whole "a program of the list was killed twice"
figures "27 programs die, one three times" "$forks other processes a second" 29 "all up once after $took s"

# Killed before and after the daemon is killed.
wex=$(daemon)
die s1 s2 s3 s4 s5
kill -KILL $wex
die s6 s7 s8 s9 s10
check "no other daemon" eventually 20 daemon_up_other_than $wex
whole "the daemon was killed"
figures "10 programs die" "the daemon is killed, $forks other processes a second" 10 "all up once after $took s"
kill $storm

small_queue "$(daemon)" 16384 || fail "the queue of events stays large before the power fails"
stop_daemon
/usr/bin/storm 2 exec &
sleep 2
die $registering $listed
echo b > /proc/sysrq-trigger
sleep 20
fail "the device was not restarted"
