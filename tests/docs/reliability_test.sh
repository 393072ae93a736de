#!/usr/bin/env bash
# The figures of docs/reliability.md are those of bench/reliability.json, nothing of what was tried was lost, the cases
# they are of are there, and a page with another figure is noticed.
set -u
. "$(dirname "$0")/lib.sh"
"$root/tests/faults/figures.py" --check || complain "docs/reliability.md: see above"
"$root/tests/faults/merge.py" --check || complain "docs/reliability.md: see above"

cases_of "$root/tests" > "$work/cases"
sed -n '/<!-- cases -->/,/<!-- end of cases -->/s/.*| `\(.*\)` |$/\1/p' "$root/docs/reliability.md" > "$work/named"
[ -s "$work/named" ] || complain "no case is named"
while IFS= read -r name; do
  name=${name#*/}
  grep -qx "${name%%/*}" "$work/cases" || complain "docs/reliability.md: there is no case $name"
done < <(sed '/^[^/]*$/!s/\/[^/]*$//' "$work/named")

sed -n '/<!-- device -->/,/<!-- end of device -->/s/.*| `\(.*\)` |$/\1/p' "$root/docs/reliability.md" > "$work/devices"
[ -s "$work/devices" ] || complain "no case of the device is named"
while IFS= read -r name; do
  [ -f "$root/tests/device/cases/$name.sh" ] || [ -f "$root/tests/device/slow/$name.sh" ] || complain "docs/reliability.md: there is no case $name of the device"
done < "$work/devices"

mkdir -p "$work/tests/faults" "$work/bench" "$work/docs"
cp "$root/tests/faults/figures.py" "$root/tests/faults/merge.py" "$work/tests/faults/"
cp "$root/bench/reliability.json" "$work/bench/"
for table in cases device; do
  sed "/<!-- $table -->/,/<!-- end of $table -->/s/| 0 |/| 1 |/" "$root/docs/reliability.md" > "$work/docs/reliability.md"
  "$work/tests/faults/figures.py" --check > /dev/null 2>&1 && complain "a changed figure is not noticed in the table of $table"
done
# The drivers' own tables: one that lost something, and one whose page says something else.
for driver in failures soak; do
  sed "/^.tests.faults.run $driver.:/,/^## /s/| 0 |$/| 1 |/" "$root/docs/reliability.md" > "$work/docs/reliability.md"
  "$work/tests/faults/merge.py" --check > /dev/null 2>&1 &&
    complain "a changed figure is not noticed in the table of $driver"
done
cp "$root/docs/reliability.md" "$work/docs/"
sed -i 's/"lost": 0/"lost": 1/' "$work/bench/reliability.json"
"$work/tests/faults/merge.py" --check 2>&1 | grep -q '^lost' || complain "a loss in the figures is not noticed"
finish
