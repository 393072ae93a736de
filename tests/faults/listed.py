#!/usr/bin/env python3
"""Programs of the third-part list, which know nothing of wex: killed twice in a row, killed while they are looked for,
detaching at each moment, executed while events are lost, and while the daemon is killed. None may stay down or run twice.

Runs inside tools/sandbox; tests/faults/run starts it there.
"""
import os
import random
import signal
import time

import device
import tracing
from sheet import Sheet
from trial import Trial

PATIENCE_S = 60
COLUMNS = ["what happens to them", "programs", "deaths", "all back after, at the most", "down for good", "ran twice"]
SEARCH_S = 11                                # two looks for a program, one after the other; the registry is locked meanwhile
RESTARTS = 4                                 # the fifth within 120 s parks a program


class Row(Trial):
    name = ""
    without = ""

    def __init__(self, sheet):
        super().__init__(sheet, self.without)
        self.deaths, self.longest = 0, 0.0

    # ---- What a row does ----

    def programs(self):
        """Listed before the daemon starts."""
        self.plain(4 if self.short else 12)

    def act(self):
        """What is done to them."""

    # ---- What rows are made of ----

    def plain(self, count):
        for number in range(count):
            self.crew.add_listed("p%d_%d" % (number, os.getpid()))   # they are looked for by name on the whole machine

    def kill(self, name):
        self.need(self.crew.kill(name), "%s does not live" % name)
        self.deaths += 1

    def back(self, seconds=PATIENCE_S):
        """All live, and are supervised."""
        begin = time.monotonic()
        done = self.need(self.crew.all_supervised(seconds), "down: %s, not supervised: %s" % (
            self.crew.down(), self.crew.unsupervised()))
        self.longest = max(self.longest, time.monotonic() - begin)
        return done

    def kill_each(self):
        self.crew.look()
        for name in self.crew.words:
            self.kill(name)
        return self.back()

    def live(self):
        self.programs()
        self.start_daemon()
        self.crew.start()
        if self.back():
            self.longest = 0.0
            self.act()
        self.down = self.crew.down()

    def figures(self):
        return [self.name, len(self.crew.words), self.deaths, "%.1f s" % self.longest, len(self.down), len(self.twice)]


class TwiceInARow(Row):
    """Mostly before it has been found, so that the next look for it takes its 5.5 s."""
    name = "killed again as soon as they have begun to live"

    def programs(self):
        self.plain(1 if self.short else 12)

    def act(self):
        self.crew.look()
        for name in self.crew.words:
            self.kill(name)
            if self.need(self.crew.all_up(PATIENCE_S, [name]), "%s does not come back" % name):
                time.sleep(random.random() * 0.003)
                self.kill(name)
        self.back(PATIENCE_S + SEARCH_S * len(self.crew.words))
        self.kill_each()


class WhileLookedFor(Row):
    """Of a command line of two words the first one alone is looked for, for 5.5 s; the registry is locked meanwhile."""
    name = "killed while they are looked for"
    moments = (0.02, 0.5, 3.0, 5.4)

    def programs(self):
        for number in range(len(self.moments)):
            self.crew.add_listed("w%d_%d" % (number, os.getpid()), "-d")

    def act(self):
        for name, moment in zip(sorted(self.crew.words), self.moments):
            self.crew.look()
            self.kill(name)
            if self.need(self.crew.all_up(PATIENCE_S, [name]), "%s does not come back" % name):
                time.sleep(moment)
                self.kill(name)
            self.back()


class Detaching(Row):
    name = "detaching, at each moment before and after a look"

    def programs(self):
        times = (0, 30) if self.short else (0, 1, 5, 20, 100, 300)
        for before in times:
            for after in times:
                self.crew.add_listed("detach_%d_%d_%d" % (before, after, os.getpid()))

    def act(self):
        for _ in range(1 if self.short else RESTARTS - 1):
            self.kill_each()


class DetachingInAStorm(Detaching):
    """The monitor reads a thousand executions a second; what it reads then was executed some time before."""
    name = "detaching, while others are executed as fast as two processors can"

    def live(self):
        self.programs()
        self.start_daemon()
        storm = device.spawn([self.tools.storm, "2", "exec"])
        self.crew.start()
        if self.back():
            self.longest = 0.0
            self.act()
        device.end(storm)
        self.down = self.crew.down()


class DetachingKilled(Detaching):
    name = "detaching, and killed on the way"

    def act(self):
        for name in sorted(self.crew.words):
            self.crew.look()
            self.kill(name)
            before, after = (int(word) for word in name.split("_")[1:3])
            time.sleep(random.random() * (before + after + 10) / 1000)
            for pid in processes_of(self.crew.words[name][0]):
                device.send(pid, signal.SIGKILL)
                self.deaths += 1
        time.sleep(0.05)
        self.forgive()
        self.back()
        self.forgive()
        self.kill_each()

    def forgive(self):
        """Who was killed before it forked has not begun a life that could be counted, who was killed behind that has."""
        device.eventually(lambda: all(len(processes_of(words[0])) == 1 for words in self.crew.words.values()), PATIENCE_S)
        self.crew.look()
        for name in self.crew.words:
            self.crew.due[name] = len(self.crew.lives[name])


class LateMonitor(Detaching):
    """What the monitor reads was executed, or has ended, some time before."""
    name = "detaching, and killed again, while each reading of an event takes 5 ms more"

    def act(self):
        tasks = {name: task for task, name in self.daemon.tasks().items()}
        strace = tracing.Strace(self.daemon.pid, ["trace=recvfrom", "inject=recvfrom:delay_enter=5000"],
                                thread=tasks["wex_process_net"])
        storm = device.spawn([self.tools.storm, "1", "fork"])
        self.kill_each()
        for name in sorted(self.crew.words)[:1 if self.short else 12]:
            self.crew.look()
            self.kill(name)
            if self.need(self.crew.all_up(PATIENCE_S, [name]), "%s does not come back" % name):
                self.kill(name)
        self.back()
        device.end(storm)
        strace.leave()
        self.need("(DELAYED)" in device.read(tracing.TRACE), "no reading was delayed, nothing was tried")


class EventsLost(Row):
    name = "executed, killed, or both, while events are lost"
    without = "buffer"

    def act(self):
        names = sorted(self.crew.words)
        third = len(names) // 3 or 1
        fresh = ["late%d_%d" % (number, os.getpid()) for number in range(third)]
        for name in fresh:
            self.crew.add_listed(name)
        self.daemon.kill()                   # another one, which has them in its list
        self.start_daemon()
        self.crew.all_supervised(PATIENCE_S, names)
        self.daemon.stop()
        storm = device.spawn([self.tools.storm, "2", "exec", "350"])
        device.eventually(lambda: storm in device.ended, PATIENCE_S)
        self.crew.start(*fresh)
        self.crew.look()
        for name in names[:2 * third]:
            self.kill(name)
        device.eventually(lambda: self.crew.all_gone(names[:2 * third]), PATIENCE_S)
        for name in names[:third]:           # started again by hand
            device.spawn(self.crew.words[name])
        self.crew.all_up(PATIENCE_S, names[:third] + fresh)
        self.need(self.daemon.dropped_events(), "no event was dropped, nothing was tried")
        device.send(self.daemon.pid, signal.SIGCONT)
        self.back()
        self.kill_each()


class DaemonKilled(Row):
    name = "killed before and after the daemon is killed"

    def programs(self):
        self.plain(4 if self.short else 8)
        for after in (0, 20):
            self.crew.add_listed("detach_5_%d_%d" % (after, os.getpid()))

    def act(self):
        for _ in range(3 if self.short else 50):
            names = random.sample(sorted(self.crew.words), 4)
            self.crew.look()
            for name in names[:2]:
                self.kill(name)
            time.sleep(random.random() * 0.03)
            self.daemon.kill()
            self.crew.look()
            for name in names[2:]:
                self.kill(name)
            self.start_daemon()
            if not self.back():
                return


def processes_of(path):
    found = []
    for name in device.names("/proc"):
        if name.isdigit() and device.command_of(int(name)).split(" ")[0] == path and device.is_alive(int(name)):
            found.append(int(name))
    return found


def main():
    sheet = Sheet(__doc__, "listed", "Programs that do not register themselves.", COLUMNS)
    random.seed(sheet.options.seed)
    rows = [TwiceInARow, Detaching, DetachingInAStorm, DetachingKilled, LateMonitor, EventsLost, DaemonKilled]
    for kind in rows if sheet.options.short else rows + [WhileLookedFor]:
        if sheet.wants(kind.name):
            row = kind(sheet)
            row.run()
            sheet.add(row.figures(), row.problems)
    sheet.finish()


if __name__ == "__main__":
    main()
