"""What only a 32-bit machine can show."""

import contextlib
import http.client
import os
import struct
import subprocess
import time

import pytest

from kt_system import lane
from kt_system.lane import scaled, wait_until
from kt_system.rows import U16, consume, device, frame, tag

# 2040-01-01 00:00:00 UTC; a signed number of 32 bits holds seconds until January 2038.
AFTER_2038 = 2208988800

# Unit tests that need more of a kernel than qemu-user has: robust mutexes, filters of system calls.
UNIT_TESTS = [
    "dx_cost.write_notify_and_read_make_no_system_call_while_nobody_watches",
    "dx_crash.registration_goes_on_after_its_owner_died_in_a_change",
    "dx_crash.stopped_owner_of_the_registration_is_an_error_and_no_hang",
]


def run(*command: str) -> str:
    result = subprocess.run(command, capture_output=True, text=True, timeout=scaled(60))
    assert result.returncode == 0, result.stdout[-4000:] + result.stderr[-4000:]
    return result.stdout


@contextlib.contextmanager
def clock_at(seconds: int, scratch):
    """The machine's clock shows another time. Debian's Python for this architecture knows none beyond
    2038: inside, nothing may ask it for the time, or for a file that was written there."""
    right = time.time() - time.monotonic()
    run("date", "-s", f"@{seconds}")
    try:
        yield
    finally:
        run("date", "-s", f"@{right + time.monotonic():.0f}")
        run("sh", "-c", f"touch /run /run/* /run/*/* /run/*/*/* {scratch} {scratch}/*")


def test_the_machine_and_the_programs_have_32_bits():
    assert os.uname().machine.startswith("armv7")
    header = open(lane.program("kt-can-proprietary"), "rb").read(20)
    elf_class, (machine,) = header[4], struct.unpack_from("<H", header, 18)
    assert (elf_class, machine) == (1, 40)


@pytest.mark.parametrize("name", UNIT_TESTS)
def test_a_unit_test_that_needs_a_kernel(name):
    output = run(lane.program("dx_test"), f"--gtest_filter={name}")
    assert "[  PASSED  ] 1 test." in output
    assert "[  SKIPPED ]" not in output


def test_times_go_on_beyond_2038(gateway):
    gateway.configure(device("drive", consume("state", frame(0x181, 2, tag("speed", U16)))))
    gateway.start()
    gateway.record(1, True)
    with clock_at(AFTER_2038, gateway.scratch):
        run("cansend", "can0", "181#00")
        events = "cat /run/kt-event-agent/events.jsonl 2>/dev/null || true"
        wait_until(lambda: run("sh", "-c", events), 10, "an event")
        connection = http.client.HTTPConnection(gateway.rest_address, timeout=scaled(10))
        connection.request("GET", "/CAN-proprietary/traffic-export/1")
        answer = connection.getresponse()
    assert gateway.events()[-1]["time"].startswith("2040-01-01T00:")
    assert answer.status == 200
    assert "2040" in answer.headers["Content-Disposition"]
    assert b"181" in answer.read()
