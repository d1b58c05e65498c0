"""An engineer with curl takes an empty gateway to values on tags: a drive and a sensor."""

import json
import subprocess

import pytest

from kt_system import lane
from kt_system.lane import scaled, wait_until
from kt_system.rest import (
    consume_json,
    constant_json,
    frame_json,
    produce_json,
    request_json,
    tag_json,
)
from kt_system.rows import F32, I16, U8, U16, U32
from kt_system.tags import COMMUNICATING, block_tag, status_tag

STATE, COMMAND, POLL, REPLY = 0x181, 0x201, 0x18FF0001, 0x18FF0002
SPEED = block_tag("conveyor-drive", "state", "speed")
TEMPERATURE = block_tag("hall-climate", "poll", "temperature")


@pytest.fixture
def curl(rest, tmp_path):
    """curl(method, path, body): what the terminal shows, as the status and the parsed body."""

    def run(method: str, path: str, body=None, *options: str):
        command = ["curl", "--silent", "--show-error", "--request", method, "--max-time", "30"]
        command += [
            "--output",
            str(tmp_path / "answer"),
            "--write-out",
            "%{http_code} %{content_type}",
        ]
        if body is not None:
            command += ["--header", "Content-Type: application/json", "--data", json.dumps(body)]
        (tmp_path / "answer").write_bytes(b"")
        result = subprocess.run(
            [*command, *options, rest.url(path)],
            capture_output=True,
            text=True,
            check=True,
            timeout=scaled(40),
        )
        status, _, kind = result.stdout.partition(" ")
        content = (tmp_path / "answer").read_bytes()
        return int(status), json.loads(content) if kind == "application/json" else content

    return run


def expect_an_empty_gateway(curl):
    assert curl("GET", "/overview") == (
        200,
        {
            "data": {
                "portNum": 2,
                "portList": [{"portId": n, "deviceNum": 0, "transactionNum": 0} for n in (1, 2)],
            }
        },
    )


def set_the_sensors_port(curl):
    """Another rate, and 29-bit identifiers."""
    port = {
        "frameFormat": 1,
        "baudrate": 5,
        "initialDelay": 0,
        "busOffReset": True,
        "resistor": False,
    }
    assert curl("PATCH", "/interface/2", port) == (200, {"data": port})


def enter_the_drive(curl) -> int:
    """In one request: it reports state cyclically and takes commands. Returns its id."""
    drive = {
        "portId": 1,
        "deviceName": "conveyor-drive",
        "transactionList": [
            consume_json(
                "state",
                frame_json(
                    STATE,
                    tag_json("speed", I16, 0, 2, swap=1),
                    tag_json(
                        "torque", U16, 2, 2, scalingFunc=1, interceptSlope=10, interceptOffset=-5
                    ),
                    tag_json("fault", U8, 7, 1),
                ),
                consumeToutEnable=True,
                consumeTimeout=1000,
            ),
            produce_json(
                "command",
                frame_json(
                    COMMAND,
                    tag_json("target", U32, 0, 4, access="wo"),
                    constant_json("kind", "5A", 7),
                ),
                trigger=1,
            ),
        ],
    }
    status, answer = curl("POST", "/device", drive)
    assert status == 201
    return answer["data"]["deviceId"]


def enter_the_sensor(curl) -> tuple[int, int, dict]:
    """Step by step: device, then transaction with request and reply; a typing error on the way."""
    status, answer = curl("POST", "/device", {"portId": 2, "deviceName": "climate"})
    assert status == 201
    sensor_id = answer["data"]["deviceId"]
    poll = request_json(
        "poll",
        frame_json(POLL, constant_json("page", "01", 0), length=1),
        frame_json(REPLY, tag_json("temperature", F32, 0, 4), length=9),
        cyclicInterval=100,
        responseTimeout=500,
    )
    assert curl("POST", "/transaction", {**poll, "deviceId": sensor_id}) == (
        500,
        {"error": {"code": -4, "message": "Internal error"}},
    )
    poll["frameList"][1]["dataLength"] = 4
    status, answer = curl("POST", "/transaction", {**poll, "deviceId": sensor_id})
    assert status == 201
    return sensor_id, answer["data"]["transactionId"], poll


def correct_the_sensor(curl, sensor_id: int, poll_id: int, poll: dict):
    """A look at what was entered, and a correction."""
    status, answer = curl("GET", f"/device?deviceId={sensor_id}")
    assert status == 200 and len(answer["data"]["transactionList"][0]["frameList"]) == 2
    assert curl("PATCH", f"/device/{sensor_id}", {"deviceName": "hall-climate"})[0] == 200
    correction = {name: value for name, value in poll.items() if name != "frameList"}
    assert curl("PATCH", f"/transaction/{poll_id}", {**correction, "cyclicInterval": 50})[0] == 200
    assert curl("GET", "/usedCANIds?portId=2") == (
        200,
        {
            "data": [
                {
                    "deviceId": sensor_id,
                    "transactionId": poll_id,
                    "transactionType": 2,
                    "canId": [POLL, REPLY],
                }
            ]
        },
    )


def expect_the_drives_state(bus, tags):
    """0x0123 swapped, 12 times 10 less 5, no fault."""
    bus(lane.PORTS[0]).send(STATE, "01230C0000000000")
    tags.wait_for(SPEED, 0x0123)
    tags.wait_for(block_tag("conveyor-drive", "state", "torque"), 115)
    tags.wait_for(status_tag("conveyor-drive"), COMMUNICATING)


def record_a_frame(curl, bus, tags):
    """Is all well? Recording on, a frame, off, the log in a file."""
    status, answer = curl("GET", "/diagnose?portId=1")
    assert status == 200 and answer["data"]["state"] == "Normal" and answer["data"]["rxCount"] >= 1
    assert curl("POST", "/traffic/1", {"option": 1})[0] == 201
    bus(lane.PORTS[0]).send(STATE, "0000000000000001")
    wait_until(lambda: curl("GET", "/traffic/1")[1]["data"]["response"])
    tags.wait_for(block_tag("conveyor-drive", "state", "fault"), 1)
    assert curl("POST", "/traffic/1", {"option": 0})[0] == 201
    status, log = curl("GET", "/traffic-export/1")
    assert status == 200 and b'"0x"181,Data frame,8,"00 00 00 00 00 00 00 01"' in log


def restore_the_copy(curl, backup: bytes, tmp_path):
    (tmp_path / "backup.csv").write_bytes(backup)
    upload = ("--form", f"file=@{tmp_path / 'backup.csv'}")
    assert curl("POST", "/config-file", None, *upload) == (201, {"data": {"response": "success"}})
    status, again = curl("GET", "/config-file")
    # Slope and offset read back from the columns of the points, which an import sets to defaults.
    assert [line for line in again.splitlines() if b"torque" not in line] == [
        line for line in backup.splitlines() if b"torque" not in line
    ]


def test_from_an_empty_gateway_to_values_on_tags(gateway, rest, curl, bus, tags, candump, tmp_path):
    gateway.start()
    expect_an_empty_gateway(curl)
    assert tags.names() == set()

    rest.wait_next_second()  # so that config-change sees what follows
    set_the_sensors_port(curl)
    drive_id = enter_the_drive(curl)
    correct_the_sensor(curl, *enter_the_sensor(curl))
    assert curl("GET", "/config-change") == (200, {"data": {"result": 1}})
    assert tags.names() == set()  # nothing is on the bus yet

    # A copy for the drawer, then on the bus with it.
    status, backup = curl("GET", "/config-file")
    assert status == 200 and b"hall-climate" in backup
    watcher = candump(lane.PORTS[0])
    assert curl("POST", "/action", {"option": 0}) == (201, {"data": {"response": "success"}})
    wait_until(lambda: {SPEED, TEMPERATURE} <= tags.names(), 4.0, "the tags")
    assert curl("GET", "/config-change") == (200, {"data": {"result": 0}})
    gateway.wait_ready()

    expect_the_drives_state(bus, tags)

    # Another application commands it.
    tags.set(block_tag("conveyor-drive", "command", "target"), 0x12345678)
    watcher.wait_frame(f"{COMMAND:03X}#785634120000005A")

    # The sensor is asked every 50 ms and answers 21.5 degrees.
    sensor = bus(lane.PORTS[1])
    assert sensor.expect(POLL, "01").is_extended_id
    sensor.send(REPLY, "0000AC41", extended=True)
    tags.wait_for(TEMPERATURE, 21.5)

    record_a_frame(curl, bus, tags)

    # A second thought, taken back.
    assert curl("DELETE", f"/device/{drive_id}") == (204, b"")
    assert curl("POST", "/action", {"option": 1})[0] == 201
    assert curl("GET", f"/device?deviceId={drive_id}")[0] == 200

    # The drawer's copy goes back in and is what runs.
    restore_the_copy(curl, backup, tmp_path)
    assert gateway.running()
