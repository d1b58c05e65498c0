"""Configuration files: built, generated at random, sent and fetched by clients.

What the service writes and reads is worked out here a second time, from the rules alone.
"""

import random
import string
import subprocess
import tempfile
from dataclasses import dataclass, field

from .lane import scaled
from .rest import Answer

TABLES = ("interface_setting", "device", "transactions", "frame", "block")
HEADS = ("[interface-setting]", "[device]", "[transactions]", "[frame]", "[block]")
COLUMNS = (
    "portId,frameFormat,baudrate,initialDelay,busOffReset,resistor",
    "deviceId,portId,deviceName",
    "transactionId,deviceId,transactionEnable,transactionName,transactionType,triggerMode,"
    "cyclicInterval,fpFunc,fpTimeout,triggerByRTR,consumeToutEnable,consumeTimeout,timeoutRetry,"
    "responseTimeout",
    "frameId,transactionId,canId,dataLength,frameType",
    "blockId,frameId,blockType,startOffset,tagName,tagType,tagSize,access,swap,fpData,scalingFunc,"
    "interceptSlope,interceptOffset,pointSourceMin,pointSourceMax,pointTargetMin,pointTargetMax,"
    "constantName,constantSize,constantValue",
)
PORTS, DEVICES, TRANSACTIONS, FRAMES, BLOCKS = range(5)

UPLOAD_FILE = "/run/tmp/kt-can-proprietary/tmp.csv"
FILE_FOLDER = "/run/tmp/kt-can-proprietary"
SUCCESS = b'{"data":{"response":"success"}}'


def default_rows() -> list[list[str]]:
    """A transaction of each type on two devices, each kind of block."""
    return [
        ["1,0,3,0,0,0", "2,1,7,500,1,1"],
        ["1,1,drive", "2,2,sensor"],
        [
            "1,1,1,state,1,,,,,,1,200,,",
            "2,1,1,command,0,0,500,2,300,1,,,,",
            "3,2,0,poll,2,1,,0,,,,,3,250",
        ],
        ["1,1,181,8,1", "2,2,201,2,0", "3,3,1ABCDEF0,1,2", "4,3,1ABCDEF1,8,3"],
        [
            "1,1,0,0,speed,6,2,ro,1,,0,,,,,,,,,",
            "2,1,0,2,temp,6,2,ro,0,,2,,,0.000000,100.000000,-40.000000,85.500000,,,",
            "3,1,1,7,,,,,,,,,,,,,,kind,1,5A",
            "4,2,0,0,target,6,2,wo,0,0102,0,,,,,,,,,",
            "5,3,1,0,,,,,,,,,,,,,,ask,2,0ABC",
            "6,4,0,0,raw,13,4,ro,0,,,,,,,,,,,",
        ],
    ]


@dataclass
class ConfigFile:
    """A file, section by section; rows are lines without their ends."""

    rows: list[list[str]] = field(default_factory=default_rows)

    def section(self, index: int) -> str:
        return "\n".join([HEADS[index], COLUMNS[index], *self.rows[index], ""]) + "\n"

    @property
    def text(self) -> str:
        return "version: 1.0.0\n\n" + "".join(self.section(index) for index in range(5))

    def with_rows(self, index: int, *lines: str) -> "ConfigFile":
        """These rows in place of a section's; the sections below it are emptied."""
        rows = [list(lines) if i == index else [] if i > index else r for i, r in
                enumerate(self.rows)]
        return ConfigFile(rows)

    def changed(self, old: str, new: str) -> str:
        """Its text with a part that occurs replaced once."""
        assert old in self.text, old
        return self.text.replace(old, new, 1)


# Rows that a table holds and the lines that stand for them ---------------------------------------

TRANSACTION_DEFAULTS = (0, 1000, 0, 10000, 0, 0, 10000, 0, 1000)
TAG_DEFAULTS = ("tag", 13, 1, "ro", 0, "", 0)
SCALING_DEFAULTS = (1.0, 0.0, 0.0, 1.0, 0.0, 1.0)
CONSTANT_DEFAULTS = ("constantName", 1, "")

SCALING_INTERCEPT, SCALING_POINTS = 1, 2
FAULT_VALUE = 2


def transaction_line(row: tuple) -> str:
    kind, trigger, protection, timeout = row[4], row[5], row[7], row[10]
    sends = kind in (0, 2)
    relevant = (
        sends,
        sends and trigger == 0,
        sends,
        sends and protection in (1, 2),
        kind == 0,
        kind == 1,
        kind == 1 and timeout == 1,
        kind == 2,
        kind == 2,
    )
    rest = [str(value) if shown else "" for value, shown in zip(row[5:], relevant)]
    return ",".join([*map(str, row[:5]), *rest])


def block_line(row: tuple, has_fault_value: bool) -> str:
    start = [str(value) for value in row[:4]]
    if row[2] == 1:
        name, size, value = row[17:]
        digits = f"{int(value or '0', 16):0{2 * size}X}"
        return ",".join([*start, *[""] * 13, name, str(size), digits])
    tag_type, function = row[5], row[10]
    scalable = tag_type != 13
    slots = row[13:17]  # those that slope and offset share with the points
    shown = ["", "", "", "", "", ""]
    if scalable and function == SCALING_INTERCEPT:
        shown[0:2] = [f"{value:f}" for value in slots[:2]]
    if scalable and function == SCALING_POINTS:
        shown[2:6] = [f"{value:f}" for value in slots]
    tag = [str(value) for value in row[4:9]]
    fault_value = row[9] if has_fault_value else ""
    scaling = [str(function) if scalable else ""]
    return ",".join([*start, *tag, fault_value, *scaling, *shown, "", "", ""])


@dataclass
class Configuration:
    """Rows of the five tables in the order of their keys."""

    tables: list[list[tuple]]

    @property
    def sql(self) -> str:
        """Makes a database hold these rows and no others."""
        lines = ["BEGIN;", "PRAGMA foreign_keys = ON;", "DELETE FROM interface_setting;"]
        for table, rows in zip(TABLES, self.tables):
            for row in rows:
                values = ",".join(
                    f"'{value}'" if isinstance(value, str) else repr(value) for value in row
                )
                lines.append(f"INSERT INTO {table} VALUES ({values});")
        return "".join([*lines, "COMMIT;"])

    @property
    def file(self) -> ConfigFile:
        protection = {row[0]: row[7] for row in self.tables[TRANSACTIONS]}
        valued = {row[0] for row in self.tables[FRAMES] if protection[row[1]] == FAULT_VALUE}
        plain = [[",".join(map(str, row)) for row in rows] for rows in self.tables[:2]]
        return ConfigFile(
            [
                *plain,
                [transaction_line(row) for row in self.tables[TRANSACTIONS]],
                [f"{f},{t},{can_id:X},{length},{kind}" for f, t, can_id, length, kind in
                 self.tables[FRAMES]],
                [block_line(row, row[1] in valued) for row in self.tables[BLOCKS]],
            ]
        )

    @property
    def after_import(self) -> list[list[tuple]]:
        """What an import of its file leaves: slope and offset keep to their own columns, and the
        points that they were read from hold their defaults."""
        blocks = [
            (*row[:11], *row[13:15], *SCALING_DEFAULTS[2:], *row[17:])
            if row[2] == 0 and row[10] == SCALING_INTERCEPT
            else row
            for row in self.tables[BLOCKS]
        ]
        return [*self.tables[:BLOCKS], blocks]


NAME_SIGNS = string.ascii_letters + string.digits + "-._~"


class Generator:
    """Valid configurations at random, the same ones for the same seed."""

    def __init__(self, seed: int):
        self.random = random.Random(seed)

    def name(self, used: set[str], longest: int = 64) -> str:
        while True:
            length = self.random.randint(1, longest)
            name = "".join(self.random.choices(NAME_SIGNS, k=length))
            if name not in used and name not in ("NULL", "tag"):
                used.add(name)
                return name

    def keys(self, count: int, largest: int) -> list[int]:
        return sorted(self.random.sample(range(largest + 1), count))

    def hexadecimal(self, digits: int) -> str:
        return f"{self.random.getrandbits(4 * digits):0{digits}X}"

    def real(self) -> float:
        """Six decimals hold it exactly."""
        return self.random.randint(-(10**6), 10**6) / 64

    def configuration(self, devices: int, transactions: int, blocks: int) -> Configuration:
        """blocks: most per frame."""
        ports = [(1, *self.port()), (2, *self.port())]
        owners = [
            (key, self.random.randint(1, 2), self.name(set())) for key in self.keys(devices, 255)
        ]
        names: dict[int, set[str]] = {key: set() for key, _, _ in owners}
        exchanges = [self.transaction(key, names) for key in self.keys(transactions, 65535)]
        wanted = [row for row in exchanges for _ in range(2 if row[4] > 1 else 1)]
        frames = [
            self.frame(key, row) for key, row in zip(self.keys(len(wanted), 65535), wanted)
        ]
        rows = []
        for one, row in zip(frames, wanted):
            rows += self.blocks(one[0], row[7] == FAULT_VALUE, blocks)
        keys = self.keys(len(rows), 65535)
        return Configuration(
            [ports, owners, exchanges, frames, [(key, *row) for key, row in zip(keys, rows)]]
        )

    def port(self) -> tuple:
        one = self.random
        flags = one.choices((0, 1), k=2)
        return (one.randint(0, 1), one.randint(0, 7), one.randint(0, 120000), *flags)

    def transaction(self, key: int, names: dict[int, set[str]]) -> tuple:
        one = self.random
        device = one.choice(sorted(names))
        kind = one.choice((0, 1, 2, 2, 3))
        values = list(TRANSACTION_DEFAULTS)
        if kind in (0, 2):
            values[0] = one.randint(0, 3)
            values[2] = one.randint(0, 3)
            if values[0] == 0:
                values[1] = one.choice((-(2**31), 0, 10, 65535, 2**31 - 1))
            if values[2] in (1, 2):
                values[3] = one.randint(0, 65535)
        if kind == 0:
            values[4] = one.randint(0, 255)
        if kind == 1:
            values[5] = one.randint(0, 2)
            if values[5] == 1:
                values[6] = one.randint(0, 65535)
        if kind == 2:
            values[7] = one.randint(0, 255)
            values[8] = one.randint(0, 65535)
        return (key, device, one.randint(0, 1), self.name(names[device]), kind, *values)

    def frame(self, key: int, transaction: tuple) -> tuple:
        one = self.random
        can_id = one.choice((0, 0x1FFFFFFF, one.randint(0, 0x7FF), one.randint(0, 0x1FFFFFFF)))
        return (key, transaction[0], can_id, one.randint(0, 8), one.randint(0, 3))

    def blocks(self, frame: int, has_fault_value: bool, most: int) -> list[tuple]:
        """Tags first: a constant in front of them counts as a tag."""
        one = self.random
        names: set[str] = set()
        room = 8
        found = []
        for _ in range(one.randint(0, most)):
            size = one.randint(1, 8)
            if size <= room and one.random() < 0.8:
                room -= size
                found.append((frame, *self.tag(names, size, has_fault_value)))
        for _ in range(one.randint(0, most - len(found))):
            found.append((frame, *self.constant()))
        return found

    def tag(self, names: set[str], size: int, has_fault_value: bool) -> tuple:
        one = self.random
        kind = one.choice((*range(1, 15), 255))
        fault_value = self.hexadecimal(2 * one.randint(1, 12)) if has_fault_value else ""
        function = one.randint(0, 3) if kind <= 12 else 0
        scaling = list(SCALING_DEFAULTS)
        if function == SCALING_INTERCEPT:
            scaling[0] = scaling[2] = self.real()
            scaling[1] = scaling[3] = self.real()
        if function == SCALING_POINTS:
            scaling[2:] = [self.real() for _ in range(4)]
        start = (0, one.randint(0, 7), self.name(names, 32), kind, size)
        access = one.choice(("ro", "wo", "rw"))
        tail = (*scaling, *CONSTANT_DEFAULTS)
        return (*start, access, one.randint(0, 5), fault_value, function, *tail)

    def constant(self) -> tuple:
        one = self.random
        size = one.randint(1, 8)
        name = self.name(set(), 32)
        values = (name, size, self.hexadecimal(2 * size))
        return (1, one.randint(0, 7), *TAG_DEFAULTS, *SCALING_DEFAULTS, *values)


# Clients -----------------------------------------------------------------------------------------


def curl(*arguments: str) -> Answer:
    """One request with curl; its status, headers and body."""
    with tempfile.TemporaryDirectory() as folder:
        head, body = f"{folder}/head", f"{folder}/body"
        command = ["curl", "--silent", "--show-error", "--max-time", str(scaled(30))]
        result = subprocess.run(
            [*command, "--dump-header", head, "--output", body, *arguments],
            capture_output=True,
            text=True,
        )
        assert result.returncode == 0, result.stderr
        with open(head, encoding="latin-1", newline="") as file:
            # The last answer: a large upload is answered with 100 first.
            lines = file.read().strip().split("\r\n\r\n")[-1].split("\r\n")
        content = b""
        try:
            with open(body, "rb") as file:
                content = file.read()
        except FileNotFoundError:
            pass  # curl makes no file for an empty body
    fields = dict(line.split(": ", 1) for line in lines[1:])
    headers = {name.lower(): value for name, value in fields.items()}
    return Answer(int(lines[0].split()[1]), headers, content)


def refusal(key: str, table: str, row: int) -> bytes:
    """The whole body of an import that failed; no table where none is to blame."""
    name = f'"errTableName":"{table}",' if table else ""
    return (
        '{"error":{"code":-13,"message":"import config fail","i18n":{"key":"%s","variables":{%s'
        '"errRow":%d}}}}' % (key, name, row)
    ).encode()
