"""One run: a scenario on a fresh device, with one call that fails or kills, and the proof that nothing was lost by it.

Afterwards the daemon lives, or has ended by a described status and is started again; and every service is killed, comes
back, is there once after another start of the daemon, and nothing is left that a run without a failure does not leave.
"""
import collections
import hashlib
import itertools
import re
import signal
import time

import device
import tracing
from device import Service
from scenarios import TABLE

CHILD = "a child before its program"         # calls of the daemon's threads fail with it: strace counts for each one
ALL = "every thread"
MAIN = "the main thread"                     # of a daemon that is traced from its start, without its children
CLIENT = "the program"
COMMAND = "the command"
# By a thread that failed 0, refused or restored nothing 255, forks failed 1, no limit of descriptors: abort.
DESCRIBED = (0, 1, 255, -6)
KILLED = -9                                  # when that was asked for
LOADER = 127                                 # the dynamic loader's own answer
REPAIR_S = 12                                # with the minutes between the looks passed over
MOST = 40                                    # the n-th call of a kind; what comes then is what a waiting thread repeats


class Lost(Exception):
    pass


def need(condition, what):
    if not condition:
        raise Lost(what)


class Run:
    """One scenario on a fresh device, with one expression for strace, or none."""

    def __init__(self, tools, scenario, who=None, expression=None):
        self.tools, self.who, self.expression = tools, who, expression
        device.clean()
        self.clock = device.Clock()
        self.scenario = scenario(tools)
        self.scenario.clock = self.clock
        device.write("/debug_time", "1\n")   # seconds that a program waits which has failed five times
        self.scenario.before_daemon()
        self.daemon = device.Daemon(tools)
        self.reaction = "at once"
        self.strace = None
        self.count = 0
        self.said_before = len(device.read("/dev/console.log"))

    def ended(self):
        return not self.daemon.running()

    def start_daemon(self):
        self.daemon.start()
        need(self.daemon.wait_ready(60), "the daemon does not start: " + self.daemon.describe())

    def first_start(self):
        """For scenarios that are a start: what they need was registered with a daemon that has been killed."""
        if self.scenario.services:
            self.start_daemon()
            self.scenario.prepare(self.daemon)
            self.daemon.kill()

    def act(self):
        scenario, expressions = self.scenario, [self.expression or "trace=all"]
        if scenario.from_start:
            self.first_start()
            scenario.act(self.daemon)
            self.daemon.start(before=tracing.beside(expressions, follow=self.who != MAIN))
            device.eventually(lambda: self.ended() or (self.daemon.answers() and scenario.settled()), scenario.settle_s)
            return
        self.start_daemon()
        scenario.prepare(self.daemon)
        if scenario.traced == "client":
            scenario.services[0].start(before=tracing.beside(expressions, children=False))
        elif scenario.traced == "command":
            scenario.act(self.daemon, before=tracing.beside(expressions))
        else:
            self.strace = self.attach(expressions)
            scenario.act(self.daemon)
        device.eventually(lambda: self.ended() or self.client_ended() or scenario.settled(), scenario.settle_s)

    def client_ended(self):
        return self.scenario.traced == "client" and not device.is_alive(self.scenario.services[0].pid)

    def attach(self, expressions):
        tasks = {name: task for task, name in self.daemon.tasks().items()}
        self.tasks = {task: name for name, task in tasks.items()}
        strace = tracing.Strace(self.daemon.pid, expressions, thread=tasks.get(self.who))
        need(strace.attached, "strace did not attach: " + device.read(tracing.SAID))
        return strace

    def leave(self):
        """Nothing fails any more. Who was traced from the first call keeps its tracer, which ends with it."""
        if self.strace is not None:
            self.strace.leave()

    def ended_in_loader(self, status):
        """The loader's very first memory is not asked for twice: every program ends by that, whatever the error."""
        first = re.fullmatch("inject=mmap:error=[A-Z]+:when=1", self.expression)
        return status == LOADER or (status == -signal.SIGSEGV and first is not None)

    def replace_ended(self):
        """A daemon that has ended by a described status is followed by another one."""
        if not self.ended():
            return
        device.eventually(lambda: self.daemon.status() is not None, 5)   # once the tracer has let its threads go
        status = self.daemon.status()
        need(status in DESCRIBED or (self.scenario.from_start and self.ended_in_loader(status)) or
             (status == KILLED and "signal=KILL" in self.expression), "the daemon ended with %s" % status)
        self.reaction = "daemon ended"
        self.scenario.replaced = True
        self.start_daemon()

    def wait_for(self, condition, seconds):
        """Waits as long as that, then lets minutes pass at a time; what fails or kills has gone by then."""
        if device.eventually(lambda: self.ended() or condition(), seconds) and not self.ended():
            return True
        self.replace_ended()
        if device.eventually(condition, seconds):
            return True
        for _ in range(REPAIR_S):
            self.replace_ended()
            self.scenario.hasten(self.daemon, self.clock)
            if device.eventually(condition, seconds):
                return True
        # A failure at its start may have kept the daemon from the clock that can be moved.
        return self.scenario.from_start and device.eventually(condition, 70)

    def repair(self):
        """The described end, or another daemon's."""
        scenario = self.scenario
        self.replace_ended()
        if self.client_ended():
            self.reaction = "program ended"
            self.forget_or_keep()
        elif not device.eventually(scenario.settled, 0.5 if self.expression else 10):
            need(self.expression, "%s does not come to its end without a failure" % scenario.name)
            self.reaction = "later"
            if scenario.from_start:
                # A call that fails in each new child would fail for ever: strace counts the calls of each one anew.
                tracing.leave_traced(self.daemon.pid)
            need(self.wait_for(scenario.settled, 1.0), "not settled: " + self.describe())

    def forget_or_keep(self):
        """A program that ended while it registered comes back when its file had been written, and need not before."""
        service = self.scenario.services[0]
        if service.wrote_file() or service.lives():
            need(self.wait_for(self.scenario.settled, 1.0), "not settled: " + self.describe())
        else:
            self.scenario.gone += self.scenario.services
            self.scenario.services = []

    def describe(self):
        return "; ".join("%s: %s" % (service.command.split("/")[-1], service.lives())
                         for service in self.scenario.services + self.scenario.gone)

    def all_are(self, state):
        return self.wait_for(lambda: all(state(service) for service in self.scenario.services), 1.5)

    def twins(self):
        """One that was started beside another has begun to live by now, for all are started before the threads are."""
        time.sleep(0.03)
        return any(len(service.lives()) > 1 for service in self.scenario.services)

    def removal_failed(self):
        return (self.expression or "").startswith(("inject=unlink", "inject=rmdir"))

    def tidy(self):
        """A database file that could not be removed goes within two minutes; a start before that takes it for a program."""
        tidied = lambda: len(device.names(device.DATABASE)) <= len(self.scenario.services)
        if self.wait_for(tidied, 0.5):
            return
        raise Lost("database files stay: %s" % device.names(device.DATABASE))

    def prove(self):
        """Every service is supervised: by this daemon, and by the next one. Nothing is left behind."""
        scenario = self.scenario
        for service in scenario.services + scenario.gone:
            service.kill()
        need(self.all_are(Service.is_back), "killed, it does not come back: " + self.describe())
        if self.removal_failed():
            self.tidy()
        self.held = None
        self.no_more_than_usual()
        self.daemon.kill()
        for service in scenario.services:
            service.kill()
        self.start_daemon()
        # Not ready: who comes back before the control socket is there tries again a second later.
        need(self.all_are(Service.is_filed) and not self.twins(), "not there once after the next start: " + self.describe())
        allowed = 1 if scenario.traced == "client" else 0    # one that ended as it registered may come back or not
        need(not any(len(service.lives()) > allowed for service in scenario.gone), "came back: " + self.describe())
        self.files = device.left_files()

    def no_more_than_usual(self):
        usual = USUAL.get(self.scenario.name)

        def fits():
            self.held = self.daemon.held()
            return usual is None or not self.held - usual[0]
        if usual is None:
            time.sleep(0.3)                  # what is being closed is closed then
            fits()
            return
        need(device.eventually(fits, 5), "held for good: %s" % dict(self.held - usual[0]))

    def left_behind(self):
        more = self.files - USUAL[self.scenario.name][1]
        # Empty files of processes that have ended lie in a domain's directory until it is taken down.
        del more["file /tmp/vsd/N/wex/N"]
        # A program that cannot be started again and again is a reason to restart the device, which is refused here.
        for name in ("reboot", "history"):
            del more["file /data/.wex_" + name]
        # A set that root may not look at is somebody else's: it is left alone, and the daemon makes its own.
        if re.match("inject=sem(get|ctl):error=EACCES", self.expression or ""):
            more["semaphore"] = max(more["semaphore"] - 1, 0)
        # What could not be removed is there, by definition.
        need(sum(more.values()) <= (1 if self.removal_failed() else 0), "left behind: %s" % dict(more))

    def keep_story(self, lost):
        """What a lost place has left to read: beside the result, one after the other."""
        with open(self.tools.story, "a") as story:
            story.write("==== %s, %s: %s: %s\n%s\n" % (self.scenario.name, self.who, self.expression, lost, self.daemon.describe()))
            for file in sorted(device.left_files()):
                story.write(file + "\n")
            for line in device.read(tracing.TRACE).splitlines():
                if "INJECTED" in line:
                    story.write(line + "\n")
            story.write(device.read("/dev/console.log")[self.said_before:][-6000:])

    def whole(self):
        try:
            self.act()
            self.leave()
            self.count = tracing.injected()
            self.repair()
            self.prove()
            self.left_behind()
            self.count = max(self.count, tracing.injected())     # a late one, of a daemon traced from its start
        except Lost as lost:
            self.keep_story(lost)
            raise
        finally:
            if self.strace is not None:
                self.strace.leave()
            self.daemon.kill()
            device.clean(self.scenario.services + self.scenario.gone)


USUAL = {}                                   # of each scenario: what its daemon holds, and what files it leaves


def plain_run(tools, scenario):
    """Who makes which calls, how often at the most. Also what such a run leaves behind."""
    run = Run(tools, scenario)
    try:
        run.act()
        run.leave()
        points = collections.Counter()
        for task, calls in tracing.calls_by_task().items():
            if scenario.from_start:
                who = ALL
            elif scenario.traced == "client":
                who = CLIENT
            elif scenario.traced == "command":
                who = COMMAND
            else:
                who = run.tasks.get(task, CHILD)
            for call, times in calls.items():
                points[who, call] = max(points[who, call], times)
                if scenario.from_start and task == run.daemon.pid:
                    points[MAIN, call] = times
        run.repair()
        run.prove()
        USUAL[scenario.name] = (run.held, run.files)
        return points
    finally:
        run.leave()
        run.daemon.kill()
        device.clean(run.scenario.services + run.scenario.gone)


def attempt(tools, scenario, who, expression):
    """The run, how often something was injected, and what went wrong."""
    run = Run(tools, scenario, who, expression)
    try:
        run.whole()
    except Lost as lost:
        return run.reaction, run.count, str(lost)
    return run.reaction, run.count, ""


def in_turn(work, seed):
    """Rows of several scenarios, one of each after the other: a budget is spread evenly. The order of a scenario's rows is by
    chance but always alike, also where a plain run has seen a row more or less."""
    def by_chance(row):
        return hashlib.md5(("%d %s" % (seed, row)).encode()).digest()
    columns = [[(scenario, row) for row in sorted(rows, key=by_chance)] for scenario, rows in work]
    return [row for line in itertools.zip_longest(*columns) for row in line if row is not None]


def try_all(outcome, rows_of):
    """In each scenario that is asked for, every (who, expression) that `rows_of` makes of the calls of a plain run."""
    arguments, work = outcome.arguments, []
    for scenario in TABLE:
        if scenario.name in arguments.scenarios:
            rows = list(rows_of(scenario, plain_run(arguments.tools, scenario)))
            outcome.plan(scenario, len({expression.split(":")[0] for _, expression in rows}), len(rows))
            work.append((scenario, rows))
    outcome.begin_trying()
    for scenario, (who, expression) in in_turn(work, arguments.seed)[arguments.skip:]:
        if outcome.out_of_time():
            break
        place = "%s: %s" % (who, expression)
        if arguments.only in place:
            outcome.add(scenario, place, *attempt(arguments.tools, scenario, who, expression))
