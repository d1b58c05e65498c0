"""The service on CAN controllers: what it sets in them, and what it does when one goes away.

A port of the gateway and the node at the far end of its bus are two interfaces, so that every frame
crosses a wire. bus() and candump() are at the far end; here() is on the gateway's side of it.
"""

import json
import os
import pathlib
import subprocess

import pytest

from kt_system import lane
from kt_system.bus import (
    ERROR_BUS_OFF,
    ERROR_CONTROLLER,
    ERROR_RESTARTED,
    Bus,
    Candump,
)
from kt_system.lane import wait_until
from kt_system.rows import ON_CHANGE, U16, U32, consume, device, frame, produce, request, tag
from kt_system.tags import block_tag, status_tag

BIT_RATES = [10000, 20000, 50000, 125000, 250000, 500000, 800000, 1000000]
FALLBACK = 125000
DRIVER = pathlib.Path("/sys/bus/pci/drivers/kvaser_pci")
STATE = block_tag("drive", "state", "speed")


def drive(name: str = "drive", port: int = 1):
    received = frame(0x180 + port, 2, tag("speed", U16))
    return device(name, consume("state", received), port=port)


def settings(port: int = 1, **columns) -> str:
    changes = ", ".join(f"{name} = {value}" for name, value in columns.items())
    return f"UPDATE interface_setting SET {changes} WHERE portId = {port};"


@pytest.fixture
def link(ip):
    """link("can0"): what the kernel says of the interface, the controller's part under "can"."""

    def ask(port: str) -> dict:
        (found,) = json.loads(ip("-d", "-j", "link", "show", port))
        return {**found, "can": found["linkinfo"]["info_data"]}

    return ask


@pytest.fixture
def here():
    """here("can0"): a node that shares the gateway's own interface."""
    nodes = []

    def make(port: str = "can0") -> Bus:
        nodes.append(Bus(port))
        return nodes[-1]

    yield make
    for node in nodes:
        node.close()


@pytest.fixture
def controller():
    """controller.unplug(port) and .plug_in(port); at the end of a test everything is back."""

    class Controllers:
        gone: dict[str, str] = {}

        def unplug(self, port: str) -> None:
            address = pathlib.Path(f"/sys/class/net/{port}/device").resolve().name
            self.gone[port] = address
            (DRIVER / "unbind").write_text(address)
            assert not pathlib.Path(f"/sys/class/net/{port}").exists()

        def plug_in(self, port: str) -> None:
            (DRIVER / "bind").write_text(self.gone.pop(port))
            assert pathlib.Path(f"/sys/class/net/{port}").exists()

    controllers = Controllers()
    yield controllers
    for port in list(controllers.gone):
        controllers.plug_in(port)


def assert_hears(bus, tags, value: int, name: str = "drive", port: int = 1) -> None:
    bus(lane.PORTS[port - 1]).send(0x180 + port, value.to_bytes(2, "little"))
    tags.wait_for(block_tag(name, "state", "speed"), value)


def sockets_of(gateway) -> int:
    descriptors = pathlib.Path(f"/proc/{gateway.process.pid}/fd").iterdir()
    return sum("socket:" in os.readlink(descriptor) for descriptor in descriptors)


def is_up(interface: dict) -> bool:
    return "UP" in interface["flags"] and interface["can"]["state"] == "ERROR-ACTIVE"


# Settings --------------------------------------------------------------------------------------


@pytest.mark.parametrize("code", range(len(BIT_RATES)))
def test_the_controller_gets_the_bit_rate_of_the_code(gateway, bus, tags, link, code):
    gateway.configure(drive(), drive("other", 2), sql=settings(baudrate=code))
    gateway.start()
    first, second = link("can0"), link("can1")
    assert first["can"]["bittiming"]["bitrate"] == BIT_RATES[code]
    assert second["can"]["bittiming"]["bitrate"] == FALLBACK
    assert is_up(first) and is_up(second)
    assert_hears(bus, tags, 0x1234)
    assert gateway.messages == []


@pytest.mark.parametrize("code", [8, 9, 255, 2147483647, -1])
def test_a_code_without_a_meaning_gives_125_kbit(gateway, bus, tags, link, code):
    gateway.configure(drive(), sql=settings(baudrate=code))
    gateway.start()
    assert link("can0")["can"]["bittiming"]["bitrate"] == FALLBACK
    assert is_up(link("can0"))
    assert_hears(bus, tags, 0x1234)


def test_bus_off_reset_is_a_restart_of_the_controller_after_a_second(gateway, link):
    gateway.configure(drive(), drive("other", 2), sql=settings(busOffReset=1))
    gateway.start()
    assert link("can0")["can"]["restart_ms"] == 1000
    assert link("can1")["can"].get("restart_ms", 0) == 0
    gateway.restart_with(drive(), sql=settings(port=2, busOffReset=1))
    assert link("can0")["can"].get("restart_ms", 0) == 0
    assert link("can1")["can"]["restart_ms"] == 1000


def test_what_somebody_else_had_set_is_replaced(gateway, bus, tags, ip, link):
    ip("link", "set", "can0", "down")
    ip("link", "set", "can0", "type", "can", "bitrate", "1000000", "restart-ms", "77")
    ip("link", "set", "can0", "up")
    gateway.configure(drive(), sql=settings(baudrate=4))
    gateway.start()
    found = link("can0")
    assert (found["can"]["bittiming"]["bitrate"], found["can"].get("restart_ms", 0)) == (250000, 0)
    assert_hears(bus, tags, 0x1234)


def test_applied_settings_reach_the_controller(gateway, bus, tags, link):
    gateway.configure(drive())
    gateway.start()
    gateway.asked("PATCH", "/interface/1", {
        "frameFormat": 0, "baudrate": 7, "initialDelay": 0, "busOffReset": True, "resistor": False,
    })
    assert link("can0")["can"]["bittiming"]["bitrate"] == FALLBACK
    gateway.apply()
    wait_until(lambda: link("can0")["can"].get("bittiming", {}).get("bitrate") == 1000000)
    wait_until(lambda: is_up(link("can0")))
    assert link("can0")["can"]["restart_ms"] == 1000
    gateway.wait_ready()
    assert_hears(bus, tags, 0x1234)


@pytest.mark.parametrize("resistor", [0, 1])
def test_a_controller_without_termination_works_whatever_is_wanted(
    gateway, bus, tags, link, resistor
):
    gateway.configure(drive(), sql=settings(resistor=resistor))
    gateway.start()
    assert "termination" not in link("can0")["can"]
    assert is_up(link("can0"))
    assert_hears(bus, tags, 0x1234)
    assert gateway.messages == []


# Frames ----------------------------------------------------------------------------------------


def test_the_clients_people_use_meet_the_service_across_the_wire(gateway, candump, tags):
    gateway.configure(
        device(
            "drive",
            consume("state", frame(0x181, 2, tag("speed", U16))),
            produce("command", frame(0x201, 4, tag("target", U32, access="wo")), trigger=ON_CHANGE),
        )
    )
    gateway.start()
    dump = candump()
    subprocess.run(["cansend", "can2", "181#3412"], check=True)
    tags.wait_for(STATE, 0x1234)
    tags.set(block_tag("drive", "command", "target"), 0xDEADBEEF)
    dump.wait_frame("201#EFBEADDE")


def test_every_kind_of_frame_crosses_the_wire_unchanged(gateway, bus, here, candump):
    """Where the service's side hears something else, its tests prove less than they say."""
    gateway.configure(drive())
    gateway.start()
    near, far, dump = here(), bus(), Candump("can0")
    try:
        for length in range(9):
            far.send(0x100 + length, bytes(range(length)))
            near.expect(0x100 + length, bytes(range(length)), extended=False)
        far.send(0x1ABCDEF0, "0102030405060708", extended=True)
        near.expect(0x1ABCDEF0, "0102030405060708", extended=True)
        far.send_remote(0x321)
        near.expect(0x321, remote=True)
        dump.wait_frame("321#R")
        near.send(0x7FF, "FF")
        far.expect(0x7FF, "FF")
    finally:
        dump.stop()


def test_a_burst_is_counted_to_the_last_frame(gateway, bus, tags):
    gateway.configure(drive())
    gateway.start()
    node, count = bus(), 3000
    for number in range(count):
        node.send(0x181, number.to_bytes(2, "little"))
    tags.wait_for(STATE, count - 1, 30.0)
    assert gateway.diagnose(1)["rxCount"] == count
    assert gateway.messages == []


def test_a_request_and_its_response_cross_the_wire(gateway, bus, tags):
    gateway.configure(
        device(
            "drive",
            request(
                "ask",
                frame(0x601, 2, tag("question", U16, access="wo")),
                frame(0x581, 4, tag("answer", U32)),
                interval=100,
                timeout=2000,
            ),
        )
    )
    gateway.start()
    node = bus()
    tags.set(block_tag("drive", "ask", "question"), 0x0042)
    node.expect(0x601, "4200")
    node.send(0x581, "78563412")
    tags.wait_for(block_tag("drive", "ask", "answer"), 0x12345678)


# Down, up, away, back --------------------------------------------------------------------------


def test_an_interface_that_is_set_down_and_up_serves_again(gateway, bus, tags, ip, link):
    gateway.configure(drive(), drive("other", 2), sql=settings(baudrate=5))
    gateway.start()
    assert_hears(bus, tags, 0x0101)
    ip("link", "set", "can0", "down")
    gateway.wait_logged("can_link_note_error", "port_idx = 0, Network is down\n")
    assert link("can0")["can"]["state"] == "STOPPED"
    assert_hears(bus, tags, 0x0202, "other", 2)
    assert tags.get(STATE) == 0x0101
    ip("link", "set", "can0", "up")
    assert_hears(bus, tags, 0x0303)
    assert link("can0")["can"]["bittiming"]["bitrate"] == 500000


def test_sending_goes_on_when_the_interface_is_up_again(gateway, bus, ip):
    gateway.configure(device("drive", produce("command", frame(0x201, 2), interval=50)))
    gateway.start()
    node = bus()
    node.expect(0x201)
    ip("link", "set", "can0", "down")
    wait_until(lambda: gateway.failures("drive", "command") > 0)
    node.drain()
    ip("link", "set", "can0", "up")
    node.expect(0x201)
    gateway.wait_event("CAN Proprietary:Transaction Success", "drive/command transaction success")


def test_a_controller_that_comes_back_is_set_up_anew(gateway, bus, tags, controller, link):
    columns = {"baudrate": 6, "busOffReset": 1}
    gateway.configure(drive(), drive("other", 2), sql=settings(**columns))
    gateway.start()
    assert_hears(bus, tags, 0x0101)
    before = link("can0")["ifindex"]
    controller.unplug("can0")
    gateway.wait_logged("can_link_note_error", "port_idx = 0, No such device\n")
    assert_hears(bus, tags, 0x0202, "other", 2)
    assert tags.get(STATE) == 0x0101
    assert gateway.diagnose(1)["rxCount"] == 1
    controller.plug_in("can0")
    gateway.wait_logged("can_link_recover", "port_idx = 0, interface can0 is back\n")
    found = link("can0")
    assert found["ifindex"] != before
    assert (found["can"]["bittiming"]["bitrate"], found["can"]["restart_ms"]) == (800000, 1000)
    assert is_up(found)
    assert_hears(bus, tags, 0x0303)
    assert gateway.diagnose(1)["rxCount"] == 2


def test_a_controller_may_go_and_come_many_times(gateway, bus, tags, controller):
    gateway.configure(drive())
    gateway.start()
    sockets = sockets_of(gateway)
    for turn in range(1, 6):
        assert_hears(bus, tags, turn)
        controller.unplug("can0")
        gateway.wait_logged("can_link_note_error", "port_idx = 0, No such device\n")
        controller.plug_in("can0")
        back = ("ERROR", "can_link_recover", "port_idx = 0, interface can0 is back\n")
        wait_until(lambda: gateway.messages.count(back) == turn, 10)
    assert_hears(bus, tags, 0x1234)
    assert sockets_of(gateway) == sockets


def test_what_is_to_be_sent_meanwhile_fails_and_is_sent_again_later(
    gateway, bus, tags, controller
):
    gateway.configure(device("drive", produce("command", frame(0x201, 2), interval=50)))
    gateway.start()
    node = bus()
    node.expect(0x201)
    controller.unplug("can0")
    wait_until(lambda: gateway.failures("drive", "command") > 0)
    gateway.wait_event("CAN Proprietary:Transaction Failed", "drive/command transaction failed")
    node.drain()
    controller.plug_in("can0")
    node.expect(0x201, timeout=5.0)
    gateway.wait_event("CAN Proprietary:Transaction Success", "drive/command transaction success")


def test_the_service_stops_while_a_controller_is_away(gateway, controller):
    gateway.configure(drive(), drive("other", 2))
    gateway.start()
    controller.unplug("can0")
    gateway.wait_logged("can_link_note_error", "port_idx = 0, No such device\n")
    gateway.stop(nudge=False)


def test_a_port_without_its_controller_at_the_start_runs_from_the_next_apply(
    gateway, bus, tags, controller, link
):
    gateway.configure(drive(), drive("other", 2), sql=settings(baudrate=4))
    controller.unplug("can0")
    gateway.start(wait=False)
    gateway.wait_logged("can_port_handler", "port_idx = 0, cfd = -1\n")
    wait_until(lambda: tags.find(block_tag("other", "state", "speed")), 10)
    assert_hears(bus, tags, 0x0202, "other", 2)
    assert tags.find(STATE) is None
    controller.plug_in("can0")
    gateway.apply()
    gateway.wait_ready()
    assert link("can0")["can"]["bittiming"]["bitrate"] == 250000
    assert_hears(bus, tags, 0x0101)


# States and errors -----------------------------------------------------------------------------


def test_a_controller_at_work_is_error_active_and_the_bus_normal(gateway, bus, tags, link):
    gateway.configure(drive())
    gateway.start()
    assert_hears(bus, tags, 0x1234)
    can = link("can0")["can"]
    assert (can["state"], can["berr_counter"]) == ("ERROR-ACTIVE", {"tx": 0, "rx": 0})
    assert gateway.diagnose(1)["state"] == "Normal"
    assert gateway.diagnose(1)["busOffCount"] == 0


def test_error_frames_reach_the_service_on_a_controller_interface(gateway, bus, here, tags):
    """The emulated controllers make no errors: their interface echoes the frames that it is given."""
    gateway.configure(drive())
    gateway.start()
    near = here()

    def wait_state(text: str) -> None:
        wait_until(lambda: gateway.diagnose(1)["state"] == text, 5, text)

    near.send_error(ERROR_CONTROLLER, "0004")
    wait_state("Error active")
    near.send_error(ERROR_CONTROLLER, "0010")
    wait_state("Error passive")
    near.send_error(ERROR_BUS_OFF)
    wait_state("Bus off")
    gateway.wait_event("CAN Proprietary:CAN bus-off", "CAN Proprietary CAN bus-off")
    assert gateway.led().startswith("state 3")
    near.send_error(ERROR_RESTARTED)
    wait_state("Normal")
    assert gateway.diagnose(1)["busOffCount"] == 1
    assert_hears(bus, tags, 0x1234)
