#!/usr/bin/env bash
# What docs/operator.md quotes is what the golden files list, and what the sources log or print unasked is explained
# there. That the golden files list what the sources print is the subject of golden_test.sh.
set -u
. "$(dirname "$0")/lib.sh"
. "$(dirname "$0")/lib_texts.sh"

# Texts with everything variable as "%": a conversion in a format, a word in capitals in the document.
plain_format() { sed -E 's/\\r|\\n//g; s/\\"/"/g; s/%%/\x01/g; s/%[0-9]*l?l?[a-z]/%/g; s/\x01/%/g'; }
# A thread's name and the table's path are spelled out in the document.
plain_quote() { spelled | capitals; }
spelled() { sed -E 's/Thread "wex_[a-z_]+"/Thread "%"/; s/`[^`]*UTILS-wex-shm-001 is not the table/`% is not the table/; s/Fail to create NAME: /Fail to create %%: /; s/%HA-5-HA_[A-Z_]+:/%HA-5-%:/; s/0xCODE/0x%/; s/Vsd_D:/Vsd_%:/'; }
capitals() { sed -E 's/\b(NAME|PID|CODE|N|R|TEXT|THREAD|TID|COMMAND|W|A|B|C|PATH|FUNCTION|LINE|COUNT|D|DIR|NEW)\b/%/g'; }

while IFS= read -r file; do
  case $file in *.cpp | */wex_action.h) code "$file" ;; esac  # the header is a table of mnemonics
done < <(product_sources) > "$work/code"
cat "$golden"/*.txt | plain_format | sort -u > "$work/formats"

# A call's first literal: calls NAME
calls() { tr '\n' ' ' < "$work/code" | sed -E 's/" *"//g' | grep -oE "$1\([^\";]*\"([^\"\\\\]|\\\\.)*\"" | sed -E 's/^[^"]*"//; s/"$//'; }
calls wex_running_log | plain_format > "$work/must"
calls wex_print | plain_format | grep -vE '^%$' >> "$work/must"
calls wex_log_notify_info | plain_format >> "$work/must"
tr '\n' ' ' < "$work/code" | sed -E 's/" *"//g' | grep -oE 'printk_syslog_ext\([^;]*;' | grep -oE '"([^"\\]|\\.)*"' |
  sed -E 's/^"//; s/"$//' | grep -v '^HA$' | plain_format >> "$work/must"
grep -oE '"HA_[A-Z_]+"' "$work/code" | tr -d '"' >> "$work/must"
grep -oE '"%%HA-5([^"\\]|\\.)*"' "$work/code" | tr -d '"' | plain_format >> "$work/must"
sort -u "$work/must" -o "$work/must"
[ "$(wc -l < "$work/must")" -gt 30 ] || complain "the message texts were not found"

# Quoted messages stand in the first two columns of tables, one a row, in back ticks.
plain_quote < "$root/docs/operator.md" > "$work/page"
sed -n '/^| `/p' "$work/page" | sed -E 's/(\\\|)/\x01/g' | awk -F'|' '{ print $2; print $3 }' | grep -oE '`[^`]+`' | tr -d '`' |
  grep -vE '^wex\.log[12]$' | sort -u > "$work/quoted"
while IFS= read -r text; do
  grep -qxF -- "$text" "$work/formats" || grep -qF -- "$text" "$work/formats" || complain "docs/operator.md quotes what nothing prints: $text"
done < "$work/quoted"
while IFS= read -r text; do
  grep -qF -- "$text" "$work/page" "$root/docs/operator.md" || complain "docs/operator.md does not explain: $text"
done < "$work/must"
finish
