"""The service with its files: laid out, started, asked, stopped."""

import contextlib
import os
import pathlib
import re
import shutil
import signal
import socket
import sqlite3
import struct
import subprocess
import threading
import time
from typing import NamedTuple

from . import clocks, lane, rows
from .lane import scaled, wait_until
from .observe import Observer
from .tags import Tags, block_tag, status_tag

SCHEMA = "/etc/default/config/kt-can-proprietary/can_proprietary.sql"
DEFAULT_DB = "/data/config/kt-can-proprietary/default/can_proprietary.db"
SAVED_SCHEMA = "/data/config/kt-can-proprietary/default/can_proprietary.sql"
PERSISTENT_DB = "/data/config/kt-can-proprietary/can_proprietary.db"
WORKING_DB = "/run/config/kt-can-proprietary/can_proprietary.db"
LED_FILE = "/run/kt-platform/led3"

LOG_LINE = re.compile(r"\x1b\[91m(\w+): (\w+)\((\d+)\): (.*?)\x1b\[0m", re.DOTALL)


RESERVED: list[socket.socket] = []
PORTS_KEPT = 64


def free_port() -> int:
    """A port of loopback that nobody is given until its program has it, and after that: it stays
    bound here, without listening, and those who share addresses (SO_REUSEADDR) can have it."""
    probe = socket.socket()
    probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    probe.bind(("127.0.0.1", 0))
    RESERVED.append(probe)
    if len(RESERVED) > PORTS_KEPT:  # more than a test has
        RESERVED.pop(0).close()
    return probe.getsockname()[1]


class LogMessage(NamedTuple):
    level: str
    function: str
    text: str  # as written, most often with its newline


class Nudge:
    """Wakes the port threads with empty frames while it is entered."""

    FRAME = struct.pack("=IB3x8x", 0x7FE, 0)

    def __init__(self):
        self._ended = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)

    def _run(self) -> None:
        sockets = []
        for port in lane.PORTS:
            node = socket.socket(socket.AF_CAN, socket.SOCK_RAW, socket.CAN_RAW)
            node.bind((port,))
            sockets.append(node)
        while not self._ended.wait(0.01):
            for node in sockets:
                with contextlib.suppress(OSError):  # the port may be down
                    node.send(self.FRAME)
        for node in sockets:
            node.close()

    def __enter__(self):
        self._thread.start()

    def __exit__(self, *_):
        self._ended.set()
        self._thread.join()


class Gateway(Observer):
    """One gateway's file system and at most one running service.

    In lane K the paths are the real ones; elsewhere they stand below a scratch KT_ROOT.
    """

    def __init__(self, scratch: pathlib.Path):
        self.scratch = scratch
        self.root = "" if lane.KERNEL else str(scratch / "root")
        self.rest_address = f"127.0.0.1:{free_port()}"
        self.environment = self._environment()
        self.tags = Tags(self.environment)
        self.process: subprocess.Popen | None = None
        self._stderr = scratch / "stderr.txt"
        self._stdout = scratch / "stdout.txt"
        self._log_start = 0
        self._led_before: tuple | None = None
        self.fresh()

    def path(self, absolute: str) -> pathlib.Path:
        return pathlib.Path(self.root + absolute)

    def fresh(self) -> None:
        """A gateway that has never started: the shipped schema and nothing else."""
        for folder in ("/etc/default/config", "/data", "/run"):
            self._clear(self.path(folder))
        self.path(SCHEMA).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(lane.REPO / "schema/can_proprietary.sql", self.path(SCHEMA))

    def configure(self, *devices: rows.Row, sql: str = "", ports: int = len(lane.PORTS)) -> None:
        """A gateway that was stopped with this configuration applied and then lost its power.

        sql runs after the rows went in, e.g. to change a port: interface_setting has one row of
        defaults per port.
        """
        assert self.process is None, "the service reads its configuration at start"
        self._make_databases(ports)
        self.edit(PERSISTENT_DB, *devices, sql=sql)

    def edit(self, database: str, *devices: rows.Row, sql: str = "") -> None:
        """Change a database file by hand."""
        with sqlite3.connect(self.path(database)) as db:
            db.execute("PRAGMA synchronous = OFF")
            db.execute("PRAGMA foreign_keys = ON")
            rows.insert(db, devices)
            db.commit()
            db.executescript(sql)
        db.close()

    def query(self, sql: str, *values, database: str = WORKING_DB) -> list[tuple]:
        db = sqlite3.connect(f"file:{self.path(database)}?mode=ro", uri=True)
        try:
            return db.execute(sql, values).fetchall()
        finally:
            db.close()

    def start(self, *, wait: bool = True, environment: dict | None = None, wrapper=()) -> None:
        """Start the service; with wait, return when every port thread runs its loop.

        environment adds to the variables (None removes one); wrapper is a command in front.
        """
        assert self.process is None, "already started"
        if clocks.WRAP_SECONDS:
            self.wrap_clock_in(float(clocks.WRAP_SECONDS))
        self._log_start = self._stderr.stat().st_size if self._stderr.exists() else 0
        self._led_before = self._led_set()
        variables = {**self.environment, **(environment or {})}
        with open(self._stderr, "ab") as stderr, open(self._stdout, "ab") as stdout:
            self.process = subprocess.Popen(
                [*wrapper, lane.program("kt-can-proprietary")],
                env={name: value for name, value in variables.items() if value is not None},
                stdin=subprocess.DEVNULL,
                stdout=stdout,
                stderr=stderr,
                cwd="/",
            )
        if wait:
            self.wait_ready()

    def wrap_clock_in(self, seconds: float, turn: int = clocks.WHOLE_TURN) -> float:
        """The service that is started next, and kt-tag: their millisecond clock is that long
        before its wrap. Returns the moment of the wrap, as time.monotonic() tells it."""
        moment = time.monotonic() + seconds
        self.environment.update(clocks.shifted(turn - round(1000 * moment)))
        return moment

    def wait_ready(self, timeout: float = 10.0) -> None:
        """A port's tags stand once its socket is bound: from then on no frame is missed. The LED
        is set when the databases are there and the REST API listens: without tags nothing else
        tells this start from the one before."""

        def ready() -> bool:
            assert self.running(), f"the service ended: {self.process.returncode}\n{self.stderr}"
            begun = self._led_set() != self._led_before and self.path(WORKING_DB).exists()
            return begun and not self._missing_tags()

        wait_until(ready, timeout, lambda: f"tags {sorted(self._missing_tags())}\n{self.stderr}")

    def stop(
        self,
        number: int = signal.SIGTERM,
        *,
        status: int | tuple[int, ...] = 0,
        timeout: float = 10.0,
        nudge: bool = True,
    ) -> int:
        """Stop it with a signal and judge how it ended.

        A port thread looks at the stop flag once per cycle, up to a second on a quiet bus; nudge
        sends frames of no configuration until it has ended, which saves most of that second.
        """
        with Nudge() if nudge else contextlib.nullcontext():
            self._signal(number, timeout)
            return self.wait_exit(status, timeout)

    def _signal(self, number: int, timeout: float) -> None:
        """Under tsan again and again: its runtime loses a signal now and then that comes while
        threads are started, which a program that does nothing else shows, too."""
        self.process.send_signal(number)
        end = time.monotonic() + scaled(timeout) / 2
        while lane.THREAD_SANITIZER and self.running() and time.monotonic() < end:
            with contextlib.suppress(subprocess.TimeoutExpired):
                self.process.wait(2)
                return
            self.process.send_signal(number)

    def wait_exit(self, status: int | tuple[int, ...], timeout: float = 10.0) -> int:
        """The service ends by itself, with this status (negative: a signal's number) or one of
        these. Returns it."""
        try:
            actual = self.process.wait(scaled(timeout))
        except subprocess.TimeoutExpired:
            self.kill()
            raise AssertionError(f"still running after {scaled(timeout):g} s\n{self.stderr}")
        self.process = None
        assert not lane.sanitizer_report(self.stderr), lane.sanitizer_report(self.stderr)
        allowed = status if isinstance(status, tuple) else (status,)
        assert actual in allowed, f"exit status {actual}, not {status}\n{self.stderr}"
        return actual

    def kill(self) -> None:
        """As a power failure ends it."""
        self.process.kill()
        self.process.wait()
        self.process = None

    def running(self) -> bool:
        return self.process is not None and self.process.poll() is None

    def restart_with(self, *devices: rows.Row, sql: str = "", **start) -> None:
        """Stop, replace the whole configuration, start."""
        if self.process is not None:
            self.stop()
        self.configure(*devices, sql=sql)
        self.start(**start)

    def close(self) -> None:
        """End whatever still runs; a service that had to be stopped must stop well."""
        if self.process is None:
            return
        if self.process.poll() is None:
            self.stop()
        else:
            self.wait_exit(0)

    @property
    def stderr(self) -> str:
        """Standard error of every start so far, colour codes included."""
        return self._stderr.read_text("utf-8", "replace") if self._stderr.exists() else ""

    @property
    def stdout(self) -> str:
        return self._stdout.read_text("utf-8", "replace") if self._stdout.exists() else ""

    @property
    def messages(self) -> list[LogMessage]:
        """The log messages since the last start."""
        text = self._stderr.read_bytes()[self._log_start :] if self._stderr.exists() else b""
        found = LOG_LINE.findall(text.decode("utf-8", "replace"))
        return [LogMessage(level, function, message) for level, function, _, message in found]

    def logged(self, function: str, text: str) -> bool:
        return LogMessage("ERROR", function, text) in self.messages

    def wait_logged(self, function: str, text: str, timeout: float = 5.0) -> None:
        """The message, whole, with its newline where it has one."""
        wait_until(
            lambda: self.logged(function, text),
            timeout,
            lambda: f"message {text!r} of {function}, only {self.messages}",
        )

    def _environment(self) -> dict[str, str]:
        variables = {**os.environ, **lane.sanitizer_environment()}
        for name in ("KT_CANOPEN_XLOG_USER_LEVEL", "KT_REST_TOKEN_FILE", "KT_REST_ALLOW_INSECURE"):
            variables.pop(name, None)
        variables["KT_REST_LISTEN"] = self.rest_address
        if lane.KERNEL:
            variables.pop("KT_ROOT", None)
            variables.pop("KT_CAN_PORTS", None)
        else:
            variables["KT_ROOT"] = self.root
        if not lane.KERNEL or lane.CONTROLLERS:
            variables["KT_CAN_PORTS"] = ",".join(lane.PORTS)
        return variables

    def _clear(self, folder: pathlib.Path) -> None:
        """Empty it; in lane K it may be a mount point and stays."""
        folder.mkdir(parents=True, exist_ok=True)
        for entry in folder.iterdir():
            if entry.is_dir() and not entry.is_symlink():
                shutil.rmtree(entry)
            else:
                entry.unlink()

    def _make_databases(self, ports: int) -> None:
        schema = self.path(SCHEMA).read_text("utf-8")
        for database in (DEFAULT_DB, PERSISTENT_DB):
            path = self.path(database)
            path.parent.mkdir(parents=True, exist_ok=True)
            path.unlink(missing_ok=True)
            self.edit(database, sql="BEGIN;" + schema + ";COMMIT;")
        self.edit(PERSISTENT_DB, sql="INSERT INTO interface_setting DEFAULT VALUES;" * ports)
        shutil.copy(self.path(SCHEMA), self.path(SAVED_SCHEMA))
        self.path(WORKING_DB).unlink(missing_ok=True)

    def _led_set(self) -> tuple | None:
        """When the LED's file was replaced; None while there is none."""
        try:
            status = os.lstat(self.path(LED_FILE))
        except FileNotFoundError:
            return None
        return status.st_ino, status.st_mtime_ns, status.st_ctime_ns

    def _missing_tags(self) -> set[str]:
        devices = self.query("SELECT deviceName FROM device")
        wanted = {status_tag(name) for name, in devices}
        wanted |= {
            block_tag(*names)
            for names in self.query(
                "SELECT deviceName, transactionName, tagName FROM block"
                " JOIN frame USING (frameId) JOIN transactions USING (transactionId)"
                " JOIN device USING (deviceId) WHERE blockType = 0 AND transactionEnable != 0"
            )
        }
        return wanted - self.tags.names() if wanted else set()
