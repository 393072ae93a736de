#!/usr/bin/env bash
# The systemd unit and the fragment beside it are correct in systemd's own eyes, say what wex needs of them, and every
# sandboxing option that they leave out is named in docs/integrator.md with the reason. Argument: the configured unit.
set -u
here=$(cd "$(dirname "$0")" && pwd)
root=${here%/tests/package}
work=$(mktemp -d "${TMPDIR:-/tmp}/wex-unit.XXXXXX")
trap 'rm -rf "$work"' EXIT
failures=0
complain() { printf 'FAIL: %s\n' "$*"; failures=$((failures + 1)); }

# A program that is there takes the place of wex, which need not be installed.
sed 's|^ExecStart=/.*/wex$|ExecStart=/bin/true|' "$1" > "$work/wex.service"
grep -qx 'ExecStart=/bin/true' "$work/wex.service" || complain "the unit starts something else than wex"
says() { systemd-analyze --man=no verify "$1" 2>&1; }
said=$(says "$work/wex.service") && [ -z "$said" ] || complain "the unit: systemd says: $said"
mkdir "$work/with"                                 # a fragment counts like lines at the end of the unit
cat "$work/wex.service" "$root/packaging/init/wex-least.conf" > "$work/with/wex.service"
said=$(says "$work/with/wex.service") && [ -z "$said" ] || complain "the unit with the fragment: systemd says: $said"
echo 'Nonsense=yes' >> "$work/with/wex.service"
[ -n "$(says "$work/with/wex.service")" ] || complain "a line that systemd does not know is not noticed"

for line in Restart=always KillSignal=SIGINT KillMode=process OOMPolicy=continue TasksMax=infinity; do
  grep -qx "$line" "$1" || complain "the unit does not say $line"
done
# Root's threads need none of these limits, and every program that wex starts inherits them.
for limit in LimitRTPRIO LimitNICE; do
  for file in "$1" "$root/packaging/init/wex-least.conf"; do
    ! grep -q "^[[:space:]]*$limit" "$file" || complain "${file##*/} sets $limit, which programs of wex would inherit"
  done
done

# left_out UNIT: the options that would restrict it and are not set, without a value, one a line.
left_out() {
  systemd-analyze security --offline=true --no-pager --json=short "$1" | python3 -c '
import json, sys
for row in json.load(sys.stdin):
    if row["set"] is False:
        for option in row["name"].split("/"):
            print(option.split("=")[0])' | sort -u
}
left_out "$work/wex.service" > "$work/left-out"
[ "$(wc -l < "$work/left-out")" -ge 25 ] || complain "only $(wc -l < "$work/left-out") options were found"
sed -n '/^| options | why not |$/,/^$/p' "$root/docs/integrator.md" | cut -d'|' -f2 | grep -oE '`[A-Za-z]+`' | tr -d '`' | sort -u > "$work/named"
for option in $(comm -23 "$work/left-out" "$work/named"); do complain "docs/integrator.md does not say why $option is not set"; done
for option in $(sort "$work/named"); do
  ! grep -q "^$option=" "$1" || complain "docs/integrator.md says why $option is not set, but it is"
done
[ $failures -eq 0 ] && echo "all well"
exit $((failures > 0))
