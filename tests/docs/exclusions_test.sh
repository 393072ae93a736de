#!/usr/bin/env bash
# Every case that tests/tsan-exclude, tests/strict-exclude and tests/device/unit-exclude* name is a case of the sources: a name that is left
# over from a renamed case would leave out nothing, and say a reason for it.
set -u
. "$(dirname "$0")/lib.sh"

names_in() { sed -e 's/#.*//' -e 's/[[:space:]]*$//' "$1" | grep . | sort; }

# left_over LIST DIRECTORY...: names of the list that no source below the directories has.
left_over() {
  local list=$1
  shift
  comm -23 <(names_in "$list") <(cases_of "$@")
}

check() {
  [ -n "$(names_in "$1")" ] || complain "$1 names nothing"
  local name
  for name in $(left_over "$@"); do complain "${1#"$root"/}: there is no case $name"; done
}
check "$root/tests/tsan-exclude" "$root/tests"
check "$root/tests/strict-exclude" "$root/tests/sandbox"
for list in "$root"/tests/device/unit-exclude*; do check "$list" "$root/tests/unit"; done

echo 'No.SuchCase  # renamed' > "$work/list"
[ "$(left_over "$work/list" "$root/tests")" = No.SuchCase ] || complain "a name that is no case is not found"
finish
