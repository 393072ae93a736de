#!/usr/bin/env bash
# That clang refuses what wex.h says it refuses: tests/probes/right.cpp compiles, and each of the others is refused with
# the one error that its first line names. Arguments: the build's warnings about locks, and its include directories.
set -u
. "$(dirname "$0")/lib.sh"
command -v clang++ > /dev/null || { complain "clang++ is missing: ./dev setup installs it"; finish; }

refused() { ! clang++ -std=c++17 -D_GNU_SOURCE -fsyntax-only -Wall -Wextra -Wpedantic -Werror "${flags[@]}" "$1" > "$work/said" 2>&1; }

flags=("$@")
wrong=0
for probe in "$root"/tests/probes/*.cpp; do
  name=${probe##*/}
  expected=$(sed -n '1s|^// expect: ||p' "$probe")
  if [ -z "$expected" ]; then
    refused "$probe" && complain "$name does not compile: $(cat "$work/said")"
    continue
  fi
  wrong=$((wrong + 1))
  refused "$probe" || complain "$name compiles, without: $expected"
  errors=$(grep -c 'error: ' "$work/said")
  [ "$errors" = 1 ] && grep -qF "error: $expected" "$work/said" ||
    complain "$name is not refused for the one reason that it names: $(cat "$work/said")"
done
[ -f "$root/tests/probes/right.cpp" ] && [ $wrong -ge 4 ] || complain "only $wrong wrong probes, or no right one"
finish
