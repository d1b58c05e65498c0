"""What the groups of benchmarks share on the emulated machine, where a nanosecond of the clock is
an instruction and idle time is skipped."""

import contextlib
import json
import mmap
import os
import pathlib
import shutil
import signal
import socket
import sqlite3
import statistics
import struct
import subprocess
import sys
import time

REPO = pathlib.Path(__file__).resolve().parents[3]
sys.path.insert(0, str(REPO / "tests/support"))

# The rows alone: the package's other modules load what takes seconds on this machine.
import importlib.util  # noqa: E402

_spec = importlib.util.spec_from_file_location("rows", REPO / "tests/support/kt_system/rows.py")
rows = sys.modules["rows"] = importlib.util.module_from_spec(_spec)
_spec.loader.exec_module(rows)

BIN = pathlib.Path(os.environ["KT_BIN"])
SCHEMA = "/etc/default/config/kt-can-proprietary/can_proprietary.sql"
FOLDERS = ("/data/config/kt-can-proprietary", "/run/config/kt-can-proprietary")
DEFAULT_DB = FOLDERS[0] + "/default/can_proprietary.db"
SAVED_SCHEMA = FOLDERS[0] + "/default/can_proprietary.sql"
PERSISTENT_DB = FOLDERS[0] + "/can_proprietary.db"
TRACING = pathlib.Path("/sys/kernel/tracing")

SYSTEM_CALLS = {0: "restart_syscall", 3: "read", 4: "write", 5: "open", 6: "close", 19: "lseek",
                20: "getpid", 54: "ioctl", 91: "munmap", 93: "ftruncate", 108: "fstat",
                118: "fsync", 140: "_llseek", 142: "_newselect", 143: "flock", 146: "writev",
                192: "mmap2", 194: "ftruncate64", 195: "stat64", 197: "fstat64", 221: "fcntl64",
                240: "futex", 263: "clock_gettime", 290: "sendto", 292: "recvfrom",
                295: "getsockopt", 322: "openat", 335: "pselect6", 397: "statx",
                403: "clock_gettime64", 413: "pselect6_time64", 422: "futex_time64"}


class Report:
    """The results, a JSON object a line."""

    def __init__(self, path: str):
        self._file = open(path, "w", encoding="utf-8")

    def line(self, **members) -> None:
        self._file.write(json.dumps(members) + "\n")
        self._file.flush()
        print(json.dumps(members), flush=True)

    def value(self, group, case, who, quantity, unit, values, **more) -> float:
        values = values if isinstance(values, (list, tuple)) else [values]
        middle = statistics.median(values)
        half = (max(values) - min(values)) / 2
        self.line(group=group, case=case, who=who, quantity=quantity, value=round(middle, 3),
                  unit=unit, runs=len(values),
                  spread=round(100 * half / middle, 2) if middle else 0.0, **more)
        return middle


def prepare_machine() -> None:
    """Room for a whole run of frames in the socket of a program that asks for none."""
    for name in ("rmem_default", "rmem_max", "wmem_default", "wmem_max"):
        pathlib.Path("/proc/sys/net/core", name).write_text("67108864")
    subprocess.run(["mount", "-t", "tracefs", "tracefs", str(TRACING)], check=False,
                   stderr=subprocess.DEVNULL)


class Program:
    """A program that runs on the side and ends with the block."""

    def __init__(self, *command, environment=None, ready=None, thread=None):
        self.log = pathlib.Path(f"/tmp/{pathlib.Path(str(command[0])).name}.log")
        with open(self.log, "wb") as output:
            self.process = subprocess.Popen(
                [str(part) for part in command], cwd="/", stdin=subprocess.DEVNULL,
                stdout=output if thread else subprocess.DEVNULL,
                stderr=subprocess.STDOUT if thread else output,
                env={**os.environ, **(environment or {})})
        self.pid = self.process.pid
        self.thread = self.pid
        wait_until(ready or (lambda: listens("can0")), f"{command[0]} is not ready", self)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.send_signal(signal.SIGCONT)
        self.process.send_signal(signal.SIGTERM)
        try:
            self.process.wait(20)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()

    def threads(self) -> dict[str, int]:
        """Thread ids by name."""
        found = {}
        for folder in pathlib.Path(f"/proc/{self.pid}/task").iterdir():
            found[(folder / "comm").read_text().strip()] = int(folder.name)
        return found

    def instructions(self, thread: int | None = None) -> int:
        path = f"/proc/{self.pid}/task/{thread or self.thread}/schedstat"
        return int(pathlib.Path(path).read_text().split()[0])

    def waits(self, thread: int | None = None) -> bool:
        text = pathlib.Path(f"/proc/{self.pid}/task/{thread or self.thread}/stat").read_text()
        return text.rpartition(")")[2].split()[0] == "S"

    def settle(self) -> None:
        """Until nothing is left to do; looking costs little beside what there is to do."""
        for _ in range(400):
            time.sleep(0.05)
            if self.waits():
                return
        raise SystemExit(f"{self.process.args[0]} does not come to rest")

    def stop(self) -> None:
        self.process.send_signal(signal.SIGSTOP)
        time.sleep(0.005)

    def go_on(self) -> None:
        self.process.send_signal(signal.SIGCONT)


class Service(Program):
    """The service with a configuration, its ports running."""

    def __init__(self, *devices, sql: str = "", ports=("can0", "can1"), environment=None):
        configure(devices, sql, len(ports))
        subprocess.run(["rm", "-rf", "/run/kt-dx"], check=True)
        super().__init__(BIN / "kt-can-proprietary", thread=True,
                         environment={"KT_CAN_PORTS": ",".join(ports), **(environment or {})},
                         ready=lambda: all(listens(port) for port in ports))
        time.sleep(1)
        self.port_threads = [self.threads()[f"{port}-port"] for port in ports]
        self.thread = self.port_threads[0]

    def rest(self, method: str, path: str, body: bytes = b"", kind="application/json") -> tuple:
        with socket.create_connection(("127.0.0.1", 8080)) as client:
            client.sendall(f"{method} /CAN-proprietary{path} HTTP/1.1\r\nHost: localhost\r\n"
                           f"Content-Type: {kind}\r\nContent-Length: {len(body)}\r\n"
                           "Connection: close\r\n\r\n".encode() + body)
            answer = b""
            while part := client.recv(65536):
                answer += part
        head, _, content = answer.partition(b"\r\n\r\n")
        return int(head.split()[1]), content

    def diagnose(self, port: int = 1) -> dict:
        status, content = self.rest("GET", f"/diagnose?portId={port}")
        if status != 200:
            raise SystemExit(f"diagnose answers {status}")
        return json.loads(content)["data"]


def configure(devices, sql: str, ports: int) -> None:
    """The files of a gateway that was stopped with this configuration applied."""
    for folder in FOLDERS:
        shutil.rmtree(folder, ignore_errors=True)
    for path in (SCHEMA, DEFAULT_DB):
        pathlib.Path(path).parent.mkdir(parents=True, exist_ok=True)
    shutil.copy(REPO / "schema/can_proprietary.sql", SCHEMA)
    shutil.copy(SCHEMA, SAVED_SCHEMA)
    schema = pathlib.Path(SCHEMA).read_text("utf-8")
    for path in (DEFAULT_DB, PERSISTENT_DB):
        with contextlib.closing(sqlite3.connect(path)) as db:
            db.execute("PRAGMA synchronous = OFF")
            db.executescript("BEGIN;" + schema + ";COMMIT;")
            if path == PERSISTENT_DB:
                db.executescript("INSERT INTO interface_setting DEFAULT VALUES;" * ports)
                rows.insert(db, devices)
                db.commit()
                db.executescript(sql)


def listens(port: str) -> bool:
    """Whether a raw socket takes the frames of a port."""
    for name in ("rcvlist_all", "rcvlist_fil"):
        for line in pathlib.Path("/proc/net/can", name).read_text().splitlines():
            if line.split()[:1] == [port]:
                return True
    return False


def wait_until(condition, what: str, program: Program | None = None) -> None:
    for _ in range(2000):
        if condition():
            return
        if program and program.process.poll() is not None:
            break
        time.sleep(0.02)
    log = program.log.read_text("utf-8", "replace") if program else ""
    raise SystemExit(f"{what}: {log}")


def send(count: int, *, port="can0", first=0x100, ids=1, length=8) -> None:
    subprocess.run([BIN / "can-load", "burst", port, str(count), hex(first), str(ids), str(length)],
                   check=True)


def send_spaced(count: int, pause_us: int, *, port="can0", first=0x100, ids=1) -> None:
    subprocess.run([BIN / "can-load", "spaced", port, str(count), hex(first), str(ids),
                    str(pause_us)], check=True)


def burst_cost(program: Program, count: int, **load) -> int:
    """Instructions of a thread for frames that wait in its socket when it goes on."""
    program.settle()
    program.stop()
    send(count, **load)
    before = program.instructions()
    program.go_on()
    program.settle()
    return program.instructions() - before


def per_frame(program: Program, few: int, many: int, runs: int, **load) -> list[float]:
    """Of two counts the difference, so that what is not for a frame drops out."""
    burst_cost(program, few, **load)
    found = []
    for _ in range(runs):
        small = burst_cost(program, few, **load)
        found.append((burst_cost(program, many, **load) - small) / (many - few))
    return found


def spaced_cost(program: Program, count: int, pause_us: int, **load) -> int:
    program.settle()
    before = program.instructions()
    send_spaced(count, pause_us, **load)
    program.settle()
    return program.instructions() - before


def per_wake_up(program: Program, few: int, many: int, pause_us: int, runs: int) -> list[float]:
    """As per_frame(), where each frame finds the thread asleep."""
    spaced_cost(program, few, pause_us)
    found = []
    for _ in range(runs):
        small = spaced_cost(program, few, pause_us)
        found.append((spaced_cost(program, many, pause_us) - small) / (many - few))
    return found


@contextlib.contextmanager
def counted_system_calls(thread: int):
    """The system calls of a thread by name, filled in at the end of the block."""
    trigger = TRACING / "events/raw_syscalls/sys_enter/trigger"
    histogram = TRACING / "events/raw_syscalls/sys_enter/hist"
    text = f"hist:keys=id if common_pid == {thread}"
    trigger.write_text(text)
    calls: dict[str, int] = {}
    try:
        yield calls
    finally:
        for line in histogram.read_text().splitlines():
            if line.startswith("{ id:"):
                number, count = line.replace("}", " ").split(":")[1:3]
                number = int(number.split()[0].rstrip("]"))
                calls[SYSTEM_CALLS.get(number, f"call {number}")] = int(count)
        trigger.write_text("!" + text)


def calls_of_burst(program: Program, count: int) -> dict[str, int]:
    """System calls of a thread for frames that wait in its socket: they are counted before it goes
    on, so those frames are all it sees."""
    program.settle()
    program.stop()
    send(count)
    with counted_system_calls(program.thread) as calls:
        program.go_on()
        program.settle()
    return calls


class Allocations:
    """Allocations of a program that was started with this environment."""

    def __init__(self):
        self._path = f"/tmp/allocations-{time.monotonic_ns()}"
        self.environment = {"LD_PRELOAD": str(BIN / "libcount-allocations.so"),
                            "KT_ALLOCATIONS": self._path}

    def count(self) -> int:
        with open(self._path, "rb") as file, \
                mmap.mmap(file.fileno(), 8, access=mmap.ACCESS_READ) as mapped:
            return struct.unpack("<Q", mapped[:8])[0]
