"""What the drivers of the groups share: arguments, lines of results, programs that count."""

import argparse
import json
import os
import pathlib
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

REPO = pathlib.Path(__file__).resolve().parents[2]
CANNOT = 77


def cannot(why: str):
    print(f"{pathlib.Path(sys.argv[0]).stem}: cannot measure here: {why}", file=sys.stderr)
    sys.exit(CANNOT)


def arguments(description: str) -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("--bin", type=pathlib.Path, default=REPO / "build/release/bin")
    parser.add_argument("--arm-bin", type=pathlib.Path, default=REPO / "build/armhf/bin")
    parser.add_argument("--out", type=pathlib.Path, required=True)
    parser.add_argument("--check", action="store_true", help="only what repeats, within a minute")
    options = parser.parse_args()
    for name in ("bin", "arm_bin", "out"):
        setattr(options, name, getattr(options, name).absolute())
    return options


class Lines:
    """The lines of a group, with the goals of the service's."""

    def __init__(self, group: str, out: pathlib.Path):
        self.group = group
        self.out = out
        out.parent.mkdir(parents=True, exist_ok=True)
        out.write_text("", "utf-8")
        self.goals = []

    def line(self, **fields) -> None:
        with open(self.out, "a", encoding="utf-8") as file:
            print(json.dumps({"group": self.group, **fields}), file=file)

    def title(self, text: str) -> None:
        self.line(title=text)

    def note(self, text: str) -> None:
        self.line(note=text)

    def plot(self, name: str, x: str, y: str, **series) -> None:
        self.line(plot=name, x=x, y=y, series=series)

    def goal(self, quantity: str, goal: dict, case: str = "") -> None:
        """For the service's lines of a quantity whose case begins so."""
        self.goals.append((quantity, case, goal))

    def value(self, case, who, quantity, value, unit="", runs=1, spread=0.0, **more) -> None:
        if who == "service":
            for wanted, start, goal in self.goals:
                if wanted == quantity and case.startswith(start):
                    more.setdefault("goal", goal)
        self.line(case=case, who=who, quantity=quantity, value=value, unit=unit, runs=runs,
                  spread=round(spread, 2), **more)

    def values(self, case, who, quantity, values, unit="", **more) -> None:
        median = statistics.median(values)
        spread = 50 * (max(values) - min(values)) / median if median else 0
        self.value(case, who, quantity, median, unit, len(values), spread, **more)

    def take(self, text: str, unit: str = "") -> None:
        """The lines that a program printed."""
        for line in text.splitlines():
            self.value(**json.loads(line), unit=unit)


def run(*command, timeout: float = 600, **more) -> str:
    done = subprocess.run([str(word) for word in command], check=False, text=True,
                          stdout=subprocess.PIPE, timeout=timeout, **more)
    if done.returncode != 0:
        print(f"{command[0]} ended with {done.returncode}", file=sys.stderr)
        sys.exit(1)
    return done.stdout


def callgrind(*command, whole: bool = False, **more) -> dict[str, int]:
    """Instructions of each part that a program names, or of the program as a whole as "" """
    if shutil.which("valgrind") is None:
        cannot("no valgrind")
    with tempfile.TemporaryDirectory() as folder:
        out = pathlib.Path(folder, "out")
        # The time is the machine's business, so the program may be polite.
        run("nice", "valgrind", "--tool=callgrind", f"--callgrind-out-file={out}", "-q",
            f"--instr-atstart={'yes' if whole else 'no'}", *command,
            stderr=subprocess.DEVNULL, **more)
        counted = {}
        for path in pathlib.Path(folder).iterdir():
            text = path.read_text("utf-8", "replace")
            name = re.search(r"^desc: Trigger: Client Request: (.*)$", text, re.M)
            total = int(re.search(r"^totals: (\d+)$", text, re.M)[1])
            if whole:
                counted[""] = total
            elif name:
                counted[name[1]] = total
        return counted


def in_bus_world(options: argparse.Namespace) -> None:
    """Go on inside a world of two CAN ports, where this program is not in one yet."""
    if os.environ.get("KT_LANE") == "softcan":
        return
    softcan = options.bin / "kt-softcan"
    if not softcan.exists():
        cannot("kt-softcan is not built")
    variables = {**os.environ, "KT_LANE": "softcan", "KT_BIN": str(options.bin),
                 "KT_SOFTCAN_PROGRAM": str(softcan), "PYTHONDONTWRITEBYTECODE": "1"}
    up = ('for port in can0 can1; do ip link set "$port" type can bitrate 1000000 && '
          'ip link set up "$port" || exit 1; done; exec "$@"')
    os.execve(softcan, [str(softcan), "run", "--ports", "can0,can1", "--", "/bin/bash", "-c", up,
                        "-", "/usr/bin/python3", *sys.argv], variables)


def threads(process: int) -> dict[str, int]:
    """The threads of a process by name."""
    found = {}
    for task in pathlib.Path(f"/proc/{process}/task").iterdir():
        found[(task / "comm").read_text("ascii").strip()] = int(task.name)
    return found


def system_calls(thread: int, work) -> dict[str, int]:
    """The system calls of one thread while work() runs, by name."""
    with tempfile.NamedTemporaryFile("r") as out:
        tracer = subprocess.Popen(["strace", "-c", "-U", "calls,name", "-o", out.name, "-p",
                                   str(thread)], stderr=subprocess.PIPE, text=True)
        if "attached" not in tracer.stderr.readline():
            cannot("strace may not attach")
        try:
            work()
        finally:
            tracer.send_signal(2)
            tracer.wait()
        rows = [line.split() for line in out.read().splitlines()]
    return {row[1]: int(row[0]) for row in rows
            if len(row) == 2 and row[0].isdigit() and row[1] != "total"}


def wait_until(predicate, timeout: float = 60.0):
    deadline = time.monotonic() + timeout
    while not (value := predicate()):
        if time.monotonic() > deadline:
            print("waited in vain", file=sys.stderr)
            sys.exit(1)
        time.sleep(0.0005)
    return value
