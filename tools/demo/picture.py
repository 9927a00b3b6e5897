"""A picture of a terminal (SVG) with a demonstration's lines in it, and what two runs have in common."""

import re
from xml.etree import ElementTree
from xml.sax.saxutils import escape

FONT_SIZE = 13
LINE_HEIGHT = 18
COLUMN_WIDTH = 7.9
MARGIN = 16
BACKGROUND = "#16181d"
PLAIN = "#d8dee9"
# The first one that matches a line gives its colour.
COLOURS = (
    (re.compile(r"^\S*MISSING|FAILED"), "#ff6b6b"),
    (re.compile(r"^[0-9] "), "#ffd166"),
    (re.compile(r"^  \$ "), "#8ecae6"),
    (re.compile(r"^done "), "#95d5b2"),
    (re.compile(r"DEVICE  PROCESS TYPE"), "#adb5bd"),
    (re.compile(r"ABNORMAL|LOST|SOCKET_CLOSE"), "#ff9f68"),
)
NUMBER = re.compile(r"[0-9]+(\.[0-9]+)?")
OF_THE_WATCH = re.compile(r"^N s watch |^(done|skipped) .*\bwatch\b|^\(not here: ")
STATE = re.compile(r"\b(SPAWNED|STARTED|RUNNING|ABNORMAL|STOPPING|STOPPED|LOST|DIED)\b")


def colour_of(line):
    return next((colour for pattern, colour in COLOURS if pattern.search(line)), PLAIN)


def write(path, lines):
    width = int(max(map(len, lines)) * COLUMN_WIDTH) + 2 * MARGIN
    height = len(lines) * LINE_HEIGHT + 2 * MARGIN
    baseline = MARGIN + LINE_HEIGHT - 5
    rows = [
        f'<text x="{MARGIN}" y="{baseline + number * LINE_HEIGHT}" fill="{colour_of(line)}">{escape(line)}</text>'
        for number, line in enumerate(lines)
    ]
    with open(path, "w", encoding="utf-8") as file:
        file.write(f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" width="{width}"'
                   f' height="{height}" font-family="ui-monospace, DejaVu Sans Mono, monospace"'
                   f' font-size="{FONT_SIZE}" xml:space="preserve">\n'
                   f'<rect width="{width}" height="{height}" rx="8" fill="{BACKGROUND}"/>\n' + "\n".join(rows) +
                   "\n</svg>\n")


def read(path):
    root = ElementTree.parse(path).getroot()
    return [element.text or "" for element in root.iter("{http://www.w3.org/2000/svg}text")]


def form(lines):
    """The lines without what differs from run to run: numbers, how far a worker has come, and the order."""
    return {" ".join(NUMBER.sub("N", STATE.sub("STATE", line)).split()) for line in lines} - {""}


def without_skipped(lines):
    """Without what is about the watch, which not every machine permits."""
    return {line for line in lines if not OF_THE_WATCH.search(line)}


def differences(path, lines):
    """How the run in `lines` differs from the picture, to be read; empty when they have the same form."""
    pictured, seen = form(read(path)), form(lines)
    if any(line.startswith("skipped") for line in pictured | seen):
        pictured, seen = without_skipped(pictured), without_skipped(seen)
    return [f"only in {path}: {line}" for line in sorted(pictured - seen)] + \
        [f"only in this run: {line}" for line in sorted(seen - pictured)]
