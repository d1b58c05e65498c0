"""The model by itself: cases whose results are known from worked examples."""

import math
import struct

import pytest

from kt_model import bodies, codec, relevance
from kt_model.codec import Constant, Tag
from kt_model.engine import COMMUNICATING, NO_FRAME_YET, SILENT, Port, since
from kt_model.transactions import (
    BOOTUP,
    CONSUME,
    CYCLIC,
    ON_CHANGE,
    PRODUCE,
    REQUEST,
    Frame,
    Transaction,
)

# Codec -------------------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("mode", "swapped"),
    [
        (0, "0001020304050607"),
        (1, "0100030205040706"),
        (2, "0203000106070405"),
        (3, "0302010007060504"),
        (4, "0706050403020100"),
        (5, "0607040502030001"),
        (6, "0001020304050607"),
    ],
)
def test_swap_modes(mode, swapped):
    assert codec.swapped(bytes(range(8)), mode).hex() == swapped


@pytest.mark.parametrize(
    ("data", "mode", "swapped"),
    [
        ("010203", 1, "020103"),
        ("0102", 2, "0102"),
        ("0102", 3, "0102"),
        ("0102030405", 3, "0403020105"),
        ("010203", 4, "030201"),
        ("010203", 5, "020301"),
    ],
)
def test_what_is_shorter_than_a_group_stays(data, mode, swapped):
    assert codec.swapped(bytes.fromhex(data), mode).hex() == swapped


def test_a_value_is_saturated_to_32_bits_and_cut_to_its_type():
    assert codec.scaled(b"\x64", 5, 1, (3.0, 0.0, 0.0, 1.0)) == b"\x2c"
    assert codec.converted(1e10, 1) == -1
    assert codec.converted(-5.0, 6) == 0
    assert codec.converted(1e10, 3) == (1 << 31) - 1
    assert codec.converted(-1.9, 2) == -1
    assert codec.converted(1e19, 4) is None
    assert codec.converted(1e39, 9) == math.inf


def test_equal_source_points_divide_by_zero():
    assert codec.scaled(b"\x07", 5, 2, (5.0, 5.0, 0.0, 10.0)) in (b"\x00", b"\xff")
    slope, offset = codec.line(2, (5.0, 5.0, 3.0, 3.0))
    assert math.isnan(slope) and math.isnan(offset)
    assert codec.converted(math.nan, 2) == 0


def test_two_points_are_a_line():
    slope, offset = codec.line(2, (0.0, 10.0, 5.0, 25.0))
    assert (slope, offset) == (2.0, 5.0)
    data = codec.scaled(struct.pack("<h", -1000), 2, 2, (0.0, 10.0, 5.0, 25.0))
    assert struct.unpack("<h", data) == (-1995,)


def test_constants_lie_least_significant_byte_first():
    assert codec.constant_bytes(Constant("c", "1234", 2)).hex() == "3412"
    assert codec.constant_bytes(Constant("c", "ABC", 2)).hex() == "bc0a"
    assert codec.constant_number("ABC") == 0x0ABC
    assert codec.constant_number("0102") == 258
    assert codec.constant_bytes(Constant("c", "1234", 1)).hex() == "34"


def test_a_fault_value_keeps_the_order_of_its_text():
    assert codec.fault_bytes("CDAB01", 2).hex() == "cdab"


def test_overlapping_blocks_see_what_earlier_ones_left():
    blocks = (Tag("all", size=4, swap=4), Tag("half", size=2))
    found = codec.published(bytes.fromhex("01020304"), blocks)
    assert [value.hex() for _, value in found] == ["04030201", "0403"]
    assert codec.sent(bytes.fromhex("0102030400000000"), blocks, 4).hex() == "04030201"


# Rows --------------------------------------------------------------------------------------------


def row(table: str, **columns) -> dict:
    return {**relevance.default_row(table), **columns}


def test_relevant_columns_of_transactions():
    always = set(relevance.COLUMNS["transactions"][:5])

    def more(**columns) -> set[str]:
        return relevance.relevant("transactions", row("transactions", **columns)) - always

    produce = {"triggerMode", "fpFunc", "triggerByRTR"}
    assert more() == produce | {"cyclicInterval"}
    assert more(triggerMode=1, fpFunc=2) == produce | {"fpTimeout"}
    assert more(transactionType=1) == {"consumeToutEnable"}
    assert more(transactionType=1, consumeToutEnable=1) == {"consumeToutEnable", "consumeTimeout"}
    asked = {"triggerMode", "fpFunc", "timeoutRetry", "responseTimeout"}
    assert more(transactionType=2, triggerMode=2, fpFunc=3) == asked


def test_a_column_that_does_not_count_is_imported_as_its_default():
    fields = row("transactions", transactionType=1, cyclicInterval=77)
    assert relevance.imported("transactions", fields)["cyclicInterval"] == 1000


def test_scaling_of_a_tag_type_above_13_counts_for_the_export_alone():
    block = row("block", tagType=14)
    assert "scalingFunc" in relevance.relevant("block", block, exporting=True)
    assert "scalingFunc" not in relevance.relevant("block", block)


def test_lines_of_a_file():
    fields = relevance.exported("block", row("block", blockId=1, frameId=2, tagName="v"))
    assert ",".join(fields) == "1,2,0,0,v,13,1,ro,0,,,,,,,,,,,"
    constant = row("block", blockType=1, constantSize=2, constantValue="1A")
    assert relevance.exported("block", constant)[-1] == "001A"
    assert relevance.exported("frame", row("frame", canId=0x1A3))[2] == "1A3"


def test_slope_and_offset_are_lost_where_only_they_count():
    block = row("block", tagType=6, scalingFunc=1, interceptSlope=2.5, interceptOffset=1.0)
    kept = relevance.imported("block", block)
    assert kept["interceptSlope"] == 2.5
    assert relevance.slots_of_row(kept)[:2] == (0.0, 1.0)


@pytest.mark.parametrize(
    ("value", "code"), [(9, -1), (10, 0), (65535.9, 0), (65536, -1), ("10", -3), (True, -3)]
)
def test_numbers_of_bodies(value, code):
    body = {"cyclicInterval": value}
    try:
        bodies.number_of(body, "cyclicInterval", 10, 65535)
        assert code == 0
    except bodies.Refused as refusal:
        assert refusal.code == code


def test_a_number_is_cut_towards_zero_and_saturated():
    assert bodies.number_of({"n": 2.9}, "n", 0, 9) == 2
    assert bodies.number_of({"n": -0.5}, "n", 0, 9) == 0
    with pytest.raises(bodies.Refused):
        bodies.number_of({"n": 1e10}, "n", 0, 100)


def test_a_bad_length_is_an_internal_error():
    with pytest.raises(bodies.Refused, match="-4"):
        bodies.frame_of({"canId": 1, "dataLength": 9}, 0, 0)


def test_transaction_counts_wrap():
    device = {"row": {"portId": 1}, "children": [{}] * 300}
    assert bodies.overview([device], 2)["portList"] == [
        {"portId": 1, "deviceNum": 1, "transactionNum": 44},
        {"portId": 2, "deviceNum": 0, "transactionNum": 0},
    ]


@pytest.mark.parametrize(
    ("kinds", "conflict"), [((3, 3), False), ((1, 3), True), ((1, 1), True), ((1, 2), False)]
)
def test_identifiers_in_conflict(kinds, conflict):
    frames = [row("frame", canId=0x100, frameType=kind) for kind in kinds]
    assert relevance.conflicting({"frame": frames}) == conflict


# Engine ------------------------------------------------------------------------------------------

VALUE = Tag("value", 6, 2, access="wo")
STATE = Transaction("drive", "state", CONSUME, (Frame(0x181, 2, (Tag("v", 6, 2),), 1),))
COMMAND = Transaction("drive", "command", PRODUCE, (Frame(0x201, 2, (VALUE,)),), trigger=ON_CHANGE)


def query(trigger: int, **columns) -> Transaction:
    frames = (Frame(0x601, 2, (VALUE,), 2), Frame(0x581, 2, (Tag("answer", 6, 2),), 3))
    return Transaction("drive", "query", REQUEST, frames, trigger=trigger, **columns)


def frames_of(port: Port, until: int) -> list[tuple[int, str]]:
    return [(frame.at, frame.data.hex()) for frame in port.run(until)]


def test_times_are_compared_across_the_end_of_the_clock():
    assert since(5, 0xFFFFFFFB) == 10
    assert since(0xFFFFFFFB, 5) == -10
    port = Port([Transaction("d", "x", PRODUCE, (Frame(1, 0),), interval=10)], now=0xFFFFFFF6)
    assert [frame.at for frame in port.run(15)] == [0, 10]


def test_a_good_frame_is_published_and_a_bad_one_is_not():
    port = Port([STATE])
    assert port.status == {"drive": NO_FRAME_YET}
    port.receive(0x181, b"\1")
    port.settle()
    assert port.status == {"drive": COMMUNICATING}
    assert port.shown_tags() == {"can_proprietary/drive/state_v": 0}
    port.receive(0x181, b"\1\2")
    port.settle()
    assert port.shown_tags() == {"can_proprietary/drive/state_v": 0x201}
    assert port.events == ["drive/state transaction failed", "drive/state transaction success"]
    assert (port.results[0].failures, port.rx_count) == (1, 2)


def test_a_repeated_failure_raises_one_event_and_counts_each_time():
    port = Port([STATE])
    for _ in range(10):
        port.receive(0x181, b"")
    port.settle()
    assert port.events == ["drive/state transaction failed"]
    assert port.results[0].failures == 10


def test_writing_the_same_value_again_sends_nothing():
    port = Port([COMMAND])
    name = "can_proprietary/drive/command_value"
    port.write(name, 7)
    assert [frame.data.hex() for frame in port.settle()] == ["0700"]
    port.write(name, 7)
    assert port.settle() == []


def test_without_retries_the_first_deadline_is_a_timeout():
    port = Port([query(CYCLIC, interval=100, response_timeout=50)])
    assert frames_of(port, 260) == [(100, "0000"), (250, "0000")]
    assert port.events == ["drive/query transaction timeout"]
    assert port.status == {"drive": SILENT}


def test_a_request_is_resent_and_answered():
    port = Port([query(CYCLIC, interval=100, response_timeout=50, retries=2)])
    assert [at for at, _ in frames_of(port, 220)] == [100, 150, 200]
    port.receive(0x581, b"\1\2")
    port.settle()
    assert port.events == ["drive/query transaction success"]
    assert port.shown_tags()["can_proprietary/drive/query_answer"] == 0x201
    assert [at for at, _ in frames_of(port, 330)] == [320]


def test_a_response_of_another_length_fails_the_request():
    port = Port([query(CYCLIC, interval=100, response_timeout=50)])
    port.run(110)
    port.receive(0x581, b"")
    port.settle()
    assert port.events == ["drive/query transaction failed"]
    assert port.waiting is None


def test_nothing_else_is_sent_while_a_bootup_request_waits():
    pace = Transaction("drive", "pace", PRODUCE, (Frame(0x300, 0),), interval=10)
    port = Port([pace, query(BOOTUP, response_timeout=60000)])
    assert {frame.can_id for frame in port.run(500)} == {0x601}
    port.receive(0x581, b"\0\0")
    assert {frame.can_id for frame in port.run(520)} == {0x300}


def test_of_two_requests_the_second_waits_for_the_first():
    other = Transaction(
        "drive",
        "other",
        REQUEST,
        (Frame(0x602, 2, (VALUE,), 2), Frame(0x582, 0, (), 3)),
        trigger=ON_CHANGE,
        response_timeout=60000,
    )
    port = Port([query(CYCLIC, interval=10, response_timeout=60000), other])
    assert [frame.can_id for frame in port.run(20)] == [0x601]
    port.write("can_proprietary/drive/other_value", 1)
    assert port.run(30) == []
    port.receive(0x581, b"\0\0")
    assert [frame.can_id for frame in port.run(60)] == [0x602]


def test_of_two_consumers_of_one_identifier_the_later_gets_the_frame():
    twin = Transaction("drive", "twin", CONSUME, STATE.frames)
    port = Port([STATE, twin])
    port.receive(0x181, b"\1\0")
    port.settle()
    assert port.shown_tags() == {
        "can_proprietary/drive/state_v": 0,
        "can_proprietary/drive/twin_v": 1,
    }


def test_a_silent_device_times_out_again_and_again():
    pace = Transaction("drive", "pace", PRODUCE, (Frame(0x300, 0),), interval=10)
    heard = Transaction("drive", "heard", CONSUME, STATE.frames, has_timeout=True, timeout=200)
    port = Port([pace, heard])
    port.run(650)
    assert port.results[1].failures == 3
    assert port.status == {"drive": SILENT}


def test_without_transactions_a_pass_waits_a_second():
    assert Port([]).wait() == 1000


def test_a_fault_value_is_sent_once_and_ends_with_a_write():
    tag = Tag("value", 6, 2, access="wo", fault="CDAB")
    command = Transaction(
        "drive",
        "command",
        PRODUCE,
        (Frame(0x201, 2, (tag,)),),
        trigger=ON_CHANGE,
        protection=2,
        protection_timeout=1000,
    )
    port = Port([command])
    assert [data for _, data in frames_of(port, 4000)] == ["cdab"]
    name = "can_proprietary/drive/command_value"
    assert port.shown_tags()[name] == 0xABCD
    port.write(name, 5)
    assert [data for _, data in frames_of(port, 4500)] == ["0500"]
    assert [data for _, data in frames_of(port, 9000)] == ["cdab"]


def test_a_transaction_without_a_slot_reports_into_the_first():
    many = [Transaction("d", f"x{i}", CONSUME, (Frame(i, 0, (), 1),)) for i in range(257)]
    port = Port(many)
    port.receive(256, b"\0")
    port.settle()
    assert len(port.results) == 256
    assert port.events == ["d/x0 transaction failed"]
    assert port.results[0].failures == 1
