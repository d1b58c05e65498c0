"""The packages on a machine: in a chroot without systemd, and under systemd on a CAN kernel."""

import json
import re

CAP_NET_ADMIN = 1 << 12
USER = "kt-can-proprietary"
CONFIGURATION = "/data/config/kt-can-proprietary"


def overview(text: str) -> list[int]:
    """The number of devices of each port."""
    return [port["deviceNum"] for port in json.loads(text)["data"]["portList"]]


def test_installing_starts_a_service_with_a_port_per_interface(machine):
    machine.good("installed")
    assert overview(machine.good("first_overview")) == [0, 0]


def test_the_service_runs_as_its_user_with_one_capability(machine):
    lines = dict(line.split(":", 1) for line in machine.good("process").splitlines())
    for name in ("Uid", "Gid"):
        (number,) = set(lines[name].split())
        assert number != "0"
    for name in ("CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb"):
        assert int(lines[name], 16) == CAP_NET_ADMIN, name
    assert lines["NoNewPrivs"].strip() == "1"
    assert lines["Seccomp"].strip() == ("2" if machine.supervisor == "systemd" else "0")


def test_the_system_is_read_only_for_it(machine):
    options = {}
    for line in machine.good("mounts").splitlines():
        _, place, _, words, *_ = line.split()
        options[place] = words.split(",")
    assert "ro" in options["/"]
    assert "rw" in options[CONFIGURATION]
    assert "rw" in options["/run/kt-dx"]


def test_port_threads_go_ahead_of_the_others(machine):
    threads = dict(re.findall(r"\((.*)\) (-?\d+)", machine.good("threads")))
    if machine.supervisor == "systemd":
        assert threads["can0-port"] == threads["can1-port"] == "-5"
        assert threads["kt-can-propriet"] == "0"
    assert threads["dx-dispatch"] == threads["kt-can-propriet"]


def test_the_service_sets_its_ports_up(machine):
    links = machine.good("links")
    for port in ("can0", "can1"):
        (line,) = [line for line in links.splitlines() if f": {port}:" in line]
        assert re.search(r"<[^>]*\bUP\b", line), line


def test_files_stand_where_the_documents_say_with_their_owners(machine):
    own = f"{USER}:{USER}"
    assert machine.good("folders").splitlines() == [
        "/etc/default/config/kt-can-proprietary/can_proprietary.sql root:root 644",
        f"{CONFIGURATION} {own} 755",
        f"{CONFIGURATION}/can_proprietary.db {own} 644",
        f"/run/config/kt-can-proprietary {own} 755",
        f"/run/config/kt-can-proprietary/can_proprietary.db {own} 644",
        f"/run/tmp/kt-can-proprietary {own} 755",
        "/run/kt-dx root:kt-dx 2775",
        f"/run/kt-dx/tags {USER}:kt-dx 660",
        f"/run/kt-event-agent {own} 755",
        f"/run/kt-platform/led3 {own} 644",
        f"/run/kt-rest/CAN-proprietary.address {own} 644",
    ]


def test_the_unit_is_sound(machine):
    assert machine.good("verified") == ""


def test_the_unit_exposes_little(machine):
    found = re.search(r"Overall exposure level for \S+: (\d+\.\d+)", machine.good("exposure"))
    assert float(found[1]) <= 3.0


def test_a_frame_becomes_a_tag_for_members_of_the_group(machine):
    machine.good("configured")
    machine.good("applied")
    assert machine.good("member") == "1500\n"


def test_a_user_outside_the_group_is_refused(machine):
    assert machine.status("stranger") != 0
    assert "Permission denied" in machine.text("stranger")


def test_traffic_can_be_recorded(machine):
    machine.good("recording")
    header, frame, *_ = machine.good("recorded").splitlines()
    assert header == "No.,Time,Direction,CAN-ID,RTR,Data length,Data"
    assert frame.startswith("1,")


def test_an_event_reaches_the_file_and_the_log_of_the_system(machine):
    event = "CAN Proprietary:Transaction Success"
    assert event in machine.good("events")
    if machine.supervisor == "systemd":
        assert event in machine.good("journal")


def test_the_bridge_publishes_tags_as_a_user_without_rights(machine):
    value = json.loads(machine.good("published"))
    assert (value["value"], value["type"], value["quality"]) == (1500, "uint16", "good")
    assert json.loads(machine.good("status"))["state"] == "online"
    assert json.loads(machine.good("bridge_stopped"))["state"] == "offline"
    lines = dict(line.split(":", 1) for line in machine.good("bridge_process").splitlines())
    assert "0" not in lines["Uid"].split()
    for name in ("CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb"):
        assert int(lines[name], 16) == 0, name
    assert lines["NoNewPrivs"].strip() == "1"


def test_the_bridge_has_a_place_for_its_secrets(machine):
    assert machine.good("bridge_settings") == ""
    assert machine.good("bridge_folders").splitlines() == [
        "/etc/kt-dx-mqtt root:kt-dx-mqtt 750",
        "/etc/kt-dx-mqtt.conf root:root 644",
    ]


def test_the_unit_of_the_bridge_is_sound_and_exposes_little(machine):
    assert machine.good("bridge_verified") == ""
    found = re.search(
        r"Overall exposure level for \S+: (\d+\.\d+)", machine.good("bridge_exposure")
    )
    assert float(found[1]) <= 3.0


def test_a_service_that_was_killed_comes_back(machine):
    if machine.supervisor == "systemd":
        assert overview(machine.good("restarted")) == [1, 0]


def test_an_upgrade_restarts_and_migrates_and_keeps_the_configuration(machine, packages):
    machine.good("upgraded")
    version = (packages / "version").read_text()
    assert sorted(machine.good("versions").splitlines()) == [
        f"kt-can-proprietary {version} installed",
        f"kt-can-proprietary-platform {version} installed",
        f"kt-dx-mqtt {version} installed",
    ]
    machine.good("another_process")
    assert overview(machine.good("upgraded_overview")) == [1, 0]
    shipped, saved = (line.split()[0] for line in machine.good("schemas").splitlines())
    assert shipped == saved


def test_a_backup_that_root_brings_back_is_used(machine):
    machine.good("own_again")
    assert overview(machine.good("restored_overview")) == [1, 0]
    assert machine.good("restored_owner").strip() == f"{USER}:{USER}"


def test_removing_stops_the_service_and_keeps_the_configuration(machine):
    machine.good("removed")
    assert machine.status("still_running") == 1
    machine.good("kept")


def test_nothing_stays_after_a_purge(machine):
    machine.good("purged")
    assert machine.good("remains") == ""


def test_the_service_had_nothing_to_complain_about(machine):
    """A virtual port has no bit rate, so the ip command may refuse that; nothing else."""
    lines = re.sub(r"\x1b\[[0-9;]*m", "", machine.good("journal")).splitlines()
    complaint = re.compile(r"(ERROR|Error|kt-rest|kt-dx|ktsqlite3_merge)\b|.*not permitted")
    assert [line for line in lines if complaint.match(line)] == []
