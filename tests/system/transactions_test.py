"""The transaction engine on the bus: every type and trigger, its results and its failures."""

import itertools
import statistics
import time

import pytest

from kt_system.bus import wait_writes_taken
from kt_system.lane import scaled, wait_until
from kt_system.rows import (
    BOOTUP,
    ON_CHANGE,
    RAW,
    U8,
    U16,
    U32,
    constant,
    consume,
    device,
    frame,
    produce,
    request,
    tag,
)
from kt_system.tags import COMMUNICATING, NO_FRAME_YET, TIMED_OUT, block_tag, status_tag

STATE = block_tag("drive", "state", "speed")
TARGET = block_tag("drive", "command", "target")


def test_a_consumed_frame_becomes_tags(gateway, bus, tags):
    gateway.configure(
        device(
            "drive",
            consume(
                "state",
                frame(0x181, 6, tag("speed", U16), tag("flags", U8, 2), tag("raw", RAW, 3, size=3)),
            ),
        )
    )
    gateway.start()
    assert tags.get(STATE) == 0
    bus().send(0x181, "3412 7F 0A0B0C")
    tags.wait_for(STATE, 0x1234)
    tags.wait_for(block_tag("drive", "state", "flags"), 0x7F)
    tags.wait_for(block_tag("drive", "state", "raw"), lambda text: text.lower() == "0a0b0c")


def test_watchers_see_every_value_of_one_frame_together(gateway, bus, tags):
    gateway.configure(
        device("drive", consume("state", frame(0x181, 4, tag("speed", U16), tag("load", U16, 2))))
    )
    gateway.start()
    with tags.watch("can_proprietary/drive/*") as watch:
        bus().send(0x181, "0100 0200")
        watch.wait_change(STATE, 1)
        watch.wait_change(block_tag("drive", "state", "load"), 2)


@pytest.mark.parametrize("data", ["34", "341200", ""])
def test_a_frame_of_another_length_fails_and_publishes_nothing(gateway, bus, tags, data):
    gateway.configure(device("drive", consume("state", frame(0x181, 2, tag("speed", U16)))))
    gateway.start()
    bus().send(0x181, data)
    gateway.wait_event("CAN Proprietary:Transaction Failed", "drive/state transaction failed")
    tags.wait_for(status_tag("drive"), COMMUNICATING)
    assert tags.get(STATE) == 0


def test_a_constant_that_differs_fails_and_publishes_nothing(gateway, bus, tags):
    gateway.configure(
        device(
            "drive", consume("state", frame(0x181, 4, tag("speed", U16), constant("kind", "ABC", 2)))
        )
    )
    gateway.start()
    node = bus()
    node.send(0x181, "3412 BC0B")
    gateway.wait_event("CAN Proprietary:Transaction Failed", "drive/state transaction failed")
    assert tags.get(STATE) == 0
    node.send(0x181, "3412 BC0A")
    tags.wait_for(STATE, 0x1234)
    gateway.wait_event("CAN Proprietary:Transaction Success", "drive/state transaction success")


def test_of_two_consumers_of_one_identifier_the_later_one_gets_the_frame(gateway, bus, tags):
    gateway.configure(
        device(
            "drive",
            consume("first", frame(0x181, 2, tag("value", U16))),
            consume("second", frame(0x181, 2, tag("value", U16))),
        )
    )
    gateway.start()
    bus().send(0x181, "3412")
    tags.wait_for(block_tag("drive", "second", "value"), 0x1234)
    assert tags.get(block_tag("drive", "first", "value")) == 0


def test_a_silent_device_times_out_again_and_again(gateway, bus, tags):
    gateway.configure(
        device("drive", consume("state", frame(0x181, 2, tag("speed", U16)), timeout=200))
    )
    gateway.start()
    assert tags.get(status_tag("drive")) in (NO_FRAME_YET, TIMED_OUT)
    tags.wait_for(status_tag("drive"), TIMED_OUT)
    bus().send(0x181, "0100")
    tags.wait_for(STATE, 1)
    tags.wait_for(status_tag("drive"), TIMED_OUT)
    gateway.wait_event("CAN Proprietary:Transaction Timeout", "drive/state transaction timeout", 2)
    seen, times = gateway.failures("drive", "state"), []
    for more in range(1, 6):
        wait_until(lambda least=seen + more: gateway.failures("drive", "state") >= least)
        times.append(time.monotonic())
    # Whoever stands still for a moment makes one of them longer.
    pause = statistics.median(later - sooner for sooner, later in itertools.pairwise(times))
    assert pause <= 1.1 / 3 * scaled(1)


def test_without_a_consume_timeout_silence_is_no_failure(gateway, tags):
    gateway.configure(device("drive", consume("state", frame(0x181, 2, tag("speed", U16)))))
    gateway.start()
    time.sleep(1.2)
    assert tags.get(status_tag("drive")) == NO_FRAME_YET
    assert gateway.failures("drive", "state") == 0


def test_a_cyclic_frame_is_sent_at_its_pace(gateway, bus, tags):
    gateway.configure(
        device(
            "drive",
            produce("slow", frame(0x300, 1, constant("mark", "55")), interval=5000),
            produce(
                "command",
                frame(0x201, 4, tag("target", U16, access="wo"), constant("mark", "1234", 2)),
                interval=50,
            ),
        )
    )
    gateway.start()
    node = bus()
    node.expect(0x201, "0000 3412")
    sent = [node.expect(0x201, "0000 3412").timestamp for _ in range(21)]
    # Whoever stands still for a moment makes one of them longer.
    pause = statistics.median(later - sooner for sooner, later in itertools.pairwise(sent))
    assert 0.048 <= pause <= 0.0625 * scaled(1)
    tags.set(TARGET, 0xBEEF)
    node.expect(0x201, "EFBE 3412")


def test_a_write_sends_an_on_change_frame_once(gateway, bus, tags):
    gateway.configure(
        device(
            "drive",
            produce("command", frame(0x201, 2, tag("target", U16, access="wo")), trigger=ON_CHANGE),
        )
    )
    gateway.start()
    node = bus()
    node.expect_none(0x201)
    tags.set(TARGET, 0x1234)
    node.expect(0x201, "3412")
    tags.set(TARGET, 0x1234)
    node.expect_none(0x201)
    tags.set(TARGET, 0x1235)
    node.expect(0x201, "3512")


def test_several_tags_of_one_on_change_frame(gateway, bus, tags):
    names = ("a", "b", "c", "d")
    gateway.configure(
        device(
            "drive",
            produce(
                "command",
                frame(0x201, 8, *(tag(n, U16, 2 * i, access="wo") for i, n in enumerate(names))),
                trigger=ON_CHANGE,
            ),
        )
    )
    gateway.start()
    node = bus()
    for value, name in enumerate(names, 1):
        tags.set(block_tag("drive", "command", name), value)
    node.expect(0x201, "0100 0200 0300 0400")
    node.expect_none(0x201)


def test_a_tag_of_a_received_frame_takes_no_writes(gateway, bus, tags):
    gateway.configure(
        device(
            "drive",
            consume("state", frame(0x181, 2, tag("speed", U16, access="wo"))),
            produce("command", frame(0x201, 2, tag("target", U16, access="wo")), interval=50),
        )
    )
    gateway.start()
    tags.set(STATE, 7)
    node = bus()
    node.expect(0x201, "0000")
    node.expect_none(0x181)


def test_a_bootup_frame_is_sent_once_and_first(gateway, bus):
    gateway.configure(
        device(
            "drive",
            produce("cyclic", frame(0x202, 0), interval=20),
            produce("hello", frame(0x201, 2, constant("word", "4F4B")), trigger=BOOTUP),
        )
    )
    node = bus()
    gateway.start()
    node.expect(0x202)
    node.collect(1.0)
    seen = [message.arbitration_id for message in node.seen]
    assert seen.count(0x201) == 1
    assert seen.index(0x201) < seen.index(0x202)


def test_a_remote_frame_is_answered(gateway, bus, tags):
    gateway.configure(
        device(
            "drive",
            produce(
                "command",
                frame(0x201, 2, tag("target", U16, access="wo")),
                trigger=ON_CHANGE,
                triggerByRTR=1,
            ),
            produce(
                "private", frame(0x202, 2, tag("target", U16, access="wo")), trigger=ON_CHANGE
            ),
        )
    )
    gateway.start()
    node = bus()
    node.send_remote(0x201, 2)
    node.expect(0x201, "0000")
    tags.set(TARGET, 5)
    node.expect(0x201, "0500")
    node.send_remote(0x201, 2)
    node.expect(0x201, "0500")
    node.send_remote(0x202, 2)
    node.expect_none(0x202)


def drive_request(**columns):
    return request(
        "query",
        frame(0x601, 2, tag("index", U16, access="wo")),
        frame(0x581, 6, tag("value", U32), constant("ok", "60", 4)),
        **columns,
    )


VALUE = block_tag("drive", "query", "value")
INDEX = block_tag("drive", "query", "index")


def test_a_cyclic_request_publishes_its_response(gateway, bus, tags):
    gateway.configure(device("drive", drive_request(interval=100, timeout=60000)))
    node = bus()
    gateway.start()
    for value in (1, 2):
        node.expect(0x601, "0000")
        node.send(0x581, f"{value:02x}000000 6000")
        tags.wait_for(VALUE, value)
    tags.wait_for(status_tag("drive"), COMMUNICATING)


def test_a_request_on_change_runs_when_its_tag_is_written(gateway, bus, tags):
    gateway.configure(device("drive", drive_request(trigger=ON_CHANGE, timeout=60000)))
    gateway.start()
    node = bus()
    node.expect_none(0x601)
    tags.set(INDEX, 0x1018)
    node.expect(0x601, "1810")
    node.send(0x581, "2A000000 6000")
    tags.wait_for(VALUE, 42)
    node.expect_none(0x601)


def test_a_write_while_the_request_is_under_way_is_sent_afterwards(gateway, bus, tags):
    gateway.configure(device("drive", drive_request(trigger=ON_CHANGE, timeout=60000)))
    gateway.start()
    node = bus()
    tags.set(INDEX, 1)
    node.expect(0x601, "0100")
    tags.set(INDEX, 2)
    node.expect_none(0x601)
    node.send(0x581, "07000000 6000")
    node.expect(0x601, "0200")


def test_a_bootup_request_holds_everything_back_until_it_is_answered(gateway, bus, tags):
    gateway.configure(
        device(
            "drive",
            drive_request(trigger=BOOTUP, timeout=60000),
            produce("cyclic", frame(0x202, 0), interval=20),
        )
    )
    node = bus()
    gateway.start()
    node.expect(0x601, "0000")
    node.expect_none(0x202, 0.5)
    node.send(0x581, "05000000 6000")
    tags.wait_for(VALUE, 5)
    node.expect(0x202)
    node.expect_none(0x601)


@pytest.mark.parametrize("retry", [0, 3])
def test_an_unanswered_request_is_resent_and_times_out(gateway, bus, tags, retry):
    gateway.configure(device("drive", drive_request(interval=60000, timeout=100, retry=retry)),
                      sql="UPDATE transactions SET cyclicInterval = 300")
    node = bus()
    gateway.start()
    sent = [node.expect(0x601).timestamp for _ in range(1 + retry + 1)]
    tags.wait_for(status_tag("drive"), TIMED_OUT)
    gateway.wait_event("CAN Proprietary:Transaction Timeout", "drive/query transaction timeout")
    *resends, cycle = (later - sooner for sooner, later in itertools.pairwise(sent))
    assert cycle > 0.25, sent
    if retry:
        assert statistics.median(resends) < (0.1 + 0.25 / retry) * scaled(1), sent


@pytest.mark.parametrize("response", ["0700000060", "07000000 6100", "07000000 600000"])
def test_a_bad_response_fails_the_request_at_once(gateway, bus, tags, response):
    gateway.configure(device("drive", drive_request(trigger=ON_CHANGE, timeout=60000)))
    gateway.start()
    node = bus()
    tags.set(INDEX, 1)
    node.expect(0x601)
    node.send(0x581, response)
    gateway.wait_event("CAN Proprietary:Transaction Failed", "drive/query transaction failed")
    assert tags.get(VALUE) == 0
    tags.set(INDEX, 2)
    node.expect(0x601, "0200")


def test_two_requests_run_one_after_the_other(gateway, bus, tags):
    gateway.configure(
        device(
            "drive",
            drive_request(interval=100, timeout=60000),
            request(
                "other",
                frame(0x602, 1, tag("go", U8, access="wo")),
                frame(0x582, 1, tag("value", U8)),
                trigger=ON_CHANGE,
                timeout=60000,
            ),
        ),
        device(
            "probe",
            produce("p", frame(0x201, 4, tag("target", U32, access="wo")), trigger=ON_CHANGE),
            port=2,
        ),
    )
    node = bus()
    gateway.start()
    node.expect(0x601)
    tags.set(block_tag("drive", "other", "go"), 1)
    wait_writes_taken(bus("can1"), 0x201, tags, block_tag("probe", "p", "target"))
    node.expect_none(0x602)
    node.send(0x581, "01000000 6000")
    node.expect(0x602, "01")
    node.expect_none(0x601)
    node.send(0x582, "09")
    tags.wait_for(block_tag("drive", "other", "value"), 9)
    node.expect(0x601)


def test_a_disabled_transaction_does_not_exist(gateway, bus, tags):
    gateway.configure(
        device(
            "drive",
            consume("state", frame(0x181, 2, tag("speed", U16)), transactionEnable=0),
            produce("command", frame(0x201, 0), interval=20, transactionEnable=0),
        )
    )
    gateway.start()
    assert tags.names() == {status_tag("drive")}
    bus().expect_none(0x201)


def test_extended_and_standard_ports_keep_apart(gateway, bus, tags):
    gateway.configure(
        device(
            "wide",
            consume("state", frame(0x181, 2, tag("speed", U16))),
            produce("command", frame(0x1ABCDEF0, 0), interval=50),
        ),
        device(
            "narrow",
            consume("state", frame(0x181, 2, tag("speed", U16))),
            produce("command", frame(0x201, 0), interval=50),
            port=2,
        ),
        sql="UPDATE interface_setting SET frameFormat = 1 WHERE portId = 1",
    )
    gateway.start()
    first, second = bus("can0"), bus("can1")
    first.expect(0x1ABCDEF0, extended=True)
    second.expect(0x201, extended=False)
    first.send(0x181, "0100", extended=False)
    second.send(0x181, "0200", extended=True)
    first.send(0x181, "0300", extended=True)
    second.send(0x181, "0400", extended=False)
    tags.wait_for(block_tag("wide", "state", "speed"), 3)
    tags.wait_for(block_tag("narrow", "state", "speed"), 4)
    for port in (1, 2):
        assert gateway.diagnose(port)["rxCount"] == 1


def test_both_ports_serve_at_once(gateway, bus, tags):
    gateway.configure(
        *(
            device(
                name,
                consume("state", frame(0x181, 2, tag("speed", U16))),
                produce("command", frame(0x201, 2, tag("target", U16, access="wo")), interval=20),
                port=port,
            )
            for port, name in ((1, "one"), (2, "two"))
        )
    )
    gateway.start()
    nodes = bus("can0"), bus("can1")
    for value in range(1, 20):
        for node, name in zip(nodes, ("one", "two")):
            node.send(0x181, value.to_bytes(2, "little"))
            tags.set(block_tag(name, "command", "target"), value)
            node.expect(0x201, value.to_bytes(2, "little"))
    for name in ("one", "two"):
        tags.wait_for(block_tag(name, "state", "speed"), 19)


def test_a_full_transmit_queue_delays_and_loses_nothing(gateway, bus, tags, softcan_fault):
    gateway.configure(
        device(
            "drive",
            produce("command", frame(0x201, 2, tag("target", U16, access="wo")), trigger=ON_CHANGE),
        )
    )
    gateway.start()
    node = bus()
    softcan_fault("can0", "txfull", "60000")
    tags.set(TARGET, 0x1234)
    gateway.wait_event("CAN Proprietary:Transaction Failed", "drive/command transaction failed")
    softcan_fault("can0", "txfull", "off")
    node.expect(0x201, "3412")
    gateway.wait_event("CAN Proprietary:Transaction Success", "drive/command transaction success")


def test_an_unknown_tag_access_stops_its_port_alone(gateway, bus, tags):
    gateway.configure(
        device("bad", consume("state", frame(0x181, 2, tag("speed", U16, access="rw")))),
        device("good", consume("state", frame(0x181, 2, tag("speed", U16))), port=2),
    )
    gateway.start(wait=False)
    gateway.wait_logged("can_proprietary_transaction_list_init", "unknown tag access\n")
    tags.wait_for(block_tag("good", "state", "speed"), 0)
    bus("can1").send(0x181, "0100")
    tags.wait_for(block_tag("good", "state", "speed"), 1)


def test_an_unknown_block_type_stops_its_port_alone(gateway, bus, tags):
    gateway.configure(
        device("bad", consume("state", frame(0x181, 2, tag("speed", U16)))),
        device("good", consume("state", frame(0x181, 2, tag("speed", U16))), port=2),
        sql="UPDATE block SET blockType = 5 WHERE blockId = 1",
    )
    gateway.start(wait=False)
    gateway.wait_logged("block_get_row", "param fail\n")
    gateway.wait_logged("can_port_handler", "can_module_get_port_config fail\n")
    tags.wait_for(block_tag("good", "state", "speed"), 0)
    bus("can1").send(0x181, "0100")
    tags.wait_for(block_tag("good", "state", "speed"), 1)


def test_frames_of_every_shape_leave_the_service_serving(gateway, bus, tags):
    gateway.configure(
        device("drive", consume("state", frame(0x181, 8, tag("speed", U32, 7, size=8))))
    )
    gateway.start()
    node = bus()
    for length in range(9):
        for can_id in (0, 0x181, 0x7FF):
            node.send(can_id, bytes(range(length)))
            node.send_remote(can_id, length)
            node.send(can_id, bytes(range(length)), extended=True)
    node.send_error(0x1FF, "FFFFFFFFFFFFFFFF")
    node.send(0x181, "00000000000000 2A")
    tags.wait_for(STATE, 42)
