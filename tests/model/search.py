#!/usr/bin/env python3
"""Searches the model qx-proc-wex/wex_core.pml with spin: all orders of what can happen. Then breaks it in one place at a
time, to see that each break is found.

Usage: tests/model/search.py [--write]    --write: the figures go to bench/reliability.json and docs/reliability.md
"""
import concurrent.futures
import json
import os
import re
import subprocess
import sys
import tempfile
import time

ROOT = os.path.realpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "../.."))
MODEL = os.path.join(ROOT, "qx-proc-wex/wex_core.pml")
FIGURES = os.path.join(ROOT, "bench/reliability.json")
PAGE = os.path.join(ROOT, "docs/reliability.md")
MARKS = ("<!-- model -->\n", "<!-- end of model -->\n")
MEMORY_MIB = 1000

# What can happen beside a registration, deaths, restarts and parking.
SEARCHES = [
    ("two deaths, a cancel, a take-down", ["CANCEL", "TAKE_DOWN"]),
    ("a death whose event may be lost, a cancel", ["DEATHS=1", "LOSS", "CANCEL"]),
    ("a death after which a file may stay locked, a cancel", ["DEATHS=1", "LOCKED_FILE", "CANCEL"]),
    ("a death, the same program or another one is started by hand", ["DEATHS=1", "BY_HAND"]),
    ("a death, a cancel; what is started again registers itself, too", ["DEATHS=1", "AGAIN", "CANCEL"]),
]
BREAKS = [
    ("the alarm does not lock the registry", ["CANCEL", "ALARM_UNLOCKED"]),
    ("a postponed restart is handed back with its chain locked", ["DEATHS=1", "LOCKED_FILE", "DELAY_LOCK_KEPT"]),
    ("a newcomer is not looked at again once its exit passes the filter", ["CANCEL", "NEWCOMER_UNCHECKED"]),
    ("nor is what was started again", ["CANCEL", "RESTART_UNCHECKED"]),
    ("there is no sweep", ["DEATHS=1", "LOSS", "NO_SWEEP"]),
    ("an exit does not ask whether the record is parked", ["LOSS", "PARKED_UNCHECKED"]),
    ("nobody asks whether the domain is closing", ["CANCEL", "TAKE_DOWN", "DOMAIN_UNCHECKED"]),
    ("a late registration does not ask whether its process was replaced", ["AGAIN", "CANCEL", "REPLACED_UNCHECKED"]),
]


def search(row):
    """States, transitions and the first error of one search."""
    what, switches = row
    begin = time.monotonic()
    speed = "-O1" if row is SEARCHES[0] else "-O0"   # of the others the compiler would take longer than the search
    with tempfile.TemporaryDirectory(prefix="wex-model.") as work:
        for command in (["spin", *["-D" + switch for switch in switches], "-a", MODEL],
                        ["gcc", speed, "-w", "-DSAFETY", "-DCOLLAPSE", "-DMEMLIM=%d" % MEMORY_MIB, "-o", "pan", "pan.c"]):
            answer = subprocess.run(command, cwd=work, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
            if answer.returncode != 0:
                return what, 0, 0, "%s: %s" % (command[0], answer.stdout.decode()), 0
        said = subprocess.run(["./pan", "-m20000"], cwd=work, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False).stdout.decode()
    states, transitions = (int((re.search(r"(\d+) %s" % name, said) or [0, 0])[1]) for name in ("states, stored", "transitions "))
    error = (re.search(r"pan:1: (.*)", said) or ["", ""])[1]
    whole = re.search(r"errors: %d\b" % bool(error), said) and "Search not completed" not in said
    if not error and not whole:
        error = "the search was not completed: " + said[-300:]
    return what, states, transitions, error, time.monotonic() - begin


def table(searches, broken):
    yield "| what happens beside a registration, restarts and parking | states | transitions | violations |"
    yield "|---|---|---|---|"
    for what, states, transitions, error, _ in searches:
        yield "| %s | %d | %d | %d |" % (what, states, transitions, bool(error))
    yield ""
    yield "%d breaks of the model, %d of them found:" % (len(broken), sum(bool(row[3]) for row in broken))
    yield ""
    for what, *_ in broken:
        yield "- %s" % what


def write(searches, broken):
    with open(FIGURES) as file:
        figures = json.load(file)
    figures["model"] = {"searches": {what: {"states": states, "transitions": transitions, "violations": int(bool(error))}
                                     for what, states, transitions, error, _ in searches},
                        "breaks": {what: {"found": int(bool(error))} for what, _, _, error, _ in broken}}
    with open(FIGURES, "w") as file:
        json.dump(figures, file, indent=1)
        file.write("\n")
    with open(PAGE) as file:
        page = file.read()
    begin, end = page.index(MARKS[0]) + len(MARKS[0]), page.index(MARKS[1])
    with open(PAGE, "w") as file:
        file.write(page[:begin] + "\n".join(table(searches, broken)) + "\n" + page[end:])


def main():
    problems = []
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        rows = list(pool.map(search, SEARCHES + BREAKS))
    searches, broken = rows[:len(SEARCHES)], rows[len(SEARCHES):]
    for what, states, transitions, error, took in searches:
        print("%5.1f s  %9d states, %9d transitions  %s" % (took, states, transitions, what))
        problems += ["%s: %s" % (what, error)] if error else []
        problems += ["%s: hardly anything was searched" % what] if states < 10000 else []
    for what, states, _, error, took in broken:
        print("%5.1f s  %9d states, broken: %s: %s" % (took, states, what, error[:60] or "not found"))
        if not re.match(r"assertion violated|invalid end state", error):
            problems.append("broken, and no violation: %s %s" % (what, error))
    if "--write" in sys.argv[1:] and not problems:
        write(searches, broken)
    for problem in problems:
        print("FAILED " + problem)
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    main()
