"""One row of a table: services and a daemon on a fresh device, what happens to them, and what went wrong."""
import device
from crew import Crew


class Trial:
    def __init__(self, sheet, without=""):
        self.tools, self.short = sheet.tools, sheet.options.short
        device.clean()
        device.Clock()
        self.crew = Crew(self.tools)
        self.daemon = device.Daemon(self.tools, without)
        self.problems = []
        self.down, self.twice = [], []

    def need(self, condition, what):
        if not condition:
            self.problems.append(what)
        return condition

    def start_daemon(self):
        self.daemon.start()
        return self.need(self.daemon.wait_ready(60), "the daemon does not start: " + self.daemon.describe())

    def live(self):
        """Start and suffering of the services; notes in `down` who did not come back."""
        raise NotImplementedError

    def run(self):
        try:
            self.live()
            self.twice = self.crew.too_many()
            self.need(not self.twice, "ran twice: %s" % self.twice)
        finally:
            self.daemon.kill()
            self.crew.end()
            device.clean()
