#!/usr/bin/env bash
# docs/map.md names each mutex with its file, and each file that reads a clock.
set -u
. "$(dirname "$0")/lib.sh"
page=$root/docs/map.md

product_sources | grep '\.cpp$' | while IFS= read -r file; do
  sed -nE 's/^(priority|checked)_mutex +([a-z_]+).*/\2 '"$(basename "$file")"'/p' "$file"
done | sort > "$work/mutexes"
sed -n '/^| mutex |/,/^$/p' "$page" | sed -nE 's/^\| `([a-z_.]+)` \(([^)]*, )?`([a-z_]+\.cpp)`\).*/\1 \3/p' | sort > "$work/rows"
[ "$(wc -l < "$work/mutexes")" -ge 10 ] || complain "only $(wc -l < "$work/mutexes") mutexes were found"
comm -23 "$work/mutexes" "$work/rows" > "$work/difference"
complain_each "docs/map.md has no row for the mutex" < "$work/difference"
comm -13 "$work/mutexes" "$work/rows" | grep -v '^g_session\.mutex ' > "$work/difference"   # a member of a structure
complain_each "docs/map.md has a row for a mutex that is not there:" < "$work/difference"

sed -n '/^[A-Z][a-z]* other functions read a clock/,/^$/p' "$page" > "$work/clocks"
[ -s "$work/clocks" ] || complain "docs/map.md does not say who reads a clock"
product_sources | xargs grep -lE '\bclock_gettime\(|[^_a-z]time\(nullptr\)' | sed 's|.*/||; s|\.cpp$||' | sort -u > "$work/readers"
[ "$(wc -l < "$work/readers")" -ge 8 ] || complain "only $(wc -l < "$work/readers") files that read a clock were found"
while IFS= read -r reader; do
  case $reader in wex_clock | wexstat_* | wex_platform_generic) continue ;; esac     # the one, and those named by their folder
  grep -qw "$reader" "$work/clocks" || complain "docs/map.md does not say that $reader reads a clock"
done < "$work/readers"
finish
