#!/usr/bin/env bash
# The demo tells its story on one screen, with what really happened in every act, and ends with what to try next. Arguments: wex, the examples' directory.
set -u
. "$(dirname "$0")/lib.sh"
story=$work/story
timeout 120 "$root/tools/sandbox" --leak-check -- "$root/tools/demo" "$1" "$2" > "$story" 2> "$work/errors" < /dev/null ||
  complain "the demo ends with status $?: $(cat "$story" "$work/errors")"
[ ! -s "$work/errors" ] || complain "the demo complains: $(cat "$work/errors")"
# What ./dev demo prints around the story, too: how long the build took, that nothing was left behind, what to try next.
"$root/tools/demo" --next > "$work/next"
lines=$(($(wc -l < "$story") + 2 + $(wc -l < "$work/next")))
[ $lines -le 24 ] || complain "more than 24 lines: $lines"
complain_each "wider than 100 columns:" < <(grep -hE '.{101}' "$story" "$work/next")
complain_each "a diagnostic line in the story:" < <(grep -E '^ +(console|messages|running) +\|' "$story")

# matched PATTERN: what the pattern's one group matched, in the one line where it does.
matched() {
  local found
  found=$(sed -nE "s#.*$1.*#\\1#p" "$story")
  [ "$(grep -c . <<< "$found")" = 1 ] || complain "the story does not say once: $1 (but: $found)"
  printf '%s' "$found"
}
pid='([0-9]+)'
wex=$(matched "^1\. wex, .*: pid $pid, [0-9]+ threads\$")
clock=$(matched "^2\. .*clock, pid $pid,")
worker=$(matched "^2\. .*worker, pid $pid\$")
[ "$(matched '^ .*locked while its process lives: (.*)')" = "/tmp/vsd/0/wex/db/clock.$clock" ] || complain "another registration than clock's"
second=$(matched "^3\. clock, pid $clock, is killed .* comes back at once, as pid $pid\$")
matched "Task: clock/$clock receives event:(0009)" > /dev/null
[ "$(matched "new id clock/$pid\.")" = "$second" ] || complain "the log tells of another clock than act 3"
matched '^4\. (fragile) ' > /dev/null
lives=$(matched '^ .*its lives were the pids ([0-9 ]+); wexstat, problems first:$')
[ "$(wc -w <<< "$lives")" = 5 ] && [ "$(tr ' ' '\n' <<< "$lives" | sort -u | wc -l)" = 5 ] || complain "fragile's lives are not five: $lives"
[ "$(matched "^   fragile +$pid +0 +parked, ")" = "${lives##* }" ] || complain "wexstat tells of another last life than $lives"
[ "$(matched "^   clock +$pid +0 +running ")" = "$second" ] || complain "wexstat tells of another clock than act 3"
[ "$(matched "^   worker +$pid +0 +running ")" = "$worker" ] || complain "wexstat tells of another worker than act 2"
[ "$(matched "^5\. worker, pid $pid, is stopped")" = "$worker" ] || complain "another worker in act 5"
registered=$(matched '^ .*what is registered now: (.*)')
[[ " $registered" == *" clock.$second"* && $registered != *worker* ]] || complain "act 5 shows the registrations $registered"
[ "$(matched "^6\. wex itself, pid $pid, is killed")" = "$wex" ] || complain "another wex in act 6"
matched '^   meanwhile wexstat --check said: (wex is not running: it was killed)$' > /dev/null
again=$(matched "^6\. .* it is pid $pid now\$")
[ "$(matched "^ .*clock went on meanwhile as pid $pid;")" = "$second" ] || complain "another clock in act 6"
third=$(matched "^ .*the new wex starts it as pid $pid\$")
[ "$(matched "^7\. wex, pid $pid, is stopped with SIGINT")" = "$again" ] || complain "another wex in act 7"
[ "$(matched "clock still runs as pid $pid\$")" = "$third" ] || complain "another clock in act 7"
[ "$(printf '%s\n' "$wex" "$clock" "$worker" "$second" "$again" "$third" | sort -u | wc -l)" = 6 ] || complain "pids are told twice"
[ "$(head -n 1 "$work/next")" = 'What to try next:' ] && grep -q '\./dev demo --shell' "$work/next" || complain "nothing to try next: $(cat "$work/next")"
"$root/dev" help > "$work/help"
while read -r place command option _; do           # a form of ./dev demo that the help has, or a document
  if [ "$place" = ./dev ]; then
    grep -Eq -- "^  $command .*$option" "$work/help" || complain "./dev help knows no $command $option"
  else
    [ -e "$root/$place" ] || complain "there is no $place to try next"
  fi
done < <(tail -n +2 "$work/next")

# The README shows the table of a run. What differs from run to run: numbers, durations, and whether a core is dumped.
shape() {
  sed -nE '/^ +(NAME|fragile|clock|worker) /p' | sed -E 's/[0-9]+ (d|h|min) [0-9]+ (h|min|s)\>/TIME/g; s/[0-9]+ s\>/TIME/g; s/, core//; s/[0-9]+/N/g; s/ +/ /g'
}
shape < "$root/README.md" > "$work/shown"
sed -n '/^4\. /,/^5\. /p' "$story" | shape > "$work/table"
[ "$(wc -l < "$work/table")" = 4 ] || complain "wexstat does not tell of three services"
diff "$work/shown" "$work/table" > "$work/difference" || complain "README.md (<) shows another table than the demo (>): $(cat "$work/difference")"
[ $failures -eq 0 ] || cat "$story"

# The same with --verbose: what the console and the logs say stands between the acts.
timeout 120 "$root/tools/sandbox" --leak-check -- "$root/tools/demo" "$1" "$2" --verbose > "$work/verbose" 2> "$work/errors" < /dev/null ||
  complain "the demo ends with status $? when it is to tell all: $(tail -n 40 "$work/verbose" "$work/errors")"
for log in 'console  \| \[WEX:[a-z_]+:[0-9]+\]' 'messages \| .*HA_SELF_CHECK' 'running  \| '; do
  grep -Eq "^   $log" "$work/verbose" || complain "--verbose shows no line of $log"
done

# The story of strict mode: five attacks of a user's that fail, and both services come back as who they were.
timeout 120 "$root/tools/sandbox" --leak-check -- "$root/tools/demo" "$1" "$2" --strict > "$story" 2> "$work/errors" < /dev/null ||
  complain "the demo of strict mode ends with status $?: $(cat "$story" "$work/errors")"
[ ! -s "$work/errors" ] || complain "the demo of strict mode complains: $(cat "$work/errors")"
"$root/tools/demo" --next --strict > "$work/next"
lines=$(($(wc -l < "$story") + 2 + $(wc -l < "$work/next")))
[ $lines -le 24 ] || complain "more than 24 lines of strict mode: $lines"
complain_each "wider than 100 columns:" < <(grep -hE '.{101}' "$story" "$work/next")
wex=$(matched "^1\. wex, pid $pid, starts in strict mode")
clock=$(matched "clock, pid $pid, is root's;")
worker=$(matched "worker, pid $pid, belongs to the user nobody\$")
matched '^ .*(User 65534 was refused 1 times: the process is not his\.)$' > /dev/null
matched '^ .*(/tmp/wex/\.wex.*: Operation not permitted)$' > /dev/null
matched '^ .*(/tmp/vsd/0/delete_vsd.*: Permission denied)$' > /dev/null
[ "$(matched "^5\. .*: pid $pid goes on\$")" = "$wex" ] || complain "another wex in act 5"
matched '^ .*(/tmp/wex/forkfile does not count: .*)$' > /dev/null
[ "$(matched "^6\. .* wex, pid $pid, is killed")" = "$wex" ] || complain "another wex in act 6"
[ "$(matched '^ .*runs with user id ([0-9]+), and not as root$')" = 65534 ] || complain "the planted program ran as another user"
[ "$(matched 'clock is pid [0-9]+ with user id ([0-9]+);')" = 0 ] || complain "clock is not root's any more"
[ "$(matched 'worker is pid [0-9]+ with user id ([0-9]+)$')" = 65534 ] || complain "worker is not nobody's any more"
[ "$(matched "clock is pid $pid with")" != "$clock" ] && [ "$(matched "worker is pid $pid with")" != "$worker" ] || complain "a service was not restarted"
while read -r place _; do
  [ -e "$root/$place" ] || complain "there is no $place to try next"
done < <(tail -n +2 "$work/next")
[ $failures -eq 0 ] || cat "$story"
finish
