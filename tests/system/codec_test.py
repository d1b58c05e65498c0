"""Swap modes and scaling, from the frame to the tag and from the tag to the frame."""

import struct

import pytest

from kt_system.rows import (
    F32,
    F64,
    I8,
    I16,
    I32,
    I64,
    ON_CHANGE,
    RAW,
    U8,
    U16,
    U32,
    U64,
    consume,
    device,
    frame,
    points,
    produce,
    slope,
    tag,
)
from kt_system.tags import block_tag

VALUE = block_tag("drive", "state", "value")

SWAPPED = {
    0: "0102030405060708",
    1: "0201040306050807",
    2: "0304010207080506",
    3: "0403020108070605",
    4: "0807060504030201",
    5: "0708050603040102",
    6: "0102030405060708",
}


@pytest.mark.parametrize("mode", SWAPPED)
def test_swap_of_received_bytes(gateway, bus, tags, mode):
    gateway.configure(
        device("drive", consume("state", frame(0x181, 8, tag("value", RAW, size=8, swap=mode))))
    )
    gateway.start()
    bus().send(0x181, SWAPPED[0])
    tags.wait_for(VALUE, lambda text: text.lower() == SWAPPED[mode])


@pytest.mark.parametrize("mode", SWAPPED)
def test_swap_of_sent_bytes(gateway, bus, tags, mode):
    gateway.configure(
        device(
            "drive",
            produce(
                "command",
                frame(0x201, 8, tag("value", RAW, size=8, access="wo", swap=mode)),
                trigger=ON_CHANGE,
            ),
        )
    )
    gateway.start()
    node = bus()
    tags.set(block_tag("drive", "command", "value"), SWAPPED[0])
    node.expect(0x201, SWAPPED[mode])


# type, struct format, raw value, value by slope 2.5 and offset 1, value by points (0, 10) to (5, 25)
SCALED = [
    (I8, "<b", -10, -24, -15),
    (I16, "<h", -1000, -2499, -1995),
    (I32, "<i", -100000, -249999, -199995),
    (I64, "<q", -10_000_000_000, -24_999_999_999, -19_999_999_995),
    (U8, "<B", 10, 26, 25),
    (U16, "<H", 1000, 2501, 2005),
    (U32, "<I", 100000, 250001, 200005),
    (U64, "<Q", 10_000_000_000, 25_000_000_001, 20_000_000_005),
    (F32, "<f", 1.5, 4.75, 8.0),
    (F64, "<d", -1.25, -2.125, 2.5),
]


@pytest.mark.parametrize(
    ("kind", "layout", "raw", "by_slope", "by_points"), SCALED, ids=lambda v: str(v)
)
def test_scaling_of_every_type(gateway, bus, tags, kind, layout, raw, by_slope, by_points):
    gateway.configure(
        device(
            "drive",
            consume("state", frame(0x181, 8, tag("value", kind, **slope(2.5, 1)))),
            consume("line", frame(0x182, 8, tag("value", kind, **points((0, 10), (5, 25))))),
        )
    )
    gateway.start()
    data = struct.pack(layout, raw).ljust(8, b"\0")
    node = bus()
    node.send(0x181, data)
    node.send(0x182, data)
    tags.wait_for(VALUE, by_slope)
    tags.wait_for(block_tag("drive", "line", "value"), by_points)


def test_slope_and_offset_are_those_of_the_point_columns(gateway, bus, tags):
    columns = dict(slope(2, 5), interceptSlope=100, interceptOffset=1000)
    gateway.configure(
        device("drive", consume("state", frame(0x181, 2, tag("value", U16, **columns))))
    )
    gateway.start()
    bus().send(0x181, "0A00")
    tags.wait_for(VALUE, 25)


def test_a_result_is_saturated_to_32_bits_and_then_cut(gateway, bus, tags):
    gateway.configure(
        device(
            "drive",
            consume("state", frame(0x181, 1, tag("value", U8, **slope(3)))),
            consume("equal", frame(0x182, 1, tag("value", U8, **points((5, 5), (0, 10))))),
        )
    )
    gateway.start()
    node = bus()
    node.send(0x181, "64")
    tags.wait_for(VALUE, 300 - 256)
    node.send(0x182, "07")
    gateway.wait_event("CAN Proprietary:Transaction Success", "drive/equal transaction success")
    assert tags.get(block_tag("drive", "equal", "value")) in (0, 255)


def test_written_values_are_not_scaled(gateway, bus, tags):
    gateway.configure(
        device(
            "drive",
            produce(
                "command",
                frame(0x201, 2, tag("value", U16, access="wo", **slope(10, 5))),
                trigger=ON_CHANGE,
            ),
        )
    )
    gateway.start()
    node = bus()
    tags.set(block_tag("drive", "command", "value"), 7)
    node.expect(0x201, "0700")


def test_a_block_beyond_the_frame_reads_zero_and_reaches_nothing(gateway, bus, tags):
    gateway.configure(
        device(
            "drive",
            consume("state", frame(0x181, 8, tag("value", U64, 7, size=8))),
            produce(
                "command", frame(0x201, 8, tag("value", U64, 7, access="wo")), trigger=ON_CHANGE
            ),
        )
    )
    gateway.start()
    node = bus()
    node.send(0x181, "FFFFFFFFFFFFFF 2A")
    tags.wait_for(VALUE, 0x2A)
    tags.set(block_tag("drive", "command", "value"), 0x1122334455667788)
    node.expect(0x201, "00000000000000 88")
