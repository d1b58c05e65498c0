"""CAN frames as candump tells them, their length on the wire, and the load that they make."""

import collections
import functools
import subprocess
import threading
import time
from typing import NamedTuple

RATE_WINDOW_S = 5.0
FRAMES_KEPT = 200
IDENTIFIERS_KEPT = 4096
AGAIN_S = 0.5

STANDARD_DIGITS = 3  # candump writes an extended identifier with eight
ERROR_FLAG = 0x20000000
CRC_POLYNOMIAL = 0x4599
CRC_BITS = 15
# CRC delimiter, acknowledge slot and delimiter, seven bits end of frame, three until the next one
UNSTUFFED_BITS = 1 + 1 + 1 + 7 + 3


class Frame(NamedTuple):
    time: float  # monotonic, of its arrival here
    port: str
    text: str  # as candump -L writes it: 123#0102, 12345678#, 321#R4

    @property
    def is_extended(self) -> bool:
        return self.text.index("#") > STANDARD_DIGITS

    @property
    def is_remote(self) -> bool:
        return "#R" in self.text

    @property
    def is_error(self) -> bool:
        return self.is_extended and bool(int(self.text.partition("#")[0], 16) & ERROR_FLAG)

    @property
    def can_id(self) -> int:
        return int(self.text.partition("#")[0], 16)

    @property
    def data(self) -> bytes:
        return b"" if self.is_remote else bytes.fromhex(self.text.partition("#")[2])


def crc15(bits: str) -> int:
    crc = 0
    for bit in bits:
        top = crc >> (CRC_BITS - 1)
        crc = (crc << 1) & ((1 << CRC_BITS) - 1)
        if top != int(bit):
            crc ^= CRC_POLYNOMIAL
    return crc


def stuff_bits(bits: str) -> int:
    """After five equal bits an opposite one is put in, which counts for the next five."""
    stuffed = run = 0
    last = ""
    for bit in bits:
        run = run + 1 if bit == last else 1
        last = bit
        if run == 5:
            stuffed += 1
            run = 1
            last = "1" if bit == "0" else "0"
    return stuffed


@functools.lru_cache(maxsize=4096)
def wire_bits(text: str) -> int:
    """The bit times that a frame takes, its own stuff bits and the pause behind it included.

    The fields are those of the classic data and remote frame in ISO 11898-1; stuffing reaches from
    the start of frame to the end of the CRC sequence. Without it a frame with n data bytes
    takes 47 + 8n bits, or 67 + 8n with an extended identifier.
    """
    identifier, _, content = text.partition("#")
    remote = content.startswith("R")
    length = int(content[1:] or 0, 16) if remote else len(content) // 2
    rtr = "1" if remote else "0"
    if len(identifier) > STANDARD_DIGITS:
        number = f"{int(identifier, 16) & 0x1FFFFFFF:029b}"
        head = "0" + number[:11] + "11" + number[11:] + rtr + "00"
    else:
        head = "0" + f"{int(identifier, 16):011b}" + rtr + "00"
    data = "" if remote else "".join(f"{byte:08b}" for byte in bytes.fromhex(content))
    covered = head + f"{min(length, 15):04b}" + data
    covered += f"{crc15(covered):015b}"
    return len(covered) + stuff_bits(covered) + UNSTUFFED_BITS


class Traffic(NamedTuple):
    frames_per_s: float
    bits_per_s: float


class Frames:
    """Follows the ports through candump, started again when it ends."""

    def __init__(self, ports: list[str], on_frame=None):
        self.recent: collections.deque[Frame] = collections.deque(maxlen=FRAMES_KEPT)
        self.latest: dict[tuple[str, str], Frame] = {}  # by port and identifier
        self.listens = True
        self._windows = {port: collections.deque() for port in ports}
        self._begin = time.monotonic()
        self._on_frame = on_frame
        self._lock = threading.Lock()
        self._stopping = threading.Event()
        # It ends with the view, also when that is killed.
        self._command = ["setpriv", "--pdeathsig", "TERM", "candump", "-L", "-D", *ports]
        self._process = self._start()
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _start(self) -> subprocess.Popen:
        return subprocess.Popen(
            self._command,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
            text=True,
            errors="replace",
            start_new_session=True,  # Ctrl-C is for the view, which then ends candump
        )

    def _read(self) -> None:
        while True:
            for line in self._process.stdout:
                self.listens = True
                self._take(line.split())
            self._process.wait()
            self.listens = False
            if self._stopping.wait(AGAIN_S):
                return
            self._process = self._start()
            if self._stopping.is_set():
                self._process.terminate()

    def _take(self, words: list[str]) -> None:
        if len(words) != 3 or words[1] not in self._windows or "##" in words[2]:
            return
        frame = Frame(time.monotonic(), words[1], words[2])
        with self._lock:
            self.recent.append(frame)
            if not frame.is_error:
                key = frame.port, frame.text.partition("#")[0]
                if key in self.latest or len(self.latest) < IDENTIFIERS_KEPT:
                    self.latest[key] = frame
                self._windows[frame.port].append((frame.time, wire_bits(frame.text)))
        if self._on_frame:
            self._on_frame(frame)

    def traffic(self) -> dict[str, Traffic]:
        """Of each port over the last seconds, or since the begin when that is shorter ago."""
        now = time.monotonic()
        window = min(RATE_WINDOW_S, max(now - self._begin, 0.1))
        with self._lock:
            for entries in self._windows.values():
                while entries and entries[0][0] < now - window:
                    entries.popleft()
            return {
                port: Traffic(len(entries) / window, sum(bits for _, bits in entries) / window)
                for port, entries in self._windows.items()
            }

    def last(self, count: int) -> list[Frame]:
        with self._lock:
            return list(self.recent)[-count:] if count > 0 else []

    def stop(self) -> None:
        self._stopping.set()
        self._process.terminate()
        self._thread.join()
