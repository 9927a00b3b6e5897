"""What is known about the workers, from the lines that the daemon prints."""

DEVICES = range(4)
TYPES = ("ZOLT", "COMPUTE", "CUSTOM_COMPUTE")
NEEDED_COLUMNS = 80


class Worker:
    """One worker. `end` is "exit 0" or "signal 9" once its process has been waited for, whoever did that."""

    def __init__(self, device, kind):
        self.device = device
        self.kind = kind
        self.pid = None
        self.state = "-"
        self.heard = set()
        self.heartbeats = 0
        self.last_heartbeat = None
        self.end = ""


class Fleet:
    """Three workers on each of four devices."""

    def __init__(self):
        self.workers = {(device, kind): Worker(device, kind) for device in DEVICES for kind in TYPES}

    def apply(self, event, now):
        """Applies one line of gakppcd --json. Returns the worker that it is about, if any."""
        worker = self.workers.get((event.get("device"), event.get("process_type")))
        if worker is None or worker.pid not in (None, event["pid"]):
            return None
        worker.pid = event["pid"]
        worker.state = event["state"]
        worker.heard.add(event["event"])
        if event["event"] == "HEARTBEAT":
            worker.heartbeats += 1
            worker.last_heartbeat = now
        if event["event"] == "EXIT":
            worker.end = event["detail"]
        return worker

    def at(self, device, kind):
        return self.workers[device, kind]

    def others(self, device, kind):
        return [worker for key, worker in self.workers.items() if key != (device, kind)]

    def count(self, condition):
        return sum(1 for worker in self.workers.values() if condition(worker))

    def table(self):
        row = "  {:>6}  {:<14}  {:>8}  {:<9}  {:>10}  {:>12}  {}".format
        lines = [row("DEVICE", "PROCESS TYPE", "PID", "STATE", "HEARTBEATS", "LAST BEAT AT", "END")]
        for worker in self.workers.values():
            last = "-" if worker.last_heartbeat is None else f"{worker.last_heartbeat:.1f} s"
            lines.append(row(worker.device, worker.kind, worker.pid or "-", worker.state, worker.heartbeats, last,
                             worker.end).rstrip())
        return lines
