#!/usr/bin/env bash
# The commands of README.md on a bare Debian 12, which has git and nothing else that is wanted: set-up, build, package, one
# boot of the emulated device. Everything happens in tools/sandbox, in a copy of build/bare/root; the copy is thrown away.
# What was downloaded is kept in build/bare/archives.
#
# Arguments: which of demo, package, test and device; without any, all of them.
#
# Of what ./dev test runs after its set-up and build: the unit tests, the main walkthroughs, what compares documents, the lint, one
# test of each sanitizer, one target of the fuzzer, and the packages as they are installed and used. docs/integrator.md says what is
# left out. Those cases run here anyway, in this very test run.
#
# The demo has a minute for its story. Set-up, downloads and build come before it and take what network and processor need.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
root=${here%/tests/package}
. "$here/bare.sh"
[ -e "$root/.git" ] || { echo "$root has no .git: this test clones the checkout, as a newcomer does. Run it in a clone." >&2; exit 1; }
bare=$(bare_root "$root")
run=$root/build/bare/run
mkdir -p "$root/build/bare/archives/partial"
rm -rf "$run"
mkdir -p "$run/upper" "$run/work" "$run/root"
# What is committed, and what is about to be.
git -c safe.directory='*' clone -q --no-hardlinks "$root" "$run/checkout"
(cd "$root" && git -c safe.directory='*' ls-files -z -m -o --exclude-standard | xargs -0 -r cp --parents -P -t "$run/checkout" 2> /dev/null) || true
WEX_APT_PROXIES=$(for scheme in http https; do
  proxy=$(proxy_of $scheme)
  [ -z "$proxy" ] || printf 'Acquire::%s::Proxy "%s";\n' $scheme "$proxy"
done)
export WEX_APT_PROXIES
cd "$root/build/bare"
status=0
"$root/tools/sandbox" --leak-check --bind "$root/build/bare" -- bash "$here/newcomer_inside.sh" "$root/build/bare" "$@" || status=$?
rm -rf "$run"
exit $status
