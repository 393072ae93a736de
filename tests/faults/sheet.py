"""The command line of the drivers that show one table of figures, and what they print and write."""
import argparse
import json
import sys
import time

from report import Tools


class Sheet:
    def __init__(self, text, key, caption, columns):
        parser = argparse.ArgumentParser(description=text)
        parser.add_argument("--build", required=True, help="the build tree")
        parser.add_argument("--short", action="store_true", help="in seconds instead of minutes")
        parser.add_argument("--only", default="", help="only rows whose name contains this text")
        parser.add_argument("--deaths", type=int, help="of the soak, in place of 20,000")
        parser.add_argument("--seed", type=int, default=1)
        parser.add_argument("--result", help="a JSON file")
        self.options = parser.parse_args()
        self.tools = Tools(self.options.build, self.options.build + "/tests/faults")
        self.key, self.caption, self.columns = key, caption, columns
        self.begin = time.monotonic()
        self.rows, self.problems = [], []

    def wants(self, name):
        return self.options.only in name

    def add(self, row, problems):
        """`row`: one value for each column."""
        self.rows.append(row)
        print("%5.1f s  %s" % (time.monotonic() - self.begin, ", ".join(
            "%s: %s" % pair for pair in zip(self.columns, row))), flush=True)
        for problem in problems:
            self.problems.append("%s: %s" % (row[0], problem))
            print("FAILED " + self.problems[-1], flush=True)

    def finish(self):
        seconds = round(time.monotonic() - self.begin)
        if self.options.result:
            with open(self.options.result, "w") as file:
                json.dump({self.key: {"seconds": seconds, "caption": self.caption, "columns": self.columns, "rows": self.rows}},
                          file, indent=1)
        print("%d rows in %d s, %d problems" % (len(self.rows), seconds, len(self.problems)))
        for problem in self.problems:
            print("FAILED " + problem)
        sys.exit(1 if self.problems or not self.rows else 0)
