#!/usr/bin/env bash
# Every function, field, constant and file that docs/decisions.md names in back ticks is there, each oddity that it
# calls kept is marked in the code, with no mark left over, and each addition says what happens without it.
set -u
. "$(dirname "$0")/lib.sh"
page=$root/docs/decisions.md

product_sources | xargs cat | sed -E 's|//.*||' | grep -oE '[A-Za-z_][A-Za-z_0-9]*' | sort -u > "$work/words"
{ product_sources; git -C "$root" ls-files 2> /dev/null; find "$root/qx-proc-wex" "$root/tests" -type f; } | sed 's|.*/||' | sort -u > "$work/files"
grep -oE '`[^`]+`' "$page" | tr -d '`' | sed -E 's/\(\)$//' | grep -vE '^(extern "C"|include/|tests/docs/[a-z_]+\.sh)$' | sort -u > "$work/named"
[ "$(wc -l < "$work/named")" -ge 20 ] || complain "only $(wc -l < "$work/named") names were found"
sort -u "$work/words" "$work/files" | comm -13 - "$work/named" > "$work/difference"
complain_each "docs/decisions.md names what is not in the sources:" < "$work/difference"

# "- `NAME` in `FILE`: ..." in the page, and "Kept: ... see docs/decisions.md" in FILE: as many of the one as of the other.
sed -n '/^## Kept oddities/,/^## /p' "$page" | sed -nE 's/^- `([^`]+)` in `([^`]+)`:.*/\2 \1/p' > "$work/entries"
[ "$(wc -l < "$work/entries")" -ge 20 ] || complain "only $(wc -l < "$work/entries") kept oddities were found"
while read -r file name; do
  grep -qw -- "$name" "$root"/{qx-proc-wex,include}/"$file" 2> /dev/null || complain "no $name in $file, which docs/decisions.md calls kept"
done < "$work/entries"
cut -d' ' -f1 "$work/entries" | sort | uniq -c > "$work/entered"
product_sources | while IFS= read -r file; do
  sed -nE 's/.*(Kept: ).*/'"${file##*/}"'/p' "$file"
done | sort | uniq -c > "$work/marked"
complain_each "marks \"Kept:\" a file (>) and entries of docs/decisions.md (<) differ:" < <(diff "$work/entered" "$work/marked" | grep '^[<>]')
product_sources | xargs grep -l 'Kept: ' | while IFS= read -r file; do
  [ "$(grep -c 'Kept: ' "$file")" = "$(grep -c 'see docs/decisions.md' "$file")" ] || echo "$file"
done > "$work/unsaid"
complain_each "a mark \"Kept:\" without \"see docs/decisions.md\" in" < "$work/unsaid"

# An entry begins with a paragraph in bold and ends before the next one. Those before the table of additions are no
# additions, and what concerns the sources alone has no effect on a device.
awk '
  function check() {
    if (entry != "") entries++
    if (entry != "" && entry !~ /\*Without:\*/ && tolower(entry) !~ /no behaviour/) print title
    entry = ""
  }
  /^## / { check(); wanted = additions && !/^## How the sources are kept/; additions = additions || /^## Where the additions are/ }
  /^\*\*/ { check(); if (wanted) title = $0 }
  wanted && (/^\*\*/ || entry != "") { entry = entry " " $0 }
  END { check(); if (entries < 30) print "only " entries + 0 " entries were found" }
' "$page" > "$work/without"
complain_each "docs/decisions.md says neither *Without:* nor \"no behaviour\" in" < "$work/without"
finish
