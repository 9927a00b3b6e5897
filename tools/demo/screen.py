"""Shows the demonstration: on a terminal a table whose cells change, elsewhere plain lines."""

import os
import shutil
import sys

from fleet import NEEDED_COLUMNS

NEEDED_ROWS = 24
LINES_BELOW_THE_TABLE = 5


def can_redraw():
    size = shutil.get_terminal_size()
    return (sys.stdout.isatty() and os.environ.get("TERM", "dumb") != "dumb" and size.lines >= NEEDED_ROWS
            and size.columns >= NEEDED_COLUMNS)


class Screen:
    """`transcript` keeps the plain lines, also those that a terminal does not show."""

    def __init__(self, fleet):
        self.fleet = fleet
        self.live = can_redraw()
        self.transcript = []
        self.title = ""
        self.recent = []
        self.drawn = 0

    def begin(self, title):
        self.title = title
        self.recent = []
        self._keep(*[""] * bool(self.transcript), title)
        self.draw()

    def command(self, words):
        self._append("  $ " + " ".join(words))

    def remark(self, text):
        self._append(f"  ({text})")

    def event(self, now, source, text):
        self._append(f"  {now:5.2f} s  {source:<6}  {text}")

    def table(self):
        self._keep("", *self.fleet.table())
        self.draw()

    def draw(self):
        """Draws the table over the previous one."""
        if not self.live:
            return
        lines = [self.title, "", *self.fleet.table(), "", *self.recent]
        lines += [""] * (LINES_BELOW_THE_TABLE - len(self.recent))
        up = f"\033[{self.drawn}A" if self.drawn else ""
        columns = shutil.get_terminal_size().columns - 1
        print(up + "".join(f"\r{line[:columns]}\033[K\n" for line in lines), end="", flush=True)
        self.drawn = len(lines)

    def result(self, lines):
        """Prints the last lines, on every kind of output."""
        self.live = False
        self._keep("", *lines)

    def _append(self, line):
        self.recent = [*self.recent, line][-LINES_BELOW_THE_TABLE:]
        self._keep(line)
        self.draw()

    def _keep(self, *lines):
        self.transcript += lines
        if not self.live:
            print(*lines, sep="\n", flush=True)
