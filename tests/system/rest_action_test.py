"""Apply and discard, with the bus running."""

import contextlib
import pathlib
import time

import pytest

from kt_system import lane
from kt_system.gateway import PERSISTENT_DB, WORKING_DB
from kt_system.lane import scaled, wait_until
from kt_system.rest import (
    PORT_JSON,
    consume_json,
    device_json,
    frame_json,
    produce_json,
    tag_json,
)
from kt_system.rows import U16, consume, device, frame, produce, request, tag
from kt_system.tags import block_tag, status_tag

ACTION = "can_proprietary_post_rest_action"
SUCCESS = b'{"data":{"response":"success"}}'
ON_THE_BUS_WITHIN = 2.0  # seconds after the answer


def old_configuration():
    return (
        device(
            "old",
            consume("state", frame(0x181, 2, tag("value", U16))),
            produce("command", frame(0x201, 2, tag("target", U16, access="wo")), interval=50),
        ),
    )


@pytest.fixture
def running(gateway, rest):
    gateway.configure(*old_configuration())
    gateway.start()


def replace_device(rest) -> None:
    assert rest.delete("/device/1").status == 204
    body = device_json(
        "new",
        consume_json("state", frame_json(0x182, tag_json("value"), length=2)),
        produce_json("command", frame_json(0x202, length=3), cyclicInterval=50),
    )
    assert rest.post("/device", body).status == 201


@contextlib.contextmanager
def the_service_says_nothing(gateway):
    """What the ip command says of a virtual port, which has no bit rate, is the next pass's."""
    start = len(gateway.stderr)
    yield
    said = gateway.stderr[start:].splitlines()
    of_ip = [line for line in said if lane.KERNEL and line.startswith("RTNETLINK answers: ")]
    assert said == of_ip


def open_descriptors(gateway) -> int:
    """A pass that leaks its sockets and eventfds shows here."""
    return len(list((pathlib.Path("/proc") / str(gateway.process.pid) / "fd").iterdir()))


@pytest.fixture
def no_new_pass(rest, running, bus):
    """no_new_pass(): the ports still run in the threads in which they ran before the test."""
    before = rest.wait_port_threads()

    def judge() -> None:
        node = bus()
        for _ in range(5):
            node.expect(0x201)  # before each a port looks whether it has to end
        assert rest.port_threads() == before

    return judge


def test_an_apply_brings_the_new_configuration_to_the_bus_within_two_seconds(
    gateway, rest, running, bus, tags
):
    replace_device(rest)
    node = bus()
    node.expect(0x201)  # the old one still runs
    assert {status_tag("old"), block_tag("old", "state", "value")} <= tags.names()
    with the_service_says_nothing(gateway):
        answer = rest.post("/action", {"option": 0})
    answered = time.monotonic()
    assert answer.status == 201 and answer.body == SUCCESS
    assert gateway.query("SELECT * FROM device", database=PERSISTENT_DB) == [(2, 1, "new")] or (
        gateway.query("SELECT deviceName FROM device", database=PERSISTENT_DB) == [("new",)]
    )
    message = node.expect(0x202, timeout=ON_THE_BUS_WITHIN)
    assert time.monotonic() - answered < scaled(ON_THE_BUS_WITHIN)
    assert message.dlc == 3
    wait_until(lambda: block_tag("new", "state", "value") in tags.names(), 2.0)
    node.send(0x182, "3412")
    tags.wait_for(block_tag("new", "state", "value"), 0x1234)
    assert not any(name.startswith("can_proprietary/old/") for name in tags.names())
    node.drain()
    node.expect_none(0x201, seconds=0.3)
    node.send(0x181, "7856")  # nobody's identifier now
    assert tags.get(block_tag("new", "state", "value")) == 0x1234


def test_an_apply_changes_the_port_itself(rest, running, bus):
    settings = {**PORT_JSON, "frameFormat": 1}
    assert rest.patch("/interface/1", settings).status == 200
    node = bus()
    assert not node.expect(0x201).is_extended_id
    rest.apply()
    assert wait_until(lambda: node.expect(0x201, timeout=2.0).is_extended_id)


def test_applies_in_a_row_leave_nothing_open(gateway, rest, running, tags):
    gateway.edit(
        WORKING_DB, device("other", consume("state", frame(0x281, 2, tag("value"))), port=2)
    )
    rest.apply()  # with tags on both ports, which stand once their sockets do
    before = open_descriptors(gateway)
    names = tags.names()
    for _ in range(5):
        rest.apply()
    wait_until(
        lambda: open_descriptors(gateway) <= before,
        3.0,
        lambda: f"{open_descriptors(gateway)} open, {before} before",
    )
    assert tags.names() == names


def test_applies_at_once_end_with_the_last_configuration(rest, running, bus):
    for number in range(5):
        assert (
            rest.patch("/transaction/2", produce_json("command", cyclicInterval=20 + number)).status
            == 200
        )
        assert rest.post("/action", {"option": 0}).status == 201
    bus().expect(0x201, timeout=ON_THE_BUS_WITHIN)
    applied = "SELECT cyclicInterval FROM transactions WHERE transactionId = 2"
    assert rest.gateway.query(applied, database=PERSISTENT_DB) == [(24,)]


def test_what_was_applied_survives_the_loss_of_the_working_copy(gateway, rest, running):
    replace_device(rest)
    assert rest.post("/action", {"option": 0}).status == 201
    assert rest.post("/device", {"portId": 1, "deviceName": "unapplied"}).status == 201
    gateway.kill()
    gateway.path(WORKING_DB).unlink()
    gateway.start()
    assert [row["deviceName"] for row in rest.get("/interface?portId=1").data["deviceList"]] == [
        "new"
    ]


def test_a_discard_brings_the_applied_configuration_back_and_leaves_the_bus_alone(
    rest, running, tags, no_new_pass
):
    replace_device(rest)
    with rest.says():
        answer = rest.post("/action", {"option": 1})
    assert answer.status == 201 and answer.body == SUCCESS
    assert rest.get("/device?deviceId=1").data["deviceName"] == "old"
    no_new_pass()
    assert status_tag("old") in tags.names()


def test_a_discard_after_an_apply_keeps_what_was_applied(rest, running):
    replace_device(rest)
    rest.apply()
    rest.discard()
    assert rest.get("/device?deviceId=2").status == 500  # its key came again
    assert rest.get("/device?deviceId=1").data["deviceName"] == "new"


def conflicting(gateway, *devices):
    gateway.edit(WORKING_DB, *devices)


CONFLICTS = {
    "two consumed": (consume("a", frame(0x300, 0)), consume("b", frame(0x300, 0))),
    "consumed and response": (
        consume("a", frame(0x300, 0)),
        request("b", frame(1, 0), frame(0x300, 0)),
    ),
}
NO_CONFLICTS = {
    "two responses": (
        request("a", frame(1, 0), frame(0x300, 0)),
        request("b", frame(2, 0), frame(0x300, 0)),
    ),
    "consumed and request": (
        consume("a", frame(0x300, 0)),
        request("b", frame(0x300, 0), frame(1, 0)),
    ),
    "consumed and produced": (consume("a", frame(0x300, 0)), produce("b", frame(0x300, 0))),
    "two produced": (produce("a", frame(0x300, 0)), produce("b", frame(0x300, 0))),
}


@pytest.mark.parametrize("transactions", CONFLICTS.values(), ids=CONFLICTS)
@pytest.mark.parametrize("apart", [False, True])
def test_conflicting_identifiers_are_not_applied(
    gateway, rest, running, no_new_pass, transactions, apart
):
    first, second = transactions
    # The check does not ask for ports.
    rows = (
        [device("x", first), device("y", second, port=2)] if apart else [device("x", first, second)]
    )
    gateway.edit(WORKING_DB, *rows)
    rest.refused(-8, "POST", "/action", {"option": 0}, f"{ACTION}|set action fail\n")
    no_new_pass()


@pytest.mark.parametrize("transactions", NO_CONFLICTS.values(), ids=NO_CONFLICTS)
def test_identifiers_that_may_be_shared_are_applied(gateway, rest, running, transactions):
    gateway.edit(WORKING_DB, device("x", *transactions))
    with the_service_says_nothing(gateway):
        assert rest.post("/action", {"option": 0}).status == 201
    assert gateway.query("SELECT COUNT(*) FROM device", database=PERSISTENT_DB) == [(2,)]


NUMBER = "json_obj_get_number|"
NONE = f"{NUMBER}Parameter option does not exist\n"


def test_bad_bodies_do_nothing(gateway, rest, running, bus):
    replace_device(rest)
    cases = [
        (-1, None, f"{ACTION}|invalid input_data\n"),
        (-1, "", f"{ACTION}|invalid input_data\n"),
        (-1, "{", f"{ACTION}|invalid input_data\n"),
        (-1, '{"option":0,"option":0}', f"{ACTION}|invalid input_data\n"),
    ]
    for value, shown in ((2, 2), (-1, -1), (1e10, 2147483647)):
        line = f"{NUMBER}The option input length {shown} does not meet the length limit (0-1)\n"
        cases.append((-1, {"option": value}, line, f"{ACTION}|get action_option fail\n"))
    for body in (
        {"option": "0"},
        {"option": None},
        {"option": False},
        {"Option": 0},
        {},
        [],
        "0",
        "null",
    ):
        cases.append((-3, body, NONE, f"{ACTION}|get action_option fail\n"))
    for code, body, *lines in cases:
        rest.refused(code, "POST", "/action", body, *lines)
    bus().expect(0x201)


@pytest.mark.parametrize("value", [0.9, -0.9])
def test_an_option_is_truncated(rest, running, value):
    replace_device(rest)
    assert rest.post("/action", f'{{"option": {value}}}').status == 201
    assert rest.gateway.query("SELECT deviceName FROM device", database=PERSISTENT_DB) == [("new",)]


def test_an_apply_without_a_place_to_write_to_is_refused(gateway, rest, running, bus):
    path = gateway.path(PERSISTENT_DB)
    kept = path.with_suffix(".kept")
    path.rename(kept)
    path.mkdir()
    try:
        answer = rest.post("/action", {"option": 0})
        assert answer.code == -8
        lines = [(m.function, m.text) for m in gateway.messages[-4:]]
        assert lines[1:3] == [
            ("can_proprietary_conf_apply", "apply config fail\n"),
            (ACTION, "set action fail\n"),
        ]
        answer = rest.post("/action", {"option": 1})
        assert answer.code == -8
        lines = [(m.function, m.text) for m in gateway.messages[-3:-1]]
        assert lines == [
            ("can_proprietary_conf_discard", "discard config fail\n"),
            (ACTION, "set action fail\n"),
        ]
    finally:
        path.rmdir()
        kept.rename(path)
    bus().expect(0x201)
    assert rest.get("/device?deviceId=1").data["deviceName"] == "old"


def test_a_corrupt_working_copy_fails_the_request_and_rebuilds_everything(gateway, rest, running):
    path = gateway.path(WORKING_DB)
    content = path.read_bytes()
    path.write_bytes(content[:100] + b"\xff" * (len(content) - 100))
    answer = rest.get("/overview")
    assert answer.code == -7
    shown = f"db '{path}' is corrupt, remove db and exit process\n"
    assert [m for m in gateway.messages if m.text == shown]
    wait_until(
        lambda: (a := rest.get("/overview")).status == 200
        and a.data["portList"][0]["deviceNum"] == 0,
        5.0,
    )
