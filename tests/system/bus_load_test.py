"""What a bus can do to the service for long: full load, error frames, a transmit queue that stays
full, an interface that goes, frames of every length. KT_BUS_SECONDS says how long each goes on."""

import contextlib
import errno
import os
import pathlib
import re
import signal
import socket
import struct
import subprocess
import time

import pytest

from kt_system import lane
from kt_system.bus import wait_writes_taken
from kt_system.lane import scaled, wait_until
from kt_system.processes import LineReader
from kt_system.rows import (
    ON_CHANGE,
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
from kt_system.tags import block_tag

SECONDS = float(os.environ.get("KT_BUS_SECONDS", "30"))
FULL_RATE = 9009  # frames with eight bytes that fit into a second of 1 Mbit/s
GROWTH_KIB = 1024

pytestmark = pytest.mark.slow


def cpu_seconds(pid: int) -> float:
    text = pathlib.Path(f"/proc/{pid}/stat").read_text()
    fields = text.rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def cpu_of(gateway) -> float:
    return cpu_seconds(gateway.process.pid)


def resident_kib(gateway) -> int:
    status = pathlib.Path(f"/proc/{gateway.process.pid}/status").read_text()
    return int(re.search(r"VmRSS:\s*(\d+)", status)[1])


def frames_lost(gateway, port: int) -> int:
    """What the service has logged of its socket's drop counter."""
    pattern = re.compile(rf"port_idx = {port - 1}, (\d+) frames lost in the receive buffer")
    texts = (message.text for message in gateway.messages)
    return sum(int(found[1]) for text in texts if (found := pattern.match(text)))


def dropped_by_bus(port: str) -> int:
    """Frames that a kernel too busy to deliver them dropped before any socket."""
    if not lane.KERNEL:
        return 0
    return int(pathlib.Path(f"/sys/class/net/{port}/statistics/rx_dropped").read_text())


@contextlib.contextmanager
def sending(*words: str):
    """load-node send PORT RATE ID [DATA] while the block runs; its line of counts afterwards."""
    with LineReader([lane.helper("bin/load-node"), "send", *words]) as node:
        yield node


def sent_by(node: LineReader) -> int:
    return int(node.lines[-1].split()[1])


def received(gateway, port: int) -> int:
    return gateway.diagnose(port)["rxCount"]


def wait_all_received(gateway, port: int, count: int) -> None:
    """The last frames may wait in the socket; a loss is logged when the port has caught up."""
    wait_until(
        lambda: received(gateway, port) + frames_lost(gateway, port) == count,
        30.0,
        lambda: f"{count} frames: {received(gateway, port)} + {frames_lost(gateway, port)} lost",
    )


def base_device(port: int):
    return device(
        f"base{port}",
        consume("state", frame(0x181, 8, tag("count", U32))),
        produce("command", frame(0x201, 4, tag("target", U32, access="wo")), trigger=ON_CHANGE),
        produce("beat", frame(0x300, 1, constant("mark", "55")), interval=100),
        port=port,
    )


def start(gateway) -> None:
    gateway.configure(base_device(1), base_device(2))
    gateway.start()


def assert_serves(gateway, bus, tags, timeout: float = 5.0) -> None:
    for port, name in enumerate(lane.PORTS, 1):
        node = bus(name)
        node.send(0x181, "EFBEADDE00000000")
        tags.wait_for(block_tag(f"base{port}", "state", "count"), 0xDEADBEEF, timeout)
        tags.set(block_tag(f"base{port}", "command", "target"), 77)
        node.expect(0x201, "4D000000", 5.0)
        assert gateway.rest("GET", "/overview")[0] == 200


def watch_for(gateway, seconds: float) -> tuple[int, int, float]:
    """REST answers all the time; resident memory after a quarter and at the end, slowest answer."""
    end, slowest, early = time.monotonic() + seconds, 0.0, None
    while (now := time.monotonic()) < end:
        assert gateway.rest("GET", "/diagnose?portId=1")[0] == 200
        slowest = max(slowest, time.monotonic() - now)
        if early is None and end - now < 0.75 * seconds:
            early = resident_kib(gateway)
        time.sleep(0.2)
    return early or resident_kib(gateway), resident_kib(gateway), slowest


def test_full_load_on_both_ports_is_counted_to_the_last_frame(gateway, bus, tags, capsys):
    start(gateway)
    cpu = cpu_of(gateway)
    before = [dropped_by_bus(port) for port in lane.PORTS]
    with contextlib.ExitStack() as running:
        nodes = [
            running.enter_context(sending(port, str(FULL_RATE), "181,182,183,184"))
            for port in lane.PORTS
        ]
        early, late, slowest = watch_for(gateway, SECONDS)
    dropped = [dropped_by_bus(port) - count for port, count in zip(lane.PORTS, before)]
    for port, node in enumerate(nodes, 1):
        wait_all_received(gateway, port, sent_by(node) - dropped[port - 1])
    lost = [frames_lost(gateway, port) for port in (1, 2)]
    with capsys.disabled():
        print(
            f"\nfull load: {SECONDS:g} s, {[sent_by(node) for node in nodes]} frames sent,"
            f" {dropped} dropped by the bus, {lost} logged as lost, processor"
            f" {cpu_of(gateway) - cpu:.1f} s, slowest answer {1000 * slowest:.0f} ms,"
            f" RSS {early} to {late} KiB"
        )
    assert late - early < GROWTH_KIB
    assert slowest < scaled(10)
    assert_serves(gateway, bus, tags)


ERRORS = {
    "bus-off": ("20000040", "0000000000000000"),
    "passive": ("20000004", "0010000000000000"),
    "warning and back": ("20000004,20000100", "0004000000000000"),
    "not asked for": ("20000008", "0000100000000000"),
}


@pytest.mark.parametrize("kind", ERRORS)
def test_a_storm_of_error_frames_is_survived(gateway, bus, tags, kind, capsys):
    """An event for each that has one, in a file that stays within its size, and not a word more."""
    start(gateway)
    ids, data = ERRORS[kind]
    log, cpu = len(gateway.stderr), cpu_of(gateway)
    with sending("can0", "2000", ids, data) as node:
        early, late, slowest = watch_for(gateway, SECONDS / len(ERRORS))
    count = sent_by(node)
    if kind == "bus-off":
        wait_until(lambda: gateway.diagnose(1)["busOffCount"] + frames_lost(gateway, 1) == count,
                   60.0, lambda: f"{count}: {gateway.diagnose(1)}")
    assert_serves(gateway, bus, tags, 60.0)  # behind what is left of the storm
    folder = gateway.path("/run/kt-event-agent")
    sizes = {path.name: path.stat().st_size for path in folder.glob("*")}
    with capsys.disabled():
        print(
            f"\nerror frames, {kind}: {count} sent, processor {cpu_of(gateway) - cpu:.1f} s,"
            f" slowest answer {1000 * slowest:.0f} ms, RSS {early} to {late} KiB, events {sizes}"
        )
    assert gateway.stderr[log:] == ""
    if kind in ("warning and back", "not asked for"):
        assert not [event for event in gateway.events() if "Transaction" not in event["name"]]
    assert late - early < GROWTH_KIB
    assert slowest < scaled(10)
    assert sum(sizes.values()) <= 4 << 20


def pending_kinds():
    """Name, row, tag to write; a frame that is refused waits in a queue of its kind."""
    target = tag("target", U16, access="wo")
    return {
        "cyclic": produce("go", frame(0x201, 2, target), interval=50),
        "on change": produce("go", frame(0x201, 2, target), trigger=ON_CHANGE),
        "request": request("go", frame(0x201, 2, target), frame(0x202, 1), trigger=ON_CHANGE,
                           timeout=100),
        "cyclic request": request("go", frame(0x201, 2, target), frame(0x202, 1), interval=50,
                                  timeout=100),
    }


@pytest.mark.parametrize("kind", list(pending_kinds()))
def test_a_queue_that_stays_full_delays_and_loses_nothing(
    gateway, bus, tags, softcan_fault, kind, capsys
):
    gateway.configure(
        device("drive", pending_kinds()[kind]),
        base_device(2),
    )
    gateway.start()
    node = bus()
    name = block_tag("drive", "go", "target")
    softcan_fault("can0", "txfull", "600000")
    node.drain()
    tags.set(name, 1)
    gateway.wait_event("CAN Proprietary:Transaction Failed", "drive/go transaction failed")
    cpu, log, begin = cpu_of(gateway), len(gateway.stderr), time.monotonic()
    refusals = gateway.failures("drive", "go")
    early, late, slowest = watch_for(gateway, SECONDS / 6)
    spent, passed = cpu_of(gateway) - cpu, time.monotonic() - begin
    refusals = gateway.failures("drive", "go") - refusals
    softcan_fault("can0", "error", "4#0004")  # what arrives is served meanwhile
    wait_until(lambda: gateway.diagnose(1)["state"] == "Error active")
    tags.set(name, 2)
    tags.set(name, 3)
    wait_writes_taken(bus(lane.PORTS[1]), 0x201, tags, block_tag("base2", "command", "target"))
    node.expect_none(0x201, 0.3)
    softcan_fault("can0", "txfull", "off")
    assert node.expect(0x201, timeout=5.0).data.hex() == "0300"
    if kind in ("cyclic", "on change"):
        gateway.wait_event("CAN Proprietary:Transaction Success", "drive/go transaction success")
    if kind == "on change":
        node.expect_none(0x201, 0.5)
    with capsys.disabled():
        print(
            f"\nfull queue, {kind}: {passed:.1f} s, {refusals} refusals, processor {spent:.1f} s,"
            f" slowest answer {1000 * slowest:.0f} ms, RSS {early} to {late} KiB"
        )
    assert gateway.stderr[log:] == "" and late - early < GROWTH_KIB and slowest < scaled(10)
    if kind == "cyclic":
        # Nothing asks for haste here: a pass a second, or with what else happens on the port.
        assert spent < 0.5 * passed
    events = [event["message"] for event in gateway.events() if "drive/go" in event["message"]]
    assert len(events) < 20


@pytest.mark.parametrize("pending", [False, True], ids=["idle", "with a frame to send"])
def test_an_interface_that_is_unplugged_comes_back(gateway, bus, tags, interface, pending, capsys):
    start(gateway)
    log, cpu = len(gateway.stderr), cpu_of(gateway)
    begin = time.monotonic()
    interface("can1", False)
    try:
        wait_until(lambda: any("No such device" in m.text for m in gateway.messages), 5.0)
        if pending:
            tags.set(block_tag("base2", "command", "target"), 5)
        early, late, slowest = watch_for(gateway, SECONDS / 6)
        spent, passed = cpu_of(gateway) - cpu, time.monotonic() - begin
        assert late - early < GROWTH_KIB and slowest < scaled(10)
    finally:
        interface("can1", True)
    gateway.wait_logged("can_link_recover", "port_idx = 1, interface can1 is back\n")
    lines = gateway.stderr[log:].count("ERROR")
    with capsys.disabled():
        print(f"\nunplugged: {passed:.1f} s, processor {spent:.1f} s, {lines} log lines")
    assert lines <= 4, gateway.stderr[log:]
    assert_serves(gateway, bus, tags)
    assert spent < 0.5 * passed


def child(process, name: str) -> int:
    command = ["pgrep", "--exact", "--parent", str(process.pid), name[:15]]
    return int(subprocess.run(command, check=True, capture_output=True).stdout)


@pytest.mark.skipif(lane.KERNEL, reason="a kernel's CAN sockets do not end")
def test_a_bus_that_ends_for_good_takes_no_processor_and_no_log(gateway, capsys):
    gateway.configure(base_device(1), base_device(2))
    words = ["run", "--world", "doomed", "--ports", ",".join(lane.PORTS), "--"]
    gateway.start(wrapper=[os.environ["KT_SOFTCAN_PROGRAM"], *words])
    os.kill(child(gateway.process, "softcan-hub"), signal.SIGKILL)
    for port in range(len(lane.PORTS)):
        gateway.wait_logged("can_link_note_error", f"port_idx = {port}, No such device\n")
    service = child(gateway.process, "kt-can-proprietary")
    cpu, begin, log = cpu_seconds(service), time.monotonic(), len(gateway.stderr)
    time.sleep(SECONDS / 10)
    spent, passed = cpu_seconds(service) - cpu, time.monotonic() - begin
    said = gateway.stderr[log:]
    with capsys.disabled():
        print(f"\nended bus: {passed:.1f} s, processor {spent:.1f} s, {len(said)} bytes of log")
    assert "No such device" not in said and len(said) < 1000 * passed, said[:2000]
    assert spent < 0.5 * passed
    gateway.stop(nudge=False)


def open_raw(port: str) -> socket.socket:
    node = socket.socket(socket.AF_CAN, socket.SOCK_RAW, socket.CAN_RAW)
    node.bind((port,))
    return node


def test_frames_of_every_length_code(gateway, bus, tags):
    """What a socket refuses to send never reaches the bus; everything else is counted."""
    start(gateway)
    node = open_raw("can0")
    before, delivered = received(gateway, 1), 0
    for length in range(16):
        for code in (0, 9, 15):  # the length code beside a length of eight
            data = bytes(range(length))[:8].ljust(8, b"\0")
            try:
                node.send(struct.pack("=IBxxB8s", 0x181, length, code, data))
                delivered += 1
            except OSError as error:
                assert error.errno == errno.EINVAL and length > 8
    assert delivered >= 27
    wait_all_received(gateway, 1, before + delivered)
    node.close()
    assert_serves(gateway, bus, tags)


@pytest.mark.skipif(not lane.KERNEL, reason="kt-softcan has classic frames only")
def test_frames_of_can_fd_are_not_seen(gateway, bus, tags, ip):
    """The interface takes them, the service's socket does not ask for them."""
    for port in lane.PORTS:
        ip("link", "set", "down", port)
        ip("link", "set", port, "mtu", "72")
        ip("link", "set", "up", port)
    start(gateway)
    node = open_raw("can0")
    node.setsockopt(socket.SOL_CAN_RAW, socket.CAN_RAW_FD_FRAMES, 1)
    before = received(gateway, 1)
    for length in (0, 1, 8, 12, 48, 64):
        node.send(struct.pack("=IBBxx64s", 0x181, length, 1, bytes(64)))
        node.send(struct.pack("=IB3x8s", 0x181, 8, length.to_bytes(4, "little").ljust(8, b"\0")))
        tags.wait_for(block_tag("base1", "state", "count"), length)
    assert received(gateway, 1) == before + 6
    node.close()
    assert_serves(gateway, bus, tags)
    for port in lane.PORTS:
        ip("link", "set", "down", port)
        ip("link", "set", port, "mtu", "16")
        ip("link", "set", "up", port)
