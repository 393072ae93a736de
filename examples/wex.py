"""Supervision by wex for services written in Python, through libwex.so.1.

    import wex

    with wex.registered():               # started again however it dies, left alone after the block
        with wex.Heartbeat() as heart:   # ten minutes without a beat of this thread, and the service is aborted
            while work():
                heart.beat()

wex looks once a minute whether there was a beat. At the end of a whole period without one it counts down, and aborts
the service at the last: five periods of two minutes here. The main thread needs a heartbeat of its own, or no other
one counts.
"""
import contextlib
import ctypes
import os
import threading

_library = ctypes.CDLL("libwex.so.1")
_library.reg_process_exit_action.argtypes = (ctypes.c_int32, ctypes.c_uint32)
_library.reg_process_exit_action_shell.argtypes = (ctypes.c_int32, ctypes.c_uint32, ctypes.c_char_p)
_library.wex_time_set.argtypes = (ctypes.c_int32, ctypes.c_uint32, ctypes.c_int32)
_library.wex_cancel_proc.argtypes = (ctypes.c_int32,)
for _name in ("wex_client_reg_thread_notify", "wex_client_reset_thread_notify"):
    getattr(_library, _name).argtypes = (ctypes.c_int32,) * 4
_library.wex_client_unreg_thread_notify.argtypes = (ctypes.c_int32,)

_RESTART, _SHELL_RESTART = 1, 2
TEN_MINUTES, TWELVE_MINUTES = 120, 181  # how long a thread may be silent


def register(script=None, delay=0):
    """Has wex start this process again when it ends, by `script` of the command map when one is given.

    Waits for the daemon, up to three minutes; with a script, not. `delay` seconds pass before each restart (main
    system only). False when nothing could be sent.
    """
    if delay > 0:
        _library.wex_time_set(0, _SHELL_RESTART if script else _RESTART, delay)
    if script is None:
        return _library.reg_process_exit_action(0, _RESTART) == 0
    return _library.reg_process_exit_action_shell(0, _SHELL_RESTART, os.fsencode(script)) == 0


def cancel():
    """Withdraws this process: its end is nobody's concern from here on."""
    return _library.wex_cancel_proc(0) == 0


@contextlib.contextmanager
def registered(script=None, delay=0):
    """Registered inside the block; withdrawn behind it, and by SystemExit, but not by an error."""
    register(script, delay)
    try:
        yield
    except Exception:
        raise  # ends as a crash: wex starts us again
    except BaseException:
        cancel()
        raise
    cancel()


class Heartbeat:
    """One for a thread, made and used by that thread."""

    def __init__(self, patience=TEN_MINUTES):
        self._period = patience
        self._thread = threading.get_native_id()
        self.watched = self._call(_library.wex_client_reg_thread_notify)

    def _call(self, function):
        return function(os.getpid(), self._thread, self._period, 1) == 0

    def beat(self):
        """One sign of life. Registers again by itself when the daemon has been restarted."""
        self.watched = self._call(_library.wex_client_reset_thread_notify)
        return self.watched

    def close(self):
        _library.wex_client_unreg_thread_notify(self._thread)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()
