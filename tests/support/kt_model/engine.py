"""The transactions of one port as a simulation.

Port.run(until) lets the port's loop turn in simulated milliseconds: a transmit pass, then a receive
pass that waits. What comes in from outside is handed over between runs: frames, remote frames,
errors, tag writes. What goes out is collected: frames, tag values, status values, results, events.
Nothing but waiting takes time, so an order is exact.
"""

from collections import deque
from dataclasses import dataclass, field

from . import codec
from .codec import Tag
from .led import Led
from .results import FAILED, INITIAL, SUCCESS, TIMEOUT, WORDS, Result
from .transactions import (
    BOOTUP,
    CONSUME,
    CYCLIC,
    ON_CHANGE,
    PRODUCE,
    REQUEST,
    Frame,
    Transaction,
)

READY, WAITING = 3, 4  # states of a request besides its results
NO_FRAME_YET, COMMUNICATING, SILENT = 0x80000000, 0, 0x80000001
NEVER = 0xFFFFFFFF
SLOTS = 256
LONGEST_WAIT = 1000


def clock(number: int) -> int:
    """Milliseconds as the clock shows them: 32 bits that wrap."""
    return number & 0xFFFFFFFF


def since(now: int, deadline: int) -> int:
    """Signed distance: 0 or more says that the deadline is due."""
    difference = clock(now - deadline)
    return difference - (1 << 32) if difference >> 31 else difference


# Bus load --------------------------------------------------------------------------------------

BIT_RATES = (10000, 20000, 50000, 125000, 250000, 500000, 800000, 1000000)
OTHER_BIT_RATE = 125000


def bit_rate(code: int) -> int:
    return BIT_RATES[code] if code < len(BIT_RATES) else OTHER_BIT_RATE


def frame_bits(length: int) -> int:
    return 67 + 8 * length


def bus_load(bits: int, elapsed_ms: int, rate: int) -> float:
    """Percent with three decimals; what does not fit 16 bits of them wraps."""
    thousandths = bits / ((elapsed_ms / 1000) * rate) * 100 * 1000
    return (int(thousandths) & 0xFFFF) / 1000


# Runtime ---------------------------------------------------------------------------------------


@dataclass
class TagState:
    tag: Tag
    updated: int
    in_fault: bool = False


@dataclass(eq=False)
class Node:
    """A transaction at run time. buffers: the data of each of its frames."""

    transaction: Transaction
    slot: int
    home: str
    state: int = INITIAL
    changed: bool = False
    retries: int = 0
    deadline: int = 0
    next_send: int = 0
    protection_due: int = 0
    buffers: list[bytes] = field(default_factory=list)
    tags: list[TagState] = field(default_factory=list)  # of the first frame

    @property
    def frame(self) -> Frame:
        return self.transaction.frames[0]

    @property
    def protected(self) -> bool:
        return self.transaction.protection in (1, 2)

    def data(self) -> bytes:
        return codec.sent(self.buffers[0], self.frame.blocks, self.frame.length)


@dataclass(frozen=True)
class Sent:
    """A frame on the bus."""

    at: int
    can_id: int
    data: bytes


ERROR_FILTER = 0x144  # classes that reach the port: controller, bus off, restarted
CONTROLLER, PROTOCOL, BUS_OFF, RESTARTED = 0x4, 0x8, 0x40, 0x100
BIT_ERRORS, STUFF_ERROR, CRC_SEQUENCE = 0x18, 0x04, 0x08
BACK_TO_ACTIVE, WARNING, PASSIVE = 0x40, 0x0C, 0x30

# transaction type and trigger: list at the start, home
PLACES = {
    (PRODUCE, CYCLIC): ("produce-cyclic", "produce-cyclic"),
    (REQUEST, CYCLIC): ("request-cyclic", "request-cyclic"),
    (PRODUCE, ON_CHANGE): ("produce-on-change", "produce-on-change"),
    (REQUEST, ON_CHANGE): ("request-on-change", "request-on-change"),
    (PRODUCE, BOOTUP): ("produce-bootup", "produce-idle"),
    (REQUEST, BOOTUP): ("request-bootup", "request-idle"),
}
QUEUES = {
    "produce-cyclic": "produce-cyclic-queue",
    "request-cyclic": "request-cyclic-queue",
    "produce-on-change": "produce-change-queue",
    "request-on-change": "request-change-queue",
}
PROTECTED_LISTS = (
    "produce-on-change",
    "request-on-change",
    "produce-change-queue",
    "request-change-queue",
)
LISTS = (
    *dict.fromkeys(name for pair in PLACES.values() for name in pair),
    *QUEUES.values(),
    "consume",
    "consume-with-timeout",
)


def place_of(transaction: Transaction) -> tuple[str, str]:
    """Whatever is neither produced nor requested in a known way is consumed."""
    name = "consume-with-timeout" if transaction.has_timeout else "consume"
    return PLACES.get((transaction.kind, transaction.trigger), (name, name))


class Port:
    def __init__(
        self, transactions: list[Transaction], now: int = 0, *, devices=(), led: Led | None = None
    ):
        """devices: names of those that have a status besides the ones with transactions."""
        self.now = now
        self.started = now
        self.lists: dict[str, list[Node]] = {name: [] for name in LISTS}
        self.waiting: Node | None = None
        self.pending: Node | None = None
        self.protection_due = NEVER
        self.event_set = False
        self.inbox: deque = deque()
        self.resend: dict[str, bytes] = {}  # data of the request under way, by queue
        self.received_by: dict[int, Node] = {}
        self.answered_by: dict[int, Node] = {}
        self.writable: dict[str, tuple[Node, int, TagState]] = {}  # int: which of its frames

        self.sent: list[Sent] = []
        self.results: list[Result] = []
        self.events: list[str] = []
        self.tags: dict[str, tuple[Tag, bytes | None]] = {}
        self.status = dict.fromkeys([*devices, *(t.device for t in transactions)], NO_FRAME_YET)
        self.rx_count = 0
        self.bus_state = "Normal"
        self.errors = dict.fromkeys(("crcError", "bitError", "stuffError", "busOffCount"), 0)
        self.bus_events: list[str] = []
        self.led = led or Led()
        self.led.set(0)
        self._active = False
        for transaction in transactions:
            self._add(transaction)
        self._build_tables()

    def _add(self, transaction: Transaction) -> None:
        start, home = place_of(transaction)
        slot = len(self.results) if len(self.results) < SLOTS else 0
        if len(self.results) < SLOTS:
            self.results.append(Result(transaction.device, transaction.name))
        node = Node(transaction, slot, home)
        if start == "request-bootup":
            node.state = READY
        node.next_send = clock(self.now + transaction.interval)
        node.protection_due = clock(self.now + transaction.protection_timeout)
        node.deadline = clock(self.now + transaction.timeout)
        node.buffers = [codec.start_data(frame.blocks) for frame in transaction.frames]
        for number, frame in enumerate(transaction.frames):
            states = [TagState(tag, self.now) for tag in frame.tags]
            if number == 0:
                node.tags = states
            for state in states:
                name = transaction.tag_name(state.tag)
                self.tags[name] = (state.tag, bytes(state.tag.size))
                if frame.kind & ~2 != 1:
                    self.writable[name] = (node, number, state)
        self.lists[start].append(node)

    def _build_tables(self) -> None:
        """Of two frames with one identifier the later one is found."""
        for name in ("consume", "consume-with-timeout"):
            for node in self.lists[name]:
                self.received_by.update({f.can_id: node for f in node.transaction.frames})
        for name in ("produce-cyclic", "produce-on-change", "produce-bootup"):
            for node in self.lists[name]:
                if node.transaction.answers_remote:
                    self.answered_by.update({f.can_id: node for f in node.transaction.frames})

    # From outside ------------------------------------------------------------------------------

    def receive(self, can_id: int, data: bytes, *, remote: bool = False) -> None:
        """A frame of the port's format comes in."""
        self.inbox.append((self.dispatch, (can_id, bytes(data), remote)))

    def report(self, error_class: int, data: bytes) -> None:
        """The controller reports an error."""
        if error_class & ERROR_FILTER:
            self.inbox.append((self.follow_error, (error_class, codec.padded(data))))

    def write(self, name: str, number) -> None:
        """Another application writes a tag: a number, or bytes."""
        tag, _ = self.tags[name]
        value = codec.written(tag, number)
        self.tags[name] = (tag, value)
        if name not in self.writable:
            return
        node, frame, state = self.writable[name]
        data = codec.laid(node.buffers[frame], tag.offset, value[: tag.size])
        if data != node.buffers[frame]:
            node.buffers[frame] = data
            node.changed = True
            state.in_fault = False
            self.event_set = True
        state.updated = self.now

    # The loop ----------------------------------------------------------------------------------

    def settle(self) -> list[Sent]:
        """Let the loop turn without time going by until nothing is left to do; what it sent."""
        start = len(self.sent)
        while True:
            self._active = False
            self.transmit_pass()
            self.expire_consumers()
            if not (self.take_input() or self._active):
                return self.sent[start:]

    def run(self, until: int) -> list[Sent]:
        """Let the loop turn until that time; what it sent."""
        start = len(self.sent)
        while True:
            self.transmit_pass()
            wait = self.wait()
            self.expire_consumers()
            if self.take_input():
                continue
            wait = max(wait, 1)  # a pass takes some time
            if since(until, clock(self.now + wait)) < 0:
                self.now = until
                return self.sent[start:]
            self.now = clock(self.now + wait)

    def take_input(self) -> bool:
        """What a wait that ends at once finds: the event, at most one frame."""
        found = self.event_set or bool(self.inbox)
        if self.event_set:
            self.event_set = False
            self.queue_changed()
        if self.inbox:
            handle, arguments = self.inbox.popleft()
            handle(*arguments)
        return found

    def wait(self) -> int:
        """How long the receive pass waits, in milliseconds."""
        lists = self.lists
        if lists["produce-idle"]:
            return 0
        if lists["request-idle"]:
            return self._wait_by_state(lists["request-idle"][0])
        if lists["produce-change-queue"]:
            wait = 0
        elif lists["request-change-queue"]:
            wait = self._wait_by_state(lists["request-change-queue"][0])
        else:
            wait = LONGEST_WAIT
        for name in ("produce-cyclic", "request-cyclic"):
            if wait and lists[name]:
                wait = min(wait, max(0, -since(self.now, lists[name][0].next_send)))
        if wait and lists["request-cyclic-queue"]:
            head = lists["request-cyclic-queue"][0]
            if head.state == READY:
                wait = 0
            elif head.state == WAITING:
                wait = min(wait, max(0, -since(self.now, head.deadline)))
        until_protection = -since(self.now, self.protection_due)
        if wait and self.protection_due != NEVER and until_protection >= 0:
            wait = min(wait, until_protection)
        return wait

    def _wait_by_state(self, head: Node) -> int:
        if head.state in (READY, SUCCESS, FAILED):
            return 0
        if head.state == WAITING:
            return max(0, min(LONGEST_WAIT, -since(self.now, head.deadline)))
        return LONGEST_WAIT

    # Results -----------------------------------------------------------------------------------

    def set_result(self, node: Node, state: int) -> None:
        result = self.results[node.slot]
        node.state = state
        if result.state != state:
            result.state = state
            title = f"{result.device}/{result.name}"
            self.events.append(f"{title} transaction {WORDS[state]}")
            if state == SUCCESS:
                self.led.update(self.bus_state, self.results)
            else:
                self.led.set(3)
        if state in (FAILED, TIMEOUT):
            result.failures += 1

    def send(self, node: Node, data: bytes) -> None:
        self.sent.append(Sent(self.now, node.frame.can_id, data))
        self._active = True

    def send_produced(self, node: Node) -> None:
        self.send(node, node.data())
        self.set_result(node, SUCCESS)

    # Transmit pass -----------------------------------------------------------------------------

    def transmit_pass(self) -> None:
        lists = self.lists
        if lists["request-bootup"] or lists["produce-bootup"]:
            self.request_step("request-bootup")
            while lists["produce-bootup"]:
                node = lists["produce-bootup"].pop(0)
                self.send_produced(node)
                lists[node.home].append(node)
            return
        self.protection_due = NEVER
        for name in PROTECTED_LISTS:
            self.protect_list(name)
        self.queue_due("produce-cyclic")
        self.queue_due("request-cyclic")
        if self.pending:
            self.send_produced(self.pending)
            self.pending = None
        if not self.head_waits("request-cyclic-queue"):
            self.request_step("request-change-queue")
        while lists["produce-change-queue"]:
            node = lists["produce-change-queue"].pop(0)
            node.changed = False
            self.send_produced(node)
            lists[node.home].append(node)
        if not self.head_waits("request-change-queue"):
            self.request_step("request-cyclic-queue")
        while lists["produce-cyclic-queue"]:
            node = lists["produce-cyclic-queue"].pop(0)
            if node.protected:
                self.protect(node)
            self.send_produced(node)
            self.home_cyclic(node)

    def head_waits(self, queue: str) -> bool:
        return bool(self.lists[queue]) and self.lists[queue][0].state == WAITING

    def queue_due(self, name: str) -> None:
        due = [node for node in self.lists[name] if since(self.now, node.next_send) >= 0]
        for node in due:
            self.lists[name].remove(node)
            self.lists[QUEUES[name]].append(node)
            if node.transaction.kind == REQUEST:
                node.state = READY

    def home_cyclic(self, node: Node) -> None:
        """Behind every node whose time is not later."""
        node.next_send = clock(self.now + node.transaction.interval)
        home = self.lists[node.home]
        place = sum(since(node.next_send, other.next_send) >= 0 for other in home)
        home.insert(place, node)

    def request_step(self, queue: str) -> None:
        nodes = self.lists[queue]
        while nodes:
            head = nodes[0]
            if head.state == WAITING:
                if since(self.now, head.deadline) >= 0:
                    self.resend_or_give_up(queue, head)
                return
            if head.state == READY:
                self.send_request(queue, head)
                return
            if head.state not in (SUCCESS, FAILED):
                return
            self.home_request(queue, head)

    def send_request(self, queue: str, node: Node) -> None:
        if node.transaction.trigger == CYCLIC and node.protected:
            self.protect(node)
        if node.transaction.trigger == ON_CHANGE:
            node.changed = False
        self.resend[queue] = node.data()
        self.send(node, self.resend[queue])
        node.retries = 0
        node.state = WAITING
        node.deadline = clock(self.now + node.transaction.response_timeout)
        self.waiting = node

    def resend_or_give_up(self, queue: str, node: Node) -> None:
        if node.retries < node.transaction.retries:
            self.send(node, self.resend[queue])
            node.retries += 1
            node.deadline = clock(self.now + node.transaction.response_timeout)
            return
        self.set_result(node, TIMEOUT)
        self.home_request(queue, node)
        self.set_status(node, SILENT)

    def home_request(self, queue: str, node: Node) -> None:
        """A request that was written meanwhile is woken for another run."""
        self._active = True
        self.lists[queue].remove(node)
        if node.transaction.trigger == CYCLIC:
            self.home_cyclic(node)
        else:
            self.lists[node.home].append(node)
        self.waiting = None
        if node.transaction.trigger == ON_CHANGE and node.changed:
            self.event_set = True

    # Fault protection --------------------------------------------------------------------------

    def protect_list(self, name: str) -> None:
        for node in list(self.lists[name]):
            if node.protected:
                self.protect(node)

    def protect(self, node: Node) -> None:
        """Values that nobody has written for too long are replaced by their fault values."""
        if since(self.now, node.protection_due) < 0:
            return
        transaction = node.transaction
        timeout = transaction.protection_timeout
        oldest = NEVER
        replaced = False
        for state in node.tags:
            silent = since(clock(state.updated + timeout), self.now) < 0
            if silent and not state.in_fault:
                self._put_fault_value(node, state)
                replaced = True
            if not state.in_fault:
                oldest = min(oldest, state.updated)
        base = self.now if since(self.now, oldest) < 0 else oldest
        node.protection_due = clock(base + timeout)
        if transaction.trigger == ON_CHANGE and replaced:
            node.changed = True
            self.event_set = True
        if transaction.trigger == ON_CHANGE:
            self.protection_due = min(self.protection_due, node.protection_due)

    def _put_fault_value(self, node: Node, state: TagState) -> None:
        tag = state.tag
        text = "0" * 24 if node.transaction.protection == 1 else tag.fault
        value = codec.fault_bytes(text, tag.size)
        node.buffers[0] = codec.laid(node.buffers[0], tag.offset, value)
        self.tags[node.transaction.tag_name(tag)] = (tag, value)
        state.in_fault = True

    # Receive pass ------------------------------------------------------------------------------

    def queue_changed(self) -> None:
        for name in ("produce-on-change", "request-on-change"):
            for node in [node for node in self.lists[name] if node.changed]:
                self.lists[name].remove(node)
                self.lists[QUEUES[name]].append(node)
                if node.transaction.kind == REQUEST:
                    node.state = READY

    def expire_consumers(self) -> None:
        for node in self.lists["consume-with-timeout"]:
            if since(self.now, node.deadline) >= 0:
                node.deadline = clock(self.now + node.transaction.timeout)
                self.set_status(node, SILENT)
                self.set_result(node, TIMEOUT)

    def dispatch(self, can_id: int, data: bytes, remote: bool) -> None:
        self.rx_count += 1
        if remote:
            self.pending = self.answered_by.get(can_id, self.pending)
            return
        node = self.received_by.get(can_id)
        if node is None and self.waiting and len(self.waiting.transaction.frames) > 1:
            if self.waiting.transaction.frames[1].can_id == can_id:
                node = self.waiting
        if node:
            self.judge(node, data)

    def follow_error(self, error_class: int, data: bytes) -> None:
        if error_class & PROTOCOL:
            self.errors["bitError"] += bool(data[2] & BIT_ERRORS)
            self.errors["stuffError"] += bool(data[2] & STUFF_ERROR)
            self.errors["crcError"] += data[3] == CRC_SEQUENCE
        if error_class & BUS_OFF:
            self.bus_state = "Bus off"
            self.errors["busOffCount"] += 1
            self.bus_events.append("CAN Proprietary:CAN bus-off")
            self.led.set(1)
        elif error_class & RESTARTED:
            self.bus_state = "Normal"
            self.led.set(0)
        elif error_class & CONTROLLER:
            self.follow_controller(data[1])

    def follow_controller(self, status: int) -> None:
        if status & (BACK_TO_ACTIVE | WARNING):
            self.bus_state = "Normal" if status & BACK_TO_ACTIVE else "Error active"
            self.led.update(self.bus_state, self.results)
        elif status & PASSIVE:
            self.bus_state = "Error passive"
            self.bus_events.append("CAN Proprietary:CAN Error Passive")
            self.led.set(2)

    def judge(self, node: Node, data: bytes) -> None:
        """Compare with the frame that the transaction receives and publish what is good."""
        self.set_status(node, COMMUNICATING)
        transaction = node.transaction
        number = {CONSUME: 0, REQUEST: 1}.get(transaction.kind)
        if number is None or number >= len(transaction.frames):
            return
        if transaction.kind == CONSUME and transaction.has_timeout:
            node.deadline = clock(self.now + transaction.timeout)
        frame = transaction.frames[number]
        good = len(data) == frame.length and codec.constants_match(
            codec.padded(data), frame.blocks, node.buffers[number]
        )
        self.set_result(node, SUCCESS if good else FAILED)
        if good:
            for tag, value in codec.published(data, frame.blocks):
                self.tags[transaction.tag_name(tag)] = (tag, value)

    def set_status(self, node: Node, value: int) -> None:
        self.status[node.transaction.device] = value

    # What can be read --------------------------------------------------------------------------

    def shown_tags(self) -> dict:
        """Every block tag as kt-tag shows it; without those whose value is the processor's."""
        return {
            name: codec.shown(tag, value)
            for name, (tag, value) in self.tags.items()
            if value is not None
        }

    def shown_status(self) -> dict[str, int]:
        """Every device status as a signed number."""
        return {
            f"can_proprietary/{device}/status": value - (1 << 32) if value >> 31 else value
            for device, value in self.status.items()
        }

    def shown_results(self) -> list[dict]:
        """The diagnostic slots as the REST API shows them."""
        return [
            {
                "deviceName": result.device,
                "transactionName": result.name,
                "transactionState": -1 if result.state == INITIAL else result.state,
                "failedCount": result.failures,
            }
            for result in self.results
        ]
