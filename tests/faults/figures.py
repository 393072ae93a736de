#!/usr/bin/env python3
"""Figures of cases and of fuzzing in bench/reliability.json, and their tables in docs/reliability.md.

Usage: figures.py LOG...     what the cases have printed (FIGURES lines, tests/harness/figures.h) in logs of test runs
       figures.py --fuzz     rows of tests/fuzz/run from standard input
       figures.py --check    whether page and figures agree, and nothing was lost
"""
import json
import os
import sys

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../..")
FIGURES = os.path.join(ROOT, "bench/reliability.json")
PAGE = os.path.join(ROOT, "docs/reliability.md")
MARKS = {"cases": ("<!-- cases -->\n", "<!-- end of cases -->\n"), "fuzz": ("<!-- fuzz -->\n", "<!-- end of fuzz -->\n")}
MARK = "FIGURES "


def read_cases(paths):
    for path in paths:
        with open(path, errors="replace") as log:
            for line in log:
                if MARK + "{" in line:
                    row = json.loads(line[line.index(MARK) + len(MARK):])
                    yield row.pop("case"), row


def read_fuzz(lines):
    for line in lines:
        target, *numbers = line.split()
        yield target, dict(zip(("seconds", "executions", "branches", "corpus"), map(int, numbers)))


def case_rows(figures):
    yield "| what happens | beside | tried | lost | result | repeat: `./dev test --only` |"
    yield "|---|---|---|---|---|---|"
    for name, row in sorted(figures.items()):
        yield "| %s | %s | %d | %d | %s | `%s` |" % (row["what"], row["load"], row["tried"], row["lost"], row["result"], name)


def fuzz_rows(figures):
    yield "| target | seconds | executions | branches | inputs that reach them | repeat |"
    yield "|---|---|---|---|---|---|"
    for name, row in sorted(figures.items()):
        yield "| `%s` | %d | %d | %d | %d | `./dev fuzz %d %s` |" % (
            name, row["seconds"], row["executions"], row["branches"], row["corpus"], row["seconds"], name)


def with_tables(page, figures):
    for key, rows in (("cases", case_rows), ("fuzz", fuzz_rows)):
        first, last = MARKS[key]
        begin, end = page.index(first) + len(first), page.index(last)
        page = page[:begin] + "\n".join(rows(figures.get(key, {}))) + "\n" + page[end:]
    return page


def check(page, figures):
    lost = [name for name, row in figures.get("cases", {}).items() if row["lost"]]
    if lost:
        return "lost: " + ", ".join(lost)
    if not figures.get("cases") or not figures.get("fuzz"):
        return "bench/reliability.json has no figures of cases, or of fuzzing"
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
        figures.setdefault("cases", {}).update(read_cases(sys.argv[1:]))
    with open(FIGURES, "w") as file:
        json.dump(figures, file, indent=1)
        file.write("\n")
    with open(PAGE, "w") as file:
        file.write(with_tables(page, figures))


if __name__ == "__main__":
    main()
