"""The time of day jumps by hours, back and forth, while everything goes on."""

import datetime
import itertools
import json
import threading
import time

import pytest

from kt_system import lane
from kt_system.clocks import WallClock
from kt_system.lane import scaled, wait_until
from kt_system.rows import (
    ON_CHANGE,
    U16,
    U32,
    constant,
    consume,
    device,
    frame,
    produce,
    request,
    tag,
)
from kt_system.tags import block_tag

pytestmark = pytest.mark.slow

JUMPS = (5, -9, 0.5, 26, -30, 12, -4.5, 1000, -1000)  # hours; their sum is 0
BEAT, ASK, HEAR = 0.050, 0.100, 0.200  # seconds


@pytest.fixture
def wall_clock(tmp_path):
    clock = WallClock(tmp_path)
    yield clock
    clock.close()


class Reader(threading.Thread):
    """Asks one page after the other; every answer counts, and how long the longest took."""

    PAGES = ("/overview", "/diagnose?portId=1", "/traffic/1", "/config-change")

    def __init__(self, gateway):
        super().__init__(daemon=True)
        self.gateway = gateway
        self.ended = threading.Event()
        self.statuses: list[int] = []
        self.longest = 0.0

    def run(self) -> None:
        for page in itertools.cycle(self.PAGES):
            if self.ended.wait(0.02):
                return
            start = time.monotonic()
            self.statuses.append(self.gateway.rest("GET", page)[0])
            self.longest = max(self.longest, time.monotonic() - start)


def configuration():
    return [
        device(
            "drive",
            consume("state", frame(0x181, 4, tag("count", U32))),
            produce("beat", frame(0x100, 1, constant("mark", "55")), interval=round(1000 * BEAT)),
            produce("command", frame(0x201, 2, tag("target", U16, access="wo")), trigger=ON_CHANGE),
        ),
        device("mute", request("ask", frame(0x110, 1), frame(0x111, 1),
                               interval=round(1000 * ASK), timeout=50)),
        device("deaf", consume("hear", frame(0x120, 2, tag("v", U16)), timeout=round(1000 * HEAR))),
    ]


def recorded(gateway) -> list[dict]:
    file = gateway.path("/run/tmp/kt-can-proprietary/traffic-log0.json")
    return [json.loads(line) for line in file.read_text().splitlines()]


def heard_events(gateway) -> list[dict]:
    return [event for event in gateway.events() if "deaf/hear " in event["message"]]


def heard_and_silent(gateway, times: int) -> bool:
    """The device was heard so often, and the silence after that has been noticed."""
    outcomes = [event["message"].rsplit(" ", 1)[1] for event in heard_events(gateway)]
    return outcomes.count("success") == times and outcomes[-1] == "timeout"


def event_moment(event: dict) -> float:
    text = event["time"].replace("Z", "+00:00")
    return datetime.datetime.fromisoformat(text).timestamp()


def test_nothing_is_late_lost_doubled_or_hung(gateway, bus, tags, wall_clock):
    gateway.configure(*configuration())
    gateway.start(environment=wall_clock.environment)
    node, listener = bus(), bus()
    began = time.monotonic()
    gateway.record(1, True)
    before = {name: gateway.failures(*name) for name in (("mute", "ask"), ("deaf", "hear"))}
    reader = Reader(gateway)
    reader.start()
    sent = 0
    for round_, hours in enumerate((0, *JUMPS), 1):
        if hours:
            wall_clock.jump(hours)
        for _ in range(10):
            sent += 1
            node.send(0x181, sent.to_bytes(4, "little"))
            time.sleep(0.02)
        tags.wait_for(block_tag("drive", "state", "count"), sent, 5.0)
        listener.drain()
        tags.set(block_tag("drive", "command", "target"), round_)
        listener.expect(0x201, round_.to_bytes(2, "little"))
        listener.expect(0x100, "55")
        # A result that changes raises an event, dated by the clock on the wall.
        node.send(0x120, "0100")
        wait_until(lambda: heard_and_silent(gateway, round_), what="success and timeout")
        event = heard_events(gateway)[-1]
        assert abs(event_moment(event) - wall_clock.now()) < scaled(10), (event, hours)
    reader.ended.set()
    reader.join(scaled(10))
    gateway.record(1, False)
    lived = time.monotonic() - began

    assert not reader.is_alive() and set(reader.statuses) == {200}
    assert len(reader.statuses) >= 20 and reader.longest < scaled(5)
    for name, period in ((("mute", "ask"), ASK + 0.05), (("deaf", "hear"), HEAR)):
        count = gateway.failures(*name) - before[name]
        assert len(JUMPS) <= count <= (lived + 1) / period + 2, name

    rows = recorded(gateway)
    times = [float(row["time"]) for row in rows]
    assert times == sorted(times) and 0 <= times[0] and times[-1] <= lived + 1
    counted = [row["data"] for row in rows if row["canId"] == 0x181]
    assert counted == [
        number.to_bytes(4, "little").hex(" ").upper() for number in range(1, sent + 1)
    ]
    commands = [row["data"] for row in rows if row["canId"] == 0x201]
    assert commands == [
        number.to_bytes(2, "little").hex(" ").upper() for number in range(1, len(JUMPS) + 2)
    ]
    beats = [float(row["time"]) for row in rows if row["canId"] == 0x100]
    assert all(later - sooner > BEAT - 0.002 for sooner, later in itertools.pairwise(beats))
    assert max(later - sooner for sooner, later in itertools.pairwise(beats)) < scaled(3)


def test_an_edit_shows_and_is_applied_after_the_clock_went_back(gateway, rest, wall_clock):
    """The change state goes by the dates of files, which a clock that went back makes older."""
    gateway.configure(device("drive", consume("state", frame(0x181, 4, tag("count", U32)))))
    gateway.start(environment=wall_clock.environment)
    for hours in (-3, 7, -4):
        wall_clock.jump(hours)
        assert rest.get("/config-change").data == {"result": 0}
        time.sleep(1.1)  # what is edited in the second of an apply does not show
        assert rest.patch("/device/1", {"deviceName": f"drive{abs(hours)}"}).status == 200
        assert rest.get("/config-change").data == {"result": 1}
        rest.apply()
        assert rest.get("/config-change").data == {"result": 0}
        assert rest.get("/device?deviceId=1").data["deviceName"] == f"drive{abs(hours)}"


@pytest.mark.skipif(not lane.KERNEL, reason="a preloaded clock does not date files")
def test_locks_and_stops_do_not_wait_for_the_clock(gateway, wall_clock):
    """A stop right after a jump of a day in both directions ends at once."""
    gateway.configure(*configuration())
    for hours in (24, -48):
        gateway.start(environment=wall_clock.environment)
        wall_clock.jump(hours)
        gateway.stop()
