#!/usr/bin/env bash
# Whatever docs/security.md names as the repetition of a row is there: cases of the sources by the beginning of their
# name, cases of the device, tests and commands by their name.
set -u
. "$(dirname "$0")/lib.sh"

# The last columns of the table at the end of PAGE, and of the one of strict mode.
tried_column() { sed -n '/^## What was tried/,$p' "$1" | sed -nE 's/^\| .* \| .* \| (.*) \|$/\1/p'; }
strict_column() { sed -n '/^| attempt of a user/,/^$/p' "$1" | tail -n +3 | sed -nE 's/^\| .* \| .* \| .* \| (.*)\|$/\1/p'; }
# The texts in back ticks of both.
repetitions() { { tried_column "$1"; strict_column "$1"; } | grep -oE '`[^`]+`' | tr -d '`'; }

cases_of "$root/tests" > "$work/cases"
is_there() {
  case $1 in
    "./dev "*) grep -qE "^  ${1#./dev }( |\$)" <("$root/dev" help) ;;
    "tools/device "*) [ -e "$root/tests/device/cases/${1#tools/device }.sh" ] ;;
    sandbox.*) grep -rqF "NAME $1 " "$root"/tests/*/CMakeLists.txt ;;
    */*) grep -q "^${1#*/}" "$work/cases" && grep -rqE "INSTANTIATE_TEST_SUITE_P\(${1%%/*}, ${1#*/}," "$root/tests" ;;
    *.*) grep -q "^$1" "$work/cases" ;;
    *) grep -q "^$1\." "$work/cases" ;;
  esac
}
repetitions "$root/docs/security.md" > "$work/named"
[ "$(wc -l < "$work/named")" -ge 40 ] || complain "only $(wc -l < "$work/named") repetitions were found"
[ "$(strict_column "$root/docs/security.md" | wc -l)" -ge 15 ] || complain "the table of strict mode was not found"
strict_column "$root/docs/security.md" | grep -vq '`' && complain "docs/security.md: an attempt in strict mode without a test"
while IFS= read -r name; do
  is_there "$name" || complain "docs/security.md: there is no $name"
done < "$work/named"

for name in NoSuchSuite ControlChannel.NoSuchCase tools/device\ no-case ./dev\ nothing sandbox.nothing No/ManyDead; do
  is_there "$name" && complain "a repetition $name, which is not there, is not noticed"
done
finish
