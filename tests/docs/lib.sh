# What the checks of the documents share. Sourced; ROOT is the checkout.
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/wex-docs.XXXXXX")
trap 'rm -rf "$work"' EXIT
failures=0

complain() {
  printf 'FAIL: %s\n' "$*"
  failures=$((failures + 1))
}

# complain_each TEXT < lines: one complaint a line.
complain_each() {
  local line
  while IFS= read -r line; do complain "$1 $line"; done
}

finish() {
  [ $failures -eq 0 ] && echo "all well"
  exit $((failures > 0))
}

# Every string literal of a C or C++ text on standard input, one a line, adjacent ones joined, escapes as they stand.
literals() {
  tr '\n' ' ' | sed -E 's/" *"//g' | grep -oE '"([^"\\]|\\.)*"' | sed -E 's/^"//; s/"$//'
}

# The product's sources without comments and without #include lines, file by file: code FILE
code() { g++ -x c++ -std=c++17 -fpreprocessed -dD -E -P -w "$1" 2> /dev/null | grep -v '^ *# *include'; }

# cases_of DIRECTORY...: Suite.Name of each, also where the macro takes more than one line.
cases_of() {
  find "$@" -name '*.cpp' -exec cat {} + | tr '\n' ' ' |
    grep -oE '\bTEST(_F|_P)?\( *[A-Za-z0-9_]+, *[A-Za-z0-9_]+' | sed -E 's/.*\( *([^, ]+), */\1./' | sort -u
}

product_sources() { find "$root/qx-proc-wex" "$root/platform" "$root/include" "$root/run" "$root/stat" -name '*.cpp' -o -name '*.c' -o -name '*.h' | sort; }
