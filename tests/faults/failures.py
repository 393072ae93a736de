#!/usr/bin/env python3
"""Every call that can fail, failing: the n-th of each kind, by each thread, in each scenario (docs/reliability.md).

Runs inside tools/sandbox; tests/faults/run starts it there.
"""
import sys

import runs
import tracing
from report import Arguments, Outcome


def injections(errors, points):
    """Every (who, expression) that a plain run has shown to exist, with these errors of each call."""
    for (who, call), times in sorted(points.items()):
        if call in tracing.CANNOT_FAIL or who == runs.MAIN:
            continue
        if call not in tracing.ERRORS:
            raise SystemExit("no row for the call %s: see tests/faults/tracing.py" % call)
        for error in errors.get(call, []):
            for number in range(1, min(times, runs.MOST) + 1):
                yield who, "inject=%s:error=%s:when=%d" % (call, error, number)


def main():
    arguments = Arguments(__doc__, options=[("--other-errors", "the errors of each call that are not tried else")])
    outcome = Outcome("other-errors" if arguments.other_errors else "failures", arguments)
    errors = tracing.OTHER_ERRORS if arguments.other_errors else tracing.ERRORS
    runs.try_all(outcome, lambda _scenario, points: injections(errors, points))
    return outcome.finish()


if __name__ == "__main__":
    sys.exit(main())
