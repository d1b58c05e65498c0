"""Error frames: bus state, counters, events and the LED."""

from kt_system.bus import (
    ERROR_BUS_OFF,
    ERROR_CONTROLLER,
    ERROR_PROTOCOL,
    ERROR_RESTARTED,
)
from kt_system.lane import wait_until
from kt_system.rows import U16, consume, device, frame, tag

PASSIVE, ACTIVE, WARNING = "0010", "0040", "0004"


def start(gateway):
    """With a device on each port: a port that starts late would set the LED to normal again."""
    heard = [consume("state", frame(can_id, 2, tag("speed", U16))) for can_id in (0x181, 0x182)]
    gateway.configure(device("drive", heard[0]), device("other", heard[1], port=2))
    gateway.start()


def wait_state(gateway, state):
    wait_until(
        lambda: gateway.diagnose(1)["state"] == state, 5, lambda: f"{state}: {gateway.diagnose(1)}"
    )


def wait_led(gateway, text):
    wait_until(lambda: text in gateway.led(), 5, lambda: f"LED {text!r}: {gateway.led()!r}")


def test_the_bus_state_walks_through_error_passive_and_bus_off_and_back(gateway, bus):
    start(gateway)
    node = bus()
    wait_state(gateway, "Normal")
    wait_led(gateway, "state 1")
    node.send_error(ERROR_CONTROLLER, WARNING)
    wait_state(gateway, "Error active")
    node.send_error(ERROR_CONTROLLER, PASSIVE)
    wait_state(gateway, "Error passive")
    gateway.wait_event("CAN Proprietary:CAN Error Passive", "CAN Proprietary CAN Error Passive")
    wait_led(gateway, "state 4")
    assert "count 2 on_ms 50 period_ms 1000" in gateway.led()
    node.send(0x181, "00")  # a failing transaction does not outrank the bus
    gateway.wait_event("CAN Proprietary:Transaction Failed", "drive/state transaction failed")
    assert "count 2 on_ms 50 period_ms 1000" in gateway.led()
    node.send_error(ERROR_BUS_OFF)
    wait_state(gateway, "Bus off")
    gateway.wait_event("CAN Proprietary:CAN bus-off", "CAN Proprietary CAN bus-off")
    wait_led(gateway, "state 3")
    node.send_error(ERROR_RESTARTED)
    wait_state(gateway, "Normal")
    wait_led(gateway, "state 1")
    assert gateway.diagnose(1)["busOffCount"] == 1
    assert gateway.diagnose(2)["state"] == "Normal"


def test_back_to_error_active_shows_failed_transactions_again(gateway, bus):
    start(gateway)
    node = bus()
    node.send(0x181, "00")
    wait_led(gateway, "state 4")
    assert "count 1 on_ms 1000" in gateway.led()
    node.send_error(ERROR_CONTROLLER, PASSIVE)
    wait_led(gateway, "count 2 on_ms 50")
    node.send_error(ERROR_CONTROLLER, ACTIVE)
    wait_state(gateway, "Normal")
    node.send(0x181, "0000")
    wait_led(gateway, "state 1")


def test_protocol_errors_are_counted_when_they_come_with_a_controller_class(gateway, bus):
    start(gateway)
    node = bus()
    both = ERROR_PROTOCOL | ERROR_CONTROLLER
    wait_state(gateway, "Normal")
    node.send_error(both, "0000 10 00")  # bit error, recessive
    node.send_error(both, "0000 08 00")  # bit error, dominant
    node.send_error(both, "0000 04 08")  # stuff error in the CRC sequence
    wait_until(lambda: gateway.diagnose(1)["crcError"] == 1)
    counters = gateway.diagnose(1)
    assert (counters["bitError"], counters["stuffError"], counters["crcError"]) == (2, 1, 1)
    assert counters["rxCount"] == 0


def test_ten_failures_in_a_row_raise_one_event_and_count_ten(gateway, bus):
    start(gateway)
    node = bus()
    for _ in range(10):
        node.send(0x181, "00")
    wait_until(lambda: gateway.failures("drive", "state") == 10)
    node.send(0x181, "0000")
    gateway.wait_event("CAN Proprietary:Transaction Success", "drive/state transaction success")
    names = [event["name"] for event in gateway.events()]
    assert names.count("CAN Proprietary:Transaction Failed") == 1
    assert names.count("CAN Proprietary:Transaction Success") == 1
    assert all(event["host"].startswith("Host ") for event in gateway.events())
