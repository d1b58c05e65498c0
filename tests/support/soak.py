#!/usr/bin/python3
"""The service at full load for a long time, sampled: does anything grow?

    soak.py [--seconds 60] [--sample 2] [--rate 2000] [--writes 500] [--reads 10] [--out DIR] ...
    soak.py --judge DIR/soak.csv     the verdict about samples that were taken before

Frames on both ports, tag writers, REST readers and traffic recording go on all the time. Every few
seconds a line goes into DIR/soak.csv; at the end DIR/soak.svg shows the samples, and each quantity
is judged: flat when the line through the second half rises by no more than three standard
deviations of the samples around it, or than the floor of its row in QUANTITIES.
Memory and files count by the lowest of ten samples each: what a request borrows is not theirs. Only
descriptors and threads are judged in runs below ten minutes. Two latencies are measured all along:
a frame on the bus until the tag shows its value, and a tag write until its frame is on the bus.

Runs on can0 and can1 of the machine where they are up, else in a world of kt-softcan. Nothing but
Python and this tree's programs (KT_BIN) is needed. Exit status: 0 all flat and nothing lost.
"""

import argparse
import contextlib
import csv
import itertools
import os
import pathlib
import signal
import socket
import statistics
import sys
import tempfile
import threading
import time
import urllib.request
from typing import NamedTuple

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
os.environ.setdefault("KT_LANE", "softcan")

from kt_system import chart, lane, trend  # noqa: E402
from kt_system.gateway import Gateway  # noqa: E402
from kt_system.processes import LineReader  # noqa: E402
from kt_system.rows import (  # noqa: E402
    ON_CHANGE,
    U16,
    U32,
    Row,
    constant,
    consume,
    device,
    frame,
    produce,
    request,
    tag,
)
from kt_system.tags import block_tag  # noqa: E402

RECEIVED = 16  # consumed frames of a port, four tags each
WRITTEN = 8  # frames of a port that tag writes send
PING, PONG, BASE, WRITE_BASE = 0x081, 0x082, 0x100, 0x200
PAGES = ("/overview", "/device?deviceId=1", "/device?deviceId=2", "/config-change",
         "/usedCANIds?portId=1", "/traffic/1", "/traffic/2", "/diagnose?portId=1")


SETTLED = 600  # seconds of a run, below which caches and whoever shares the machine decide


class Quantity(NamedTuple):
    name: str
    title: str
    floor: float  # what it may rise within the second half, whatever the noise
    shortest: float = 0  # seconds of a run, below which it is shown and not judged
    lowest: int = 1  # judged by the lowest of so many samples


QUANTITIES = (
    Quantity("anonymous_kib", "anonymous memory, KiB", 8, SETTLED, 10),
    Quantity("heap_kib", "heap segment, KiB", 8, SETTLED, 10),
    Quantity("resident_kib", "resident memory, KiB", 32, SETTLED, 10),
    Quantity("descriptors", "open descriptors", 0.5),
    Quantity("threads", "threads", 0.5),
    Quantity("cpu_percent", "processor time, % of one core", 2, SETTLED),
    Quantity("in_p50_us", "frame to tag, median, us", 100, SETTLED),
    Quantity("in_p99_us", "frame to tag, 99th percentile, us", 1000, SETTLED),
    Quantity("out_p50_us", "tag write to frame, median, us", 100, SETTLED),
    Quantity("out_p99_us", "tag write to frame, 99th percentile, us", 1000, SETTLED),
    Quantity("rest_p50_us", "REST answer, median, us", 500, SETTLED),
    Quantity("files_kib", "files below /run, KiB", 64, SETTLED, 10),
)
OTHERS = ("seconds", "in_max_us", "out_max_us", "in_lost", "out_lost", "received", "sent",
          "rest_answers", "frames_lost", "log_bytes", "machine_load")


def port_device(port: int, cycle: int) -> Row:
    """Every kind of transaction, at a pace that a bus carries beside the load."""
    rows = [
        consume(
            f"in{i}",
            frame(BASE + i, 8, *(tag(f"v{offset}", U16, offset) for offset in (0, 2, 4, 6))),
            timeout=10000,
        )
        for i in range(RECEIVED)
    ]
    rows += [
        produce(
            f"out{i}", frame(WRITE_BASE + i, 4, tag("w", U32, access="wo")), trigger=ON_CHANGE
        )
        for i in range(WRITTEN)
    ]
    rows += [
        consume("ping", frame(PING, 8, tag("n", U32))),
        produce("pong", frame(PONG, 8, tag("n", U32, access="wo")), trigger=ON_CHANGE),
        produce("beat", frame(0x300, 8, constant("mark", "55")), interval=cycle),
        request(
            "ask", frame(0x301, 1, constant("q", "01")), frame(0x302, 1, constant("a", "02")),
            interval=10 * cycle, timeout=50, retry=1,
        ),
        consume("silent", frame(0x303, 1, constant("a", "02")), timeout=500),
    ]
    return device(f"soak{port}", *rows, port=port)


# The load ----------------------------------------------------------------------------------------


class Readings:
    """What a thread or a program has measured since the last look."""

    def __init__(self):
        self._lock = threading.Lock()
        self._values: list[float] = []

    def add(self, value: float) -> None:
        with self._lock:
            self._values.append(value)

    def take(self) -> list[float]:
        with self._lock:
            taken, self._values = self._values, []
        return taken


class RestReader(threading.Thread):
    """Reads one page after the other; keeps traffic recording on."""

    def __init__(self, gateway: Gateway, rate: float, ended: threading.Event):
        super().__init__(daemon=True)
        self.gateway, self.rate, self.ended = gateway, rate, ended
        self.readings = Readings()
        self.failures: list[str] = []

    def run(self) -> None:
        for page in itertools.cycle(PAGES):
            if self.ended.wait(1 / self.rate):
                return
            start = time.monotonic()
            try:
                url = f"http://{self.gateway.rest_address}/CAN-proprietary{page}"
                with urllib.request.urlopen(url, timeout=60) as answer:
                    answer.read()
                if page.startswith("/traffic/"):
                    self.keep_recording(int(page[-1]))
            except OSError as error:
                self.failures.append(f"{page}: {error}")
            self.readings.add(1e6 * (time.monotonic() - start))

    def keep_recording(self, port: int) -> None:
        """A recording ends when its file is full."""
        if not self.gateway.recording(port):
            self.gateway.record(port, True)


class Bursts(threading.Thread):
    """Now and then, for a moment, as many frames as the bus of one port carries."""

    FULL = 9000  # frames of eight bytes at 1 Mbit/s

    def __init__(self, options, ended: threading.Event):
        super().__init__(daemon=True)
        self.every, self.length, self.ended = options.bursts, options.burst, ended
        self.sent = 0

    def run(self) -> None:
        for port in itertools.cycle(lane.PORTS):
            if self.every == 0 or self.ended.wait(self.every):
                return
            command = [lane.helper("bin/load-node"), "send", port, str(self.FULL), f"{BASE:x}"]
            with LineReader(command) as burst:
                self.ended.wait(self.length)
            if burst.lines:  # else it was stopped before it began
                self.sent += int(burst.lines[-1].split()[1])


@contextlib.contextmanager
def load(options, gateway: Gateway):
    """The programs, by what they do; those that measure print a line for each try."""
    node = lane.helper("bin/load-node")
    environment = gateway.environment
    commands = {}
    for number, port in enumerate(lane.PORTS, 1):
        ids = ",".join(f"{BASE + i:x}" for i in range(RECEIVED))
        commands[f"send{number}"] = ["send", port, str(options.rate), ids]
        names = [block_tag(f"soak{number}", f"out{i}", "w") for i in range(WRITTEN)]
        commands[f"write{number}"] = ["write", str(options.writes), *names]
    tries = str(options.tries)
    commands["in"] = ["in", lane.PORTS[0], f"{PING:x}", block_tag("soak1", "ping", "n"), tries]
    commands["out"] = ["out", lane.PORTS[0], f"{PONG:x}", block_tag("soak1", "pong", "n"), tries]
    with contextlib.ExitStack() as running:
        yield {
            name: running.enter_context(LineReader([node, *words], environment))
            for name, words in commands.items()
        }


# Samples -----------------------------------------------------------------------------------------


def percentiles(values: list[float]) -> tuple:
    if not values:
        return "", "", ""
    ordered = sorted(values)
    p99 = ordered[min(len(ordered) - 1, int(0.99 * len(ordered)))]
    return statistics.median(ordered), p99, ordered[-1]


def heap_kib(process: pathlib.Path) -> int:
    for line in (process / "maps").read_text().splitlines():
        if line.endswith("[heap]"):
            begin, end = (int(text, 16) for text in line.split()[0].split("-"))
            return (end - begin) // 1024
    return 0


def status_of(process: pathlib.Path) -> dict[str, int]:
    """The numbers of /proc/PID/status, by name."""
    words = (line.split() for line in (process / "status").read_text().splitlines())
    return {found[0][:-1]: int(found[1]) for found in words if found[1:] and found[1].isdigit()}


def cpu_seconds(process: pathlib.Path) -> float:
    fields = (process / "stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def folder_kib(folder: pathlib.Path) -> int:
    found = 0
    for path in folder.rglob("*"):
        with contextlib.suppress(OSError):
            found += path.stat().st_blocks * 512
    return found // 1024


class Sampler:
    def __init__(self, gateway: Gateway, running: dict, reader: RestReader):
        self.gateway, self.running, self.reader = gateway, running, reader
        self.process = pathlib.Path(f"/proc/{gateway.process.pid}")
        self.start = self.last = time.monotonic()
        self.last_cpu = cpu_seconds(self.process)
        self.seen = dict.fromkeys(("in", "out"), 0)

    def latencies(self, way: str) -> tuple[tuple, int]:
        """Percentiles and losses since the last look."""
        lines = self.running[way].lines
        fresh = lines[self.seen[way]:]
        self.seen[way] += len(fresh)
        times = [float(line) for line in fresh if line.isdigit()]
        return percentiles(times), fresh.count("lost")

    def frames_lost(self) -> int:
        texts = (message.text for message in self.gateway.messages)
        return sum(int(text.split(",")[1].split()[0]) for text in texts if "frames lost" in text)

    def take(self) -> dict:
        now, cpu = time.monotonic(), cpu_seconds(self.process)
        status = status_of(self.process)
        (in_p50, in_p99, in_max), in_lost = self.latencies("in")
        (out_p50, out_p99, out_max), out_lost = self.latencies("out")
        answers = self.reader.readings.take()
        ports = [self.gateway.diagnose(port) for port in (1, 2)]
        row = {
            "seconds": round(now - self.start, 2),
            "anonymous_kib": status.get("RssAnon", ""),
            "heap_kib": heap_kib(self.process),
            "resident_kib": status["VmRSS"],
            "descriptors": len(list((self.process / "fd").iterdir())),
            "threads": status["Threads"],
            "cpu_percent": round(100 * (cpu - self.last_cpu) / (now - self.last), 1),
            "in_p50_us": in_p50, "in_p99_us": in_p99, "in_max_us": in_max, "in_lost": in_lost,
            "out_p50_us": out_p50, "out_p99_us": out_p99, "out_max_us": out_max,
            "out_lost": out_lost,
            "rest_p50_us": round(percentiles(answers)[0] or 0),
            "rest_answers": len(answers),
            "received": sum(port["rxCount"] for port in ports),
            "sent": sum(port["txCount"] for port in ports),
            "frames_lost": self.frames_lost(),
            "log_bytes": len(self.gateway.stderr),
            "files_kib": folder_kib(self.gateway.path("/run")),
            "machine_load": os.getloadavg()[0],
        }
        self.last, self.last_cpu = now, cpu
        return row


# The verdict -------------------------------------------------------------------------------------


def series(rows: list[dict], name: str) -> list[tuple[float, float]]:
    return [(float(row["seconds"]), float(row[name])) for row in rows if row[name] != ""]


def judge(rows: list[dict], out: pathlib.Path, title: str) -> list[str]:
    """Print the verdict about every quantity, draw them; returns the findings."""
    panels, findings = [], []
    for quantity in QUANTITIES:
        samples = series(rows, quantity.name)
        found = trend.trend(trend.lowest_of(samples, quantity.lowest), quantity.floor)
        length = samples[-1][0] if samples else 0
        panels.append((quantity.title, samples, found))
        if found is None or length < 0.95 * quantity.shortest:
            print(f"  {quantity.title:42} not judged: {len(samples)} samples in {length:.0f} s")
            continue
        word = "flat" if found.flat else "RISES"
        print(f"  {quantity.title:42} {found.start:12.1f} {found.drift:+10.1f}"
              f"  allowed {found.allowed:8.1f}  {word}")
        if not found.flat:
            findings.append(f"{quantity.name} rises")
    for name in ("in_max_us", "out_max_us", "machine_load"):
        panels.append((name, series(rows, name), None))
    (out / "soak.svg").write_text(chart.picture(title, panels))
    for name in ("in_lost", "out_lost"):
        if lost := sum(int(row[name]) for row in rows):
            findings.append(f"{name}: {lost}")
    return findings


def judge_counts(gateway: Gateway, running: dict[str, LineReader], burst: int,
                 sampler: Sampler) -> list[str]:
    """Every frame that went on the bus is counted, or its loss logged, once the socket is empty.
    The last try of a latency may have been under way when its program was stopped."""
    sent = burst + len(running["in"].lines)
    sent += sum(int(running[name].lines[-1].split()[1]) for name in ("send1", "send2"))
    received = lost = 0

    def all_counted() -> bool:
        nonlocal received, lost
        received = sum(gateway.diagnose(port)["rxCount"] for port in (1, 2))
        lost = sampler.frames_lost()
        return sent - received - lost in (0, -1)

    with contextlib.suppress(AssertionError):  # what is missing then is a finding
        lane.wait_until(all_counted, 30.0)
    print(f"  frames: {sent} sent, {received} received, {lost} logged as lost")
    missing = sent - received - lost
    return [] if missing in (0, -1) else [f"{missing} frames are missing"]


def take_samples(options, sampler: Sampler, rows: list[dict]) -> None:
    with open(options.out / "soak.csv", "w", newline="", encoding="ascii") as file:
        writer = csv.DictWriter(file, [*OTHERS, *(quantity.name for quantity in QUANTITIES)])
        writer.writeheader()
        end = time.monotonic() + options.seconds
        while time.monotonic() < end:
            time.sleep(options.sample)
            rows.append(sampler.take())
            writer.writerow(rows[-1])
            file.flush()


def settle(gateway: Gateway) -> None:
    """Until the frames that are still in the socket have been counted."""
    def received() -> int:
        return sum(gateway.diagnose(port)["rxCount"] for port in (1, 2))

    last = -1
    while (count := received()) != last:
        last = count
        time.sleep(0.5)


def run(options) -> int:
    rows: list[dict] = []
    with tempfile.TemporaryDirectory(prefix="kt-soak-") as folder:
        gateway = Gateway(pathlib.Path(folder))
        gateway.configure(port_device(1, options.cycle), port_device(2, options.cycle),
                          sql=f"UPDATE interface_setting SET baudrate = {options.baudrate};")
        gateway.start()
        for port in (1, 2):
            gateway.record(port, True)
        ended = threading.Event()
        reader = RestReader(gateway, options.reads, ended)
        bursts = Bursts(options, ended)
        with load(options, gateway) as running:
            sampler = Sampler(gateway, running, reader)
            reader.start()
            bursts.start()
            take_samples(options, sampler, rows)
            ended.set()
            bursts.join()
        reader.join()
        settle(gateway)
        title = f"{options.seconds:g} s, {options.rate} frames/s a port, {options.writes} writes/s"
        print(f"soak: {title}, {len(rows)} samples")
        findings = judge(rows, options.out, title)
        findings += judge_counts(gateway, running, bursts.sent, sampler)
        findings += reader.failures[:3]
        gateway.close()
    return conclude(findings)


def conclude(findings: list[str]) -> int:
    for finding in findings:
        print(f"  finding: {finding}")
    print(f"soak: {len(findings)} findings")
    return 1 if findings else 0


def has_ports() -> bool:
    names = {name for _, name in socket.if_nameindex()}
    return "KT_SOFTCAN" in os.environ or names.issuperset(lane.PORTS)


def enter_world() -> None:
    """Run again in a world of kt-softcan."""
    softcan = lane.program("kt-softcan")
    os.execv(softcan, [softcan, "run", "--ports", ",".join(lane.PORTS), "--up", "--",
                       sys.executable, *sys.argv])


def main() -> int:
    parser = argparse.ArgumentParser(formatter_class=argparse.RawDescriptionHelpFormatter,
                                     description=__doc__)
    parser.add_argument("--seconds", type=float, default=60)
    parser.add_argument("--sample", type=float, default=2, help="seconds between two samples")
    parser.add_argument("--rate", type=int, default=2000, help="frames per second and port")
    parser.add_argument("--writes", type=int, default=500, help="tag writes per second and port")
    parser.add_argument("--reads", type=float, default=10, help="REST requests per second")
    parser.add_argument("--tries", type=int, default=20, help="measured latencies per second")
    parser.add_argument("--cycle", type=int, default=10,
                        help="milliseconds between two cyclic frames, ten cycles between requests")
    parser.add_argument("--bursts", type=float, default=0,
                        help="seconds between two bursts at full bus rate, 0 for none")
    parser.add_argument("--burst", type=float, default=0.2, help="length of a burst in seconds")
    parser.add_argument("--baudrate", type=int, default=7, help="of the ports, as REST numbers it")
    parser.add_argument("--out", type=pathlib.Path, default=lane.REPO / "build/soak")
    parser.add_argument("--judge", type=pathlib.Path, help="a soak.csv; nothing is run")
    options = parser.parse_args()
    if options.judge:
        with open(options.judge, newline="", encoding="ascii") as file:
            return conclude(judge(list(csv.DictReader(file)), options.judge.parent, "judged anew"))
    if not has_ports():
        enter_world()
    options.out.mkdir(parents=True, exist_ok=True)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    return run(options)


if __name__ == "__main__":
    sys.exit(main())
