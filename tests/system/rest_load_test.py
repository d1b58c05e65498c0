"""Sixteen clients at once, for a minute or KT_LOAD_SECONDS, with traffic on both ports."""

import collections
import contextlib
import itertools
import os
import pathlib
import random
import statistics
import tempfile
import threading
import time

import pytest

from kt_system import lane
from kt_system.gateway import DEFAULT_DB, PERSISTENT_DB, WORKING_DB, Gateway
from kt_system.lane import scaled, wait_until
from kt_system.processes import LineReader
from kt_system.rest import (
    PORT_JSON,
    constant_json,
    device_json,
    frame_json,
    produce_json,
    request_json,
    tag_json,
    without,
)
from kt_system.rows import U16, consume, device, frame, tag
from kt_system.tags import block_tag

SECONDS = float(os.environ.get("KT_LOAD_SECONDS", "60"))
CLIENTS = 16
KEPT_PER_CLIENT = 5  # applied transactions that stay, of 512
RESIDENT_GROWTH_KIB = 4096
BASE_IDS = {1: 0x181, 2: 0x281}

pytestmark = pytest.mark.slow


@pytest.fixture
def gateway():
    """In memory, so that a disk which others keep busy does not set the pace."""
    with tempfile.TemporaryDirectory(prefix="kt-load-", dir="/dev/shm") as folder:
        machine = Gateway(pathlib.Path(folder))
        yield machine
        machine.close()


class Discards:
    """A discard takes back what others have not applied, and ids may come again with another
    owner. So it excludes requests that change a row by an id that was looked up before, and its
    counts tell whether a row may be missing: one made since may be, if more discards have begun
    than had ended before it."""

    def __init__(self):
        self.excluded = threading.Lock()
        self.begun = 0
        self.ended = 0


class Client(threading.Thread):
    """Owns one device, in which it makes, changes and removes transactions."""

    def __init__(self, number: int, rest, discards: Discards, end: float):
        super().__init__(name=f"client-{number}", daemon=True)
        self.device_name = client_name(number)
        self.device = len(BASE_IDS) + 1 + number
        self.rest = rest
        self.discards = discards
        self.end = end
        self.random = random.Random(number)
        self.names = (f"t{i}" for i in itertools.count())
        self.can_ids = itertools.count(0x100000 * (number + 1))
        self.kept: set[str] = set()
        self.counts: collections.Counter = collections.Counter()
        self.seconds: list[float] = []
        self.failure: BaseException | None = None

    def run(self) -> None:
        actions = [
            (self.read, 60),
            (self.make, 14),
            (self.change, 10),
            (self.remove, 10),
            (self.make_device, 2),
            (self.set_port, 3),
            (self.send_nonsense, 5),
            (self.make_and_apply, 2),
            (self.discard, 2),
        ]
        try:
            while time.monotonic() < self.end:
                self.random.choices(*zip(*actions))[0]()
        except BaseException as error:  # the test's thread judges it
            self.failure = error

    def ask(self, kind: str, method: str, path: str, body=None, allowed=()):
        """Ask, judge that the answer is a documented one and among those that can be here."""
        start = time.monotonic()
        answer = self.rest.request(method, path, body)
        self.seconds.append(time.monotonic() - start)
        self.counts[kind] += 1
        if answer.status >= 300:
            assert answer.code in allowed, (method, path, answer.body)
            self.counts["refused"] += 1
        return answer

    def read(self) -> None:
        path, allowed = self.random.choice(
            [
                ("/interface?portId=1", ()),
                ("/overview", ()),
                ("/config-change", ()),
                ("/usedCANIds?portId=2", ()),
                ("/diagnose?portId=1", (-7,)),  # between two passes there is no record
                (f"/device?deviceId={self.device}", ()),
                ("/device?deviceId=0", (-7,)),
            ]
        )
        self.ask("reads", "GET", path, allowed=allowed)

    def transactions(self) -> dict[str, int]:
        """Ids of the own transactions by their names."""
        data = self.ask("reads", "GET", f"/device?deviceId={self.device}").data
        assert data["deviceName"] == self.device_name
        return {row["transactionName"]: row["transactionId"] for row in data["transactionList"]}

    def body(self, name: str) -> dict:
        frames = [
            frame_json(next(self.can_ids), tag_json("t", access="wo"), constant_json()),
            frame_json(next(self.can_ids), constant_json()),
        ]
        return self.random.choice([produce_json, request_json])(name, *frames, trigger=2)

    def make(self) -> tuple[str, int]:
        """A transaction; its name, and the count of discards that had ended before it."""
        name, before = next(self.names), self.discards.ended
        body = {**self.body(name), "deviceId": self.device}
        number = self.ask("changes", "POST", "/transaction", body).data["transactionId"]
        found = self.transactions()
        assert found.get(name) == number or self.discards.begun != before, f"{name} lost: {found}"
        return name, before

    def pick(self) -> tuple[str, int] | None:
        """One of the own transactions that need not stay."""
        rows = [row for row in self.transactions().items() if row[0] not in self.kept]
        return self.random.choice(rows) if rows else None

    def change(self) -> None:
        with self.discards.excluded:
            if row := self.pick():
                name, number = row
                names = ("x", "y")
                frames = {"frameList": [frame_json(next(self.can_ids), tag_json(n)) for n in names]}
                self.ask("changes", "PUT", f"/frame/{number}", frames)
                body = without(self.body(name), "frameList")
                self.ask("changes", "PATCH", f"/transaction/{number}", body)

    def remove(self) -> None:
        with self.discards.excluded:
            while (row := self.pick()) and self.random.random() < 0.8:
                self.ask("changes", "DELETE", f"/transaction/{row[1]}")

    def make_device(self) -> None:
        """Ids end at 255, and the next one is above the last."""
        body = device_json("passing", self.body("a"), self.body("b"), port=2)
        with self.discards.excluded:
            answer = self.ask("changes", "POST", "/device", body, allowed=(-8,))
            if answer.status == 201:
                self.ask("changes", "DELETE", f"/device/{answer.data['deviceId']}")

    def set_port(self) -> None:
        self.ask("changes", "PATCH", "/interface/1", PORT_JSON, allowed=(-12,))

    def send_nonsense(self) -> None:
        method, path, body, code = self.random.choice(
            [
                ("POST", "/device", "{", -1),
                ("POST", "/device", device_json("o'clock"), -8),
                ("PATCH", "/device/1", {"deviceName": "n" * 65}, -1),
                ("DELETE", "/device/x", None, -1),
                ("POST", "/action", {"option": 7}, -1),
                ("PUT", "/frame/60000", {"frameList": []}, -3),
                ("POST", "/transaction", {"deviceId": 1}, 1),
            ]
        )
        self.ask("changes", method, path, body, allowed=(code,))

    def make_and_apply(self) -> None:
        name, before = self.make()
        self.ask("applies", "POST", "/action", {"option": 0})
        if self.discards.begun == before and len(self.kept) < KEPT_PER_CLIENT:
            self.kept.add(name)  # nothing may take it away any more
        assert self.kept <= set(self.transactions())

    def discard(self) -> None:
        with self.discards.excluded:
            self.discards.begun += 1
            self.ask("discards", "POST", "/action", {"option": 1})
            self.discards.ended += 1
        assert self.kept <= set(self.transactions())


def client_name(number: int) -> str:
    return f"client{number}"


def resident_kib(gateway) -> int:
    with open(f"/proc/{gateway.process.pid}/status", encoding="ascii") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmRSS:"))


# cangen ends when its port goes down, as every apply makes it.
GENERATOR = """
trap 'kill $child; exit' TERM
while :; do
    cangen "$@" >/dev/null 2>&1 & child=$!
    wait $child
    sleep 0.02 & child=$!
    wait $child
done
"""


@contextlib.contextmanager
def traffic():
    """About 1500 frames per second on each port: those of its base device, and any."""
    with contextlib.ExitStack() as running:
        for port, name in enumerate(lane.PORTS, 1):
            for gap, options in (("1", ["-I", f"{BASE_IDS[port]:x}", "-L", "8"]), ("2", [])):
                command = ["bash", "-c", GENERATOR, "-", name, "-i", "-g", gap, *options]
                running.enter_context(LineReader(command))
        yield


class FrameCount(threading.Thread):
    """Adds up what the ports receive over the passes, each of which counts from 0."""

    def __init__(self, rest):
        super().__init__(daemon=True)
        self.rest = rest
        self.total = dict.fromkeys(BASE_IDS, 0)
        self.ended = threading.Event()

    def run(self) -> None:
        last = dict.fromkeys(BASE_IDS, 0)
        while not self.ended.wait(0.2):
            for port in BASE_IDS:
                answer = self.rest.get(f"/diagnose?portId={port}")
                if answer.status == 200:
                    count = answer.data["rxCount"]
                    self.total[port] += count - last[port] if count >= last[port] else count
                    last[port] = count


def test_sixteen_clients_for_a_minute(gateway, rest, bus, tags, capsys):
    gateway.configure(
        *(
            device(f"base{port}", consume("state", frame(can_id, 8, tag("value", U16))), port=port)
            for port, can_id in BASE_IDS.items()
        ),
        *(device(client_name(number), port=1 + number % 2) for number in range(CLIENTS)),
    )
    gateway.start()
    nodes = {
        database: gateway.path(database).stat().st_ino
        for database in (DEFAULT_DB, PERSISTENT_DB, WORKING_DB)
    }
    discards = Discards()
    frames = FrameCount(rest)
    with traffic():
        frames.start()
        end = time.monotonic() + SECONDS
        clients = [Client(number, rest, discards, end) for number in range(CLIENTS)]
        for client in clients:
            client.start()
        time.sleep(SECONDS / 4)  # caches and heaps find their size
        before = resident_kib(gateway)
        for client in clients:
            client.join(scaled(SECONDS + 60))
            assert not client.is_alive()
        after = resident_kib(gateway)
        assert gateway.running(), gateway.stderr[-2000:]
        frames.ended.set()
        frames.join(scaled(30))
    failures = [client.failure for client in clients if client.failure]
    if failures:
        raise failures[0]

    counts = sum((client.counts for client in clients), collections.Counter())
    times = sorted(seconds for client in clients for seconds in client.seconds)
    kept = {(client.device_name, name) for client in clients for name in client.kept}
    with capsys.disabled():
        print(
            f"\nload: {CLIENTS} clients, {SECONDS:g} s, {len(times)} requests"
            f" ({counts['reads']} reads, {counts['changes']} changes, {counts['applies']} applies,"
            f" {counts['discards']} discards, {counts['refused']} refused),"
            f" answers {1000 * statistics.median(times):.1f} ms median"
            f" {1000 * times[int(0.99 * len(times))]:.1f} ms p99 {1000 * times[-1]:.1f} ms max,"
            f" {len(kept)} applied transactions kept, {sum(frames.total.values())} frames,"
            f" RSS {before} to {after} KiB"
        )

    assert min(frames.total.values()) > 50 * SECONDS, frames.total
    # Nothing that was committed and applied is lost, in the working copy nor on flash.
    rest.discard()
    for database in (WORKING_DB, PERSISTENT_DB):
        rows = gateway.query(
            "SELECT deviceName, transactionName FROM transactions JOIN device USING (deviceId)",
            database=database,
        )
        assert kept <= set(rows) and {("base1", "state"), ("base2", "state")} <= set(rows)
        assert gateway.query("PRAGMA integrity_check", database=database) == [("ok",)]
        assert gateway.query("PRAGMA foreign_key_check", database=database) == []
    # No database was removed and made anew.
    assert not any("corrupt" in message.text for message in gateway.messages)
    assert nodes == {database: gateway.path(database).stat().st_ino for database in nodes}
    # Every port still serves, in the last pass as in the first. A pass takes the working copy as it
    # finds it, edits behind its apply included: only one more apply makes sure what runs.
    rest.apply()
    wait_until(lambda: len(rest.port_threads()) == len(lane.PORTS), 10.0, "every port's thread")
    gateway.wait_ready()
    for port, name in enumerate(lane.PORTS, 1):
        bus(name).send(BASE_IDS[port], "3412000000000000")
        tags.wait_for(block_tag(f"base{port}", "state", "value"), 0x1234, 10.0)
    assert after - before < RESIDENT_GROWTH_KIB
