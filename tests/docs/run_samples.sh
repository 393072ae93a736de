#!/usr/bin/env bash
# Inside the sandbox: each service registers with the daemon, is killed, and runs again under a new registration.
# Arguments: the daemon, the program that registers a script, the one that limits domain 1, the scripts, the services.
set -u
[ "${WEX_SANDBOX-}" = 1 ] || { echo "start me through samples_test.sh" >&2; exit 1; }
program=$1 register=$2 limits=$3 scripts=$4
shift 4
status=0

within() { local end=$((SECONDS + $1)); shift; until "$@"; do [ "$SECONDS" -ge "$end" ] && return 1; sleep 0.05; done; }
pid_of() {
  local dir
  for dir in /proc/[0-9]*; do
    [ "$dir/exe" -ef "$1" ] && [ "$dir/root" -ef / ] && { printf '%s' "${dir#/proc/}"; return 0; }
  done 2> /dev/null
  return 1
}
subscribed() { awk -v pid="$daemon" '$2 == 11 && $3 == pid && $4 != "00000000" { found = 1 } END { exit !found }' /proc/net/netlink; }
ready() { [ -S /tmp/wex/.wex ] && subscribed; }
registered_again() {                               # SERVICE OLD-PID
  local now
  now=$(pid_of "$1") && [ "$now" != "$2" ] && [ -e "/tmp/vsd/0/wex/db/${1##*/}.$now" ]
}
# A file is there before its message is applied, and only what was applied is restarted.
applied() { grep -cE 'wex_dispatch_domain_msg type:[12] err:0' /dev/console.log; }
more_applied() { [ "$(applied)" -gt "$1" ]; }

export DATA_OVIX_DIR=/data/.ovix/vsd/0
mkdir -p $DATA_OVIX_DIR/qx_utils
echo 'g_wex_pub_dbg_level 0' > $DATA_OVIX_DIR/qx_utils/qx_utils_dbg_cfg.txt
env --default-signal "$program" < /dev/null & daemon=$!
within 15 ready || { echo "the daemon does not answer"; exit 1; }
# A restart script for each, for those that ask for it.
mkdir -p /etc/cmdmap
for service in "$@"; do
  printf '#!/bin/sh\nexec %s\n' "$service" > "/etc/cmdmap/${service##*/}.sh"
done
for service in "$@"; do
  before=$(applied)
  (cd / && exec setsid "$service" < /dev/null > /dev/null 2>&1) &
  disown $!
  within 10 registered_again "$service" 0 || { echo "${service##*/} does not register"; status=1; continue; }
  within 5 more_applied "$before" || { echo "${service##*/} sends no message"; status=1; }
  old=$(pid_of "$service")
  before=$(applied)
  kill -KILL "$old"
  within 15 registered_again "$service" "$old" && within 5 more_applied "$before" || { echo "${service##*/} does not come back"; status=1; }
  runs_once() { local dir count=0; for dir in /proc/[0-9]*; do [ "$dir/exe" -ef "$service" ] && [ "$dir/root" -ef / ] && count=$((count + 1)); done 2> /dev/null; [ $count -eq 1 ]; }
  within 5 runs_once || { echo "${service##*/} does not run exactly once"; status=1; }
done
# The shell services, at the places that they name.
cp "$register" /usr/sbin/wex-register && cp "${program%/*}/busybox.sh" /etc/cmdmap/busybox.sh
[ -e /bin/busybox ] || ln -s "$(command -v busybox)" /bin/busybox
script_runs() {                                    # PATH OLD-PID: registered; its pid in $pid
  local dir
  for dir in /proc/[0-9]*; do
    pid=${dir#/proc/}
    [ "$pid" != "$2" ] && [ "$dir/root" -ef / ] && grep -qsz "^$1\$" "$dir/cmdline" &&
      ls /tmp/vsd/0/wex/db/*."$pid" > /dev/null 2>&1 && return 0
  done 2> /dev/null
  return 1
}
for script in $scripts; do
  path=$(sed -n 's|^# \(/[^:]*\):.*|\1|p' "$script")
  before=$(applied)
  cp "$script" "$path" && chmod +x "$path"
  (cd / && exec setsid "$path" < /dev/null > /dev/null 2>&1) &
  disown $!
  within 10 script_runs "$path" 0 && within 5 more_applied "$before" || { echo "$path does not register"; status=1; continue; }
  old=$pid
  kill -KILL "$old"
  within 15 script_runs "$path" "$old" || { echo "$path does not come back"; status=1; }
done
# The program that limits a domain, with a process that has a flag file, where the machine offers the control groups.
limited() {                                        # PID
  grep -qx "$1" /memory/vsd_1/tasks && grep -qx "$1" /cpu/vsd_1/tasks &&
    [ "$(cat /memory/vsd_1/memory.limit_in_bytes)" = 67108864 ] && [ "$(cat /cpu/vsd_1/cpu.shares)" = 512 ]
} 2> /dev/null
if [ -e /memory/tasks ] && [ -e /cpu/tasks ]; then
  sleep 600 & member=$!
  mkdir -p /tmp/vsd/1/wex && : > "/tmp/vsd/1/wex/$member"
  "$limits" > /tmp/limits.out & limiter=$!
  within 10 limited $member || { echo "domain 1 is not limited"; status=1; }
  kill -KILL $limiter $member
  { wait $limiter $member; } 2> /dev/null
fi
kill -INT $daemon
wait $daemon
for service in "$@"; do
  while pid=$(pid_of "$service"); do kill -KILL "$pid"; sleep 0.05; done
done
for script in $scripts; do
  path=$(sed -n 's|^# \(/[^:]*\):.*|\1|p' "$script")
  while script_runs "$path" 0; do kill -KILL "$pid"; rm -f /tmp/vsd/0/wex/db/*."$pid"; done
done
# What the scripts last slept in ends by itself.
no_sleep() { ! grep -qsz '^sleep$' $(for dir in /proc/[0-9]*; do [ "$dir/root" -ef / ] && echo "$dir/cmdline"; done 2> /dev/null); }
within 5 no_sleep
[ $status -eq 0 ] || { tail -n 30 /dev/console.log; }
exit $status
