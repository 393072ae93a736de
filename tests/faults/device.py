"""The throw-away device of one run: the daemon, the services, and what is left behind. Only inside tools/sandbox."""
import collections
import ctypes
import fcntl
import mmap
import os
import re
import shutil
import signal
import socket
import struct
import time

BASE = "/data/f"                             # whatever the runs themselves write
DATABASE = "/tmp/vsd/0/wex/db"
THREADS = 7
CONNECTOR = 11

# Everything that the daemon and its services write.
TRACES = ["/tmp/wex", "/tmp/vsd", "/tmp/vsd_common", "/tmp/.wex_semphore_path", "/ovix", "/qx_cfg", "/data/.ovix",
          "/data/var", "/data/.wex_notify", "/data/.wex_notify_count", "/data/.wex_reboot", "/data/.wex_history",
          "/data/.wex_history.old", "/data/.wex_hang", "/data/.wex_hang.old", "/etc/wex", "/etc/wex_config",
          "/etc/cmdmap", "/etc/vsd", "/etc/rc.d", "/debug_time", "/core", "/dev/shm/UTILS-wex-shm-001",
          "/dev/shm/wex-status", "/dev/lsm", "/dev/mmapipc", BASE]

libc = ctypes.CDLL(None, use_errno=True)


def read(path):
    try:
        with open(path, "rb") as file:
            return file.read().decode(errors="replace")
    except OSError:
        return ""


def names(path):
    try:
        return os.listdir(path)
    except OSError:
        return []


def write(path, text, mode=0o644):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w") as file:
        file.write(text)
    os.chmod(path, mode)


def make_open_dir(path):
    os.makedirs(path, exist_ok=True)
    os.chmod(path, 0o777)


def remove(path):
    if os.path.isdir(path) and not os.path.islink(path):
        shutil.rmtree(path, ignore_errors=True)
    elif os.path.lexists(path):
        os.unlink(path)


def state_of(pid):
    """The letter of /proc/PID/stat, "" when the process is gone."""
    text = read("/proc/%d/stat" % pid)
    return text[text.rindex(")") + 2] if ")" in text else ""


def is_alive(pid):
    return state_of(pid) not in ("", "Z", "X")


def command_of(pid):
    return read("/proc/%d/cmdline" % pid).rstrip("\0").replace("\0", " ")


def send(pid, number):
    if pid <= 0:
        raise ValueError("no process")
    try:
        os.kill(pid, number)
    except ProcessLookupError:
        pass


# ---- Children -----------------------------------------------------------------------------------------------

ended = {}                                   # children that were reaped: their wait status


def reap():
    try:
        while True:
            pid, status = os.waitpid(-1, os.WNOHANG)
            if pid == 0:
                return
            ended[pid] = status
    except ChildProcessError:
        pass


def eventually(condition, seconds):
    """Asks until the condition holds or the time is over; what it said last."""
    end = time.monotonic() + seconds
    pause = 0.001
    while True:
        reap()
        if condition():
            return True
        if time.monotonic() >= end:
            return False
        time.sleep(pause)
        pause = min(2 * pause, 0.02)


def spawn(words, output="/dev/null"):
    """Starts a program with its signals as the kernel has them."""
    pid = os.fork()
    if pid == 0:
        try:
            for number in range(1, signal.NSIG):
                if number not in (signal.SIGKILL, signal.SIGSTOP, 32, 33):
                    signal.signal(number, signal.SIG_DFL)
            os.sched_setaffinity(0, {min(os.sched_getaffinity(0))})
            os.dup2(os.open("/dev/null", os.O_RDONLY), 0)
            os.dup2(os.open(output, os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o666), 1)
            os.dup2(1, 2)
            os.closerange(3, 64)
            os.execvp(words[0], words)
        finally:
            os._exit(127)
    ended.pop(pid, None)                     # another process had the number before
    return pid


def end(pid, seconds=10):
    """SIGKILL, and reaped when it is a child of ours."""
    send(pid, signal.SIGKILL)
    return eventually(lambda: not is_alive(pid), seconds)


# ---- The daemon ---------------------------------------------------------------------------------------------

class Daemon:
    def __init__(self, tools, without=""):
        """`without`: a measure against lost exits that it is to do without (without.c)."""
        self.tools = tools
        self.without = without
        self.pid = 0

    def start(self, before=()):
        """`before`: words of a tracer that stands beside the daemon, which is the process itself then."""
        libraries = self.tools.clock + (":" + self.tools.without if self.without else "")
        variables = ["LD_PRELOAD=" + libraries, "WEX_CLOCK=%s/clock" % BASE, "DATA_OVIX_DIR=" + BASE]
        if self.without:
            variables.append("WEX_WITHOUT=" + self.without)
        self.pid = spawn(["env"] + variables + [self.tools.daemon] if not before else
                         list(before) + [word for variable in variables for word in ("-E", variable)] + [self.tools.daemon],
                         output=BASE + "/printed")

    def running(self):
        reap()
        return self.pid > 0 and self.pid not in ended and is_alive(self.pid)

    def status(self):
        """How it ended, as a shell says it: a signal is negative."""
        status = ended.get(self.pid)
        return None if status is None else os.waitstatus_to_exitcode(status)

    def tasks(self):
        """The threads: id -> name."""
        found = {}
        for name in names("/proc/%d/task" % self.pid):
            text = read("/proc/%d/task/%s/comm" % (self.pid, name)).strip()
            if text:
                found[int(name)] = text
        return found

    def answers(self):
        """All threads run, process events arrive, and a client gets through."""
        if len(names("/proc/%d/task" % self.pid)) < THREADS or not self.hears_events():
            return False
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as client:
            try:
                client.connect("/tmp/wex/.wex")
            except OSError:
                return False
        return True

    def event_socket(self):
        """Its line of /proc/net/netlink, in words; [] when there is none."""
        for line in read("/proc/net/netlink").splitlines()[1:]:
            words = line.split()
            if int(words[1]) == CONNECTOR and int(words[2]) == self.pid and int(words[3], 16) & 1:
                return words
        return []

    def hears_events(self):
        return bool(self.event_socket())

    def dropped_events(self):
        """How many the kernel had no room for."""
        words = self.event_socket()
        return int(words[8]) if words else 0

    def stop(self):
        """All of its threads stand still until SIGCONT."""
        send(self.pid, signal.SIGSTOP)
        return eventually(lambda: all(read("/proc/%d/task/%d/stat" % (self.pid, task)).rpartition(")")[2][1:2] in "Tt"
                                      for task in self.tasks()), 20)

    def describe(self):
        """Whether it runs, where its threads wait, and what it has written."""
        waits = ["%s: %s" % (name, read("/proc/%d/task/%d/wchan" % (self.pid, task))) for task, name in self.tasks().items()]
        return "status %s, threads %s, events %s; %s" % (self.status(), waits, self.hears_events(),
                                                         read("/ovix/vsd/0/utils/wex/running_log1")[-300:])

    def wait_ready(self, seconds=20):
        """False when it ended, or does not answer in time."""
        eventually(lambda: not self.running() or self.answers(), seconds)
        return self.running() and self.answers()

    def kill(self):
        """Reaped: until then its lock may be held by a thread that is still ending."""
        if self.running():
            send(self.pid, signal.SIGKILL)
        eventually(lambda: self.pid == 0 or self.pid in ended, 20)

    def held(self):
        """What it holds that it could forget to give back; numbers are left out."""
        found = collections.Counter()
        for name in names("/proc/%d/fd" % self.pid):
            try:
                found["descriptor of " + plain(os.readlink("/proc/%d/fd/%s" % (self.pid, name)))] += 1
            except OSError:
                pass
        found["thread"] = len(names("/proc/%d/task" % self.pid))
        for name in names("/proc"):
            stat = read("/proc/%s/stat" % name) if name.isdigit() else ""
            if stat and stat[stat.rindex(")") + 2:].split()[:2] == ["Z", str(self.pid)]:
                found["zombie"] += 1
        for line in read("/proc/locks").splitlines():
            if line.split()[4] == str(self.pid):
                found["file lock"] += 1
        return found


def plain(text):
    return re.sub(r"[0-9]+", "N", text).replace(" (deleted)", "")


# ---- Services -----------------------------------------------------------------------------------------------

class Service:
    """A program under supervision. Each of its lives writes its process id before all else."""

    database = DATABASE

    def __init__(self, tools, name, options=("--register=RESTART", "--confirm"), last=("--hold",)):
        self.starts = "%s/%s.n" % (BASE, name)
        self.ready = "%s/%s.r" % (BASE, name)
        self.words = [tools.actor, "--count=" + self.starts, *options, "--ready=" + self.ready, *last]
        self.command = " ".join(self.words)
        self.pid = 0

    def start(self, before=()):
        self.pid = spawn(list(before) + self.words)

    def lives(self):
        """The process ids of its living instances."""
        pids = {int(line) for line in read(self.starts).split()}     # one may have come twice
        return [pid for pid in pids if is_alive(pid) and command_of(pid) == self.command]

    def is_up(self):
        """One instance lives, and its registration has been acted on."""
        living = self.lives()
        return len(living) == 1 and read(self.ready).strip() == str(living[0])

    def is_another(self):
        """One instance lives, another one than before. It may die while it is looked at."""
        living = self.lives()
        return len(living) == 1 and living[0] != self.pid

    def is_back(self):
        return self.is_another() and self.is_up()

    def is_filed(self):
        """One instance lives, another one than before, and the next daemon would know it."""
        living = self.lives()
        return len(living) == 1 and living[0] != self.pid and any(
            name.endswith(".%d" % living[0]) for name in names(self.database))

    def wrote_file(self):
        """The process `pid` has written its database file, in one piece."""
        return any(name.endswith(".%d" % self.pid) and read(self.database + "/" + name) for name in names(self.database))

    def follow(self):
        self.pid = (self.lives() or [0])[0]

    def kill(self, number=signal.SIGKILL):
        """Ends its living instance and remembers which one that was."""
        self.follow()
        if self.pid > 0:
            send(self.pid, number)
            eventually(lambda: not is_alive(self.pid), 10)


class Bare(Service):
    """A program of the third-part list, which does not register by itself."""

    def __init__(self, tools, name):
        self.path = "%s/%s" % (BASE, name)
        shutil.copy(tools.bare, self.path)
        write("/etc/wex/proc/" + name, self.path + " WEX_RESTART")
        self.starts = self.path + ".starts"
        self.words = [self.path]
        self.command = self.path
        self.pid = 0

    def is_up(self):
        """One instance lives, and its file is whole: a daemon that was killed as it wrote it leaves it empty."""
        living = self.lives()
        return len(living) == 1 and any(
            name.endswith(".%d" % living[0]) and read(DATABASE + "/" + name) for name in names(DATABASE))

    def is_filed(self):
        """Its file is the daemon's, which makes it a minute after a start; a later daemon finds the listed program itself."""
        return self.is_another()


# ---- The device ---------------------------------------------------------------------------------------------

class Clock:
    """The seconds that the daemon's time is ahead."""

    def __init__(self):
        write(BASE + "/clock", "\0" * mmap.PAGESIZE)
        with open(BASE + "/clock", "r+b") as file:
            self.page = mmap.mmap(file.fileno(), mmap.PAGESIZE)
        self.seconds = 0

    def move(self, seconds, daemon, thread):
        """The daemon's time goes on, and the thread of this name looks at it: a signal ends its wait."""
        self.seconds += seconds
        self.page[0:4] = struct.pack("i", self.seconds)
        for task, name in daemon.tasks().items():
            if name == thread:
                libc.tgkill(daemon.pid, task, signal.SIGALRM)    # its handler wakes the alarm thread, no more


def clean(services=()):
    for service in services:
        for pid in service.lives():
            end(pid)
    for path in TRACES:
        remove(path)
    for line in read("/proc/sysvipc/sem").splitlines()[1:]:
        libc.semctl(int(line.split()[1]), 0, 0)
    for path in (BASE, "/ovix", "/qx_cfg"):
        os.makedirs(path, exist_ok=True)
    ended.clear()


def left_files():
    """Names below the directories that wex writes to, without numbers. A client's end of a connection stays by rule."""
    found = collections.Counter()
    for top in ("/tmp", "/data", "/ovix", "/qx_cfg", "/etc/wex", "/etc/vsd", "/dev/shm"):
        for directory, below, files in os.walk(top):
            if directory == BASE or directory.startswith(BASE + "/"):
                below.clear()
                continue
            for name in files:
                if not name.startswith(".socket."):
                    found["file " + plain(os.path.join(directory, name))] += 1
    found["semaphore"] = len(read("/proc/sysvipc/sem").splitlines()) - 1
    return found


def lock_copy(path):
    """Puts a copy in the place of a file and locks it, as another process of the same program would hold it."""
    copy = path + ".held"
    shutil.copy(path, copy)
    file = open(copy, "r+b")
    fcntl.lockf(file, fcntl.LOCK_EX)
    os.rename(copy, path)
    return file
