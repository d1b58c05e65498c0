"""Where the tests run: over kt-softcan on this machine, or on a SocketCAN kernel with vcan ports
(lane K, on 32-bit ARM lane A) or with controllers (lane C)."""

import os
import pathlib
import time

REPO = pathlib.Path(__file__).resolve().parents[3]
BIN = pathlib.Path(os.environ.get("KT_BIN", REPO / "build/release/bin"))
LANE = os.environ.get("KT_LANE", "")
CONTROLLERS = LANE == "controllers"
ARM = LANE == "arm"
KERNEL = LANE in ("kernel", "controllers", "arm")
PORTS = ("can0", "can1")

# The other end of a port's bus, where that is an interface of its own
FAR_ENDS = {"can0": "can2", "can1": "can3"} if CONTROLLERS else {}


def on_a_guest() -> bool:
    """Whether this machine is one that a lane made."""
    return (
        "User Mode Linux" in pathlib.Path("/proc/cpuinfo").read_text("ascii")
        or " kt.lane=" in pathlib.Path("/proc/cmdline").read_text("ascii")
    )


# On a kernel the service's folders are emptied for every test: never do that to a real machine.
if KERNEL and not on_a_guest():
    raise SystemExit(f"KT_LANE={LANE} is for the lane scripts in tests/support only")

# Sanitizers and the user-mode kernel are slow; every deadline stretches, no interval does.
TIME_FACTOR = float(os.environ.get("KT_TIME_FACTOR", "1"))

SANITIZER_STATUS = 97
THREAD_SANITIZER = "tsan" in BIN.parts


def scaled(seconds: float) -> float:
    """A deadline for this lane."""
    return seconds * TIME_FACTOR


def program(name: str) -> str:
    return str(BIN / name)


def far_end(port: str) -> str:
    """The interface at which another node of the port's bus sits."""
    return FAR_ENDS.get(port, port)


def helper(name: str) -> str:
    """A program or library of the tests: a plain build's, whatever the service carries, where this
    processor runs it."""
    plain = REPO / "build/release" / name
    return str(plain if plain.exists() and not ARM else BIN.parent / name)


def wait_until(predicate, timeout: float = 5.0, what="the condition"):
    """Poll until predicate() is truthy and return that value; what may be a function."""
    deadline = time.monotonic() + scaled(timeout)
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() > deadline:
            text = what() if callable(what) else what
            raise AssertionError(f"{text}: not within {scaled(timeout):g} s")
        time.sleep(0.005)


def sanitizer_environment() -> dict[str, str]:
    return {
        "ASAN_OPTIONS": f"detect_leaks=1:exitcode={SANITIZER_STATUS}:verify_asan_link_order=0",
        "LSAN_OPTIONS": f"exitcode={SANITIZER_STATUS}",
        "UBSAN_OPTIONS": "print_stacktrace=1:halt_on_error=1",
        "TSAN_OPTIONS": f"exitcode={SANITIZER_STATUS}:second_deadlock_stack=1"
        f":suppressions={REPO}/tests/support/tsan.supp",
    }


def sanitizer_report(text: str) -> str:
    """The part of a program's output that a sanitizer wrote, empty when none did."""
    for mark in ("Sanitizer", "runtime error:"):
        if mark in text:
            return text[max(0, text.index(mark) - 200) :]
    return ""
