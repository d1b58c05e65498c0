#!/usr/bin/python3
"""Live view of the service in a terminal: tag values above, CAN frames below.

live_view.py --ports can0,can1 --kt-tag PROGRAM [--hint TEXT]

Tags are asked from kt-tag, frames from candump. On a terminal the view is redrawn twice a second;
elsewhere every changed tag and every frame is one line. Ends with status 0 on SIGINT or SIGTERM.
"""

import argparse
import collections
import json
import os
import pathlib
import signal
import shutil
import sqlite3
import subprocess
import sys
import threading
import time
from typing import NamedTuple

REFRESH_S = 0.5
RATE_WINDOW_S = 5.0
FRAMES_KEPT = 200
PREFIX = "can_proprietary/"
WORKING_DB = "/run/config/kt-can-proprietary/can_proprietary.db"
STATUS_TEXT = {"0": "ok", str(-0x80000000): "not seen", str(-0x7FFFFFFF): "timeout"}
FLOAT_TYPES = (9, 10)
BOLD, DIM, RED, GREEN, RESET = "\x1b[1m", "\x1b[2m", "\x1b[91m", "\x1b[92m", "\x1b[0m"


class Tag(NamedTuple):
    device: str
    name: str  # without the device
    value: str
    age_ms: int
    mode: str


class Frame(NamedTuple):
    time: float  # monotonic, of its arrival here
    port: str
    text: str


def value_text(value, kind: int) -> str:
    if value is None:
        return "not a number"
    return f"{value:.2f}" if kind in FLOAT_TYPES else str(value)


def read_tags(program: str) -> list[Tag]:
    """Every tag, none while there is no store."""
    result = subprocess.run(
        [program, "list", PREFIX + "*", "--json"],
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        errors="replace",
    )
    tags = []
    for line in result.stdout.splitlines():
        item = json.loads(line)
        device, _, name = item["name"].removeprefix(PREFIX).partition("/")
        value = value_text(item["value"], item["type"])
        tags.append(Tag(device, name, value, item["age_ms"], item["mode"]))
    return tags


def device_ports(ports: list[str]) -> dict[str, str]:
    """Which port each device is on, as the service's working copy says."""
    path = pathlib.Path(os.environ.get("KT_ROOT", "") + WORKING_DB)
    try:
        db = sqlite3.connect(f"file:{path}?mode=ro", uri=True, timeout=1)
        rows = db.execute("SELECT deviceName, portId FROM device").fetchall()
        db.close()
    except sqlite3.Error:
        return {}
    return {name: ports[port - 1] for name, port in rows if 1 <= port <= len(ports)}


class Frames:
    """Follows the ports through candump, started again when it ends."""

    def __init__(self, ports: list[str], on_frame=None):
        self.recent: collections.deque[Frame] = collections.deque(maxlen=FRAMES_KEPT)
        self.times = {port: collections.deque() for port in ports}
        self._on_frame = on_frame
        self._lock = threading.Lock()
        self._stopping = False
        self._command = ["candump", "-L", "-D", *ports]
        self._process = self._start()
        threading.Thread(target=self._read, daemon=True).start()

    def _start(self) -> subprocess.Popen:
        return subprocess.Popen(
            self._command,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
            text=True,
            errors="replace",
            start_new_session=True,  # Ctrl-C is for the view, which then ends candump
        )

    def _read(self) -> None:
        while not self._stopping:
            for line in self._process.stdout:
                self._take(line.split())
            self._process.wait()
            if not self._stopping:
                time.sleep(REFRESH_S)
                self._process = self._start()

    def _take(self, words: list[str]) -> None:
        if len(words) != 3 or words[1] not in self.times:
            return
        frame = Frame(time.monotonic(), words[1], words[2])
        with self._lock:
            self.recent.append(frame)
            self.times[frame.port].append(frame.time)
        if self._on_frame:
            self._on_frame(frame)

    def rates(self) -> dict[str, float]:
        """Frames per second of each port."""
        oldest = time.monotonic() - RATE_WINDOW_S
        with self._lock:
            for times in self.times.values():
                while times and times[0] < oldest:
                    times.popleft()
            return {port: len(times) / RATE_WINDOW_S for port, times in self.times.items()}

    def last(self, count: int) -> list[Frame]:
        with self._lock:
            return list(self.recent)[-count:] if count > 0 else []

    def stop(self) -> None:
        self._stopping = True
        self._process.terminate()
        self._process.wait()


def age_text(age_ms: int) -> str:
    return f"{age_ms} ms" if age_ms < 10000 else f"{age_ms // 1000} s"


def frame_text(text: str) -> str:
    """ "123#0102" as " 123  [2]  01 02"."""
    identifier, _, data = text.partition("#")
    if data.startswith("R"):
        return f"{identifier:>8}  [{data[1:] or 0}]  remote request"
    pairs = [data[i : i + 2] for i in range(0, len(data), 2)]
    return f"{identifier:>8}  [{len(pairs)}]  {' '.join(pairs)}"


def status_line(tags: list[Tag]) -> str:
    parts = []
    for tag in tags:
        if tag.name == "status":
            text = STATUS_TEXT.get(tag.value, tag.value)
            color = GREEN if text == "ok" else RED
            parts.append(f"{tag.device} {color}{text}{RESET}")
    return "devices: " + (", ".join(parts) or "none yet")


def tag_lines(tags: list[Tag], ports: dict[str, str], room: int) -> list[str]:
    shown = [tag for tag in tags if tag.name != "status"]
    lines = [
        f"{ports.get(tag.device, '-'):6} {tag.device:10.10} {tag.name:26.26} "
        f"{tag.value:>18.18} {age_text(tag.age_ms):>9}  {'<-' if tag.mode == 'wo' else ''}"
        for tag in shown
    ]
    if len(lines) > room:
        lines[room - 1 :] = [f"{DIM}... {len(lines) - room + 1} more{RESET}"]
    return lines


def draw(tags: list[Tag], ports: dict[str, str], frames: Frames, hint: str) -> None:
    width, height = shutil.get_terminal_size((80, 24))
    rates = "   ".join(f"{port} {rate:.0f} frames/s" for port, rate in frames.rates().items())
    lines = [
        f"{BOLD}kt-can-proprietary{RESET}   {status_line(tags)}",
        f"{DIM}{'port':6} {'device':10} {'tag':26} {'value':>18} {'age':>9}{RESET}",
        *tag_lines(tags, ports, max(1, height - 8)),
        f"{BOLD}frames{RESET}   {rates}   {DIM}Ctrl-C ends{RESET}",
    ]
    now = time.monotonic()
    for frame in frames.last(height - len(lines) - 1):
        lines.append(f"{frame.port:6} {frame_text(frame.text):42} {now - frame.time:6.1f} s ago")
    lines[height - 1 :] = []
    lines += [""] * (height - 1 - len(lines))
    lines.append(f"{DIM}{hint[: width - 1]}{RESET}")
    sys.stdout.write("\x1b[H" + "\x1b[K\n".join(lines) + "\x1b[K")
    sys.stdout.flush()


def run_terminal(arguments, ports: list[str], stopped: threading.Event) -> None:
    frames = Frames(ports)
    sys.stdout.write("\x1b[?1049h\x1b[?25l\x1b[?7l\x1b[2J")
    try:
        while not stopped.wait(REFRESH_S):
            draw(read_tags(arguments.kt_tag), device_ports(ports), frames, arguments.hint)
    finally:
        sys.stdout.write("\x1b[?7h\x1b[?25h\x1b[?1049l")
        sys.stdout.flush()
        frames.stop()


def run_plain(arguments, ports: list[str], stopped: threading.Event) -> None:
    """One line per frame and per changed tag, for a log or a pipe."""
    lock = threading.Lock()

    def say(line: str) -> None:
        with lock:
            try:
                print(line, flush=True)
            except BrokenPipeError:  # the reader of a pipe has gone
                drop_output()
                stopped.set()

    frames = Frames(ports, lambda frame: say(f"frame {frame.port} {frame.text}"))
    known: dict[str, str] = {}
    try:
        while not stopped.wait(REFRESH_S):
            for tag in read_tags(arguments.kt_tag):
                name = f"{PREFIX}{tag.device}/{tag.name}"
                if known.get(name) != tag.value:
                    known[name] = tag.value
                    say(f"tag {name} {tag.value}")
    finally:
        frames.stop()


def drop_output() -> None:
    os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())


def main() -> int:
    parser = argparse.ArgumentParser(description="Live view of tags and CAN frames.")
    parser.add_argument("--ports", required=True, help="CAN interfaces, e.g. can0,can1")
    parser.add_argument("--kt-tag", required=True, help="the kt-tag program")
    parser.add_argument("--hint", default="", help="text of the last line")
    arguments = parser.parse_args()
    stopped = threading.Event()
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: stopped.set())
    run = run_terminal if sys.stdout.isatty() else run_plain
    try:
        run(arguments, arguments.ports.split(","), stopped)
    except BrokenPipeError:
        drop_output()
    return 0


if __name__ == "__main__":
    sys.exit(main())
