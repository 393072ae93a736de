#!/usr/bin/env bash
# The sandbox seen from outside: what it keeps in, what it passes on, and that nothing of it stays.
# usage: sandbox_test.sh ACTOR
set -u
actor=$1
sandbox=$(cd "$(dirname "$0")/../.." && pwd)/tools/sandbox
work=$(mktemp -d /tmp/sandbox-test.XXXXXX)
trap 'rm -rf "$work"' EXIT
failures=0

check() {                                          # WHAT COMMAND...
  local what=$1
  shift
  "$@" && return
  printf 'FAIL: %s\n' "$what"
  failures=$((failures + 1))
}
status_is() { local want=$1; shift; "$@" > "$work/out" 2>&1 < /dev/null; local got=$?; [ "$got" = "$want" ] || { echo "status $got, want $want:"; cat "$work/out"; false; }; }
eventually() { local n; for ((n = 0; n < 250; n++)); do "$@" && return; sleep 0.02; done; return 1; }
running() { grep -qsz "^$1\$" /proc/[0-9]*/task/*/cmdline; }  # WORD on somebody's command line
alone() { ! running "$1"; }
untouched() { [ ! -e "$1" ]; }
nothing_mounted() { ! grep -q "$1" /proc/mounts; }

check "the status is the command's" status_is 7 "$sandbox" -- sh -c 'exit 7'
check "a missing command is 127" status_is 127 "$sandbox" -- no-such-command
check "CAP_SYS_BOOT is in no set" status_is 0 "$sandbox" -- bash -c '
  while read -r name value; do case $name in Cap*) (( (16#$value >> 22) & 1 )) && exit 1;; esac; done < /proc/self/status; exit 0'
check "it does not nest" status_is 125 "$sandbox" -- "$sandbox" -- true
check "system directories cannot be bound" status_is 125 "$sandbox" --bind /etc -- true
check "/etc is private" status_is 0 "$sandbox" -- sh -c 'echo x > /etc/sandbox-test'
check "and stayed untouched" untouched /etc/sandbox-test
check "/tmp, /data and /dev/shm start empty" status_is 0 "$sandbox" -- sh -c 'set -- /data/* /dev/shm/*; [ "$*" = "/data/* /dev/shm/*" ]'
check "/dev/log is private" status_is 0 "$sandbox" -- test ! -e /dev/log
check "the console takes read-write opens" status_is 0 "$sandbox" -- sh -c 'echo hello 1<> /dev/console; sleep 0.2; grep -q hello /dev/console.log'
check "--lowmem-killer shows the module" status_is 0 "$sandbox" --lowmem-killer -- test -w /sys/kernel/qx_lowmem_killer/flush_tlb
check "without it there is none" status_is 0 "$sandbox" -- test ! -e /sys/kernel/qx_lowmem_killer
(cd "$work" && check "the current directory is seen, writes vanish" status_is 0 "$sandbox" -- sh -c 'echo x > lost')
check "the write vanished" untouched "$work/lost"
check "below --bind it stays" status_is 0 "$sandbox" --bind "$work" -- sh -c "echo x > $work/kept"
check "the write stayed" test -e "$work/kept"
check "a left process is a leak" status_is 124 "$sandbox" --leak-check -- sh -c 'setsid sleep 7001 & exit 0'
check "and is ended" eventually alone 7001
check "a left process without its first thread is a leak" status_is 124 "$sandbox" --leak-check -- sh -c '
  setsid "$0" --tag=7004 --end-main-thread & until grep -q "^State:.Z" /proc/$!/status; do :; done' "$actor"
check "and is ended, too" eventually alone --tag=7004
check "kill(0) does not reach us" status_is 137 "$sandbox" -- bash -c 'kill -KILL 0'
check "no signal is ignored inside" status_is 0 "$sandbox" -- sh -c 'grep -q "SigIgn:.0000000000000000" /proc/self/status'

# What upset a failed command: events that the daemon missed, and how busy the machine was.
says() { grep -Eq "^sandbox: the daemon lost process events $1 \(ENOBUFS\); the machine forked [0-9]+ times a second\$" "$work/out"; }
says_nothing() { [ ! -s "$work/out" ]; }
lose='printf "[1.2]wex_process_netlink: netlink recvfrom fail: %s\n" "No buffer space available" "No buffer space available" > /dev/console
  until grep -q recvfrom /dev/console.log; do sleep 0.02; done'
check "lost events do not change the status" status_is 3 "$sandbox" -- sh -c "$lose; exit 3"
check "and a failed command tells of them" says '2 times'
check "a command that is well" status_is 0 "$sandbox" -- sh -c "$lose"
check "tells nothing" says_nothing
check "one whose daemon printed something else" status_is 3 "$sandbox" -- sh -c 'echo hello > /dev/console; until grep -q hello /dev/console.log; do sleep 0.02; done; exit 3'
check "tells that none were lost" says '0 times'
check "one without a daemon" status_is 3 "$sandbox" -- sh -c 'exit 3'
check "has nothing to tell" says_nothing

for signal in TERM INT KILL; do
  env --default-signal "$sandbox" -- sh -c 'mkdir -p /memory/vsd_1 /cpu/vsd_1; setsid sleep 7002 & : > /tmp/up; sleep 7003' < /dev/null > /dev/null 2>&1 &
  pid=$!
  check "the command runs" eventually running 7003
  kill -$signal $pid
  wait $pid 2> /dev/null
  check "after $signal nothing runs" eventually alone '700[23]'
  check "after $signal no control group stays" eventually eval "! ls -d /sys/fs/cgroup/*/wex.$pid > /dev/null 2>&1"
  check "after $signal no mount stays" eventually nothing_mounted wex-sandbox
done

[ $failures -eq 0 ] && echo "all well"
exit $((failures > 0))
