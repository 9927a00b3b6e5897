"""Starts the programs of the demonstration, reads their output and waits for them; none is left behind."""

import contextlib
import ctypes
import os
import selectors
import signal

PR_SET_PDEATHSIG = 1
PR_SET_CHILD_SUBREAPER = 36
LIBC = ctypes.CDLL(None, use_errno=True)


def mount_tracefs():
    """Where the machine has not done it, in a mount namespace of our own. A failure shows later, as a missing tracefs."""
    if os.environ.get("GAKPPC_PRIVATE_HOME") == "1" and not os.path.exists("/sys/kernel/tracing/trace"):
        LIBC.mount(b"tracefs", b"/sys/kernel/tracing", b"tracefs", 0, None)


class Lines:
    """The reading end of a pipe. Every whole line goes to `on_line`."""

    def __init__(self, fd, on_line):
        self.fd = fd
        self._on_line = on_line
        self._rest = b""

    def read(self):
        """False at the end."""
        part = os.read(self.fd, 65536)
        *whole, self._rest = (self._rest + part).split(b"\n")
        for line in whole:
            self._on_line(line.decode(errors="replace"))
        return bool(part)


class Program:
    """A process that was started here. `end` is "exit 0", "signal 9" or, while it runs, empty; it is empty and `pid` 0
    before the start."""

    def __init__(self, pid=0, standard_input=None):
        self.pid = pid
        self.end = ""
        self._input = standard_input

    def write_line(self, text):
        """Writes a line to its standard input, if it still runs."""
        with contextlib.suppress(BrokenPipeError):
            os.write(self._input, text.encode() + b"\n")

    def runs(self):
        return self.pid != 0 and not self.end

    def kill(self, number):
        if self.runs():
            os.kill(self.pid, number)


class Programs:
    """Adopts what its programs leave behind, so that it can wait until no process is left. Their standard error goes to
    the file `log`, which stays the caller's."""

    def __init__(self, log):
        self.interrupted_by = None
        self.childless = False
        self._programs = {}
        self._log = log.fileno()
        self._selector = selectors.DefaultSelector()
        self._signals, wake = os.pipe2(os.O_CLOEXEC | os.O_NONBLOCK)
        self._selector.register(self._signals, selectors.EVENT_READ)
        signal.set_wakeup_fd(wake)
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGCHLD):
            signal.signal(number, lambda *_: None)  # the byte in the pipe tells
        LIBC.prctl(PR_SET_CHILD_SUBREAPER, 1)

    def start(self, words, on_line, on_error_line=None, has_input=False):
        out, child_out = os.pipe2(os.O_CLOEXEC)
        err, child_err = os.pipe2(os.O_CLOEXEC) if on_error_line else (None, self._log)
        child_in, standard_input = os.pipe2(os.O_CLOEXEC) if has_input else (os.open(os.devnull, os.O_RDONLY), None)
        parent = os.getpid()
        pid = os.fork()
        if pid == 0:
            _become(words, parent, (child_in, child_out, child_err))
        for fd in {child_in, child_out, child_err} - {self._log}:
            os.close(fd)
        self._listen(out, on_line)
        if on_error_line:
            self._listen(err, on_error_line)
        self._programs[pid] = Program(pid, standard_input)
        return self._programs[pid]

    def log(self, line):
        os.write(self._log, line.encode() + b"\n")

    def pump(self, seconds):
        """Handles what has happened; waits for something as long as `seconds`."""
        for key, _ in self._selector.select(max(seconds, 0)):
            if key.fd == self._signals:
                self._on_signals()
            elif not key.data.read():
                self._selector.unregister(key.fd)
                os.close(key.fd)

    def kill_rest(self):
        """Kills all that is left, also what was adopted."""
        with open(f"/proc/self/task/{os.getpid()}/children", encoding="ascii") as children:
            for pid in children.read().split():
                os.kill(int(pid), signal.SIGKILL)  # none of them can be reaped, and its number used again, meanwhile

    def is_over(self):
        """Whether no process is left and everything that they wrote has been read."""
        self._reap()
        return self.childless and len(self._selector.get_map()) == 1

    def _listen(self, fd, on_line):
        self._selector.register(fd, selectors.EVENT_READ, Lines(fd, on_line))

    def _on_signals(self):
        for number in os.read(self._signals, 4096):
            if number != signal.SIGCHLD:
                self.interrupted_by = number
        self._reap()

    def _reap(self):
        try:
            while True:
                pid, status = os.waitpid(-1, os.WNOHANG)
                if pid == 0:
                    return
                if pid in self._programs:
                    code = os.waitstatus_to_exitcode(status)
                    self._programs[pid].end = f"signal {-code}" if code < 0 else f"exit {code}"
        except ChildProcessError:
            self.childless = True


def _become(words, parent, files):
    """In the child, which ends with its parent and does not get the parent's Ctrl-C."""
    try:
        LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGTERM)
        os.setpgid(0, 0)
        for number, fd in enumerate(files):
            os.dup2(fd, number)
        signal.signal(signal.SIGPIPE, signal.SIG_DFL)
        if os.getppid() == parent:
            os.execv(words[0], words)
    except OSError as error:
        os.write(2, f"{words[0]}: {error.strerror}\n".encode())
    finally:
        os._exit(127)
