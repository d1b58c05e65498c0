"""Shifted clocks for the programs under test; see tests/support/clock_shift.cpp."""

import os
import pathlib
import struct
import time

from . import lane

WHOLE_TURN, HALF_TURN = 1 << 32, 1 << 31  # where 32-bit milliseconds wrap, and change their sign

# Every start of a service comes so many seconds before the wrap of its clock: any system test then
# runs across it.
WRAP_SECONDS = os.environ.get("KT_CLOCK_WRAP", "")


def preload() -> str:
    others = [name for name in os.environ.get("LD_PRELOAD", "").split(":") if name]
    return ":".join([lane.helper("lib/libclock-shift.so"), *others])


def shifted(monotonic_ms: int) -> dict[str, str]:
    """Variables under which a program's monotonic clock is ahead of the machine's."""
    return {"LD_PRELOAD": preload(), "KT_CLOCK_MONOTONIC_MS": str(monotonic_ms)}


class WallClock:
    """The time of day as the service sees it: the machine's own on a kernel of the test's, a
    preloaded one elsewhere. Put back with close()."""

    def __init__(self, scratch: pathlib.Path):
        self._file = scratch / "wall-clock"
        self._ahead = 0.0
        self._start = (time.time(), time.monotonic())
        self._write()

    @property
    def environment(self) -> dict[str, str]:
        if lane.KERNEL:
            return {}
        return {"LD_PRELOAD": preload(), "KT_CLOCK_WALL": str(self._file)}

    def now(self) -> float:
        start, monotonic = self._start
        return start + time.monotonic() - monotonic + self._ahead

    def jump(self, hours: float) -> None:
        self._ahead += 3600 * hours
        if lane.KERNEL:
            time.clock_settime(time.CLOCK_REALTIME, self.now())
        else:
            self._write()

    def close(self) -> None:
        if self._ahead:
            self.jump(-self._ahead / 3600)

    def _write(self) -> None:
        """In place: the file is mapped."""
        flags = os.O_RDWR | os.O_CREAT
        fd = os.open(self._file, flags, 0o600)
        os.pwrite(fd, struct.pack("=q", round(1000 * self._ahead)), 0)
        os.close(fd)
