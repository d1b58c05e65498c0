"""The demonstration device, as its README describes it."""

import json
import subprocess
import time

import pytest

from kt_system import lane
from kt_system.processes import LineReader
from kt_system.rows import BOOTUP, U16, U8, consume, constant, device, frame, request, tag
from kt_system.tags import block_tag

CONTROL = bytes.fromhex("A501DC05")  # run at 1500 rpm


def control(node):
    node.send(0x201, CONTROL)
    return node.expect(0x181)


def test_the_drive_answers_and_counts_control_requests(demo_device, bus):
    demo_device("can0", "--node", "drive")
    node = bus()
    first, second = control(node), control(node)
    assert (first.data[0], first.data[1], first.data[2]) == (0x5A, 1, 1)
    assert second.data[1] == 2


def test_the_drive_ramps_up_to_its_target(demo_device, bus):
    demo_device("can0")
    node = bus()

    def at_target() -> bool:
        return control(node).data[3] == 0x03

    lane.wait_until(at_target, 6.0)
    speed = int.from_bytes(control(node).data[4:6], "little", signed=True)
    assert 1496 <= speed <= 1504


def test_the_drive_ignores_a_request_with_another_constant(demo_device, bus):
    demo_device("can0")
    node = bus()
    node.send(0x201, b"\xa4" + CONTROL[1:])
    node.expect_none(0x181, 0.1)


def test_the_drive_identifies_itself(demo_device, bus):
    demo_device("can0")
    node = bus()
    node.send(0x601, "40")
    answer = node.expect(0x581)
    assert answer.data[0] == 0x43
    assert int.from_bytes(answer.data[4:8], "little") == 20260042


def test_the_sensor_sends_at_its_interval(demo_device, bus):
    node = bus()
    demo_device("can0", "--node", "sensor", "--interval", "20")
    climate = node.expect(0x281)
    assert climate.dlc == 8 and climate.data[7] == 0xC3
    samples = [int.from_bytes(node.expect(0x282).data[0:4], "big") for _ in range(3)]
    assert samples[2] - samples[0] == 2


def test_the_legacy_node_asks_for_its_setpoint_and_acknowledges(demo_device, bus):
    unit = demo_device("can0", "--node", "legacy")
    node = bus()
    node.expect(0x321, remote=True)
    node.send(0x321, "E803EFBE")
    node.expect(0x3A1, "01000000")
    node.send(0x331, "0700")
    node.expect(0x3A1, "01010700")
    said = ["can0: setpoint 1000", "can0: command 7"]
    lane.wait_until(lambda: unit.lines[1:] == said, 5.0, "both lines")


def test_what_it_does_as_json(bus):
    node = bus()
    command = [lane.program("kt-demo-device"), "--port", "can0", "--json"]
    with LineReader([*command, "--node", "legacy", "--node", "drive"]) as unit:
        unit.wait_line('"event":"ready"')
        node.send(0x331, "0700")
        node.expect(0x3A1)
        node.send(0x601, "40")
        node.expect(0x581)
        lane.wait_until(lambda: len(unit.lines) == 3, 5.0, "three lines")
    assert [json.loads(line) for line in unit.lines] == [
        {"port": "can0", "nodes": ["legacy", "drive"], "event": "ready"},
        {"port": "can0", "node": "legacy", "event": "command", "value": 7},
        {"port": "can0", "node": "drive", "event": "identified"},
    ]


def test_extended_identifiers(demo_device, bus):
    demo_device("can0", "--extended")
    node = bus()
    node.send(0x201, CONTROL)
    node.send(0x201, CONTROL, extended=True)
    assert node.expect(0x181, extended=True).data[1] == 1


def test_fault_wrong_length(demo_device, bus):
    demo_device("can0", "--wrong-length")
    assert control(bus()).dlc == 7


def test_fault_wrong_constant(demo_device, bus):
    demo_device("can0", "--wrong-constant")
    assert control(bus()).data[0] == 0xA5


def test_fault_late(demo_device, bus):
    demo_device("can0", "--late", "150")
    asked = time.time()
    assert control(bus()).timestamp >= asked + 0.149


def test_fault_silent(demo_device, bus):
    demo_device("can0", "--node", "drive", "--silent-after", "0")
    node = bus()
    node.send(0x201, CONTROL)
    node.expect_none(seconds=0.1)


def test_a_script_switches_faults(demo_device, bus, tmp_path):
    script = tmp_path / "script"
    script.write_text("# comment\n\n0 wrong-length on\n")
    demo_device("can0", "--script", str(script))
    assert control(bus()).dlc == 7


def test_a_script_sends_and_exits(demo_device, bus, tmp_path):
    script = tmp_path / "script"
    script.write_text(
        "400 send 123#0A0B\n"
        "400 send 1ABCDEF0#\n"
        "400 send 124#R3\n"
        "401 exit\n"
    )
    node = bus()
    unit = demo_device("can0", "--script", str(script))
    assert not node.expect(0x123, "0A0B").is_extended_id
    assert node.expect(0x1ABCDEF0, "").is_extended_id
    assert node.expect(0x124, remote=True).dlc == 3
    assert unit.wait_exit() == 0


@pytest.mark.parametrize(
    "arguments, status, text",
    [
        ([], 2, "--port is missing"),
        (["--port", "can0", "--node", "nobody"], 2, "no such node: nobody"),
        (["--port", "nocan"], 1, "nocan: no such interface"),
        (["--port", "can0", "--late", "soon"], 2, "--late needs milliseconds, 0 to 86400000, not 'soon'"),
        (["--port", "can0", "--interval", "0"], 2, "--interval needs milliseconds, 1 to 86400000"),
        (["--port", "can0", "--node", "drive", "--node=drive"], 2, "--node drive is given twice"),
        (["--port", "can0", "--script", "/nonexistent"], 2, "cannot read /nonexistent: No such"),
        (["--port", "can0", "--script", "/"], 2, "cannot read /: Is a directory"),
    ],
)
def test_what_is_wrong_is_said(arguments, status, text):
    result = subprocess.run(
        [lane.program("kt-demo-device"), *arguments], capture_output=True, text=True
    )
    assert (result.returncode, result.stdout) == (status, "")
    assert text in result.stderr


def test_a_wrong_script_line_is_named(tmp_path):
    script = tmp_path / "script"
    script.write_text("0 send 123#01\n10 send 123#0\n")
    result = subprocess.run(
        [lane.program("kt-demo-device"), "--port", "can0", "--script", str(script)],
        capture_output=True,
        text=True,
    )
    assert result.returncode == 2
    assert result.stderr == f"kt-demo-device: {script}:2: no script line: 10 send 123#0\n"


def test_the_service_identifies_the_drive_once_at_bootup(gateway, tags, demo_device):
    unit = demo_device("can0")
    identify = request(
        "identify",
        frame(0x601, 1, constant("ask", "40")),
        frame(0x581, 8, constant("answer", "43"), tag("kind", U8, 1)),
        trigger=BOOTUP,
    )
    state = consume("state", frame(0x281, 8, tag("value", U16)))
    gateway.configure(device("drive", identify, state))
    gateway.start()
    tags.wait_for(block_tag("drive", "identify", "kind"), 1)
    gateway.stop()
    said = ["can0: drive identified itself"]
    lane.wait_until(lambda: unit.lines[1:] == said, 5.0, "one line")
