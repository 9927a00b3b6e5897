"""The memory orders of the driver's records, each weakened in turn."""

import re
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
SOURCES = ["qel/device/src/ppc/ppc_record.h", "qel/device/src/ppc/ppc_record.cpp"]
UNSEEN = Path(__file__).resolve().parent / "unseen-weakenings"
WEAKER = {"acquire": ["relaxed"], "release": ["relaxed"], "acq_rel": ["acquire", "release"], "seq_cst": ["acq_rel"]}


class Weakening:
    """One memory order in one line. `unseen` says why no program can notice it, and is None otherwise."""

    def __init__(self, file, number, line, before, after, unseen):
        self.file = file
        self.number = number
        self.before = before
        self.after = after
        self.name = f"{Path(file).name}:{number}:{before}-{after}"
        self.text = line.strip()
        self.unseen = unseen

    def apply(self, path):
        """Changes the file at `path`, which is a copy of the source."""
        lines = path.read_text().split("\n")
        lines[self.number - 1] = lines[self.number - 1].replace(f"memory_order_{self.before}",
                                                                f"memory_order_{self.after}")
        path.write_text("\n".join(lines))


def read_unseen():
    unseen = {}
    for line in UNSEEN.read_text().split("\n"):
        if line and not line.startswith("#"):
            change, text, reason = (part.strip() for part in line.split(" | "))
            unseen[(change, text)] = reason
    return unseen


def all_weakenings():
    unseen = read_unseen()
    found = []
    for file in SOURCES:
        for number, line in enumerate((ROOT / file).read_text().split("\n"), 1):
            for before in sorted(set(re.findall(r"memory_order_(\w+)", line)) & set(WEAKER)):
                found += [Weakening(file, number, line, before, after, unseen.pop((f"{before}-{after}", line.strip()), None))
                          for after in WEAKER[before]]
    if unseen:
        raise SystemExit(f"{UNSEEN} names what is no longer there: {sorted(unseen)}")
    return found
