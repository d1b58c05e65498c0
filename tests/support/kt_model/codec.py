"""Bytes of a frame and values of its blocks, both ways.

A frame's data are always the 8 bytes of a classic CAN frame; what lies beyond its length is zero.
"""

import ctypes
import math
import struct
from dataclasses import dataclass

DATA_BYTES = 8
UNSCALED = 13

LAYOUTS = {
    1: "<b", 2: "<h", 3: "<i", 4: "<q", 5: "<B", 6: "<H", 7: "<I", 8: "<Q", 9: "<f", 10: "<d",
}  # fmt: skip
WIDTHS = {kind: struct.calcsize(layout) for kind, layout in LAYOUTS.items()}
SIGNED, UNSIGNED, REAL = range(1, 5), range(5, 9), range(9, 11)


@dataclass(frozen=True)
class Tag:
    """A tag block. slots: the four numbers A, B, C, D that scaling works with."""

    name: str
    kind: int = UNSCALED
    size: int = 1
    offset: int = 0
    swap: int = 0
    scaling: int = 0
    slots: tuple[float, float, float, float] = (0.0, 1.0, 0.0, 1.0)
    access: str = "ro"
    fault: str = ""


@dataclass(frozen=True)
class Constant:
    name: str
    text: str = ""
    size: int = 1
    offset: int = 0


# Cutting ---------------------------------------------------------------------------------------


def padded(data: bytes) -> bytes:
    """The 8 bytes that a received frame brings."""
    return bytes(data).ljust(DATA_BYTES, b"\0")


def cut(data: bytes, offset: int, size: int) -> bytes:
    """A block's bytes; those beyond the frame are zero."""
    return data[offset : offset + size].ljust(size, b"\0")


def laid(data: bytes, offset: int, block: bytes) -> bytes:
    """The data with a block's bytes put in; those beyond the frame go nowhere."""
    inside = block[: max(0, DATA_BYTES - offset)]
    return data[:offset] + inside + data[offset + len(inside) :]


# Swapping --------------------------------------------------------------------------------------


def _regrouped(data: bytes, group: int, order: tuple[int, ...]) -> bytes:
    """Every whole group with its bytes in that order; what is left over stays."""
    whole = len(data) - len(data) % group
    picked = [data[start + i] for start in range(0, whole, group) for i in order]
    return bytes(picked) + data[whole:]


def swapped(data: bytes, mode: int) -> bytes:
    """1 bytes of pairs, 2 halves of groups of four, 3 groups of four reversed, 4 all reversed,
    5 all reversed and then bytes of pairs; any other mode changes nothing."""
    if mode == 1:
        return _regrouped(data, 2, (1, 0))
    if mode == 2:
        return _regrouped(data, 4, (2, 3, 0, 1))
    if mode == 3:
        return _regrouped(data, 4, (3, 2, 1, 0))
    if mode == 4:
        return data[::-1]
    if mode == 5:
        return swapped(data[::-1], 1)
    return data


# Scaling ---------------------------------------------------------------------------------------


def divided(number: float, by: float) -> float:
    """Division as floating-point units do it."""
    if by != 0:
        return number / by
    if number == 0 or math.isnan(number):
        return math.nan
    return math.copysign(math.inf, number) * math.copysign(1.0, by)


def line(scaling: int, slots: tuple[float, float, float, float]) -> tuple[float, float] | None:
    """Slope and offset, None where values stay as they are."""
    a, b, c, d = slots
    if scaling == 1:
        return a, b
    if scaling == 2:
        return divided(d - c, b - a), divided(a * c - a * d, b - a) + c
    return None


def saturated(number: float, low: int, high: int) -> int:
    if math.isnan(number):
        return 0
    return int(min(max(number, float(low)), float(high)))


def cut_integer(number: int, kind: int) -> int:
    """An integer as its type keeps it."""
    bits = 8 * WIDTHS[kind]
    number &= (1 << bits) - 1
    return number - (1 << bits) if kind in SIGNED and number >> (bits - 1) else number


def converted(number: float, kind: int) -> int | float | None:
    """A computed value in its type; None where a 64-bit integer cannot hold it and the result is
    the processor's."""
    if kind in (1, 2, 3):
        return cut_integer(saturated(number, -(1 << 31), (1 << 31) - 1), kind)
    if kind in (5, 6, 7):
        return cut_integer(saturated(number, 0, (1 << 32) - 1), kind)
    if kind in (4, 8):
        low, high = (-(1 << 63), 1 << 63) if kind == 4 else (0, 1 << 64)
        return int(number) if math.isfinite(number) and low <= int(number) < high else None
    return ctypes.c_float(number).value if kind == 9 else number


def scaled(data: bytes, kind: int, scaling: int, slots) -> bytes | None:
    """A block's bytes after scaling, None where the result is the processor's.

    A type wider than its block reads zero for the bytes that it lacks and gives back those it has.
    """
    law = line(scaling, slots)
    if law is None or kind not in LAYOUTS:
        return data
    slope, offset = law
    (value,) = struct.unpack(LAYOUTS[kind], cut(data, 0, WIDTHS[kind]))
    result = converted(offset + float(value) * slope, kind)
    if result is None:
        return None
    written = struct.pack(LAYOUTS[kind], result)
    return (written + data[WIDTHS[kind] :])[: len(data)]


# Constants and fault values --------------------------------------------------------------------


def constant_number(text: str) -> int:
    """Hexadecimal text, most significant byte first; at most 16 digits count."""
    if len(text) % 2:
        text = "0" + text
    return int(text[:16] or "0", 16)


def constant_bytes(constant: Constant) -> bytes:
    """As laid into a frame: least significant byte first."""
    return constant_number(constant.text).to_bytes(8, "little")[: constant.size]


def fault_bytes(text: str, size: int) -> bytes:
    """Hexadecimal text to bytes in text order; the text covers the size."""
    return bytes.fromhex(text)[:size]


# Whole frames ----------------------------------------------------------------------------------


def start_data(blocks) -> bytes:
    """A frame's buffer before anything was written: zeros and constants."""
    data = bytes(DATA_BYTES)
    for block in blocks:
        if isinstance(block, Constant):
            data = laid(data, block.offset, constant_bytes(block))
    return data


def constants_match(received: bytes, blocks, start: bytes) -> bool:
    """Every constant's bytes are those that the frame's buffer started with."""
    return all(
        cut(received, block.offset, block.size) == cut(start, block.offset, block.size)
        for block in blocks
        if isinstance(block, Constant)
    )


def is_number(data: bytes, kind: int) -> bool:
    """False for a real number that is none: its bytes are the processor's."""
    if kind not in REAL or len(data) < WIDTHS[kind]:
        return True
    (value,) = struct.unpack(LAYOUTS[kind], data[: WIDTHS[kind]])
    return not math.isnan(value)


def published(received: bytes, blocks) -> list[tuple[Tag, bytes | None]]:
    """What a good frame writes to each tag, in order. Each block works in place, so a later block
    that shares bytes with an earlier one sees what that one left. None where the processor has a
    say."""
    data = padded(received)
    unknown: set[int] = set()
    found = []
    for block in blocks:
        if isinstance(block, Constant):
            continue
        places = set(range(block.offset, block.offset + block.size))
        value = swapped(cut(data, block.offset, block.size), block.swap)
        if block.kind != UNSCALED:
            value = scaled(value, block.kind, block.scaling, block.slots)
        if places & unknown:
            value = None
        if value is None or not is_number(value, block.kind):
            unknown |= places
        else:
            data = laid(data, block.offset, value)
        found.append((block, value))
    return found


def sent(buffer: bytes, blocks, length: int) -> bytes:
    """The data bytes on the bus: a copy of the buffer, each tag block swapped in it."""
    data = padded(buffer[:length])
    for block in blocks:
        if isinstance(block, Tag):
            value = swapped(cut(data, block.offset, block.size), block.swap)
            data = laid(data, block.offset, value)
    return data[:length]


# Tags ------------------------------------------------------------------------------------------


def value_size(kind: int, size: int) -> int:
    """Bytes that a tag's value takes in the tag store."""
    return max(size, WIDTHS.get(kind, 0))


def shown(tag: Tag, data: bytes) -> int | float | str | None:
    """What kt-tag shows of a tag after these bytes were written to it."""
    value = cut(data, 0, value_size(tag.kind, tag.size))
    if tag.kind not in LAYOUTS:
        return value.hex().upper()
    (number,) = struct.unpack(LAYOUTS[tag.kind], value[: WIDTHS[tag.kind]])
    return number if math.isfinite(number) else None


def written(tag: Tag, number) -> bytes:
    """A tag's value after kt-tag wrote a number, or bytes; the service takes the first size bytes
    of it."""
    data = number if isinstance(number, bytes) else struct.pack(LAYOUTS[tag.kind], number)
    return cut(data, 0, value_size(tag.kind, tag.size))


def said(tag: Tag, number) -> str:
    """The same as kt-tag takes it on its command line."""
    return number.hex() if isinstance(number, bytes) else repr(number)
