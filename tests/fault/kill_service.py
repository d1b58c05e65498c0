#!/usr/bin/python3
"""The real service, over kt-softcan, killed at random moments, several of them side by side.

    kill_service.py BIN_DIR [--count N | --all] [--seed N] [--jobs N]

Half of the deaths come by time, the others right after the Nth lock of the recorder, write, rename
or removal. Meanwhile requests change, apply and discard the configuration, both ports record frames
and another application reads and writes tags of eight bytes that are always the same. Exit status:
0, 1 with findings, 77 when it cannot run.
"""

import argparse
import collections
import contextlib
import http.client
import json
import os
import pathlib
import random
import shutil
import signal
import socket
import sqlite3
import struct
import subprocess
import sys
import tempfile
import threading
import time
import traceback

REPO = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(REPO / "tests/support"))
os.environ.setdefault("KT_LANE", "softcan")

from kt_system.config_file import ConfigFile  # noqa: E402
from kt_system.gateway import PERSISTENT_DB, WORKING_DB, Gateway  # noqa: E402
from kt_system.lane import scaled, wait_until  # noqa: E402
from kt_system.rest import ADDRESS_FILE, BASE, LISTEN, MULTIPART, Rest, multipart  # noqa: E402

WHOLE_COUNT = 2000
FIXED_IN, FIXED_OUT = "can_proprietary/fixed/in_twin", "can_proprietary/fixed/out_echo"
FRAME = struct.Struct("=IB3x8s")
POINTS = {"flock": 400, "pwrite": 150, "rename": 12, "unlink": 40}
TRAFFIC = "/run/tmp/kt-can-proprietary/traffic-log"
LONGEST = 0.06  # seconds of work before a death by time


class Finding(Exception):
    pass


def expect(condition: bool, what: str) -> None:
    if not condition:
        raise Finding(what)


# What a database holds: the number of an imported file (0: none) and names of devices added --------


class Content(tuple):
    """(number of the file, name, name, ...)"""

    @property
    def rows(self) -> list[list[str]]:
        number, *added = self
        if number == 0:
            return [[*added], [], []]
        count = 1 + number % 8
        return [
            ["fixed", *(f"f{number}d{i}" for i in range(count)), *added],
            ["in", "out", *[f"f{number}t"] * count],
            ["twin", "echo", *[f"f{number}b"] * count],
        ]


NOTHING = Content((0,))


def import_text(number: int) -> str:
    count = range(1 + number % 8)
    rows = [
        ["1,0,3,0,0,0", "2,0,3,0,0,0"],
        ["1,1,fixed", *(f"{i + 2},2,f{number}d{i}" for i in count)],
        ["1,1,1,in,1,,,,,,0,,,", "2,1,1,out,0,1,,0,,0,,,,",
         *(f"{i + 3},{i + 2},1,f{number}t,1,,,,,,0,,," for i in count)],
        ["1,1,181,8,1", "2,2,201,8,0", *(f"{i + 3},{i + 3},{0x300 + i:X},8,1" for i in count)],
        ["1,1,0,0,twin,13,8,ro,0,,,,,,,,,,,", "2,2,0,0,echo,13,8,wo,0,,,,,,,,,,,",
         *(f"{i + 3},{i + 3},0,0,f{number}b,6,2,ro,0,,0,,,,,,,,," for i in count)],
    ]
    return ConfigFile(rows).text


def rows_in(path: pathlib.Path, scratch: pathlib.Path) -> list[list[str]]:
    """Of a copy: what a dead process left half done stays for the next start to deal with."""
    for end in ("", "-journal"):
        copy = scratch / f"read.db{end}"
        copy.unlink(missing_ok=True)
        with contextlib.suppress(FileNotFoundError):
            shutil.copy(f"{path}{end}", copy)
    with contextlib.closing(sqlite3.connect(scratch / "read.db")) as db:
        sound = db.execute("PRAGMA integrity_check").fetchall()
        expect(sound == [("ok",)], f"{path} is damaged: {sound}")
        expect(not db.execute("PRAGMA foreign_key_check").fetchall(), f"{path} has loose rows")
        return [
            [name for name, in db.execute(f"SELECT {column} FROM {table} ORDER BY 1, rowid")]
            for table, column in
            (("device", "deviceName"), ("transactions", "transactionName"), ("block", "tagName"))
        ]


def in_order(rows: list[list[str]]) -> list[list[str]]:
    return [sorted(names) for names in rows]


class Client(threading.Thread):
    """Changes the configuration until the service is gone."""

    def __init__(self, world: "World", seed: int):
        super().__init__(daemon=True)
        self.world = world
        self.random = random.Random(seed)
        self.failure = ""

    def run(self) -> None:
        connection = self.world.rest.connect()
        with contextlib.suppress(OSError, http.client.HTTPException), \
                contextlib.closing(connection):
            while not self.failure:
                self.step(connection)

    def step(self, connection: http.client.HTTPConnection) -> None:
        world, roll = self.world, self.random.random()
        working, persistent = world.now
        world.number += 1
        headers, wanted = {}, 201
        if roll < 0.3:
            path, body, headers = "/config-file", multipart(import_text(world.number)), MULTIPART
            after = (Content((world.number,)), persistent)
        elif roll < 0.55 and len(working) < 20:
            name = f"x{world.number}"
            path, body = "/device", json.dumps({"portId": 1, "deviceName": name})
            after = (Content((*working, name)), persistent)
        elif roll < 0.75:
            path, body, after = "/action", '{"option":0}', (working, working)
        elif roll < 0.85:
            path, body, after = "/action", '{"option":1}', (persistent, persistent)
        else:
            port = self.random.choice((1, 2))
            path, body, after = f"/traffic/{port}", '{"option":1}', world.now
            wanted = None  # between two passes there is no recorder
        world.may = after
        connection.request("POST", BASE + path, body, headers)
        answer = connection.getresponse()
        text = answer.read()
        if wanted and answer.status != wanted:
            self.failure = f"POST {path} answers {answer.status} {text!r}"
            return
        world.now = after
        world.requests += 1


class Bus(threading.Thread):
    """Sends frames all bytes of which are the same and looks at those that come."""

    def __init__(self):
        super().__init__(daemon=True)
        self.torn = self.seen = 0
        self.ended = threading.Event()

    def run(self) -> None:
        nodes = []
        for port in ("can0", "can1"):
            node = socket.socket(socket.AF_CAN, socket.SOCK_RAW, socket.CAN_RAW)
            node.bind((port,))
            node.setblocking(False)
            nodes.append(node)
        number = 0
        while not self.ended.wait(0.002):
            number = (number + 1) % 256
            for node in nodes:
                with contextlib.suppress(OSError):  # the port may be down
                    node.send(FRAME.pack(0x181, 8, bytes([number] * 8)))
                self.take(node)

    def take(self, node: socket.socket) -> None:
        with contextlib.suppress(OSError):
            while True:
                can_id, length, data = FRAME.unpack(node.recv(16))
                if can_id == 0x201:
                    self.seen += 1
                    self.torn += length != 8 or len(set(data)) != 1


class World:
    """One gateway and what is known of it."""

    def __init__(self, scratch: pathlib.Path, seed: int):
        self.scratch = scratch
        self.random = random.Random(seed)
        self.gateway = Gateway(scratch)
        self.rest = Rest(self.gateway)
        self.number = self.requests = 0
        self.now = self.may = (NOTHING, NOTHING)
        self.starts: list[float] = []
        self.deaths = collections.Counter()
        self.checks = 0

    def start(self, point: str) -> None:
        environment = dict(LISTEN)
        if point:
            library = str(REPO / "build/release/bin/libdeath_point.so")
            library = os.environ.get("KT_DEATH_LIBRARY", library)
            environment["LD_PRELOAD"] = f"{os.environ.get('LD_PRELOAD', '')}:{library}"
            environment["KT_DEATH_POINT"] = point
        self.gateway.path(ADDRESS_FILE).unlink(missing_ok=True)
        begin = time.monotonic()
        self.gateway.start(wait=False, environment=environment)
        wait_until(lambda: self.dead() or self.answers(), 60.0, "an answer")
        if not self.dead():
            self.starts.append(time.monotonic() - begin)

    def answers(self) -> bool:
        with contextlib.suppress(OSError, http.client.HTTPException):
            return (self.gateway.path(ADDRESS_FILE).exists()
                    and self.gateway.path(WORKING_DB).exists()
                    and self.rest.get("/overview").status == 200)
        return False

    def dead(self) -> bool:
        status = self.gateway.process.poll()
        expect(status in (None, -signal.SIGKILL), f"the service ends with {status}")
        return status is not None

    def check(self) -> None:
        """What the death before left."""
        found = []
        for index, path in enumerate((WORKING_DB, PERSISTENT_DB)):
            rows = in_order(rows_in(self.gateway.path(path), self.scratch))
            fitting = [state[index] for state in (self.now, self.may)
                       if in_order(state[index].rows) == rows]
            expect(bool(fitting), f"{path} holds neither {self.now[index]} nor {self.may[index]}"
                                  f" but {rows}")
            found.append(fitting[0])
        self.now = self.may = tuple(found)
        for port in (1, 2):
            path = f"/traffic/{port}"
            # The recorder comes up a moment after the server, and anew after an apply.
            if self.gateway.path(f"{TRAFFIC}{port - 1}.json").exists():
                wait_until(lambda: self.rest.get(path).status == 200, 20.0, f"the log of {path}")
            wait_until(lambda: self.rest.post(path, {"option": 1}).status == 201, 20.0,
                       f"recording by {path}")
        wait_until(lambda: self.rest.get("/traffic/1").data["response"], 20.0, "a recorded frame")
        text = self.gateway.stderr[self.gateway._log_start :]
        expect("corrupt" not in text, text)
        self.checks += 1

    def cycle(self) -> None:
        kind = self.random.choice(("time", "time", "time", "flock", "pwrite", "rename", "unlink"))
        armed = kind != "time"
        self.start(f"{kind}:{1 + self.random.randrange(POINTS[kind])}" if armed else "")
        if self.dead():  # where it was to die, in the middle of its start
            self.gateway.kill()
            self.deaths[kind] += 1
            return
        try:
            self.check()
            client = Client(self, self.random.randrange(1 << 30))
            client.start()
            if armed:
                with contextlib.suppress(subprocess.TimeoutExpired):
                    self.gateway.process.wait(0.3)
            else:
                time.sleep(self.random.uniform(0, LONGEST))
        except (OSError, http.client.HTTPException):
            if not armed or self.gateway.process.wait(scaled(20)) != -signal.SIGKILL:
                raise  # it died where it was to die, in the middle of the check
            client = None
        by_itself = armed and self.dead()
        self.gateway.kill()
        if client:
            client.join()
            expect(not client.failure, client.failure)
        self.deaths[kind if by_itself or not armed else "time"] += 1

    def fresh(self) -> None:
        if self.gateway.process:
            self.gateway.kill()
        self.gateway.fresh()
        self.now = self.may = (NOTHING, NOTHING)


def twins(world: World, what: str, name: str, bin_dir: pathlib.Path) -> subprocess.Popen:
    return subprocess.Popen([bin_dir / "tag_twins", what, name], env=world.gateway.environment,
                            stdout=subprocess.PIPE, text=True)


def inside(options) -> dict:
    """A worker, in a bus world of its own. @return its counts"""
    folder = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    scratch = pathlib.Path(tempfile.mkdtemp(prefix="kt-kill-", dir=folder))
    world = World(scratch, options.seed)
    bus = Bus()
    bus.start()
    others = [twins(world, *one, options.bin_dir) for one in
              (("read", FIXED_IN), ("read", FIXED_OUT), ("write", FIXED_OUT))]
    findings = []
    for cycle in range(options.count):
        try:
            world.cycle()
        except Exception as error:  # an assertion of a helper is a finding, too
            text = str(error) if isinstance(error, Finding) else traceback.format_exc()
            log = world.gateway.stderr[world.gateway._log_start :][-1500:]
            findings.append(f"seed {options.seed}, cycle {cycle}: {text}\n{log}")
            world.fresh()
        if len(findings) >= 5:
            break
    bus.ended.set()
    bus.join()
    reads = torn = 0
    for other in others:
        other.terminate()
        counts = other.communicate()[0].split()
        reads, torn = reads + int(counts[0]), torn + int(counts[1])
    if torn or bus.torn:
        findings.append(f"seed {options.seed}: {torn} torn reads, {bus.torn} torn frames")
    shutil.rmtree(scratch, ignore_errors=True)
    return {"deaths": world.deaths, "starts": world.starts, "checks": world.checks,
            "requests": world.requests, "reads": reads, "frames": bus.seen, "findings": findings}


# Outside ------------------------------------------------------------------------------------------


def percentile(values: list[float], part: int) -> float:
    ordered = sorted(values) or [0.0]
    return ordered[min(len(ordered) - 1, len(ordered) * part // 100)]


def start_worker(options, index: int, count: int) -> subprocess.Popen:
    command = [options.bin_dir / "kt-softcan", "run", "--ports", "can0,can1", "--up", "--",
               sys.executable, __file__, options.bin_dir, "--inside", "--count", str(count),
               "--seed", str(options.seed + index)]
    environment = {**os.environ, "KT_BIN": str(options.bin_dir), "PYTHONDONTWRITEBYTECODE": "1",
                   "KT_DEATH_LIBRARY": str(options.bin_dir / "libdeath_point.so")}
    return subprocess.Popen(command, env=environment, stdout=subprocess.PIPE, text=True)


def report(options, results: list[dict], lost: int) -> int:
    deaths = sum((collections.Counter(r["deaths"]) for r in results), collections.Counter())
    starts = [1000 * seconds for r in results for seconds in r["starts"]]
    findings = [text for r in results for text in r["findings"]]
    findings += ["a worker ended without a result"] * lost
    total = {name: sum(r[name] for r in results) for name in ("checks", "requests", "reads", "frames")}
    for text in findings:
        print(text, file=sys.stderr)
    print("killed by " + ", ".join(f"{name}: {count}" for name, count in sorted(deaths.items())))
    print("start to first answer in ms: "
          + ", ".join(f"p{part} {percentile(starts, part):.0f}" for part in (50, 95, 99, 100))
          + f"; {sum(ms > 1000 for ms in starts)} of {len(starts)} took more than a second")
    print(f"{total['requests']} requests answered, {total['reads']} tag reads, {total['frames']}"
          " frames of tag writes")
    print(f"kill_service: seed {options.seed}, {sum(deaths.values())} killed, {total['checks']}"
          f" starts judged, {len(findings)} findings")
    return 1 if findings else 0


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("bin_dir", type=lambda text: pathlib.Path(text).resolve())
    parser.add_argument("--count", type=int, default=100)
    parser.add_argument("--all", action="store_true", help=f"{WHOLE_COUNT} deaths")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--jobs", type=int, default=2, help="services side by side")
    parser.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.inside:
        print(json.dumps(inside(options)))
        return 0
    if not (options.bin_dir / "kt-softcan").exists():
        print("kill_service: cannot run here: kt-softcan is not built")
        return 77
    count = WHOLE_COUNT if options.all else options.count
    shares = [count // options.jobs + (i < count % options.jobs) for i in range(options.jobs)]
    workers = [start_worker(options, index, share) for index, share in enumerate(shares)]
    texts = [worker.communicate()[0] for worker in workers]
    results = [json.loads(text.splitlines()[-1]) for text in texts if text.strip()]
    return report(options, results, len(workers) - len(results))


if __name__ == "__main__":
    sys.exit(main())
