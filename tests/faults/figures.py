#!/usr/bin/env python3
"""Figures of cases and of fuzzing in bench/reliability.json, and their tables in docs/reliability.md.

Usage: figures.py LOG...     what cases have printed (FIGURES lines, tests/harness/figures.h and tests/device/lib.sh) in logs of
                             test runs and on consoles of the emulated device (build/device/run/*/console*)
       figures.py --fuzz     rows of tests/fuzz/run from standard input
       figures.py --check    whether page and figures agree, and nothing was lost
"""
import json
import os
import sys

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../..")
FIGURES = os.path.join(ROOT, "bench/reliability.json")
PAGE = os.path.join(ROOT, "docs/reliability.md")
MARKS = {key: ("<!-- %s -->\n" % key, "<!-- end of %s -->\n" % key) for key in ("cases", "device", "fuzz")}
MARK = "FIGURES "


def read_cases(paths):
    """The table that a row is for, its key there, and the row."""
    for path in paths:
        with open(path, errors="replace") as log:
            for line in log:
                if MARK + "{" in line:
                    row = json.loads(line[line.index(MARK) + len(MARK):])
                    if "device" in row:
                        yield "device", "%s: %s" % (row["device"], row["what"]), row
                    else:
                        yield "cases", row.pop("case"), row


def read_fuzz(lines):
    for line in lines:
        target, *numbers = line.split()
        yield target, dict(zip(("seconds", "executions", "branches", "corpus"), map(int, numbers)))


def case_rows(figures):
    yield "| what happens | beside | tried | lost | result | repeat: `./dev test --only` |"
    yield "|---|---|---|---|---|---|"
    for name, row in sorted(figures.items()):
        yield "| %s | %s | %d | %d | %s | `%s` |" % (row["what"], row["load"], row["tried"], row["lost"], row["result"], name)


def device_rows(figures):
    yield "| what happens | beside | tried | lost | result | repeat: `tools/device` |"
    yield "|---|---|---|---|---|---|"
    for _, row in sorted(figures.items()):
        yield "| %s | %s | %d | %d | %s | `%s` |" % (row["what"], row["load"], row["tried"], row["lost"], row["result"], row["device"])


def fuzz_rows(figures):
    yield "| target | seconds | executions | branches | inputs that reach them | repeat |"
    yield "|---|---|---|---|---|---|"
    for name, row in sorted(figures.items()):
        yield "| `%s` | %d | %d | %d | %d | `./dev fuzz %d %s` |" % (
            name, row["seconds"], row["executions"], row["branches"], row["corpus"], row["seconds"], name)


def with_tables(page, figures):
    for key, rows in (("cases", case_rows), ("device", device_rows), ("fuzz", fuzz_rows)):
        first, last = MARKS[key]
        begin, end = page.index(first) + len(first), page.index(last)
        page = page[:begin] + "\n".join(rows(figures.get(key, {}))) + "\n" + page[end:]
    return page


def check(page, figures):
    lost = [name for key in ("cases", "device") for name, row in figures.get(key, {}).items() if row["lost"]]
    if lost:
        return "lost: " + ", ".join(lost)
    if not all(figures.get(key) for key in MARKS):
        return "bench/reliability.json has no figures of one of " + ", ".join(MARKS)
    return "" if with_tables(page, figures) == page else "docs/reliability.md and bench/reliability.json differ"


def main():
    with open(FIGURES) as file:
        figures = json.load(file)
    with open(PAGE) as file:
        page = file.read()
    if sys.argv[1:] == ["--check"]:
        sys.exit(check(page, figures) or 0)
    if sys.argv[1:] == ["--fuzz"]:
        figures.setdefault("fuzz", {}).update(read_fuzz(sys.stdin))
    else:
        for key, name, row in read_cases(sys.argv[1:]):
            figures.setdefault(key, {})[name] = row
    with open(FIGURES, "w") as file:
        json.dump(figures, file, indent=1)
        file.write("\n")
    with open(PAGE, "w") as file:
        file.write(with_tables(page, figures))


if __name__ == "__main__":
    main()
