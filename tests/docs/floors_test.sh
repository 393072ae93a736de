#!/usr/bin/env bash
# The object files call each other downwards only, by the floors that docs/map.md draws, and no file includes a header of
# a floor above its own: so inline functions and types are held, too. Arguments: the object files.
set -u
. "$(dirname "$0")/lib.sh"

# The floors of a page, from the top: "LEVEL FILE" a line, the highest level first. A line that begins with a blank goes
# on with the floor above it.
drawn_floors() {
  sed -n '/^## Floors/,/^## /p' "$1" | sed -n '/^```/,/^```/p' | grep -v '^```' |
    awk '/^[^ ]/ { level++; if (!sub(/^[^ ]+( [^ ]+)*  +/, "")) $0 = "" }
         { for (i = 1; i <= NF; i++) print -level, $i }'
}

# What an object file is called in the picture: a port of the device's libraries may have any names.
file_name() { case $1 in */platform/*) echo platform ;; *) basename "$1" | sed 's/\.[a-z]*\.o$//' ;; esac; }

# "CALLER CALLEE SYMBOL" for each symbol that one of the object files has from another. Inline functions (weak) are
# everywhere, and nobody's.
calls_between() {
  local object
  for object in "$@"; do nm -P "$object" | sed "s|^|$(file_name "$object") |"; done |
    awk '$3 ~ /^[TDBRGSC]$/ { home[$2] = $1 } $3 == "U" { wanted[$1 " " $2] }
         END { for (pair in wanted) { split(pair, part, " ")
                 if (part[2] in home && home[part[2]] != part[1]) print part[1], home[part[2]], part[2] } }' | sort
}

# "FILE HEADER" for each of these sources and headers that includes another of them.
includes_between() {
  grep -HoE '^ *# *include "[^"]+"' "$@" /dev/null | sed -E 's|^([^:]*/)?([^/:]*):.*"(.*)"$|\2 \3|' |
    awk 'NR == FNR { ours[$1]; next } $2 in ours && $1 != $2' <(basename -a "$@") - | sort -u
}

# Those of the names on standard input, headers by their last letters, as the picture of "$work/floors" calls them: a
# header has the floor of its source unless it is drawn itself.
drawn_names() {
  awk 'NR == FNR { drawn[$2]; next }
       { for (i = 1; i <= 2 && i <= NF; i++) if (!($i in drawn)) sub(/\.(h|cpp|c)$/, "", $i); print }' "$work/floors" -
}

# Everything that is wrong with object files, sources and headers by the picture of this page: faults PAGE FILE...
faults() {
  local page=$1 file objects=() texts=()
  shift
  for file in "$@"; do case $file in *.o) objects+=("$file") ;; *) texts+=("$file") ;; esac; done
  drawn_floors "$page" > "$work/floors"
  calls_between "${objects[@]}" > "$work/calls"
  includes_between "${texts[@]}" | drawn_names | awk '$1 != $2' | sort -u > "$work/includes"
  { for file in "${objects[@]}"; do file_name "$file"; done
    printf '%s\n' "${texts[@]}" | sed -n 's|.*/\([^/]*\.h\)$|\1|p' | drawn_names; } | sort -u > "$work/built"
  cut -d' ' -f2 "$work/floors" | sort > "$work/drawn"
  uniq -d "$work/drawn" | sed 's/^/twice in the picture: /'
  sort -u "$work/drawn" | comm -23 "$work/built" - | sed 's/^/not in the picture: /'
  sort -u "$work/drawn" | comm -13 "$work/built" - | sed 's/^/in the picture only: /'
  for file in calls includes; do
    cut -d' ' -f1,2 "$work/$file" | sort -u | tsort 2>&1 > /dev/null | grep -v 'contains a loop' |
      sed 's/^tsort: /in a circle: /'
  done
  awk 'NR == FNR { level[$2] = $1; next }
       level[$2] == level[$1] { print $1, "calls", $2, "on its own floor:", $3 }
       level[$2] > level[$1] { print $1, "calls", $2, "above it:", $3 }' "$work/floors" "$work/calls"
  awk 'NR == FNR { level[$2] = $1; next }
       level[$2] > level[$1] { print $1, "includes", $2, "above it" }' "$work/floors" "$work/includes"
}

# Proves that the check can fail: one pair of object files, and pictures and calls that are wrong.
try() {  # NAME WANTED PICTURE LOW [HEADER]: what faults() says of two files of which "high" calls "low", and of "own.h"
  echo "$4" > "$work/try/low.c"
  echo "${5-}" > "$work/try/own.h"
  printf '## Floors\n\n```\n%b```\n' "$3" > "$work/try/page"
  gcc -c "$work/try/low.c" -o "$work/try/low.c.o" || complain "$1: no object file"
  faults "$work/try/page" "$work/try/"*.o "$work/try/"*.[ch] > "$work/try/said"
  if [ -z "$2" ]; then
    [ ! -s "$work/try/said" ] || complain "$1: $(cat "$work/try/said")"
  else
    grep -qF -- "$2" "$work/try/said" || complain "$1: not found, but: $(cat "$work/try/said")"
  fi
}
mkdir "$work/try"
echo 'int low(void); int high(void) { return low(); }' > "$work/try/high.c"
echo > "$work/try/high.h"
gcc -c "$work/try/high.c" -o "$work/try/high.c.o" || complain "no object file"
alone='int low(void) { return 1; }'
back='int high(void); int low(void) { return high(); }'
upward='#include "high.h"'
try "what is right" '' 'top     high\nbottom  low  own.h\n' "$alone"
try "a floor of two lines" '' 'top     high\nbottom\n       low  own.h\n' "$alone"
try "a source that includes a header above it" 'low includes high above it' 'top     high\nbottom  low  own.h\n' "$upward
$alone"
try "a header that includes one above it" 'own.h includes high above it' 'top     high\nbottom  low  own.h\n' "$alone" "$upward"
try "a header above its source" 'own.h includes high.h above it' 'top  high.h\nmid  own.h\nbottom  high  low\n' "$alone" "$upward"
try "a header that is not drawn" 'not in the picture: own' 'top     high\nbottom  low\n' "$alone"
try "a call upwards" 'high calls low above it: low' 'top     low\nbottom  high\n' "$alone"
try "a call on one floor" 'high calls low on its own floor: low' 'all  high  low\n' "$alone"
try "a circle" 'in a circle: low' 'top     high\nbottom  low\n' "$back"
try "the way back of a circle" 'low calls high above it: high' 'top     high\nbottom  low\n' "$back"
try "a file that is not drawn" 'not in the picture: low' 'top     high\n' "$alone"
try "a file that is gone" 'in the picture only: other' 'top     high\nbottom  low  other\n' "$alone"

faults "$root/docs/map.md" "$@" "$root"/qx-proc-wex/*.{cpp,h} "$root"/qx-proc-wex/base/* "$root"/include/*.h > "$work/found"
complain_each "" < "$work/found"
[ "$(wc -l < "$work/calls")" -gt 300 ] || complain "only $(wc -l < "$work/calls") calls were found"
[ "$(wc -l < "$work/includes")" -gt 300 ] || complain "only $(wc -l < "$work/includes") includes were found"
sed -n '/^## Floors/,/^## /p' "$root/docs/map.md" | sed -n '/^```/,/^```/p' | grep -v '^```'
echo "$(wc -l < "$work/built") files, $(wc -l < "$work/calls") symbols and $(wc -l < "$work/includes") headers of other files, none of a floor above"
finish
