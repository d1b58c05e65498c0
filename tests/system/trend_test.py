"""The judgement of long runs: what grows is found, what only shakes is not."""

import random

import pytest

from kt_system import chart
from kt_system.trend import lowest_of, trend

HOUR = [5.0 * i for i in range(720)]


def shaken(rise_per_hour: float, noise: float, seed: int = 1):
    rng = random.Random(seed)
    return [(x, 1000 + rise_per_hour * x / 3600 + rng.gauss(0, noise)) for x in HOUR]


@pytest.mark.parametrize("seed", range(5))
def test_noise_alone_is_flat(seed):
    assert trend(shaken(0, 50, seed), floor=1).flat


def test_a_small_leak_without_noise_is_found():
    found = trend(shaken(40, 0.1), floor=8)
    assert not found.flat and found.drift == pytest.approx(20, abs=1)


def test_a_leak_in_pages_is_found():
    steps = [(x, 1000 + 4 * int(x / 400)) for x in HOUR]
    assert not trend(steps, floor=8).flat


def test_what_grows_first_and_rests_then_is_flat():
    assert trend([(x, min(x, 1500)) for x in HOUR], floor=1).flat


def test_wild_samples_do_not_hide_a_leak_and_make_none():
    rng = random.Random(1)
    wild = {rng.randrange(len(HOUR)) for _ in range(60)}
    for rise, flat in ((0, True), (100, False)):
        samples = [
            (x, y + 5000 * (i in wild)) for i, (x, y) in enumerate(shaken(rise, 1))
        ]
        assert trend(samples, floor=8).flat is flat


def test_what_is_borrowed_for_a_moment_hides_no_leak():
    rng = random.Random(1)
    samples = [(x, 1000 + x / 100 + 4000 * (rng.random() < 0.6)) for x in HOUR]
    assert not trend(lowest_of(samples, 10), floor=8).flat


def test_too_few_samples_say_nothing():
    assert trend([(0, 1), (1, 2)], floor=1) is None
    assert trend([], floor=1) is None


def test_the_picture_has_a_panel_for_each_series():
    samples = shaken(0, 1)
    text = chart.picture("all", [("one & only", samples, trend(samples, 1)), ("none", [], None)])
    assert text.count("<polyline") == 2 and "one &amp; only" in text and "none<" not in text
