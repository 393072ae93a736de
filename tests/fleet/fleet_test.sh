#!/usr/bin/env bash
# What a fleet sees of wex, by the programs that a fleet uses: promtool, the node exporter, the reference reader of
# OpenMetrics. Arguments: wex, wexstat, the directory of the example services.
set -u
here=$(cd "$(dirname "$0")" && pwd)
root=${here%/tests/fleet}
. "$here/tools.sh"
tools=$(fleet_tools "$root") || exit 1
work=$(mktemp -d "${TMPDIR:-/tmp}/wex-fleet.XXXXXX")
trap 'rm -rf "$work"' EXIT
failures=0
complain() { printf 'FAIL: %s\n' "$*"; failures=$((failures + 1)); }

mkdir "$work/out"
timeout 120 "$root/tools/sandbox" --leak-check --bind "$work/out" -- bash "$here/inside.sh" "$1" "$2" "$3" "$root/examples/fleet" "$work/out" ||
  complain "the run inside the sandbox"

# As it is written, for whoever scrapes it by himself.
PYTHONPATH=$tools/usr/lib/python3/dist-packages python3 - "$work/out/openmetrics" << 'PYTHON' || complain "the reference reader of OpenMetrics"
import sys
from prometheus_client.openmetrics.parser import text_string_to_metric_families
families = {family.name: family for family in text_string_to_metric_families(open(sys.argv[1]).read())}
samples = {sample.name + str(sorted(sample.labels.items())): sample.value for family in families.values() for sample in family.samples}
assert families["wex_restarts"].type == "counter" and families["wex_up"].type == "gauge"
assert families["wex_start_time_seconds"].unit == "seconds"
assert samples["wex_up[]"] == 1 and samples["wex_stuck[]"] == 0, samples
assert samples["wex_restarts_total[]"] >= 1, samples
assert samples["wex_registration_restarts_total[('domain', '0'), ('name', 'worker')]"] == 1, samples
assert samples["wex_registrations[('state', 'running')]"] == 1, samples
PYTHON

# As the collector has it.
"$tools/usr/bin/promtool" check metrics < "$work/out/wex.prom" || complain "promtool check metrics"
port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
"$tools/usr/bin/prometheus-node-exporter" --collector.disable-defaults --collector.textfile --web.listen-address="127.0.0.1:$port" \
  --collector.textfile.directory="$work/out" > "$work/exporter.log" 2>&1 & exporter=$!
served=''
for _ in $(seq 100); do
  served=$(python3 -c "import urllib.request; print(urllib.request.urlopen('http://127.0.0.1:$port/metrics', timeout=5).read().decode())" 2> /dev/null) && break
  sleep 0.1
done
kill "$exporter"
wait "$exporter" 2> /dev/null
for line in 'node_textfile_scrape_error 0' 'wex_up 1' '# TYPE wex_restarts_total counter' '# TYPE wex_registration_state gauge' \
  'wex_registration_restarts_total{domain="0",name="worker"} 1'; do
  grep -qxF "$line" <<< "$served" || complain "the node exporter does not serve: $line"
done
"$tools/usr/bin/promtool" check metrics <<< "$served" || complain "promtool check metrics, of what the node exporter serves"
[ $failures -eq 0 ] || tail -n 5 "$work/exporter.log"

# The alerts, and when they come.
"$tools/usr/bin/promtool" check rules "$root/examples/fleet/wex-alerts.yml" || complain "promtool check rules"
cp "$root/examples/fleet/wex-alerts.yml" "$here/alerts_test.yml" "$work"
(cd "$work" && "$tools/usr/bin/promtool" test rules alerts_test.yml) || complain "promtool test rules"

# Alerts and dashboard ask for nothing that wexstat does not tell.
python3 - "$root" << 'PYTHON' || complain "the dashboard"
import json, re, sys
root = sys.argv[1]
page = open(root + "/docs/wexstat.md").read().split("## OpenMetrics")[1]
offered = set()
for name, kind in re.findall(r"^\| `(wex_[a-z_]+)[`{].*?\| (counter|gauge) \|", page, re.M):
    offered.add(name + ("_total" if kind == "counter" else ""))
board = json.load(open(root + "/examples/fleet/wex-dashboard.json"))
assert len(board["panels"]) > 4 and len({panel["id"] for panel in board["panels"]}) == len(board["panels"])
asked = " ".join(target["expr"] for panel in board["panels"] for target in panel["targets"])
asked += " " + " ".join(re.findall(r"expr: (.*)", open(root + "/examples/fleet/wex-alerts.yml").read()))
unknown = set(re.findall(r"wex_[a-z_]+", asked)) - offered
assert not unknown and "wex_up" in asked, unknown
PYTHON
[ $failures -eq 0 ] && echo "all well"
exit $((failures > 0))
