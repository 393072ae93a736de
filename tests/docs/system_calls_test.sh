#!/usr/bin/env bash
# Every system call and every file below /proc and /sys that the daemon, a service and a domain command use stands in
# docs/system-calls.md. Arguments: libwex.so, wex, wexrun, wexstat.
set -u
. "$(dirname "$0")/lib.sh"
page=$root/docs/system-calls.md
cp -L "$1" "$work/libwex.so.1" && cp -L "$2" "$work/wex" && cp -L "$3" "$work/wexrun" && cp -L "$4" "$work/wexstat" &&
  gcc -std=c99 -D_GNU_SOURCE -I "$root/qx-proc-wex" "$root/examples/worker.c" -o "$work/worker" "$work/libwex.so.1" \
    -Wl,-rpath,"$work" -pthread || exit 1
cd "$work" || exit 1
"$root/tools/sandbox" --leak-check --bind "$work" -- bash "$root/tests/docs/trace_inside.sh" "$work" || complain "the run under strace failed"

# The page's first table gives the names that count as the same.
sed -n '/^| listed/,/^$/s/^| `\([a-z_0-9]*\)` | \(`.*\) |$/\1 \2/p' "$page" | tr -d '`,' |
  awk '{ for (i = 2; i <= NF; ++i) print "s/^" $i "$/" $1 "/" }' > "$work/same"
[ "$(wc -l < "$work/same")" -gt 30 ] || complain "the names that count as the same were not found"
sed '1,/^## Calls of wex/d' "$page" | grep -oE '`[^`]+`' | tr -d '`' | sort -u > "$work/listed"

sed -E 's/^[0-9]+ +//' "$work"/*.trace | grep -oE '^[a-z_0-9]+\(' | tr -d '(' | sed -f "$work/same" | sort -u > "$work/used"
[ "$(wc -l < "$work/used")" -gt 40 ] || complain "only $(wc -l < "$work/used") system calls were seen"
comm -23 "$work/used" "$work/listed" > "$work/difference"
complain_each "docs/system-calls.md lacks the call" < "$work/difference"

grep -ohE '"/(proc|sys)[^"]*"' "$work"/*.trace | tr -d '"' | sed -E 's/[0-9]+/N/g; s|/$||; s|(/proc/N/fd)/.*|\1|' | sort -u > "$work/files"
comm -23 "$work/files" "$work/listed" > "$work/difference"
complain_each "docs/system-calls.md lacks the file" < "$work/difference"
# wexstat never talks to the daemon, and never writes to its table.
for trace in show_status watch_status; do
  grep -q 'wex-status' "$work/$trace.trace" || complain "$trace did not read the table"
  grep -E '(^|[0-9]+ +)(socket|connect|send[a-z]*|shm[a-z]*|msg[a-z]*|sem[a-z]*)\(|wex-status.*O_(WRONLY|RDWR|CREAT|TRUNC)' "$work/$trace.trace" > "$work/difference"
  complain_each "wexstat does more than read:" < "$work/difference"
done
for must in signalfd4 recv setgroups inotify_add_watch sched_setscheduler execve; do
  grep -qx $must "$work/used" || complain "the run did not come to $must"
done
finish
