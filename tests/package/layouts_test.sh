#!/usr/bin/env bash
# Layouts that leave the process are the reviewed ones of layouts.golden, in C and in C++: sizes and offsets are read from
# object files of this machine's compiler and of each cross compiler that is installed.
#
#   layouts_test.sh [--all]        --all: a compiler that is missing is a failure
set -u
top=$(cd "$(dirname "$0")/../.." && pwd)
. "$top/tools/boards"
golden=$top/tests/package/layouts.golden
work=$(mktemp -d) || exit 1
trap 'rm -rf "$work"' EXIT
bad=0 compared=()

# numbers CC CXX NM: "name number" of each in C in $work/c and in C++ in $work/cpp.
numbers() {
  local cc=$1 cxx=$2 nm=$3 language warn=(-Wall -Wextra -Wpedantic -Werror) look=(-I"$top/qx-proc-wex" -I"$top/include")
  "$cc" -std=c99 -D_GNU_SOURCE "${warn[@]}" "${look[@]}" -c -o "$work/c.o" "$top/tests/package/layouts.c" &&
    "$cxx" -x c++ -std=c++17 "${warn[@]}" "${look[@]}" -c -o "$work/cpp.o" "$top/tests/package/layouts.c" || return 1
  for language in c cpp; do                        # each array is one longer than its number
    "$nm" -S -t d "$work/$language.o" | awk 'NF == 4 {print $4, $2 - 1}' | sort > "$work/$language"
  done
}

# column_for: which numbers of the golden file hold for what was compiled last.
column_for() {
  case $(sed -n -E 's/^(bytes_of_pointer|alignment_of_int64) //p' "$work/c" | paste -s -d' ') in
    '8 8') echo 2 ;;                               # alignment stands first
    '8 4') echo 3 ;;
    '4 4') echo 4 ;;
    *) return 1 ;;
  esac
}

compare() {                                        # NAME CC CXX NM
  local name=$1 column language difference
  shift
  numbers "$@" || { echo "layouts: $name: does not compile"; bad=1; return; }
  column=$(column_for) || { echo "layouts: $name: sizes of a kind that layouts.golden does not have"; bad=1; return; }
  grep -v '^#' "$golden" | awk -v column="$column" '{print $1, NF == 2 ? $2 : $column}' | sort > "$work/golden"
  for language in c cpp; do
    difference=$(diff "$work/golden" "$work/$language") ||
      { printf 'layouts: %s (%s) is not as reviewed (< layouts.golden, > compiled):\n%s\n' "$name" "$language" "$difference"; bad=1; }
  done
  compared+=("$name")
}

missing=()
compare host cc c++ nm
for name in "${boards[@]}"; do
  board "$name"
  if command -v "$triple-g++" > /dev/null; then
    compare "$name" "$triple-gcc" "$triple-g++" "$triple-nm"
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
echo "layouts: compared with layouts.golden: ${compared[*]}"
[ ${#missing[@]} -eq 0 ] || echo "layouts: no compiler here (./dev boards installs them): ${missing[*]}"
[ "${1-}" != --all ] || [ ${#missing[@]} -eq 0 ] || bad=1
exit $bad
