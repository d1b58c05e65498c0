"""What goes by the clock against the model: no sooner than it may, complete and in its order."""

import contextlib
import itertools
import threading
import time

from kt_model import codec
from kt_model.bench import EXTENDED_SECOND, Identifiers, some_frame, stop
from kt_model.engine import Port, bit_rate, bus_load, frame_bits
from kt_model.transactions import REQUEST, transactions_of
from kt_system import lane
from kt_system.cases import reproducible, seeds
from kt_system.lane import wait_until
from kt_system.rows import (
    CYCLIC,
    ON_CHANGE,
    RAW,
    U16,
    Row,
    consume,
    device,
    frame,
    produce,
    request,
    tag,
)
from kt_system.tags import block_tag

SENDS, RUNS, TIMEOUTS = 12, 3, 2  # what is waited for of each


def timed_port(rng, port: int) -> list[Row]:
    """Transactions that go by the clock. Their names say what they are."""
    ids = Identifiers(rng, port)

    def sent() -> Row:
        return some_frame(rng, ids.next(), "wo")

    def protected(trigger: int) -> dict:
        timeout = rng.randint(800, 1000)
        return {"trigger": trigger, "fpFunc": rng.choice((1, 2)), "fpTimeout": timeout}

    found = [produce(f"pace{i}", sent(), interval=rng.randint(15, 120)) for i in range(5)]
    for place in range(3):
        columns = {"interval": rng.randint(40, 150), "timeout": rng.randint(20, 60)}
        response = some_frame(rng, ids.next(), "ro", "u")
        columns["retry"] = rng.randint(0, 2)
        found.append(request(f"ask{place}", sent(), response, **columns))
    for place in range(3):
        received = some_frame(rng, ids.next(), "ro")
        found.append(consume(f"hear{place}", received, timeout=rng.randint(100, 400)))
    found.append(consume("listen", some_frame(rng, ids.next(), "ro")))
    found += [produce(f"event{i}", sent(), **protected(ON_CHANGE)) for i in range(2)]
    columns = {"timeout": 30, "retry": rng.randint(0, 2), **protected(ON_CHANGE)}
    found.append(request("alarm", sent(), some_frame(rng, ids.next(), "ro", "u"), **columns))
    found += [produce(f"cycle{i}", sent(), interval=40, **protected(CYCLIC)) for i in range(2)]
    for row in found:
        for block in row.children[0].children:
            if block.columns["blockType"] == 0:
                block.columns["fpData"] = rng.randbytes(12).hex()
    rng.shuffle(found)
    return [device(f"p{port}d0", *found, port=port)]


@contextlib.contextmanager
def listening(nodes: list):
    """Empty the sockets of these nodes all the time: a socket holds some 250 frames."""
    ended = threading.Event()

    def listen(node) -> None:
        while not ended.is_set():
            node.receive(0.05)

    threads = [threading.Thread(target=listen, args=(node,)) for node in nodes]
    for thread in threads:
        thread.start()
    try:
        yield
    finally:
        ended.set()
        for thread in threads:
            thread.join()


class Timed:
    """One port whose frames are judged by when they come at the earliest."""

    def __init__(self, port: int, devices: list[Row], gateway, node):
        self.port, self.gateway, self.node = port, gateway, node
        self.transactions = transactions_of(devices, port)
        self.start = time.time()
        self.model = Port(self.transactions)
        self.model.run(2500)  # by then every fault value was sent

    def named(self, prefix: str) -> list:
        return [item for item in self.transactions if item.name.startswith(prefix)]

    def frames(self, transaction) -> list[tuple[float, bytes]]:
        """Milliseconds since the start and data."""
        can_id = transaction.frames[0].can_id
        return [
            ((m.timestamp - self.start) * 1000, bytes(m.data))
            for m in list(self.node.seen)
            if m.arbitration_id == can_id
        ]

    def failures(self, transaction) -> int:
        return self.gateway.failures(transaction.device, transaction.name, self.port)

    def collect_until(self, enough, what: str) -> None:
        wait_until(enough, 15, f"port {self.port}: {what}")

    def judge_cyclic(self) -> None:
        """The n-th frame comes no sooner than n intervals after the start."""
        pace = self.named("pace")
        self.collect_until(
            lambda: all(len(self.frames(item)) >= SENDS for item in pace), f"{SENDS} of each cycle"
        )
        for item in pace:
            for number, (at, data) in enumerate(self.frames(item), 1):
                assert at >= item.interval * number - 2, (item, number, at)
                assert data == self.model_data(item)

    def model_data(self, item) -> bytes:
        """What it sends before anything was written."""
        blocks = item.frames[0].blocks
        return codec.sent(codec.start_data(blocks), blocks, item.frames[0].length)

    def runs(self) -> list[tuple[object, list[float]]]:
        """Requests in the order in which they ran, each with the times of its frames."""
        by_id = {item.frames[0].can_id: item for item in self.named("ask")}
        found: list[tuple[object, list[float]]] = []
        for message in list(self.node.seen):
            item = by_id.get(message.arbitration_id)
            if item is None:
                continue
            at = (message.timestamp - self.start) * 1000
            if not found or found[-1][0] is not item or len(found[-1][1]) > item.retries:
                found.append((item, []))
            found[-1][1].append(at)
        return found

    def judge_requests(self) -> None:
        """Nobody answers: each run is one frame and its resends, and no two runs overlap."""
        asked = self.named("ask")

        def enough() -> bool:
            names = [item.name for item, _ in self.runs()[:-1]]
            return all(names.count(item.name) >= RUNS for item in asked)

        self.collect_until(enough, f"{RUNS} runs of each request")
        number = dict.fromkeys(asked, 0)
        for item, times in self.runs()[:-1]:
            assert len(times) == 1 + item.retries, (item, times)
            run = (1 + item.retries) * item.response_timeout
            earliest = item.interval + number[item] * (item.interval + run)
            for place, at in enumerate(times):
                assert at >= earliest + place * item.response_timeout - 2, (item, number[item])
            number[item] += 1
        for item in asked:
            assert self.failures(item) >= number[item] - 1

    def judge_consumers(self) -> None:
        """A silent device times out again and again, not more often than there was time for."""
        for item in self.named("hear"):

            def count(item=item) -> int:
                failures = self.failures(item)
                assert failures <= (time.time() - self.start) * 1000 / item.timeout
                return failures

            self.collect_until(lambda: count() >= TIMEOUTS, f"{item.title} to time out")
        assert self.failures(self.named("listen")[0]) == 0
        status = f"can_proprietary/p{self.port}d0/status"
        assert self.gateway.tags.get(status) == self.model.shown_status()[status]

    def judge_fault_values(self) -> None:
        """They come once the time is up, on the bus and in the tags."""
        for item in self.protected():
            self.await_values(item, [*self.before(item), self.faulty(item)], self.start)
            for tag_of in item.frames[0].tags:
                self.await_tag(item, tag_of)

    def write_protected(self, rng) -> dict:
        """Write a tag of each; when, the tag, and the data that have to follow."""
        found = {}
        for item in self.protected():
            tag_of = rng.choice(item.frames[0].tags)
            other = bytes(byte ^ rng.randint(1, 255) for byte in self.fault(item, tag_of))
            number = other if tag_of.kind == RAW else int.from_bytes(other, "little")
            value = codec.laid(self.faulty(item), tag_of.offset, other)
            found[item] = (time.time(), tag_of, value)
            self.gateway.tags.set(item.tag_name(tag_of), codec.said(tag_of, number))
        return found

    def judge_written_values(self, written: dict) -> None:
        """They stand until the time is up again."""
        for item, (since, tag_of, value) in written.items():
            fault = self.faulty(item)
            self.await_values(item, [*self.before(item), fault, value, fault], since)
            self.await_tag(item, tag_of)

    def protected(self) -> list:
        return [*self.named("event"), *self.named("alarm"), *self.named("cycle")]

    def before(self, item) -> list[bytes]:
        """A cyclic frame is sent without waiting for a value."""
        return [self.model_data(item)] if item.trigger == CYCLIC else []

    def await_tag(self, item, tag_of) -> None:
        name, wanted = item.tag_name(tag_of), codec.shown(tag_of, self.fault(item, tag_of))
        self.collect_until(lambda: self.gateway.tags.get(name) == wanted, f"{name} {wanted!r}")

    def fault(self, item, tag_of) -> bytes:
        text = "0" * 24 if item.protection == 1 else tag_of.fault
        return codec.fault_bytes(text, tag_of.size)

    def faulty(self, item) -> bytes:
        """The frame with every value replaced: what the model sent last."""
        can_id = item.frames[0].can_id
        return [m.data for m in self.model.sent if m.can_id == can_id][-1]

    def await_values(self, item, wanted: list[bytes], since: float) -> None:
        """The data of its frames are these, the last ones in due time. On change each comes once,
        of a request as often as it is resent; a cycle repeats it."""
        if item.trigger == CYCLIC:
            wanted = without_repeats(wanted)
        elif item.kind == REQUEST:
            wanted = [data for data in wanted for _ in range(1 + item.retries)]

        def values() -> list[bytes]:
            data = [data for _, data in self.frames(item)]
            return without_repeats(data) if item.trigger == CYCLIC else data

        self.collect_until(lambda: len(values()) >= len(wanted), f"{item.title} {wanted}")
        assert values() == wanted, item
        if len(wanted) > 1 or item.trigger == ON_CHANGE:
            earliest = (since - self.start) * 1000 + item.protection_timeout
            assert self.latest_change(item) >= earliest - 2, item

    def latest_change(self, item) -> float:
        """When its last data came first."""
        frames = self.frames(item)
        place = len(frames) - 1
        while item.trigger == CYCLIC and place > 0 and frames[place - 1][1] == frames[place][1]:
            place -= 1
        return frames[place][0]


def without_repeats(values: list) -> list:
    return [value for value, _ in itertools.groupby(values)]


def test_what_goes_by_the_clock_comes_no_sooner_than_it_may_and_in_its_order(gateway, bus):
    for seed in seeds():
        with reproducible(seed) as rng:
            stop(gateway)
            devices = [row for port in (1, 2) for row in timed_port(rng, port)]
            gateway.configure(*devices, sql=EXTENDED_SECOND)
            nodes = [bus(name) for name in lane.PORTS]
            timed = [Timed(port, devices, gateway, nodes[port - 1]) for port in (1, 2)]
            with listening(nodes):
                gateway.start()
                for item in timed:
                    item.judge_cyclic()
                    item.judge_requests()
                    item.judge_consumers()
                for item in timed:
                    item.judge_fault_values()
                written = [item.write_protected(rng) for item in timed]
                for item, values in zip(timed, written):
                    item.judge_written_values(values)


# Consume timeout ---------------------------------------------------------------------------------

HEARD, HEARD_MS = 25, 300


def test_a_device_that_is_heard_times_out_only_in_the_gaps(gateway, bus):
    """Every frame puts the timeout off, good or bad; each gap has room for so many of them, and
    begins at most a millisecond sooner for a clock of whole ones."""

    def room(begin: float) -> int:
        return int(((time.monotonic() - begin) * 1000 + 1) / HEARD_MS)

    for seed in seeds():
        with reproducible(seed) as rng:
            stop(gateway)
            state = consume("state", frame(0x181, 2, tag("value", U16)), timeout=HEARD_MS)
            answer = produce("answer", frame(0x201, 0), trigger=ON_CHANGE, triggerByRTR=1)
            gateway.configure(device("drive", state, answer))
            begin = time.monotonic()
            gateway.start()
            node = bus()
            most, bad = 0, 0
            for number in range(HEARD):
                if number % 10 == 9:
                    failures = gateway.failures("drive", "state")
                    wait_until(
                        lambda: gateway.failures("drive", "state") > failures, 5, "a timeout"
                    )
                time.sleep(rng.uniform(0, 0.1))
                length = rng.choice((2, 2, 1))
                sent = time.monotonic()
                node.send(0x181, bytes(length))
                node.send_remote(0x201)
                node.expect(0x201)
                bad += length != 2
                most += room(begin)
                begin = sent
            failures = gateway.failures("drive", "state")
            most += room(begin)
            assert bad + HEARD // 10 <= failures <= bad + most


# Bus load ----------------------------------------------------------------------------------------

QUESTIONS = 6


def test_the_bus_load_is_that_of_a_time_between_two_questions(gateway, bus, tags):
    for seed in seeds():
        with reproducible(seed) as rng:
            stop(gateway)
            code = rng.randint(0, 9)
            answer = produce("answer", frame(0x201, 3), trigger=ON_CHANGE, triggerByRTR=1)
            last = consume("last", frame(0x181, 2, tag("number", U16)))
            gateway.configure(
                device("drive", answer, last),
                sql=f"UPDATE interface_setting SET baudrate = {code}",
            )
            gateway.start()
            node = bus()
            asked_before, answered_before, _ = ask_load(gateway)
            for number in range(1, QUESTIONS + 1):
                bits = load_bus(rng, node, number)
                tags.wait_for(block_tag("drive", "last", "number"), number)
                asked, answered, load = ask_load(gateway)
                shortest = int((asked - answered_before) * 1000) - 1
                longest = int((answered - asked_before) * 1000) + 2
                times = range(max(1, shortest), longest)
                assert load in {bus_load(bits, time_ms, bit_rate(code)) for time_ms in times}
                asked_before, answered_before = asked, answered


def ask_load(gateway) -> tuple[float, float, float]:
    """When it was asked and answered, and the answer, which starts a new computation."""
    asked = time.monotonic()
    load = gateway.diagnose(1)["busLoading"]
    return asked, time.monotonic(), load


def load_bus(rng, node, number: int) -> int:
    """Frames of any length for some milliseconds, one that is answered, and one whose value shows
    that the others have been counted, the answer too."""
    bits, end = 0, time.monotonic() + rng.uniform(0.005, 0.05)
    while time.monotonic() < end:
        length = rng.randint(0, 8)
        node.send(rng.randint(0x300, 0x7EF), bytes(length))
        bits += frame_bits(length)
    node.send_remote(0x201, 5)
    node.expect(0x201, bytes(3))
    node.send(0x181, number.to_bytes(2, "little"))
    return bits + frame_bits(5) + frame_bits(3) + frame_bits(2)
