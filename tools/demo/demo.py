"""Runs a daemon, a tap and twelve workers, makes two workers fail, shuts everything down and reports what happened.

The programs report what they do in JSON. Every step that is shown as done has been seen: by the daemon, by the tap on
its socket or in the exit status of a process. The exit status is 0 when all of them are done. What needs the privileges
of root and bpftrace is skipped, with the reason, where these are missing.
"""

import argparse
import contextlib
import json
import os
import signal
import sys
import tempfile
import time
from collections import Counter

import picture
from fleet import DEVICES, Fleet
from programs import Program, Programs, mount_tracefs
from screen import Screen

HOME = "/home/KrovaUser"
FOLDER = HOME + "/qel_ppc"
SOCKET = FOLDER + "/sock_server_19280"
LIBRARIES = ["libops_a.so", "libops_b.so"]
ABNORMAL_DEVICE = 3  # its ZOLT reports an abnormal end
WATCHING = "watching process"  # how the watch says that it is attached
KILLED_DEVICE = 2  # its ZOLT is killed
WORKERS = 12
LEFT = WORKERS - 2
HEARTBEATS = 2
STRETCH = int(os.environ.get("GAKPPC_TEST_TIME_SCALE") or 1)  # of all time limits, for slow machines
ABNORMAL_SECONDS = 4 * STRETCH  # until the failing worker reports its abnormal end
WATCH_SECONDS = 10 * STRETCH
GRACE_SECONDS = 3 * STRETCH  # that the daemon gives its workers
STOP_SECONDS = 8 * STRETCH  # more than the grace
LOG_LINES_SHOWN = 10


class SocketDirectory:
    """What was not there before is removed at the end."""

    def __init__(self):
        self._made = []

    def prepare(self):
        self._made = [path for path in (SOCKET, FOLDER, HOME) if not os.path.lexists(path)]
        os.makedirs(HOME, exist_ok=True)

    def clear(self):
        for path in self._made:
            with contextlib.suppress(OSError):  # is_clear notices
                (os.rmdir if os.path.isdir(path) else os.unlink)(path)

    def is_clear(self):
        return not any(os.path.lexists(path) for path in self._made)


def identity(path):
    """Which file it is, to notice when another one takes its place. None when there is none."""
    try:
        status = os.lstat(path)
        return status.st_dev, status.st_ino
    except OSError:
        return None


class Demonstration:
    def __init__(self, options):
        self.tools = options.tools
        self.limit = options.time_limit * STRETCH
        self.began = time.monotonic()
        self.directory = SocketDirectory()
        self.log = open(options.log, "w+b") if options.log else tempfile.TemporaryFile()
        self.programs = Programs(self.log)
        self.fleet = Fleet()
        self.screen = Screen(self.fleet)
        self.daemon = Program()
        self.tap = Program()
        self.watch = Program()
        self.workers = {}  # by device and process type: those that were started here
        self.daemon_events = {}  # about itself: the detail of each event
        self.tapped_texts = Counter()
        self.custom_ready = set()
        self.received = Counter()  # by the daemon, by type and pid
        self.forwarded = Counter()  # to the daemon by the tap
        self.tap_notice = ""
        self.watched = set()  # the process ids whose heartbeats the watch has shown
        self.watch_notice = ""
        self.listed = set()  # the process ids that the list has shown
        self.list = Program()
        self.skipped = set()  # steps that are not possible here
        self.daemon_socket = None
        self.tap_socket = None
        self.final_socket = None
        self.killed_at = None
        self.steps = self._define_steps()

    def now(self):
        return time.monotonic() - self.began

    # ---- What is to happen ----

    def _define_steps(self):
        fleet = self.fleet

        def heard(what):
            return lambda: fleet.count(lambda worker: what in worker.heard)

        def healthy_in(pids):
            return sum(worker.pid in pids for worker in fleet.others(ABNORMAL_DEVICE, "ZOLT"))

        def ended(device, end, *what):
            worker = fleet.at(device, "ZOLT")
            return lambda: int(all(text in worker.heard for text in what) and worker.end == end)

        def beats_after_the_kill():
            others = {(ABNORMAL_DEVICE, "ZOLT"), (KILLED_DEVICE, "ZOLT")}
            return fleet.count(lambda worker: self.killed_at and (worker.last_heartbeat or 0) > self.killed_at
                               and (worker.device, worker.kind) not in others)

        return {
            "serving": (f"the daemon serves {SOCKET}", 1, lambda: int("SERVING" in self.daemon_events)),
            "tapped": ("the tap has replaced its socket", 1,
                       lambda: int(self.tap_socket not in (None, self.daemon_socket))),
            "started": ("START_RSP from each worker", WORKERS, heard("START_RSP")),
            "beating": (f"at least {HEARTBEATS} heartbeats from each worker", WORKERS,
                        lambda: fleet.count(lambda worker: worker.heartbeats >= HEARTBEATS)),
            "asked": ("NOTIFY_VEXOINFO with two libraries from each compute worker", 4,
                      lambda: self.tapped_texts[" ".join(["NOTIFY_VEXOINFO", *LIBRARIES])]),
            "told": ("its custom worker is started, and its call of CreateOrFindCustPid returns", 4,
                     lambda: len(self.custom_ready)),
            "listed": ("the list of connections, from the kernel, names the process of each healthy worker",
                       WORKERS - 1, lambda: healthy_in(self.listed) if self.list.end == "exit 0" else 0),
            "watched": ("a watch on the daemon shows a heartbeat of each healthy worker, all older than itself",
                        WORKERS - 1, lambda: healthy_in(self.watched)),
            "unwatched": ("the watch ends with status 0", 1, lambda: int(self.watch.end == "exit 0")),
            "abnormal": (f"ABNORMAL from device {ABNORMAL_DEVICE} ZOLT, which exits with status 1", 1,
                         ended(ABNORMAL_DEVICE, "exit 1", "ABNORMAL", "SOCKET_CLOSE")),
            "killed": (f"SOCKET_CLOSE of device {KILLED_DEVICE} ZOLT, which is killed with SIGKILL", 1,
                       ended(KILLED_DEVICE, "signal 9", "SOCKET_CLOSE")),
            "going on": ("the others go on: another heartbeat from each", LEFT, beats_after_the_kill),
            "ordered": ("SHUTDOWN to each worker that is left", LEFT, heard("SENT_SHUTDOWN")),
            "answered": ("SHUTDOWN_RSP from each of them", LEFT, heard("SHUTDOWN_RSP")),
            "left": ("each of them exits with status 0", LEFT,
                     lambda: fleet.count(lambda worker: worker.end == "exit 0")),
            "returned": ("the tap restores the socket and ends with status 0", 1,
                         lambda: int(self.tap.end == "exit 0" and self.final_socket == self.daemon_socket)),
            "same": ("tap and daemon saw the same messages", 1,
                     lambda: int(self.received == self.forwarded and sum(self.received.values()) > 0)),
            "ended": ("the daemon ends in order", 1,
                      lambda: int(self.daemon.end == "exit 0" and self.daemon_events.get("ENDED") == "in order")),
            "clear": ("no process and no file is left", 1,
                      lambda: int(self.programs.childless and self.directory.is_clear())),
        }

    def is_done(self, name):
        _, want, have = self.steps[name]
        return have() == want

    # ---- What the programs report ----

    def on_daemon_line(self, line):
        event = json.loads(line)
        name = event["event"]
        if "device" not in event:
            self.daemon_events[name] = event.get("detail", "")
            self.screen.event(self.now(), "daemon", f"{name} {event.get('detail', '')}".rstrip())
        if name in ("START_RSP", "SHUTDOWN_RSP", "HEARTBEAT", "NOTIFY_VEXOINFO", "ABNORMAL"):
            self.received[name, event["pid"]] += 1
        worker = self.fleet.apply(event, self.now())
        if name == "SOCKET_CLOSE" and worker is not None and worker.state in ("LOST", "ABNORMAL"):
            self.screen.event(self.now(), "daemon",
                              f"{name} of device {worker.device} {worker.kind}, pid {worker.pid}")
        self.screen.draw()

    def on_tap_line(self, line):
        record = json.loads(line)
        if record["event"] != "message":
            return
        message = record["message"]
        to_daemon = record["direction"] == "to_daemon"
        device = message["src_id" if to_daemon else "dest_id"]
        libraries = message.get("lib_names", {}).get("lib_name", [])
        text = " ".join([message["type"], *libraries])
        self.tapped_texts[text] += 1
        if to_daemon:
            self.forwarded[message["type"], record["claimed_pid"]] += 1
        later_heartbeat = message["type"] == "HEARTBEAT" and self.forwarded["HEARTBEAT", record["claimed_pid"]] > 1
        if (device == 0 and not later_heartbeat) or message["type"] == "ABNORMAL":
            arrow = "->" if to_daemon else "<-"
            self.screen.event(self.now(), "tap", f"device {device}  pid {record['pid']:<8}  {arrow}  "
                                                 f"{message['proc_type']:<14}  {text}")

    def on_tap_error_line(self, line):
        self.programs.log(line)
        self.tap_notice = self.tap_notice or line.partition(": ")[2]

    def on_list_line(self, line):
        entry = json.loads(line)
        if entry["kind"] == "connection":
            self.listed.add(entry["pid"])

    def on_watch_line(self, line):
        record = json.loads(line)
        message = record.get("message", {})
        if message.get("type") != "HEARTBEAT" or record["claimed_pid"] in self.watched:
            return
        self.watched.add(record["claimed_pid"])
        if message["src_id"] == 0:
            self.screen.event(self.now(), "watch", f"device 0  pid {record['claimed_pid']:<8}  ->  "
                                                   f"{message['proc_type']:<14}  HEARTBEAT")

    def on_watch_error_line(self, line):
        self.programs.log(line)
        self.watch_notice = self.watch_notice or line.partition(": ")[2]

    def on_worker_line(self, line):
        event = json.loads(line)
        if event["event"] == "CUSTOM_READY":
            self.custom_ready.add(event["pid"])

    # ---- Waiting ----

    def something_went_wrong(self):
        """Whether waiting any longer is pointless."""
        may_end = (self.workers.get((ABNORMAL_DEVICE, "ZOLT")), self.workers.get((KILLED_DEVICE, "ZOLT")))
        too_early = [program for program in self.workers.values() if program.end and program not in may_end]
        return self.programs.interrupted_by is not None or bool(self.daemon.end or self.tap.end or too_early)

    def pump(self):
        self.programs.pump(0.5)
        for (device, kind), program in self.workers.items():
            self.fleet.at(device, kind).end = program.end

    def wait(self, condition, limit=None):
        limit = self.limit if limit is None else self.now() + limit
        while not condition() and self.now() < limit:
            self.pump()
        return condition()

    def reach(self, *names):
        """Waits for these steps. False when one of them cannot come any more."""
        self.wait(lambda: all(map(self.is_done, names)) or self.something_went_wrong())
        return all(map(self.is_done, names))

    # ---- The scenes ----

    def start(self, words, *listeners, show=True, **settings):
        if show:
            self.screen.command(words)
        return self.programs.start([os.path.join(self.tools, words[0]), *words[1:]], *listeners, **settings)

    def serve(self):
        self.screen.begin("1 The daemon serves the socket.")
        self.directory.prepare()
        words = ["gakppcd", "--json", "--auto-custom", "--grace", str(GRACE_SECONDS)]
        self.daemon = self.start(words, self.on_daemon_line, has_input=True)
        if not self.reach("serving"):
            return False
        self.daemon_socket = identity(SOCKET)
        return True

    def listen(self):
        self.screen.begin("2 A tap replaces the socket: from now on every message passes through it.")
        self.tap = self.start(["gakppctl", "tap", "--json"], self.on_tap_line, self.on_tap_error_line)
        self.wait(lambda: "in place" in self.tap_notice or self.something_went_wrong())
        self.tap_socket = identity(SOCKET)
        self.screen.event(self.now(), "tap", self.tap_notice)
        return self.reach("tapped")

    def command_daemon(self, text):
        self.screen.remark(f"standard input of gakppcd: {text}")
        self.daemon.write_line(text)

    def start_worker(self, device, kind, *more):
        words = ["gakppctl", "worker", "--json", "--device", str(device), "--type", kind, *more]
        self.workers[device, kind] = self.start(words, self.on_worker_line, show=device == 0)

    def work(self):
        self.screen.begin("3 Twelve workers, three on each device. Device 0's messages, as the tap sees them:")
        for device in DEVICES:
            more = ["--abnormal-after", str(ABNORMAL_SECONDS)] if device == ABNORMAL_DEVICE else []
            self.start_worker(device, "ZOLT", "--heartbeat", "0.5", *more)
            self.start_worker(device, "COMPUTE", "--heartbeat", "0.5", "--libs", ",".join(LIBRARIES))
        self.screen.remark("and so on; each COMPUTE asks for a CUSTOM_COMPUTE, which the daemon starts")
        reached = self.reach("started", "beating", "asked", "told")
        self.screen.table()
        return reached

    def attach(self):
        """True where it cannot be done here."""
        self.screen.begin("4 Who is connected, and a watch on the daemon. Device 0's workers, older than the watch:")
        self.list = self.start(["gakppctl", "list", "--json"], self.on_list_line)
        if not self.reach("listed"):
            return False
        self.screen.event(self.now(), "list", f"{len(self.listed)} processes have a connection")
        mount_tracefs()
        self.watch = self.start(["gakppctl", "watch", "--json", "--pid", str(self.daemon.pid)], self.on_watch_line,
                                self.on_watch_error_line)
        self.wait(lambda: self.is_done("watched") or self.watch.end or self.something_went_wrong(), WATCH_SECONDS)
        if self.watch.end and not self.watch_notice.startswith(WATCHING):
            self.screen.remark(f"not here: {self.watch_notice.partition(';')[0]}")
            self.skipped = {"watched", "unwatched"}
            return True
        self.watch.kill(signal.SIGINT)
        self.wait(lambda: not self.watch.runs(), WATCH_SECONDS)
        self.screen.event(self.now(), "watch", f"has ended ({self.watch.end or 'not at all'})")
        return self.is_done("watched") and self.is_done("unwatched")

    def make_workers_fail(self):
        victim = self.workers[KILLED_DEVICE, "ZOLT"]
        self.screen.begin(f"5 Device {KILLED_DEVICE} ZOLT, pid {victim.pid}, is killed; device {ABNORMAL_DEVICE} ZOLT "
                          "fails by itself; the others go on.")
        self.killed_at = self.now()
        victim.kill(signal.SIGKILL)
        return self.reach("abnormal", "killed", "going on")

    def shut_down(self):
        self.screen.begin("6 The daemon orders the shutdown: each worker answers and leaves.")
        self.command_daemon("shutdown all")
        self.wait(lambda: all(map(self.is_done, ("ordered", "answered", "left")))
                  or self.programs.interrupted_by is not None or bool(self.daemon.end), STOP_SECONDS)
        self.screen.table()

    def stop(self):
        """Also after a failure: everything that was started ends."""
        self.screen.begin("7 The tap restores the daemon's socket, the daemon ends.")
        if self.daemon.runs() and any(program.runs() for program in self.workers.values()):
            self.command_daemon("quit")
            self.wait(lambda: bool(self.daemon.end), STOP_SECONDS)
        self.tap.kill(signal.SIGTERM)
        self.wait(lambda: not self.tap.runs(), STOP_SECONDS)
        self.final_socket = identity(SOCKET)
        if self.tap.pid:
            self.screen.event(self.now(), "tap", f"has ended ({self.tap.end or 'not at all'})")
        if self.daemon.runs():
            self.command_daemon("quit")
        if not self.wait(self.programs.is_over, STOP_SECONDS):
            self.programs.kill_rest()
            self.wait(self.programs.is_over, STOP_SECONDS)
        self.directory.clear()

    def play(self):
        try:
            if self.serve() and self.listen() and self.work() and self.attach() and self.make_workers_fail():
                self.shut_down()
        except OSError as error:
            print(f"demo: {error}", file=sys.stderr)
        finally:
            self.stop()

    def result(self):
        """Prints what happened. Returns whether every step did."""
        lines = []
        complete = True
        for name, (text, want, have) in self.steps.items():
            if name in self.skipped:
                lines.append(f"{'skipped':<9}{text}")
                continue
            number = f" ({have()} of {want})" if want > 1 else ""
            done = self.is_done(name)
            complete = complete and done
            lines.append(f"{'done' if done else 'MISSING':<9}{text}{number}")
        messages = sum(self.forwarded.values())
        lines += ["", f"The demonstration {'is complete' if complete else 'FAILED'} after {self.now():.1f} s; "
                      f"the tap forwarded {messages} messages to the daemon."]
        self.screen.result(lines)
        if not complete:
            self.show_log()
        return complete

    def show_log(self):
        self.log.seek(0)
        last = self.log.read().decode(errors="replace").splitlines()[-LOG_LINES_SHOWN:]
        print("", "The last log lines of the programs:", *last, sep="\n", file=sys.stderr)


def parse_options():
    parser = argparse.ArgumentParser(prog="demo", description=__doc__.splitlines()[0])
    parser.add_argument("--tools", required=True, help="the directory of gakppcd and gakppctl")
    parser.add_argument("--log", metavar="FILE", help="keep the programs' log lines")
    parser.add_argument("--picture", metavar="FILE", help="write a picture (SVG) of the run")
    parser.add_argument("--compare", metavar="FILE", help="fail when the run has not the form of this picture")
    parser.add_argument("--time-limit", type=float, default=20, metavar="SECONDS",
                        help="when the shutdown begins at the latest (20)")
    return parser.parse_args()


def main():
    options = parse_options()
    demonstration = Demonstration(options)
    demonstration.play()
    complete = demonstration.result()
    if demonstration.programs.interrupted_by is not None:
        return 128 + demonstration.programs.interrupted_by
    lines = demonstration.screen.transcript
    if complete and options.picture:
        picture.write(options.picture, lines)
    if complete and options.compare:
        differences = picture.differences(options.compare, lines)
        print(*differences, sep="\n", file=sys.stderr)
        complete = not differences
    return 0 if complete else 1


if __name__ == "__main__":
    sys.exit(main())
