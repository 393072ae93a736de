# Three core dumps within a minute, where the device allows no more: the machine restarts and says why.
# boots: 2
. /test/lib.sh
if [ "$1" = 2 ]; then
  check "no reboot record" [ -s /data/.wex_reboot ]
  check "the record does not give the reason" grep -q 'detect more than 3 process exit in shorttime\[60\]s' /data/.wex_reboot
  for tag in one two three; do
    check "the record does not name the process $tag" grep -q -- "--tag $tag" /data/.wex_reboot
  done
  is "$(cat /data/exits)" "kill one two three " "exits before the restart"
  pass
fi
echo '60 3' > /etc/wex_config
for tag in plain one two three; do start_service /usr/bin/service --tag $tag; done
service=$(pids_of /usr/bin/service --tag plain)
printf 'kill ' > /data/exits
kill -KILL $service                     # no core: does not count
check "not restarted after SIGKILL" eventually 15 other_runs $service /usr/bin/service --tag plain
for tag in one two three; do
  service=$(pids_of /usr/bin/service --tag $tag)
  printf '%s ' $tag >> /data/exits
  sync
  kill -SEGV $service
  [ $tag = three ] || check "$tag was not restarted" eventually 15 other_runs $service /usr/bin/service --tag $tag
done
sleep 20
fail "three core dumps did not restart the machine"
