#!/usr/bin/env bash
# tests/golden/MODULE.txt holds each text that the module can print, once. A text that changes shows up there in
# review, and nothing is printed that nobody has looked at. "golden_test.sh --write" writes the files anew.
set -u
. "$(dirname "$0")/lib.sh"
. "$(dirname "$0")/lib_texts.sh"

if [ "${1:-}" = --write ]; then
  rm -f "$golden"/*.txt
  product_texts "$golden"
  exit
fi

# The comparison itself, on a made-up module: a missing, a surplus and an altered text must each be named.
made_up() {
  cat > "$work/made_up.cpp" << 'CODE'
#define WEX_MODULE "made_up"
static_assert(sizeof(int) == 4, "no text at all");
void f() {
  wex_dbg(WEX_DBG_PUB, "kept: %s\n", g);
  wex_running_log("new " "text.\r\n");
  puts("It said \"yes\" after");
  open("%s/%s", "/no/text");
}
CODE
  mkdir "$work/golden"
  printf '%s\n' 'It said \"yes\" before' 'kept: %s\n' 'old text.\n' > "$work/golden/made_up.txt"
  texts_in_sources "$work/made_up" "$work/made_up.cpp"
  compare_texts "$work/made_up" "$work/golden"
}
cat > "$work/expected" << 'LINES'
made_up.txt: only in the golden file: It said \"yes\" before
made_up.txt: only in the golden file: old text.\n
made_up.txt: only in the sources: It said \"yes\" after
made_up.txt: only in the sources: new text.\r\n
LINES
made_up | LC_ALL=C sort > "$work/found"
diff -u "$work/expected" "$work/found" || complain "the comparison does not name what differs"

product_texts "$work/sources"
[ "$(cat "$work/sources"/*.txt | wc -l)" -gt 300 ] || complain "the texts of the sources were not found"
complain_each "a text differs," < <(compare_texts "$work/sources" "$golden")
complain_each "not_printed names what no source holds:" < <(grep -vxF -f "$work/left_out" "$not_printed")
for file in "$golden"/*.txt; do
  LC_ALL=C sort -cu "$file" || complain "$(basename "$file") is not sorted, or holds a text twice"
done
[ $failures -eq 0 ] || echo "If the sources are right: tests/docs/golden_test.sh --write, and review with git diff tests/golden"
finish
