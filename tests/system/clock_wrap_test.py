"""The service's millisecond clock wraps, or changes its sign, in the middle of every deadline.

KT_CLOCK_WRAP=SECONDS makes any other system test run across the wrap, too.
"""

import subprocess
import sys
import time

import pytest

from kt_system import lane
from kt_system.clocks import HALF_TURN, WHOLE_TURN
from kt_system.lane import scaled, wait_until
from kt_system.rows import (
    BOOTUP,
    FAULT_VALUE,
    ON_CHANGE,
    U16,
    constant,
    consume,
    device,
    frame,
    produce,
    request,
    tag,
)
from kt_system.tags import COMMUNICATING, TIMED_OUT, block_tag, status_tag

pytestmark = [
    pytest.mark.slow,
    pytest.mark.parametrize("turn", [WHOLE_TURN, HALF_TURN], ids=["wrap", "sign"]),
]

LONG = 2000  # ms, of the deadlines in whose middle the clock wraps


def marked(can_id: int):
    return frame(can_id, 1, constant("mark", "55"))


def written(can_id: int, name: str = "target"):
    return frame(can_id, 2, tag(name, U16, access="wo", fpData="CDAB"))


def sleep_until(moment: float) -> None:
    time.sleep(max(0.0, moment - time.monotonic()))


class Arrivals:
    """When frames of an identifier came, as their receiver saw them."""

    def __init__(self, node):
        self.node = node
        self.times: dict[int, list[float]] = {}

    def follow(self, seconds: float) -> None:
        end = time.monotonic() + seconds
        while (left := end - time.monotonic()) > 0:
            if message := self.node.receive(left):
                self.times.setdefault(message.arbitration_id, []).append(time.monotonic())

    def between(self, can_id: int, start: float, end: float) -> int:
        return sum(start <= moment < end for moment in self.times.get(can_id, []))


def test_a_program_sees_the_clock_that_was_asked_for(gateway, turn):
    wrap = gateway.wrap_clock_in(100, turn)
    shown = subprocess.run([sys.executable, "-c", "import time; print(time.monotonic())"],
                           env=gateway.environment, capture_output=True, text=True, check=True)
    left = turn / 1000 - float(shown.stdout)
    assert 0 <= left - (wrap - time.monotonic()) < scaled(20)


def test_short_periods_go_on(gateway, bus, turn):
    """Cyclic frames, resends of a request and consume timeouts: none stays out, none comes sooner
    than it may."""
    gateway.configure(
        device("pace", produce("beat", marked(0x100), interval=40)),
        device("mute", request("ask", marked(0x110), marked(0x111), interval=100, timeout=60,
                               retry=1)),
        device("deaf", consume("hear", marked(0x120), timeout=150)),
    )
    wrap = gateway.wrap_clock_in(scaled(4), turn)
    gateway.start()
    begin = time.monotonic()
    arrivals, before = Arrivals(bus()), gateway.failures("deaf", "hear")
    assert begin < wrap, "started too late for this test"
    arrivals.follow(wrap + scaled(3) - begin)
    after = gateway.failures("deaf", "hear")
    end = time.monotonic()
    lived = end - begin
    for can_id, period in ((0x100, 0.040), (0x110, 0.060)):
        assert arrivals.between(can_id, begin, wrap) >= 5
        assert arrivals.between(can_id, wrap + 0.2, end) >= 5
        # Frames of an earlier moment may have waited in the socket.
        assert arrivals.between(can_id, 0, end) <= (lived + 0.5) / period + 2
    assert 5 <= after - before <= (lived + 0.5) / 0.150 + 2


def test_long_deadlines_end_neither_early_nor_never(gateway, bus, tags, turn):
    gateway.configure(
        device("late", consume("state", frame(0x181, 2, tag("speed", U16)), timeout=LONG)),
        device("guard", produce("event", written(0x201), trigger=ON_CHANGE, fpFunc=FAULT_VALUE,
                                fpTimeout=LONG)),
        device("cycle", produce("event", written(0x202), interval=40, fpFunc=FAULT_VALUE,
                                fpTimeout=LONG)),
        device("poll", request("ask", frame(0x203, 2, tag("q", U16, access="wo")), marked(0x204),
                               trigger=ON_CHANGE, timeout=LONG)),
        device("slow", produce("beat", marked(0x205), interval=LONG)),
    )
    wrap = gateway.wrap_clock_in(scaled(8), turn)
    gateway.start()
    node = bus()
    node.expect(0x205, timeout=LONG / 1000 + 3)
    assert time.monotonic() < wrap, "started too late for this test"
    sleep_until(wrap - LONG / 1000 / 2)
    for name in ("guard", "cycle"):
        tags.set(block_tag(name, "event", "target"), 0x1111)  # ends the fault since the start
    for can_id in (0x201, 0x202):
        node.expect(can_id, "1111")
    begin = time.monotonic()
    for name in ("guard", "cycle"):
        tags.set(block_tag(name, "event", "target"), 0x1234)
    tags.set(block_tag("poll", "ask", "q"), 1)
    node.send(0x181, "0100")
    tags.wait_for(status_tag("late"), COMMUNICATING)
    arrivals = {}
    deadline = begin + LONG / 1000 + scaled(8)
    wanted = {"guard": (0x201, "CDAB"), "cycle": (0x202, "CDAB"), "slow": (0x205, "55")}
    while len(arrivals) < len(wanted) and time.monotonic() < deadline:
        message = node.receive(0.1)
        for name, (can_id, data) in wanted.items():
            if message and message.arbitration_id == can_id and message.data.hex() == data.lower():
                arrivals.setdefault(name, time.monotonic() - begin)
    assert set(arrivals) == set(wanted), arrivals
    assert min(arrivals["guard"], arrivals["cycle"]) > LONG / 1000 - 0.05, arrivals
    for name in ("late", "poll"):
        tags.wait_for(status_tag(name), TIMED_OUT, 8.0)
        assert time.monotonic() - begin > LONG / 1000 - 0.05
    age = tags.find(block_tag("late", "state", "speed"))["age_ms"]
    assert age <= 1000 * (time.monotonic() - begin) + 100, "a tag's age across the wrap"
    load = gateway.diagnose(1)["busLoading"]
    assert 0 <= load < 66


def test_a_bootup_request_and_an_initial_delay_end(gateway, bus, turn):
    """Port 1 waits for its initial delay, port 2 for the response of a bootup request."""
    gateway.configure(
        device("one", produce("beat", marked(0x100), interval=50)),
        device("two", request("boot", marked(0x110), marked(0x111), trigger=BOOTUP, timeout=3000),
               produce("beat", marked(0x120), interval=50), port=2),
        sql="UPDATE interface_setting SET initialDelay = 3000 WHERE portId = 1;",
    )
    nodes = [bus(port) for port in lane.PORTS]
    wrap = gateway.wrap_clock_in(1.5, turn)
    begin = time.monotonic()
    gateway.start(wait=False)
    nodes[1].expect(0x110, timeout=10)
    asked = time.monotonic()
    nodes[0].expect(0x100, timeout=15)
    assert time.monotonic() - begin > 2.95
    nodes[1].expect(0x120, timeout=15)
    assert time.monotonic() - asked > 2.9
    assert time.monotonic() > wrap


def test_a_lost_interface_is_looked_for(gateway, bus, interface, turn):
    gateway.configure(device("pace", produce("beat", marked(0x100), interval=50), port=2))
    wrap = gateway.wrap_clock_in(scaled(4), turn)
    gateway.start()
    bus("can1").expect(0x100)
    sleep_until(wrap - 0.5)
    interface("can1", False)
    try:
        wait_until(lambda: any("No such device" in message.text for message in gateway.messages),
                   5.0, lambda: gateway.messages)
    finally:
        interface("can1", True)
    gateway.wait_logged("can_link_recover", "port_idx = 1, interface can1 is back\n")
    assert time.monotonic() > wrap
    bus("can1").expect(0x100)
