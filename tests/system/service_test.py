"""Start, stop and the database files."""

import os
import signal
import sqlite3

import pytest

from kt_system import lane
from kt_system.gateway import DEFAULT_DB, PERSISTENT_DB, SAVED_SCHEMA, SCHEMA, WORKING_DB
from kt_system.lane import wait_until
from kt_system.rows import U16, consume, device, frame, tag
from kt_system.tags import COMMUNICATING, block_tag, status_tag

DATABASES = (DEFAULT_DB, PERSISTENT_DB, WORKING_DB)
PORT_ROW = (0, 3, 0, 0, 0)  # frameFormat, baudrate, initialDelay, busOffReset, resistor


def sensor(name: str = "sensor", can_id: int = 0x181, port: int = 1):
    return device(name, consume("state", frame(can_id, 2, tag("value", U16))), port=port)


def assert_serves(bus, tags, name="sensor", can_id=0x181, port="can0"):
    bus(port).send(can_id, "3412")
    tags.wait_for(block_tag(name, "state", "value"), 0x1234)
    tags.wait_for(status_tag(name), COMMUNICATING)


def test_first_start_makes_every_database_and_one_row_per_port(gateway):
    gateway.start()
    for database in (PERSISTENT_DB, WORKING_DB):
        rows = gateway.query("SELECT * FROM interface_setting", database=database)
        assert rows == [(1, *PORT_ROW), (2, *PORT_ROW)]
    assert gateway.query("SELECT * FROM interface_setting", database=DEFAULT_DB) == []
    assert gateway.path(SAVED_SCHEMA).read_bytes() == gateway.path(SCHEMA).read_bytes()
    gateway.stop()
    assert gateway.messages == []


def test_the_files_of_a_configuration_are_those_of_a_first_start(gateway):
    """What the harness lays out is what the service makes."""

    def contents():
        queries = ("SELECT sql FROM sqlite_master ORDER BY name", "SELECT * FROM interface_setting")
        databases = (DEFAULT_DB, PERSISTENT_DB)
        return [gateway.query(query, database=db) for db in databases for query in queries]

    gateway.start()
    gateway.stop()
    own = contents()
    gateway.configure()
    assert contents() == own


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGQUIT])
def test_a_stop_signal_ends_it_with_status_0(gateway, number):
    gateway.configure(sensor())
    gateway.start()
    gateway.stop(number, nudge=False)
    assert gateway.messages == []


def test_a_broken_pipe_does_not_end_it(gateway, bus, tags):
    gateway.configure(sensor())
    gateway.start()
    gateway.process.send_signal(signal.SIGPIPE)
    assert_serves(bus, tags)


def test_a_stopped_service_takes_its_tags_away_and_switches_the_led_off(gateway, tags):
    gateway.configure(sensor())
    gateway.start()
    gateway.stop()
    assert tags.names() == set()
    assert gateway.led().startswith("state 0 (off)")


def test_without_a_schema_it_ends_with_status_255(gateway):
    gateway.path(SCHEMA).unlink()
    gateway.start(wait=False)
    gateway.wait_exit(255)
    path = gateway.path(SCHEMA)
    assert gateway.logged(
        "get_file_contents", f"Fail to open {path}, Error : No such file or directory\n"
    )
    assert gateway.logged("create_default_db", f"can not read  {path} db schema\n")


def test_a_message_is_red_and_names_its_function_and_line(gateway):
    gateway.path(SCHEMA).unlink()
    gateway.start(wait=False)
    gateway.wait_exit(255)
    assert "\x1b[91mERROR: get_file_contents(" in gateway.stderr
    assert gateway.stderr.endswith("\n\x1b[0m")


@pytest.mark.parametrize("level", ["FATAL", "OFF"])
def test_log_levels_above_error_silence_it(gateway, level):
    gateway.path(SCHEMA).unlink()
    gateway.start(wait=False, environment={"KT_CANOPEN_XLOG_USER_LEVEL": level})
    gateway.wait_exit(255)
    assert gateway.stderr == ""


@pytest.mark.parametrize("level", ["ALL", "ERROR and more", "nonsense", ""])
def test_other_log_levels_let_errors_through(gateway, level):
    gateway.path(SCHEMA).unlink()
    gateway.start(wait=False, environment={"KT_CANOPEN_XLOG_USER_LEVEL": level})
    gateway.wait_exit(255)
    assert gateway.messages != []


def test_a_schema_that_is_no_sql_ends_it(gateway):
    gateway.path(SCHEMA).write_text("CREATE TABEL device;")
    gateway.start(wait=False)
    gateway.wait_exit(255)
    assert gateway.logged(
        "create_default_db", 'Fail to set schema. near "TABEL": syntax error\n'
    )


def test_the_working_copy_outlives_a_restart(gateway):
    """Edits that were not applied are lost with the RAM file system, not with the process.

    A start counts them as unchanged, as the ports run by them from then on.
    """
    gateway.configure(sensor())
    gateway.start()
    gateway.stop()
    gateway.edit(WORKING_DB, sensor("edited", 0x182))
    gateway.start()
    assert "can_proprietary/edited/status" in gateway.tags.names()
    assert gateway.asked("GET", "/config-change") == {"result": 0}


def test_a_missing_working_copy_comes_back_from_the_persistent_database(gateway):
    gateway.configure(sensor())
    gateway.start()
    gateway.stop()
    gateway.edit(WORKING_DB, sensor("edited", 0x182))
    gateway.path(WORKING_DB).unlink()
    gateway.start()
    assert gateway.query("SELECT deviceName FROM device") == [("sensor",)]


def test_a_missing_default_database_rebuilds_everything(gateway):
    gateway.configure(sensor())
    gateway.path(DEFAULT_DB).unlink()
    gateway.start()
    assert gateway.query("SELECT * FROM device") == []
    assert len(gateway.query("SELECT * FROM interface_setting")) == 2


def corrupt(path) -> None:
    """Damage that PRAGMA integrity_check cannot get past: the header stays, the schema goes."""
    with open(path, "r+b") as file:
        file.seek(100)
        file.write(b"\xff" * (os.path.getsize(path) - 100))


@pytest.mark.parametrize("database", [WORKING_DB, PERSISTENT_DB])
def test_a_corrupt_database_is_removed_and_rebuilt_from_the_schema(gateway, database):
    gateway.configure(sensor())
    if database == WORKING_DB:
        gateway.start()
        gateway.stop()
    corrupt(gateway.path(database))
    gateway.start(wait=False)

    def rebuilt() -> bool:
        assert gateway.running(), gateway.stderr
        try:
            return gateway.query("SELECT COUNT(*) FROM interface_setting") == [(2,)]
        except sqlite3.Error:
            return False

    wait_until(rebuilt, 10.0, lambda: f"a sound working copy\n{gateway.stderr}")
    assert gateway.query("SELECT * FROM device") == []
    path = gateway.path(WORKING_DB)  # a copy carries the damage over
    text = f"db '{path}' is corrupt, remove db and exit process\n"
    assert [message for message in gateway.messages if message.text == text]
    gateway.stop()


def changed_schema(gateway) -> None:
    text = gateway.path(SCHEMA).read_text()
    column = "deviceName TEXT NOT NULL"
    wider = text.replace(column, column + ", note TEXT DEFAULT 'new'")
    assert wider != text
    gateway.path(SCHEMA).write_text(wider)


def test_a_changed_schema_migrates_and_keeps_the_rows(gateway, bus, tags):
    gateway.configure(sensor(), sql="UPDATE interface_setting SET baudrate = 5 WHERE portId = 2")
    gateway.edit(
        PERSISTENT_DB,
        sql="PRAGMA foreign_keys = OFF;"
        "UPDATE device SET deviceId = 7; UPDATE transactions SET deviceId = 7;",
    )
    changed_schema(gateway)
    gateway.start()
    assert gateway.query("SELECT deviceId, deviceName, note FROM device") == [(7, "sensor", "new")]
    assert gateway.query("SELECT baudrate FROM interface_setting") == [(3,), (5,)]
    assert gateway.path(SAVED_SCHEMA).read_bytes() == gateway.path(SCHEMA).read_bytes()
    assert_serves(bus, tags)
    gateway.stop()
    gateway.start()
    assert gateway.messages == []


def test_a_vanished_saved_schema_stops_every_start(gateway):
    gateway.configure(sensor())
    saved = gateway.path(SAVED_SCHEMA)
    saved.unlink()
    for _ in range(2):
        gateway.start(wait=False)
        gateway.wait_exit(255)
        assert gateway.logged("is_sql_the_same", f"can not read  {saved} db schema\n")
        assert gateway.logged(
            "can_proprietary_db_init_user_config",
            f"Fail to remove {saved}, Error : No such file or directory\n",
        )
    assert gateway.query("SELECT deviceName FROM device", database=PERSISTENT_DB) == [("sensor",)]


def test_a_port_without_devices_leaves_the_other_serving(gateway, bus, tags):
    gateway.configure(sensor(port=2))
    gateway.start()
    assert_serves(bus, tags, port="can1")


def test_a_missing_interface_ends_its_port_only(gateway, bus, tags):
    gateway.configure(sensor(), sensor("lost", 0x182, port=2))
    gateway.start(wait=False, environment={"KT_CAN_PORTS": "can0,can7"})
    wait_until(
        lambda: [m for m in gateway.messages if m.text.startswith("port_idx = 1, cfd = ")],
        what=lambda: f"the message of port 1, only {gateway.messages}",
    )
    wait_until(lambda: block_tag("sensor", "state", "value") in tags.names())
    assert_serves(bus, tags)
    assert block_tag("lost", "state", "value") not in tags.names()


def test_without_ports_it_stays_up_until_a_signal(gateway):
    gateway.start(wait=False, environment={"KT_CAN_PORTS": "nosuchport"})
    wait_until(lambda: gateway.path(WORKING_DB).exists())
    gateway.stop()


@pytest.mark.slow
@pytest.mark.skipif(lane.KERNEL, reason="too slow there")
def test_it_leaks_nothing(gateway, bus, tags):
    gateway.configure(sensor(), sensor("other", 0x182, port=2))
    gateway.start(
        wait=False,
        wrapper=[
            "valgrind", "-q", "--leak-check=full", "--show-leak-kinds=definite,indirect,possible",
            "--errors-for-leak-kinds=definite,indirect,possible", "--error-exitcode=99",
        ],
    )  # fmt: skip
    gateway.wait_ready(60.0)
    node = bus()
    node.send(0x181, "3412")
    tags.wait_for(block_tag("sensor", "state", "value"), 0x1234, 30.0)
    gateway.stop(timeout=60.0)
