# Fifteen minutes of random kills, hangs and deaths of the daemon: at the end everything runs once, and the
# daemon has no more memory, descriptors or zombies than at the start.
# mostly-waits: 1
# seconds: 1200
. /test/lib.sh
echo '5 100000' > /etc/wex_config       # core dumps are part of the game here
tags="1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16"
for tag in $tags; do start_service /usr/bin/service --tag $tag; done
start /usr/bin/hang                     # aborted by the watchdog again and again
start /usr/bin/threads                  # reports in time and must never be touched
ready_threads() { reporter=$(pids_of /usr/bin/threads); [ -n "$reporter" ] && [ -s /tmp/threads.$reporter ]; }
check "the threads did not register" eventually 20 ready_threads

resident() { field $(daemon) VmRSS | sed 's/ kB//'; }
descriptors() { ls /proc/$(daemon)/fd | wc -l; }
zombies() { cat /proc/[0-9]*/stat 2> /dev/null | awk -v p=$(daemon) '$3 == "Z" && $4 == p' | wc -l; }
random() { echo $(($(od -An -tu2 -N 2 /dev/urandom | tr -d ' ') % $1)); }

sleep 5
memory_before=$(resident)
descriptors_before=$(descriptors)
note "before: $memory_before kB, $descriptors_before descriptors"
end=$(($(uptime_sec) + 900))
kills=0 daemons=0
while [ "$(uptime_sec)" -lt $end ]; do
  tag=$(($(random 16) + 1))
  # Not the same one within 40 s: five restarts within 120 s would park it.
  eval last=\${last_$tag:-0}
  if [ $(($(uptime_sec) - last)) -gt 40 ]; then
    eval last_$tag=$(uptime_sec)
    case $(random 4) in
      0) signal=SEGV ;;
      1) signal=ABRT ;;
      *) signal=KILL ;;
    esac
    victim=$(pids_of /usr/bin/service --tag $tag)
    [ -n "$victim" ] && kill -$signal $victim && kills=$((kills + 1))
    [ "$(random 4)" = 0 ] || sleep 2
  fi
  if [ "$(random 40)" = 0 ]; then       # now and then right after a kill
    wex=$(daemon)
    kill -KILL $wex && daemons=$((daemons + 1))
    check "the daemon was not started again" eventually 30 daemon_up_other_than $wex
  fi
  sleep 0.5
done

for tag in $tags; do
  check "service $tag does not run once" eventually 20 one_runs /usr/bin/service --tag $tag
done
check "the hanging program does not run once" eventually 20 one_runs /usr/bin/hang
is "$(pids_of /usr/bin/threads)" "$reporter" "pid of the program that reports in time"
sleep 5
is "$(zombies)" 0 "zombies of the daemon"
note "after $kills kills and $daemons deaths of the daemon: $(resident) kB, $(descriptors) descriptors"
check "descriptors grew from $descriptors_before to $(descriptors)" [ "$(descriptors)" -le $((descriptors_before + 2)) ]
check "memory grew from $memory_before to $(resident) kB" [ "$(resident)" -le $((memory_before + 256)) ]
pass
