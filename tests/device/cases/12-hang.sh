# A hung thread costs its process its life; with one core dump allowed that is a restart of the machine, and
# afterwards the hang ring, the reboot record and the running log tell the story.
# boots: 2
# mostly-waits: 1
# seconds: 120
. /test/lib.sh
if [ "$1" = 2 ]; then
  is "$(cat /data/.wex_notify_count)" 1 "next slot of the hang ring"
  check "the hang ring does not name the thread" grep -q "detect process:\[hang/$(cat /data/hung)\] thread hang:$(cat /data/hung) hung\." /data/.wex_notify
  is "$(wc -l < /data/.wex_notify)" 2 "lines of the hang ring"
  is "$(grep -A 1 " process $(cat /data/hung), thread $(cat /data/hung) hung; " /data/.wex_hang | tail -n 1)" watched: "line behind the first of the snapshot"
  check "the reboot record does not name the program" grep -q 'detect more than 1 process exit in shorttime\[60\]s' /data/.wex_reboot
  check "the history does not tell of the hang" grep -q " hang hang pid $(cat /data/hung) to $(cat /data/hung) " /data/.wex_history
  check "the history does not tell of the burst" grep -q ' reboot_asked ' /data/.wex_history
  is "$(grep -c ': Start\.' /ovix/vsd/0/utils/wex/running_log1)" 2 "starts in the running log"
  pass
fi
echo '60 1' > /etc/wex_config
start /usr/bin/hang
check "did not start" eventually 10 one_runs /usr/bin/hang
pids_of /usr/bin/hang > /data/hung
sync
check "is not registered in the alive table" eventually 10 [ "$(alive_bit "$(cat /data/hung)")" = 1 ]
sleep 100
fail "the hung thread did not cost its process its life"
