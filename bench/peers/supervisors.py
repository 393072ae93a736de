"""The supervisors that are compared: how each is configured and started. README.md says what a new one needs."""
import os
import shutil
import signal
import socket
import struct
import subprocess
import time

BASE = "/dev/shm/wex-bench"                  # on a tmpfs: no supervisor waits for a disk
TOOLS = os.path.join(BASE, "tools")
PEERS = os.path.join(BASE, "peers")          # unpacked packages; a layer of each throw-away root
SERVICE = os.path.join(TOOLS, "service")


def read(path):
    try:
        with open(path) as file:
            return file.read()
    except OSError:
        return ""


def descendants(root):
    children = {}
    for entry in os.listdir("/proc"):
        stat = read("/proc/%s/stat" % entry) if entry.isdigit() else ""
        if stat:
            parent = int(stat[stat.rindex(")") + 2:].split()[1])
            children.setdefault(parent, []).append(int(entry))
    found, left = [], [root]
    while left:
        for child in children.get(left.pop(), []):
            found.append(child)
            left.append(child)
    return found


def is_service(pid):
    """What is gone or a zombie is no supervisor's either."""
    try:
        return os.path.samefile("/proc/%d/exe" % pid, SERVICE)
    except OSError:
        return True


def find_program(name):
    """Where a program is inside the throw-away root: in an unpacked package, or on this machine."""
    for folder in ("/usr/bin", "/usr/sbin"):
        if os.access(PEERS + os.path.join(folder, name), os.X_OK):
            return os.path.join(folder, name)
    return shutil.which(name)


def version_of(package):
    for line in read(os.path.join(PEERS, "versions")).splitlines():
        if line.split()[0] == package:
            return "Debian " + line.split()[1]
    asked = subprocess.run(["dpkg-query", "-W", "-f", "${Version}", package], stdout=subprocess.PIPE,
                           stderr=subprocess.DEVNULL, check=False)
    return "Debian " + asked.stdout.decode() if asked.returncode == 0 else "?"


class Supervisor:
    name = "?"
    kind = "peer"                            # floor, peer or wex
    program = None                           # without it the supervisor is skipped
    package = None
    how = ""                                 # the configuration measured: the fastest that is allowed
    rest_s = 1.3                             # services run so long first: many make one wait that died within a second
    kills = 80                               # in one round of the latency measurement
    rounds = 99                              # most rounds of it
    limit_s = 5.0                            # how long one service may take to come back
    mass_limit_s = 15.0
    mass_repeats = 3
    start_limit_s = 30.0
    phase_s = 0.0                            # a random pause before each kill, for those that look once in a while
    most = 1000                              # services
    storms = True                            # measured while strangers fork
    starts_them = True                       # starts its services itself

    def __init__(self):
        self.folder = os.path.join(BASE, "run", self.name)
        self.process = None
        self.table = None

    def available(self):
        return self.program is None or find_program(self.program) is not None

    def version(self):
        return version_of(self.package) if self.package else ""

    def prepare(self, count, table):
        """Writes the configuration of count services; returns the supervisor's words."""
        raise NotImplementedError

    def environment(self, table):
        return {"BENCH_TABLE": table.path}

    def requests(self):
        """What the control channel is asked: a label, and the words of tools/load behind the milliseconds."""
        return None

    def start(self, count, table):
        shutil.rmtree(self.folder, ignore_errors=True)
        os.makedirs(self.folder)
        self.table = table
        words = self.prepare(count, table)
        environment = dict(PATH="/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", HOME="/root", LANG="C")
        environment.update(self.environment(table))
        with open(os.path.join(self.folder, "log"), "ab") as log:
            self.process = subprocess.Popen([os.path.join(TOOLS, "leash"), table.path, BASE, "--", *words],
                                            cwd=self.folder, env=environment, stdin=subprocess.DEVNULL, stdout=log,
                                            stderr=log)

    def pids(self):
        """Every process below the leash that is not a service."""
        return [pid for pid in descendants(self.process.pid) if not is_service(pid)]

    def root(self):
        return "/proc/%d/root" % self.pids()[0]

    def stop(self):
        if self.process is None:
            return
        self.process.send_signal(signal.SIGTERM)
        try:
            self.process.wait(30)
        finally:
            self.process = None
            shutil.rmtree(self.folder, ignore_errors=True)


# ---- Floors --------------------------------------------------------------------------------------------------

class FloorWait(Supervisor):
    name = "floor-wait"
    kind = "floor"
    how = "a C program of our own: waitpid, vfork, exec"
    way = "wait"

    def prepare(self, count, table):
        return [os.path.join(TOOLS, "floor"), self.way, str(count), SERVICE, table.path]


class FloorConnector(FloorWait):
    name = "floor-connector"
    how = "the same, told of deaths by the process connector, as wex is"
    way = "connector"


# ---- A folder for each service -------------------------------------------------------------------------------

class Folders(Supervisor):
    """One process watches a folder of folders, and one more watches each service."""

    def prepare(self, count, table):
        services = os.path.join(self.folder, "services")
        os.makedirs(services)
        for number in range(count):
            folder = os.path.join(services, "s%04d" % number)
            os.mkdir(folder)
            os.symlink(SERVICE, os.path.join(folder, "run"))
            self.add(folder)
        # Such a folder is normally older than who watches it; some wait a second for one that is new.
        os.utime(services, (time.time() - 60,) * 2)
        return [*self.words, services]

    def add(self, folder):
        pass


class BareFolders(Folders):
    most = 999
    how = "./run is the service itself, no shell"


class Runit(BareFolders):
    name = package = "runit"
    program = "runsvdir"
    words = ["runsvdir"]


class S6(Folders):
    name = package = "s6"
    program = "s6-svscan"
    words = ["s6-svscan", "-c", "1100"]
    how = "./run is the service itself; it notifies that it is ready (else each restart waits a second)"

    def add(self, folder):
        with open(os.path.join(folder, "notification-fd"), "w") as file:
            file.write("3\n")

    def environment(self, table):
        return dict(super().environment(table), BENCH_READY_FD="3")


class Daemontools(BareFolders):
    name = package = "daemontools"
    program = "svscan"
    words = ["svscan"]


# ---- One process for all -------------------------------------------------------------------------------------

class Dinit(Supervisor):
    name = program = "dinit"
    how = "restart-delay = 0, restart-limit-count = 0, smooth-recovery = true"

    def version(self):
        said = subprocess.run([find_program("dinit"), "--version"], stdout=subprocess.PIPE, check=False)
        return said.stdout.decode().splitlines()[0]

    def prepare(self, count, table):
        services = os.path.join(self.folder, "services")
        os.makedirs(services)
        for number in range(count):
            with open(os.path.join(services, "s%04d" % number), "w") as file:
                file.write("type = process\ncommand = %s %s %d\nrestart = true\nsmooth-recovery = true\n"
                           "restart-delay = 0\nrestart-limit-count = 0\n" % (SERVICE, table.path, number))
        with open(os.path.join(services, "boot"), "w") as file:
            file.write("type = internal\n" + "".join("waits-for: s%04d\n" % number for number in range(count)))
        return [find_program("dinit"), "-u", "-q", "-d", services, "-p", self.socket(), "boot"]

    def socket(self):
        return os.path.join(self.folder, "control")

    def requests(self):
        """The status of a service, by the handle that a first request gives."""
        find = bytes([1]) + struct.pack("<H", 5) + b"s0000"
        with socket.socket(socket.AF_UNIX) as connection:
            connection.settimeout(3)
            connection.connect(self.socket())
            connection.sendall(find)
            status = bytes([26]) + connection.recv(7)[2:6]
            connection.sendall(status)
            time.sleep(0.1)
            length = len(connection.recv(256))
        return "status of a service", [self.socket()], ["stream", status.hex(), str(length), find.hex(), "7"]


class Supervisord(Supervisor):
    name = package = "supervisor"
    program = "supervisord"
    kills = 10
    mass_limit_s = 40.0
    mass_repeats = 1
    storms = False
    how = "autorestart=true, startsecs=0, no log files"

    def prepare(self, count, table):
        configuration = os.path.join(self.folder, "configuration")
        with open(configuration, "w") as file:
            file.write("""[unix_http_server]
file=%(folder)s/control
[supervisord]
logfile=%(folder)s/its.log
loglevel=warn
pidfile=%(folder)s/its.pid
nodaemon=true
minfds=8192
user=root
[rpcinterface:supervisor]
supervisor.rpcinterface_factory = supervisor.rpcinterface:make_main_rpcinterface
[program:s]
command=%(service)s %(table)s %%(process_num)d
process_name=s%%(process_num)04d
numprocs=%(count)d
autostart=true
autorestart=true
startsecs=0
stdout_logfile=NONE
stderr_logfile=NONE
""" % dict(folder=self.folder, service=SERVICE, table=table.path, count=count))
        return ["/usr/bin/python3", find_program(self.program), "-n", "-c", configuration]

    def requests(self):
        body = ("<?xml version='1.0'?><methodCall><methodName>supervisor.getProcessInfo</methodName><params><param>"
                "<value><string>s:s0000</string></value></param></params></methodCall>")
        request = ("POST /RPC2 HTTP/1.1\r\nHost: localhost\r\nContent-Type: text/xml\r\nContent-Length: %d\r\n\r\n%s"
                   % (len(body), body)).encode()
        return "status of a service", [os.path.join(self.folder, "control")], ["http", request.hex(), "0"]


class Monit(Supervisor):
    name = package = program = "monit"
    kills = 10
    rounds = 2
    limit_s = 20.0
    phase_s = 1.2
    mass_limit_s = 30.0
    mass_repeats = 1
    start_limit_s = 90.0
    storms = False
    starts_them = False
    how = "looks at pid files once a second (the shortest), services detach"

    def prepare(self, count, table):
        """The services run before it does: it starts two a second."""
        configuration = os.path.join(self.folder, "configuration")
        with open(configuration, "w") as file:
            file.write("set daemon 1\nset log %(folder)s/its.log\nset idfile %(folder)s/id\n"
                       "set statefile %(folder)s/state\nset pidfile %(folder)s/its.pid\n"
                       "set httpd unixsocket %(folder)s/control\n  allow localhost\n" % dict(folder=self.folder))
            for number in range(count):
                pidfile = "%s/p%d" % (self.folder, number)
                file.write("check process s%04d with pidfile %s\n"
                           '  start program = "%s %s %d -d %s" with timeout 5 seconds\n'
                           "  if does not exist then start\n"
                           % (number, pidfile, SERVICE, table.path, number, pidfile))
        os.chmod(configuration, 0o600)
        return ["/bin/sh", "-c", "i=0; while [ $i -lt %d ]; do %s %s $i -d %s/p$i; i=$((i + 1)); done; "
                "exec monit -I -c %s" % (count, SERVICE, table.path, self.folder, configuration)]

    def requests(self):
        request = b"GET /_status?format=text&service=s0000 HTTP/1.0\r\nHost: localhost\r\n\r\n"
        return "status of a service", [os.path.join(self.folder, "control")], ["once", request.hex(), "0"]


# ---- wex -----------------------------------------------------------------------------------------------------

class Wex(Supervisor):
    """It counts its own first start of a program, too, and parks a program at the fifth within two minutes: no service
    is killed more than three times in one run."""
    name = "wex"
    kind = "wex"
    how = "as it ships, pauses of 1 ms"
    binary = None                            # set by compare.py
    client_library = None

    def available(self):
        return self.binary is not None and os.access(self.binary, os.X_OK)

    def prepare(self, count, table):
        binary = os.path.join(TOOLS, self.name)
        shutil.copy2(self.binary, binary)
        start = os.path.join(TOOLS, "start_wex.py")
        shutil.copy2(os.path.join(os.path.dirname(os.path.abspath(__file__)), "start_wex.py"), start)
        return ["/usr/bin/python3", "-S", start, binary, str(count), SERVICE, table.path]

    def requests(self):
        """The registration of a process that is registered already, which changes nothing."""
        request = struct.pack("<Ii", 1, 320).ljust(268, b"\0") + struct.pack("<i", self.table.pid(0)).ljust(320, b"\0")
        return "registration, acknowledged", [self.root() + "/tmp/wex/.wex"], ["seqpacket", request.hex(), "268"]


class WexWithoutPauses(Wex):
    name = "wex-no-pauses"
    how = "built with both pauses 0"


ALL = [FloorWait, FloorConnector, Runit, S6, Daemontools, Dinit, Supervisord, Monit, Wex, WexWithoutPauses]
