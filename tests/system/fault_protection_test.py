"""Fault values for sent tags that nobody updates."""

import time

import pytest

from kt_system.lane import scaled
from kt_system.rows import FAULT_VALUE, FAULT_ZERO, ON_CHANGE, U16, device, frame, produce, tag
from kt_system.tags import block_tag

TARGET = block_tag("drive", "command", "target")
FAULT_BYTES = {FAULT_ZERO: "0000", FAULT_VALUE: "CDAB"}


def start_with_a_command(gateway, **columns) -> None:
    """The service with one device whose only transaction sends the tag."""
    sent = frame(0x201, 2, tag("target", U16, access="wo", fpData="CDAB"))
    gateway.configure(device("drive", produce("command", sent, **columns)))
    gateway.start()


@pytest.mark.parametrize("function", FAULT_BYTES)
def test_an_on_change_frame_carries_the_fault_value_and_recovers(gateway, bus, tags, function):
    start_with_a_command(gateway, trigger=ON_CHANGE, fpFunc=function, fpTimeout=600)
    node = bus()
    tags.set(TARGET, 0x1234)
    node.expect(0x201, "3412")
    node.expect(0x201, FAULT_BYTES[function])
    fault = int.from_bytes(bytes.fromhex(FAULT_BYTES[function]), "little")
    tags.wait_for(TARGET, fault)
    node.expect_none(0x201, 1.0)
    tags.set(TARGET, 0x5678)
    node.expect(0x201, "7856")
    node.expect(0x201, FAULT_BYTES[function])


@pytest.mark.parametrize("function", FAULT_BYTES)
def test_a_cyclic_frame_carries_the_fault_value_and_recovers(gateway, bus, tags, function):
    start_with_a_command(gateway, interval=50, fpFunc=function, fpTimeout=600)
    node = bus()
    tags.set(TARGET, 0x1234)
    node.expect(0x201, "3412")
    node.expect(0x201, FAULT_BYTES[function])
    tags.set(TARGET, 0x5678)
    node.expect(0x201, "7856")


def test_a_value_that_is_written_again_in_time_stays(gateway, bus, tags):
    timeout = scaled(2.0)
    columns = {"fpFunc": FAULT_ZERO, "fpTimeout": round(1000 * timeout)}
    start_with_a_command(gateway, trigger=ON_CHANGE, **columns)
    node = bus()
    tags.set(TARGET, 0x1234)
    node.expect(0x201, "3412")
    end = time.monotonic() + 1.3 * timeout
    while time.monotonic() < end:
        tags.set(TARGET, 0x1234)
        node.expect_none(0x201, 0.2)
    assert tags.get(TARGET) == 0x1234


def test_without_fault_protection_a_value_stays(gateway, bus, tags):
    start_with_a_command(gateway, interval=100, fpTimeout=100)
    node = bus()
    tags.set(TARGET, 0x1234)
    node.expect(0x201, "3412")
    assert {bytes(m.data) for m in node.collect(0.6, 0x201)} == {b"\x34\x12"}
