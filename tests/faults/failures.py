#!/usr/bin/env python3
"""Every call that can fail, failing: the n-th of each kind, by each thread, in each scenario (docs/reliability.md).

Runs inside tools/sandbox; tests/faults/run starts it there.
"""
import sys

import runs
import tracing
from report import Arguments, Outcome
from scenarios import TABLE


def injections(points):
    """Every (who, expression) that a plain run has shown to exist."""
    for (who, call), times in sorted(points.items()):
        if call in tracing.CANNOT_FAIL or who == runs.MAIN:
            continue
        if call not in tracing.ERRORS:
            raise SystemExit("no row for the call %s: see tests/faults/tracing.py" % call)
        for error in tracing.ERRORS[call]:
            for number in range(1, min(times, runs.MOST) + 1):
                yield who, "inject=%s:error=%s:when=%d" % (call, error, number)


def main():
    arguments = Arguments(__doc__, [scenario.name for scenario in TABLE])
    outcome = Outcome("failures", arguments)
    work = []
    for scenario in TABLE:
        if scenario.name in arguments.scenarios:
            points = runs.plain_run(arguments.tools, scenario)
            rows = list(injections(points))
            outcome.plan(scenario, len({call for _, call in points}), len(rows))
            work.append((scenario, rows))
    outcome.begin_trying()
    runs.carry_out(outcome, arguments, work)
    return outcome.finish()


if __name__ == "__main__":
    sys.exit(main())
