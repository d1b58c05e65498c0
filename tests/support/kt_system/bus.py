"""A CAN port as another node sees it: through python-can, and through candump."""

import contextlib
import errno
import socket
import time

import can
import pytest

from . import lane
from .lane import scaled, wait_until
from .processes import LineReader

ERROR_PROTOCOL, ERROR_CONTROLLER, ERROR_BUS_OFF, ERROR_RESTARTED = 0x8, 0x4, 0x40, 0x100
ERROR_FLAG = 0x20000000

SO_RCVBUFFORCE = 33  # Python has no name for it


def bytes_of(data: bytes | str) -> bytes:
    """Bytes, or hexadecimal text with or without blanks."""
    return bytes.fromhex(data) if isinstance(data, str) else bytes(data)


def text_of(message: can.Message) -> str:
    kind = "E" if message.is_error_frame else "R" if message.is_remote_frame else "#"
    width = 8 if message.is_extended_id else 3
    return f"{message.arbitration_id:0{width}X}{kind}{message.data.hex().upper()}"


class Bus:
    """A node on one port. Frames wait in its socket until a method looks at them; each method
    takes frames in the order of arrival and passes over those that it is not asked for."""

    def __init__(self, port: str):
        self.port = port
        self.seen: list[can.Message] = []
        self._bus = can.interface.Bus(port, interface="socketcan")
        # Room for what comes while a test looks elsewhere or stands still; by default 250 frames.
        with contextlib.suppress(PermissionError):
            self._bus.socket.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 4 << 20)

    def close(self) -> None:
        self._bus.shutdown()

    def send(
        self,
        can_id: int,
        data: bytes | str = b"",
        *,
        extended: bool = False,
        remote: bool = False,
        dlc: int | None = None,
    ) -> None:
        payload = bytes_of(data)
        length = len(payload) if dlc is None else dlc
        if lane.CONTROLLERS and remote and length:
            pytest.skip("the emulated controllers lose their place after a remote frame's length")
        message = can.Message(
            arbitration_id=can_id,
            data=None if remote else payload,
            dlc=length,
            is_extended_id=extended,
            is_remote_frame=remote,
        )
        self._send(message)

    def send_remote(self, can_id: int, dlc: int = 0, *, extended: bool = False) -> None:
        self.send(can_id, remote=True, dlc=dlc, extended=extended)

    def send_error(self, error_class: int, data: bytes | str = b"") -> None:
        """An error frame, as a controller's driver reports it."""
        payload = bytes_of(data).ljust(8, b"\0")
        self._send(
            can.Message(
                arbitration_id=error_class, data=payload, is_error_frame=True, is_extended_id=False
            )
        )

    def receive(self, timeout: float) -> can.Message | None:
        """The next frame, or None. The port may go down and up in between."""
        deadline = time.monotonic() + timeout
        while True:
            try:
                message = self._bus.recv(max(0.0, deadline - time.monotonic()))
            except can.CanError as error:
                if not _is_passing(error):
                    raise
                message = None
            if message is not None:
                self.seen.append(message)
                return message
            if time.monotonic() >= deadline:
                return None

    def expect(
        self,
        can_id: int,
        data: bytes | str | None = None,
        timeout: float = 2.0,
        *,
        remote: bool = False,
        extended: bool | None = None,
    ) -> can.Message:
        """The next frame with this identifier (and these data bytes)."""
        wanted = None if data is None else bytes_of(data)
        start = len(self.seen)
        deadline = time.monotonic() + scaled(timeout)
        while True:
            message = self.receive(max(0.0, deadline - time.monotonic()))
            if message is None:
                break
            if _matches(message, can_id, wanted, remote, extended):
                return message
        passed = [text_of(m) for m in self.seen[start:]]
        what = f"{can_id:03X}" + ("" if wanted is None else "#" + wanted.hex().upper())
        raise AssertionError(f"{self.port}: no {what} within {scaled(timeout):g} s, only {passed}")

    def expect_none(self, can_id: int | None = None, seconds: float = 0.3) -> None:
        """No frame (with this identifier) within the time; the time does not stretch."""
        frames = self.collect(seconds, can_id)
        assert not frames, f"{self.port}: unexpected {[text_of(m) for m in frames]}"

    def collect(self, seconds: float, can_id: int | None = None) -> list[can.Message]:
        """The frames (with this identifier) that arrive within the time."""
        deadline = time.monotonic() + seconds
        frames = []
        while (message := self.receive(max(0.0, deadline - time.monotonic()))) is not None:
            if can_id is None or message.arbitration_id == can_id:
                frames.append(message)
        return frames

    def drain(self) -> list[can.Message]:
        """Take what has arrived so far."""
        return self.collect(0.0)

    def _send(self, message: can.Message) -> None:
        """The port goes down and up while the service sets its bit rate; wait for it."""

        def sent() -> bool:
            try:
                self._bus.send(message, timeout=scaled(2.0))  # waits for room in the queue
            except can.CanError as error:
                if not _is_passing(error):
                    raise
                return False
            return True

        wait_until(sent, 5.0, f"{self.port} to be up")


def _is_passing(error: can.CanError) -> bool:
    return getattr(error, "error_code", None) in (errno.ENETDOWN, errno.ENXIO, errno.ENOBUFS)


def _matches(
    message: can.Message,
    can_id: int,
    data: bytes | None,
    remote: bool,
    extended: bool | None,
) -> bool:
    return (
        message.arbitration_id == can_id
        and not message.is_error_frame
        and message.is_remote_frame == remote
        and (extended is None or message.is_extended_id == extended)
        and (data is None or message.data == data)
    )


def wait_writes_taken(node: Bus, can_id: int, tags, name: str) -> None:
    """What was written to tags of the other port before: one thread takes the writes of both. The
    tag of four bytes goes out at each change; of two such frames, one after the other, the second
    was not taken together with the first."""
    for value in (1, 2):
        tags.set(name, value)
        node.expect(can_id, value.to_bytes(4, "little"), 5.0)


class Candump(LineReader):
    """candump in its log format: lines such as "(1700000000.000000) can0 123#0102"."""

    PROBE = "7FF#4B5450524F4245"  # carried by no configuration

    def __init__(self, port: str, *options: str):
        super().__init__(["candump", "-L", "-D", *options, port])
        with can.interface.Bus(port, interface="socketcan") as bus:
            probe = can.Message(arbitration_id=0x7FF, data=b"KTPROBE", is_extended_id=False)
            wait_until(lambda: bus.send(probe) or self._probed(), 5.0, "candump to listen")

    def _probed(self) -> bool:
        return any(self.PROBE in line for line in list(self.lines))

    @property
    def frames(self) -> list[str]:
        """What was seen, as "123#0102"."""
        return [text for line in list(self.lines) if self.PROBE not in (text := line.split()[-1])]

    def wait_frame(self, text: str, timeout: float = 2.0) -> None:
        wait_until(
            lambda: text in self.frames, timeout, lambda: f"frame {text}, only {self.frames}"
        )
