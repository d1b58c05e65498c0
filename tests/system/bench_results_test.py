"""What ./dev bench makes of the results of its programs."""

import json
import subprocess
import sys

import pytest

from kt_system import lane

BENCH = lane.REPO / "tests/bench"


def line(value, who="service", **further):
    return {"group": "receive", "case": "a frame", "who": who, "quantity": "instructions",
            "value": value, "unit": "per frame", **further}


def written(path, *lines):
    path.write_text("".join(json.dumps(entry) + "\n" for entry in lines))
    return path


def run(script, *arguments):
    return subprocess.run([sys.executable, BENCH / script, *arguments], capture_output=True,
                          text=True, check=False)


@pytest.fixture
def baseline(tmp_path):
    path = tmp_path / "baseline.json"
    results = written(tmp_path / "receive.jsonl", line(1000))
    assert run("baseline.py", "store", path, results).returncode == 0
    return path


@pytest.mark.parametrize(("value", "status", "told"), [
    (1030, 0, "+3.0%"),
    (1031, 1, "FAILED"),
    (970, 0, "-3.0%"),
    (969, 0, "to be stored"),
])
def test_a_count_may_grow_by_three_percent(tmp_path, baseline, value, status, told):
    done = run("baseline.py", "check", baseline, written(tmp_path / "receive.jsonl", line(value)))
    assert done.returncode == status, done.stdout
    assert told in done.stdout


def test_what_the_baseline_has_must_be_measured(tmp_path, baseline):
    other = {**line(1000), "case": "another"}
    done = run("baseline.py", "check", baseline, written(tmp_path / "receive.jsonl", other))
    assert done.returncode == 1
    assert "receive/a frame/service/instructions: not measured" in done.stdout
    assert "receive/another/service/instructions: 1000, not in the baseline" in done.stdout


def test_nothing_measured_is_no_success(tmp_path, baseline):
    assert run("baseline.py", "check", baseline, written(tmp_path / "rest.jsonl")).returncode == 1


def test_a_group_that_was_not_measured_keeps_its_counts(tmp_path, baseline):
    rest = written(tmp_path / "rest.jsonl", {**line(7), "group": "rest"})
    assert run("baseline.py", "check", baseline, rest).returncode == 1
    assert run("baseline.py", "store", baseline, rest).returncode == 0
    assert json.loads(baseline.read_text()) == {
        "receive/a frame/service/instructions": 1000,
        "rest/a frame/service/instructions": 7,
    }


def report(tmp_path, *lines):
    page, images = tmp_path / "performance.md", tmp_path / "images"
    images.mkdir()
    done = run("report.py", page, images, written(tmp_path / "receive.jsonl", *lines))
    assert done.returncode == 0, done.stderr
    return done.stdout, page.read_text()


@pytest.mark.parametrize(("goal", "word"), [
    ({"at_most": 1.12, "against": "floor"}, "met"),
    ({"at_most": 1.09, "against": "floor"}, "MISSED"),
    ({"at_least": 1.1, "against": "floor"}, "met"),
    ({"at_most": 1099}, "MISSED"),
    ({"at_most": 1100}, "met"),
])
def test_a_goal_is_met_or_missed(tmp_path, goal, word):
    printed, _ = report(tmp_path, line(1100, goal=goal), line(1000, "floor"))
    assert printed.startswith(word)


def test_the_page_shows_each_peer_and_how_far_away_it_is(tmp_path):
    goal = {"at_most": 1.05, "against": "floor"}
    _, page = report(tmp_path, {"group": "receive", "title": "Receive path"},
                     {"group": "receive", "note": "One port."},
                     line(1100, goal=goal), line(1000, "floor"), line(12345, "candump"))
    assert "## Receive path\n\nOne port.\n" in page
    assert ("| a frame | instructions per frame | 1100 | 1000 (× 1.10) | 12 345 (× 0.09)"
            " | ≤ 1.05 × floor: **missed** |") in page


def test_a_goal_against_a_peer_that_was_not_measured_is_not_judged(tmp_path):
    printed, page = report(tmp_path, line(1100, goal={"at_most": 1, "against": "candump"}))
    assert printed == ""
    assert "met" not in page.split("## ")[1]


def test_a_line_that_says_nothing_is_an_error(tmp_path):
    path = written(tmp_path / "receive.jsonl", {"group": "receive", "value": 1})
    done = run("baseline.py", "store", tmp_path / "baseline.json", path)
    assert done.returncode != 0
    assert "receive.jsonl:1: neither a measurement nor a note" in done.stderr
