"""Configuration rows as nested builders.

    device("drive",
        consume("state", frame(0x181, 8, tag("speed", U16, 0), constant("kind", "5A", 7))),
        produce("command", frame(0x201, 2, tag("target", U16, access="wo")), trigger=ON_CHANGE))

Keys are assigned by the database. Any column may be given by its name; the others take the defaults
of the tables.
"""

import sqlite3
from dataclasses import dataclass, field

I8, I16, I32, I64, U8, U16, U32, U64, F32, F64, RAW = 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 13
SIZES = {I8: 1, I16: 2, I32: 4, I64: 8, U8: 1, U16: 2, U32: 4, U64: 8, F32: 4, F64: 8, RAW: 1}
CYCLIC, ON_CHANGE, BOOTUP = 0, 1, 2
PRODUCE, CONSUME, REQUEST = 0, 1, 2
FAULT_ZERO, FAULT_VALUE = 1, 2
SWAP_BYTES, SWAP_WORDS, SWAP_GROUP, SWAP_ALL, SWAP_ALL_BYTES = 1, 2, 3, 4, 5

PRODUCED_FRAME, CONSUMED_FRAME, REQUEST_FRAME, RESPONSE_FRAME = 0, 1, 2, 3
FRAME_TYPES = {
    PRODUCE: (PRODUCED_FRAME,),
    CONSUME: (CONSUMED_FRAME,),
    REQUEST: (REQUEST_FRAME, RESPONSE_FRAME),
}


@dataclass
class Row:
    table: str
    columns: dict
    children: list = field(default_factory=list)


PARENT_KEYS = {"device": "deviceId", "transactions": "transactionId", "frame": "frameId"}


def device(name: str, *transactions: Row, port: int = 1) -> Row:
    return Row("device", {"portId": port, "deviceName": name}, list(transactions))


def transaction(name: str, kind: int, *frames: Row, **columns) -> Row:
    """Frames get the frame type that belongs to their place unless they name one."""
    for row, frame_type in zip(frames, FRAME_TYPES.get(kind, ())):
        row.columns.setdefault("frameType", frame_type)
    return Row(
        "transactions",
        {
            "transactionEnable": 1,
            "transactionName": name,
            "transactionType": kind,
            "triggerMode": CYCLIC,
            "cyclicInterval": 1000,
            "fpFunc": 0,
            "fpTimeout": 10000,
            "triggerByRTR": 0,
            "consumeToutEnable": 0,
            "consumeTimeout": 10000,
            "timeoutRetry": 0,
            "responseTimeout": 1000,
            **columns,
        },
        list(frames),
    )


def produce(name: str, sent: Row, *, trigger: int = CYCLIC, interval: int = 1000, **columns) -> Row:
    return transaction(name, PRODUCE, sent, triggerMode=trigger, cyclicInterval=interval, **columns)


def consume(name: str, received: Row, *, timeout: int | None = None, **columns) -> Row:
    """timeout in milliseconds, None for none."""
    if timeout is not None:
        columns = {"consumeToutEnable": 1, "consumeTimeout": timeout, **columns}
    return transaction(name, CONSUME, received, **columns)


def request(
    name: str,
    sent: Row,
    response: Row,
    *,
    trigger: int = CYCLIC,
    interval: int = 1000,
    timeout: int = 1000,
    retry: int = 0,
    **columns,
) -> Row:
    """timeout: how long to wait for the response, in milliseconds."""
    return transaction(
        name,
        REQUEST,
        sent,
        response,
        triggerMode=trigger,
        cyclicInterval=interval,
        responseTimeout=timeout,
        timeoutRetry=retry,
        **columns,
    )


def frame(can_id: int, length: int, *blocks: Row, **columns) -> Row:
    return Row("frame", {"canId": can_id, "dataLength": length, **columns}, list(blocks))


def tag(
    name: str,
    kind: int = RAW,
    offset: int = 0,
    *,
    size: int | None = None,
    access: str = "ro",
    swap: int = 0,
    **columns,
) -> Row:
    """access "ro": the service publishes it; "wo": other applications write it."""
    return Row(
        "block",
        {
            "blockType": 0,
            "startOffset": offset,
            "tagName": name,
            "tagType": kind,
            "tagSize": SIZES.get(kind, 1) if size is None else size,
            "access": access,
            "swap": swap,
            **columns,
        },
    )


def listeners() -> list[Row]:
    """A device per port, so that a start waits until each has read its configuration and hears."""
    return [
        device(f"ear{port}", consume("state", frame(0x181, 2, tag("v", U16))), port=port)
        for port in (1, 2)
    ]


def slope(factor: float, offset: float = 0.0) -> dict:
    """Columns of scaling by slope and offset, the shared slots filled as the service does."""
    return {
        "scalingFunc": 1,
        "interceptSlope": factor,
        "interceptOffset": offset,
        "pointSourceMin": factor,
        "pointSourceMax": offset,
    }


def points(source: tuple[float, float], target: tuple[float, float]) -> dict:
    """Columns of linear scaling by two points."""
    return {
        "scalingFunc": 2,
        "interceptSlope": source[0],
        "interceptOffset": source[1],
        "pointSourceMin": source[0],
        "pointSourceMax": source[1],
        "pointTargetMin": target[0],
        "pointTargetMax": target[1],
    }


def constant(name: str, digits: str, offset: int = 0, *, size: int | None = None) -> Row:
    """digits: the value in hexadecimal; in a frame its least significant byte comes first."""
    return Row(
        "block",
        {
            "blockType": 1,
            "startOffset": offset,
            "constantName": name,
            "constantSize": (len(digits) + 1) // 2 if size is None else size,
            "constantValue": digits,
        },
    )


def insert(db: sqlite3.Connection, rows, parent: dict | None = None) -> None:
    for row in rows:
        columns = {**(parent or {}), **row.columns}
        names = ", ".join(columns)
        marks = ", ".join("?" * len(columns))
        cursor = db.execute(
            f"INSERT INTO {row.table} ({names}) VALUES ({marks})", tuple(columns.values())
        )
        if row.children:
            insert(db, row.children, {PARENT_KEYS[row.table]: cursor.lastrowid})
