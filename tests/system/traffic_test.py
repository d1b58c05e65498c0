"""Traffic recording as files."""

import json
import re

from kt_system.lane import wait_until
from kt_system.rows import U16, consume, device, frame, listeners, produce, tag
from kt_system.tags import block_tag

FOLDER = "/run/tmp/kt-can-proprietary"
HEADER = "No.,Time,Direction,CAN-ID,RTR,Data length,Data\n"
LIMIT = 384000


def csv(gateway, port=0):
    return gateway.path(f"{FOLDER}/traffic-log{port}.csv")


def lines(gateway, port=0):
    return [
        json.loads(line)
        for line in gateway.path(f"{FOLDER}/traffic-log{port}.json").read_text().splitlines()
    ]


def rows(gateway, port=0):
    """Rows of the CSV file, which is written after the line of the other file."""
    return csv(gateway, port).read_text().splitlines()[1:]


def wait_all_taken(gateway, node, value, tag_name="can_proprietary/ear1/state_v"):
    """Once the value of the next frame is there the port has no frame before it left to record."""
    node.send(0x181, value.to_bytes(2, "little"))
    gateway.tags.wait_for(tag_name, value)


def test_frames_are_recorded_between_start_and_stop(gateway, bus):
    gateway.configure(
        device(
            "drive",
            consume("state", frame(0x181, 2, tag("speed", U16))),
            produce("answer", frame(0x201, 2), trigger=1, triggerByRTR=1),
        )
    )
    gateway.start()
    node = bus()
    node.send(0x7F0, "FF")
    wait_all_taken(gateway, node, 0x0101, block_tag("drive", "state", "speed"))
    gateway.record(1, True)
    assert csv(gateway).read_text() == HEADER
    node.send(0x123, "01A0")
    node.send_remote(0x201, 0)
    node.expect(0x201, "0000")
    wait_until(lambda: len(rows(gateway)) == 3)
    gateway.record(1, False)
    node.send(0x7F0, "FF")
    shapes = [re.sub(r",\d+\.\d{3},", ",T,", row) for row in rows(gateway)]
    assert shapes == [
        '1,T,Receive,"0x"123,Data frame,2,"01 A0"',
        '2,T,Receive,"0x"201,Remote Frame,0,""',
        '3,T,Send,"0x"201,Data frame,2,"00 00"',
    ]
    first = lines(gateway)[0]
    assert list(first) == ["time", "direction", "canId", "RTR", "dataLength", "data"]
    assert (first["direction"], first["canId"], first["data"]) == (1, 0x123, "01 A0")
    assert len(lines(gateway)) == 3


def test_extended_identifiers_have_eight_digits(gateway, bus):
    gateway.configure(*listeners(), sql="UPDATE interface_setting SET frameFormat = 1")
    gateway.start()
    gateway.record(1, True)
    bus().send_remote(0x1ABCDEF0, 0, extended=True)
    wait_until(lambda: len(rows(gateway)) == 1)
    assert '"0x"1ABCDEF0,Remote Frame,0,""' in csv(gateway).read_text()


def test_a_recording_stops_by_itself_at_its_limit(gateway, bus):
    gateway.configure(*listeners())
    gateway.start()
    gateway.record(1, True)
    node = bus()
    for sent in range(1, 4301):  # a line takes some 98 bytes
        node.send(0x123, "0011223344556677")
        if sent % 100 == 0:
            wait_until(lambda: gateway.diagnose(1)["rxCount"] >= sent, 20)
    assert not gateway.recording(1)
    sizes = [
        gateway.path(f"{FOLDER}/traffic-log0.{kind}").stat().st_size for kind in ("json", "csv")
    ]
    assert LIMIT - 200 < sizes[0] <= LIMIT + 1 and sizes[1] <= LIMIT
    recorded = len(lines(gateway))
    node.send(0x123, "00")
    wait_all_taken(gateway, node, 1)
    assert len(lines(gateway)) == recorded
    gateway.record(1, True)
    assert csv(gateway).read_text() == HEADER


def test_two_ports_share_the_row_numbers(gateway, bus):
    gateway.configure(*listeners())
    gateway.start()
    gateway.record(1, True)
    gateway.record(2, True)
    nodes = bus("can0"), bus("can1")
    names = [block_tag(f"ear{port}", "state", "v") for port in (1, 2)]
    for turn in range(6):
        # The next number is noted behind the row: the port shares it once the frame shows.
        wait_all_taken(gateway, nodes[turn % 2], turn + 1, names[turn % 2])
    numbers = [[int(row.split(",")[0]) for row in rows(gateway, port)] for port in (0, 1)]
    assert numbers == [[1, 3, 5], [2, 4, 6]]


def test_an_apply_ends_a_recording_and_keeps_its_files(gateway, bus):
    gateway.configure(listeners()[0])  # two of one identifier cannot be applied
    gateway.start()
    gateway.record(1, True)
    node = bus()
    node.send(0x123, "01")
    wait_until(lambda: len(rows(gateway)) == 1)
    recorded = csv(gateway).read_text(), lines(gateway)
    gateway.apply()

    def off() -> bool:
        status, answer = gateway.rest("GET", "/traffic/1")  # refused between two passes
        return status == 200 and answer["data"]["action"] == 0

    wait_until(off)

    def hears() -> bool:
        node.send(0x124)
        return gateway.diagnose(1)["rxCount"] > 0

    wait_until(hears)
    assert (csv(gateway).read_text(), lines(gateway)) == recorded
