#!/usr/bin/env bash
# tools/check-kernel names what a kernel configuration lacks, and its list is the one of docs/integrator.md.
set -u
here=$(cd "$(dirname "$0")" && pwd)
root=${here%/tests/package}
work=$(mktemp -d "${TMPDIR:-/tmp}/wex-kernel.XXXXXX")
trap 'rm -rf "$work"' EXIT
failures=0
complain() { printf 'FAIL: %s\n' "$*"; failures=$((failures + 1)); }
expect() {                                         # STATUS FILE TEXT...: the answer has each text
  local wanted=$1 file=$2 status text
  shift 2
  "$root/tools/check-kernel" "$file" > "$work/said" 2>&1
  status=$?
  [ $status = "$wanted" ] || complain "$file: status $status instead of $wanted: $(cat "$work/said")"
  for text in "$@"; do
    grep -qF -- "$text" "$work/said" || complain "$file: not said: $text; but: $(cat "$work/said")"
  done
}

fragment=$root/packaging/kernel/wex.config
grep '^CONFIG_' "$fragment" > "$work/good"
expect 0 "$work/good" 'wex has what it needs'
! grep -q 'lacks' "$work/said" || complain "a whole configuration lacks something: $(cat "$work/said")"
gzip -c "$work/good" > "$work/good.gz"
expect 0 "$work/good.gz" 'wex has what it needs'

# Each option alone: named when it is not set, and needed or not as the list says.
while read -r option; do
  sed "s/^$option=y/# $option is not set/" "$work/good" > "$work/one"
  status=1
  sed -n "1,/^$option=/p" "$fragment" | grep '^# ' | tail -n 1 | grep -q '^# only for ' && status=0
  expect $status "$work/one" "$option, "
done < <(sed 's/=y//' "$work/good")

sed -e 's/^CONFIG_CONNECTOR=y/CONFIG_CONNECTOR=m/' "$work/good" > "$work/module"
expect 1 "$work/module" 'CONFIG_CONNECTOR (is a module; must be built in), needed for the process connector, which reports exits'
# A 2.6 kernel: other names, and options that it does not know yet.
sed -e 's/^CONFIG_MEMCG=y/CONFIG_CGROUP_MEM_RES_CTLR=y/' -e 's/^CONFIG_FUTEX_PI=y/CONFIG_RT_MUTEXES=y/' \
  -e '/^CONFIG_POSIX_TIMERS=/d' -e '/^CONFIG_MULTIUSER=/d' -e '/^CONFIG_COREDUMP=/d' -e '/^CONFIG_MEMCG_V1=/d' "$work/good" > "$work/old"
expect 0 "$work/old"
! grep -q 'lacks' "$work/said" || complain "an old kernel lacks something: $(cat "$work/said")"
{ cat "$work/good"; echo CONFIG_RT_GROUP_SCHED=y; } > "$work/group"
expect 0 "$work/group" 'CONFIG_RT_GROUP_SCHED: wex must be started in the root CPU group'
: > "$work/empty"
expect 2 "$work/empty" 'is no kernel configuration'
expect 2 "$work/nothing" 'cannot read'

# Without an argument: the kernel that runs, from /proc/config.gz or else from /boot, both made up on a private device. What
# is asked of the first lacks an option, so that they differ.
gzip -c "$work/module" > "$work/module.gz"
cat > "$work/inside" <<'TEXT'
tool=$1 work=$2
boot=/boot/config-$(uname -r)
mount -t tmpfs tmpfs /proc && mkdir -p /boot && rm -f "$boot" || exit 9
ask() { "$tool"; echo "status $?"; }
ask > "$work/neither" 2>&1
cp "$work/good" "$boot"
ask > "$work/boot" 2>&1
cp "$work/module.gz" /proc/config.gz
ask > "$work/proc" 2>&1
TEXT
"$root/tools/sandbox" --bind "$work" -- sh "$work/inside" "$root/tools/check-kernel" "$work" ||
  complain "no private device to ask for the running kernel on"
boot=/boot/config-$(uname -r)
answered() {                                       # FILE STATUS TEXT...
  local file=$work/$1 text
  [ "$(tail -n 1 "$file")" = "status $2" ] || complain "$1: not status $2: $(cat "$file")"
  shift 2
  for text in "$@"; do
    grep -qF -- "$text" "$file" || complain "$file: not said: $text; but: $(cat "$file")"
  done
}
answered neither 2 "tells its configuration neither in /proc/config.gz nor in $boot"
answered boot 0 "$boot:" 'wex has what it needs'
answered proc 1 '/proc/config.gz:' 'LACKS  CONFIG_CONNECTOR'

looked_at=''
for config in "$root"/build/device*/board/root/boot/config-*; do   # those of emulated boards, which tools/device fetches
  [ -f "$config" ] || continue
  looked_at=1
  expect 0 "$config" 'wex has what it needs'
done
[ -n "$looked_at" ] || echo "not looked at: the kernels of emulated boards, for tools/device has not fetched any here"

# The same options in the guide.
sed -n '/^## What the device needs/,/^## /p' "$root/docs/integrator.md" | grep -oE 'CONFIG_[A-Z0-9_]+' | sort -u > "$work/guide"
grep -oE 'CONFIG_[A-Z0-9_]+' "$fragment" | sort -u > "$work/listed"
difference=$(comm -3 "$work/guide" "$work/listed" | tr -d '\t' | tr '\n' ' ')
[ -z "$difference" ] || complain "in docs/integrator.md or in wex.config only: $difference"
[ "$(wc -l < "$work/listed")" -gt 20 ] || complain "no options were found"

[ $failures -eq 0 ] && echo "all well"
exit $((failures > 0))
