#!/usr/bin/env python3
"""The kernel does not tell: exits that no event reports, because too many processes come and go, the queue of events is
full, or the daemon is late. 100 services die meanwhile. Then the same without each of the measures against it.

Runs inside tools/sandbox; tests/faults/run starts it there.
"""
import random
import signal
import time

import device
import tracing
from crew import counter
from sheet import Sheet
from trial import Trial

SERVICES = 100
MONITOR = "wex_process_net"
COLUMNS = ["while they die", "without", "other processes per second", "events dropped", "exits found by looking",
           "all back after", "down for good", "ran twice", "lost"]


class Condition:
    name = ""
    overflows = False                        # on purpose: events must have been dropped
    listed = False                           # the list of third-part programs names one, so executions are reported

    def __init__(self, tools, short, without):
        self.tools, self.short, self.without = tools, short, without
        self.storm = 0

    def blow(self, workers, what, count=0):
        words = [self.tools.storm, str(workers), what]
        self.storm = device.spawn(words + ([str(count)] if count else []))

    def calm(self):
        if self.storm:
            device.end(self.storm)
            self.storm = 0

    def happen(self, crew, daemon):
        """All services die."""

    def end(self, daemon):
        self.calm()

    def took_place(self):
        """Asked when it is over."""
        return True


class ForkStorm(Condition):
    name = "processes are forked as fast as two processors can"

    def happen(self, crew, daemon):
        self.blow(4, "fork")
        crew.kill_all(over=0.5 if self.short else 2.0)


class Overflow(Condition):
    name = "the queue is filled while the daemon is stopped"
    overflows = listed = True

    def happen(self, crew, daemon):
        daemon.stop()
        self.blow(2, "exec", 350 if "buffer" in self.without else 4000)
        device.eventually(lambda: self.storm in device.ended, 120)
        self.storm = 0
        crew.kill_all()
        device.send(daemon.pid, signal.SIGCONT)


class Stopped(Condition):
    name = "the daemon is stopped for 10 s, and others fork"

    def happen(self, crew, daemon):
        daemon.stop()
        self.blow(1, "fork")
        crew.kill_all(over=1.5 if self.short else 10.0)
        self.calm()
        device.send(daemon.pid, signal.SIGCONT)


class LateMonitor(Condition):
    name = "each reading of an event takes 5 ms more, and others fork"

    def happen(self, crew, daemon):
        tasks = {name: task for task, name in daemon.tasks().items()}
        self.strace = tracing.Strace(daemon.pid, ["trace=recvfrom", "inject=recvfrom:delay_enter=5000"], thread=tasks[MONITOR])
        self.blow(1, "fork")
        crew.kill_all(over=0.5 if self.short else 2.0)

    def end(self, daemon):
        self.calm()
        self.strace.leave()

    def took_place(self):
        return "(DELAYED)" in device.read(tracing.TRACE)


class Row(Trial):
    def __init__(self, sheet, condition, without):
        super().__init__(sheet, without)
        self.condition = condition(self.tools, self.short, without)
        self.without = without
        self.took, self.forks, self.dropped, self.found = None, 0, 0, 0
        self.lost = []

    def sweeps(self):
        return "sweep" not in self.without

    def patience(self):
        if self.sweeps():
            return 180
        return 4 if self.short else 20

    def suffer(self):
        """Seconds until all are back, or None; and how many processes were started a second meanwhile."""
        forks, begin = total_forks(), time.monotonic()
        self.condition.happen(self.crew, self.daemon)
        over = time.monotonic()
        back = self.crew.all_up(self.patience())
        self.took = time.monotonic() - over if back else None
        self.forks = (total_forks() - forks) / (time.monotonic() - begin)
        self.dropped = self.daemon.dropped_events()
        self.condition.end(self.daemon)

    def judge(self):
        self.down = self.crew.down()
        self.need(self.condition.took_place(), "no reading was delayed, nothing was tried")
        overflown = self.condition.overflows and not self.need(self.dropped, "no event was dropped, nothing was tried")
        if self.sweeps():
            self.need(not self.down, "down for good: %s" % self.down)
        elif self.condition.overflows and not overflown:
            self.need(self.down, "without the sweep all came back, so this cannot tell a service that stays down")
        time.sleep(0.3)                      # the status table is written a moment later
        self.found = counter(self.tools, "lost_exits")

    def next_daemon(self):
        """Whatever this one has missed is found by the next."""
        self.daemon.kill()
        self.crew.kill_all(names=random.sample(sorted(self.crew.words), SERVICES // 4))
        self.daemon = device.Daemon(self.tools)
        self.start_daemon()
        self.crew.all_up(60)
        self.lost = self.crew.down()
        self.need(not self.lost, "lost: %s" % self.lost)

    def live(self):
        if self.condition.listed:
            device.write("/etc/wex/proc/nobody", device.BASE + "/nobody WEX_RESTART")
        for number in range(SERVICES):
            self.crew.add("s%d" % number)
        if not self.start_daemon():
            return
        self.crew.start()
        self.need(self.crew.all_ready(60), "not all registered: %s" % self.crew.down())
        self.suffer()
        self.judge()
        if not self.short or self.down:
            self.next_daemon()

    def figures(self):
        took = "%.1f s" % self.took if self.took is not None else "never"
        return [self.condition.name, self.without or "-", round(self.forks), self.dropped, self.found, took, len(self.down),
                len(self.twice), len(self.lost)]


def total_forks():
    for line in device.read("/proc/stat").splitlines():
        if line.startswith("processes "):
            return int(line.split()[1])
    return 0


def plan(short):
    if short:
        return [(ForkStorm, ""), (Stopped, ""), (LateMonitor, ""), (Overflow, "buffer"), (Overflow, "buffer,sweep")]
    return [(condition, without) for condition in (ForkStorm, Overflow, Stopped, LateMonitor)
            for without in ("", "filter", "buffer", "sweep")]


def main():
    sheet = Sheet(__doc__, "overload", "%d services die while events of processes get lost." % SERVICES, COLUMNS)
    random.seed(sheet.options.seed)
    for condition, without in plan(sheet.options.short):
        if sheet.wants(condition.name + " without " + without):
            row = Row(sheet, condition, without)
            row.run()
            sheet.add(row.figures(), row.problems)
    sheet.finish()


if __name__ == "__main__":
    main()
