"""The command line of both drivers, and what they print and write."""
import argparse
import collections
import json
import os
import time

from scenarios import TABLE


class Tools:
    def __init__(self, build, beside):
        self.daemon = os.path.join(build, "wex")
        self.actor = os.path.join(build, "tests/harness/actor")
        self.clock = os.path.join(beside, "libmoved_clock.so")
        self.bare = os.path.join(beside, "bare")
        self.counted = os.path.join(beside, "counted")
        self.storm = os.path.join(beside, "storm")
        self.without = os.path.join(beside, "libwithout.so")
        self.wexstat = os.path.join(build, "stat/wexstat")


class Arguments:
    def __init__(self, text, further=(), options=()):
        """`further`: names of scenarios that are not of the table; `options`: of this driver alone, with their words of help."""
        names = [scenario.name for scenario in TABLE] + list(further)
        parser = argparse.ArgumentParser(description=text)
        parser.add_argument("--build", required=True, help="the build tree")
        parser.add_argument("--budget", type=float, default=0, help="seconds; without it everything is tried")
        parser.add_argument("--scenario", action="append", choices=names, help="only this one")
        parser.add_argument("--only", default="", help="only what contains this text")
        parser.add_argument("--times", type=int, default=0, help="kills at random moments; 2000 without it, 30 with a budget")
        parser.add_argument("--skip", type=int, default=0, help="how many places to leave out, for a run that goes on")
        parser.add_argument("--seed", type=int, default=1)
        parser.add_argument("--result", help="a JSON file")
        parser.add_argument("--verbose", action="store_true")
        for option, meaning in options:
            parser.add_argument(option, action="store_true", help=meaning)
        options = parser.parse_args()
        self.__dict__.update(vars(options))
        self.scenarios = options.scenario or names
        self.tools = Tools(options.build, os.path.join(options.build, "tests/faults"))
        self.tools.story = (options.result or "/data/result") + ".lost"


class Outcome:
    def __init__(self, key, arguments):
        self.key, self.arguments = key, arguments
        self.begin = self.trying_since = time.monotonic()
        self.rows = {}
        self.problems = []

    def plan(self, scenario, calls, planned):
        self.rows[scenario.name] = {"what": scenario.what, "calls": calls, "planned": planned, "tried": 0, "injected": 0,
                                    "lost": 0, "reactions": collections.Counter()}
        print("%-16s %3d calls, %4d places" % (scenario.name, calls, planned), flush=True)

    def begin_trying(self):
        """The budget begins: what has to be done for any number of places is done."""
        self.trying_since = time.monotonic()

    def out_of_time(self):
        return self.arguments.budget and time.monotonic() - self.trying_since > self.arguments.budget

    def add(self, scenario, place, reaction, injected, problem):
        row = self.rows[scenario.name]
        row["tried"] += 1
        row["injected"] += 1 if injected else 0
        row["reactions"][reaction if injected else "not reached"] += 1
        if problem:
            row["lost"] += 1
            self.problems.append("%s, %s: %s" % (scenario.name, place, problem))
            print("FAILED " + self.problems[-1], flush=True)
        elif self.arguments.verbose:
            print("%6.1f s  %s, %s: %s" % (time.monotonic() - self.begin, scenario.name, place,
                                          reaction if injected else "not reached"), flush=True)

    def finish(self):
        seconds = time.monotonic() - self.begin
        total = collections.Counter()
        for name, row in self.rows.items():
            row["reactions"] = dict(row["reactions"])
            print("%-16s %4d of %4d tried, %4d injected, %d lost; %s" % (
                name, row["tried"], row["planned"], row["injected"], row["lost"],
                ", ".join("%s %d" % pair for pair in sorted(row["reactions"].items()))))
            for column in ("tried", "planned", "injected", "lost"):
                total[column] += row[column]
        print("%d of %d places tried in %.0f s, %d injected, %d lost" % (
            total["tried"], total["planned"], seconds, total["injected"], total["lost"]))
        if self.arguments.result:
            with open(self.arguments.result, "w") as file:
                json.dump({self.key: {"seconds": round(seconds), "total": dict(total), "scenarios": self.rows}}, file, indent=1)
        for problem in self.problems:
            print("FAILED " + problem)
        return 1 if self.problems or not total["injected"] else 0
