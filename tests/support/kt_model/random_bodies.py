"""Random REST bodies: mostly good, with corners, and spoilt ones."""

import copy
import string

from .relevance import INTERCEPT, POINTS

NAME = string.ascii_letters + string.digits + "-._~"


def name(rng, most: int = 12) -> str:
    return "".join(rng.choices(NAME, k=rng.randint(1, most)))


def between(rng, low: int, high: int):
    """A number within its limits, now and then one of them, or one that is cut to fit."""
    choice = rng.random()
    if choice < 0.15:
        return rng.choice((low, high))
    number = rng.randint(low, high)
    return number + 0.75 if choice > 0.9 else number


def hexadecimal(rng, most: int) -> str:
    text = rng.randbytes(rng.randint(0, most)).hex()
    return rng.choice((text, text.upper()))


def constant_body(rng, place: int) -> dict:
    return {
        "blockType": 1,
        "constantName": f"c{place}{name(rng)}",
        "constantSize": rng.randint(0, 8),
        "startOffset": between(rng, 0, 7),
        "constantValue": hexadecimal(rng, 8),
    }


def tag_body(rng, place: int) -> dict:
    body = {
        "blockType": 0,
        "tagName": rng.choice(("tag", "tag") + (f"t{place}{name(rng, 40)}",) * 40),
        "tagType": between(rng, 0, 13),
        "tagSize": between(rng, 0, 8),
        "access": rng.choice(("ro", "ro", "wo", "wo", "rw", "", "x")),
        "startOffset": between(rng, 0, 7),
        "swap": between(rng, 0, 5),
        "scalingFunc": rng.randint(0, 2),
    }
    if rng.random() < 0.6:
        body["fpData"] = hexadecimal(rng, 12)
    for member in INTERCEPT + POINTS:
        if rng.random() < 0.97:
            body[member] = rng.choice((0, 1, -1, 2.5, -0.5, 1e12, rng.randint(-(1 << 31), 1 << 31)))
    return body


def frame_body(rng) -> dict:
    blocks = [
        constant_body(rng, place) if rng.random() < 0.3 else tag_body(rng, place)
        for place in range(rng.randint(0, 5))
    ]
    can_id = rng.choice((rng.randint(0, 0x7FF), rng.randint(0, 0x1FFFFFFF)))
    return {"canId": can_id, "dataLength": between(rng, 0, 8), "blockList": blocks}


def transaction_body(rng, place: int) -> dict:
    kind = rng.randint(0, 2)
    frames = rng.choice((0, 3)) if rng.random() < 0.1 else 2 if kind == 2 else 1
    body = {
        "transactionEnable": rng.random() < 0.8,
        "transactionName": f"x{place}{name(rng, 30)}" if rng.random() < 0.97 else "twin",
        "transactionType": kind,
        "consumeToutEnable": rng.random() < 0.5,
        "consumeTimeout": between(rng, 0, 65535),
        "trigger": rng.randint(0, 2),
        "cyclicInterval": between(rng, 10, 65535),
        "fpFunc": rng.randint(0, 2),
        "fpTimeout": between(rng, 100, 65535),
        "responseTimeout": between(rng, 10, 65535),
        "timeoutRetry": between(rng, 0, 5),
        "triggerByRTR": rng.random() < 0.5,
        "frameList": [frame_body(rng) for _ in range(frames)],
    }
    for member in list(body)[3:12]:
        if rng.random() < 0.01:
            del body[member]
    return body


def device_body(rng) -> dict:
    body = {"portId": rng.randint(1, 2), "deviceName": name(rng)}
    if rng.random() < 0.9:
        count = rng.randint(0, 4)
        body["transactionList"] = [transaction_body(rng, place) for place in range(count)]
    return body


SPOILT = (None, True, "5", -1, 1e10, 14, [], {}, "x" * 65, "", -0.5, 0.5)


def spoil(rng, body: dict) -> dict:
    """The body with one member somewhere of another type or value, or without it."""
    body = copy.deepcopy(body)
    spots = list(members_below(body))
    holder, key = rng.choice(spots)
    if rng.random() < 0.3:
        del holder[key]
    else:
        holder[key] = rng.choice(SPOILT)
    return body


def members_below(value):
    """Every member of every object, and every element of every list."""
    keys = value if isinstance(value, dict) else range(len(value))
    for key in keys:
        if value[key] is not None:
            yield value, key
            if isinstance(value[key], (dict, list)):
                yield from members_below(value[key])
