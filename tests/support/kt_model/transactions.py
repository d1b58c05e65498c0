"""The transactions of a port as they are configured."""

from dataclasses import dataclass

from . import relevance
from .codec import Constant, Tag

PRODUCE, CONSUME, REQUEST = 0, 1, 2
CYCLIC, ON_CHANGE, BOOTUP = 0, 1, 2


@dataclass(frozen=True)
class Frame:
    can_id: int
    length: int
    blocks: tuple = ()
    kind: int = 0

    @property
    def tags(self) -> list[Tag]:
        return [block for block in self.blocks if isinstance(block, Tag)]


@dataclass(frozen=True)
class Transaction:
    device: str
    name: str
    kind: int
    frames: tuple[Frame, ...]
    trigger: int = CYCLIC
    interval: int = 1000
    protection: int = 0
    protection_timeout: int = 10000
    answers_remote: bool = False
    has_timeout: bool = False
    timeout: int = 10000
    retries: int = 0
    response_timeout: int = 1000
    enabled: bool = True

    @property
    def title(self) -> str:
        return f"{self.device}/{self.name}"

    def tag_name(self, tag: Tag) -> str:
        return f"can_proprietary/{self.device}/{self.name}_{tag.name}"


def block_of(columns: dict):
    row = {**relevance.default_row("block"), **columns}
    if row["blockType"] == 1:
        return Constant(
            row["constantName"], row["constantValue"], row["constantSize"], row["startOffset"]
        )
    return Tag(
        name=row["tagName"],
        kind=row["tagType"],
        size=row["tagSize"],
        offset=row["startOffset"],
        swap=row["swap"],
        scaling=row["scalingFunc"],
        slots=relevance.slots_of_row(row),
        access=row["access"],
        fault=row["fpData"],
    )


def transaction_of(device: str, columns: dict, frames: tuple[Frame, ...]) -> Transaction:
    row = {**relevance.default_row("transactions"), **columns}
    return Transaction(
        device=device,
        name=row["transactionName"],
        kind=row["transactionType"],
        frames=frames,
        trigger=row["triggerMode"],
        interval=row["cyclicInterval"],
        protection=row["fpFunc"],
        protection_timeout=row["fpTimeout"],
        answers_remote=row["triggerByRTR"] == 1,
        has_timeout=row["consumeToutEnable"] != 0,
        timeout=row["consumeTimeout"],
        retries=row["timeoutRetry"],
        response_timeout=row["responseTimeout"],
        enabled=row["transactionEnable"] != 0,
    )


def frame_of(row) -> Frame:
    blocks = tuple(block_of(child.columns) for child in row.children)
    columns = row.columns
    return Frame(columns["canId"], columns["dataLength"], blocks, columns.get("frameType", 0))


def transactions_of(devices, port: int) -> list[Transaction]:
    """The enabled transactions of a port, in order, of nested configuration rows: objects with
    columns and children."""
    return [
        transaction
        for device in devices
        if device.columns["portId"] == port
        for row in device.children
        if (
            transaction := transaction_of(
                device.columns["deviceName"], row.columns, tuple(map(frame_of, row.children))
            )
        ).enabled
    ]
