#!/usr/bin/env bash
# Inside the sandbox: the lives of the packages in a copy of a bare root. Arguments: that root, the directory of the build.
set -u
. "$(dirname "$0")/lib_inside.sh"
bare=$1 into=$2
[ "${WEX_SANDBOX-}" = 1 ] || { echo "start me through life_test.sh" >&2; exit 1; }
work=/tmp/life root=/tmp/life/root
mkdir -p $work/upper $work/work $work/lists $root

fail() {
  printf 'FAIL: %s\n' "$*"
  [ -e $work/dpkg.log ] && tail -n 20 $work/dpkg.log
  echo "asked of policy-rc.d: $(cat $root/policy-asked)"
  inside /etc/init.d/wex stop > /dev/null 2>&1
  [ -n "${clock-}" ] && kill -KILL "$clock" 2> /dev/null
  exit 1
}
inside() { chroot $root env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"; }
pid_of() {                                         # of the process in the root that runs this program
  local dir
  for dir in /proc/[0-9]*; do
    [ "$dir/root" -ef $root ] && [ "$dir/exe" -ef "$root$1" ] && { printf '%s' "${dir#/proc/}"; return 0; }
  done 2> /dev/null
  return 1
}
started() { sed 's/.*) //' "/proc/$1/stat" 2> /dev/null | cut -d' ' -f20; }    # when; a later process of the number differs
lives() { [ -n "$2" ] && [ "$(started "$1")" = "$2" ]; }                          # PID, what started said
gone() { ! pid_of "$1" > /dev/null; }
packages() { inside dpkg "$@" < /dev/null > $work/dpkg.log 2>&1 || fail "dpkg $*"; }

# Every name with kind, mode, owner and goal, and what is in /etc; but for the books that dpkg and ldconfig keep.
list() {
  (cd $root && find . -xdev -path ./proc -prune -o -path ./dev -prune -o -path ./var/lib/dpkg -prune -o -path ./packages -prune -o \
    ! -path './var/log/*.log' ! -path ./var/cache/ldconfig/aux-cache ! -path ./policy-asked -printf '%y %m %U:%G %p %l\n' &&
    find etc -xdev -type f ! -name ld.so.cache -exec md5sum {} + && ls dev/shm) | sort > "$work/lists/$1"
}
same_as_before() {
  list after
  cmp -s $work/lists/before $work/lists/after ||
    fail "$1 leaves (>) or takes (<): $(diff $work/lists/before $work/lists/after | grep '^[<>]' | head -n 20)"
}
version() { inside dpkg-query -W -f '${Version}' "$1"; }

mount -t overlay -o "lowerdir=$bare,upperdir=$work/upper,workdir=$work/work" wex-life $root || fail "no copy of the bare root"
mount -t proc proc $root/proc
mount --rbind /dev $root/dev
mkdir $root/packages
cp -r "$into/packages/release" $root/packages/new
rm -f $root/packages/new/*-dbgsym_*
cp -r "$into/lower" $root/packages/lower
# Notes what maintainer scripts ask for; only stopping is allowed.
printf '#!/bin/sh\necho "$*" >> /policy-asked\n[ "$2" = stop ] && exit 104\nexit 101\n' > $root/usr/sbin/policy-rc.d
chmod 0755 $root/usr/sbin/policy-rc.d
names='wex libwex1 libwex-dev'
new=$(cd $root && echo packages/new/*.deb | sed 's| *packages| /packages|g')
lower=$(cd $root && echo packages/lower/*.deb | sed 's| *packages| /packages|g')
touch $root/policy-asked
mkdir -m 0777 $root/data && echo "the device's own" > $root/data/own
list before

# ---- Unused ------------------------------------------------------------------------------------------------

# The bare root has no compiler and no libc6-dev, which libwex-dev wants.
# shellcheck disable=SC2086
packages --force-depends --install $lower
[ "$(version wex)" = 0.0.1 ] || fail "the lower version is not installed"
gone /usr/sbin/wex || fail "installing started wex"
[ -z "$(find $root/etc/rc?.d -name 'S*wex')" ] && [ -n "$(find $root/etc/rc?.d -name 'K*wex')" ] ||
  fail "the start script is not registered, or enabled: $(find $root/etc/rc?.d -name '*wex')"
echo 'export SETTING=kept' >> $root/etc/default/wex
# shellcheck disable=SC2086
packages --force-depends --install $new
for name in $names; do
  [ "$(version $name)" != 0.0.1 ] || fail "$name was not upgraded"
done
grep -q '^export SETTING=kept$' $root/etc/default/wex || fail "the upgrade changed the settings"
! grep -q 'of a lower version' $root/etc/init.d/wex || fail "the upgrade kept the old start script"
gone /usr/sbin/wex || fail "the upgrade started wex"

packages --remove $names
list removed
left=$(comm -13 $work/lists/before $work/lists/removed | sed -n 's/^[fl] [0-9]* [0-9:]* \.\([^ ]*\).*/\1/p' | grep -v -e '^/etc/rc.\.d/K..wex$' -e '^/var/lib/systemd/deb-systemd-helper' | sort | tr '\n' ' ')
[ "$left" = '/etc/default/wex /etc/init.d/wex ' ] || fail "removed, what is left is not the configuration, but: $left"
packages --purge $names
same_as_before "a life without use"
! grep -v ' stop' $root/policy-asked || fail "a maintainer script asked for more than stopping"

# ---- Used: upgraded and installed once more while wex runs -----------------------------------------------

# shellcheck disable=SC2086
packages --force-depends --install $lower
cp "$into/package-release/source/obj/examples/clock" $root/usr/bin/clock
answers() { [ -S $root/tmp/wex/.wex ] && daemon=$(pid_of /usr/sbin/wex); }
registered() { clock=$(pid_of /usr/bin/clock) && [ -e "$root/tmp/vsd/0/wex/db/clock.$clock" ]; }
ended() { ! lives "$1" "$2" || grep -q '^State:.*Z' "/proc/$1/status"; }      # whoever reaps it takes its time
registered_anew() { registered && [ "$clock" != "$old_clock" ]; }
kill_clock() {                                     # AFTER-WHAT
  old_clock=$clock
  kill -KILL "$clock"
  within 20 registered_anew || fail "$1 a killed service does not come back"
}
inside /etc/init.d/wex start
within 20 answers || fail "the installed wex does not start"
(cd / && inside setsid /usr/bin/clock < /dev/null > /dev/null 2>&1) &
disown $!
within 20 registered || fail "a service did not register"
since=$(started "$daemon") clock_since=$(started "$clock")

# shellcheck disable=SC2086
packages --force-depends --install $new
[ "$(version wex)" != 0.0.1 ] || fail "wex was not upgraded while it runs"
lives "$daemon" "$since" || fail "an upgrade stopped the running wex"
lives "$clock" "$clock_since" || fail "an upgrade ended a service"
gone /usr/sbin/wex || fail "the running wex is the new program, without having been started again"
kill_clock "after the upgrade,"
clock_since=$(started "$clock")
daemon_before=$daemon
inside /etc/init.d/wex restart
within 20 answers || fail "the upgraded wex does not start"
ended "$daemon_before" "$since" || fail "a restart of wex left the old one running"
lives "$clock" "$clock_since" || fail "a restart of wex ended a service"
kill_clock "with the upgraded wex,"
since=$(started "$daemon") clock_since=$(started "$clock")

# shellcheck disable=SC2086
packages --force-depends --install $new
lives "$daemon" "$since" || fail "installing once more stopped the running wex"
# What a hang and a reboot leave, too.
for name in history history.old hang hang.old notify notify_count reboot; do
  echo '' > "$root/data/.wex_$name" || fail "no file to be purged"
done
packages --purge wex
ended "$daemon" "$since" || fail "a purge leaves wex running"
lives "$clock" "$clock_since" || fail "a purge ended a service"
kill -KILL "$clock"
within 10 gone /usr/bin/clock || fail "a service outlives SIGKILL"
clock=''
rm $root/usr/bin/clock
packages --purge libwex-dev libwex1
same_as_before "a life with use"
umount --lazy $root/dev $root/proc $root
echo "all well"
