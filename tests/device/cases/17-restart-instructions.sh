# How many instructions the device executes from the death of one of 20 services to the main() of its replacement, kernel
# and all; tools/device compares that with bench/device-budget. The least of nine counts: timers fall into some.
# count-instructions: 1
# seconds: 240
. /test/lib.sh
wex=$(daemon)
n=0
while [ $n -lt 20 ]; do
  n=$((n + 1))
  start /usr/bin/stamp /tmp/stamp.$n
done
all_there() { [ "$(ls /tmp/stamp.*[0-9] 2> /dev/null | wc -l)" = 20 ]; }
check "20 services did not start" eventually 60 all_there
sleep 2
for n in 1 2 3 4 5 6 7 8 9; do
  restart_cost instructions /tmp/stamp.$n >> /tmp/instructions || fail "service $n was not restarted"
  sleep 1
done
note "instructions: $(sort -n /tmp/instructions | tr '\n' ' ')"
[ "$(uname -m)" != mips ] || echo "SIZE restart-kilo-instructions $(($(sort -n /tmp/instructions | head -n 1) / 1000))"
is "$(daemon)" "$wex" "pid of the daemon"
pass
