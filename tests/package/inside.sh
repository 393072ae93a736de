#!/usr/bin/env bash
# Inside the sandbox: installs the packages as an integrator would, builds a service against them in C and in C++, and
# lets the installed daemon restart both, be killed, be stopped. Arguments: directory of the packages, of this test.
set -u
. "$(dirname "$0")/lib_inside.sh"
packages=$1 here=$2
[ "${WEX_SANDBOX-}" = 1 ] || { echo "start me through package_test.sh" >&2; exit 1; }
work=/tmp/package-test
mkdir -p $work

fail() {
  printf 'FAIL: %s\n' "$*"
  tail -n 20 /dev/console.log
  end_all
  exit 1
}
registered() { [ -e "/tmp/vsd/0/wex/db/$1.$2" ]; }
runs_again() {                                     # PROGRAM OLD-PID: registered under a new pid
  local now
  now=$(pid_of "$1") && [ "$now" != "$2" ] && registered "${1##*/}" "$now"
}
answers() { [ -S /tmp/wex/.wex ] && pid=$(pid_of /usr/sbin/wex) && [ "$pid" != "${1-}" ] && subscribed "$pid"; }
subscribed() {                                     # to the process connector, netlink family 11
  awk -v pid="$1" '$2 == 11 && $3 == pid && $4 != "00000000" { found = 1 } END { exit !found }' /proc/net/netlink
}
end_all() {
  local program pid
  [ -x /etc/init.d/wex ] && /etc/init.d/wex stop
  within 10 gone /usr/sbin/wex
  for program in $work/service_c $work/build/service_cpp; do
    while pid=$(pid_of $program); do kill -KILL "$pid"; sleep 0.05; done
  done
}

# ---- What is in the packages -------------------------------------------------------------------------------

for package in "$packages"/*.deb; do
  dpkg-deb --fsys-tarfile "$package" | tar -t | sed -n 's|^\./etc/|/etc/|p' | grep -v '/$' | sort > $work/shipped
  dpkg-deb --info "$package" conffiles 2> /dev/null | sort > $work/conffiles
  cmp -s $work/shipped $work/conffiles || fail "$package: below /etc: $(cat $work/shipped); conffiles: $(cat $work/conffiles)"
  dpkg-deb --fsys-tarfile "$package" | tar -t | grep -q '^\./usr/etc' && fail "$package has files in /usr/etc"
done
for name in wex libwex1 libwex-dev; do
  [ "$(ls "$packages/${name}"_*.deb | wc -l)" = 1 ] || fail "there is not one package $name"
done

mkdir $work/tree
tar -xzf "$packages"/wex-*.tar.gz -C $work/tree || fail "the tarball does not unpack"
for file in usr/sbin/wex usr/bin/wexstat usr/include/wex/wex_status.h etc/init.d/wex usr/libexec/wex/wex-respawn usr/include/wex/wex.h; do
  [ -e "$work/tree/$file" ] || fail "the tarball lacks $file"
done
[ -n "$(find $work/tree/usr/lib -name libwex.so.1)" ] || fail "the tarball lacks libwex.so.1"

# ---- Installed ---------------------------------------------------------------------------------------------

dpkg --install "$packages"/wex_*.deb "$packages"/libwex1_*.deb "$packages"/libwex-dev_*.deb > $work/dpkg.log 2>&1 || { cat $work/dpkg.log; fail "dpkg refuses the packages"; }
ldconfig
grep -q '^Restart=always$' /usr/lib/systemd/system/wex.service || fail "the systemd unit does not restart wex"
grep -q '^::respawn:/usr/libexec/wex/wex-respawn --once$' /usr/share/wex/inittab.wex || fail "the line for busybox init does not restart wex"
grep -q '^OOMPolicy=continue$' /usr/lib/systemd/system/wex.service || fail "a service that is killed for memory would end wex"
libdir=$(readlink -f "$(pkg-config --variable=libdir wex)")
[ "$libdir" = "$(dirname "$(readlink -f "$(ldconfig -p | sed -n 's|.*libwex.so.1 .*=> ||p')")")" ] ||
  fail "wex.pc and the dynamic linker know different places"

# ---- Built against -----------------------------------------------------------------------------------------

# shellcheck disable=SC2046
gcc -std=c99 -Wall -Werror "$here/example/service.c" $(pkg-config --cflags --libs wex) -o $work/service_c ||
  fail "a C service does not build with pkg-config"
cmake -S "$here/example" -B $work/build -G Ninja > $work/cmake.log 2>&1 && cmake --build $work/build >> $work/cmake.log 2>&1 ||
  { cat $work/cmake.log; fail "a C++ service does not build with find_package"; }
for program in $work/service_c $work/build/service_cpp; do
  ldd $program | grep -q "libwex.so.1 => .*${libdir#/usr}" ||
    fail "$program uses another library: $(ldd $program)"
done

# ---- Used --------------------------------------------------------------------------------------------------

printf 'ulimit -t 3333\nexport SETTING=kept\n' > /etc/default/wex
/etc/init.d/wex start
within 15 answers || fail "the installed daemon does not answer"
grep -q '^Max cpu time  *3333 ' "/proc/$pid/limits" || fail "wex does not have the limit of /etc/default/wex"
tr '\0' '\n' < "/proc/$pid/environ" | grep -qx 'SETTING=kept' || fail "wex does not have the variable of /etc/default/wex"
tr '\0' '\n' < "/proc/$pid/environ" | grep -qx 'DATA_OVIX_DIR=/data/.ovix/vsd/0' || fail "wex has no place for its switches"
/etc/init.d/wex start                              # twice is once
for program in $work/service_c $work/build/service_cpp; do
  (cd / && exec setsid $program < /dev/null > /dev/null 2>&1) &
  disown $!
  within 10 runs_again $program 0 || fail "$program did not register"
  old=$(pid_of $program)
  kill -KILL "$old"
  within 10 runs_again $program "$old" || fail "$program was killed and did not come back"
done

daemon=$(pid_of /usr/sbin/wex)
kill -KILL "$daemon"
within 20 answers "$daemon" || fail "wex was killed and was not started again"
old=$(pid_of $work/service_c)
kill -KILL "$old"
within 10 runs_again $work/service_c "$old" || fail "the new daemon forgot a registration"

bash "$here/init_script.sh" || fail "the start script"
/etc/init.d/wex stop
within 10 gone /usr/sbin/wex || fail "wex does not stop"
sleep 3                                            # longer than the pause before a new start
gone /usr/sbin/wex || fail "wex was started again after it had been stopped"
pid_of $work/service_c > /dev/null || fail "the services did not outlive wex"

echo 'if this does not parse' > /etc/default/wex
/usr/libexec/wex/wex-respawn --once < /dev/null > /dev/null 2>&1 & once=$!
within 15 answers || fail "wex does not start beside settings that do not parse"
[ "$pid" = $once ] || fail "with --once wex is not the process that init started"
kill -INT $once
wait $once
gone /usr/sbin/wex || fail "with --once wex was started again, which is init's part"
end_all

# ---- In strict mode, with the capabilities of the packaged fragment and no others ----------------------------

rm -r /etc/default/wex /tmp/wex /tmp/vsd            # as after a boot: what was registered is dead
mkdir -p /etc/wex && : > /etc/wex/strict
needed=$(sed -n 's/^CapabilityBoundingSet=//p' /usr/share/wex/wex-least.conf | tr 'A-Z ' 'a-z\n' | sed -n 's/^cap_/+/p' | grep -vx +sys_boot | paste -s -d, -)
limited() { setpriv "--bounding-set=-all,$needed" --inh-caps=-all "$@"; }
set_of() { sed -n 's/^CapBnd:[[:space:]]*//p' "/proc/$1/status"; }
limited /etc/init.d/wex start
within 15 answers || fail "wex does not start in strict mode with its own capabilities"
[ "$(set_of "$pid")" = "$(limited sed -n 's/^CapBnd:[[:space:]]*//p' /proc/self/status)" ] || fail "wex has other capabilities: $(set_of "$pid")"
grep -q 'Strict mode: ' /ovix/vsd/0/utils/wex/running_log1 || fail "wex is not strict"
program=$work/service_c
(cd / && exec setsid setpriv --reuid=1234 --regid=1234 --clear-groups $program < /dev/null > /dev/null 2>&1) &
disown $!
within 10 runs_again $program 0 || fail "a user's service did not register in strict mode"
old=$(pid_of $program)
kill -KILL "$old"
within 10 runs_again $program "$old" || fail "a user's service was killed and did not come back in strict mode"
user=$(sed -n 's/^Uid:[[:space:]]*//p' "/proc/$(pid_of $program)/status")
[ "$user" = "$(printf '1234\t1234\t1234\t1234')" ] || fail "a user's service came back as $user"
limited /etc/init.d/wex stop
within 10 gone /usr/sbin/wex || fail "wex with its own capabilities does not stop"
pid_of $program > /dev/null || fail "a user's service did not outlive wex"
rm /etc/wex/strict
end_all
dpkg --purge libwex-dev wex libwex1 > $work/dpkg.log 2>&1 || { cat $work/dpkg.log; fail "the packages cannot be removed"; }
[ ! -e /etc/init.d/wex ] || fail "the start script outlived its package"
echo "all well"
