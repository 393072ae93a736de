# The texts of the product, for the checks that compare them. Sourced behind lib.sh.
golden=$root/tests/golden
not_printed=$root/tests/docs/not_printed

# module_of FILE: the name that the file's diagnostics carry, else that of the part it belongs to.
module_of() {
  local name
  name=$(sed -nE 's/^#define WEX_MODULE "(.*)"$/\1/p' "$1")
  if [ -z "$name" ]; then
    name=$(basename "$1")
    name=${name%.*}
    case $name in
      wexrun*) name=wexrun ;;
      wexstat*) name=wexstat ;;
      wex_core_*) name=wex_core ;;
      wex_platform*) name=wex_platform ;;
    esac
  fi
  echo "$name"
}

# texts_of FILE: its literals that hold a blank or a line end, the mnemonics of the system log and the formats
# of the event log; of the table of actions every word, for each is printed. What an assertion tells the compiler
# is no text, and not_printed lists what only has the shape of one. The words that fill a conversion, such as a
# function's name, are no texts of their own.
texts_of() {
  local found shape='[ ]|\\[nr]|^HA_'
  case $1 in */wex_action.h) shape=. ;; esac
  found=$(code "$1" | tr '\n' ' ' |
    sed -E 's/(static_assert|WEX_STATIC_ASSERT)\(([^;"]|"([^"\\]|\\.)*")*\);//g; s/extern "C"//g' |
    literals | grep -E "$shape")
  grep -xF -f "$not_printed" <<< "$found" >> "$work/left_out"
  grep . <<< "$found" | grep -vxF -f "$not_printed"
}

# texts_in_sources DIR FILE...: DIR/MODULE.txt with the texts of the files, sorted, each once.
texts_in_sources() {
  local to=$1 file
  shift
  mkdir -p "$to"
  for file in "$@"; do texts_of "$file" >> "$to/$(module_of "$file").txt"; done
  for file in "$to"/*.txt; do LC_ALL=C sort -u "$file" -o "$file"; done
  find "$to" -name '*.txt' -empty -delete
}

# product_texts DIR: the same of the whole product. Paths are compared elsewhere.
product_texts() {
  local files
  mapfile -t files < <(product_sources | grep -v '/wex_paths\.h$')
  texts_in_sources "$1" "${files[@]}"
}

# compare_texts SOURCES GOLDEN: one line for each text that only one of the two directories has.
compare_texts() {
  local module
  { ls "$1" && ls "$2"; } | sort -u | while IFS= read -r module; do
    LC_ALL=C comm -3 --output-delimiter=$'\x01' <(cat "$1/$module" 2> /dev/null) <(cat "$2/$module" 2> /dev/null) |
      while IFS= read -r text; do
        case $text in
          $'\x01'*) printf '%s: only in the golden file: %s\n' "$module" "${text#?}" ;;
          *) printf '%s: only in the sources: %s\n' "$module" "$text" ;;
        esac
      done
  done
}
