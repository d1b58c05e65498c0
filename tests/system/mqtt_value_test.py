"""What a subscriber sees of tags: values, types, names, the bridge's own state."""

import re
import subprocess

import pytest

from kt_system import lane
from kt_system.lane import scaled, wait_until
from kt_system.mqtt import PREFIX, STATISTICS, STATUS, tag_topic

TIME = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z")
SPEED = "can_proprietary/drive/state_speed"


def test_a_value_is_retained_with_everything_that_belongs_to_it(provider, bridge, mqtt, subscribe):
    process = provider(f"{SPEED}:6:2:ro")
    bridge()
    early = subscribe(tag_topic(SPEED))
    process.write(SPEED, "0000")
    process.write(SPEED, "DC05")
    seen = early.wait_value(SPEED, {"value": 1500})
    assert list(seen) == ["value", "type", "quality", "reason", "timestamp", "sequence"]
    assert seen["type"] == "uint16" and seen["quality"] == "good" and seen["reason"] == ""
    assert TIME.fullmatch(seen["timestamp"]) and isinstance(seen["sequence"], int)
    kept = mqtt.retained(tag_topic(SPEED))
    assert kept.retained and kept.json == seen


def test_values_of_all_types(provider, bridge, subscribe):
    digits = {
        1: ("80", "-128"), 2: ("FF7F", "32767"), 3: ("00000080", "-2147483648"),
        4: ("0000000000000080", "-9223372036854775808"), 5: ("FF", "255"), 6: ("FFFF", "65535"),
        7: ("FFFFFFFF", "4294967295"), 8: ("FFFFFFFFFFFFFFFF", "18446744073709551615"),
        9: ("0000C03F", "1.5"), 10: ("9A9999999999B93F", "0.1"), 13: ("01ABFF", '"01ABFF"'),
    }
    sizes = {kind: len(text) // 2 for kind, (text, _) in digits.items()}
    process = provider(*(f"t{kind}:{kind}:{size}:ro" for kind, size in sizes.items()))
    for kind, (text, _) in digits.items():
        process.write(f"t{kind}", text)
    process.tell("add nan:9:4:ro")
    process.write("nan", "0000C07F")
    bridge()
    subscriber = subscribe(f"{PREFIX}/tags/#")
    for kind, (_, wanted) in digits.items():
        subscriber.wait_value(f"t{kind}", lambda _: True)
        payload = subscriber.last(tag_topic(f"t{kind}")).payload.decode()
        assert payload.startswith('{"value":' + wanted + ',"type":"'), payload
    assert subscriber.wait_value("nan", {"value": "NaN"})["type"] == "float"


def test_names_of_any_bytes_have_a_topic(provider, bridge, mqtt, subscribe):
    names = {
        b"a+b#c%d": "a%2Bb%23c%25d", "Größe/m²".encode(): "Größe/m²", b"bad\xff\x01": "bad%FF%01",
        b"x/set": "x/%73et", b"result": "%72esult", b"/a//b": "/a//b",
        b"/".join([b"l"] * 20): "/".join(["l"] * 16) + "%2Fl" * 4,
    }
    process = provider(*(name + b":5:1:wo" for name in names))
    bridge()
    subscriber = subscribe(f"{PREFIX}/tags/#")
    for topic in names.values():
        subscriber.wait_value(topic, {"value": 0})
    for number, (name, topic) in enumerate(names.items(), 1):
        mqtt.publish(f"{tag_topic(topic)}/set", str(number))
        subscriber.wait_result(topic, {"outcome": "accepted"})
        text = name.decode(errors="replace")
        wait_until(lambda: (text, f"{number:02X}") in process.taken, what=lambda: process.taken)


def test_changes_come_in_order_and_the_last_one_stays(provider, bridge, mqtt, subscribe):
    process = provider(f"{SPEED}:8:8:ro")
    bridge()
    subscriber = subscribe(tag_topic(SPEED))
    subscriber.wait_value(SPEED, {"value": 0})
    for number in range(1, 201):
        process.write(SPEED, number.to_bytes(8, "little").hex())
    subscriber.wait_value(SPEED, {"value": 200})
    seen = [content["value"] for content in subscriber.values(SPEED)]
    assert seen == sorted(set(seen)) and seen[-1] == 200
    assert mqtt.retained(tag_topic(SPEED)).json["value"] == 200


@pytest.mark.slow
def test_new_tags_come_and_removed_ones_are_taken_back(provider, bridge, mqtt, subscribe):
    process = provider("plc/a:5:1:ro", "plc/stays:5:1:ro")
    bridge(discovery="homeassistant")
    subscriber = subscribe(f"{PREFIX}/tags/#", "homeassistant/#")
    subscriber.wait_value("plc/a", {"value": 0})
    (config,) = [m.topic for m in subscriber.messages if "/plc_a_" in m.topic]
    process.tell("add plc/b:6:2:ro")
    process.write("plc/b", "0700")
    subscriber.wait_value("plc/b", {"value": 7})
    process.tell("remove plc/a")
    wait_until(
        lambda: subscriber.last(tag_topic("plc/a")).payload == b"", 15.0, "the tag to be taken back"
    )
    assert subscriber.of(tag_topic("plc/a"))[-2].json["quality"] == "bad"
    wait_until(lambda: subscriber.last(config).payload == b"", 5.0, "the entity to be taken back")
    assert mqtt.retained(tag_topic("plc/a")) is None and mqtt.retained(config) is None


def test_birth_stop_and_last_will(provider, bridge, mqtt, subscribe):
    provider("a:5:1:ro")
    first = bridge()
    subscriber = subscribe(STATUS)
    born = subscriber.wait(STATUS, {"state": "online"})
    assert list(born) == ["state", "version", "timestamp"] and TIME.fullmatch(born["timestamp"])
    assert mqtt.retained(STATUS).json == born
    assert first.stop() == 0
    stopped = subscriber.wait(STATUS, {"state": "offline"})
    assert stopped["reason"] == "stopped" and TIME.fullmatch(stopped["timestamp"])
    second = bridge()
    wait_until(lambda: subscriber.last(STATUS).json["state"] == "online")
    second.kill()
    died = {"state": "offline", "reason": "connection lost"}
    wait_until(lambda: subscriber.last(STATUS).json == died, 10.0)
    assert mqtt.retained(STATUS).json == died


def test_counters_are_published(provider, bridge, subscribe):
    process = provider(f"{SPEED}:6:2:ro")
    bridge()
    subscriber = subscribe(STATISTICS)
    subscriber.wait(STATISTICS, {"tags": 1})
    process.write(SPEED, "0100")
    seen = subscriber.wait(STATISTICS, lambda content: content["tagChanges"] >= 1)
    assert seen["tags"] == 1 and seen["connects"] == 1 and seen["serviceAlive"] == 1
    assert seen["writesAccepted"] == seen["writesRefused"] == seen["eventsDropped"] == 0


def test_mqtt_3_1_1_and_every_qos(provider, bridge, subscribe):
    process = provider(f"{SPEED}:6:2:ro")
    subscriber = subscribe(tag_topic(SPEED))
    for number, (protocol, qos) in enumerate([("3.1.1", 0), ("3.1.1", 2), ("5", 0), ("5", 2)], 1):
        running = bridge(protocol=protocol, qos=qos)
        process.write(SPEED, number.to_bytes(2, "little").hex())
        subscriber.wait_value(SPEED, {"value": number})
        assert running.stop() == 0


def test_the_settings_can_be_checked_without_a_broker(tmp_path, gateway):
    file = tmp_path / "conf"

    def check():
        return subprocess.run(
            [lane.program("kt-dx-mqtt"), "--config", str(file), "--check"],
            env=gateway.environment,
            capture_output=True,
            text=True,
            timeout=scaled(10),
        )

    file.write_text("broker_host = nowhere.invalid\n")
    assert check().returncode == 0
    file.write_text("# ours\nqos = 7\n")
    result = check()
    assert result.returncode == 1
    assert result.stderr == f"kt-dx-mqtt: {file}:2: qos: must be a number from 0 to 2\n"


def test_home_assistant_finds_the_tags(provider, bridge, mqtt, subscribe):
    target = "can_proprietary/drive/command_target"
    process = provider(f"{SPEED}:6:2:ro", f"{target}:2:2:wo", "plc/x:13:3:wo")
    bridge(discovery="homeassistant")
    subscriber = subscribe("homeassistant/#")
    wait_until(lambda: len(subscriber.messages) >= 3, what=lambda: subscriber.messages)
    found = {message.topic.split("/")[1]: message for message in subscriber.messages}
    assert set(found) == {"sensor", "number", "text"}
    assert found["sensor"].json["state_topic"] == tag_topic(SPEED)
    number = found["number"].json
    assert (number["min"], number["max"]) == (-32768, 32767)
    mqtt.publish(number["command_topic"], "-5")
    wait_until(lambda: (target, "FBFF") in process.taken)


@pytest.mark.slow
def test_what_the_broker_kept_of_tags_that_are_no_more_is_taken_back(
    provider, bridge, mqtt, subscribe
):
    kept = (
        '{"value":18446744073709551615,"type":"uint64","quality":"good","reason":"",'
        '"timestamp":"2026-01-31T12:00:00.250Z","sequence":7}'
    )
    mqtt.publish(tag_topic("plc/old"), kept, "--retain")
    mqtt.publish(tag_topic("plc/garbage"), b"\xff{", "--retain")
    provider("plc/stays:5:1:ro")
    subscriber = subscribe(f"{PREFIX}/tags/#")
    bridge()
    for name in ("plc/old", "plc/garbage"):
        wait_until(
            lambda name=name: subscriber.last(tag_topic(name)).payload == b"", 20.0, lambda: name
        )
        assert mqtt.retained(tag_topic(name)) is None
    assert mqtt.retained(tag_topic("plc/stays")) is not None
