"""The gateway as an edge node of Sparkplug B, as a host application sees it."""

import struct
from typing import NamedTuple

import pytest

from kt_system.lane import scaled, wait_until
from kt_system.mqtt import STATUS, Message, tag_topic
from kt_system.rows import ON_CHANGE, I16, U16, consume, device, frame, produce, tag

NODE = {"sparkplug": "on", "sparkplug_group": "plant", "sparkplug_node": "gw"}
GOOD, BAD, STALE = 192, 0, 500


# Payloads -----------------------------------------------------------------------------------------


def varint(number: int) -> bytes:
    out = b""
    while number > 0x7F:
        out += bytes([number & 0x7F | 0x80])
        number >>= 7
    return out + bytes([number])


def fields(data: bytes) -> list[tuple[int, int | bytes]]:
    """Field numbers of a message with their raw values: numbers or bytes."""

    def take_varint() -> int:
        nonlocal at
        number = shift = 0
        while True:
            byte = data[at]
            at += 1
            number |= (byte & 0x7F) << shift
            if byte < 0x80:
                return number
            shift += 7

    found, at = [], 0
    while at < len(data):
        key = take_varint()
        length = {0: None, 1: 8, 5: 4}.get(key & 7, 0)
        if length is None:
            found.append((key >> 3, take_varint()))
            continue
        length = length or take_varint()
        found.append((key >> 3, data[at : at + length]))
        at += length
    return found


class Metric(NamedTuple):
    name: str | None
    alias: int | None
    datatype: int | None
    timestamp: int | None
    null: bool
    value: int | float | bytes | None
    quality: int | None


def metric_of(data: bytes) -> Metric:
    found = dict(fields(data))
    quality = None
    if 9 in found:
        parts = fields(found[9])
        keys = [value.decode() for number, value in parts if number == 1]
        values = [dict(fields(value)) for number, value in parts if number == 2]
        quality = dict(zip(keys, values))["Quality"].get(3, 0)
    value = next((found[number] for number in range(10, 17) if number in found), None)
    if 12 in found:
        (value,) = struct.unpack("<f", found[12])
    if 13 in found:
        (value,) = struct.unpack("<d", found[13])
    name = found[1].decode() if 1 in found else None
    null = bool(found.get(7))
    return Metric(name, found.get(2), found.get(4), found.get(3), null, value, quality)


class Payload(NamedTuple):
    seq: int | None
    metrics: list[Metric]

    def named(self, name: str) -> Metric:
        return next(metric for metric in self.metrics if metric.name == name)


def payload_of(message: Message) -> Payload:
    found = fields(message.payload)
    metrics = [metric_of(value) for number, value in found if number == 2]
    return Payload(dict(found).get(3), metrics)


def command(*, name: str | None = None, alias: int | None = None, value: bytes) -> bytes:
    """A command with one metric; value: its field with its key."""
    metric = b"" if name is None else b"\x0a" + varint(len(name)) + name.encode()
    metric += b"" if alias is None else b"\x10" + varint(alias)
    metric += value
    return b"\x12" + varint(len(metric)) + metric


REBIRTH = command(name="Node Control/Rebirth", value=b"\x20\x0b\x70\x01")


def int_value(number: int) -> bytes:
    return b"\x50" + varint(number % 2**32)


class Host:
    """What a host application hears of one node, every seq judged."""

    def __init__(self, subscriber):
        self.subscriber = subscriber

    def topics(self) -> list[str]:
        return [one.topic.removeprefix("spBv1.0/plant/") for one in self.subscriber.messages]

    def of(self, kind: str) -> list[Payload]:
        topic = f"spBv1.0/plant/{kind}"
        return [payload_of(message) for message in self.subscriber.of(topic)]

    def wait(self, kind: str, count: int = 1, timeout: float = 5.0) -> Payload:
        wait_until(lambda: len(self.of(kind)) >= count, timeout, lambda: f"{kind}: {self.topics()}")
        return self.of(kind)[count - 1]

    def assert_in_sequence(self) -> None:
        expected = None
        for message in self.subscriber.messages:
            kind = message.topic.split("/")[2]
            if kind in ("NDEATH", "NCMD", "DCMD"):
                continue
            seq = payload_of(message).seq
            assert seq == (0 if kind == "NBIRTH" else expected), self.topics()
            expected = (seq + 1) % 256


@pytest.fixture
def host(subscribe):
    listening = Host(subscribe("spBv1.0/#"))
    yield listening
    listening.assert_in_sequence()
    assert not [message for message in listening.subscriber.messages if message.retained]


@pytest.fixture
def drive(gateway, bridge, host, bus):
    """The service with a device that sends and obeys and one that only sends, and its bridge."""
    silence = int(scaled(1000))  # silent before the bridge looks, a sensor would have no birth
    gateway.configure(
        device(
            "drive",
            consume("state", frame(0x181, 2, tag("speed", U16)), timeout=silence),
            produce("command", frame(0x201, 2, tag("target", I16, access="wo")), trigger=ON_CHANGE),
        ),
        device("sensor", consume("state", frame(0x182, 2, tag("level", U16)), timeout=silence)),
    )
    gateway.start()
    return bridge(**NODE)


def test_births_tell_a_host_everything(drive, host):
    node = host.wait("NBIRTH/gw")
    assert node.seq == 0
    assert node.named("bdSeq").datatype == 4 and 0 <= node.named("bdSeq").value <= 255
    assert node.named("Node Control/Rebirth").value == 0
    born = host.wait("DBIRTH/gw/drive")
    assert {metric.name for metric in born.metrics} == {"state_speed", "command_target", "status"}
    speed = born.named("state_speed")
    # Silent for its consume timeout it counts as bad, on a slow machine before the bridge looks.
    assert (speed.datatype, speed.null, speed.quality) in ((6, True, STALE), (6, False, BAD))
    assert len({metric.alias for metric in born.metrics}) == 3


def test_data_comes_by_alias_and_turns_bad_with_its_time_kept(drive, host, bus):
    born = host.wait("DBIRTH/gw/drive")
    alias = born.named("state_speed").alias
    bus().send(0x181, "DC05")

    def seen(quality):
        metrics = [metric for data in host.of("DDATA/gw/drive") for metric in data.metrics]
        return [m for m in metrics if (m.alias, m.value, m.quality) == (alias, 1500, quality)]

    wait_until(lambda: seen(GOOD), what=lambda: host.of("DDATA/gw/drive"))
    assert seen(GOOD)[0].name is None
    wait_until(lambda: seen(BAD), what=lambda: host.of("DDATA/gw/drive"))
    assert seen(BAD)[0].timestamp == seen(GOOD)[0].timestamp


def test_a_silent_device_dies_unless_it_takes_commands(drive, host, bus):
    node = bus()

    def alive() -> bool:
        """Until a host sees its level; without a frame it could die before it has said one."""
        node.send(0x182, "0100")
        told = [*host.of("DBIRTH/gw/sensor"), *host.of("DDATA/gw/sensor")]
        return any((m.value, m.quality) == (1, GOOD) for one in told for m in one.metrics)

    wait_until(alive, what=lambda: host.topics())
    node.send(0x181, "0100")
    deaths = len(host.of("DDEATH/gw/sensor"))
    death = host.wait("DDEATH/gw/sensor", deaths + 1)
    assert death.metrics == []
    births = len(host.of("DBIRTH/gw/sensor"))
    node.send(0x182, "0200")
    born = host.wait("DBIRTH/gw/sensor", births + 1)
    assert (born.named("state_level").value, born.named("state_level").quality) == (2, GOOD)
    assert host.of("DDEATH/gw/drive") == []


def test_the_service_dies_and_comes_back(drive, gateway, host, bus):
    host.wait("DBIRTH/gw/drive")
    gateway.kill()
    death = host.wait("DDEATH/gw/drive")
    assert death.metrics == []
    births = len(host.of("DBIRTH/gw/drive"))
    gateway.start()
    host.wait("DBIRTH/gw/drive", births + 1)
    bus().send(0x181, "DD05")
    wait_until(lambda: any(m.value == 1501 for d in host.of("DDATA/gw/drive") for m in d.metrics))


def test_a_host_may_write_and_ask_for_a_rebirth(drive, host, mqtt, bus):
    born = host.wait("DBIRTH/gw/drive")
    node = bus()
    mqtt.publish(
        "spBv1.0/plant/DCMD/gw/drive",
        command(alias=born.named("command_target").alias, value=int_value(-5)),
    )
    node.expect(0x201, "FBFF")
    mqtt.publish(
        "spBv1.0/plant/DCMD/gw/drive", command(name="command_target", value=int_value(1500))
    )
    node.expect(0x201, "DC05")
    nodes, devices = len(host.of("NBIRTH/gw")), len(host.of("DBIRTH/gw/drive"))
    mqtt.publish("spBv1.0/plant/NCMD/gw", REBIRTH)
    again = host.wait("NBIRTH/gw", nodes + 1)
    assert again.named("bdSeq").value == host.of("NBIRTH/gw")[0].named("bdSeq").value
    target = host.wait("DBIRTH/gw/drive", devices + 1).named("command_target")
    assert (target.value, target.quality) == (1500, GOOD)
    for garbage in (b"\xff\xff", b"{}", b"", b"\x12\x7f", REBIRTH[:-3]):
        mqtt.publish("spBv1.0/plant/NCMD/gw", garbage)
        mqtt.publish("spBv1.0/plant/DCMD/gw/drive", garbage)
    mqtt.publish(
        "spBv1.0/plant/DCMD/gw/drive", command(name="state_speed", value=int_value(1))
    )
    mqtt.publish("spBv1.0/plant/NCMD/gw", REBIRTH)
    assert host.wait("DBIRTH/gw/drive", devices + 2).named("state_speed").value != 1


def test_the_will_of_a_killed_node_is_the_death_of_its_session(provider, bridge, host):
    provider("a:5:1:ro")
    first = bridge(**NODE)
    born = host.wait("NBIRTH/gw")
    first.kill()
    death = host.wait("NDEATH/gw", timeout=10.0)
    assert death.seq is None
    assert death.named("bdSeq").value == born.named("bdSeq").value
    births = len(host.of("NBIRTH/gw"))
    second = bridge(**NODE)
    host.wait("NBIRTH/gw", births + 1)
    assert second.stop() == 0
    ended = host.wait("NDEATH/gw", 2)
    assert ended.named("bdSeq").value == host.of("NBIRTH/gw")[-1].named("bdSeq").value


def test_a_new_session_has_a_number_of_its_own(provider, bridge, broker, mqtt):
    provider("a:5:1:ro")
    bridge(**NODE)

    def numbers(session: int) -> tuple[int, int]:
        """bdSeq of birth, and of births after a rebirth."""
        with mqtt.subscribe("spBv1.0/#") as subscriber:
            host = Host(subscriber)

            def born() -> bool:
                mqtt.publish("spBv1.0/plant/NCMD/gw", REBIRTH)
                return bool(host.of("NBIRTH/gw"))

            wait_until(born, 10.0, f"session {session}")
            return host.of("NBIRTH/gw")[0].named("bdSeq").value

    before = numbers(1)
    broker.kill()
    broker.start()
    assert (numbers(2) - before) % 256 >= 1


def test_sparkplug_comes_beside_the_plain_topics(drive, host, subscribe, bus):
    subscriber = subscribe("plant/gw/#")
    bus().send(0x181, "DC05")
    subscriber.wait_value("can_proprietary/drive/state_speed", {"value": 1500, "quality": "good"})
    assert subscriber.last(STATUS).json["state"] == "online"
    assert subscriber.last(tag_topic("can_proprietary/drive/status")) is not None
