"""Does a series of samples stay level? With the standard library alone."""

import itertools
import statistics
from typing import NamedTuple

SIGMAS = 3.0
FEWEST = 8  # samples in the second half, below which nothing can be said
MOST_PAIRS_OF = 400  # samples that are compared pair by pair; more are thinned


class Trend(NamedTuple):
    start: float  # the fitted line where the second half begins
    drift: float  # what it rises until the end
    noise: float  # robust standard deviation around it
    allowed: float

    @property
    def flat(self) -> bool:
        return self.drift <= self.allowed


def second_half(samples: list[tuple[float, float]]) -> list[tuple[float, float]]:
    """Caches and heaps find their size in the first."""
    middle = (samples[0][0] + samples[-1][0]) / 2
    return [sample for sample in samples if sample[0] >= middle]


def lowest_of(samples: list[tuple[float, float]], count: int) -> list[tuple[float, float]]:
    """The lowest of each so many samples: what is only borrowed for a moment does not count."""
    groups = [samples[i : i + count] for i in range(0, len(samples) - count + 1, count)]
    return [min(group, key=lambda sample: sample[1]) for group in groups]


def slope_of(samples: list[tuple[float, float]]) -> float:
    """The median slope of all pairs: a few wild samples do not move it."""
    thin = samples[:: -(-len(samples) // MOST_PAIRS_OF)]
    return statistics.median(
        (y1 - y0) / (x1 - x0) for (x0, y0), (x1, y1) in itertools.combinations(thin, 2)
    )


def trend(samples: list[tuple[float, float]], floor: float) -> Trend | None:
    """Time and value. Flat: what the line through the second half rises is within three standard
    deviations of the samples around it, or within the floor. None with too few samples."""
    half = second_half(samples) if samples else []
    if len(half) < FEWEST:
        return None
    slope = slope_of(half)
    begin, end = half[0][0], half[-1][0]
    level = statistics.median(y - slope * (x - begin) for x, y in half)
    distances = [abs(y - level - slope * (x - begin)) for x, y in half]
    noise = 1.4826 * statistics.median(distances)
    return Trend(level, slope * (end - begin), noise, max(floor, SIGMAS * noise))
