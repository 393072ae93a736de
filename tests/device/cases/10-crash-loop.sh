# A program that keeps dying is parked, started again, parked again, and then the machine restarts.
# boots: 2
# seconds: 90
if [ "$1" = 2 ]; then
  CASE=10-crash-loop
  . /test/lib.sh
  check "no reboot record" [ -s /data/.wex_reboot ]
  is "$(grep -c 'detect process .* can not restart, so restart system\.' /data/.wex_reboot)" 1 "reboot records"
  check "the record does not name the program" grep -q 'detect process /usr/bin/service --tag loop --exit 200 3 can not restart' /data/.wex_reboot
  is "$(grep -c ': Reboot: detect process ' /ovix/vsd/0/utils/wex/running_log1)" 1 "reboots in the running log"
  is "$(grep -c ' wex restarts the device: detect process /usr/bin/service ' /data/.wex_history)" 1 "reboots in the history"
  is "$(grep -c ' parked service pid ' /data/.wex_history)" 2 "parkings in the history"
  check "the history does not tell of the deaths" [ "$(grep -c ' exited service pid [0-9]* to 0 domain 0 exit 0300 ' /data/.wex_history)" -ge 8 ]
  is "$(grep -c '^parked: service pid ' /data/.wex_history)" 1 "programs that wait, in the history"
  is "$(grep -c ': Start\.' /ovix/vsd/0/utils/wex/running_log1)" 2 "starts in the running log"
  is "$(cat /data/seen_parked)" "1 1" "what the first boot saw"
  check "the program that could not live is back without being started" never 2 one_runs /usr/bin/service --tag loop --exit 200 3
  start_service /usr/bin/service --tag after
  kill -KILL $service
  check "nothing is supervised after the restart" eventually 15 other_runs $service /usr/bin/service --tag after
  pass
fi
. /test/lib.sh
echo 3 > /debug_time
start /usr/bin/service --tag loop --exit 200 3
parked() { [ "$(grep -c 'HA_WAIT_SELF_CHECK: Task: .* had checked more than 5 times\. After 0 mimutes' $LOG)" = $1 ]; }
check "was not parked" eventually 40 parked 1
check "runs although it is parked" none_runs /usr/bin/service --tag loop --exit 200 3
back() { [ "$(grep -c 'HA_SELF_CHECK_INFO: Self-checking OK: 1 times' $LOG)" -ge 2 ]; }
check "did not come back after its wait" eventually 20 back
echo "1 1" > /data/seen_parked
sync
sleep 60
fail "was parked again without the machine restarting"
