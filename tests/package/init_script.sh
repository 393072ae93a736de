#!/usr/bin/env bash
# Inside the sandbox, with wex installed and started by its start script: the script believes no file that others
# can write or that has outlived its time. Leaves wex running.
set -u
. "$(dirname "$0")/lib_inside.sh"
[ "${WEX_SANDBOX-}" = 1 ] || { echo "start me through package_test.sh" >&2; exit 1; }
wex=/usr/sbin/wex loop=/usr/libexec/wex/wex-respawn

fail() { printf 'FAIL: start script: %s\n' "$*"; kill -KILL "$stranger" 2> /dev/null; exit 1; }
count() {                                          # of the processes here with these words in their command line
  local dir words found=0
  for dir in /proc/[0-9]*; do
    words=$(tr '\0' ' ' < "$dir/cmdline") && [ "$words" = "$* " ] && [ "$dir/root" -ef / ] && found=$((found + 1))
  done 2> /dev/null
  echo $found
}
up() { [ "$(count $wex)" = 1 ] && [ "$(count /bin/sh $loop)" = 1 ] && [ -S /tmp/wex/.wex ]; }
down() { [ "$(count $wex)" = 0 ] && [ "$(count /bin/sh $loop)" = 0 ]; }
spared() { kill -0 $stranger 2> /dev/null || fail "killed a stranger: $1"; }

sleep 7100 & stranger=$!
within 20 up || fail "wex is not up"
/etc/init.d/wex status > /dev/null || fail "status of a supervised wex"

# A number that somebody wrote into the lock file is not signalled, and does not save the daemon either.
echo $stranger > /tmp/planted
chmod 0644 /tmp/planted
mv /tmp/planted /tmp/wex/wex.pid
/etc/init.d/wex stop
spared "the lock file"
within 20 down || fail "wex was not stopped beside a planted lock file"
/etc/init.d/wex status > /dev/null && fail "status of a stopped wex"

# Nor does a lock file that blocks whoever opens it.
rm -f /tmp/wex/wex.pid
mkfifo /tmp/wex/wex.pid
timeout 20 /etc/init.d/wex stop || fail "stop hangs at a pipe in place of the lock file"
rm -f /tmp/wex/wex.pid

# What an earlier start of the machine left behind is nobody's loop.
echo $stranger > /run/wex-respawn.pid
/etc/init.d/wex start
within 20 up || fail "start believed a stale file"
/etc/init.d/wex stop
spared "a stale file"
within 20 down || fail "wex was not stopped beside a stale file"
rm -f /run/wex-respawn.pid

# A device without /run.
mkdir -p /empty
mount --bind /empty /run
rm -rf /empty/*
chmod 0555 /run
mount -o remount,bind,ro /run
/etc/init.d/wex start
/etc/init.d/wex start
within 20 up || fail "not started once without a place for files in /run"
/etc/init.d/wex stop
within 20 down || fail "not stopped without a place for files in /run"
umount /run

/etc/init.d/wex start
within 20 up || fail "not started again"
kill -KILL $stranger
wait $stranger 2> /dev/null
exit 0
