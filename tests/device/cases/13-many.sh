# A hundred services: all restarted when all die at once; what the daemon costs with 0, 10 and 100 of them,
# which tools/device compares with bench/device-budget.
# seconds: 240
. /test/lib.sh
wex=$(daemon)
resident() { field $wex VmRSS | sed 's/ kB//'; }
size() { echo "SIZE $1 $2"; }
descriptors() { ls /proc/$wex/fd | wc -l; }
count_registered() { ls $DB | grep -c '^service\.'; }
registered_now() { [ "$(count_registered)" = $1 ]; }
table_kib() { echo $(($(stat -c %b /dev/shm/wex-status) / 2)); }   # it has memory for what is in use only
size resident-kib-0-services "$(resident)"
size status-table-kib-0-services "$(table_kib)"

n=0
while [ $n -lt 100 ]; do
  n=$((n + 1))
  start /usr/bin/service --tag $n
  if [ $n = 10 ]; then
    check "10 services did not register" eventually 60 registered_now 10
    with_10=$(resident)
    size resident-kib-10-services $with_10
  fi
done
check "100 services did not register" eventually 120 registered_now 100
all_ready() { [ "$(ls /tmp/ready.* | wc -l)" -ge 100 ]; }
check "100 services were not all answered" eventually 60 all_ready
with_100=$(resident)
size resident-kib-100-services $with_100
size bytes-of-a-registration $(((with_100 - with_10) * 1024 / 90))
note "$(descriptors) descriptors with 100 services"
all_shown() { [ "$(wexstat | grep -c '^service ')" = 100 ]; }
check "wexstat does not show 100 services: $(wexstat)" eventually 60 all_shown
size status-table-kib-100-services "$(table_kib)"
wexstat --watch 600 > /tmp/shown & shown=$!
check "wexstat does not watch" eventually 60 grep -q '^service ' /tmp/shown
size resident-kib-wexstat "$(field $shown VmRSS | sed 's/ kB//')"
kill $shown

old=$(for file in $DB/service.*; do echo ${file##*.}; done)
is "$(echo $old | wc -w)" 100 "services before"
kill -KILL $old
new_pids() {
  for file in $DB/service.*; do echo ${file##*.}; done | sort > /tmp/now
  [ "$(wc -l < /tmp/now)" = 100 ] || return 1
  for pid in $old; do grep -qx $pid /tmp/now && return 1; done
  return 0
}
check "not all of 100 came back" eventually 90 new_pids
for pid in $(cat /tmp/now); do tr '\0' ' ' < /proc/$pid/cmdline; echo; done | sort | uniq -c | awk '$1 != 1' > /tmp/twice
check "some came back twice: $(cat /tmp/twice)" [ ! -s /tmp/twice ]
is "$(daemon)" "$wex" "pid of the daemon"
zombies=$(cat /proc/[0-9]*/stat 2> /dev/null | awk -v p=$wex '$3 == "Z" && $4 == p' | wc -l)
is "$zombies" 0 "zombies of the daemon"
size resident-kib-after-100-restarts "$(resident)"
note "$(descriptors) descriptors after 100 restarts"
pass
