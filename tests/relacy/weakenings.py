"""The memory orders of the driver's records, each weakened in turn."""

import re
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
SOURCES = ["qel/device/src/ppc/ppc_record.h", "qel/device/src/ppc/ppc_record.cpp"]
WEAKER = {"acquire": ["relaxed"], "release": ["relaxed"], "acq_rel": ["acquire", "release"], "seq_cst": ["acq_rel"]}


class Weakening:
    """One memory order in one line."""

    def __init__(self, file, number, line, before, after):
        self.file = file
        self.number = number
        self.before = before
        self.after = after
        self.name = f"{Path(file).name}:{number}:{before}-{after}"
        self.text = line.strip()

    def apply(self, path):
        """Changes the file at `path`, which is a copy of the source."""
        lines = path.read_text().split("\n")
        lines[self.number - 1] = lines[self.number - 1].replace(f"memory_order_{self.before}",
                                                                f"memory_order_{self.after}")
        path.write_text("\n".join(lines))


def all_weakenings():
    return [Weakening(file, number, line, before, after)
            for file in SOURCES
            for number, line in enumerate((ROOT / file).read_text().split("\n"), 1)
            for before in sorted(set(re.findall(r"memory_order_(\w+)", line)) & set(WEAKER))
            for after in WEAKER[before]]
