"""Many clients at once: sixteen for a minute or KT_LOAD_SECONDS, with traffic on both ports; eight
for a minute or KT_CLASH_SECONDS that apply, discard, export and import all the time, while others
write tags as fast as they can."""

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
from kt_system.rows import U16, U32, consume, device, frame, produce, tag
from kt_system.tags import block_tag

SECONDS = float(os.environ.get("KT_LOAD_SECONDS", "60"))
CLASH_SECONDS = float(os.environ.get("KT_CLASH_SECONDS", "60"))
CLIENTS = 16
CLASH_CLIENTS = 8
STALL_SECONDS = 30  # without an answer, beyond which a client counts as hung
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
    """A discard, and an import of a file that was exported before, takes back what others have not
    applied, and ids may come again with another owner. So it excludes requests that change a row by
    an id that was looked up before, and its counts tell whether a row may be missing: one made
    since may be, if more discards have begun than had ended before it."""

    def __init__(self):
        self.excluded = threading.Lock()
        self.applying = threading.Lock()  # no apply between an export and its import
        self.begun = 0
        self.ended = 0


WEIGHTS = {
    "read": 60,
    "make": 14,
    "change": 10,
    "remove": 10,
    "make_device": 2,
    "set_port": 3,
    "send_nonsense": 5,
    "make_and_apply": 2,
    "discard": 2,
    "export": 0,
    "import_again": 0,
}


class Client(threading.Thread):
    """Owns one device, in which it makes, changes and removes transactions."""

    def __init__(self, number: int, rest, discards: Discards, end: float, **weights: int):
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
        self.weights = {**WEIGHTS, **weights}
        self.answered = time.monotonic()

    def run(self) -> None:
        actions = [getattr(self, name) for name in self.weights]
        try:
            while time.monotonic() < self.end:
                self.random.choices(actions, self.weights.values())[0]()
        except BaseException as error:  # the test's thread judges it
            self.failure = error

    def ask(self, kind: str, method: str, path: str, body=None, allowed=()):
        """Ask, judge that the answer is a documented one and among those that can be here."""
        start = time.monotonic()
        answer = self.rest.request(method, path, body)
        self.answered = time.monotonic()
        self.seconds.append(self.answered - start)
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

    def frames(self, name: str) -> list[dict]:
        """As many as a file may have of the transaction: one sent, and every other name's response.
        """
        sent = frame_json(next(self.can_ids), tag_json("t", access="wo"), constant_json())
        response = frame_json(next(self.can_ids), constant_json())
        return [sent, response] if is_request(name) else [sent]

    def body(self, name: str) -> dict:
        make = request_json if is_request(name) else produce_json
        return make(name, *self.frames(name), trigger=2)

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
                frames = {"frameList": self.frames(name)}
                self.ask("changes", "PUT", f"/frame/{number}", frames)
                body = without(self.body(name), "frameList")
                self.ask("changes", "PATCH", f"/transaction/{number}", body)

    def remove(self) -> None:
        with self.discards.excluded:
            while (row := self.pick()) and self.random.random() < 0.8:
                self.ask("changes", "DELETE", f"/transaction/{row[1]}")

    def make_device(self) -> None:
        """Ids end at 255, and the next one is above the last."""
        body = device_json("passing", self.body("t0"), self.body("t1"), port=2)
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
        with self.discards.applying:
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


    def export(self) -> None:
        text = self.ask("exports", "GET", "/config-file").body.decode()
        for name in self.kept:
            assert name in text, f"{name} is not in the file"

    def import_again(self) -> None:
        """What is applied is in the file, too, so it stays."""
        with self.discards.excluded, self.discards.applying:
            self.discards.begun += 1
            text = self.ask("exports", "GET", "/config-file").body
            start = time.monotonic()
            answer = self.rest.upload(text)
            self.seconds.append(time.monotonic() - start)
            assert answer.status < 300, (answer, text)
            self.counts["imports"] += 1
            self.discards.ended += 1
        assert self.kept <= set(self.transactions())


def is_request(name: str) -> bool:
    return int(name[1:]) % 2 == 1


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


def base_devices() -> list:
    """Of each port, what it hears and what tag writers send."""
    return [
        device(
            f"base{port}",
            consume("state", frame(can_id, 8, tag("value", U16))),
            produce("command", frame(can_id + 1, 4, tag("target", U32, access="wo")), trigger=1),
            port=port,
        )
        for port, can_id in BASE_IDS.items()
    ]


def start_with_devices(gateway, clients: int) -> dict:
    """Returns which files the databases are."""
    own = (device(client_name(number), port=1 + number % 2) for number in range(clients))
    gateway.configure(*base_devices(), *own)
    gateway.start()
    return inodes(gateway)


def inodes(gateway) -> dict[str, int]:
    databases = (DEFAULT_DB, PERSISTENT_DB, WORKING_DB)
    return {database: gateway.path(database).stat().st_ino for database in databases}


def wait_for_all(clients: list[Client], gateway) -> None:
    """Until each has ended. One that hangs is told of with what the service's threads wait for."""
    while any(client.is_alive() for client in clients):
        time.sleep(0.5)
        for client in clients:
            stalled = time.monotonic() - client.answered > scaled(STALL_SECONDS)
            assert not (client.is_alive() and stalled), (client.name, waiting_threads(gateway))
    for client in clients:
        if client.failure:
            raise client.failure


def waiting_threads(gateway) -> dict[str, str]:
    found = {}
    for task in pathlib.Path(f"/proc/{gateway.process.pid}/task").iterdir():
        with contextlib.suppress(OSError):
            name = (task / "comm").read_text().strip()
            found[f"{name} {task.name}"] = (task / "wchan").read_text()
    return found


def kept_of(clients: list[Client]) -> set[tuple[str, str]]:
    return {(client.device_name, name) for client in clients for name in client.kept}


def summary(clients: list[Client], seconds: float) -> str:
    counts = sum((client.counts for client in clients), collections.Counter())
    times = sorted(seconds for client in clients for seconds in client.seconds)
    kinds = ("reads", "changes", "applies", "discards", "exports", "imports", "refused")
    return (
        f"{len(clients)} clients, {seconds:g} s, {len(times)} requests"
        f" ({', '.join(f'{counts[kind]} {kind}' for kind in kinds)}),"
        f" answers {1000 * statistics.median(times):.1f} ms median"
        f" {1000 * times[int(0.99 * len(times))]:.1f} ms p99 {1000 * times[-1]:.1f} ms max,"
        f" {len(kept_of(clients))} applied transactions kept"
    )


def judge_databases(gateway, rest, kept: set[tuple[str, str]], nodes: dict[str, int]) -> None:
    """Nothing that was committed and applied is lost, in the working copy nor on flash, and no
    database was removed and made anew."""
    rest.discard()
    base = {(f"base{port}", name) for port in BASE_IDS for name in ("state", "command")}
    for database in (WORKING_DB, PERSISTENT_DB):
        rows = gateway.query(
            "SELECT deviceName, transactionName FROM transactions JOIN device USING (deviceId)",
            database=database,
        )
        assert kept <= set(rows) and base <= set(rows)
        assert gateway.query("PRAGMA integrity_check", database=database) == [("ok",)]
        assert gateway.query("PRAGMA foreign_key_check", database=database) == []
    assert not any("corrupt" in message.text for message in gateway.messages)
    assert inodes(gateway) == nodes


def judge_ports(gateway, rest, bus, tags) -> None:
    """Every port still serves, in the last pass as in the first. A pass takes the working copy as
    it finds it, edits behind its apply included: only one more apply makes sure what runs."""
    rest.apply()
    rest.wait_port_threads()
    gateway.wait_ready()
    for port, name in enumerate(lane.PORTS, 1):
        node = bus(name)
        value = block_tag(f"base{port}", "state", "value")

        def heard(node=node, port=port, value=value) -> bool:
            """It goes on sending: a client's last apply may bring a pass about once more."""
            node.send(BASE_IDS[port], "3412000000000000")
            tag = tags.find(value)
            return tag is not None and tag["value"] == 0x1234

        wait_until(heard, 10.0, f"a value of {name}")


def test_sixteen_clients_for_a_minute(gateway, rest, bus, tags, capsys):
    nodes = start_with_devices(gateway, CLIENTS)
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
        wait_for_all(clients, gateway)
        after = resident_kib(gateway)
        assert gateway.running(), gateway.stderr[-2000:]
        frames.ended.set()
        frames.join(scaled(30))
    with capsys.disabled():
        print(
            f"\nload: {summary(clients, SECONDS)}, {sum(frames.total.values())} frames,"
            f" RSS {before} to {after} KiB"
        )
    assert min(frames.total.values()) > 50 * SECONDS, frames.total
    judge_databases(gateway, rest, kept_of(clients), nodes)
    judge_ports(gateway, rest, bus, tags)
    assert after - before < RESIDENT_GROWTH_KIB


@contextlib.contextmanager
def tag_writers(gateway):
    """On each port, as fast as they can."""
    with contextlib.ExitStack() as running:
        yield [
            running.enter_context(
                LineReader(
                    [lane.helper("bin/load-node"), "write", "0",
                     block_tag(f"base{port}", "command", "target")],
                    gateway.environment,
                )
            )
            for port in BASE_IDS
        ]


def test_passes_requests_and_tag_writes_clash(gateway, rest, bus, tags, capsys):
    """Port threads start anew all the time under everything else that goes on."""
    nodes = start_with_devices(gateway, CLASH_CLIENTS)
    discards = Discards()
    weights = {"read": 20, "make_and_apply": 12, "discard": 4, "export": 6, "import_again": 5}
    passes = set()
    with traffic(), tag_writers(gateway) as writers:
        end = time.monotonic() + CLASH_SECONDS
        clients = [
            Client(number, rest, discards, end, **weights) for number in range(CLASH_CLIENTS)
        ]
        for client in clients:
            client.start()
        while time.monotonic() < end:
            passes |= rest.port_threads()
            time.sleep(0.05)
        wait_for_all(clients, gateway)
        assert gateway.running(), gateway.stderr[-2000:]
    written = [int(writer.lines[-1].split()[1]) for writer in writers]
    with capsys.disabled():
        print(
            f"\nclash: {summary(clients, CLASH_SECONDS)}, {len(passes)} port threads seen,"
            f" {sum(written)} tag writes"
        )
    counts = sum((client.counts for client in clients), collections.Counter())
    assert min(counts[kind] for kind in ("applies", "discards", "exports", "imports")) > 0
    assert min(written) > 0 and len(passes) > 2 * len(BASE_IDS)
    judge_databases(gateway, rest, kept_of(clients), nodes)
    judge_ports(gateway, rest, bus, tags)
