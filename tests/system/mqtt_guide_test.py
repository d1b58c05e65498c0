"""docs/mqtt.md: its sessions print what they say, its tables name what there is."""

import re

import pytest

from kt_system import lane
from kt_system.documents import Terminal, run_session, section_of, session_of
from kt_system.gateway import free_port
from kt_system.mqtt import Broker
from kt_system.processes import LineReader
from kt_system.rows import ON_CHANGE, I16, U16, consume, device, frame, produce, request, tag

DOCUMENT = lane.REPO / "docs/mqtt.md"
SOURCES = lane.REPO / "tools/kt-dx-mqtt"
TLS_SECTION = "A broker with TLS"


def line_of_section(title: str) -> int:
    return DOCUMENT.read_text("utf-8").split(f"\n## {title}\n")[0].count("\n") + 2


def commands(*, tls: bool) -> list:
    start = line_of_section(TLS_SECTION)
    found = [one for one in session_of(DOCUMENT) if (one.line > start) == tls]
    assert found
    return found


@pytest.fixture
def drive(gateway):
    """The gateway of the document."""
    gateway.configure(
        device(
            "drive",
            consume("state", frame(0x181, 2, tag("speed", U16)), timeout=1000),
            produce("command", frame(0x201, 2, tag("target", I16, access="wo")), trigger=ON_CHANGE),
            request(
                "limit",
                frame(0x301, 2, tag("max", U16, access="wo")),
                frame(0x302, 2, tag("answer", U16)),
                trigger=ON_CHANGE,
            ),
        )
    )
    gateway.start()
    return gateway


@pytest.fixture
def terminal(drive, tmp_path):
    """terminal(port, replacements): a shell whose MQTT clients know a broker's port."""
    shells = []

    def start(port: int, replacements: dict | None = None) -> Terminal:
        folder = tmp_path / "clients"
        folder.mkdir()
        for client in ("mosquitto_pub", "mosquitto_sub", "mosquitto_rr"):
            (folder / client).write_text(f"-p {port}\n")
        environment = {**drive.environment, "XDG_CONFIG_HOME": str(folder)}
        shells.append(Terminal(tmp_path, environment, replacements=replacements))
        return shells[-1]

    yield start
    for shell in shells:
        shell.close()


def test_the_first_session_prints_what_it_says(drive, bridge, broker, subscribe, terminal):
    bridge(prefix="kt/gateway", rest_url=f"http://{drive.rest_address}/CAN-proprietary")
    # Nobody types before the bridge has read the configuration.
    subscribe("kt/gateway/#").wait("kt/gateway/diagnostics/1", {"port": 1}, 10.0)
    run_session(terminal(broker.port), commands(tls=False))


def test_the_broker_with_tls_is_set_up_as_it_says(drive, terminal, tmp_path):
    port = free_port()
    mosquitto = tmp_path / "mosquitto"
    for folder in ("certs", "conf.d"):
        (mosquitto / folder).mkdir(parents=True)
    here = tmp_path / "kt-dx-mqtt"
    replacements = {
        "/etc/mosquitto": str(mosquitto),
        "/etc/kt-dx-mqtt": str(here),
        "8883": str(port),
        "chown mosquitto": "test -f",
    }
    steps = commands(tls=True)
    (checked,) = [number for number, step in enumerate(steps) if step.text.endswith("--check")]
    shell = terminal(port, replacements)
    run_session(shell, steps[: checked + 1])

    server = Broker(tmp_path, f"include_dir {mosquitto}/conf.d")
    server.start()
    try:
        program = [lane.program("kt-dx-mqtt"), "--config", f"{here}.conf"]
        with LineReader(program, drive.environment):
            run_session(shell, steps[checked + 1 :])
    finally:
        server.close()


# The tables ---------------------------------------------------------------------------------------


def first_column(title: str, heading: str, column: int = 0) -> list[str]:
    """What stands in quotes in a column of the table of a section that has that heading."""
    rows, wanted = [], False
    for line in section_of(DOCUMENT, title).splitlines():
        cells = [cell.strip() for cell in line.strip("|").split(" | ")]
        if not line.startswith("|"):
            wanted = False
        elif cells[0] == heading:
            wanted = True
        elif wanted:
            rows += re.findall(r"`(\w+)`", cells[column])
    assert rows
    return rows


def source(name: str) -> str:
    return (SOURCES / name).read_text("utf-8")


def test_every_setting_is_documented():
    keys = re.findall(r'^    \{"(\w+)",', source("settings.cpp"), re.MULTILINE)
    assert first_column("Settings", "key") == keys


def test_every_reason_and_quality_is_documented():
    text = source("quality.cpp")
    reasons = re.findall(r'return "(\w+_\w+)";', text)
    assert sorted(first_column("Values", "quality", 1)) == sorted(reasons)


def test_every_outcome_is_documented():
    text = source("writes.cpp").split("outcome_text(")[1].split("\n}")[0]
    assert first_column("Writing", "outcome") == re.findall(r'return "(\w+)";', text)


def test_every_counter_is_documented():
    text = source("bridge.cpp").split("counters = {{")[1].split("}};")[0]
    assert first_column("Capacity", "counter") == re.findall(r'\{"(\w+)",', text)
