#!/usr/bin/env bash
# Every function, field, constant and file that docs/decisions.md names in back ticks is there.
set -u
. "$(dirname "$0")/lib.sh"
page=$root/docs/decisions.md

product_sources | xargs cat | sed -E 's|//.*||' | grep -oE '[A-Za-z_][A-Za-z_0-9]*' | sort -u > "$work/words"
product_sources | sed 's|.*/||' | sort -u > "$work/files"
grep -oE '`[^`]+`' "$page" | tr -d '`' | sed -E 's/\(\)$//' | sort -u > "$work/named"
[ "$(wc -l < "$work/named")" -ge 20 ] || complain "only $(wc -l < "$work/named") names were found"
sort -u "$work/words" "$work/files" | comm -13 - "$work/named" > "$work/difference"
complain_each "docs/decisions.md names what is not in the sources:" < "$work/difference"
finish
