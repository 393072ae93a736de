#!/usr/bin/env python3
"""A long life in minutes: 100 services die at random, by every signal and status, while the daemon is killed and domains
are started and taken down. Each death must lead to one of the described ends, and to no second one.

Runs inside tools/sandbox; tests/faults/run starts it there.
"""
import collections
import os
import random
import signal
import time

import device
from crew import Crew, counter
from sheet import Sheet

FATAL = [number for number in range(1, 32) if number not in (
    signal.SIGTERM, signal.SIGSTOP, signal.SIGTSTP, signal.SIGTTIN, signal.SIGTTOU, signal.SIGCONT, signal.SIGCHLD,
    signal.SIGURG, signal.SIGWINCH)]
STATUSES = range(signal.SIGRTMIN, signal.SIGRTMIN + 8)
WAVE = 50
WINDOW_S = 125                               # the fifth restart within 120 s parks a program
RESTARTS = 4
DOMAIN = 1
MARKER = "/tmp/vsd/%d/delete_vsd" % DOMAIN
UPKEEP = "wex_delay_resta"
PATIENCE_S = 60
MEMORY_SLACK_KIB = 512                       # a new daemon has not yet had all services register
LISTED = 8
# Of services that have registered with this very daemon: a connection each, a locked file for each listed program.
AT_MOST = {"descriptor of socket:[N]": 110, "descriptor of /tmp/vsd/N/wex/db/lN_N.N": LISTED, "file lock": LISTED + 1}

ENDS = ["started again", "started again around a kill of the daemon", "parked, then started", "postponed, then started",
        "dropped: stopped by SIGTERM", "dropped: a domain is taken down"]
COLUMNS = ["deaths", "daemon kills", "domains", *ENDS, "none", "two", "own memory in KiB", "descriptors", "threads", "zombies"]


class Failed(Exception):
    pass


def need(condition, what):
    if not condition:
        raise Failed(what)


class Soak:
    def __init__(self, sheet):
        self.sheet, self.tools = sheet, sheet.tools
        self.random = random.Random(sheet.options.seed)
        self.goal = sheet.options.deaths or (1000 if sheet.options.short else 20000)
        self.kills_goal = max(self.goal // 400, 3)
        self.domains_goal = max(self.goal // 1000, 1)
        self.bursts = max(self.goal // 4000, 1)
        self.every = 250 if self.goal <= 1000 else 1000
        self.ends = collections.Counter()
        self.deaths = self.kills = self.domains = 0
        self.used = collections.Counter()    # restarts of each service since the clock was moved
        self.windows = 0
        self.usual = None                    # what this daemon held at its first figures
        self.crew = Crew(self.tools)
        self.daemon = device.Daemon(self.tools)

    def begin(self):
        device.clean()
        self.clock = device.Clock()
        device.write("/debug_time", "1\n")   # seconds that a parked program waits
        device.write("/etc/wex_config", "900 1000000\n")         # no restart of the device after some core dumps
        device.write("/etc/cmdmap/counted.sh", 'exec %s "$@"\n' % self.tools.counted, 0o755)
        device.write("/etc/rc.d/rc.vsd/20services", "#!/bin/sh\n" + "".join(
            "%s %s &\n" % (self.tools.counted, name) for name in ("d0", "d1", "d2")), 0o755)
        for path in ("/qx_cfg/vsd", "/ovix/vsd", "/data/.ovix/vsd", "/etc/vsd", "/tmp/vsd", "/data/var/run/vsd"):
            device.make_open_dir(path)
        self.crew = crew = Crew(self.tools)
        for number in range(80):
            crew.add("r%d" % number)
        for number in range(6):
            crew.add("k%d" % number, "core")
            crew.add("h%d" % number, "shell")
        for number in range(LISTED):
            crew.add_listed("l%d_%d" % (os.getpid(), number))    # looked for by its name on the whole machine
        self.main = sorted(crew.words)
        self.start_daemon()
        crew.start()
        need(crew.all_ready(PATIENCE_S), "not all have started: %s" % crew.down())
        self.all_supervised()

    def start_daemon(self):
        self.daemon.start()
        need(self.daemon.wait_ready(60), "the daemon does not start: " + self.daemon.describe())
        self.usual = None

    def all_supervised(self):
        need(self.crew.all_supervised(PATIENCE_S, self.main), "not supervised: %s" % self.crew.unsupervised(self.main))

    def settle(self, names=None):
        if not self.crew.all_up(PATIENCE_S, names):
            self.ends["none"] += len(self.crew.down(names))
            raise Failed("down: %s" % ["%s %s" % (name, self.crew.lives[name][-3:]) for name in self.crew.down(names)])
        self.never_twice()

    def never_twice(self):
        twice = self.crew.too_many()
        self.ends["two"] = len(twice)
        need(not twice, "ran twice: %s" % twice)

    def died(self, count, how):
        self.deaths += count
        self.ends[how] += count

    # ---- Ways to die ----

    def ready_to_die(self, count):
        self.crew.look()
        names = [name for name in self.main if self.crew.is_up(name) and self.used[name] < RESTARTS]
        return self.random.sample(names, min(count, len(names)))

    def kill_somehow(self, name):
        number = self.random.choice(FATAL if self.random.randrange(2) else STATUSES)
        if name.startswith("k") and self.random.randrange(4):
            number = signal.SIGKILL          # core dumps take their time
        need(self.crew.kill(name, number), name + " does not live")
        self.used[name] += 1

    def wave(self):
        names = self.ready_to_die(WAVE)
        if len(names) < WAVE // 2:
            self.next_window()
            return
        stopped = [name for name in names[:2] if self.crew.is_ready(name)]
        for name in stopped:
            self.crew.kill(name, signal.SIGTERM, comes_back=False)
        others = [name for name in names if name not in stopped]
        for name in others:
            self.kill_somehow(name)
        self.settle(others)
        self.died(len(others), ENDS[0])
        self.stay_down(stopped, ENDS[4])

    def stay_down(self, names, how):
        """Those that were dropped are not started again; then they are, by hand."""
        self.crew.look()
        up = [name for name in names if self.crew.pid(name)]
        need(not up, "was dropped and runs: %s" % up)
        self.died(len(names), how)
        for name in names:
            self.used[name] = 0
            self.crew.start(name)
        need(not names or self.crew.all_ready(PATIENCE_S, names), "not started by hand: %s" % self.crew.down(names))
        listed = [name for name in names if name.startswith("l")]
        # A listed program that ends before the daemon has seen it executed was never registered.
        need(not listed or self.crew.all_supervised(PATIENCE_S, listed), "not supervised: %s" % listed)

    def next_window(self):
        """Two more restarts of two services are one too many; one service waits for its file. Then two minutes pass."""
        self.settle()
        used_up = [name for name in self.main if name[0] == "r" and self.used[name] == RESTARTS]
        first = 2 * self.windows % max(len(used_up), 1)          # the same one soon after is a reason to restart the device
        for name in used_up[first:first + 2]:
            need(self.crew.kill(name), name + " does not live")
            self.settle([name])
            self.died(1, ENDS[2])
        self.postpone()
        self.windows += 1
        self.clock.move(WINDOW_S, self.daemon, UPKEEP)
        self.used.clear()

    def postpone(self):
        ready = [name for name in self.main if name[0] == "r" and self.crew.is_ready(name) and self.used[name] < RESTARTS]
        if not ready:
            return
        name = self.random.choice(ready)
        before = counter(self.tools, "postponed_restarts")
        holder = device.lock_copy("%s/counted.%d" % (device.DATABASE, self.crew.pid(name)))
        self.crew.kill(name)
        waits = device.eventually(lambda: counter(self.tools, "postponed_restarts") > before, PATIENCE_S)
        self.crew.look()
        need(waits and not self.crew.pid(name), "a restart that was to be postponed was not")
        holder.close()
        self.settle([name])
        self.used[name] += 1
        self.died(1, ENDS[3])

    # ---- The daemon dies, a domain comes and goes ----

    def kill_daemon(self):
        """Some die before it, and may just be starting again; some while it is gone, which have their database files."""
        need(self.crew.all_ready(PATIENCE_S), "not ready: %s" % self.crew.down())
        self.all_supervised()
        names = self.ready_to_die(20)
        for name in names[:10]:
            self.kill_somehow(name)
        time.sleep(self.random.random() * 0.03)
        self.daemon.kill()
        self.crew.look()
        dead = [name for name in names[10:] if self.crew.is_ready(name)]
        for name in dead:
            self.kill_somehow(name)
        self.kills += 1
        self.start_daemon()
        self.settle()
        self.died(len(names[:10]) + len(dead), ENDS[1])
        need(self.crew.all_ready(PATIENCE_S), "not registered with the next daemon: %s" % self.crew.down())
        self.used.clear()                    # another daemon counts anew

    def command(self, *words):
        """One command line of wex, whose sleeps take a tenth."""
        return device.spawn(["env", "LD_PRELOAD=" + self.tools.clock, "WEX_HURRY=1", self.tools.daemon, *words])

    def domain(self):
        names = ["d0", "d1", "d2"]
        for name in names:
            self.crew.words[name] = [name]   # its start script starts it
            self.crew.due[name] += 1
        self.finish(self.command("-c", "1"), "the domain does not start")
        need(self.crew.all_ready(PATIENCE_S, names), "did not start with their domain: %s" % self.crew.down(names))
        for _ in range(2):
            self.crew.look()
            for name in names:
                self.kill_somehow(name)
            self.settle(names)
            self.died(len(names), ENDS[0])
        need(self.crew.all_ready(PATIENCE_S, names), "not registered in their domain: %s" % self.crew.down(names))
        for name in names:
            groups = [line for line in device.read("/proc/%d/status" % self.crew.pid(name)).splitlines() if "Groups" in line]
            need(str(3000 + 100 * DOMAIN) in groups[0], "%s came back outside of its domain" % name)
        self.take_down(names)

    def take_down(self, names):
        dropped = counter(self.tools, "dropped_registrations")
        tool = self.command("-d", str(DOMAIN))
        need(device.eventually(lambda: os.path.exists(MARKER), PATIENCE_S), "no marker of the take-down")
        victims = [name for name in self.ready_to_die(2) if self.crew.is_ready(name)]
        for name in victims:
            self.crew.kill(name, comes_back=False)
        count = len(victims) + len(names)
        need(device.eventually(lambda: counter(self.tools, "dropped_registrations") >= dropped + count, PATIENCE_S),
             "not dropped with the domain")
        self.finish(tool, "the domain is not taken down")
        need(not os.path.exists("/tmp/vsd/%d" % DOMAIN), "the domain's files stay")
        self.crew.look()
        need(not any(self.crew.pid(name) for name in names), "a program of the domain lives on")
        self.died(len(names), ENDS[5])
        self.stay_down(victims, ENDS[5])
        for name in names:
            del self.crew.words[name]
            self.crew.holders.pop(name, None)
        self.domains += 1

    @staticmethod
    def finish(pid, what):
        need(device.eventually(lambda: pid in device.ended, PATIENCE_S) and device.ended[pid] == 0, what)

    # ---- Figures ----

    def figures(self):
        """What the daemon holds when all is quiet: no more than at its first figures."""
        need(self.crew.all_ready(PATIENCE_S), "not ready: %s" % self.crew.down())
        self.all_supervised()
        held = None

        def fits():
            nonlocal held
            held = self.daemon.held()
            usual = self.usual[0] if self.usual else held
            return not held["zombie"] and all(count <= max(usual[what], AT_MOST.get(what, 0)) for what, count in held.items())
        need(device.eventually(fits, PATIENCE_S), "held for good: %s" % dict(held - (self.usual[0] if self.usual else held)))
        memory = self.memory()
        if self.usual is None:
            self.usual = (held, memory)
        need(memory <= self.usual[1] + MEMORY_SLACK_KIB, "memory grew from %d to %d KiB" % (self.usual[1], memory))
        descriptors = sum(count for what, count in held.items() if what.startswith("descriptor"))
        return [memory, descriptors, held["thread"], held["zombie"]]

    def memory(self):
        for line in device.read("/proc/%d/status" % self.daemon.pid).splitlines():
            if line.startswith("RssAnon:"):      # without the code, which is read in as it is needed
                return int(line.split()[1])
        return 0

    def row(self):
        held = self.figures()
        self.sheet.add([self.deaths, self.kills, self.domains, *[self.ends[end] for end in ENDS], self.ends["none"],
                        self.ends["two"], *held], [])

    def run(self):
        """The daemon's kills come in bursts, so that one and the same daemon is seen to hold no more in between."""
        shown = 0
        while self.deaths < self.goal:
            self.wave()
            if self.domains < self.domains_goal and self.deaths * (self.domains_goal + 1) > self.goal * (self.domains + 1):
                self.domain()
            burst = self.deaths * (self.bursts + 1) // self.goal
            while self.kills < min(burst * self.kills_goal // self.bursts, self.kills_goal):
                self.kill_daemon()
            if self.deaths // self.every > shown:
                shown = self.deaths // self.every
                self.row()


def main():
    sheet = Sheet(__doc__, "soak", "100 services, and each of their deaths.", COLUMNS)
    soak = Soak(sheet)
    try:
        soak.begin()
        soak.run()
        need(soak.deaths == sum(soak.ends[end] for end in ENDS), "deaths without an end")
    except Failed as failed:
        sheet.problems.append("%s; %s" % (failed, soak.daemon.describe()))
    finally:
        soak.daemon.kill()
        soak.crew.end()
        device.clean()
    sheet.finish()


if __name__ == "__main__":
    main()
