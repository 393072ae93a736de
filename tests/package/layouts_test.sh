#!/usr/bin/env bash
# Layouts that leave the process are the same on every board, in C and in C++: sizes and offsets are read from object
# files of each cross compiler that is installed and compared with those of this machine's own.
#
#   layouts_test.sh [--all]        --all: a compiler that is missing is a failure
set -u
top=$(cd "$(dirname "$0")/../.." && pwd)
. "$top/tools/boards"
work=$(mktemp -d) || exit 1
trap 'rm -rf "$work"' EXIT
bad=0 compared=()

# numbers NAME CC CXX NM: the array lengths of both languages in $work/NAME.c and $work/NAME.cpp.
numbers() {
  local name=$1 cc=$2 cxx=$3 nm=$4 warn=(-Wall -Wextra -Wpedantic -Werror) look=(-I"$top/qx-proc-wex" -I"$top/include")
  "$cc" -std=c99 -D_GNU_SOURCE "${warn[@]}" "${look[@]}" -c -o "$work/c.o" "$top/tests/package/layouts.c" &&
    "$cxx" -x c++ -std=c++17 "${warn[@]}" "${look[@]}" -c -o "$work/cpp.o" "$top/tests/package/layouts.c" || return 1
  "$nm" -S "$work/c.o" | awk 'NF == 4 {print $4, $2}' | sort > "$work/$name.c"
  "$nm" -S "$work/cpp.o" | awk 'NF == 4 {print $4, $2}' | sort > "$work/$name.cpp"
  sed -i 's/ 0*/ /' "$work/$name.c" "$work/$name.cpp"
}

# told WHAT FILE FILE PATTERN: says in which of the numbers that match they differ.
told() {
  local difference
  difference=$(diff <(grep -E "$4" "$2") <(grep -E "$4" "$3")) && return
  printf 'layouts: %s differ (lengths in hex, one more than the number):\n%s\n' "$1" "$difference"
  bad=1
}

pointer_size() { sed -n 's/^bytes_of_pointer //p' "$work/$1.c"; }

add() {                                            # NAME CC CXX NM
  local other
  numbers "$@" || { echo "layouts: $1: does not compile"; bad=1; return; }
  [ "$(grep -c . "$work/$1.c")" = "$(grep -cE '^(NUMBER|SIZE|OFFSET|OFFSET_BY_POINTER|CONSTANT)\(' "$top/tests/package/layouts.c")" ] || { echo "layouts: $1: numbers are missing"; bad=1; }
  told "C and C++ on $1" "$work/$1.c" "$work/$1.cpp" .
  told "${compared[0]-$1} and $1" "$work/${compared[0]-$1}.c" "$work/$1.c" '^same_'
  for other in ${compared[@]+"${compared[@]}"}; do
    [ "$(pointer_size "$other")" = "$(pointer_size "$1")" ] || continue
    told "$other and $1" "$work/$other.c" "$work/$1.c" '^pointer_'
    break
  done
  compared+=("$1")
}

missing=()
add host cc c++ nm
for name in "${boards[@]}"; do
  board "$name"
  if command -v "$triple-g++" > /dev/null; then
    add "$name" "$triple-gcc" "$triple-g++" "$triple-nm"
  else
    missing+=("$name")
  fi
done
if command -v musl-gcc > /dev/null; then           # in C only: each header that is installed stands by itself
  for header in "$top"/qx-proc-wex/wex.h "$top"/include/*.h; do
    musl-gcc -x c -std=c99 -pedantic -Wall -Wextra -Werror -D_GNU_SOURCE -I"$top/qx-proc-wex" -I"$top/include" \
      -include "$header" -fsyntax-only /dev/null || { echo "layouts: musl: $header does not compile in C"; bad=1; }
  done
else
  missing+=(musl)
fi
echo "layouts: compared: ${compared[*]}"
[ ${#missing[@]} -eq 0 ] || echo "layouts: no compiler here (./dev boards installs them): ${missing[*]}"
[ "${1-}" != --all ] || [ ${#missing[@]} -eq 0 ] || bad=1
exit $bad
