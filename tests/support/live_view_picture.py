#!/usr/bin/python3
"""The picture of the live view in the documentation, taken from the running program.

live_view_picture.py [--bin DIR] [--output FILE]

Runs what ./dev run runs when it has built, on a terminal of its own, and writes the screen as text
in an SVG file. Needs root: in namespaces of its own neither other bus worlds nor the place of this
tree nor a taken port show.
"""

import argparse
import html
import os
import pathlib
import signal
import subprocess
import sys
import time

from virtual_terminal import VirtualTerminal

REPO = pathlib.Path(__file__).resolve().parents[2]
PLACE = "/srv/kt-can-proprietary"
COLUMNS, ROWS = 92, 32
PATIENCE_S = 60.0
SIGN_WIDTH, LINE_HEIGHT, MARGIN, FONT_SIZE = 8.4, 18, 14, 14
PAPER, INK = "#1b1f24", "#d7dce2"
COLORS = {"red": "#ff7b72", "green": "#7ee787", "brown": "#e3b341", "default": INK}
INSIDE = "KT_PICTURE_INSIDE"
NAMESPACES = f"""
set -e
mount -t tmpfs tmpfs /srv
mkdir {PLACE}
mount --bind "$0" {PLACE}
mount -t tmpfs -o mode=1777 tmpfs /tmp
ip link set lo up
export {INSIDE}=1
exec /usr/bin/python3 {PLACE}/tests/support/live_view_picture.py "$@"
"""


def environment() -> dict[str, str]:
    kept = {name: os.environ[name] for name in ("PATH", "HOME") if name in os.environ}
    return kept | {"TERM": "xterm-256color", "LC_ALL": "C.UTF-8", "KT_CAN_PORTS": "no-interface"}


def shows_everything(text: str) -> bool:
    """The slowest transaction of the demonstration has its answer."""
    return "20260042" in text and "candump" in text


def take(program_folder: str) -> list[list]:
    """The screen of the running view."""
    command = [f"{PLACE}/tools/live-view/run-live.sh", program_folder]
    terminal = VirtualTerminal(command, environment(), COLUMNS, ROWS, cwd=PLACE)
    try:
        deadline = time.monotonic() + PATIENCE_S
        while not shows_everything(terminal.text()):
            if time.monotonic() > deadline or terminal.process.poll() is not None:
                raise SystemExit(f"the view does not come up:\n{terminal.text()}")
            time.sleep(0.1)
        cells = terminal.cells()
        terminal.process.send_signal(signal.SIGINT)
        if terminal.process.wait(PATIENCE_S) != 0:
            raise SystemExit("the view did not end with status 0")
        return cells
    finally:
        terminal.close()


def runs_of(row: list):
    """Where each stretch of one style begins, and its text."""
    start = 0
    for at in range(1, len(row) + 1):
        if at == len(row) or (row[at].fg, row[at].bold) != (row[start].fg, row[start].bold):
            text = "".join(cell.data for cell in row[start:at]).rstrip()
            if text:
                yield start, text, row[start]
            start = at


def picture(cells: list[list]) -> str:
    while not any(cell.data.strip() for cell in cells[-1]):
        cells = cells[:-1]
    width = round(COLUMNS * SIGN_WIDTH + 2 * MARGIN)
    height = len(cells) * LINE_HEIGHT + 2 * MARGIN
    lines = [
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
        f'viewBox="0 0 {width} {height}" role="img" aria-label="The live view of ./dev run">',
        f'<rect width="100%" height="100%" rx="8" fill="{PAPER}"/>',
        f'<g font-family="ui-monospace, DejaVu Sans Mono, Menlo, Consolas, monospace" '
        f'font-size="{FONT_SIZE}" xml:space="preserve">',
    ]
    for number, row in enumerate(cells):
        y = MARGIN + number * LINE_HEIGHT + FONT_SIZE
        for start, text, style in runs_of(row):
            x = MARGIN + start * SIGN_WIDTH
            weight = ' font-weight="bold"' if style.bold else ""
            lines.append(
                f'<text x="{x:.1f}" y="{y}" textLength="{len(text) * SIGN_WIDTH:.1f}" '
                f'fill="{COLORS.get(style.fg, INK)}"{weight}>{html.escape(text)}</text>'
            )
    return "\n".join([*lines, "</g>", "</svg>", ""])


def main() -> int:
    parser = argparse.ArgumentParser(description="The picture of the live view.")
    parser.add_argument("--bin", default="build/release/bin", help="programs, below this tree")
    parser.add_argument("--output", default=str(REPO / "docs/images/live-view.svg"))
    arguments = parser.parse_args()
    if os.environ.get(INSIDE):
        sys.stdout.write(picture(take(f"{PLACE}/{arguments.bin}")))
        return 0
    command = ["unshare", "--mount", "--net", "bash", "-c", NAMESPACES, str(REPO)]
    result = subprocess.run([*command, "--bin", arguments.bin], stdout=subprocess.PIPE, text=True)
    if result.returncode == 0:
        output = pathlib.Path(arguments.output)
        output.parent.mkdir(parents=True, exist_ok=True)
        output.write_text(result.stdout, "utf-8")
    return result.returncode


if __name__ == "__main__":
    sys.exit(main())
