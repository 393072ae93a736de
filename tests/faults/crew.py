"""Services that are counted from outside (counted.c): by the book of all lives, and by the locks of those that live.

A service owes one life for each of its deaths. It is back when the last of them has the lock; a life too many, or one
that found the lock taken, is a service that ran twice.
"""
import collections
import json
import os
import shutil
import signal
import subprocess
import time

import device
from device import BASE

BOOK = BASE + "/book"
LOCKS = BASE + "/locks"
PR_SET_CHILD_SUBREAPER = 36


class Crew:
    def __init__(self, tools):
        device.libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)    # or nobody reaps what a killed daemon leaves behind
        os.makedirs(LOCKS, exist_ok=True)
        self.tools = tools
        self.words = {}                      # how a service is started
        self.lives = collections.defaultdict(list)               # its process ids, one a life
        self.due = collections.Counter()     # how many lives it must have had by now
        self.ready = {}                      # the process that has registered
        self.twins = []
        self.holders = {}
        self.files = {}                      # of their locks
        self.read_to = 0

    def add(self, name, *words):
        """A service that registers itself."""
        self.words[name] = [self.tools.counted, name, *words]

    def add_listed(self, name, *words):
        """A program of the third-part list, which does not."""
        path = "%s/%s" % (BASE, name)
        shutil.copy(self.tools.counted, path)
        device.write("/etc/wex/proc/" + name, " ".join([path, *words]) + " WEX_RESTART")
        self.words[name] = [path, *words]

    def start(self, *names):
        for name in names or self.words:
            self.due[name] += 1
            device.spawn(self.words[name])

    # ---- What is seen from outside ----

    def look(self):
        self.read_book()
        by_file = {}
        for line in device.read("/proc/locks").splitlines():
            words = line.split()
            if words[1] == "FLOCK":
                by_file[words[5]] = int(words[4])
        self.holders = {name: by_file.get(self.file(name), 0) for name in self.words}

    def read_book(self):
        try:
            with open(BOOK, "rb") as book:
                book.seek(self.read_to)
                text = book.read()
        except FileNotFoundError:
            return
        whole = text[:text.rfind(b"\n") + 1]
        self.read_to += len(whole)
        for line in whole.decode().splitlines():
            name, pid, what = line.split()
            if what == "ready":
                self.ready[name] = int(pid)
                continue
            self.lives[name].append(int(pid))
            if what == "twin":
                self.twins.append(line)

    def file(self, name):
        """Of its lock, as /proc/locks names it: with the file system, for another private device has the same inodes."""
        if name not in self.files:
            try:
                facts = os.stat("%s/%s" % (LOCKS, name))
            except FileNotFoundError:
                return None
            self.files[name] = "%02x:%02x:%d" % (os.major(facts.st_dev), os.minor(facts.st_dev), facts.st_ino)
        return self.files[name]

    def pid(self, name):
        """Of its living instance, or 0."""
        return self.holders.get(name, 0)

    def is_up(self, name):
        lives = self.lives[name]
        return len(lives) >= self.due[name] and bool(lives) and self.pid(name) == lives[-1]

    def is_ready(self, name):
        return self.is_up(name) and self.ready.get(name) == self.lives[name][-1]

    def down(self, names=None):
        self.look()
        return [name for name in names or self.words if not self.is_up(name)]

    def all_gone(self, names):
        """Who is killed has its lock a little longer: another life that begins then finds it taken."""
        self.look()
        return not any(self.pid(name) for name in names)

    def all_up(self, seconds, names=None):
        return device.eventually(lambda: not self.down(names), seconds)

    def all_ready(self, seconds, names=None):
        def ready():
            self.look()
            return all(self.is_ready(name) for name in names or self.words)
        return device.eventually(ready, seconds)

    def all_supervised(self, seconds, names=None):
        """Up, and the daemon shows each of them as running."""
        def done():
            known = supervised(self.tools)
            return not self.down(names) and all(self.pid(name) in known for name in names or self.words)
        return device.eventually(done, seconds)

    def unsupervised(self, names=None):
        known = supervised(self.tools)
        self.look()
        return [name for name in names or self.words if self.pid(name) not in known]

    def too_many(self):
        """Names of services that have begun another life though none had ended, and of those that ran twice."""
        surplus = ["%s: %d lives instead of %d" % (name, len(self.lives[name]), self.due[name])
                   for name in self.words if len(self.lives[name]) > self.due[name]]
        return self.twins + surplus

    # ---- What happens to it ----

    def kill(self, name, number=signal.SIGKILL, comes_back=True):
        """Ends the living instance, as of the last look. False when there is none."""
        pid = self.pid(name)
        if pid <= 0:
            return False
        self.due[name] += 1 if comes_back else 0
        device.send(pid, number)
        return True

    def kill_all(self, over=0.0, names=None):
        """One after the other, spread over so many seconds."""
        self.look()
        names = list(names or self.words)
        for name in names:
            self.kill(name)
            time.sleep(over / len(names))

    def end(self):
        """Nothing of it is left. The daemon has gone before."""
        def gone():
            self.look()
            for pid in self.holders.values():
                if pid > 0:
                    device.send(pid, signal.SIGKILL)
            return not any(self.holders.values())
        device.eventually(gone, 20)


def status(tools):
    """What the daemon shows of itself; {} when there is nothing to be read."""
    answer = subprocess.run([tools.wexstat, "--json"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=False)
    try:
        return json.loads(answer.stdout)
    except ValueError:
        return {}


def counter(tools, name):
    return status(tools).get("counters", {}).get(name, 0)


def supervised(tools):
    """The process ids of all registrations that run."""
    return {row["pid"] for row in status(tools).get("registrations", []) if row["state"] == "running"}
