#!/usr/bin/env python3
"""Puts results of the drivers into bench/reliability.json, where each owns its key, and their table into docs/reliability.md.

Usage: merge.py RESULT...: several results of one driver, each of a part of its places (--skip), are added up. Scenarios
that none of them has tried (--scenario) keep their figures.
       merge.py --check: whether page and figures agree, and nothing was lost
"""
import collections
import json
import os
import sys

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../..")
FIGURES = os.path.join(ROOT, "bench/reliability.json")
PAGE = os.path.join(ROOT, "docs/reliability.md")
BEHIND = "Lost means that the proof failed.\n"
BEFORE = "## Repeating it\n"
HEAD = ["scenario", "what happens", "kinds of calls", "tried", "of", "reached", "at once", "later", "daemon ended", "program ended",
        "lost"]
MUST_BE_NONE = {"lost", "none", "two", "ran twice", "zombies", "down for good"}


def add(total, part):
    """A driver's figures; the places that a scenario has differ a little from run to run. Time is shared out by places."""
    tried = sum(row["tried"] for row in part["scenarios"].values())
    for name, row in part["scenarios"].items():
        if not row["tried"]:
            continue
        sums = total.setdefault("scenarios", {}).setdefault(name, {"what": row["what"], "reactions": {}})
        for column in ("calls", "planned"):
            sums[column] = max(sums.get(column, 0), row[column])
        for column in ("tried", "injected", "lost"):
            sums[column] = sums.get(column, 0) + row[column]
        sums["seconds"] = sums.get("seconds", 0) + row.get("seconds", part["seconds"] * row["tried"] / tried)
        sums["planned"] = max(sums["planned"], sums["tried"])
        sums["reactions"] = dict(collections.Counter(sums["reactions"]) + collections.Counter(row["reactions"]))


def command(key):
    return "failures --other-errors" if key == "other-errors" else key


def keep_others(new, old):
    """Scenarios that were not tried this time."""
    rows = dict(old["scenarios"])
    tried = max(sum(row["tried"] for row in rows.values()), 1)
    for row in rows.values():
        row.setdefault("seconds", old["seconds"] * row["tried"] / tried)
    rows.update(new["scenarios"])
    new["scenarios"] = rows


def table(key, figures):
    rows = figures["scenarios"].values()
    sums = {column: sum(row[column] for row in rows) for column in ("tried", "planned", "injected", "lost")}
    yield "`tests/faults/run %s`: %d of %d places tried in %d minutes, %d reached, %d lost.\n" % (
        command(key), sums["tried"], sums["planned"], round(figures["seconds"] / 60), sums["injected"], sums["lost"])
    yield "| %s |" % " | ".join(HEAD)
    yield "|---" * len(HEAD) + "|"
    for name, row in figures["scenarios"].items():
        ends = [row["reactions"].get(end, 0) for end in ("at once", "later", "daemon ended", "program ended")]
        words = ["`%s`" % name, row["what"], row["calls"] or "-", row["tried"], row["planned"], row["injected"], *ends, row["lost"]]
        yield "| %s |" % " | ".join(str(word) for word in words)
    yield ""


def rows(key, figures):
    """The table of a driver that has but one (sheet.py)."""
    yield "`tests/faults/run %s`: %s %d s in all.\n" % (key, figures["caption"], figures["seconds"])
    yield "| %s |" % " | ".join(figures["columns"])
    yield "|---" * len(figures["columns"]) + "|"
    for row in figures["rows"]:
        yield "| %s |" % " | ".join(str(value) for value in row)
    yield ""


def with_tables(page, figures):
    begin, end = page.index(BEHIND) + len(BEHIND), page.index(BEFORE)
    lines = [line for key in sorted(figures) if "scenarios" in figures[key] for line in table(key, figures[key])]
    lines += [line for key in sorted(figures) if "rows" in figures[key] for line in rows(key, figures[key])]
    return page[:begin] + "\n" + "\n".join(lines) + "\n" + page[end:]


def losses(figures):
    """What must be 0. Without the sweep, services stay down to show what it is good for."""
    for key, part in figures.items():
        for name, row in part.get("scenarios", {}).items():
            if row["lost"] or not row["injected"]:
                yield "%s: %s" % (key, name)
        for row in part.get("rows", []):
            facts = dict(zip(part["columns"], row))
            allowed = {"down for good"} if facts.get("without") == "sweep" else set()
            if any(facts.get(column) for column in MUST_BE_NONE - allowed):
                yield "%s: %s" % (key, row[0])


def check():
    with open(FIGURES) as file:
        figures = json.load(file)
    with open(PAGE) as file:
        page = file.read()
    missing = [key for key in ("failures", "kills", "other-errors", "overload", "listed", "soak") if key not in figures]
    if missing:
        return "bench/reliability.json has no figures of " + ", ".join(missing)
    lost = list(losses(figures))
    if lost:
        return "lost, or nothing was tried: " + ", ".join(lost)
    return "" if with_tables(page, figures) == page else "docs/reliability.md and bench/reliability.json differ"


def main():
    if sys.argv[1:] == ["--check"]:
        sys.exit(check() or 0)
    figures, new = {}, {}
    if os.path.exists(FIGURES):
        with open(FIGURES) as file:
            figures = json.load(file)
    for result in sys.argv[1:]:
        with open(result) as file:
            for key, part in json.load(file).items():
                if "rows" in part and key in new:
                    new[key]["rows"] += part["rows"]
                    new[key]["seconds"] += part["seconds"]
                elif "rows" in part:
                    new[key] = part
                else:
                    add(new.setdefault(key, {}), part)
    for key, part in new.items():
        if "scenarios" in part:
            if key in figures:
                keep_others(part, figures[key])
            for row in part["scenarios"].values():
                row["seconds"] = round(row["seconds"])
            part["seconds"] = sum(row["seconds"] for row in part["scenarios"].values())
    figures.update(new)
    with open(FIGURES, "w") as file:
        json.dump(figures, file, indent=1)
        file.write("\n")
    with open(PAGE) as file:
        page = file.read()
    with open(PAGE, "w") as file:
        file.write(with_tables(page, figures))


if __name__ == "__main__":
    main()
