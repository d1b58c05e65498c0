"""An import loses nothing: the old rows or the new ones, whole, whatever happens meanwhile."""

import contextlib
import http.client
import pathlib
import random
import sqlite3
import subprocess
import threading
import time

import pytest

from kt_system.config_file import (
    BLOCKS,
    COLUMNS,
    FILE_FOLDER,
    SUCCESS,
    TABLES,
    ConfigFile,
    Generator,
    refusal,
)
from kt_system.gateway import WORKING_DB
from kt_system.lane import scaled, wait_until
from kt_system.rest import ADDRESS_FILE, BASE, LISTEN, MULTIPART, failure_lines, multipart
from kt_system.rows import U16, consume, device, frame, listeners, tag
from kt_system.tags import block_tag

OLD = Generator(1).configuration(3, 12, 4)
NEW = Generator(2).configuration(40, 120, 6)
END_SET = "can_proprietary_db_end_set_db"


@pytest.fixture
def running(gateway, rest):
    """A gateway with the old rows in its working copy, not applied."""
    gateway.configure(*listeners())
    gateway.start()
    hold_old_rows(gateway)


def hold_old_rows(gateway) -> None:
    """Once there is room for uploads."""
    wait_until(gateway.path(FILE_FOLDER).exists, 10.0, "the folder of the uploads")
    gateway.edit(WORKING_DB, sql=OLD.sql)


def tables(rest) -> list[list[tuple]]:
    rows = rest.rows(WORKING_DB)
    return [rows[f"{WORKING_DB} {table}"] for table in TABLES]


def sound(gateway) -> bool:
    return gateway.query("PRAGMA integrity_check") == [("ok",)]


# Stages ------------------------------------------------------------------------------------------


def test_a_failure_in_any_section_leaves_the_rows(rest, running):
    """In the first row, in the last one, and at the next head."""
    assert tables(rest) == OLD.tables
    rows = NEW.file.rows
    for index in range(5):
        for broken in (["x", *rows[index]], [*rows[index], "x"]):
            text = ConfigFile([broken if i == index else rows[i] for i in range(5)]).text
            answer = rest.upload(text)
            assert answer.status == 400
            assert answer.json["error"]["i18n"]["variables"]["errTableName"] == TABLES[index]
            assert tables(rest) == OLD.tables
        text = NEW.file.text.replace(COLUMNS[index], COLUMNS[index][1:])
        assert rest.upload(text).body == refusal("column-name-failed", TABLES[index], 0)
        assert tables(rest) == OLD.tables
    assert rest.upload(NEW.file.text + "[x]").status == 400
    assert tables(rest) == OLD.tables
    assert rest.upload(NEW.file.text).status == 201
    assert tables(rest) == NEW.after_import


def test_a_section_that_is_missing_is_found_at_the_end_and_leaves_the_rows(rest, running):
    text = "".join(NEW.file.section(index) for index in range(BLOCKS))
    answer = rest.upload(text)
    assert answer.json["error"]["i18n"]["key"] == "missing-table"
    assert tables(rest) == OLD.tables


def test_an_import_that_is_applied_runs(gateway, rest, bus, tags):
    gateway.configure(device("old", consume("state", frame(0x111, 2, tag("value", U16)))))
    gateway.start()
    assert rest.upload(ConfigFile().text).status == 201
    assert tags.find(block_tag("drive", "state", "speed")) is None
    rest.apply()
    assert tags.find(block_tag("old", "state", "value")) is None
    bus().send(0x181, "DC05000000000000")
    bus().send(0x181, "DC0500000000005A")
    tags.wait_for(block_tag("drive", "state", "speed"), 0xDC05)  # swapped
    assert gateway.query("SELECT count(*) FROM block") == [(6,)]


# Other connections -------------------------------------------------------------------------------


@contextlib.contextmanager
def held(gateway, *statements: str):
    """Another process's connection that stays in an SQL transaction."""
    with contextlib.closing(sqlite3.connect(gateway.path(WORKING_DB), isolation_level=None)) as db:
        for statement in statements:
            db.execute(statement).fetchall()
        yield


@pytest.mark.slow  # each lock is waited for
def test_a_lock_that_does_not_come_free_leaves_the_rows(gateway, rest, running):
    locked = "sqlite exec database is locked\n"
    writing = [f"import_interface_setting_parm|{locked}", *failure_lines(-13)]
    with held(gateway, "BEGIN IMMEDIATE"), rest.says(*writing):
        assert rest.upload(NEW.file.text).body == refusal("internal-err", "interface_setting", 0)
    assert tables(rest) == OLD.tables
    committing = [f"{END_SET}|{locked}", *failure_lines(-13)]
    with held(gateway, "BEGIN", "SELECT * FROM device"), rest.says(*committing):
        answer = rest.upload(NEW.file.text)
    assert answer.json["error"]["i18n"]["key"] == "internal-err"
    assert tables(rest) == OLD.tables
    assert rest.upload(NEW.file.text).status == 201


def test_readers_see_the_old_rows_or_the_new_ones(gateway, rest, running):
    files = [OLD.file.text, NEW.file.text]
    assert rest.upload(files[0]).status == 201
    wanted = [OLD.after_import, NEW.after_import]
    ended = threading.Event()
    seen = []

    def watch() -> None:
        with contextlib.closing(sqlite3.connect(gateway.path(WORKING_DB), timeout=30)) as db:
            db.isolation_level = None
            while not ended.is_set():
                db.execute("BEGIN")
                seen.append([db.execute(f"SELECT * FROM {table}").fetchall() for table in TABLES])
                db.execute("COMMIT")
                time.sleep(0.002)  # a reader without any pause would keep every writer out

    watcher = threading.Thread(target=watch)
    watcher.start()
    try:
        for index in (1, 0) * 4:
            looks = len(seen)
            assert rest.upload(files[index]).status == 201
            wait_until(lambda least=looks + 2: len(seen) >= least, what="a look at the rows")
    finally:
        ended.set()
        watcher.join()
    assert len(seen) > 8
    assert all(rows in wanted for rows in seen)


# The end of the process --------------------------------------------------------------------------


def upload_until_it_ends(address: tuple[str, int], text: str) -> None:
    """The service may go at any moment."""
    connection = http.client.HTTPConnection(*address, timeout=scaled(30))
    with contextlib.suppress(OSError, http.client.HTTPException):
        connection.request("POST", BASE + "/config-file", multipart(text), MULTIPART)
        connection.getresponse().read()
    connection.close()


def start_again(gateway, rest) -> None:
    """A request is the first to look: what the import left behind cannot be read without being
    allowed to roll it back. The ports need not come up: the rows are any that a file may hold."""
    gateway.path(ADDRESS_FILE).unlink()
    gateway.start(wait=False)
    wait_until(lambda: rest.get("/overview").status == 200, 10.0, "an answer")


def killed_during_imports(gateway, rest, cycles: int, seed: int) -> set[str]:
    """Kill the service at random moments of imports. @return which rows were found, old or new"""
    one = random.Random(seed)
    found = set()
    files = {"old": OLD.file.text, "new": NEW.file.text}
    rows = {"old": OLD.after_import, "new": NEW.after_import}
    assert rest.upload(files["old"]).status == 201
    now = "old"
    longest = 0.02  # seconds; follows what an import takes here, so that both outcomes come
    for cycle in range(cycles):
        wanted = "new" if now == "old" else "old"
        client = threading.Thread(target=upload_until_it_ends, args=(rest.address, files[wanted]))
        client.start()
        time.sleep(one.uniform(0, longest))
        gateway.kill()
        client.join()
        start_again(gateway, rest)
        assert sound(gateway)
        after = tables(rest)
        assert after in (rows[now], rows[wanted]), (cycle, [len(table) for table in after])
        kept = after == rows[now]
        found.add("kept" if kept else "replaced")
        longest = min(longest * (1.3 if kept else 0.7), 2.0)
        now = now if kept else wanted
        assert rest.get("/config-change").status == 200
    return found


def test_a_service_that_is_killed_during_an_import(gateway, rest, running):
    killed_during_imports(gateway, rest, 6, seed=1)


@pytest.mark.slow
def test_a_service_that_is_killed_during_many_imports(gateway, rest, running):
    assert killed_during_imports(gateway, rest, 40, seed=2) == {"kept", "replaced"}


# A full disk -------------------------------------------------------------------------------------


@contextlib.contextmanager
def small_disk(gateway, size: int):
    """The folder of the working copy takes no more than this; gives a command in front of the
    service. Where nothing can be mounted, no file of the service may grow beyond it."""
    folder = gateway.path(WORKING_DB).parent
    folder.mkdir(parents=True, exist_ok=True)
    mount = ["mount", "-t", "tmpfs", "-o", f"size={size}", "tmpfs", str(folder)]
    try:
        mounted = subprocess.run(mount, capture_output=True).returncode == 0
    except OSError:
        mounted = False
    try:
        yield () if mounted else ("env", "--ignore-signal=XFSZ", "prlimit", f"--fsize={size}")
    finally:
        if mounted:
            subprocess.run(["umount", "--lazy", str(folder)], check=True)


def test_a_disk_that_fills_during_the_import_leaves_the_rows(gateway, rest):
    large = Generator(3).configuration(255, 512, 8).file.text
    size = len(large) + 16 * 1024  # the upload has room, its rows have not
    with small_disk(gateway, size) as wrapper:
        gateway.configure(*listeners())
        gateway.start(wrapper=wrapper, environment=LISTEN)
        hold_old_rows(gateway)
        for _ in range(3):
            answer = rest.upload(large)
            assert (answer.status, answer.json["error"]["code"]) == (400, -13)
            assert answer.json["error"]["i18n"]["key"] == "internal-err"
            assert tables(rest) == OLD.tables
            assert sound(gateway)
        reasons = {text for _, function, text in gateway.messages if function == END_SET}
        assert reasons <= {
            "sqlite exec database or disk is full\n",
            "sqlite exec disk I/O error\n",
        }, reasons
        assert reasons
        # What fits is imported on.
        answer = rest.upload(OLD.file.text)
        assert (answer.status, answer.body) == (201, SUCCESS)
        assert tables(rest) == OLD.after_import
        left = {entry.name for entry in pathlib.Path(gateway.path(WORKING_DB)).parent.iterdir()}
        assert left == {"can_proprietary.db"}
        gateway.stop()
