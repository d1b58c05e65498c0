"""The tour of the README, against a service started as ./dev run --bare starts it."""

import os
import signal

import pytest

from kt_system import lane
from kt_system.documents import Terminal, run_session, session_of
from kt_system.lane import wait_until
from kt_system.processes import LineReader

STARTING = "./dev run --bare"
OUR_WORLD = ("KT_SOFTCAN", "KT_CAN_PORTS", "KT_LIVE_PORTS", "LD_PRELOAD", "KT_ROOT")


@pytest.fixture
def environment(tmp_path):
    """That of a machine without CAN interfaces and without other worlds."""
    variables = {
        name: value
        for name, value in os.environ.items()
        if name not in OUR_WORLD and not name.startswith("KT_REST_")
    }
    worlds = tmp_path / "worlds"
    worlds.mkdir(mode=0o700)
    # A name that no interface has: real ones are not for a test to send on.
    variables["KT_CAN_PORTS"] = "no-interface"
    return variables | {
        "KT_SOFTCAN_DIR": str(worlds),
        "KT_REST_LISTEN": "127.0.0.1:0",
        "TMPDIR": str(tmp_path),
    }


@pytest.fixture
def bare_run(environment):
    script = lane.REPO / "tools/live-view/run-live.sh"
    with LineReader([str(script), str(lane.BIN), "--bare"], environment) as run:
        yield run
        run.process.send_signal(signal.SIGINT)
        assert run.wait_exit(30.0) == 0
        assert run.lines[-1] == "run: everything is stopped"


def test_every_command_of_the_tour_prints_what_it_says(bare_run, environment, tmp_path):
    commands = session_of(lane.REPO / "README.md")
    start, *others = commands
    assert start.text == STARTING and others

    last = "run: the service alone, files below "
    root = bare_run.wait_line(last, 30.0).removeprefix(last)
    address_file = root + "/run/kt-rest/CAN-proprietary.address"
    wait_until(lambda: os.path.exists(address_file), 30.0, "the address of the REST server")
    replacements = {
        "127.0.0.1:8080": open(address_file, encoding="ascii").read().strip(),
        "/tmp/kt-live.XXXXXX": root,
        "$PWD/build/release/bin": str(lane.BIN),
    }
    shown = "\n".join(bare_run.lines)
    for documented, actual in replacements.items():
        shown = shown.replace(actual, documented)
    # What ./dev says before it is the first line there.
    assert start.pattern.fullmatch("dev:\n" + shown), shown

    terminal = Terminal(tmp_path, environment, replacements=replacements)
    try:
        run_session(terminal, others)
    finally:
        terminal.close()
