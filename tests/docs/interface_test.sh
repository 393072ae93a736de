#!/usr/bin/env bash
# What libwex.so and the daemon offer, what the headers declare, the linker's maps and the package's symbols file agree; the shipped
# binaries need libc only; each header stands alone. Arguments: libwex.so, wex, wexrun, wexstat.
#
# The functions of wex_platform.h are the device's. wex calls them and must not offer them: a program that links libwex.so,
# or a library that wex loads, would get the generic ones in place of the device's.
set -u
. "$(dirname "$0")/lib.sh"
library=$1 daemon=$2
headers=("$root"/qx-proc-wex/wex{,_diagnostics}.h "$root"/include/*.h)

for header in "${headers[@]}"; do
  echo "#include \"$header\"" > "$work/declared.c"
  gcc -std=c99 -D_GNU_SOURCE -I "$root/include" -I "$root/qx-proc-wex" -aux-info "$work/aux" -c -o /dev/null "$work/declared.c" || complain "$header"
  grep -E "^/\* ($root/qx-proc-wex|$root/include)/" "$work/aux" | grep -v ' static ' | sed -E 's/.*[ *]([a-z_0-9A-Z]+) \(.*/\1/' >> "$work/headers"
  sed -nE 's/^extern .*[ *]([a-zA-Z_0-9]+)(\[[^]]*\])?;.*/\1/p' "$header" >> "$work/headers"
done
# Some processors (RISC-V) cannot exchange a single byte: the compiler then calls a library that is not shipped.
bytes=$(product_sources | xargs sed -nE 's/.*std::atomic<(bool|char|u?int8_t)>&? +([a-zA-Z_]+).*/\2/p' | sort -u | paste -s -d'|' -)
[ -n "$bytes" ] || complain "no atomic bytes were found"
complain_each "exchanges an atomic byte, which must be a word:" < <(
  product_sources | xargs grep -nE "\\b($bytes)(\[[^]]*\])?\.(exchange|compare_exchange|fetch_)")
gcc -std=c99 -D_GNU_SOURCE -x c -aux-info "$work/aux" -c -o /dev/null "$root/include/wex_platform.h" || complain wex_platform.h
sed -nE "s|^/\* $root/include.*[ *]([a-z_0-9A-Z]+) \(.*|\1|p" "$work/aux" | sort -u > "$work/platform"
[ "$(wc -l < "$work/platform")" = 3 ] || complain "the functions of wex_platform.h were not found: $(cat "$work/platform")"
sort -u "$work/headers" -o "$work/declared"
comm -23 "$work/declared" "$work/platform" > "$work/headers"
nm -D --defined-only "$library" | awk '$2 != "A" { sub(/@.*/, "", $3); print $3 }' | sort -u > "$work/exported"
names_in() {
  sed -n '/global:/,/local:/p' "$root/qx-proc-wex/$1" | tr ';' '\n' | sed -nE 's/^(.*:)? *([a-z][a-zA-Z_0-9]*) *$/\2/p' |
    grep -vE '^(global|local)$' | sort -u
}
names_in libwex.map > "$work/map"
sed -nE 's/^ ([a-z][a-zA-Z_0-9]*)@.*/\1/p' "$root/packaging/debian/libwex1.symbols" | sort -u > "$work/symbols"
# Beside copies of the library's variables, and what the C library asks every program for.
offered_by() { nm -D --defined-only "$1" | grep -vE '@GLIBC_| _IO_stdin_used$'; }
offered_by "$daemon" | awk '{ sub(/@.*/, "", $3); print $3 }' | sort -u > "$work/daemon"
names_in wex.map > "$work/daemon_map"
for other in exported map symbols daemon daemon_map; do
  cmp -s "$work/headers" "$work/$other" || complain "headers (<) and $other (>) differ: $(diff "$work/headers" "$work/$other" | grep '^[<>]' | tr '\n' ' ')"
done
[ "$(wc -l < "$work/headers")" -gt 50 ] || complain "no declarations were found"
comm -12 "$work/platform" "$work/daemon" > "$work/difference"
complain_each "the daemon displaces the device's" < "$work/difference"

# The status table, to the byte: offsets as docs/shared-memory.md has them are those of the reviewed layouts.
awk '/^The head:/ {part = "head"} /^A slot:/ {part = "slot"} /^An event:/ {part = "event"} /^Times are/ {part = ""}
  part != "" && /^\| [0-9]+ \|/ { split($0, cell, "|"); name = cell[4]; sub(/^ *`/, "", name); sub(/`.*/, "", name)
    if (name !~ /^reserved/) print "same_wex_status_" part "_" name, cell[2] + 0 }' "$root/docs/shared-memory.md" | sort > "$work/offsets"
[ "$(wc -l < "$work/offsets")" -gt 40 ] || complain "the offsets of docs/shared-memory.md were not found"
sort "$root/tests/package/layouts.golden" | comm -13 - "$work/offsets" > "$work/difference"
complain_each "docs/shared-memory.md has another offset than include/wex_status.h:" < "$work/difference"

for program in "$3" "$4"; do
  complain_each "$program offers" < <(offered_by "$program")
done

readelf -d "$library" | grep -qF 'soname: [libwex.so.1]' || complain "$library has no soname libwex.so.1"
for file in "$library" "$daemon" "$3" "$4"; do
  while IFS= read -r needed; do
    case $needed in
      libc.so.* | libpthread.so.* | librt.so.* | ld-linux*.so.* | ld.so.*) ;;  # all of glibc
      *) complain "$file needs $needed" ;;
    esac
  done < <(readelf -d "$file" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
done

for header in "${headers[@]}"; do
  gcc -x c -std=c99 -pedantic -Wall -Wextra -Werror -I "$root/include" -fsyntax-only "$header" || complain "$header alone as C99"
  g++ -x c++ -std=c++17 -pedantic -Wall -Wextra -Werror -I "$root/include" -fsyntax-only "$header" || complain "$header alone as C++17"
done

for page in "$root"/docs/man/*; do
  warnings=$(groff -man -Tutf8 -ww -z "$page" 2>&1) && [ -z "$warnings" ] || complain "$page: ${warnings:-cannot be shown}"
done
cat "$root"/docs/man/*.3 | tr -cs 'a-zA-Z_0-9' '\n' | sort -u > "$work/explained"
comm -23 "$work/declared" "$work/explained" > "$work/difference"
complain_each "no manual page names" < "$work/difference"
finish
