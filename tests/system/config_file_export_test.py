"""Downloads of the configuration, and the way there and back."""

import csv
import io
import re
import socket
import subprocess

import pytest
import requests

from kt_system.config_file import (
    FILE_FOLDER,
    PORTS,
    SUCCESS,
    TABLES,
    ConfigFile,
    Configuration,
    Generator,
)
from kt_system.gateway import WORKING_DB
from kt_system.lane import scaled, wait_until
from kt_system.rest import (
    BASE,
    constant_json,
    consume_json,
    device_json,
    failure_lines,
    frame_json,
    produce_json,
    request_json,
    serving,
    tag_json,
)
from kt_system.rows import U16, consume, device, frame, tag

OLD = device("old", consume("state", frame(0x111, 2, tag("value", U16))))
OLD_FILE = ConfigFile(
    [
        ["1,0,3,0,0,0", "2,0,3,0,0,0"],
        ["1,1,old"],
        ["1,1,1,state,1,,,,,,0,,,"],
        ["1,1,111,2,1"],
        ["1,1,0,0,value,6,2,ro,0,,0,,,,,,,,,"],
    ]
)
NAME = r"can_proprietary_[0-9]{14}\.csv"


@pytest.fixture(scope="module")
def gateway(tmp_path_factory):
    yield from serving(tmp_path_factory.mktemp("gateway"), OLD)


@pytest.fixture(autouse=True)
def old_rows(gateway, rest):
    """Every test begins with the configuration that runs, and leaves no file behind."""
    rest.discard()
    yield
    assert gateway.running()
    left = {entry.name for entry in gateway.path(FILE_FOLDER).iterdir()}
    assert not any(name.startswith("can_proprietary_") for name in left), left


def tables(rest) -> list[list[tuple]]:
    rows = rest.rows(WORKING_DB)
    return [rows[f"{WORKING_DB} {table}"] for table in TABLES]


def download(rest) -> str:
    with rest.says():
        answer = rest.get("/config-file")
    assert answer.status == 200
    return answer.body.decode("ascii")


# The download ------------------------------------------------------------------------------------


def test_a_download_is_the_configuration(rest):
    assert download(rest) == OLD_FILE.text


def test_a_download_is_a_file_with_the_local_time_in_its_name(rest):
    answer = rest.get("/config-file")
    assert answer.headers["content-type"] == "text/csv"
    assert re.fullmatch(f'attachment; filename="{NAME}"', answer.headers["content-disposition"])
    assert int(answer.headers["content-length"]) == len(answer.body)


def test_curl_saves_it_under_that_name(rest, tmp_path):
    subprocess.run(
        ["curl", "-sSOJ", "--max-time", str(scaled(30)), rest.url("/config-file")],
        cwd=tmp_path,
        check=True,
    )
    (saved,) = tmp_path.iterdir()
    assert re.fullmatch(NAME, saved.name)
    assert saved.read_text() == OLD_FILE.text


def test_a_head_request_gets_the_headers_alone(rest):
    with socket.create_connection(rest.address, timeout=scaled(30)) as client:
        client.sendall(b"HEAD %s/config-file HTTP/1.1\r\n" % BASE.encode())
        client.sendall(b"Host: localhost\r\nConnection: close\r\n\r\n")
        received = b"".join(iter(lambda: client.recv(65536), b""))
    head, _, body = received.partition(b"\r\n\r\n")
    assert body == b""
    status, *lines = head.decode("ascii").split("\r\n")
    headers = dict(line.split(": ", 1) for line in lines)
    assert status == "HTTP/1.1 200 OK"
    assert headers["Content-Type"] == "text/csv"
    assert headers["Content-Length"] == str(len(OLD_FILE.text))
    assert re.fullmatch(f'attachment; filename="{NAME}"', headers["Content-Disposition"])


def test_two_downloads_of_one_second_bear_one_name(rest):
    """Each has its own file on the gateway all the same: it is gone when the next one begins."""

    def names() -> list[str]:
        answers = [rest.get("/config-file") for _ in range(2)]
        assert all(answer.body.decode() == OLD_FILE.text for answer in answers)
        return [answer.headers["content-disposition"] for answer in answers]

    wait_until(lambda: len(set(names())) == 1, 10.0, "two downloads within a second")


def test_downloads_at_once(rest):
    with requests.Session() as client:
        for _ in range(30):
            answer = client.get(rest.url("/config-file"), timeout=scaled(30))
            assert (answer.status_code, answer.text) == (200, OLD_FILE.text)


def test_what_stands_behind_the_path_does_not_matter(rest):
    for path in ("/config-file?portId=7", "/config-file/7", "/config-file?"):
        assert rest.get(path).body.decode() == OLD_FILE.text, path


def test_other_methods_are_told_which_there_are(rest):
    for method in ("PUT", "PATCH", "DELETE"):
        answer = rest.request(method, "/config-file", b"x")
        assert answer.status == 405
        assert set(answer.headers["allow"].split(", ")) >= {"GET", "POST"}


def test_a_download_changes_nothing(rest):
    rest.wait_next_second()
    with rest.unchanged():
        download(rest)
    assert rest.get("/config-change").data == {"result": 0}


def test_a_download_shows_what_was_edited_and_not_applied(rest):
    assert rest.patch("/device/1", {"deviceName": "new"}).status == 200
    assert download(rest) == OLD_FILE.text.replace("1,1,old", "1,1,new")


def test_a_spreadsheet_reads_it(gateway, rest):
    gateway.edit(WORKING_DB, sql=Generator(99).configuration(20, 40, 6).sql)
    rows = [row for row in csv.reader(io.StringIO(download(rest))) if row]
    widths = {len(row) for row in rows}
    assert widths == {1, 3, 5, 6, 14, 20}


def fails(rest, *lines: str) -> None:
    """Status 500 without a body."""
    with rest.says(*lines, *failure_lines(-7)):
        answer = rest.get("/config-file")
    assert (answer.status, answer.body) == (500, b"")
    assert "content-disposition" not in answer.headers


def test_a_download_without_a_folder_fails_with_its_status_alone(gateway, rest):
    folder = gateway.path(FILE_FOLDER)
    folder.rename(folder.with_name("elsewhere"))
    error = "Error: : No such file or directory\n"
    try:
        fails(
            rest,
            "can_proprietary_conf_export|open fail\n",
            error,
            "rest_export_file|open fail\n",
            error,
        )
    finally:
        folder.with_name("elsewhere").rename(folder)
    assert download(rest) == OLD_FILE.text


def test_a_download_without_a_working_copy_fails_with_its_status_alone(gateway, rest):
    place = gateway.path(WORKING_DB)
    place.rename(place.with_name("elsewhere"))
    try:
        fails(
            rest,
            f"open_db|Can't open database: unable to open database file. {place}\n",
            "can_proprietary_conf_export|get db fail\n",
        )
    finally:
        place.with_name("elsewhere").rename(place)
    assert download(rest) == OLD_FILE.text


def test_a_block_that_no_reader_knows_fails_the_download(gateway, rest):
    gateway.edit(WORKING_DB, sql="UPDATE block SET blockType = 2")
    fails(rest, "block_get_row|param fail\n")


# There and back ----------------------------------------------------------------------------------


def empty(rest) -> None:
    """Another gateway, as far as rows go."""
    nothing = ConfigFile([OLD_FILE.rows[PORTS], [], [], [], []])
    answer = rest.upload(nothing.text)
    assert (answer.status, answer.body) == (201, SUCCESS)


def goes_there_and_back(gateway, rest, configuration: Configuration) -> None:
    gateway.edit(WORKING_DB, sql=configuration.sql)
    assert tables(rest) == configuration.tables
    expected = configuration.file.text
    assert max(map(len, expected.splitlines())) < 255
    text = download(rest)
    assert text == expected
    assert tables(rest) == configuration.tables
    empty(rest)
    with rest.says():
        answer = rest.upload(text)
    assert (answer.status, answer.body) == (201, SUCCESS)
    assert tables(rest) == configuration.after_import
    # What changed is only what slope and offset read back from.
    once_more = Configuration(configuration.after_import)
    text = download(rest)
    assert text == once_more.file.text
    assert rest.upload(text.replace("\n", "\r\n")).status == 201
    assert tables(rest) == Configuration(once_more.after_import).after_import


@pytest.mark.parametrize("seed", range(12))
def test_a_configuration_goes_there_and_back(gateway, rest, seed):
    sizes = Generator(seed).random
    configuration = Generator(seed).configuration(
        sizes.randint(1, 12), sizes.randint(0, 40), sizes.randint(0, 8)
    )
    goes_there_and_back(gateway, rest, configuration)


def test_an_empty_configuration_goes_there_and_back(gateway, rest):
    goes_there_and_back(gateway, rest, Generator(0).configuration(0, 0, 0))


def test_the_largest_configuration_goes_there_and_back(gateway, rest):
    configuration = Generator(255).configuration(255, 512, 8)
    assert [len(rows) for rows in configuration.tables[1:3]] == [255, 512]
    goes_there_and_back(gateway, rest, configuration)


@pytest.mark.slow
@pytest.mark.parametrize("seed", range(1000, 1010))
def test_large_configurations_go_there_and_back(gateway, rest, seed):
    goes_there_and_back(gateway, rest, Generator(seed).configuration(255, 512, 8))


@pytest.mark.slow
@pytest.mark.parametrize("seed", range(2000, 2100))
def test_many_configurations_go_there_and_back(gateway, rest, seed):
    goes_there_and_back(gateway, rest, Generator(seed).configuration(5, 20, 8))


def test_slope_and_offset_do_not_come_back(gateway, rest):
    """They share their places with the points, which an import sets to their defaults."""
    row = "1,1,0,0,value,6,2,ro,0,,1,2.500000,-1.000000,,,,,,,"
    scaled_file = ConfigFile([*OLD_FILE.rows[:4], [row]])
    assert rest.upload(scaled_file.text).status == 201
    columns = "interceptSlope, interceptOffset, pointSourceMin, pointSourceMax"
    assert gateway.query(f"SELECT {columns} FROM block") == [(2.5, -1.0, 0.0, 1.0)]
    assert download(rest) == scaled_file.text.replace("2.500000,-1.000000", "0.000000,1.000000")


def test_what_was_made_through_the_other_endpoints_comes_back(gateway, rest):
    body = device_json(
        "drive",
        consume_json(
            "state", frame_json(0x181, tag_json("speed"), constant_json("kind", "5A", 7)),
            consumeToutEnable=True, consumeTimeout=200,
        ),
        produce_json("command", frame_json(0x201, tag_json("target", access="wo"), length=2)),
        request_json(
            "poll",
            frame_json(0x301, constant_json("ask", "01", 0), length=1),
            frame_json(0x302, tag_json("answer", scalingFunc=2, pointSourceMin=0, pointSourceMax=10,
                                       pointTargetMin=-5, pointTargetMax=5)),
            trigger=1, timeoutRetry=3, responseTimeout=250,
        ),
        port=2,
    )
    key = rest.post("/device", body).data["deviceId"]
    before = rest.get(f"/device?deviceId={key}").data
    text = download(rest)
    empty(rest)
    assert rest.get(f"/device?deviceId={key}").status == 500
    assert rest.upload(text).status == 201
    for exchange in before["transactionList"]:
        if exchange.get("fpFunc") == 0:
            exchange["fpTimeout"] = 10000  # not relevant, so it comes back with its default
    assert rest.get(f"/device?deviceId={key}").data == before
    assert download(rest) == text


def test_a_file_that_went_in_comes_out(rest):
    text = ConfigFile().text
    assert rest.upload(text).status == 201
    assert download(rest) == text
