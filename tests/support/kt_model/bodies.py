"""What REST bodies become and what REST answers show."""

import math

from .codec import constant_number
from .relevance import (
    OF_SCALING,
    columns_of_slots,
    constant_text,
    default_row,
    slots_of_row,
)

# Bodies ------------------------------------------------------------------------------------------

OK, BAD_VALUE, MISSING, INTERNAL, NOT_READ, NOT_SET = 0, -1, -3, -4, -7, -8


class Refused(Exception):
    """A body is refused with a result code."""

    def __init__(self, code: int):
        super().__init__(code)
        self.code = code


def number_of(body: dict, name: str, low: int, high: int) -> int:
    """A number cut towards zero, saturated to 32 bits, within its range."""
    value = body.get(name)
    if isinstance(value, bool) or not isinstance(value, (int, float)):
        raise Refused(MISSING)
    number = int(max(-(2.0**31), min(float(value), 2.0**31 - 1))) if not math.isnan(value) else 0
    if not low <= number <= high:
        raise Refused(BAD_VALUE)
    return number


def text_of(body: dict, name: str, least: int, most: int) -> str:
    """A text whose bytes number within the limits."""
    value = body.get(name)
    if not isinstance(value, str):
        raise Refused(MISSING)
    if not least <= len(value.encode()) <= most:
        raise Refused(BAD_VALUE)
    return value


def flag_of(body: dict, name: str) -> int:
    value = body.get(name)
    if not isinstance(value, bool):
        raise Refused(MISSING)
    return int(value)


def list_of(body: dict, name: str) -> list:
    value = body.get(name)
    if not isinstance(value, list):
        raise Refused(NOT_READ)
    return value


def object_of(value) -> dict:
    if not isinstance(value, dict):
        raise Refused(NOT_READ)
    return value


WHOLE = (-(1 << 31), (1 << 31) - 1)


def transaction_of(body: dict) -> dict:
    """The columns that a body gives a new transaction, defaults for those it does not."""
    row = {
        **default_row("transactions"),
        "fpTimeout": 60000,
        "transactionEnable": flag_of(body, "transactionEnable"),
        "transactionName": text_of(body, "transactionName", 1, 64),
        "transactionType": number_of(body, "transactionType", 0, 2),
    }
    if row["transactionType"] == 1:
        row["consumeToutEnable"] = flag_of(body, "consumeToutEnable")
        if row["consumeToutEnable"]:
            row["consumeTimeout"] = number_of(body, "consumeTimeout", 0, 65535)
        return row
    row["triggerMode"] = number_of(body, "trigger", 0, 2)
    if row["triggerMode"] == 0:
        row["cyclicInterval"] = number_of(body, "cyclicInterval", 10, 65535)
    row["fpFunc"] = number_of(body, "fpFunc", 0, 2)
    if row["fpFunc"]:
        row["fpTimeout"] = number_of(body, "fpTimeout", 100, 65535)
    if row["transactionType"] == 2:
        row["responseTimeout"] = number_of(body, "responseTimeout", 10, 65535)
        row["timeoutRetry"] = number_of(body, "timeoutRetry", 0, 5)
    else:
        row["triggerByRTR"] = flag_of(body, "triggerByRTR")
    return row


def frame_of(body: dict, transaction_type: int, position: int) -> dict:
    """A length that is missing or out of range is an internal error, unlike everything else."""
    row = default_row("frame")
    row["canId"] = number_of(body, "canId", 0, 0x1FFFFFFF)
    try:
        row["dataLength"] = number_of(body, "dataLength", 0, 8)
    except Refused:
        raise Refused(INTERNAL) from None
    row["frameType"] = transaction_type if transaction_type < 2 else min(2 + position, 3)
    return row


def constant_block_of(body: dict) -> dict:
    row = {**default_row("block"), "blockType": 1}
    row["constantName"] = text_of(body, "constantName", 1, 32)
    row["constantSize"] = number_of(body, "constantSize", 0, 8)
    row["startOffset"] = number_of(body, "startOffset", 0, 7)
    digits = text_of(body, "constantValue", 0, 16)
    row["constantValue"] = constant_text(int(digits or "0", 16), row["constantSize"])
    return row


def tag_block_of(body: dict) -> dict:
    row = default_row("block")
    row["tagName"] = text_of(body, "tagName", 1, 64)
    row["tagType"] = number_of(body, "tagType", 0, 13)
    row["tagSize"] = number_of(body, "tagSize", 0, 8)
    row["access"] = text_of(body, "access", 0, 3)[:2]
    row["startOffset"] = number_of(body, "startOffset", 0, 7)
    row["swap"] = number_of(body, "swap", 0, 5)
    if "fpData" in body:
        row["fpData"] = text_of(body, "fpData", 0, 24)
    row["scalingFunc"] = number_of(body, "scalingFunc", 0, 2)
    given = [number_of(body, name, *WHOLE) for name in OF_SCALING.get(row["scalingFunc"], ())]
    row.update(columns_of_slots([*given, *(0, 1, 0, 1)[len(given) :]]))
    return row


def block_of(body: dict) -> dict:
    kind = number_of(body, "blockType", 0, 1)
    return constant_block_of(body) if kind == 1 else tag_block_of(body)


def device_of(body: dict) -> dict:
    """A device as nested rows: {"row", "children"} down to its blocks. Raises Refused."""
    row = default_row("device")
    row["portId"] = number_of(body, "portId", 1, 2)
    row["deviceName"] = text_of(body, "deviceName", 1, 64)
    transactions: list[dict] = []
    if "transactionList" in body:
        for element in list_of(body, "transactionList"):
            add_unique(transactions, transaction_of(object_of(element)), "transactionName")
            transactions[-1]["children"] = frames_of(element, transactions[-1]["row"])
    return {"row": row, "children": transactions}


def frames_of(body: dict, transaction: dict) -> list[dict]:
    frames = []
    for position, element in enumerate(list_of(body, "frameList")):
        row = frame_of(object_of(element), transaction["transactionType"], position)
        blocks: list[dict] = []
        for block in list_of(element, "blockList"):
            built = block_of(object_of(block))
            add_unique(blocks, built, "tagName" if built["blockType"] == 0 else None)
        frames.append({"row": row, "children": blocks})
    return frames


def add_unique(nodes: list[dict], row: dict, name: str | None) -> None:
    """Append a row whose name no earlier one has."""
    if name and any(row[name] == node["row"][name] for node in nodes):
        raise Refused(NOT_SET)
    nodes.append({"row": row, "children": []})


# Answers -----------------------------------------------------------------------------------------


def transaction_json(row: dict) -> dict:
    shown = {
        "transactionId": row["transactionId"],
        "deviceId": row["deviceId"],
        "transactionEnable": bool(row["transactionEnable"]),
        "transactionName": row["transactionName"],
        "transactionType": row["transactionType"],
    }
    if row["transactionType"] & 0xFD:
        shown["consumeToutEnable"] = bool(row["consumeToutEnable"])
        shown["consumeTimeout"] = row["consumeTimeout"]
        return shown
    shown["trigger"] = row["triggerMode"]
    shown |= {name: row[name] for name in ("cyclicInterval", "fpFunc", "fpTimeout")}
    if row["transactionType"] == 2:
        shown |= {name: row[name] for name in ("responseTimeout", "timeoutRetry")}
    else:
        shown["triggerByRTR"] = bool(row["triggerByRTR"])
    return shown


def block_json(row: dict) -> dict:
    shown = {name: row[name] for name in ("blockType", "blockId", "frameId")}
    if row["blockType"] == 1:
        shown |= {name: row[name] for name in ("constantName", "constantSize", "startOffset")}
        number = constant_number(row["constantValue"])
        return shown | {"constantValue": constant_text(number, row["constantSize"])}
    names = "tagName tagType tagSize access startOffset swap fpData scalingFunc".split()
    shown |= {name: row[name] for name in names}
    return shown | columns_of_slots(slots_of_row(row))


def frame_json(row: dict) -> dict:
    return {name: row[name] for name in ("frameId", "transactionId", "canId", "dataLength")}


def device_json(device: dict) -> dict:
    """The complete tree of a device as it is read back; members in their order."""
    names = ("deviceId", "portId", "deviceName")
    shown = {name: device["row"][name] for name in names}
    shown["transactionList"] = [
        transaction_json(transaction["row"]) | frames_json(transaction["children"])
        for transaction in device["children"]
    ]
    return shown


def frames_json(frames: list[dict]) -> dict:
    return {
        "frameList": [
            frame_json(frame["row"])
            | {"blockList": [block_json(block["row"]) for block in frame["children"]]}
            for frame in frames
        ]
    }


def used_can_ids(devices: list[dict]) -> list[dict]:
    """Identifiers by transaction, for the devices of one port."""
    return [
        {
            "deviceId": device["row"]["deviceId"],
            "transactionId": transaction["row"]["transactionId"],
            "transactionType": transaction["row"]["transactionType"],
            "canId": [frame["row"]["canId"] for frame in transaction["children"]],
        }
        for device in devices
        for transaction in device["children"]
    ]


def overview(devices: list[dict], ports: int) -> dict:
    """Counts by port; each is kept in 8 bits."""
    found = []
    for port in range(1, ports + 1):
        own = [device for device in devices if device["row"]["portId"] == port]
        transactions = sum(len(device["children"]) for device in own)
        found.append(
            {"portId": port, "deviceNum": len(own) % 256, "transactionNum": transactions % 256}
        )
    return {"portNum": ports, "portList": found}
