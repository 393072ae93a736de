# How many instructions the device executes from the death of one of 20 services to the main() of its replacement, kernel
# and all; tools/device compares that with bench/device-budget. The least of nine counts: timers fall into some.
# count-instructions: 1
# seconds: 240
. /test/lib.sh
wex=$(daemon)
start_stamps
for n in 1 2 3 4 5 6 7 8 9; do
  restart_cost instructions /tmp/stamp.$n >> /tmp/instructions || fail "service $n was not restarted"
  sleep 1
done
note "instructions: $(sort -n /tmp/instructions | tr '\n' ' ')"
[ "$(uname -m)" != mips ] || echo "SIZE restart-kilo-instructions $(($(sort -n /tmp/instructions | head -n 1) / 1000))"
is "$(daemon)" "$wex" "pid of the daemon"
pass
