"""SIGTERM in the middle of everything, and what it leaves behind."""

import random
import shutil
import subprocess
import threading
import time

import pytest

from kt_system import lane
from kt_system.rows import (
    BOOTUP,
    FAULT_VALUE,
    ON_CHANGE,
    U16,
    U32,
    consume,
    device,
    frame,
    produce,
    request,
    tag,
)
from kt_system.tags import block_tag


# Received identifiers are the configuration's, not a port's: the ports need different ones.
RECEIVED = [base + port for base in (0x180, 0x580, 0x590) for port in (1, 2)]


def busy_devices():
    """Every kind of transaction on both ports, none of whose partners answers reliably."""
    return [
        device(
            f"device{port}",
            produce("hello", frame(0x100, 0), trigger=BOOTUP),
            produce("cyclic", frame(0x201, 2, tag("t", U16, access="wo")), interval=10),
            produce(
                "change",
                frame(0x202, 2, tag("t", U16, access="wo", fpData="FFFF")),
                trigger=ON_CHANGE,
                fpFunc=FAULT_VALUE,
                fpTimeout=100,
                triggerByRTR=1,
            ),
            consume("state", frame(0x180 + port, 4, tag("v", U32)), timeout=50),
            request(
                "query",
                frame(0x601, 2, tag("t", U16, access="wo")),
                frame(0x580 + port, 2, tag("v", U16)),
                interval=20,
                timeout=10,
                retry=1,
            ),
            request(
                "ask",
                frame(0x602, 2, tag("t", U16, access="wo")),
                frame(0x590 + port, 2, tag("v", U16)),
                trigger=ON_CHANGE,
                timeout=10,
            ),
            port=port,
        )
        for port in (1, 2)
    ]


class Traffic:
    """A bus that never rests, from a thread of its own per port."""

    def __init__(self, bus):
        self.ended = threading.Event()
        self.threads = [
            threading.Thread(target=self.run, args=(bus(port), seed), daemon=True)
            for seed, port in enumerate(lane.PORTS)
        ]

    def run(self, node, seed):
        chance = random.Random(seed)
        while not self.ended.is_set():
            can_id = chance.choice([*RECEIVED, 0x202, 0x7F0])
            if chance.random() < 0.1:
                node.send_remote(can_id, 0)
            else:
                node.send(can_id, chance.randbytes(chance.randrange(9)))
            node.drain()

    def __enter__(self):
        for thread in self.threads:
            thread.start()
        return self

    def __exit__(self, *_):
        self.ended.set()
        for thread in self.threads:
            thread.join()


@pytest.mark.parametrize("seed", range(4))
def test_sigterm_in_the_middle_of_everything(gateway, bus, tags, seed):
    gateway.configure(*busy_devices())
    gateway.start()
    gateway.record(1, True)
    writes = 2 if lane.KERNEL else 9  # each is a program, whose start there takes a second
    with Traffic(bus):
        chance = random.Random(seed)
        for value in range(1, 1 + writes):
            for port in (1, 2):
                for name in ("cyclic", "change", "ask"):
                    tags.set(block_tag(f"device{port}", name, "t"), value)
        time.sleep(chance.random() * 0.3)
        gateway.stop(nudge=False)
    assert tags.names() == set()
    assert gateway.messages == []


def test_sigterm_during_the_initial_delay(gateway):
    gateway.configure(sql="UPDATE interface_setting SET initialDelay = 60000")
    gateway.start(wait=False)
    lane.wait_until(lambda: gateway.path("/run/kt-platform/led3").exists())
    gateway.stop(nudge=False)


@pytest.mark.slow
def test_no_leak_over_a_start_three_restarts_and_a_stop(gateway, bus):
    if shutil.which("valgrind") is None or "san/" in str(lane.BIN):
        pytest.skip("valgrind is not for this build")
    gateway.configure(*busy_devices())
    gateway.start(
        wait=False,
        wrapper=("valgrind", "--leak-check=full", "--error-exitcode=98", "--quiet",
                 "--errors-for-leak-kinds=definite,indirect,possible"),
    )
    gateway.wait_ready(120)
    with Traffic(bus):
        for _ in range(3):
            time.sleep(0.5)
            gateway.apply()
        time.sleep(0.5)
        gateway.stop(timeout=120)


def test_memory_of_two_ports_with_64_devices_of_4_transactions(gateway):
    """The gateway has little of it. Slots, tags and records of 256 transactions are all touched."""
    if "san/" in str(lane.BIN):
        pytest.skip("a sanitizer's memory says nothing")
    gateway.configure(
        *(
            device(
                f"device{number}",
                *(
                    consume(
                        f"state{i}",
                        frame(
                            number * 4 + i + 1, 8, *(tag(f"v{k}", U16, 2 * k) for k in range(4))
                        ),
                    )
                    for i in range(4)
                ),
                port=1 + number % 2,
            )
            for number in range(64)
        )
    )
    gateway.start(wait=False)
    gateway.wait_ready(60)
    status = subprocess.run(
        ["cat", f"/proc/{gateway.process.pid}/status"], capture_output=True, text=True, check=True
    ).stdout
    resident_kib = int(status.split("VmRSS:")[1].split()[0])
    print(f"resident: {resident_kib} KiB")
    assert resident_kib < 16 * 1024
