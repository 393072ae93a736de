#!/usr/bin/env bash
# A real systemd starts, restarts and stops wex by the packaged unit, in both modes, and wex restarts the machine: an emulated
# one with a bare Debian 12, on which systemd/inside.sh says what it finds. Argument: the directory in which package_test.sh
# has built. Consoles are left in its folder systemd.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
root=${here%/tests/package}
. "$here/bare.sh"
. "$root/tools/packages.sh"
PATH=$PATH:/usr/sbin:/sbin
[ $# -eq 1 ] || { echo "usage: $0 DIRECTORY" >&2; exit 2; }
into=$(cd "$1" && pwd)
work=$into/systemd tree=$into/systemd/tree
fail() { printf 'FAIL: %s\n' "$*"; exit 1; }
[ "$(dpkg --print-architecture)" = amd64 ] || fail "the packages of this machine are of $(dpkg --print-architecture), the emulated machine is an amd64"
need_packages qemu-system-x86 e2fsprogs
machine=$(machine_root "$root")

# ---- The disk: the bare root, and what is to be tried -----------------------------------------------------------

rm -rf "$work" && mkdir -p "$work"
cp -al "$machine" "$tree"                          # files that were there are only read
mkdir -p "$tree/trial" "$tree/etc/systemd/system/multi-user.target.wants"
cp "$here/systemd/inside.sh" "$here/lib_inside.sh" "$into"/packages/release/wex_*.deb "$into"/packages/release/libwex1_*.deb "$tree/trial/"
cp "$here"/systemd/*.service "$tree/etc/systemd/system/"
cp "$tree/usr/share/systemd/tmp.mount" "$tree/etc/systemd/system/"       # what the guide asks for
ln -s ../tmp.mount ../wex-trial.service "$tree/etc/systemd/system/multi-user.target.wants/"
mkdir -m 0755 "$tree/data"
for name in root-service-a root-service-b user-service; do cp "$tree/usr/bin/sleep" "$tree/usr/sbin/$name"; done
# What the documents promise: capabilities, and the files that the daemon makes whatever happens.
sed -n 's/^| `\(CAP_[A-Z_]*\)`.*/\1/p' "$root/docs/integrator.md" | tr 'A-Z' 'a-z' | sed 's/^cap_//' | sort > "$tree/trial/capabilities"
[ "$(wc -l < "$tree/trial/capabilities")" -ge 10 ] || fail "docs/integrator.md does not name the capabilities"
awk -F '|' '/^\| `\// && $3 ~ /^ daemon/ { print $2 }' "$root/docs/files.md" | grep -oE '`[^`]+`' | tr -d '`' | grep -v '%' | sort > "$tree/trial/files"
[ "$(wc -l < "$tree/trial/files")" -ge 30 ] || fail "docs/files.md does not name the daemon's files"
truncate -s 1G "$work/disk"
mke2fs -q -t ext4 -F -d "$tree" "$work/disk"
rm -rf "$tree"

# ---- Three boots of it --------------------------------------------------------------------------------------------

# Emulated throughout: /dev/kvm of a machine that is itself one of many opens, and then boots nothing.
boot() {                                           # NUMBER: until the machine is off
  local start=$SECONDS status=0 console=$work/console$1
  nice timeout -k 5 300 qemu-system-x86_64 -accel tcg,thread=multi -M q35 -cpu qemu64 -smp 2 -m 512 -nographic -nic none -no-reboot \
    -kernel "$(echo "$machine"/boot/vmlinuz-*)" -initrd "$(echo "$machine"/boot/initrd.img-*[0-9]-cloud-amd64)" \
    -drive "file=$work/disk,format=raw,if=virtio,cache=unsafe" \
    -append "root=/dev/vda rw console=ttyS0 quiet loglevel=3 panic=-1 no_timer_check systemd.show_status=0 systemd.getty_auto=0 systemd.mask=getty.target systemd.mask=e2scrub_reap.service systemd.mask=systemd-logind.service trial=$1" \
    < /dev/null > "$console" 2>&1 || status=$?
  sed -i 's/\r//g' "$console"
  sed -n "s/^TRIAL ok: /  boot $1: /p" "$console"
  if grep -q '^TRIAL FAIL' "$console"; then
    sed -n '/^TRIAL FAIL/,$p' "$console"
    fail "boot $1, see $console"
  fi
  [ $status = 0 ] || fail "boot $1 did not end by itself (status $status), see $console"
  grep -qx "TRIAL $2" "$console" || fail "boot $1 did not come to its end, see $console"
  grep -q "reboot: $3" "$console" || fail "boot $1 ended otherwise than by '$3', see $console"
  printf '  boot %s: %d s\n' "$1" $((SECONDS - start))
}

boot 1 "wex is to restart the machine" "Restarting system"
boot 2 "wex is to restart the machine" "Restarting system"
boot 3 "systemd is to switch the machine off" "Power down"
at() { sed -n "s/^\[ *\([0-9]*\)\.[0-9]*\] .*$1.*/\1/p" "$work/console3" | tail -n 1; }
asked=$(sed -n 's/^TRIAL switched off at \([0-9]*\)\..*/\1/p' "$work/console3") off=$(at 'reboot: Power down')
[ -n "$asked" ] && [ -n "$off" ] && [ $((off - asked)) -le 40 ] || fail "it took from second ${asked:-?} to ${off:-?} to switch off beside wex and its services"
printf '  boot 3: off in %d s\n' $((off - asked))
rm -f "$work/disk"
echo "all well"
