"""What is measured of each supervisor. Every function below MEASURES fills one or more parts of the result."""
import json
import math
import mmap
import os
import random
import signal
import statistics
import struct
import subprocess
import time

import supervisors
from supervisors import BASE, TOOLS, read

SLOTS, HEAD, SLOT = 2048, 64, 64             # tools/bench.h
QUANTILES = (0, 1, 5, 10, 20, 30, 40, 50, 60, 70, 80, 90, 95, 98, 99, 100)

FULL = dict(latency_rounds=4, latency_s=240, kills=1.0, young=3, sizes=(200, 1000), mass_repeats=3, patience=1.0,
            idle_s=30, request_rounds=2, request_ms=700, storm_rates=(250, 1000, 0), storm_kills=50,
            report_batches=2000, noise_ms=2000)
QUICK = dict(latency_rounds=1, latency_s=60, kills=0.3, young=1, sizes=(200,), mass_repeats=1, patience=0.3,
             idle_s=5, request_rounds=1, request_ms=300, storm_rates=(1000,), storm_kills=20,
             report_batches=500, noise_ms=500)

started = time.monotonic()


def say(*words):
    print("[%5.0f s]" % (time.monotonic() - started), *words, flush=True)


def now():
    return time.clock_gettime_ns(time.CLOCK_MONOTONIC)


def quantile(ordered, share):
    """The nearest rank."""
    return ordered[max(0, math.ceil(len(ordered) * share / 100) - 1)]


def figures(values, scale=1.0, digits=1):
    ordered = sorted(values)
    told = dict(n=len(ordered), median=statistics.median(ordered), p95=quantile(ordered, 95), p99=quantile(ordered, 99),
                max=ordered[-1], min=ordered[0])
    return {key: value if key == "n" else round(value / scale, digits) for key, value in told.items()}


def tool(name, *words):
    done = subprocess.run([os.path.join(TOOLS, name), *map(str, words)], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          timeout=120, check=False)
    if done.returncode != 0:
        raise RuntimeError("%s: status %d: %s" % (name, done.returncode, done.stderr.decode(errors="replace")[-300:]))
    return json.loads(done.stdout)


# ---- One running supervisor ----------------------------------------------------------------------------------

class Table:
    """The shared memory into which the services write their starts (tools/bench.h)."""

    def __init__(self, name):
        os.makedirs(os.path.join(BASE, "tables"), exist_ok=True)
        self.path = os.path.join(BASE, "tables", name)
        with open(self.path, "wb") as file:
            file.truncate(HEAD + SLOTS * SLOT)
        with open(self.path, "r+b") as file:
            self.map = mmap.mmap(file.fileno(), 0)
        self.view = memoryview(self.map)
        self.words = self.view[HEAD:].cast("I")
        self.times = self.view[HEAD:].cast("Q")

    def starts(self, count):
        return self.words[0:count * 16:16].tolist()

    def pid(self, number):
        return self.words[number * 16 + 1]

    def main_at(self, number):
        return self.times[number * 8 + 1]

    def exec_at(self):
        return struct.unpack_from("=Q", self.map, 0)[0]

    def close(self):
        for view in (self.words, self.times, self.view):
            view.release()
        self.map.close()
        os.unlink(self.path)


class Run:
    """A supervisor with so many services, from its start to its end."""

    running = []

    def __init__(self, supervisor, count):
        self.supervisor, self.count = supervisor, min(count, supervisor.most)
        self.table = Table(supervisor.name)
        self.missing, self.all_up_at = [], 0

    def __enter__(self):
        Run.running.append(self)
        try:
            self.supervisor.start(self.count, self.table)
            self.missing = self.wait([0] * self.count, range(self.count), self.supervisor.start_limit_s)
        except BaseException:
            self.__exit__()
            raise
        self.all_up_at = now()
        if self.missing:
            last_words = read(os.path.join(self.supervisor.folder, "log"))[-300:]
            say("%s: %d of %d services did not start: %s" % (self.supervisor.name, len(self.missing), self.count,
                                                             last_words))
        return self

    def __exit__(self, *_):
        Run.running.remove(self)
        self.supervisor.stop()
        self.table.close()

    def startup_ns(self):
        return max(self.table.main_at(number) for number in range(self.count)) - self.table.exec_at()

    def wait(self, before, numbers, limit_s):
        """Until each of these services has started more often than before; returns those that have not."""
        end = time.monotonic() + limit_s
        while True:
            starts = self.table.starts(self.count)
            missing = [number for number in numbers if starts[number] <= before[number]]
            if not missing or time.monotonic() > end or self.supervisor.process.poll() is not None:
                return missing
            time.sleep(0.002)

    def rest(self):
        left = self.supervisor.rest_s - (now() - self.all_up_at) / 1e9
        if left > 0:
            time.sleep(left)

    def kill(self, number):
        """Returns when: the services run as root, so 0 or 1 in place of a pid would end much more."""
        pid = self.table.pid(number)
        if pid <= 1:
            raise RuntimeError("service %d has no pid" % number)
        killed_at = now()
        os.kill(pid, signal.SIGKILL)
        return killed_at

    def restart(self, number):
        """From the death of a service to the main() of its replacement, in ns; None when it does not come back."""
        before = self.table.starts(self.count)
        killed_at = self.kill(number)
        if self.wait(before, [number], self.supervisor.limit_s):
            return None
        return self.table.main_at(number) - killed_at

    def restart_all(self, limit_s):
        """All services at once: ms until the last is back, or None, and how many are lost."""
        before = self.table.starts(self.count)
        begin = now()
        for number in range(self.count):
            self.kill(number)
        lost = self.wait(before, range(self.count), limit_s)
        self.all_up_at = now()
        if lost:
            return None, len(lost)
        return (max(self.table.main_at(number) for number in range(self.count)) - begin) / 1e6, 0


def memory_of(pids):
    """KiB of all these processes; the kernel's share is page tables and 16 KiB of stack for each thread."""
    total = dict(processes=len(pids), pss=0, resident=0, kernel=0)
    for pid in pids:
        maps, status = read("/proc/%d/smaps_rollup" % pid), read("/proc/%d/status" % pid)
        words = {line.split()[0]: line.split()[1] for line in (maps + status).splitlines() if len(line.split()) > 1}
        total["pss"] += int(words.get("Pss:", 0))
        total["resident"] += int(words.get("Rss:", 0))
        total["kernel"] += int(words.get("VmPTE:", 0)) + 16 * int(words.get("Threads:", 0))
    return total


def note_memory(result, run):
    result.setdefault("memory_kib", {}).setdefault(run.supervisor.name, {})[str(run.count)] = memory_of(
        run.supervisor.pids())


# ---- The measurements ----------------------------------------------------------------------------------------

def latency(settings, chosen, result):
    """One of 100 services is killed; and once more, right after its restart."""
    times, young, startup, medians, failures = {}, {}, {}, {}, {}
    begin = time.monotonic()
    for round_ in range(settings["latency_rounds"]):
        if time.monotonic() - begin > settings["latency_s"]:
            break
        turn = round_ % len(chosen)
        for supervisor in chosen[turn:] + chosen[:turn]:
            if round_ >= supervisor.rounds:
                continue
            with Run(supervisor, 100) as run:
                name = supervisor.name
                if run.missing:
                    failures[name] = "%d of 100 services did not start" % len(run.missing)
                    continue
                if supervisor.starts_them:
                    startup.setdefault(name, []).append(run.startup_ns())
                run.rest()
                if round_ == 0:
                    note_memory(result, run)
                numbers = random.sample(range(100), 100)
                count = max(5, int(supervisor.kills * settings["kills"]))
                mine = []
                for number in numbers[:count]:
                    time.sleep(random.uniform(0.008, 0.014) + random.uniform(0, supervisor.phase_s))
                    mine.append(run.restart(number))
                young_ones = settings["young"] if supervisor.phase_s == 0 else 0   # who looks once a second, looks then
                for number in numbers[count:count + young_ones]:
                    run.restart(number)
                    young.setdefault(name, []).append(run.restart(number))
                if None in mine:
                    failures[name] = "%d of %d not back within %.0f s" % (mine.count(None), count, supervisor.limit_s)
                mine = [time_ for time_ in mine if time_ is not None]
                times.setdefault(name, []).extend(mine)
                medians.setdefault(name, []).append(round(statistics.median(mine) / 1e3, 1) if mine else None)
        say("latency: round %d of %d" % (round_ + 1, settings["latency_rounds"]))
    result["latency_us"] = {name: dict(figures(all_, 1e3), medians=medians[name],
                                       quantiles=[round(quantile(sorted(all_), share) / 1e3, 1) for share in QUANTILES])
                            for name, all_ in times.items() if all_}
    young = {name: [time_ for time_ in all_ if time_ is not None] for name, all_ in young.items()}
    result["young_us"] = {name: figures(all_, 1e3) for name, all_ in young.items() if all_}
    result.setdefault("startup_ms", {}).update({name: {"100": figures(all_, 1e6)} for name, all_ in startup.items()})
    result["failures"] = failures


def mass(settings, chosen, result):
    """All services are killed at once. The start of so many is measured on the way."""
    for size in settings["sizes"]:
        for supervisor in chosen:
            name = supervisor.name
            with Run(supervisor, size) as run:
                kept = result.setdefault("mass_ms", {}).setdefault(name, {})[str(size)] = dict(
                    services=run.count, lost=0, never_started=len(run.missing), all_back=[])
                if run.missing:
                    continue
                if supervisor.starts_them and size == 1000:
                    result.setdefault("startup_ms", {}).setdefault(name, {})[str(size)] = figures(
                        [run.startup_ns()], 1e6)
                run.rest()
                if size == 1000:
                    note_memory(result, run)
                for _ in range(min(supervisor.mass_repeats, settings["mass_repeats"])):
                    back, lost = run.restart_all(supervisor.mass_limit_s * settings["patience"])
                    kept["lost"] += lost
                    if lost:
                        break
                    kept["all_back"].append(round(back, 1))
                    run.rest()
        say("mass: %d services" % size)


def storm(settings, chosen, result):
    """Single services are killed, 20 a second, while a stranger forks."""
    for supervisor in chosen:
        if not supervisor.storms:
            continue
        for rate in settings["storm_rates"]:
            with Run(supervisor, 100) as run:
                if run.missing:
                    continue
                run.rest()
                numbers = range(settings["storm_kills"])
                before = run.table.starts(run.count)
                milliseconds = 400 + 50 * len(numbers)
                stranger = subprocess.Popen([os.path.join(TOOLS, "forks"), str(rate), str(milliseconds)],
                                            stdout=subprocess.PIPE)
                time.sleep(0.2)
                killed_at = []
                for number in numbers:
                    killed_at.append(run.kill(number))
                    time.sleep(0.05)
                made = json.loads(stranger.communicate()[0])["per_second"]
                lost = run.wait(before, numbers, 10.0)
                back = [run.table.main_at(number) - killed_at[number] for number in numbers if number not in lost]
                result.setdefault("storm_us", {}).setdefault(supervisor.name, {})[str(rate)] = dict(
                    figures(back, 1e3) if back else {}, forks=made, killed=len(numbers), lost=len(lost))
    say("storm")


def sample(pids):
    """Context switches, and ns on a processor, of all threads."""
    switches = nanoseconds = 0
    for pid in pids:
        for task in os.listdir("/proc/%d/task" % pid):
            status = read("/proc/%d/task/%s/status" % (pid, task))
            switches += sum(int(line.split()[1]) for line in status.splitlines() if "voluntary_ctxt_switches" in line)
            schedule = read("/proc/%d/task/%s/schedstat" % (pid, task)).split()
            nanoseconds += int(schedule[0]) if schedule else 0
    return switches, nanoseconds


def idle(settings, chosen, result):
    """All supervisors at the same time, each with 100 services that do nothing."""
    runs = []
    try:
        for supervisor in chosen:
            runs.append(Run(supervisor, 100).__enter__())
        time.sleep(2)
        pids = {run.supervisor.name: run.supervisor.pids() for run in runs}
        before, begin = {name: sample(its) for name, its in pids.items()}, time.monotonic()
        forks = forks_of_machine()
        time.sleep(settings["idle_s"])
        forks = forks_of_machine() - forks
        after, seconds = {name: sample(its) for name, its in pids.items()}, time.monotonic() - begin
    finally:
        for run in reversed(runs):
            run.__exit__()
    result["idle"] = {name: dict(switches_per_s=round((after[name][0] - before[name][0]) / seconds, 2),
                                 cpu_ppm=round((after[name][1] - before[name][1]) / seconds / 1e3, 1)) for name in pids}
    result["idle_window"] = dict(seconds=round(seconds, 1), forks_by_others=forks)
    say("idle")


def forks_of_machine():
    return int(read("/proc/stat").split("\nprocesses ")[1].split()[0])


def requests(settings, chosen, result):
    """The control channel, one client and sixteen, each asking as soon as it is answered."""
    asked, labels = {}, {}

    def ask(name, label, before, behind):
        labels[name] = label
        for clients in (1, 16):
            asked.setdefault(name, {}).setdefault(str(clients), []).append(
                tool("load", *before, clients, settings["request_ms"], *behind))

    for _ in range(settings["request_rounds"]):
        floor(ask)
        for supervisor in chosen:
            if type(supervisor).requests is supervisors.Supervisor.requests:
                continue
            with Run(supervisor, 10) as run:
                run.rest()
                time.sleep(0.5)
                ask(supervisor.name, *supervisor.requests())
    result["requests"] = {name: dict(what=labels[name], **{clients: merged(all_) for clients, all_ in by.items()})
                          for name, by in asked.items()}
    say("requests")


def merged(loads):
    return dict(per_second=round(statistics.median(one["per_second"] for one in loads)),
                median_us=round(statistics.median(one["median_us"] for one in loads), 1),
                max_us=max(one["max_us"] for one in loads), errors=sum(one["errors"] for one in loads))


def floor(ask):
    path = os.path.join(BASE, "answer")
    server = subprocess.Popen([os.path.join(TOOLS, "answer"), path])
    try:
        while not os.path.exists(path) and server.poll() is None:
            time.sleep(0.005)
        time.sleep(0.05)
        ask("floor", "588 bytes answered by 268", [path], ["seqpacket", "00" * 588, "268"])
    finally:
        server.kill()
        server.wait()
        os.unlink(path)


def report(settings, chosen, result):
    """The hot call of a supervised thread."""
    result["report_ns"] = tool("reports", "floor", settings["report_batches"])
    for supervisor in chosen:
        if supervisor.name == "wex" and supervisor.client_library is not None:
            with Run(supervisor, 1) as run:
                run.rest()
                result["report_ns"].update(tool("reports", "wex", settings["report_batches"], supervisor.root(),
                                                os.path.join(TOOLS, os.path.basename(supervisor.client_library))))
    say("report")


def memory_of_one(settings, chosen, result):
    """With one service; the figures for 100 and 1,000 come from the measurements above."""
    for supervisor in chosen:
        with Run(supervisor, 1) as run:
            run.rest()
            note_memory(result, run)
    say("memory")


MEASURES = dict(latency=latency, memory=memory_of_one, mass=mass, idle=idle, requests=requests, storm=storm,
                report=report)
