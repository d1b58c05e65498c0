"""Uploads of configuration files: what is accepted, what is refused and how that is told."""

import gzip
import random

import pytest
import requests

from kt_system import lane
from kt_system.config_file import (
    BLOCKS,
    COLUMNS,
    DEVICES,
    FILE_FOLDER,
    FRAMES,
    HEADS,
    PORTS,
    SUCCESS,
    TABLES,
    TRANSACTIONS,
    UPLOAD_FILE,
    ConfigFile,
    curl,
    refusal,
)
from kt_system.gateway import PERSISTENT_DB, WORKING_DB
from kt_system.lane import scaled
from kt_system.rest import MULTIPART, failure_lines, multipart, serving
from kt_system.rows import U16, consume, device, frame, tag

OLD = device("old", consume("state", frame(0x111, 2, tag("value", U16))))
BODY_MAX = 8 * 1024 * 1024
POST = "can_proprietary_rest_post_config_file"
DRIVER = "can_proprietary_conf_import"
READERS = {
    "interface_setting": "import_interface_setting_parm",
    "device": "import_device_parm",
    "transactions": "import_transaction_parm",
    "frame": "import_frame_parm",
    "block": "import_block_parm",
}
FILE = ConfigFile()


@pytest.fixture(scope="module")
def gateway(tmp_path_factory):
    yield from serving(tmp_path_factory.mktemp("gateway"), OLD)


@pytest.fixture(autouse=True)
def old_rows(gateway, rest):
    """Every test begins with the configuration that runs."""
    rest.discard()
    yield
    assert gateway.running()


def tables(rest, database: str = WORKING_DB) -> list[list[tuple]]:
    rows = rest.rows(database)
    return [rows[f"{database} {table}"] for table in TABLES]


def imported(rest, text: bytes | str) -> list[list[tuple]]:
    """The tables after an import that says nothing and changes the working copy alone."""
    persistent = rest.rows(PERSISTENT_DB)
    with rest.says():
        answer = rest.upload(text)
    assert (answer.status, answer.body) == (201, SUCCESS)
    assert rest.rows(PERSISTENT_DB) == persistent
    return tables(rest)


def refused(rest, text: bytes | str, key: str, table: str, row: int, *lines: str) -> None:
    """The file changes nothing; the whole answer and the whole log are these."""
    with rest.unchanged(), rest.says(*lines, *failure_lines(-13)):
        answer = rest.upload(text)
    assert (answer.status, answer.body) == (400, refusal(key, table, row))
    assert answer.headers["content-type"] == "application/json"


# Clients -----------------------------------------------------------------------------------------


def test_curl_imports_a_file(gateway, rest, tmp_path):
    (tmp_path / "c.csv").write_text(FILE.text)
    answer = curl("--form", f"file=@{tmp_path}/c.csv", rest.url("/config-file"))
    assert (answer.status, answer.body) == (201, SUCCESS)
    assert answer.headers["content-type"] == "application/json"
    assert gateway.query("SELECT deviceName FROM device") == [("drive",), ("sensor",)]


def test_curl_is_told_what_is_wrong(rest, tmp_path):
    (tmp_path / "c.csv").write_text(FILE.changed("1,1,drive", "1,,drive"))
    with rest.unchanged():
        answer = curl("--form", f"file=@{tmp_path}/c.csv", rest.url("/config-file"))
    assert answer.status == 400
    assert answer.body == refusal("missing-necessary-parameter", "device", 1)


def test_requests_imports_a_file_whatever_it_is_called(gateway, rest):
    for name, filename in (("file", "c.csv"), ("x", "../../etc/passwd"), ("", "")):
        rest.discard()
        upload = {name: (filename, FILE.text, "text/csv")}
        answer = requests.post(rest.url("/config-file"), files=upload, timeout=scaled(30))
        assert (answer.status_code, answer.content) == (201, SUCCESS), name
        assert gateway.query("SELECT count(*) FROM device") == [(2,)]
    assert not gateway.path("/etc/passwd").exists()


def test_an_import_waits_for_its_apply(rest, tags, gateway):
    rest.wait_next_second()
    assert rest.get("/config-change").data == {"result": 0}
    imported(rest, FILE.text)
    assert rest.get("/config-change").data == {"result": 1}
    assert tags.find("can_proprietary/drive/state_speed") is None
    assert tags.find("can_proprietary/old/state_value") is not None
    rest.discard()
    assert rest.get("/config-change").data == {"result": 0}


def test_an_import_that_fails_is_no_change(rest):
    rest.wait_next_second()
    for text in ("", FILE.changed("kind,1,5A", "k ind,1,5A"), FILE.text + "[x]\n"):
        assert rest.upload(text).status == 400
        assert rest.get("/config-change").data == {"result": 0}


def test_the_upload_stays_where_it_was_put(gateway, rest):
    place = gateway.path(UPLOAD_FILE)
    for text in (FILE.text, FILE.text + "#" * 5000, "x", FILE.text):
        rest.upload(text)
        assert place.read_text() == text
    assert [entry.name for entry in gateway.path(FILE_FOLDER).iterdir()] == ["tmp.csv"]


# Bodies ------------------------------------------------------------------------------------------


def test_no_body_is_an_invalid_parameter(rest):
    with rest.unchanged(), rest.says(f"{POST}|invalid input_data\n", *failure_lines(-1)):
        answer = curl("--request", "POST", rest.url("/config-file"))
    assert answer.status == 400
    assert answer.body == b'{"error":{"code":-1,"message":"Invalid parameters"}}'
    rest.refused(-1, "POST", "/config-file", None, f"{POST}|invalid input_data\n")
    rest.refused(-1, "POST", "/config-file", b"", f"{POST}|invalid input_data\n")


def test_a_body_that_is_not_multipart_fails_to_be_got(gateway, rest):
    bodies = [FILE.text, "{}", "x", "\n", "--\n", "\0", b"\x89PNG\r\n\x1a\n", "-- b\r\n\r\nx"]
    place = gateway.path(UPLOAD_FILE)
    before = place.read_bytes() if place.exists() else None
    for body in bodies:
        rest.refused(-7, "POST", "/config-file", body, f"{POST}|parse_boundary fail\n")
    answer = curl("--data-binary", "version: 1.0.0", rest.url("/config-file"))
    assert answer.status == 500
    assert answer.body == b'{"error":{"code":-7,"message":"Fail to get"}}'
    assert (place.read_bytes() if place.exists() else None) == before


def test_a_multipart_body_that_is_cut_off_fails_to_be_got(rest):
    whole = multipart(FILE.text)
    for length in (len("--kt-boundary\r\n"), 40, len(whole) // 2, len(whole) - 5):
        rest.refused(-7, "POST", "/config-file", whole[:length], f"{POST}|mp_parse fail\n")


def test_the_first_of_several_parts_is_the_file(gateway, rest):
    part = "--b\r\nContent-Disposition: form-data\r\n\r\n{}\r\n"
    body = part.format(FILE.text) + part.format("other") + "--b--\r\n"
    assert rest.post("/config-file", body).status == 201
    body = part.format("other") + part.format(FILE.text) + "--b--\r\n"
    assert rest.post("/config-file", body).status == 400
    assert gateway.path(UPLOAD_FILE).read_text() == "other"


# Keys --------------------------------------------------------------------------------------------

DEVICE_ROW = "1,1,drive"
STATE_ROW = "1,1,1,state,1,,,,,,1,200,,"
SPEED_ROW = "1,1,0,0,speed,6,2,ro,1,,0,,,,,,,,,"


def missing(line: int, column: int) -> str:
    return f"Data error at line {line}, missing necessary parameter in column {column}\n"


def inserting(line: int, text: str) -> str:
    return f"Data error at line {line}, sqlite insert data error ( {text} )\n"


def many_devices(count: int) -> list[str]:
    return [f"{key},1,d{key}" for key in range(count)]


def many_transactions(count: int) -> list[str]:
    return [f"{key},1,1,t{key},1,,,,,,0,,," for key in range(count)]


# name: text, key, table, row, message of the table's reader
REFUSALS = {
    "section without a header": (
        "".join(map(FILE.section, range(4))) + HEADS[BLOCKS],
        "syntax-err",
        "block",
        0,
        "Data error at line 0, syntax error\n",
    ),
    "section without a header, not the last one": (
        HEADS[DEVICES] + "\n",
        "syntax-err",
        "device",
        0,
        "get csv_line error",
    ),
    "device name with a blank": (
        FILE.changed(DEVICE_ROW, "1,1,dri ve"),
        "syntax-err",
        "device",
        1,
        "Data error: Invalid characters in 'deviceName' at line 1, column 3\n",
    ),
    "number that is none": (
        FILE.changed(DEVICE_ROW, "one,1,drive"),
        "syntax-err",
        "device",
        1,
        inserting(1, "no such column: one"),
    ),
    "header of interfaces": (
        FILE.changed("resistor", "resistors").replace("portId,frame", "portid,frame"),
        "column-name-failed",
        "interface_setting",
        0,
        "Data error at line 0, column name error\n",
    ),
    "header of devices": (
        FILE.changed("deviceId,portId", "deviceId;portId"),
        "column-name-failed",
        "device",
        0,
        "Data error at line 0, colum name error\n",
    ),
    "header of transactions": (
        FILE.changed("fpTimeout", "fptimeout"),
        "column-name-failed",
        "transactions",
        0,
        "Data error at line 0, transaction column name error\n",
    ),
    "header of frames": (
        FILE.changed("canId", "canid"),
        "column-name-failed",
        "frame",
        0,
        "Data error at line 0, colum name error\n",
    ),
    "header of blocks": (
        FILE.changed("constantValue", "constant"),
        "column-name-failed",
        "block",
        0,
        "Data error at line 0, colum name error\n",
    ),
    "fewer interfaces than ports": (
        FILE.changed("2,1,7,500,1,1\n", ""),
        "internal-err",
        "interface_setting",
        2,
        "interface_setting_table rows does not match the expected number of ports .\n",
    ),
    "more interfaces than ports": (
        FILE.changed("2,1,7,500,1,1\n", "2,1,7,500,1,1\n3,0,3,0,0,0\n"),
        "internal-err",
        "interface_setting",
        4,
        "interface_setting_table rows does not match the expected number of ports .\n",
    ),
    "row that grows too long": (
        FILE.with_rows(DEVICES, "1,1," + "n" * 247 + ",").text,
        "internal-err",
        "device",
        1,
        None,
    ),
    "empty column": (
        FILE.changed("1,1,181,8,1", "1,1,,8,1"),
        "missing-necessary-parameter",
        "frame",
        1,
        missing(1, 3),
    ),
    "short device row": (
        FILE.changed("2,2,sensor", "2,2"),
        "missing-necessary-parameter",
        "device",
        2,
        missing(2, 3),
    ),
    "short transaction row": (
        FILE.changed(STATE_ROW, STATE_ROW[:-1]),
        "invalid-val",
        "transactions",
        1,
        "Missing value for column 14 at line 1\n",
    ),
    "short block row": (
        FILE.changed(SPEED_ROW, SPEED_ROW[:-1]),
        "invalid-val",
        "block",
        1,
        "Missing value for column 20 at line 1\n",
    ),
    "transaction name with a blank": (
        FILE.changed(",command,", ",com mand,"),
        "invalid-name",
        "transactions",
        2,
        "Data error: Invalid characters in 'transactionName' at line 2, column 4\n",
    ),
    "tag name with a blank": (
        FILE.changed(",temp,", ",te mp,"),
        "invalid-name",
        "block",
        2,
        "Data error: Invalid characters in tagName",
    ),
    "constant name with a blank": (
        FILE.changed(",kind,", ",ki nd,"),
        "invalid-name",
        "block",
        3,
        "Data error: Invalid characters in constantName",
    ),
    "transaction name used twice": (
        FILE.changed(",command,", ",state,"),
        "duplicate-name",
        "transactions",
        2,
        "transaction name duplicate in deviceId = 1\n",
    ),
    "tag name used twice": (
        FILE.changed(",temp,", ",speed,"),
        "duplicate-name",
        "block",
        2,
        "tag name duplicate in frameId = 1\n",
    ),
    "tags beyond eight bytes": (
        FILE.changed(",temp,6,2,", ",temp,6,7,"),
        "tagsize-exceeds-limit",
        "block",
        2,
        "tagSize total in frameId = 1 exceeds limit (total = 9)\n",
    ),
    "transaction without a frame": (
        FILE.changed("2,2,201,2,0\n", ""),
        "invalid-frame",
        "frame",
        2,
        "must have exactly one frame\n",
    ),
    "request without a response": (
        FILE.changed("4,3,1ABCDEF1,8,3\n", ""),
        "invalid-frame",
        "frame",
        3,
        "must have exactly two frames\n",
    ),
    "device too many": (
        FILE.with_rows(DEVICES, *many_devices(256)).text,
        "table-full",
        "device",
        256,
        inserting(256, "device is full"),
    ),
    "transaction too many": (
        FILE.with_rows(TRANSACTIONS, *many_transactions(513)).text,
        "table-full",
        "transactions",
        513,
        inserting(513, "transactions is full"),
    ),
    "device on no port": (
        FILE.changed(DEVICE_ROW, "1,3,drive"),
        "foreign-key-constraint-failed",
        "device",
        1,
        inserting(1, "FOREIGN KEY constraint failed"),
    ),
    "block of no frame": (
        FILE.changed("6,4,0,0,raw", "6,5,0,0,raw"),
        "foreign-key-constraint-failed",
        "block",
        6,
        inserting(6, "FOREIGN KEY constraint failed"),
    ),
    "key beyond its record": (
        FILE.changed("2,2,sensor", "256,2,sensor"),
        "check-constraint-failed",
        "device",
        2,
        inserting(2, "CHECK constraint failed: deviceId"),
    ),
    "identifier beyond 29 bits": (
        FILE.changed("1ABCDEF1", "20000000"),
        "check-constraint-failed",
        "frame",
        4,
        inserting(4, "CHECK constraint failed: canId"),
    ),
    "key used twice": (
        FILE.changed("2,2,sensor", "1,2,sensor"),
        "unique-constraint",
        "device",
        2,
        inserting(2, "UNIQUE constraint failed: device.deviceId"),
    ),
}
EMPTY = ConfigFile([*FILE.rows[:1], [], [], [], []])
REFUSALS |= {
    f"no section {HEADS[index]}": (
        "".join(EMPTY.section(i) for i in range(5) if i != index),
        "missing-table",
        TABLES[index],
        0 if index == BLOCKS else 1,  # the empty line of the last section; frames count otherwise
        None,
    )
    for index in range(5)
}


@pytest.mark.parametrize("name", REFUSALS)
def test_what_is_refused_and_how_it_is_told(rest, name):
    text, key, table, row, message = REFUSALS[name]
    lines = [] if message is None else [f"{READERS[table]}|{message}"]
    if key == "missing-table":
        lines = [f"{DRIVER}|miss table {table}\n"]
    refused(rest, text, key, table, row, *lines)


def test_every_key_is_among_them():
    assert {key for _, key, *_ in REFUSALS.values()} == {
        "syntax-err",
        "column-name-failed",
        "internal-err",
        "missing-necessary-parameter",
        "invalid-val",
        "invalid-name",
        "duplicate-name",
        "tagsize-exceeds-limit",
        "invalid-frame",
        "missing-table",
        "table-full",
        "foreign-key-constraint-failed",
        "check-constraint-failed",
        "unique-constraint",
    }


def test_an_unknown_head_names_no_table(rest):
    text = FILE.changed(HEADS[FRAMES], "[frames]")
    line = f"{DRIVER}|Data error at line 4, table name error : [frames]\n\n"
    refused(rest, text, "syntax-err", "", 4, line)


def test_of_several_missing_sections_the_last_is_named(rest):
    lines = [f"{DRIVER}|miss table {table}\n" for table in TABLES]
    for text in ("", "version: 1.0.0\n\n", "portId\n1\n"):
        refused(rest, text, "missing-table", "block", 0, *lines)


def test_no_answer_names_a_column(rest):
    """Not even where the record holds one; clients know the answer without."""
    for name in ("empty column", "key beyond its record", "key used twice"):
        variables = rest.upload(REFUSALS[name][0]).json["error"]["i18n"]["variables"]
        assert sorted(variables) == ["errRow", "errTableName"]


# Files as they come from elsewhere ---------------------------------------------------------------


def padded(text: str) -> str:
    """As spreadsheets write it: every line as wide as the widest."""
    return "".join(line + "," * (19 - line.count(",")) + "\r\n" for line in text.splitlines())


def test_files_that_are_read_the_same(rest):
    expected = imported(rest, FILE.text)
    assert [len(rows) for rows in expected] == [2, 2, 3, 4, 6]
    variants = {
        "CRLF": FILE.text.replace("\n", "\r\n"),
        "byte order mark": "\ufeff" + FILE.text,
        "byte order mark and CRLF": "\ufeff" + FILE.text.replace("\n", "\r\n"),
        "padded": padded(FILE.text),
        "padded, with a byte order mark": "\ufeff" + padded(FILE.text),
        "another version": FILE.text.replace("1.0.0", "9.9"),
        "no version": FILE.text.partition("\n\n")[2],
        "comments": "".join(f"# a\n\n,b [c]\n{FILE.section(i)}d,e\n" for i in range(5)),
        "no end": FILE.text.rstrip("\n"),
        "more line feeds": FILE.text.replace("\n\n", "\n\n\n\n"),
        "lower case identifiers": FILE.text.replace("1ABCDEF", "1abcdef"),
        "prefixed identifiers": FILE.text.replace("1ABCDEF", "0x1abcdef"),
        "another prefix": FILE.changed(",181,", ",0X181,"),
        "rows in another order": ConfigFile([rows[::-1] for rows in FILE.rows]).text,
        "every section twice": "".join(FILE.section(i) for i in range(5)) * 2,
        "blocks again": FILE.text + FILE.section(BLOCKS),
    }
    for name, text in variants.items():
        rest.discard()
        assert imported(rest, text) == expected, name


def test_a_byte_order_mark_in_front_of_a_head_hides_the_head(rest):
    text = "\ufeff" + "".join(FILE.section(i) for i in range(5))
    with rest.unchanged():
        answer = rest.upload(text)
    # The device section finds the ports of before.
    assert answer.body == refusal("missing-table", "interface_setting", 7)


def test_a_row_ends_where_a_zero_byte_stands(gateway, rest):
    imported(rest, FILE.changed("1,1,drive", "1,1,dri\0ve,x'"))
    assert gateway.query("SELECT deviceName FROM device") == [("dri",), ("sensor",)]


def test_a_section_takes_what_is_below_it_along(rest):
    """So a section that comes again, or late, leaves less than the file holds."""
    found = imported(rest, FILE.text + FILE.section(DEVICES))
    assert [len(rows) for rows in found] == [2, 2, 0, 0, 0]
    found = imported(rest, FILE.text + FILE.section(PORTS))
    assert [len(rows) for rows in found] == [2, 0, 0, 0, 0]


def test_frames_in_front_are_counted_against_the_transactions_of_before(rest):
    imported(rest, FILE.text)
    order = (FRAMES, PORTS, DEVICES, TRANSACTIONS)
    text = "".join(FILE.section(i) for i in order) + HEADS[BLOCKS] + "\n" + COLUMNS[BLOCKS] + "\n"
    found = imported(rest, text)
    assert [len(rows) for rows in found] == [2, 2, 3, 0, 0]
    fewer = ConfigFile([*FILE.rows[:3], FILE.rows[3][:2], []])
    text = "".join(fewer.section(i) for i in (*order, BLOCKS))
    imported(rest, FILE.text)
    line = f"{READERS['frame']}|must have exactly two frames\n"
    refused(rest, text, "invalid-frame", "frame", 3, line)


def test_lines_are_read_up_to_255_characters(gateway, rest):
    longest = "n" * 250  # with keys, commas and line feed 255
    imported(rest, FILE.with_rows(DEVICES, f"1,1,{longest}", "2,1,next").text)
    assert gateway.query("SELECT deviceName FROM device") == [(longest,), ("next",)]
    # The line feed is the next line, an empty one.
    imported(rest, FILE.with_rows(DEVICES, f"1,1,{longest}n", "2,1,lost").text)
    assert gateway.query("SELECT deviceName FROM device") == [(longest + "n",)]
    text = FILE.with_rows(DEVICES, f"1,1,{longest}nn").text
    line = f"{READERS['device']}|{missing(2, 2)}"
    refused(rest, text, "missing-necessary-parameter", "device", 2, line)


@pytest.mark.parametrize("length", [256, 1000, 65536, 1024 * 1024])
def test_longer_lines_do_no_harm(rest, length):
    with rest.unchanged():
        for text in (
            "[" * length,
            "," * length,
            "1" * length,
            FILE.changed(DEVICE_ROW, "1,1," + "n" * length),
            FILE.changed(DEVICE_ROW, DEVICE_ROW + "," * length + "\nx"),
            FILE.changed(",181,", "," + "0" * length + ","),
            FILE.changed(COLUMNS[DEVICES], " " * length + COLUMNS[DEVICES]),
        ):
            assert rest.upload(text).status == 400, text[:20]
    imported(rest, "#" * (length - length % 255) + "\n" + FILE.text)


def noise(seed: int, size: int = 20000) -> bytes:
    return random.Random(seed).randbytes(size)


NOT_TEXT = {
    "zero bytes": bytes(100000),
    "random bytes": noise(1),
    "more random bytes": noise(2, 300000),
    "a picture": b"\x89PNG\r\n\x1a\n\0\0\0\rIHDR" + noise(3),
    "a program": b"\x7fELF\2\1\1" + bytes(9) + noise(4),
    "UTF-16": FILE.text.encode("utf-16"),
    "UTF-32": FILE.text.encode("utf-32-le"),
    "compressed": gzip.compress(FILE.text.encode()),
    "a database": b"SQLite format 3\0" + noise(5),
    "one line of carriage returns": FILE.text.replace("\n", "\r").encode(),
    "zero bytes between": FILE.text.replace("\n", "\0\n\0").encode(),
    "heads of noise": b"[device]\n" + noise(6) + b"[block]\n" + noise(7),
    "rows of noise": (FILE.section(0) + FILE.section(1)[:-1]).encode() + noise(8),
}


@pytest.mark.parametrize("name", NOT_TEXT)
def test_files_that_are_no_configuration(rest, name):
    with rest.unchanged():
        answer = rest.upload(NOT_TEXT[name])
    assert answer.status == 400
    assert answer.json["error"]["code"] == -13
    assert answer.json["error"]["i18n"]["key"] in {key for _, key, *_ in REFUSALS.values()}


@pytest.mark.parametrize("seed", range(10))
def test_files_with_some_bytes_changed(rest, seed):
    """Accepted or refused, never half."""
    one = random.Random(seed)
    old = tables(rest)
    for _ in range(5):
        content = bytearray(FILE.text.encode())
        for _ in range(one.randint(1, 6)):
            byte = one.choice((*b",\n\r[]'0 9x\0", one.randrange(256)))
            content[one.randrange(len(content))] = byte
        answer = rest.upload(bytes(content))
        if answer.status == 201:
            rest.discard()
        assert answer.status in (201, 400)
        assert tables(rest) == old


def truncated(rest, lengths) -> int:
    """Upload the file cut at these lengths. @return how many were accepted"""
    old = rest.rows(WORKING_DB)
    keys = {key for _, key, *_ in REFUSALS.values()}
    accepted = 0
    content = FILE.text.encode()
    with requests.Session() as client:
        for length in lengths:
            body = multipart(content[:length])
            url = rest.url("/config-file")
            answer = client.post(url, data=body, headers=MULTIPART, timeout=scaled(30))
            if answer.status_code == 201:
                accepted += 1
                assert answer.content == SUCCESS
                rest.discard()
            else:
                error = answer.json()["error"]
                assert (answer.status_code, error["code"]) == (400, -13), length
                assert error["i18n"]["key"] in keys, length
                assert "errRow" in error["i18n"]["variables"], length
            assert rest.rows(WORKING_DB) == old, length
    return accepted


def test_a_file_that_was_cut_off_is_imported_or_refused_whole(rest):
    size = len(FILE.text)
    assert truncated(rest, range(0, size, 23)) < 20
    assert truncated(rest, range(size - 120, size + 1)) > 2


@pytest.mark.slow
def test_a_file_that_was_cut_off_at_any_byte(rest):
    assert truncated(rest, range(len(FILE.text) + 1)) > 2


SMUGGLED = [
    "1,1,drive'); DROP TABLE device; --",
    "1,(SELECT 1),drive",
    "1);DELETE FROM device;--,1,x",
    "load_extension(1),1,x",
    "1,1;ATTACH DATABASE x AS y,x",
    "1,1 UNION SELECT 1,x",
    "1,1/*,*/x",
    "1,1--,x",
    "1,'1',x",
    "1,1 + 1,x",
]


def test_a_row_is_no_sql(rest):
    with rest.unchanged():
        for row in SMUGGLED:
            answer = rest.upload(FILE.changed(DEVICE_ROW, row))
            assert answer.body == refusal("syntax-err", "device", 1), row
        for value in ("a'b", "' || (SELECT 1) || '", "x');DELETE FROM block;--"):
            answer = rest.upload(FILE.changed(",0102,", f",{value},"))
            assert answer.body == refusal("syntax-err", "block", 4), value


# Size --------------------------------------------------------------------------------------------


def most_memory(gateway) -> int:
    """The most that the process ever had resident, in bytes."""
    with open(f"/proc/{gateway.process.pid}/status", encoding="ascii") as status:
        return next(int(line.split()[1]) * 1024 for line in status if line.startswith("VmHWM:"))


def large_files() -> dict[str, str]:
    room = BODY_MAX - 1000
    section = "".join(FILE.section(i) for i in range(5))
    blocks = [f"{key},1,1,7,,,,,,,,,,,,,,kind,1,5A" for key in range(20000)]
    return {
        "comments": ("#" * 99 + "\n") * ((room - len(FILE.text)) // 100) + FILE.text,
        "one section again and again": FILE.text + FILE.section(BLOCKS) * 500,
        "all sections again and again": section * 200,
        "one line": "#" * (room - len(FILE.text)) + "\n" + FILE.text,
        "many rows": FILE.with_rows(BLOCKS, *blocks).text,
    }


def test_a_file_of_many_megabytes_takes_no_memory_for_good(gateway, rest):
    if "san/" in str(lane.BIN):
        pytest.skip("a sanitizer's memory says nothing")
    files = large_files()
    for name, text in [*files.items()] * 3:
        answer = rest.upload(text)
        assert (answer.status, answer.body) == (201, SUCCESS), name
    # The bodies of a few connections, one of which may just be closing.
    assert most_memory(gateway) < 4 * BODY_MAX + 16 * 1024 * 1024


def test_a_file_beyond_the_limit_is_not_taken(rest, tmp_path):
    (tmp_path / "c.csv").write_text(FILE.text + "#" * BODY_MAX)
    with rest.unchanged():
        answer = curl("--form", f"file=@{tmp_path}/c.csv", rest.url("/config-file"))
    assert answer.status == 413
    assert answer.json["error"]["code"] == 413
    assert rest.get("/overview").status == 200


def test_rows_that_come_twice(rest):
    for index, row in enumerate(FILE.rows):
        text = ConfigFile([r + [r[0]] if i == index else r for i, r in enumerate(FILE.rows)]).text
        with rest.unchanged():
            answer = rest.upload(text)
        assert answer.body == refusal("unique-constraint", TABLES[index], len(row) + 1)
