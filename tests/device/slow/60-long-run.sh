# Fifteen minutes of random kills, hangs and daemon deaths: at the end everything runs once, and the daemon
# has no more memory, descriptors or zombies than at the start.
# seconds: 1200
. /test/lib.sh
echo '5 100000' > /etc/wex_config       # core dumps are part of the game here
tags="a b c d e f g h"
for tag in $tags; do start_service /usr/bin/service --tag $tag; done
wex=$(daemon)
resident() { field $(daemon) VmRSS | sed 's/ kB//'; }
descriptors() { ls /proc/$(daemon)/fd | wc -l; }
zombies() { cat /proc/[0-9]*/stat 2> /dev/null | awk -v p=$(daemon) '$3 == "Z" && $4 == p' | wc -l; }
random() { echo $(($(od -An -tu2 -N 2 /dev/urandom | tr -d ' ') % $1)); }
sleep 5
memory_before=$(resident)
descriptors_before=$(descriptors)
note "before: $memory_before kB, $descriptors_before descriptors"
end=$(($(uptime_sec) + 900))
kills=0 daemons=0 next=0
while [ "$(uptime_sec)" -lt $end ]; do
  next=$(((next + 1 + $(random 3)) % 8 + 1))
  tag=$(echo $tags | cut -d' ' -f$next)
  victim=$(pids_of /usr/bin/service --tag $tag)
  case $(random 4) in
    0) signal=SEGV ;;
    1) signal=ABRT ;;
    *) signal=KILL ;;
  esac
  touch /etc/dev_mon                    # a device-monitor restart is not throttled
  [ -n "$victim" ] && kill -$signal $victim && kills=$((kills + 1))
  sleep 2
  if [ "$(random 20)" = 0 ]; then
    wex=$(daemon)
    kill -KILL $wex && daemons=$((daemons + 1))
    check "the daemon was not started again" eventually 20 daemon_up_other_than $wex
  fi
done
for tag in $tags; do
  check "service $tag does not run once" eventually 20 one_runs /usr/bin/service --tag $tag
done
sleep 5
is "$(zombies)" 0 "zombies of the daemon"
check "descriptors grew from $descriptors_before to $(descriptors)" [ "$(descriptors)" -le $((descriptors_before + 2)) ]
check "memory grew from $memory_before to $(resident) kB" [ "$(resident)" -le $((memory_before + 256)) ]
note "after $kills kills and $daemons deaths of the daemon: $(resident) kB, $(descriptors) descriptors"
pass
