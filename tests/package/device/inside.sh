#!/usr/bin/env bash
# Inside the sandbox: a restart and a domain's start, by a wex that was built with the device's library. Argument: its
# directory.
set -u
into=$1
[ "${WEX_SANDBOX-}" = 1 ] || { echo "start me through platform_test.sh" >&2; exit 1; }
status=0
within() { local end=$((SECONDS + $1)); shift; until "$@"; do [ "$SECONDS" -ge "$end" ] && return 1; sleep 0.05; done; }
fail() { printf 'FAIL: %s\n' "$*"; cat /tmp/device.log; status=1; }
registered() {                                     # not under the pid $1; its pid in $pid
  local file
  for file in /tmp/vsd/0/wex/db/service.*; do
    pid=${file##*.}
    [ -e "$file" ] && [ "$pid" != "$1" ] && [ -d "/proc/$pid" ] && return 0
  done
  return 1
}
subscribed() {
  [ -S /tmp/wex/.wex ] &&
    awk -v pid="$daemon" '$2 == 11 && $3 == pid && $4 != "00000000" { found = 1 } END { exit !found }' /proc/net/netlink
}
noted() { grep -q "$1" /tmp/device.log; }
applied() { grep -q 'wex_dispatch_domain_msg type:1 err:0' /dev/console.log; }

export DATA_OVIX_DIR=/data/.ovix/vsd/0
mkdir -p $DATA_OVIX_DIR/qx_utils
echo 'g_wex_pub_dbg_level 0' > $DATA_OVIX_DIR/qx_utils/qx_utils_dbg_cfg.txt
: > /tmp/device.log
env --default-signal "$into/build/wex" < /dev/null & daemon=$!
within 15 subscribed || fail "the daemon does not answer"
(cd / && exec setsid "$into/service" < /dev/null > /dev/null 2>&1) & disown $!
within 10 registered 0 || fail "the service does not register"
old=$pid
within 5 applied || fail "its message is not applied"  # it comes behind the file
kill -KILL "$old"
within 10 registered "$old" || fail "the service does not come back"
within 5 noted "^printk 5 HA HA_SELF_CHECK 1: Task: service/$old receives event:" || fail "the restart went to another log"
within 5 noted "^printk 5 HA HA_SELF_CHECK_INFO 1: Self-checking OK: 1 times and new id service/$pid" || fail "its success did"
mkdir -p /etc/rc.d/rc.vsd
rm -f /bin/run-parts && cp /usr/bin/true /bin/run-parts
"$into/build/wex" -c 1 || fail "no domain can be created"
within 5 noted '^envs 1 0$' || fail "the domain was started without the device's environment"
kill -INT $daemon
within 10 registered 0 && kill -KILL "$pid"
{ wait $daemon; } 2> /dev/null
[ $status -eq 0 ] && echo "all well"
exit $status
