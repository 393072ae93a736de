#!/usr/bin/env bash
# Inside the sandbox: makes the bare root's copy usable and runs a newcomer's commands in it. Arguments: build/bare, steps of newcomer_test.sh.
set -u
bare=$1
[ "${WEX_SANDBOX-}" = 1 ] || { echo "start me through newcomer_test.sh" >&2; exit 1; }
root=$bare/run/root
fail() { printf 'FAIL: %s\n' "$*"; exit 1; }

# Where the checkout lies on an overlay itself, nothing can be laid over it: then it is copied.
mount -t overlay -o "lowerdir=$bare/root,upperdir=$bare/run/upper,workdir=$bare/run/work" wex-newcomer "$root" 2> /dev/null ||
  { mkdir "$bare/run/copy" && cp -a "$bare/root/." "$bare/run/copy" && mount --bind "$bare/run/copy" "$root"; } ||
  fail "no copy of the bare root"
mkdir -p "$root/root/wex" "$root/var/cache/apt/archives"
mount -t proc proc "$root/proc"
mount --rbind /dev "$root/dev"
mount --rbind /sys "$root/sys"                     # the tests' own sandboxes show it
mount -t tmpfs -o mode=1777 tmpfs "$root/tmp"
mount --bind "$bare/archives" "$root/var/cache/apt/archives"
cp /etc/resolv.conf "$root/etc/resolv.conf"
rm -f "$root/etc/apt/apt.conf.d/docker-clean"
printf 'APT::Keep-Downloaded-Packages "true";\nAcquire::Check-Valid-Until "false";\nAcquire::Check-Date "false";\nAPT::Sandbox::User "root";\n' > "$root/etc/apt/apt.conf.d/90newcomer"
printf '%s\n' "${WEX_APT_PROXIES-}" >> "$root/etc/apt/apt.conf.d/90newcomer"
cp -a "$bare/run/checkout/." "$root/root/wex/"
chown -R 0:0 "$root/root/wex"

# try WHAT COMMAND...: in the checkout, as on a new machine: nothing of this one's settings.
try() {
  local what=$1 start=$SECONDS
  shift
  nice chroot "$root" env -i HOME=/root PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
    sh -c 'cd /root/wex && exec "$@"' - "$@" < /dev/null > "$bare/newcomer.log" 2>&1 ||
    { tail -n 40 "$bare/newcomer.log"; fail "$what, with nothing but what a bare Debian has and ./dev has installed"; }
  printf '%s: %d s\n' "$what" $((SECONDS - start))
}
present() { compgen -G "$root/root/wex/$1" > /dev/null || fail "$2 left no $1"; }

for program in file make g++ cmake curl; do
  [ -z "$(chroot "$root" /bin/sh -c "command -v $program")" ] || fail "the bare root has $program: it would hide that a step lacks it"
done
# A step that needs less stands before those that install more, which would hide what it lacks.
case " ${*:2} " in *' demo '* | '  ')
  start=$SECONDS
  try 'the demo' ./dev demo
  built=$(sed -n 's/^Set up and built in \([0-9]*\) s\.$/\1/p' "$bare/newcomer.log")
  [ -n "$built" ] || fail "the demo does not say how long set-up and build took: $(cat "$bare/newcomer.log")"
  told=$((SECONDS - start - built))
  tail -n 4 "$bare/newcomer.log" | head -n 1 | grep -qx 'What to try next:' || fail "the demo does not end with what to try next: $(cat "$bare/newcomer.log")"
  printf '  of these for set-up, downloads and build: %d s; for the story: %d s\n' "$built" $told
  [ $told -le 60 ] || fail "the story of the demo takes $told s, which is more than a minute" ;;
esac
case " ${*:2} " in *' package '* | '  ')
  try 'the packages' ./dev package release
  present 'build/packages/release/wex_*.deb' './dev package' ;;
esac
case " ${*:2} " in *' test '* | '  ')
  try 'the set-up' ./dev setup
  try 'the build' ./dev build
  present build/release/wex './dev build'
  try 'tests of documents' ./dev test --only '^(docs\.(decisions|paths|messages|interface|why_failed)|package\.(kernel|layouts))$'
  try 'unit tests and the main walkthroughs' ./dev test --only '^(unit_.*|MainWalkthrough\..*)$'
  try 'the lint' ./dev lint
  try 'a second of the fuzzer' ./dev fuzz 1 words
  try 'the packages, installed and used' ./dev test --only '^package\.install_and_use$'
  for preset in asan tsan; do
    try "a test of $preset" sh -c '
      cmake --preset $1 -Wno-dev && cmake --build --preset $1 --target wex wex_shared unit_wex_chain_test &&
        ctest --test-dir build/$1 --output-on-failure --no-tests=error -R "^unit_wex_chain_test\$"' - $preset
  done ;;
esac
case " ${*:2} " in *' device '* | '  ')
  try 'the packages of the device' ./dev package mipsel
  present 'build/packages/mipsel/wex_*_mipsel.deb' 'the packages of the device'
  try 'a boot of the emulated device' ./dev device 01-start ;;
esac
umount --lazy "$root/var/cache/apt/archives" "$root/dev" "$root/sys" "$root/proc" "$root/tmp" "$root"
echo "all well"
