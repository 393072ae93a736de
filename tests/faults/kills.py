#!/usr/bin/env python3
"""The daemon killed before each of its writes, a child before its program, a command before each of its writes, and a
program before each call of its registration; then the daemon at random moments of a busy life (docs/reliability.md). Each time it is started again.

Runs inside tools/sandbox; tests/faults/run starts it there.
"""
import random
import sys
import time

import device
import runs
from report import Arguments, Outcome
from scenarios import Client, Scenario, StartWithTheDead

# What changes a file, the table of others, or who lives.
WRITES = """write pwrite64 unlink unlinkat rename renameat link linkat ftruncate mkdir mkdirat rmdir fsync chmod fchmod
    sendto fork vfork clone execve kill""".split()


class Busy(Scenario):
    name, what = "busy", "programs die and register all the time, the daemon is killed at random moments"
    count = 8
    together = 10                            # kills until all must be there

    def __init__(self, tools, seed):
        super().__init__(tools)
        self.random = random.Random(seed)
        self.daemon = device.Daemon(tools)

    def begin(self):
        device.clean()
        self.clock = device.Clock()
        for number in range(self.count):
            self.service("s%d" % number)
        self.daemon.start()
        self.daemon.wait_ready()
        self.prepare(self.daemon)

    def disturb(self):
        """Some programs are killed. One that has not written its file yet is known to the daemon alone that started it."""
        for service in self.random.sample(self.services, self.random.randrange(4)):
            service.pid = (service.lives() or [0])[0]
            if service.wrote_file():
                device.send(service.pid, device.signal.SIGKILL)

    def round(self):
        self.disturb()
        time.sleep(self.random.random() * 0.06)
        self.daemon.kill()
        self.disturb()
        self.daemon.start()
        if self.random.randrange(2):         # else it is killed while it starts
            self.daemon.wait_ready()

    def whole(self):
        """What was lost; a start that failed by itself counts as well."""
        if not self.daemon.wait_ready(60):
            return "the daemon does not start: %s" % self.daemon.describe()
        for _ in range(runs.REPAIR_S):
            if device.eventually(self.settled, 3):
                return ""
            self.hasten(self.daemon, self.clock)
        return "; ".join("%s: %s" % (service.starts, service.lives()) for service in self.services if not service.is_up())

    def end(self):
        self.daemon.kill()
        device.clean(self.services)


def kills(scenario, points):
    """A tracer that follows children sees the daemon's threads as well, so a child is killed where they do not call: the
    daemon and its child, killed both before the child is a program, do lose it."""
    daemon = {call for who, call in points if who != runs.CHILD} | {"write", "unlinkat"}   # of what follows a dead child
    for (who, call), times in sorted(points.items()):
        if who == runs.CHILD:
            wanted = call not in daemon
        elif who in (runs.ALL, runs.MAIN):
            wanted = call in WRITES and who == (runs.MAIN if scenario is StartWithTheDead else runs.ALL)
        else:
            wanted = call in WRITES or scenario is Client
        most = 1 if call == "rt_sigaction" else runs.MOST    # made for each signal, nothing changes in between
        for number in range(1, min(times, most) + 1 if wanted else 1):
            yield who, "inject=%s:signal=KILL:when=%d" % (call, number)


def kill_at_random(outcome):
    arguments = outcome.arguments
    times = arguments.times or (30 if arguments.budget else 2000)
    outcome.plan(Busy, 0, times)
    busy = Busy(arguments.tools, arguments.seed)
    busy.begin()
    try:
        for number in range(1, times + 1):
            busy.round()
            problem = busy.whole() if number % busy.together == 0 else ""
            outcome.add(Busy, "kill %d" % number, "daemon ended", 1, problem)
            if problem:
                return
    finally:
        busy.end()


def main():
    outcome = Outcome("kills", Arguments(__doc__, [Busy.name]))
    if Busy.name in outcome.arguments.scenarios:
        kill_at_random(outcome)
    runs.try_all(outcome, kills)
    return outcome.finish()


if __name__ == "__main__":
    sys.exit(main())
