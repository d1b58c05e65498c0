"""One port of the service beside its model: what is done to the one is done to the other, and both
have to show the same."""

import time

from kt_system.lane import scaled, wait_until
from kt_system.rows import RAW, U8, U16, Row, constant, frame, tag

from . import codec
from .engine import BUS_OFF, CONTROLLER, PROTOCOL, RESTARTED, Node, Port
from .led import Led
from .transactions import transactions_of

NEVER_MS = 2_000_000_000
EXTENDED_SECOND = "UPDATE interface_setting SET frameFormat = 1 WHERE portId = 2"
SYNC = 0x7F0
UNKNOWN = range(0x7F8, 0x7FE)


def payload(rng, access: str, prefix: str) -> list[Row]:
    """Blocks that share no bytes: some tags, sometimes a constant behind them."""
    found, place = [], 0
    for number in range(rng.randint(1, 3)):
        kind, size = rng.choice(((U8, 1), (U16, 2), (RAW, 1), (RAW, 2)))
        found.append(tag(f"{prefix}{number}", kind, place, size=size, access=access))
        place += size
    if rng.random() < 0.5:
        found.append(constant("mark", rng.randbytes(2).hex(), place))
    return found


def length_of(blocks: list[Row]) -> int:
    columns = [row.columns for row in blocks]
    return max(c["startOffset"] + c.get("tagSize", c.get("constantSize", 0)) for c in columns)


def some_frame(rng, can_id: int, access: str, prefix: str = "t") -> Row:
    blocks = payload(rng, access, prefix)
    return frame(can_id, length_of(blocks), *blocks)


class Identifiers:
    """Distinct ones; many of the second port's need 29 bits."""

    def __init__(self, rng, port: int):
        free = rng.sample(range(1, SYNC), SYNC - 1)
        high = 0x1ABC << 16 if port == 2 else 0
        self._free = [number | rng.choice((high, high, 0)) for number in free]

    def next(self) -> int:
        return self._free.pop()


def stop(gateway) -> None:
    """A gateway that has never started."""
    if gateway.running():
        gateway.stop()
    gateway.fresh()


def wait_for_counters(gateway, number: int, model: Port) -> None:
    """Bus state and counters are the model's. A frame is counted after it can be seen."""
    wanted = {"state": model.bus_state, **model.errors}
    wanted |= {"rxCount": model.rx_count, "txCount": len(model.sent)}

    def found() -> dict:
        shown = gateway.diagnose(number)
        return {name: shown[name] for name in wanted}

    wait_until(lambda: found() == wanted, 5, lambda: f"port {number}: {found()}, not {wanted}")


class Bench:
    """One port of the service beside its model: what is done to the one is done to the other."""

    def __init__(self, rng, port: int, devices: list[Row], gateway, node, led: Led | None = None):
        self.rng, self.port, self.gateway, self.node = rng, port, gateway, node
        own = [row.columns["deviceName"] for row in devices if row.columns["portId"] == port]
        self.model = Port(transactions_of(devices, port), devices=own, led=led)
        self.extended = port == 2
        self.synced = 0
        self.in_flight = False  # frames that may not have been taken in yet
        self.since = time.time()
        self.own_pace: set[int] = set()  # identifiers that come and go by time
        self.log: list[str] = []

    # Doing ---------------------------------------------------------------------------------------

    def send(self, can_id: int, data: bytes) -> None:
        self.log.append(f"send {can_id:X}#{data.hex()}")
        self.in_flight = True
        self.since = time.time()
        self.node.send(can_id, data, extended=self.extended)
        self.model.receive(can_id, data)

    def ask(self, can_id: int) -> None:
        self.log.append(f"ask {can_id:X}")
        self.node.send_remote(can_id, self.rng.randint(0, 8), extended=self.extended)
        self.model.receive(can_id, b"", remote=True)

    def report_error(self) -> None:
        """An error frame of one class or several."""
        rng = self.rng
        classes = [CONTROLLER, CONTROLLER, PROTOCOL, BUS_OFF, RESTARTED, 0x2, 0x10, 0x80]
        error_class = 0
        for chosen in rng.sample(classes, rng.choice((1, 1, 2, 3))):
            error_class |= chosen
        bits = bytes(rng.choice((0, 1 << rng.randrange(8), rng.getrandbits(8))) for _ in range(2))
        data = b"\0" + bits + rng.choice((b"\x08", rng.randbytes(1)))
        self.log.append(f"error {error_class:X}#{data.hex()}")
        self.in_flight = True
        self.node.send_error(error_class, data)
        self.model.report(error_class, data)

    def send_other_format(self) -> None:
        """Frames that are none of this port's and count for nothing."""
        can_id = self.rng.choice([*self.model.received_by, *self.model.answered_by])
        if can_id < 0x800:
            self.node.send(can_id, b"\1\2", extended=not self.extended)
            self.node.send_remote(can_id, 2, extended=not self.extended)

    def write(self, name: str, number) -> None:
        if self.in_flight:  # a write would overtake them
            self.sync()
        item = self.model.tags[name][0]
        self.log.append(f"write {name} {codec.said(item, number)}")
        self.since = time.time()
        self.gateway.tags.set(name, codec.said(item, number))
        self.model.write(name, number)

    def settle(self) -> None:
        """Both come to rest, having sent the same frames."""
        self.expect(self.model.settle())
        while self.model.waiting and self.model.waiting.transaction.response_timeout != NEVER_MS:
            self.wait_for_timeout(self.model.waiting)
            self.expect(self.model.settle())

    def expect(self, wanted: list) -> list:
        wanted = [message for message in wanted if message.can_id not in self.own_pace]
        found = []
        while len(found) < len(wanted):
            message = self.node.receive(scaled(10))
            assert message is not None, self.say(wanted, found)
            if message.arbitration_id not in self.own_pace:
                found.append(message)
        seen = [(m.arbitration_id, bytes(m.data)) for m in found]
        assert seen == [(m.can_id, m.data) for m in wanted], self.say(wanted, found)
        assert all(m.is_extended_id == self.extended for m in found)
        return found

    def say(self, wanted: list, found: list) -> str:
        expected = " ".join(f"{m.can_id:X}#{m.data.hex()}" for m in wanted)
        seen = " ".join(f"{m.arbitration_id:X}#{m.data.hex()}" for m in found)
        recent = "\n".join(self.log[-30:])
        return f"port {self.port}: [{seen}], not [{expected}], after\n{recent}"

    def wait_for_timeout(self, node: Node) -> None:
        """A request that nobody answers is resent and given up, no sooner than it may be."""
        sent = len(self.model.sent)
        while self.model.waiting is node:
            self.model.run(self.model.now + 5)
        wanted = self.model.sent[sent:]
        messages = self.expect(wanted)
        for place, message in enumerate(messages[: node.transaction.retries], 1):
            least = place * node.transaction.response_timeout
            assert (message.timestamp - self.since) * 1000 >= least - 1
        failures = self.model.results[node.slot].failures

        def given_up() -> bool:
            shown = self.gateway.diagnose(self.port)["transactionList"]
            return shown[node.slot]["failedCount"] >= failures

        wait_until(given_up, 10, f"{node.transaction.title} to time out {failures} times")

    def wait_for_results(self) -> None:
        """Every result is the model's, but for what goes by time."""

        def judged(results: list[dict]) -> list[dict]:
            return [r for r in results if not self.own_pace or r["transactionName"] != "pace"]

        wanted = judged(self.model.shown_results())

        def shown():
            return judged(self.gateway.diagnose(self.port)["transactionList"])

        def differing():
            pairs = [(a, b) for a, b in zip(shown(), wanted) if a != b]
            return f"port {self.port}: results {pairs[:5]} after {self.log[-30:]}"

        wait_until(lambda: shown() == wanted, 10, differing)

    def sync(self, *, writes: bool = False) -> None:
        """All that was done has been taken in: an answered remote frame says it of frames, two tag
        writes that go out one after the other of tag writes."""
        if writes:
            for _ in range(2):
                self.synced += 1
                name = f"can_proprietary/p{self.port}d0/sync_number"
                self.write(name, self.synced)
                self.settle()
        self.in_flight = False
        self.ask(SYNC)
        self.settle()

    # Choosing ------------------------------------------------------------------------------------

    def act(self) -> None:
        choice = self.rng.random()
        if self.model.waiting and choice < 0.4:
            self.answer(self.model.waiting)
        elif choice < 0.6:
            self.burst()
        elif choice < 0.95:
            self.write_some()
        else:
            self.send_other_format()
        self.settle()

    def step(self) -> None:
        """One frame, good or bad, or one error."""
        if self.rng.random() < 0.5:
            self.report_error()
        elif self.model.received_by:
            can_id = self.rng.choice(list(self.model.received_by))
            node = self.model.received_by[can_id]
            self.send(can_id, self.data_for(self.rng.choice(node.transaction.frames)))

    def data_for(self, wanted) -> bytes:
        """Mostly good."""
        data = self.rng.randbytes(8)
        if self.rng.random() < 0.8:
            for block in wanted.blocks:
                if isinstance(block, codec.Constant):
                    data = codec.laid(data, block.offset, codec.constant_bytes(block))
        length = wanted.length if self.rng.random() < 0.85 else self.rng.randint(0, 8)
        return data[:length]

    def answer(self, node: Node) -> None:
        response = node.transaction.frames[1]
        if self.rng.random() < 0.2:
            self.ask(response.can_id)  # is no answer
        self.send(response.can_id, self.data_for(response))
        if self.rng.random() < 0.2:
            self.settle()
            self.send(response.can_id, self.data_for(response))  # comes too late

    def burst(self) -> None:
        """Frames of all sorts without a pause."""
        model, rng = self.model, self.rng
        for _ in range(rng.randint(1, 25)):
            choice = rng.random()
            if choice < 0.6:
                can_id = rng.choice(list(model.received_by))
                node = model.received_by[can_id]
                self.send(can_id, self.data_for(rng.choice(node.transaction.frames)))
            elif choice < 0.8:
                self.ask(rng.choice(list(model.answered_by)))
            elif choice < 0.9:
                self.ask(rng.choice([*UNKNOWN, *model.received_by]))
            elif choice < 0.97:
                self.send(rng.choice(UNKNOWN), rng.randbytes(rng.randint(0, 8)))
            else:
                self.report_error()

    def write_some(self) -> None:
        """Any tag that takes writes, whether or not the service does."""
        model, rng = self.model, self.rng
        names = [name for name, (item, _) in model.tags.items() if item.access == "wo"]
        if model.waiting and rng.random() < 0.5:  # the request under way, or one that queues
            queued = rng.choice(model.lists["request-change-queue"]).transaction
            names = [queued.tag_name(item) for item in queued.frames[0].tags]  # all "wo"
        name = rng.choice(names)
        item, old = model.tags[name]
        number = rng.randbytes(item.size) if item.kind == RAW else rng.getrandbits(8 * item.size)
        if rng.random() < 0.15:
            number = old if item.kind == RAW else codec.shown(item, old)
        before = len(model.sent)
        self.write(name, number)
        self.settle()
        if len(model.sent) == before:
            self.sync(writes=True)

    # Judging -------------------------------------------------------------------------------------

    def judge(self) -> None:
        self.sync()
        self.wait_for_results()
        wait_for_counters(self.gateway, self.port, self.model)
        self.judge_values()
        assert not self.node.drain()

    def judge_values(self) -> None:
        """Tags and status of this port's devices."""
        listed = {row["name"]: row["value"] for row in self.gateway.tags.list()}
        wanted = self.model.shown_tags() | self.model.shown_status()
        pairs = {name: (listed.get(name), wanted[name]) for name in wanted}
        different = {name: pair for name, pair in pairs.items() if pair[0] != pair[1]}
        assert not different, (different, self.log[-30:])

    def judge_events(self) -> None:
        """Those of this port's devices, in their order, once each change of a result."""

        def seen() -> list[str]:
            own = [e for e in self.gateway.events() if e["message"].startswith(f"p{self.port}d")]
            own = [e for e in own if "/pace " not in e["message"]]
            for event in own:
                word = event["message"].rsplit(" ", 1)[1].capitalize()
                assert event["name"] == f"CAN Proprietary:Transaction {word}"
            return [event["message"] for event in own]

        def difference() -> str:
            found, wanted = seen(), self.wanted_events()
            same = next((i for i, (a, b) in enumerate(zip(found, wanted)) if a != b), 0)
            around = slice(max(0, same - 5), same + 10)
            return f"events {len(found)}, not {len(wanted)}: {found[around]}, not {wanted[around]}"

        wait_until(lambda: seen() == self.wanted_events(), 5, difference)

    def wanted_events(self) -> list[str]:
        return [event for event in self.model.events if "/pace " not in event]
