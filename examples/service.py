#!/usr/bin/python3
"""A service in Python with wex.py: the main thread beats, SIGTERM ends it in good order."""
import signal
import sys
import time

import wex


def stop(_signal, _frame):
    sys.exit(0)


signal.signal(signal.SIGTERM, stop)
with wex.registered(), wex.Heartbeat() as heart:
    while True:
        time.sleep(0.2)  # one piece of work
        heart.beat()
