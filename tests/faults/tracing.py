"""strace: what a scenario calls, and calls that fail as they are told to."""
import collections
import re
import signal

from device import BASE, end, eventually, is_alive, read, remove, send, spawn

TRACE = BASE + "/trace"
SAID = BASE + "/strace"

# What the manual names for each call and a kernel can give. Two or three: one that is repeated, one that is not.
ERRORS = {
    "open": ["EMFILE", "EIO"], "openat": ["EMFILE", "ENOMEM"], "read": ["EIO", "EINTR"], "pread64": ["EIO"],
    "write": ["ENOSPC", "EINTR"], "pwrite64": ["ENOSPC"], "lseek": ["EINVAL"],
    "stat": ["ENOMEM"], "lstat": ["ENOMEM"], "fstat": ["ENOMEM"], "newfstatat": ["ENOMEM"], "statx": ["ENOMEM"],
    "statfs": ["EIO"], "readlink": ["EIO"], "readlinkat": ["EIO"], "access": ["EIO"], "faccessat2": ["EIO"],
    "unlink": ["EIO", "EROFS"], "unlinkat": ["EIO", "EROFS"], "rmdir": ["EBUSY"], "rename": ["ENOSPC"],
    "renameat": ["ENOSPC"], "link": ["ENOSPC"], "mkdir": ["ENOSPC"], "mkdirat": ["ENOSPC"], "chmod": ["EROFS"],
    "fchmod": ["EROFS"], "chdir": ["ENOMEM"], "fchdir": ["EIO"], "getdents64": ["EIO"], "ftruncate": ["ENOSPC", "EINTR"],
    "fsync": ["EIO"], "ioctl": ["EIO"], "dup": ["EMFILE"], "pipe": ["ENFILE"], "pipe2": ["ENFILE"],
    "mmap": ["ENOMEM"], "clone": ["EAGAIN", "ENOMEM"], "clone3": ["EAGAIN"], "fork": ["EAGAIN"], "vfork": ["EAGAIN", "ENOMEM"],
    "execve": ["ENOMEM"], "wait4": ["EINTR"], "waitid": ["EINTR"], "kill": ["EPERM"], "tgkill": ["EAGAIN"],
    "setpriority": ["EACCES"], "sched_setscheduler": ["EPERM"], "setgroups": ["ENOMEM"], "timer_create": ["EAGAIN"],
    "prlimit64": ["EPERM"], "unshare": ["ENOMEM"], "setsid": ["EPERM"],
    "socket": ["ENFILE", "ENOBUFS"], "bind": ["ENOMEM"], "listen": ["EADDRINUSE"], "connect": ["ECONNREFUSED", "EAGAIN"],
    "accept4": ["EMFILE", "ECONNABORTED", "EINTR"], "setsockopt": ["ENOMEM"], "getsockopt": ["ENOBUFS"],
    "sendto": ["ENOBUFS", "EINTR"], "sendmsg": ["ENOBUFS"], "recvfrom": ["ENOBUFS", "EINTR"], "recvmsg": ["ENOMEM", "EINTR"],
    "epoll_create1": ["EMFILE"], "epoll_ctl": ["ENOMEM"], "epoll_wait": ["EINTR"], "poll": ["EINTR", "ENOMEM"],
    "ppoll": ["EINTR"], "inotify_init1": ["EMFILE"], "inotify_add_watch": ["ENOSPC"],
    "semget": ["ENOSPC"], "semop": ["EINTR"], "semctl": ["EIDRM"], "clock_nanosleep": ["EINTR"],
}

# The other errors that the manual names and a kernel can give for a call of its own making: those of full or broken disks,
# of shortages and of security modules. Tried by `failures --other-errors`; what is never given for these arguments (EBADF, EFAULT,
# EINVAL) or says something else than a failure (ENOENT, ESRCH, EAGAIN of what does not wait) is left out.
OTHER_ERRORS = {
    "open": ["ENFILE", "ENOMEM", "EINTR", "EACCES"], "openat": ["ENFILE", "EIO", "EINTR", "EACCES", "ENOSPC", "EROFS"],
    "read": ["ENOMEM"], "pread64": ["EINTR"], "write": ["EIO", "EDQUOT", "EFBIG"], "pwrite64": ["EIO", "EINTR"],
    "stat": ["EIO", "EACCES"], "lstat": ["EIO", "EACCES"], "fstat": ["EIO"], "newfstatat": ["EIO", "EACCES"],
    "statx": ["EIO", "EACCES"], "statfs": ["EINTR", "ENOMEM"], "readlink": ["ENOMEM", "EACCES"],
    "readlinkat": ["ENOMEM", "EACCES"], "access": ["ENOMEM"], "faccessat2": ["ENOMEM"],
    "unlink": ["EBUSY", "EPERM", "ENOMEM"], "unlinkat": ["EBUSY", "EPERM", "ENOMEM"], "rmdir": ["EROFS", "EPERM", "ENOMEM"],
    "rename": ["EIO", "EROFS", "ENOMEM", "EDQUOT"], "renameat": ["EIO", "EROFS", "ENOMEM", "EDQUOT"],
    "link": ["EIO", "EROFS", "EMLINK", "EPERM"], "mkdir": ["EROFS", "EMLINK", "ENOMEM"],
    "mkdirat": ["EROFS", "EMLINK", "ENOMEM"], "chmod": ["EIO", "EPERM"], "fchmod": ["EIO", "EPERM"],
    "chdir": ["EIO", "EACCES"], "fchdir": ["EACCES"], "ftruncate": ["EIO", "EFBIG", "EROFS"], "fsync": ["ENOSPC", "EDQUOT"],
    "dup": ["EBUSY"], "pipe": ["EMFILE"], "pipe2": ["EMFILE"], "mmap": ["EAGAIN", "ENFILE"], "clone3": ["ENOMEM"],
    "fork": ["ENOMEM"], "execve": ["EAGAIN", "EACCES", "EIO", "EMFILE", "ENFILE", "ETXTBSY"], "setpriority": ["EPERM"],
    "unshare": ["EPERM"], "socket": ["EMFILE", "ENOMEM", "EACCES"], "bind": ["EADDRINUSE", "EACCES", "EROFS"],
    "connect": ["EINTR", "EACCES", "ENOBUFS"], "accept4": ["ENFILE", "ENOBUFS", "ENOMEM", "EPERM"],
    "setsockopt": ["EPERM"], "getsockopt": ["ENOMEM"], "sendto": ["ENOMEM", "EPIPE", "ECONNRESET"],
    "sendmsg": ["ENOMEM", "EPIPE", "ECONNRESET", "EINTR"], "recvfrom": ["ENOMEM", "ECONNREFUSED"],
    "recvmsg": ["ENOBUFS", "ECONNREFUSED"], "epoll_create1": ["ENFILE", "ENOMEM"], "epoll_ctl": ["ENOSPC"],
    "inotify_init1": ["ENFILE", "ENOMEM"], "inotify_add_watch": ["ENOMEM", "EACCES"], "semget": ["ENOMEM", "EACCES"],
    "semop": ["ENOMEM", "EIDRM"], "semctl": ["EACCES"],
}

# Those that a kernel cannot refuse, or that fail only for what the caller did wrong. close() gives the descriptor back
# whatever it answers, which strace cannot imitate; of fcntl() only locks can fail, which strace cannot tell from the rest;
# of prctl() only the naming of threads is used, which fails for a bad address alone.
CANNOT_FAIL = set("""
    close fcntl brk munmap mprotect madvise arch_prctl set_tid_address set_robust_list rseq getrandom futex getpid gettid getppid
    geteuid getuid getgid getegid rt_sigaction rt_sigprocmask rt_sigreturn restart_syscall sched_yield umask getpriority
    sched_getaffinity sched_getscheduler sched_getparam timer_settime timer_delete alarm setitimer exit exit_group uname sync
    clock_gettime reboot prctl getsockname getcwd getgroups shutdown pause sched_setaffinity getsid getpgrp getrusage sysinfo
""".split())

CALL = re.compile(r"^(\d+) +(?:<\.\.\. )?([a-z_0-9]+)[( ]")


class Strace:
    """A tracer of a daemon that runs already. `thread`: this one alone; else all, and the children until they execute."""

    def __init__(self, pid, expressions, thread=None, children=True):
        for path in (TRACE, SAID):
            remove(path)
        words = ["strace", "-o", TRACE]
        if thread is None:
            words += ["-f", "-b", "execve"] if children else ["-f"]
        for expression in expressions:
            words += ["-e", expression]
        self.pid = spawn(words + ["-p", str(thread or pid)], output=SAID)
        eventually(lambda: " attached" in read(SAID) or not is_alive(self.pid), 20)
        self.attached = " attached" in read(SAID)   # what is traced may have ended at once by what was injected, and strace with it

    def leave(self):
        """What was traced goes on without it."""
        if is_alive(self.pid):
            send(self.pid, signal.SIGTERM)
            if not eventually(lambda: not is_alive(self.pid), 10):
                end(self.pid)


def leave_traced(pid):
    """Takes the tracer away that stands beside a program and its children."""
    words = [line.split() for line in read("/proc/%d/status" % pid).splitlines() if line.startswith("TracerPid:")]
    tracer = int(words[0][1]) if words else 0
    if tracer > 0:
        end(tracer)                          # SIGTERM would be passed on to the program; what it traced goes on


def beside(expressions, children=True, follow=True):
    """Words before a program that is traced from its first call, and stays the process that was started. `follow`: with its
    threads and children; with `children` until these execute a program."""
    for path in (TRACE, SAID):
        remove(path)
    words = ["strace", "-D", "-q", "-o", TRACE] + (["-f"] if follow else []) + (["-b", "execve"] if children else [])
    for expression in expressions:
        words += ["-e", expression]
    return words


def injected():
    text = read(TRACE)
    return text.count("(INJECTED)") + text.count("+++ killed by SIGKILL +++")


def calls_by_task():
    """Of a plain trace: task -> call -> how often."""
    found = collections.defaultdict(collections.Counter)
    for line in read(TRACE).splitlines():
        match = CALL.match(line)
        if match and "resumed>" not in line:
            found[int(match.group(1))][match.group(2)] += 1
    return found
