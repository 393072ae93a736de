"""What the daemon does in its life, one after the other: each row prepares a device, acts, and says what the end of it is.

An act is short, so that few calls belong to it. Services whose `kept` is set must be there after it, each once, whatever
has failed meanwhile.
"""
import os
import signal

import device
from device import BASE, Bare, Service, make_open_dir, read, write


def has_flag_file(domain, service):
    return any(os.path.exists("/tmp/vsd/%d/wex/%d" % (domain, pid)) for pid in service.lives())


class Scenario:
    name = ""
    what = ""                                # one line for the table
    from_start = False                       # the act is the daemon's start
    traced = "daemon"                        # or "client", or "command": then act() has the tracer's words
    settle_s = 1.0                           # how long the act takes at the most when nothing fails
    dies_with = ()                           # statuses by which the daemon may end, beside those of every scenario

    def __init__(self, tools):
        self.tools = tools
        self.clock = None                    # set by the run
        self.replaced = False                # whether another daemon came after the first one
        self.services = []
        self.gone = []                       # services that must not come back

    def service(self, name="a", **options):
        made = Service(self.tools, name, **options)
        self.services.append(made)
        return made

    def before_daemon(self):
        """Files that lie there when the daemon starts."""

    def prepare(self, daemon):
        for service in self.services:
            service.start()
        for service in self.services:
            if not device.eventually(service.is_up, 20):
                raise RuntimeError("%s: %s did not come up" % (self.name, service.command))

    def act(self, daemon):
        """What is failing while it is done."""

    def settled(self):
        return all(service.is_up() for service in self.services)

    def hasten(self, daemon, clock):
        """Called again and again while it is not settled, when the tracer has gone: a minute passes."""
        for thread in ("wex_delay_resta", "wex_thread_noti"):
            clock.move(31, daemon, thread)


class Restart(Scenario):
    name, what = "restart", "a registered program is killed"

    def before_daemon(self):
        self.service()

    def act(self, daemon):
        for service in self.services:
            service.kill()

    def settled(self):
        return all(service.is_back() for service in self.services)


class ScriptRestart(Restart):
    name, what = "script", "the same, restarted by its script"

    def before_daemon(self):
        self.service(options=("--register=SHELL", "--confirm"))
        write("/etc/cmdmap/actor.sh", 'exec %s "$@"\n' % self.tools.actor, 0o755)


class ThirdPart(Restart):
    name, what = "third-part", "a listed program, which does not register itself, is killed"

    def before_daemon(self):
        self.services.append(Bare(self.tools, "b%d" % os.getpid()))    # looked for by its name on the whole machine


class HandOver(ThirdPart):
    name, what = "hand-over", "a listed program detaches: its child goes on, the registration is handed over to that"

    def act(self, daemon):
        """Its child lives by then, for the process that is registered ends behind the fork."""
        service = self.services[0]
        service.follow()
        device.send(service.pid, signal.SIGUSR1)
        device.eventually(lambda: not device.is_alive(service.pid), 10)


class DomainRestart(Restart):
    name, what = "domain-restart", "a program of a domain is killed"

    def before_daemon(self):
        make_domain(13)
        self.service(options=("--group=4300", "--register=RESTART", "--confirm")).database = "/tmp/vsd/13/wex/db"

    def settled(self):
        return super().settled() and has_flag_file(13, self.services[0])


class Registration(Scenario):
    name, what = "registration", "a program registers"

    def before_daemon(self):
        self.service()

    def prepare(self, daemon):
        pass

    def act(self, daemon):
        self.services[0].start()


class Client(Registration):
    name, what = "client", "the same, with the calls of the program failing"
    traced = "client"
    settle_s = 10.0


class Parking(Restart):
    name, what = "parking", "the fifth exit within 120 s, and the alarm a second later"
    settle_s = 3.0

    def before_daemon(self):
        self.service()

    def prepare(self, daemon):
        super().prepare(daemon)
        for _ in range(4):
            self.services[0].kill()
            if not device.eventually(self.services[0].is_back, 20):
                raise RuntimeError("no restart")


class Postponing(Restart):
    name, what = "postponing", "an exit while somebody holds the database file, which is then released"
    settle_s = 3.0

    def before_daemon(self):
        self.service()

    def act(self, daemon):
        service = self.services[0]
        service.follow()
        holder = device.lock_copy("%s/actor.%d" % (device.DATABASE, service.pid))
        service.kill()
        device.eventually(service.is_back, 0.1)
        holder.close()


class Cancel(Scenario):
    name, what = "cancel", "a registration is taken back"
    settle_s = 2.0

    def before_daemon(self):
        self.cancelled = Service(self.tools, "c", last=(
            "--wait-for=%s/go" % BASE, "--cancel", "--confirm", "--ready=%s/cancelled" % BASE, "--hold"))
        self.gone.append(self.cancelled)

    def prepare(self, daemon):
        self.cancelled.start()
        device.eventually(self.cancelled.is_up, 20)

    def act(self, daemon):
        write(BASE + "/go", "")

    def settled(self):
        return os.path.exists(BASE + "/cancelled")


class Start(Scenario):
    name, what = "start", "the first start"
    from_start = True
    settle_s = 5.0

    def prepare(self, daemon):
        pass


class StartWithTheDead(Restart):
    name, what = "start-again", "a start with the files of two programs, one of which has died"
    from_start = True
    settle_s = 5.0

    def before_daemon(self):
        self.service("a")
        self.service("b")

    def act(self, daemon):
        self.services[0].kill()

    def settled(self):
        return self.services[0].is_filed() and self.services[1].is_up()


class Hang(Restart):
    name, what = "hang", "a thread falls silent, its process is aborted at the tenth look"
    settle_s = 3.0

    def before_daemon(self):
        self.service(options=("--register=RESTART", "--register-main-thread=7", "--thread=60", "--sleep=200", "--hang",
                              "--confirm"))

    def act(self, daemon):
        self.services[0].follow()
        for _ in range(14):
            self.clock.move(61, daemon, "wex_thread_noti")
            if device.eventually(self.services[0].is_back, 0.05):
                return

    def settled(self):
        """A daemon that follows another one knows no threads: the program goes on."""
        return super().settled() or (self.replaced and self.services[0].is_up())


class Reboot(Restart):
    name, what = "reboot", "a core dump that is one too many: the restart of the device is asked for, and refused"
    settle_s = 4.0

    def before_daemon(self):
        write("/etc/wex_config", "900 1\n")
        self.service(options=("--core", "--register=RESTART", "--confirm"))

    def act(self, daemon):
        self.services[0].kill(11)

    def asked(self):
        """A daemon that is killed before it has asked takes its count of crashes with it."""
        told = read("/data/.wex_reboot") + read("/ovix/vsd/0/utils/wex/running_log1")    # where one cannot be written
        return self.replaced or "process exit in shorttime" in told

    def settled(self):
        return super().settled() and self.asked()

    def hasten(self, daemon, clock):
        """A rule that could not be read is the usual one, by which one program is not enough. It is read at the next crash."""
        super().hasten(daemon, clock)
        if not self.asked() and self.services[0].is_up():
            self.services[0].kill(11)


class DomainCommand(Scenario):
    """A command line that starts or takes down a domain; an operator repeats it when it has failed."""
    traced = "command"
    settle_s = 4.0

    def before_daemon(self):
        for path in ("/qx_cfg/vsd", "/ovix/vsd", "/data/.ovix/vsd", "/etc/vsd", "/tmp/vsd", "/data/var/run/vsd"):
            make_open_dir(path)
        self.service("m")                    # of the main system: it must not notice
        self.inside = Service(self.tools, "d")
        self.inside.database = "/tmp/vsd/1/wex/db"
        write("/etc/rc.d/rc.vsd/20service", "#!/bin/sh\n%s &\n" % " ".join(self.inside.words), 0o755)
        self.tool = 0
        self.done = False

    def command(self, *words, before=()):
        """Its sleeps take a tenth of their time."""
        variables = ["LD_PRELOAD=" + self.tools.clock, "WEX_HURRY=1"]
        start = ["env", *variables] if not before else list(before) + [word for one in variables for word in ("-E", one)]
        self.tool = device.spawn([*start, self.tools.daemon, *words])

    def ended(self):
        return self.tool in device.ended

    def wait_for_command(self):
        if not device.eventually(self.ended, 30):
            raise RuntimeError("a command does not end")

    def run_command(self, *words):
        self.command(*words)
        self.wait_for_command()

    def reached(self):
        """What the command is for."""

    def again(self):
        """What an operator does when it was not reached."""

    def settled(self):
        self.done = self.ended() and self.reached() and super().settled()
        return self.done

    def hasten(self, daemon, clock):
        """A command that could not load the clock which hurries it takes all of its 15 s."""
        if self.done:
            super().hasten(daemon, clock)
        elif device.eventually(self.ended, 30) and not self.settled():
            self.again()


class DomainStart(DomainCommand):
    name, what = "domain-start", "a domain is started, with the calls of the command failing"

    def act(self, daemon, before=()):
        self.services.append(self.inside)
        self.command("-c", "1", before=before)

    def reached(self):
        """Not before the daemon has acted on its registration: killed while it writes its file, it need not come back."""
        return self.inside.is_up() and self.inside.is_filed() and has_flag_file(1, self.inside)

    def again(self):
        """One that did not get the group of its domain is of the main system, and no take-down looks for it. It is
        ended while the take-down goes on, for then nothing is restarted."""
        self.command("-d", "1")
        device.eventually(lambda: self.ended() or os.path.exists("/tmp/vsd/1/delete_vsd"), 30)
        for pid in self.inside.lives():
            device.end(pid)
        self.wait_for_command()
        self.inside.pid = 0
        self.run_command("-c", "1")


class TakeDown(DomainCommand):
    name, what = "take-down", "a domain with one program is taken down"
    traced = "daemon"

    def prepare(self, daemon):
        super().prepare(daemon)
        self.run_command("-c", "1")
        if not device.eventually(self.inside.is_up, 20):
            raise RuntimeError("the service of the domain did not come up")

    def act(self, daemon, before=()):
        self.gone.append(self.inside)
        self.command("-d", "1", before=before)

    def reached(self):
        return not os.path.exists("/tmp/vsd/1") and not self.inside.lives()

    def again(self):
        self.run_command("-d", "1")


class DomainTakeDown(TakeDown):
    name, what = "domain-take-down", "a domain is taken down, with the calls of the command failing"
    traced = "command"


def make_domain(number):
    for path in ("/tmp/vsd/%d/wex/db", "/data/var/run/vsd/%d", "/qx_cfg/vsd/%d", "/ovix/vsd/%d", "/data/.ovix/vsd/%d"):
        path = path % number
        make_open_dir(path)
        make_open_dir(os.path.dirname(path))


TABLE = [Start, StartWithTheDead, Registration, Client, Restart, ScriptRestart, ThirdPart, HandOver,
         DomainRestart, Parking, Postponing, Cancel, Hang, Reboot, DomainStart, TakeDown, DomainTakeDown]
