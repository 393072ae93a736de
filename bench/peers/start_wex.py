"""start_wex.py WEX COUNT SERVICE TABLE: inside the throw-away root, becomes the daemon.

At its start the daemon starts again every process that has a file of its registration and is gone. COUNT such files,
with pids that do not exist, make it start COUNT services: the same work that the others do at their start.
"""
import mmap
import os
import struct
import sys
import time

FILES = "/tmp/vsd/0/wex/db"


def register(count, service, table):
    pid = int(open("/proc/sys/kernel/pid_max").read())
    for number in range(count):
        pid -= 1
        while os.path.exists("/proc/%d" % pid):
            pid -= 1
        with open("%s/%s.%d" % (FILES, os.path.basename(service), pid), "w") as file:
            file.write("%d\n2\n%s %s %d" % (pid, service, table, number))


def stamp(table):
    """What was done up to here is not the daemon's start."""
    with open(table, "r+b") as file, mmap.mmap(file.fileno(), 64) as head:
        struct.pack_into("=Q", head, 0, time.clock_gettime_ns(time.CLOCK_MONOTONIC))


if __name__ == "__main__":
    WEX, COUNT, SERVICE, TABLE = sys.argv[1], int(sys.argv[2]), sys.argv[3], sys.argv[4]
    os.makedirs(FILES)
    open("/wex_no_reboot", "w").close()
    register(COUNT, SERVICE, TABLE)
    stamp(TABLE)
    os.execv(WEX, [WEX])
