#!/usr/bin/env python3
"""Measures wex beside other supervisors, on this machine, in one run. As root; ./dev bench builds and calls it.

The full run (15 minutes) writes bench/performance.json, and docs/performance.md with its charts; --quick (3 minutes)
writes the same files into build/bench/quick.
"""
import argparse
import fcntl
import glob
import os
import platform
import random
import shutil
import signal
import statistics
import subprocess
import sys
import time

import measures
import report
import supervisors
from measures import MEASURES, say
from supervisors import BASE, PEERS, TOOLS, read

TOP = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def only_one():
    """One comparison at a time: they share the folder, and would measure each other."""
    os.makedirs(BASE, mode=0o755, exist_ok=True)
    lock = open(os.path.join(BASE, "lock"), "w")
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except OSError:
        sys.exit("another comparison is running")
    return lock


def copy_programs(options):
    shutil.rmtree(TOOLS, ignore_errors=True)
    shutil.copytree(options.tools, TOOLS)
    supervisors.Wex.binary = options.wex
    supervisors.WexWithoutPauses.binary = options.wex_no_pauses
    if options.client_library:
        shutil.copy2(options.client_library, TOOLS)
        supervisors.Wex.client_library = options.client_library


def unpack_packages(packages):
    """Nothing is installed: the files of a package are a layer of each throw-away root."""
    shutil.rmtree(PEERS, ignore_errors=True)
    if not packages:
        return
    os.makedirs(PEERS)
    for name in ("bin", "sbin", "lib", "lib64"):           # as on this machine; else a folder would hide its link
        if os.path.islink("/" + name):
            os.makedirs(os.path.join(PEERS, "usr", name))
            os.symlink("usr/" + name, os.path.join(PEERS, name))
    with open(os.path.join(PEERS, "versions"), "w") as versions:
        for package in packages:
            archive = subprocess.run(["dpkg-deb", "--fsys-tarfile", package], stdout=subprocess.PIPE, check=True)
            subprocess.run(["tar", "--keep-directory-symlink", "-x", "-C", PEERS], input=archive.stdout, check=True)
            about = subprocess.run(["dpkg-deb", "--showformat=${Package} ${Version}\n", "-W", package],
                                   stdout=subprocess.PIPE, check=True)
            versions.write(about.stdout.decode())


def machine():
    lines = read("/proc/cpuinfo").splitlines()
    models = [line.split(":", 1)[1].strip() for line in lines if line.startswith("model name")]
    return dict(date=time.strftime("%Y-%m-%d"), cpu=models[0] if models else platform.machine(), cores=os.cpu_count(),
                memory_mib=int(read("/proc/meminfo").split()[1]) // 1024, kernel=platform.release(),
                virtual=any("hypervisor" in line for line in lines))


def wait_for_quiet(limit_s):
    """Measures when less than a tenth of the machine is busy, or after so many seconds; returns the busy share."""
    end = time.monotonic() + limit_s
    while True:
        before = [int(word) for word in read("/proc/stat").split("\n")[0].split()[1:9]]
        time.sleep(0.5)
        passed = [int(word) - old for word, old in zip(read("/proc/stat").split("\n")[0].split()[1:9], before)]
        busy = 1 - (passed[3] + passed[4]) / max(1, sum(passed))
        if busy < 0.1 or time.monotonic() > end:
            return round(busy, 3)


def compare(options, chosen, skipped):
    settings = measures.QUICK if options.quick else measures.FULL
    result = dict(mode="quick" if options.quick else "full", machine=machine(), skipped=skipped,
                  supervisors={one.name: dict(kind=one.kind, version=one.version(), how=one.how) for one in chosen},
                  busy_before={}, seconds={}, noise=dict(before=measures.tool("noise", settings["noise_ms"])))
    for name in options.only.split(",") if options.only else MEASURES:
        result["busy_before"][name] = wait_for_quiet(2 if options.quick else 8)
        begin = time.monotonic()
        MEASURES[name](settings, chosen, result)
        result["seconds"][name] = round(time.monotonic() - begin)
    result["noise"]["after"] = measures.tool("noise", settings["noise_ms"])
    return result


def choose(names):
    chosen, skipped = [], []
    for supervisor in (kind() for kind in supervisors.ALL):
        if names and supervisor.name not in names.split(","):
            continue
        if supervisor.available():
            chosen.append(supervisor)
        else:
            skipped.append(supervisor.name)
    return chosen, skipped


def alternating_medians(runs, kills):
    """Median restart latencies of supervisors that run at the same time and are measured in turn: noise meets all."""
    times = [[] for _ in runs]
    for run in runs:
        if run.missing:
            sys.exit("%s: %d services did not start" % (run.supervisor.name, len(run.missing)))
        run.rest()
    for number in random.sample(range(100), kills):
        for run, its in zip(runs, times):
            time.sleep(0.01)
            its.append(run.restart(number))
            if its[-1] is None:
                sys.exit("%s: service %d did not come back" % (run.supervisor.name, number))
    return [statistics.median(its) / 1e3 for its in times]


def hold(limit):
    """Restart latency of wex as a multiple of the floor's. Noise makes some rounds worse; what wex costs is in all of
    them. So two rounds within the limit are enough, and it fails when six did not bring them."""
    good = 0
    for _ in range(6):
        with measures.Run(supervisors.FloorWait(), 100) as floor, measures.Run(supervisors.Wex(), 100) as wex:
            medians = alternating_medians((floor, wex), 60)
        ratio = medians[1] / medians[0]
        good += ratio <= limit
        say("floor %.0f us, wex %.0f us: %.2f times, limit %.2f" % (*medians, ratio, limit))
        if good == 2:
            return
    sys.exit("What to do: ./dev bench --only latency --who floor-wait,wex shows more; find what became slower.")


def arguments():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--quick", action="store_true", help="every measurement, few repetitions")
    parser.add_argument("--only", default="", metavar="A,B", help="of: " + ", ".join(MEASURES))
    parser.add_argument("--who", default="", metavar="A,B",
                        help="of: " + ", ".join(one.name for one in supervisors.ALL))
    parser.add_argument("--hold", type=float, metavar="TIMES",
                        help="only check that restarts take no longer than so many times the floor's")
    parser.add_argument("--tools", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--wex", help=argparse.SUPPRESS)
    parser.add_argument("--wex-no-pauses", help=argparse.SUPPRESS)
    parser.add_argument("--library", dest="client_library", help=argparse.SUPPRESS)
    parser.add_argument("--packages", default="", help=argparse.SUPPRESS)
    options = parser.parse_args()
    for name in options.only.split(",") if options.only else []:
        if name not in MEASURES:
            parser.error("no such measurement: " + name)
    return options


def main():
    options = arguments()
    if os.geteuid() != 0:
        sys.exit("This needs root: mounts of its own, and the process connector. What to do: sudo ./dev bench")
    lock = only_one()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    try:
        copy_programs(options)
        if options.hold:
            unpack_packages([])
            hold(options.hold)
            return
        unpack_packages(sorted(glob.glob(os.path.join(options.packages, "*.deb"))) if options.packages else [])
        chosen, skipped = choose(options.who)
        say("compared: " + ", ".join(one.name for one in chosen) + "; not found: " + (", ".join(skipped) or "none"))
        result = compare(options, chosen, skipped)
    finally:
        for run in list(measures.Run.running):
            run.supervisor.stop()
        shutil.rmtree(BASE, ignore_errors=True)
        lock.close()
    result["wall_s"] = round(time.monotonic() - measures.started)
    whole = not (options.quick or options.only or options.who)
    folder = os.path.join(TOP, "build", "bench", "full" if whole else "quick")
    os.makedirs(folder, exist_ok=True)
    data = os.path.join(TOP, "bench", "performance.json") if whole else os.path.join(folder, "performance.json")
    page = os.path.join(TOP, "docs", "performance.md") if whole else os.path.join(folder, "performance.md")
    report.write(result, data, page)
    print(report.text(result))
    print("Written: %s, %s and the charts beside it. %d s." % (data, page, result["wall_s"]))


if __name__ == "__main__":
    main()
