"""The demonstration: its script, its configuration, its device and the live view."""

import contextlib
import os
import pathlib
import re
import signal
import socket
import sqlite3
import subprocess
import time

import pytest
import requests

from kt_system import lane
from kt_system.gateway import PERSISTENT_DB, WORKING_DB
from kt_system.lane import scaled
from kt_system.mqtt import Subscriber
from kt_system.processes import LineReader

LOADED = "run: loaded and applied the demonstration through the REST API: "
KEPT = "run: the configuration has devices already, it stays as it is"
APPLY = {"option": 0}


def live_run(
    scratch, ports: tuple[str, ...] = lane.PORTS, *arguments: str, **variables: str
) -> LineReader:
    """The script of ./dev run on ports of this lane, its view written as lines."""
    environment = {
        name: value
        for name, value in os.environ.items()
        if name != "KT_ROOT" and not name.startswith("KT_REST_")
    }
    environment |= {"KT_LIVE_PORTS": ",".join(ports), "KT_REST_LISTEN": "127.0.0.1:0"}
    environment |= {"TMPDIR": str(scratch), **variables}
    command = [str(lane.REPO / "tools/live-view/run-live.sh"), str(lane.BIN), *arguments]
    return LineReader(command, environment)


def interrupt(live: LineReader) -> None:
    live.process.send_signal(signal.SIGINT)
    assert live.wait_exit(30.0) == 0
    assert live.lines[-1] == "run: everything is stopped"


def api_of(live: LineReader) -> str:
    return live.wait_line("run: REST API: ", 30.0).removeprefix("run: REST API: ")


def rows(root) -> list[str]:
    """The applied configuration."""
    with contextlib.closing(sqlite3.connect(str(root) + PERSISTENT_DB)) as db:
        return list(db.iterdump())


@pytest.fixture
def live(tmp_path):
    with live_run(tmp_path) as process:
        yield process


def test_the_demonstration_shows_changing_tags_and_frames(live, tmp_path):
    for name in (
        "drive/control_speed",
        "sensor/climate_temperature",
        "sensor/samples_number",
        "legacy/acknowledge_answers",
    ):
        number = re.compile(rf"tag can_proprietary/{name} [1-9]")
        live.wait_line(number.match, 30.0)
    # 0.1 hPa on the bus
    pressure = re.compile(r"tag can_proprietary/sensor/climate_pressure (9|10)\d\d$")
    live.wait_line(pressure.match, 10.0)
    live.wait_line("frame can0 181#5A", 10.0)
    live.wait_line("frame can1 321#R4", 10.0)
    live.wait_line(re.compile(r"frame can1 321#....EFBE").match, 10.0)
    assert f"{LOADED}drive, legacy, sensor" in live.lines
    interrupt(live)
    assert not list(tmp_path.iterdir())


def test_the_demonstration_ends_on_sigterm_and_leaves_nothing(live, tmp_path):
    live.wait_line("tag can_proprietary/drive/status 0", 30.0)
    live.process.terminate()
    assert live.wait_exit(30.0) == 143
    assert not list(tmp_path.iterdir())


# The service, its loader, then a device at a time and the view
@pytest.mark.parametrize("count", [2, 3, 4])
def test_an_interrupt_in_the_moment_of_a_start_leaves_no_process(count, tmp_path):
    with live_run(tmp_path) as live:
        if count > 2:
            live.wait_line("run: REST API: ", 30.0)
        children = pathlib.Path(f"/proc/{live.process.pid}/task/{live.process.pid}/children")
        deadline = time.monotonic() + scaled(30.0)
        while len(children.read_text().split()) < count:
            assert time.monotonic() < deadline
        interrupt(live)
    assert not list(tmp_path.iterdir())


needs_broker = pytest.mark.skipif(lane.ARM, reason="lane A's small root has no broker")


@needs_broker
def test_with_mqtt_the_values_reach_a_broker_of_its_own(tmp_path):
    with live_run(tmp_path, lane.PORTS, "--mqtt") as live:
        said = live.wait_line("run: MQTT broker: 127.0.0.1:", 30.0)
        port = re.search(r"mosquitto_sub -p (\d+) -v -t 'kt/gateway/#'$", said)[1]
        topic = "kt/gateway/tags/can_proprietary/drive/control_speed"
        options = ["-h", "127.0.0.1", "-p", port, "-V", "mqttv5"]
        with Subscriber(options, (topic,)) as values:
            values.wait(topic, lambda it: it["value"] >= 1 and it["quality"] == "good", 30.0)
        interrupt(live)
        with pytest.raises(OSError):
            socket.create_connection(("127.0.0.1", int(port)), timeout=scaled(5))
    assert not list(tmp_path.iterdir())


@needs_broker
def test_with_mqtt_the_port_of_another_program_is_left_to_it(tmp_path):
    with socket.socket() as other:
        other.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        with contextlib.suppress(OSError):  # somebody's broker has it
            other.bind(("127.0.0.1", 1883))
            other.listen()
        with live_run(tmp_path, lane.PORTS, "--mqtt") as live:
            said = live.wait_line("run: MQTT broker: 127.0.0.1:", 30.0)
            assert int(re.search(r"127\.0\.0\.1:(\d+);", said)[1]) > 1883
            interrupt(live)


def test_one_port_gets_the_devices_of_the_first(tmp_path):
    with live_run(tmp_path, lane.PORTS[:1]) as live:
        live.wait_line(f"{LOADED}drive, sensor", 30.0)
        live.wait_line("tag can_proprietary/drive/status 0", 30.0)
        interrupt(live)


def test_a_configuration_that_has_devices_stays_as_it_is(tmp_path):
    root = tmp_path / "root"
    with live_run(tmp_path, KT_ROOT=str(root)) as live:
        api = api_of(live)
        listed = requests.get(f"{api}/interface?portId=1", timeout=scaled(10)).json()
        ids = {item["deviceName"]: item["deviceId"] for item in listed["data"]["deviceList"]}
        answer = requests.delete(f"{api}/device/{ids['drive']}", timeout=scaled(10))
        assert answer.status_code == 204
        name = {"deviceName": "boiler"}
        answer = requests.patch(f"{api}/device/{ids['sensor']}", json=name, timeout=scaled(10))
        assert answer.status_code == 200
        answer = requests.post(f"{api}/action", json=APPLY, timeout=scaled(10))
        assert answer.status_code == 201
        interrupt(live)
    applied = rows(root)
    assert any("'boiler'" in row for row in applied)
    assert not any("'drive'" in row for row in applied)
    for log in root.glob("device*.log"):
        log.unlink()  # of a device that was started before the configuration changed

    # What is left of the demonstration is played, nothing else.
    with live_run(tmp_path, KT_ROOT=str(root)) as live:
        live.wait_line(KEPT, 30.0)
        live.wait_line("tag can_proprietary/legacy/status 0", 30.0)
        interrupt(live)
        assert not any(line.startswith(LOADED) for line in live.lines)
        assert not any("frame can0 281#" in line for line in live.lines)
    assert rows(root) == applied
    assert sorted(path.name for path in root.glob("device*.log")) == ["device2.log"]


def test_the_demonstration_as_loaded_before_runs_again(tmp_path):
    root = tmp_path / "root"
    with live_run(tmp_path, KT_ROOT=str(root)) as live:
        live.wait_line(LOADED, 30.0)
        interrupt(live)
    applied = rows(root)
    with live_run(tmp_path, KT_ROOT=str(root)) as live:
        live.wait_line(KEPT, 30.0)
        live.wait_line(re.compile(r"tag can_proprietary/drive/control_speed [1-9]").match, 30.0)
        interrupt(live)
    assert rows(root) == applied


def test_a_refusal_is_shown_with_its_body_and_ends_the_run(tmp_path):
    root = tmp_path / "root"
    with live_run(tmp_path, KT_ROOT=str(root)) as live:
        live.wait_line(LOADED, 30.0)
        interrupt(live)
    with contextlib.closing(sqlite3.connect(str(root) + PERSISTENT_DB)) as db:
        db.executescript(
            "PRAGMA foreign_keys = ON; DELETE FROM device;"
            "CREATE TRIGGER no_legacy BEFORE INSERT ON device WHEN NEW.deviceName = 'legacy'"
            " BEGIN SELECT RAISE(ABORT, 'device is full'); END;"
        )
    os.unlink(str(root) + WORKING_DB)
    empty = rows(root)

    with live_run(tmp_path, KT_ROOT=str(root)) as live:
        assert live.wait_exit(60.0) == 1
        refusal = (
            "run: POST /CAN-proprietary/device answered 500: "
            '{"error":{"code":-8,"message":"Fail to set"}}'
        )
        assert refusal in live.errors
        assert live.lines[-1] == "run: everything is stopped"
    assert rows(root) == empty
    with contextlib.closing(sqlite3.connect(str(root) + WORKING_DB)) as db:
        assert db.execute("SELECT * FROM device").fetchall() == []


def test_token_and_certificate_of_the_environment_are_used(tmp_path):
    token, key, certificate = (tmp_path / name for name in ("token", "key", "certificate"))
    token.write_text("let-me-in\n")
    token.chmod(0o600)
    command = ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256"]
    command += ["-nodes", "-days", "2", "-subj", "/CN=gateway", "-keyout", key, "-out", certificate]
    subprocess.run(command, check=True, capture_output=True)
    key.chmod(0o600)
    variables = {
        "KT_REST_TOKEN_FILE": str(token),
        "KT_REST_TLS_CERT": str(certificate),
        "KT_REST_TLS_KEY": str(key),
    }
    with live_run(tmp_path, **variables) as live:
        live.wait_line(LOADED, 30.0)
        assert api_of(live).startswith("https://127.0.0.1:")
        interrupt(live)
