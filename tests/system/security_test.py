"""What docs/security.md promises, seen from outside."""

import contextlib
import os
import pathlib
import re
import stat
import subprocess

import pytest

from kt_system import lane
from kt_system.config_file import ConfigFile
from kt_system.gateway import WORKING_DB
from kt_system.lane import wait_until
from kt_system.rest import ADDRESS_FILE, device_json
from kt_system.rows import consume, device, frame, tag
from kt_system.tags import block_tag

DRIVE = device("drive", consume("state", frame(0x181, 8, tag("value"))))
TRAFFIC = "/run/tmp/kt-can-proprietary/"
EVENTS = "/run/kt-event-agent/events.jsonl"
STORE = "/run/kt-dx/tags"
# Every file that the service or its libraries write below /run
WRITTEN = [
    WORKING_DB,
    WORKING_DB + "-journal",
    TRAFFIC + "traffic-log0.csv",
    TRAFFIC + "traffic-log0.json",
    TRAFFIC + "traffic-log0.json.lock",
    TRAFFIC + "tmp.csv",
    EVENTS,
    EVENTS + ".1",
    "/run/kt-platform/led3",
    ADDRESS_FILE,
]
SECRET = "s3cret-0f-the-plant"


def listening_addresses(process: subprocess.Popen) -> list[str]:
    """Addresses in hexadecimal of the TCP sockets on which the process accepts connections."""
    folder = pathlib.Path(f"/proc/{process.pid}")
    own = set()
    for link in folder.glob("fd/*"):
        with contextlib.suppress(FileNotFoundError):  # closed meanwhile
            own.add(os.readlink(link))
    tables = [folder / "net" / name for name in ("tcp", "tcp6")]  # a kernel may have no IPv6
    rows = [row for table in tables if table.exists() for row in table.open().readlines()[1:]]
    fields = [row.split() for row in rows]
    listens = "0A"
    return [row[1] for row in fields if row[3] == listens and f"socket:[{row[9]}]" in own]


def exercise(gateway, rest, bus) -> None:
    """Whatever makes the service write: tags, events, LED, recording, edits, import, export."""
    rest.post("/traffic/1", {"option": 1})
    bus().send(0x181, "0102030405060708")
    bus().send_error(0x40)
    rest.post("/device", device_json("edit"))
    rest.upload(ConfigFile().text)
    rest.get("/config-file")
    rest.get("/traffic/1")
    rest.get("/traffic-export/1")
    wait_until(lambda: gateway.path(EVENTS).is_file() or None, 5.0, "an event")


@pytest.mark.parametrize("written", WRITTEN, ids=lambda path: path.rpartition("/")[2])
def test_no_link_in_a_runtime_folder_is_followed(gateway, rest, bus, tmp_path, written):
    gateway.configure(DRIVE)
    victim = tmp_path / "victim"
    victim.write_bytes(b"not the service's: " + SECRET.encode())
    place = gateway.path(written)
    place.parent.mkdir(parents=True, exist_ok=True)
    place.symlink_to(victim)
    gateway.start(wait=False)
    if written == WORKING_DB:
        wait_until(lambda: not place.is_symlink(), 10.0, "a working copy of its own")
    gateway.wait_ready()
    exercise(gateway, rest, bus)
    answers = [rest.get(path).body for path in ("/config-file", "/traffic/1", "/traffic-export/1")]
    assert victim.read_bytes() == b"not the service's: " + SECRET.encode()
    assert not any(SECRET.encode() in body for body in answers)
    place.unlink(missing_ok=True)
    gateway.stop()


def test_a_dangling_link_makes_no_file_elsewhere(gateway, rest, bus, tmp_path):
    gateway.configure(DRIVE)
    for number, written in enumerate(WRITTEN):
        if written != EVENTS:  # what the exercise waits for
            place = gateway.path(written)
            place.parent.mkdir(parents=True, exist_ok=True)
            place.symlink_to(tmp_path / f"made-{number}")
    gateway.start()
    exercise(gateway, rest, bus)
    assert list(tmp_path.glob("made-*")) == []


def test_a_link_is_no_tag_store(gateway, tmp_path):
    gateway.configure(DRIVE)
    victim = tmp_path / "victim"
    victim.write_text(SECRET)
    gateway.path(STORE).parent.mkdir(parents=True, exist_ok=True)
    gateway.path(STORE).symlink_to(victim)
    gateway.start(wait=False)
    wait_until(lambda: f"{gateway.path(STORE)}: is a symbolic link" in gateway.stderr, 10.0, STORE)
    gateway.stop()
    assert victim.read_text() == SECRET


@pytest.mark.parametrize("address", ["0.0.0.0:0", "[::]:0", "192.0.2.1:0"])
def test_nothing_listens_beyond_loopback_without_a_token(gateway, address):
    gateway.configure(DRIVE)
    gateway.start(environment={"KT_REST_LISTEN": address})
    assert "kt-rest: " in gateway.stderr
    assert listening_addresses(gateway.process) == []


def test_the_default_listener_is_loopback(gateway, rest):
    gateway.configure(DRIVE)
    gateway.start()
    assert rest.get("/overview").status == 200
    (address,) = listening_addresses(gateway.process)
    assert address.startswith("0100007F:")


def token_file(folder: pathlib.Path) -> pathlib.Path:
    path = folder / "token"
    path.touch(0o600)
    path.write_text(SECRET + "\n")
    return path


def written_files(gateway) -> list[pathlib.Path]:
    roots = [gateway.path("/run"), gateway.path("/data"), gateway.scratch / "stderr.txt"]
    roots.append(gateway.scratch / "stdout.txt")
    files = [path for root in roots for path in ([root] if root.is_file() else root.rglob("*"))]
    return [path for path in files if path.is_file()]


def test_the_token_is_in_no_log_file_or_answer(gateway, rest, bus, tmp_path):
    """Neither when it is right, nor wrong, nor offered in the wrong place."""
    gateway.configure(DRIVE)
    gateway.start(environment={"KT_REST_TOKEN_FILE": str(token_file(tmp_path))})
    right = {"Authorization": f"Bearer {SECRET}"}
    answers = [rest.get("/overview", headers=right)]
    assert answers[0].status == 200
    for value in (f"Bearer {SECRET}x", f"Basic {SECRET}", SECRET):
        answers.append(rest.get("/overview", headers={"Authorization": value}))
        assert answers[-1].status == 401
    answers.append(rest.post("/device", b"{", headers=right))
    answers.append(rest.get("/device/9", headers=right))
    assert not any(SECRET in f"{answer.headers}{answer.body}" for answer in answers)
    gateway.stop()
    assert [path for path in written_files(gateway) if SECRET.encode() in path.read_bytes()] == []


def test_a_token_that_others_can_read_opens_nothing(gateway, tmp_path):
    gateway.configure(DRIVE)
    path = token_file(tmp_path)
    path.chmod(0o644)
    gateway.start(
        environment={"KT_REST_LISTEN": "0.0.0.0:0", "KT_REST_TOKEN_FILE": str(path)},
    )
    assert "is open to others" in gateway.stderr
    assert SECRET not in gateway.stderr
    assert listening_addresses(gateway.process) == []


def test_the_tag_store_is_for_its_owner_and_group(gateway, tags):
    gateway.configure(DRIVE)
    gateway.start()
    assert tags.find(block_tag("drive", "state", "value"))
    mode = gateway.path(STORE).stat().st_mode
    assert stat.S_IMODE(mode) == 0o660


def test_nothing_that_the_service_makes_can_be_written_by_others(gateway, rest, bus):
    gateway.configure(DRIVE)
    gateway.start()
    exercise(gateway, rest, bus)
    made = [gateway.path(path) for path in ("/run", "/data")]
    made += [entry for root in tuple(made) for entry in root.rglob("*")]
    for entry in made[2:]:
        with contextlib.suppress(FileNotFoundError):  # a fresh file that took its place meanwhile
            mode = entry.lstat().st_mode
            assert stat.S_ISLNK(mode) or not mode & stat.S_IWOTH, entry


@pytest.mark.skipif(lane.KERNEL, reason="the ports of lane K are the kernel's")
@pytest.mark.parametrize("name", ["can0;touch X", "$(touch X)", "`touch X`", "-h", "can0\ntouch X"])
def test_a_port_name_never_reaches_a_shell(gateway, tmp_path, name):
    trap = tmp_path / "made-by-a-shell"
    listed = name.replace("X", str(trap)[:10])
    gateway.configure(DRIVE)
    gateway.start(environment={"KT_CAN_PORTS": f"can0,{listed}"})
    assert re.search(r"left out: not a usable interface name", gateway.stderr)
    assert not trap.exists() and not pathlib.Path(str(trap)[:10]).exists()


NAMES = [
    "x'); DROP TABLE device; --",
    "x' || (SELECT 1) || '",
    "x', 1); ATTACH DATABASE '/tmp/other' AS o; --",
    "x'; PRAGMA foreign_keys = OFF; --",
]


@pytest.mark.parametrize("name", NAMES)
def test_sql_in_a_name_changes_nothing(gateway, rest, name):
    gateway.configure(DRIVE)
    gateway.start()
    with rest.unchanged():
        answer = rest.post("/device", device_json(name))
        assert answer.status in (400, 500), answer
    assert [row[0] for row in gateway.query("SELECT deviceName FROM device")] == ["drive"]
