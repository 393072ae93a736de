#!/usr/bin/env bash
# docs/files.md names every path of wex_paths.h and no other; no other source holds an absolute path.
set -u
. "$(dirname "$0")/lib.sh"

bare() { sed -E 's|(.)/$|\1|' | sort -u; }           # a directory with and without its slash is one

{
  g++ -x c++ -std=c++17 -w -E -P "$root/qx-proc-wex/wex_paths.h" 2> /dev/null | literals
  { g++ -E -P -dM -I "$root/include" -x c++ "$root/qx-proc-wex/wex.h" | sed -n 's/^#define WEX_SEM_KEY_FILE //p'; } | literals
  # One more, named below a variable of the environment.
  sed -n 's/^#define RAS_WEX_DBG_FILE "\(.*\)"/$DATA_OVIX_DIR\1/p' "$root/include/ras_comp_config.h"
} | grep -v '^forkfile$' | bare > "$work/in_code"
grep -oE '`[^`]+`' "$root/docs/files.md" | tr -d '`' | grep -E '^(/|%s/|\$)' | bare > "$work/in_document"
[ "$(wc -l < "$work/in_code")" -gt 60 ] || complain "the paths of wex_paths.h were not found"

comm -23 "$work/in_code" "$work/in_document" > "$work/difference"; complain_each "docs/files.md lacks" < "$work/difference"
comm -13 "$work/in_code" "$work/in_document" > "$work/difference"; complain_each "docs/files.md names, and wex_paths.h does not:" < "$work/difference"

while IFS= read -r file; do
  case $file in */wex_paths.h) continue ;; esac
  found=$(code "$file" | grep -v -e 'define WEX_SEM_KEY_FILE' -e 'define RAS_WEX_DBG_FILE' -e 'define WEX_STATUS_NAME' | literals |
    grep -E '^/[A-Za-z._]')
  [ -z "$found" ] || complain "${file#"$root"/} holds a path of its own: $found"
done < <(product_sources)
finish
