"""Set messages: what is written, what is refused, and what their sender hears of it."""

import json

import pytest

from kt_system.lane import wait_until
from kt_system.mqtt import PREFIX, STATISTICS, STATUS, tag_topic

TARGET = "can_proprietary/drive/command_target"
SPEED = "can_proprietary/drive/state_speed"


@pytest.fixture
def process(provider):
    return provider(
        f"{TARGET}:6:2:wo", f"{SPEED}:6:2:ro", "raw:13:3:wo", "real:10:8:wo", "big:8:8:wo"
    )


@pytest.fixture
def running(process, bridge, subscribe):
    """A subscriber to everything of a bridge that is online."""
    bridge()
    subscriber = subscribe(f"{PREFIX}/#")
    subscriber.wait(STATUS, {"state": "online"})
    # What comes after the birth is the subscription to set topics; values come behind it.
    subscriber.wait_value(TARGET, lambda _: True)
    return subscriber


def set_topic(name: str) -> str:
    return f"{tag_topic(name)}/set"


@pytest.mark.parametrize(
    "name, payload, digits, value",
    [
        (TARGET, "1500", "DC05", 1500),
        (TARGET, '{"value": 1501, "id": "x"}', "DD05", 1501),
        (TARGET, "0x10\n", "1000", 16),
        (TARGET, "12.0", "0C00", 12),
        ("raw", "01abFF", "01ABFF", "01ABFF"),
        ("raw", '{"value":"0A0B0C"}', "0A0B0C", "0A0B0C"),
        ("real", '{"value":-2.5e0}', "00000000000004C0", -2.5),
        ("big", "18446744073709551615", "FFFFFFFFFFFFFFFF", 18446744073709551615),
    ],
)
def test_a_set_message_writes_the_tag(process, running, mqtt, name, payload, digits, value):
    mqtt.publish(set_topic(name), payload)
    result = running.wait_result(name, {"outcome": "accepted"})
    assert list(result) == ["id", "outcome", "reason", "timestamp"] and result["reason"] == ""
    assert result["id"] == ("x" if '"x"' in payload else None)
    process.wait_taken(name, digits)
    running.wait_value(name, {"value": value})
    assert not running.last(f"{tag_topic(name)}/result").retained


def test_refusals_say_why_and_write_nothing(process, running, mqtt):
    refused = [
        (TARGET, '{"value":70000,"id":7}', "'70000' is out of range for uint16 (0 to 65535)"),
        (TARGET, '{"value":"fast","id":"a"}', "'fast' is not an integer (decimal or 0x)"),
        (SPEED, '{"value":1,"id":"b"}', "tag is read-only"),
        ("unknown/tag", '{"value":1,"id":"c"}', "unknown tag"),
        ("raw", '{"value":"01","id":"d"}',
         "'01': the tag has 3 raw bytes, give 6 hexadecimal digits"),
        (TARGET, '{"id":"e"}', '"value" is missing'),
    ]
    for name, payload, reason in refused:
        mqtt.publish(set_topic(name), payload)
        wanted = {"id": json.loads(payload)["id"], "outcome": "refused", "reason": reason}
        running.wait_result(name, wanted)
    assert process.taken == []


HOSTILE = [
    b"", b" ", b"{", b"[", b"{}", b"[[[[[[[[", b'{"value":{"value":1}}', b'{"value":1}{"value":2}',
    b'{"value":1,"value":2}', b"\x00", b"\xff\xfe", b"\xed\xa0\x80", b"1\x00", b"1" * 5000,
    b'{"value":' * 500, b'"\\ud800"', b'{"id":' + b'"i"' * 100 + b"}", b"%s%n%x",
    b"../../etc/passwd", b"1e999", b"-", b"0x", b"NaN", b"null", b"true", b"\xe2\x80\xae1", b"'; DROP TABLE block; --",
]


def test_malformed_and_hostile_payloads_change_nothing(process, running, mqtt):
    for payload in HOSTILE:
        mqtt.publish(set_topic(TARGET), payload)
    results = f"{tag_topic(TARGET)}/result"

    def refusals():
        found = [m.json for m in running.of(results)]
        assert {content["outcome"] for content in found} <= {"refused"}, found
        assert all(content["reason"] for content in found), found
        return found

    # An empty message is what takes a retained one away, and is refused like the others.
    wait_until(lambda: len(refusals()) == len(HOSTILE), what=lambda: refusals())
    mqtt.publish(set_topic(TARGET), "77")
    process.wait_taken(TARGET, "4D00")
    assert process.taken == [(TARGET, "4D00")]


def test_hostile_topics_change_nothing(process, running, mqtt):
    for topic in ("/set", "//set", "/%00/set", "/%/set", "/%zz/set", "/" + "x" * 400 + "/set",
                  "/" + "a/" * 40 + "set", f"/{TARGET}/result", f"/{TARGET}", f"/{TARGET}/set/set"):
        mqtt.publish(f"{PREFIX}/tags{topic}", "1")
    mqtt.publish(set_topic(TARGET), "78")
    process.wait_taken(TARGET, "4E00")
    assert process.taken == [(TARGET, "4E00")]


def test_a_retained_set_message_is_never_executed(process, bridge, mqtt, subscribe):
    mqtt.publish(set_topic(TARGET), '{"value":666,"id":"old"}', "--retain")
    subscriber = subscribe(f"{PREFIX}/#")
    bridge()
    result = subscriber.wait_result(TARGET, {"id": "old"})
    assert result["outcome"] == "refused"
    assert result["reason"] == "retained message: send it without the retain flag"
    mqtt.publish(set_topic(TARGET), "5")
    process.wait_taken(TARGET, "0500")
    assert process.taken == [(TARGET, "0500")]
    assert {content["value"] for content in subscriber.values(TARGET)} <= {0, 5}


def test_the_retained_copy_of_a_write_is_not_executed_again(process, bridge, mqtt, subscribe):
    """Sent with the retain flag while the bridge listens it is a write, at the next start none."""
    first = bridge()
    subscriber = subscribe(f"{PREFIX}/#")
    subscriber.wait_value(TARGET, lambda _: True)
    mqtt.publish(set_topic(TARGET), '{"value":9,"id":"once"}', "--retain")
    subscriber.wait_result(TARGET, {"id": "once"})
    process.wait_taken(TARGET, "0900")
    assert first.stop() == 0
    bridge()
    subscriber.wait_result(TARGET, {"id": "once", "outcome": "refused"})
    mqtt.publish(set_topic(TARGET), "10")
    process.wait_taken(TARGET, "0A00")
    assert process.taken == [(TARGET, "0900"), (TARGET, "0A00")]


def test_of_many_writes_the_last_one_counts_and_each_gets_its_outcome(process, running, mqtt):
    count = 200  # results that fit into the queue on the slowest machine
    lines = [json.dumps({"value": number, "id": number}) for number in range(1, count + 1)]
    mqtt.publish_lines(set_topic(TARGET), lines)
    results = f"{tag_topic(TARGET)}/result"
    wait_until(lambda: len(running.of(results)) == count, 10.0, lambda: running.of(results)[-3:])
    outcomes = {m.json["id"]: m.json["outcome"] for m in running.of(results)}
    assert set(outcomes) == set(range(1, count + 1))
    assert set(outcomes.values()) <= {"accepted", "superseded"} and outcomes[count] == "accepted"
    process.wait_taken(TARGET, count.to_bytes(2, "little").hex().upper())
    assert process.taken[-1] == (TARGET, count.to_bytes(2, "little").hex().upper())
    running.wait_value(TARGET, {"value": count})
    accepted = list(outcomes.values()).count("accepted")
    running.wait(STATISTICS, {"writesAccepted": accepted, "writesSuperseded": count - accepted})


def test_writes_of_a_service_that_is_gone_are_refused(process, running, mqtt):
    process.kill()
    running.wait_value(TARGET, {"quality": "bad", "reason": "service_down"})
    mqtt.publish(set_topic(TARGET), '{"value":1,"id":"late"}')
    result = running.wait_result(TARGET, {"id": "late"})
    assert result["outcome"] == "refused" and result["reason"]
