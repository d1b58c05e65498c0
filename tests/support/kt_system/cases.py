"""Generated cases: which seeds a test runs, and saying the seed where one fails.

    for seed in seeds():
        with reproducible(seed) as rng:
            ...

One seed by default. KT_MODEL_SEED names the first one, KT_MODEL_SECONDS is how long each test goes
on with the seeds that follow it.
"""

import contextlib
import os
import random
import time

FIRST_SEED = int(os.environ.get("KT_MODEL_SEED", "1"))
SECONDS = float(os.environ.get("KT_MODEL_SECONDS", "0"))


def seeds():
    """At least one seed, more of them while there is time."""
    end = time.monotonic() + SECONDS
    seed = FIRST_SEED
    yield seed
    while time.monotonic() < end:
        seed += 1
        yield seed


@contextlib.contextmanager
def reproducible(seed: int):
    """Random numbers that belong to this seed; a failure names it."""
    try:
        yield random.Random(seed)
    except AssertionError as failure:
        raise AssertionError(f"KT_MODEL_SEED={seed}: {failure}") from failure
