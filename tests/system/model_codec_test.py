"""Thousands of blocks, from the frame to the tag and from the tag to the frame, against the model.

Each test lays out as many transactions on both ports as have a diagnostic slot, the second port
with extended identifiers, and drives all of them through one start of the service.
"""

import ctypes
import struct

from kt_model import codec
from kt_model.bench import EXTENDED_SECOND, stop, wait_for_counters
from kt_model.engine import Port
from kt_model.transactions import transactions_of
from kt_system import lane, rows
from kt_system.cases import reproducible, seeds
from kt_system.lane import scaled, wait_until
from kt_system.rows import ON_CHANGE, Row, U32, consume, device, frame, produce, tag
from kt_system.tags import block_tag

PER_PORT = 240
KINDS = [*range(1, 11), *range(1, 11), *range(1, 11), 13, 13, 13, 0, 11, 12, 14, 200]
NUMBERS = (0.0, 1.0, -1.0, 2.5, -0.5, 0.1, 100.0, 1e-3, 65536.0, 1e6, -1e10, 1e18, 1e300, -1e-300)
INTERESTING = ("00" * 8, "FF" * 8, "7F" * 8, "80" * 8, "0000000000000080", "FFFFFFFFFFFFFF7F")
REALS = (0.0, -0.0, 1.0, -1.5, 1e10, -1e10, 3.4e38, 1e-40, float("inf"), float("nan"))


def scaling_columns(rng) -> dict:
    """All six columns of their own, so that it shows which of them count."""
    names = (
        *("interceptSlope", "interceptOffset", "pointSourceMin", "pointSourceMax"),
        *("pointTargetMin", "pointTargetMax"),
    )

    def number() -> float:
        choice = rng.random()
        if choice < 0.4:
            return rng.choice(NUMBERS)
        return float(rng.randint(-1000, 1000)) if choice < 0.8 else rng.uniform(-1e5, 1e5)

    columns = {name: number() for name in names}
    if rng.random() < 0.1:
        columns["pointSourceMax"] = columns["pointSourceMin"]
    return columns


def random_size(rng, kind: int) -> int:
    """Mostly that of the type, sometimes wider, sometimes narrower."""
    width = codec.WIDTHS.get(kind, 0)
    if width and rng.random() < 0.7:
        return width
    return rng.randint(1, 8)


def random_tag(rng, name: str, access: str) -> Row:
    kind = rng.choice(KINDS)
    size = random_size(rng, kind)
    offset = rng.randint(0, 8 - size)
    columns = {"scalingFunc": rng.choice((0, 1, 1, 2, 2, 3)), **scaling_columns(rng)}
    fault = rng.randbytes(rng.randint(size, 12)).hex()
    columns["fpData"] = fault.upper() if rng.random() < 0.5 else fault
    return tag(name, kind, offset, size=size, access=access, swap=rng.randint(0, 6), **columns)


def random_constants(rng) -> list[Row]:
    """None of them shares a byte with another one."""
    found = []
    place = rng.randint(0, 7)
    while place < 8 and rng.random() < 0.5:
        size = rng.randint(0, min(3, 8 - place))
        digits = rng.randbytes(rng.randint(0, 8)).hex()[rng.randint(0, 1) :]
        found.append(rows.constant(f"c{place}", digits, place, size=size))
        place += size + rng.randint(1, 3)
    return found


def random_frame(rng, can_id: int, access: str) -> Row:
    """A sent frame has room for its blocks; a received one may end before them."""
    blocks = [random_tag(rng, f"t{i}", access) for i in range(rng.randint(1, 5))]
    blocks += random_constants(rng)
    rng.shuffle(blocks)
    length = 8 if rng.random() < 0.9 else rng.randint(0, 7)
    if access == "wo":
        ends = [row.columns["startOffset"] + row.columns.get("tagSize", 0) for row in blocks]
        length = max(length, *ends)
    return frame(can_id, length, *blocks)


def identifiers(rng, port: int) -> list[int]:
    """Distinct ones; the extended ones share hash buckets now and then."""
    if port == 1:
        return rng.sample(range(0x100, 0x7F0), PER_PORT)
    low = rng.sample(range(1 << 11), PER_PORT // 4)
    return [number | high << 16 for number in low for high in rng.sample(range(1, 0x1FFF), 4)]


def random_data(rng, blocks) -> bytes:
    """Random bytes, corners of the integers, or a real number where a block would look for one."""
    choice = rng.random()
    if choice < 0.5:
        return rng.randbytes(8)
    if choice < 0.75:
        return bytes.fromhex(rng.choice(INTERESTING))
    data = rng.randbytes(8)
    block = rng.choice(blocks)
    if isinstance(block, codec.Tag) and block.kind in codec.REAL:
        value = struct.pack(codec.LAYOUTS[block.kind], rng.choice(REALS))
        data = codec.laid(data, block.offset, codec.swapped(value, block.swap)[: block.size])
    return data


def random_answer(rng, wanted) -> bytes:
    """Data for a consumed frame: mostly of its length and with its constants."""
    data = random_data(rng, wanted.blocks)
    if rng.random() < 0.95:
        for block in wanted.blocks:
            if isinstance(block, codec.Constant):
                data = codec.laid(data, block.offset, codec.constant_bytes(block))
    length = wanted.length if rng.random() < 0.97 else rng.randint(0, 8)
    return data[:length]


def seen_value(row: dict):
    """A value as JSON carries it: the text of a 32-bit float is its shortest one."""
    value = row["value"]
    return ctypes.c_float(value).value if row["type"] == 9 and value is not None else value


def differences(ports: list[Port], listed: list[dict]) -> list[str]:
    found = {row["name"]: seen_value(row) for row in listed}
    return [
        f"{name}: {found.get(name)!r}, not {value!r}, {port.tags[name][0]}"
        for port in ports
        for name, value in port.shown_tags().items()
        if found.get(name) != value or name not in found
    ]


def assert_same_tags(ports: list[Port], tags) -> None:
    different = differences(ports, tags.list())
    assert not different, f"{len(different)} tags differ:\n" + "\n".join(different[:20])


def assert_same_diagnostics(gateway, number: int, model: Port) -> None:
    wait_for_counters(gateway, number, model)
    wanted = model.shown_results()
    wait_until(
        lambda: gateway.diagnose(number)["transactionList"] == wanted, 5, f"results of {number}"
    )


def both_ports(make) -> list[Row]:
    return [device(name, *make(port), port=port) for port, name in ((1, "one"), (2, "two"))]


# Received ----------------------------------------------------------------------------------------

ROUNDS = 10


def consumers(rng, port: int) -> list[Row]:
    """The first one takes the number of the round and tells that the others have been taken."""
    found = [consume("round", frame(0x7F5, 4, tag("number", U32)))]
    for place, can_id in enumerate(identifiers(rng, port)):
        found.append(consume(f"x{place}", random_frame(rng, can_id, "ro")))
    return found


def test_received_frames_become_the_values_of_the_model(gateway, bus, tags):
    for seed in seeds():
        with reproducible(seed) as rng:
            devices = both_ports(lambda port: consumers(rng, port))
            stop(gateway)
            gateway.configure(*devices, sql=EXTENDED_SECOND)
            gateway.start()
            models = [Port(transactions_of(devices, port)) for port in (1, 2)]
            nodes = [bus(name) for name in lane.PORTS]
            for number in range(1, ROUNDS + 1):
                for port, model in enumerate(models):
                    receive_round(rng, number, nodes[port], model, extended=port == 1)
                for name in ("one", "two"):
                    tags.wait_for(block_tag(name, "round", "number"), number, 10)
                assert_same_tags(models, tags)
            for port, model in enumerate(models, 1):
                assert_same_diagnostics(gateway, port, model)


def receive_round(rng, number: int, node, model: Port, *, extended: bool) -> None:
    """One frame for every consumer in any order, the round's number last."""
    wanted = [receiver.frame for receiver in model.lists["consume"][1:]]
    rng.shuffle(wanted)
    messages = [(item.can_id, random_answer(rng, item)) for item in wanted]
    for can_id, data in [*messages, (0x7F5, number.to_bytes(4, "little"))]:
        node.send(can_id, data, extended=extended)
        model.receive(can_id, data)
    model.settle()


# Sent --------------------------------------------------------------------------------------------

PROTECTED = 160  # of those on a port
WRITES = 40
FAULT_MS = 1200


def producers(rng, port: int) -> list[Row]:
    """On change, all answering remote frames, the first ones with fault values."""
    found = []
    for place, can_id in enumerate(identifiers(rng, port)):
        protection = rng.choice((1, 2, 2, 2)) if place < PROTECTED else 0
        found.append(
            produce(
                f"x{place}",
                random_frame(rng, can_id, "wo"),
                trigger=ON_CHANGE,
                fpFunc=protection,
                fpTimeout=FAULT_MS,
                triggerByRTR=1,
            )
        )
    return found


def test_sent_frames_carry_the_bytes_of_the_model(gateway, bus, tags):
    for seed in seeds():
        with reproducible(seed) as rng:
            devices = both_ports(lambda port: producers(rng, port))
            models = [Port(transactions_of(devices, port)) for port in (1, 2)]
            stop(gateway)
            gateway.configure(*devices, sql=EXTENDED_SECOND)
            nodes = [bus(name) for name in lane.PORTS]
            gateway.start()
            for node, model in zip(nodes, models):
                assert_fault_values_are_sent(node, model)
            assert_same_tags(models, tags)
            for _ in range(WRITES):
                port = rng.randrange(2)
                write_one(rng, nodes[port], models[port], tags)
            for port, model in enumerate(models):
                assert_every_remote_frame_is_answered(rng, nodes[port], model, extended=port == 1)
                assert_same_diagnostics(gateway, port + 1, model)
            assert_same_tags(models, tags)


def next_frames(node, count: int) -> list[tuple[int, bytes]]:
    found = []
    while len(found) < count:
        message = node.receive(scaled(10))
        assert message is not None, f"{len(found)} of {count} frames: {found[-5:]}"
        found.append((message.arbitration_id, bytes(message.data)))
    return found


def assert_fault_values_are_sent(node, model: Port) -> None:
    """Once for each protected transaction; which of them is due first is up to the clock."""
    wanted = {item.can_id: item.data for item in model.run(FAULT_MS + 2000)}
    assert len(wanted) == PROTECTED
    found = next_frames(node, PROTECTED)
    assert len(dict(found)) == PROTECTED
    assert dict(found) == wanted


def random_number(rng, item: codec.Tag):
    if item.kind not in codec.LAYOUTS:
        return rng.randbytes(item.size)
    if item.kind in codec.REAL:
        return float(rng.randint(-1000, 1000)) / 8
    return codec.cut_integer(rng.getrandbits(64), item.kind)


def write_one(rng, node, model: Port, tags) -> None:
    """Write a tag that has no fault protection, which would write it back one day."""
    sender = rng.choice([s for s in model.lists["produce-on-change"] if not s.protected])
    item = rng.choice(sender.frame.tags)
    name = sender.transaction.tag_name(item)
    number = random_number(rng, item)
    tags.set(name, codec.said(item, number))
    model.write(name, number)
    wanted = [(message.can_id, message.data) for message in model.settle()]
    assert next_frames(node, len(wanted)) == wanted, f"{name} = {number!r}, {sender.frame}"


def assert_every_remote_frame_is_answered(rng, node, model: Port, *, extended: bool) -> None:
    """In the order of asking, with what the buffers hold by now."""
    asked = list(model.answered_by)
    rng.shuffle(asked)
    for can_id in asked:
        node.send_remote(can_id, rng.randint(0, 8), extended=extended)
        model.receive(can_id, b"", remote=True)
        wanted = [(message.can_id, message.data) for message in model.settle()]
        assert next_frames(node, 1) == wanted, model.answered_by[can_id].frame
    assert not node.drain()
