"""What the live view shows of the service: tags, what they are made of, and how fresh they are."""

import contextlib
import http.client
import json
import os
import pathlib
import re
import sqlite3
import subprocess
import threading
import time
from dataclasses import dataclass, field

from demonstration import Api, Refused
from frames import Frame

PREFIX = "can_proprietary/"
WORKING_DB = "/run/config/kt-can-proprietary/can_proprietary.db"
STATUS_TEXT = {"0": "ok", str(-0x80000000): "not seen", str(-0x7FFFFFFF): "timeout"}
# transactionState of /diagnose
STATE_TEXT = {-1: "not yet", 0: "", 1: "failed", 2: "timeout"}
FLOAT_TYPES = (9, 10)
OLD_MS = 10_000  # what came in longer ago is called old, whatever its transaction says
POLL_S = 0.5
SLOW_POLLS = 10  # the configuration and the bit rates are asked for that seldom
PATIENCE_S = 5.0
EXTENDED = 1

CONFIGURATION = """
SELECT portId, frameFormat, deviceId, deviceName, transactionName, frameId, canId, dataLength,
       blockType, startOffset, tagName, tagSize, constantSize, constantValue
FROM interface_setting JOIN device USING (portId) JOIN transactions USING (deviceId)
     JOIN frame USING (transactionId) JOIN block USING (frameId)
"""


@dataclass
class FrameShape:
    """A frame of the configuration: how it is told from others."""

    port: str
    identifier: str  # as candump writes it
    length: int
    constants: list[tuple[int, bytes]] = field(default_factory=list)  # offset, bytes

    def fits(self, frame: Frame) -> bool:
        data = frame.data
        return (
            not frame.is_remote
            and len(data) == self.length
            and all(data[at : at + len(part)] == part for at, part in self.constants)
        )


@dataclass(frozen=True)
class Source:
    """Where the bytes of a tag stand."""

    shape: FrameShape
    offset: int
    size: int


@dataclass
class Configuration:
    sources: dict[str, Source] = field(default_factory=dict)  # by "device/transaction_tag"
    device_ports: dict[str, str] = field(default_factory=dict)
    device_ids: dict[str, int] = field(default_factory=dict)
    transactions: dict[str, tuple[str, str]] = field(default_factory=dict)  # of each source


@dataclass
class Tag:
    device: str
    name: str  # without the device
    value: str
    age_ms: int
    is_input: bool
    is_number: bool
    port: str = "-"
    state: str = ""  # empty for a value that is what it looks like
    raw: str = ""  # its bytes in the last frame, as they stand there

    @property
    def full_name(self) -> str:
        return f"{PREFIX}{self.device}/{self.name}"

    @property
    def is_status(self) -> bool:
        return self.name == "status"


@dataclass
class Snapshot:
    time: float
    tags: list[Tag]
    configuration: Configuration
    bit_rates: dict[str, int | None]
    problem: str = ""  # what could not be asked


def value_text(value, kind: int) -> str:
    if value is None:
        return "not a number"
    return f"{value:.2f}" if kind in FLOAT_TYPES else str(value)


def printable(text: str) -> str:
    """Names come from a configuration that anybody may write: no control characters from there."""
    return "".join(sign if sign.isprintable() else "?" for sign in text)


def read_tags(program: str) -> tuple[list[Tag], str]:
    """Every tag, or none and why."""
    try:
        result = subprocess.run(
            [program, "list", PREFIX + "*", "--json"],
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            errors="replace",
            timeout=PATIENCE_S,
        )
        items = [json.loads(line) for line in result.stdout.splitlines()]
    except subprocess.TimeoutExpired:
        return [], "kt-tag does not answer"
    except (OSError, ValueError) as error:
        return [], f"kt-tag: {printable(str(error))}"
    tags = []
    for item in items:
        device, _, name = printable(item["name"].removeprefix(PREFIX)).partition("/")
        value = printable(value_text(item["value"], item["type"]))
        is_number = isinstance(item["value"], (int, float))
        tags.append(Tag(device, name, value, item["age_ms"], item["mode"] == "ro", is_number))
    reason = result.stderr.strip().splitlines()[-1:] if result.returncode else []
    return tags, printable("".join(reason))


def constant_bytes(size: int, text: str) -> bytes:
    """Last byte first; none of a text that is no number, which then tells no frame from another."""
    try:
        return (int(text or "0", 16) % (1 << 8 * size)).to_bytes(size, "little")
    except ValueError:
        return b""


def read_configuration(ports: list[str]) -> Configuration:
    """The working copy; edits that are not applied yet show as well."""
    found = Configuration()
    path = pathlib.Path(os.environ.get("KT_ROOT", "") + WORKING_DB)
    shapes: dict[int, FrameShape] = {}
    with contextlib.closing(sqlite3.connect(f"file:{path}?mode=ro", uri=True, timeout=1)) as db:
        for row in db.execute(CONFIGURATION):
            port, extended, device_id, device, name, frame, can_id, length, kind, *block = row
            if not 1 <= port <= len(ports):
                continue
            digits = 8 if extended == EXTENDED else 3
            shape = shapes.setdefault(
                frame, FrameShape(ports[port - 1], f"{can_id:0{digits}X}", length)
            )
            offset, tag, size, constant_size, constant = block
            found.device_ports[device] = shape.port
            found.device_ids[device] = device_id
            if kind == 0:
                key = f"{device}/{name}_{tag}"
                found.sources[key] = Source(shape, offset, size)
                found.transactions[key] = (device, name)
            else:
                data = constant_bytes(constant_size, constant)
                shape.constants.append((offset, data[: max(0, length - offset)]))
    return found


def read_bit_rate(port: str) -> int | None:
    """As the kernel has it; a virtual interface has none."""
    result = subprocess.run(
        ["ip", "-details", "link", "show", port],
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        errors="replace",
    )
    match = re.search(r"\bbitrate (\d+)", result.stdout)
    return int(match[1]) if match and int(match[1]) else None


def read_states(api: Api, ports: list[str]) -> dict[tuple[str, str], int]:
    """The last result of each transaction, by device and name."""
    states = {}
    for number in range(1, len(ports) + 1):
        for item in api.request("GET", f"/diagnose?portId={number}")["transactionList"]:
            key = item["deviceName"], item["transactionName"]
            states[key] = item["transactionState"]
    return states


class Poller:
    """Asks in a thread of its own, so that the view goes on and can say when there is no answer."""

    def __init__(self, kt_tag: str, ports: list[str], latest: dict, on_change):
        self.snapshot = Snapshot(time.monotonic(), [], Configuration(), {})
        self._kt_tag = kt_tag
        self._ports = ports
        self._latest = latest
        self._on_change = on_change
        self._raw: dict[str, str] = {}  # the last bytes of each tag
        self._api = Api()
        self._stopping = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def stop(self) -> None:
        self._stopping.set()

    def _run(self) -> None:
        count = 0
        while not self._stopping.is_set():
            configuration, bit_rates = self.snapshot.configuration, self.snapshot.bit_rates
            problems = []
            if count % SLOW_POLLS == 0 or not configuration.sources:
                configuration, problem = self._ask_configuration()
                problems.append(problem)
                bit_rates = {port: read_bit_rate(port) for port in self._ports}
            count += 1
            tags, problem = read_tags(self._kt_tag)
            problems.append(problem)
            states, problem = self._ask_states()
            problems.append(problem)
            for tag in tags:
                self._judge(tag, configuration, states)
            tags.sort(key=lambda tag: (self._place(tag.port), tag.device, tag.name))
            said = printable("; ".join(filter(None, problems)))
            self.snapshot = Snapshot(time.monotonic(), tags, configuration, bit_rates, said)
            self._on_change()
            self._stopping.wait(POLL_S)

    def _ask_configuration(self) -> tuple[Configuration, str]:
        """What was known before while it cannot be read."""
        try:
            return read_configuration(self._ports), ""
        except (sqlite3.Error, ValueError) as error:
            return self.snapshot.configuration, f"configuration: {error}"

    def _ask_states(self) -> tuple[dict[tuple[str, str], int], str]:
        try:
            return read_states(self._api, self._ports), ""
        except (OSError, http.client.HTTPException, Refused, KeyError, ValueError) as error:
            return {}, f"REST: {error}"

    def _place(self, port: str) -> int:
        return self._ports.index(port) if port in self._ports else len(self._ports)

    def _judge(self, tag: Tag, configuration: Configuration, states: dict) -> None:
        """Which port a tag is on, how far its value is to be trusted, and its bytes."""
        key = f"{tag.device}/{tag.name}"
        tag.port = configuration.device_ports.get(tag.device, "-")
        if tag.is_status:
            return
        state = states.get(configuration.transactions.get(key, ("", "")))
        tag.state = "unknown" if state is None else STATE_TEXT.get(state, f"state {state}")
        if not tag.state and tag.is_input and tag.age_ms >= OLD_MS:
            tag.state = "old"
        source = configuration.sources.get(key)
        if source is None:
            return
        frame = self._latest.get((source.shape.port, source.shape.identifier))
        if frame is not None and source.shape.fits(frame):
            data = frame.data[source.offset : source.offset + source.size]
            self._raw[key] = data.hex(" ").upper()
        # Another frame may have that identifier too: the last bytes of this one stay.
        tag.raw = self._raw.get(key, "")
