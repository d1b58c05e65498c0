"""How transactions end, and the record of it."""

from dataclasses import dataclass

INITIAL, SUCCESS, FAILED, TIMEOUT = 255, 0, 1, 2
WORDS = {SUCCESS: "success", FAILED: "failed", TIMEOUT: "timeout"}


@dataclass
class Result:
    """A diagnostic slot: the latest result and how many went wrong."""

    device: str
    name: str
    state: int = INITIAL
    failures: int = 0
