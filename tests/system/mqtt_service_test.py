"""The bridge beside the service: what a subscriber sees of devices and their faults."""

import socket
import threading

import pytest

from kt_system.lane import scaled, wait_until
from kt_system.mqtt import EVENTS, PREFIX, STATUS, tag_topic
from kt_system.rows import (
    FAULT_VALUE,
    ON_CHANGE,
    U16,
    consume,
    device,
    frame,
    produce,
    request,
    tag,
)

SPEED = "can_proprietary/drive/state_speed"
STATE = "can_proprietary/drive/status"
TARGET = "can_proprietary/drive/command_target"
LIMIT = "can_proprietary/drive/limit_max"
DIAGNOSTICS = f"{PREFIX}/diagnostics/1"
SILENCE_MS = int(scaled(1000))  # time for the bridge to see a value while it is good


def drive(**command):
    return device(
        "drive",
        consume("state", frame(0x181, 2, tag("speed", U16)), timeout=SILENCE_MS),
        produce(
            "command",
            frame(0x201, 2, tag("target", U16, access="wo", fpData="CDAB")),
            trigger=ON_CHANGE,
            **command,
        ),
        request(
            "limit",
            frame(0x301, 2, tag("max", U16, access="wo")),
            frame(0x302, 2, tag("echo", U16)),
            trigger=ON_CHANGE,
            timeout=int(scaled(1000)),
        ),
    )


@pytest.fixture
def rest_url(gateway):
    return f"http://{gateway.rest_address}/CAN-proprietary"


@pytest.fixture
def plant(gateway, bridge, subscribe, rest_url):
    """The service with one device, the bridge, and a subscriber to everything."""
    gateway.configure(drive())
    gateway.start()
    bridge(rest_url=rest_url)
    subscriber = subscribe(f"{PREFIX}/#")
    subscriber.wait_value(STATE, lambda _: True)
    return subscriber


@pytest.fixture
def talk(bus):
    """talk(): the drive sends its speed every 50 ms until the test ends or it is told to stop."""
    ended = threading.Event()
    threads = []

    def start() -> threading.Event:
        node = bus()

        def run():
            while not ended.wait(0.05):
                node.send(0x181, "DC05")

        threads.append(threading.Thread(target=run, daemon=True))
        threads[-1].start()
        return ended

    yield start
    ended.set()
    for thread in threads:
        thread.join()


def never_good_again(subscriber, name: str, since: str) -> None:
    """After the first message that is not good, none of the same time says good."""
    values = [content for content in subscriber.values(name) if content["timestamp"] == since]
    qualities = [content["quality"] for content in values]
    first_bad = qualities.index("bad")
    assert "good" not in qualities[first_bad:], values


def wait_fresh(subscriber) -> dict:
    """The value that the bridge finds when the service has come again."""

    def fresh():
        values = subscriber.values(SPEED)
        down = max(i for i, value in enumerate(values) if value["reason"] == "service_down")
        return next((v for v in values[down:] if v["reason"] == "no_frame_yet"), None)

    return wait_until(fresh, 10.0, lambda: subscriber.values(SPEED)[-10:])


def test_a_value_from_its_first_frame_to_the_silence_of_its_device(plant, bus):
    before = plant.wait_value(SPEED, lambda _: True)
    # A device that has not said a word times out, too: on a slow machine before the bridge looks.
    assert (before["quality"], before["reason"]) in (
        ("uncertain", "no_frame_yet"),
        ("bad", "device_timeout"),
    )
    node = bus()
    node.send(0x181, "DC05")
    live = plant.wait_value(SPEED, {"value": 1500, "quality": "good"})
    assert plant.wait_value(STATE, {"value": 0})["quality"] == "good"
    late = plant.wait_value(SPEED, {"quality": "bad", "value": 1500})
    assert late["reason"] == "device_timeout"
    assert late["timestamp"] == live["timestamp"] and late["sequence"] == live["sequence"]
    never_good_again(plant, SPEED, live["timestamp"])
    plant.wait_value(STATE, {"value": -0x7FFFFFFF, "quality": "good"})
    node.send(0x181, "DD05")
    again = plant.wait_value(SPEED, {"value": 1501})
    assert again["quality"] == "good" and again["timestamp"] > live["timestamp"]


def test_a_silence_shows_within_one_consume_timeout(plant, bus):
    """From the service's own status tag on: what the service has not noticed nobody can know."""
    bus().send(0x181, "DC05")
    plant.wait_value(SPEED, {"quality": "good"})
    plant.wait_value(STATE, {"value": -0x7FFFFFFF}, 5.0)
    plant.wait_value(SPEED, {"reason": "device_timeout"}, SILENCE_MS / 1000)


def test_the_service_is_killed_and_started_again(gateway, plant, bus, mqtt):
    bus().send(0x181, "DC05")
    live = plant.wait_value(SPEED, {"value": 1500, "quality": "good"})
    gateway.kill()
    down = plant.wait_value(SPEED, {"reason": "service_down"})
    assert down["quality"] == "bad" and down["value"] == 1500
    assert down["timestamp"] == live["timestamp"]
    never_good_again(plant, SPEED, live["timestamp"])
    assert plant.wait_value(STATE, {"reason": "service_down"})["quality"] == "bad"
    assert mqtt.retained(tag_topic(SPEED)).json["quality"] == "bad"
    assert plant.last(STATUS).json["state"] == "online"
    gateway.start()
    fresh = wait_fresh(plant)
    assert fresh["value"] == 0 and fresh["quality"] == "uncertain"
    bus().send(0x181, "DE05")
    assert plant.wait_value(SPEED, {"value": 1502})["quality"] == "good"


def test_the_service_is_restarted(gateway, plant, bus):
    bus().send(0x181, "DC05")
    plant.wait_value(SPEED, {"quality": "good"})
    gateway.stop()
    plant.wait_value(SPEED, {"quality": "bad", "reason": "service_down", "value": 1500})
    gateway.start()
    wait_fresh(plant)
    bus().send(0x181, "DF05")
    assert plant.wait_value(SPEED, {"value": 1503})["quality"] == "good"


def test_the_file_of_the_tag_store_is_deleted(gateway, plant, bus, mqtt):
    """Service and bridge go on with what they have mapped; a new store replaces it."""
    gateway.path("/run/kt-dx/tags").unlink()
    bus().send(0x181, "E005")
    assert plant.wait_value(SPEED, {"value": 1504})["quality"] == "good"
    gateway.kill()
    plant.wait_value(SPEED, {"value": 1504, "reason": "service_down"}, 10.0)
    gateway.start()
    wait_fresh(plant)
    bus().send(0x181, "E105")
    assert plant.wait_value(SPEED, {"value": 1505}, 10.0)["quality"] == "good"
    mqtt.publish(f"{tag_topic(TARGET)}/set", "7")
    plant.wait_value(TARGET, {"value": 7})


def test_a_write_goes_out_on_the_bus(plant, bus, mqtt):
    node = bus()
    mqtt.publish(f"{tag_topic(TARGET)}/set", '{"value":1500,"id":"a1"}')
    node.expect(0x201, "DC05")
    plant.wait_result(TARGET, {"id": "a1", "outcome": "accepted"})
    assert plant.wait_value(TARGET, {"value": 1500})["quality"] == "good"


def test_a_request_tells_its_outcome(plant, bus, mqtt):
    plant.wait(DIAGNOSTICS, lambda _: True, 10.0)  # the configuration is known by then
    node = bus()
    mqtt.publish(f"{tag_topic(LIMIT)}/set", '{"value":7,"id":"answered"}')
    node.expect(0x301, "0700")
    node.send(0x302, "0700")
    plant.wait_result(LIMIT, {"id": "answered", "outcome": "accepted"})
    plant.wait_result(LIMIT, {"id": "answered", "outcome": "completed"}, 10.0)
    mqtt.publish(f"{tag_topic(LIMIT)}/set", '{"value":8,"id":"silent"}')
    node.expect(0x301, "0800")
    plant.wait_result(LIMIT, {"id": "silent", "outcome": "timed_out"}, 10.0)
    assert not [m for m in plant.of(f"{tag_topic(LIMIT)}/result")
                if m.json["id"] == "silent" and m.json["outcome"] == "completed"]


def test_a_value_that_nobody_refreshes_comes_under_fault_protection(
    gateway, bridge, subscribe, mqtt, bus, rest_url
):
    gateway.configure(drive(fpFunc=FAULT_VALUE, fpTimeout=int(scaled(1000))))
    gateway.start()
    bridge(rest_url=rest_url)
    subscriber = subscribe(f"{PREFIX}/#")
    subscriber.wait(DIAGNOSTICS, lambda _: True, 10.0)  # the configuration is known by then
    node = bus()
    mqtt.publish(f"{tag_topic(TARGET)}/set", "1500")
    node.expect(0x201, "DC05")
    subscriber.wait_value(TARGET, {"value": 1500, "quality": "good"})
    node.expect(0x201, "CDAB")
    fault = subscriber.wait_value(TARGET, {"reason": "fault_protection"})
    assert fault["quality"] == "bad" and fault["value"] == 0xABCD
    mqtt.publish(f"{tag_topic(TARGET)}/set", "1501")
    assert subscriber.wait_value(TARGET, {"value": 1501})["quality"] == "good"


def test_events_and_diagnostics(plant, bus):
    bus().send(0x181, "DC05")
    event = plant.wait(EVENTS, {"name": "CAN Proprietary:Transaction Timeout"})
    assert event["message"] == "drive/state transaction timeout"
    assert list(event) == ["name", "host", "message", "timestamp"]
    seen = plant.wait(DIAGNOSTICS, lambda content: content["rxCount"] >= 1, 10.0)
    assert seen["port"] == 1 and "timestamp" in seen
    names = {entry["transactionName"] for entry in seen["transactionList"]}
    assert names == {"state", "command", "limit"}
    assert plant.wait(f"{PREFIX}/diagnostics/2", {"port": 2})


@pytest.fixture(params=["nobody listens", "nobody answers"])
def deaf_address(request):
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        if request.param == "nobody answers":
            listener.listen()
        yield f"127.0.0.1:{listener.getsockname()[1]}"


def test_without_the_rest_api_values_come_all_the_same(
    gateway, bridge, subscribe, bus, deaf_address
):
    gateway.configure(drive())
    gateway.start()
    bridge(rest_url=f"http://{deaf_address}/CAN-proprietary")
    subscriber = subscribe(f"{PREFIX}/#")
    subscriber.wait_value(SPEED, lambda _: True)
    bus().send(0x181, "DC05")
    subscriber.wait_value(SPEED, {"value": 1500, "quality": "good"})
    subscriber.wait_value(SPEED, {"value": 1500, "reason": "device_timeout"})
    assert not subscriber.of(DIAGNOSTICS)


def test_a_token_opens_the_rest_api(gateway, bridge, subscribe, tmp_path, rest_url):
    token = tmp_path / "token"
    token.write_text("open-sesame\n")
    token.chmod(0o600)
    gateway.configure(drive())
    gateway.start(environment={"KT_REST_TOKEN_FILE": str(token)})
    running = bridge(rest_url=rest_url, rest_token_file=token)
    subscribe(f"{PREFIX}/#").wait(DIAGNOSTICS, {"port": 1}, 10.0)
    assert "open-sesame" not in "\n".join(running.errors)


def test_the_bridge_starts_before_the_service(gateway, bridge, subscribe, bus, rest_url):
    gateway.configure(drive())
    running = bridge(rest_url=rest_url)
    subscriber = subscribe(f"{PREFIX}/#")
    subscriber.wait(STATUS, {"state": "online"})
    running.wait_logged("no tag store: waiting for the service")
    gateway.start()
    subscriber.wait_value(SPEED, {"reason": "no_frame_yet"})
    bus().send(0x181, "DC05")
    subscriber.wait_value(SPEED, {"value": 1500, "quality": "good"})


def test_a_bridge_that_was_killed_leaves_no_live_value_behind(
    gateway, bridge, mqtt, subscribe, talk
):
    """The status says offline, and the next bridge corrects what the broker kept."""
    gateway.configure(drive())
    gateway.start()
    first = bridge()
    subscriber = subscribe(f"{PREFIX}/#")
    talk()
    subscriber.wait_value(SPEED, {"value": 1500, "quality": "good"})
    first.kill()
    subscriber.wait(STATUS, {"state": "offline", "reason": "connection lost"}, 10.0)
    gateway.kill()
    left = mqtt.retained(tag_topic(SPEED)).json
    assert left["quality"] == "good"
    bridge()
    corrected = {**left, "quality": "bad", "reason": "service_down"}
    subscriber.wait_value(SPEED, corrected, 15.0)
    assert mqtt.retained(tag_topic(SPEED)).json == corrected
    assert mqtt.retained(STATUS).json["state"] == "online"
