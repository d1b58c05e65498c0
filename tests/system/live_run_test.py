"""The demonstration: its script, its configuration, its device and the live view."""

import os
import re
import signal

import pytest

from kt_system import lane
from kt_system.processes import LineReader


@pytest.fixture
def live(tmp_path):
    """The script of ./dev run on the ports of this lane, its view written as lines."""
    environment = {**os.environ, "KT_LIVE_PORTS": ",".join(lane.PORTS), "TMPDIR": str(tmp_path)}
    environment.pop("KT_ROOT", None)
    command = [str(lane.REPO / "tools/live-view/run-live.sh"), str(lane.BIN)]
    with LineReader(command, environment) as process:
        yield process


def test_the_demonstration_shows_changing_tags_and_frames(live, tmp_path):
    for name in ("drive/control_speed", "sensor/climate_temperature", "legacy/acknowledge_answers"):
        number = re.compile(rf"tag can_proprietary/{name} [1-9]")
        live.wait_line(number.match, 30.0)
    live.wait_line("frame can0 181#5A", 10.0)
    live.wait_line("frame can1 321#R4", 10.0)
    live.wait_line(re.compile(r"frame can1 321#....EFBE").match, 10.0)
    live.process.send_signal(signal.SIGINT)
    assert live.wait_exit(30.0) == 0
    assert live.lines[-1] == "run: everything is stopped"
    assert not list(tmp_path.iterdir())


def test_the_demonstration_ends_on_sigterm_and_leaves_nothing(live, tmp_path):
    live.wait_line("tag can_proprietary/drive/status 0", 30.0)
    live.process.terminate()
    assert live.wait_exit(30.0) == 143
    assert not list(tmp_path.iterdir())
