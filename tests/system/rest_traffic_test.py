"""Recording over HTTP."""

import re

import pytest

from kt_system import lane
from kt_system.lane import wait_until
from kt_system.rest import serving
from kt_system.rows import consume, device, frame, tag

POST = "can_proprietary_rest_post_traffic_log"
GET = "can_proprietary_rest_get_traffic_log"
EXPORT = "can_proprietary_rest_export_traffic_csv"
ID = "can_proprietary_get_id_from_path"
FILES = "/run/tmp/kt-can-proprietary/traffic-log"
OVER = f"port index over range ( 1 ~ {len(lane.PORTS)} )\n"
HEADER = "No.,Time,Direction,CAN-ID,RTR,Data length,Data\n"
SUCCESS = b'{"data":{"response":"success"}}'


@pytest.fixture(scope="module")
def gateway(tmp_path_factory):
    configuration = [
        device(name, consume("state", frame(0x181 + port, 8, tag("value"))), port=port)
        for port, name in ((1, "drive"), (2, "sensor"))
    ]
    extended = "UPDATE interface_setting SET frameFormat = 1 WHERE portId = 2"
    yield from serving(tmp_path_factory.mktemp("gateway"), *configuration, sql=extended)


@pytest.fixture(autouse=True)
def no_recordings(gateway, rest):
    for port in (1, 2):
        assert rest.post(f"/traffic/{port}", {"option": 0}).status == 201
    for path in gateway.path(FILES).parent.glob("traffic-log*"):
        path.unlink()


def record(rest, port: int = 1) -> None:
    with rest.says():
        answer = rest.post(f"/traffic/{port}", {"option": 1})
    assert answer.status == 201 and answer.body == SUCCESS


def rows_of(rest, count: int, port: int = 1) -> list[dict]:
    def complete():
        rows = rest.get(f"/traffic/{port}").data["response"]
        return rows if len(rows) >= count else None

    return wait_until(complete)


@pytest.mark.parametrize(
    "port, can_id, data, remote, shown",
    [
        (1, 0x123, "01A0", False, '"0x"123,Data frame,2,"01 A0"'),
        (1, 0x7FF, "", True, '"0x"7FF,Remote Frame,0,""'),
        (2, 0x1ABCDEF0, "", True, '"0x"1ABCDEF0,Remote Frame,0,""'),
        (2, 0x1, "00112233445566FF", False, '"0x"00000001,Data frame,8,"00 11 22 33 44 55 66 FF"'),
    ],
)
def test_a_recorded_frame_shows_as_json_and_as_csv(rest, bus, port, can_id, data, remote, shown):
    record(rest, port)
    bus(lane.PORTS[port - 1]).send(can_id, data, remote=remote, extended=port == 2)
    (row,) = rows_of(rest, 1, port)
    assert rest.get(f"/traffic/{port}").data["action"] == 1
    time = row.pop("time")
    payload = bytes.fromhex(data)
    assert row == {
        "direction": 1,
        "canId": can_id,
        "RTR": int(remote),
        "dataLength": len(payload),
        "data": payload.hex(" ").upper(),
    }
    answer = rest.get(f"/traffic-export/{port}")
    assert answer.status == 200 and answer.headers["content-type"] == "text/csv"
    name = r'attachment; filename="can_proprietary_traffic_log_[0-9A-Za-z._-]+\.csv"'
    assert re.fullmatch(name, answer.headers["content-disposition"])
    assert answer.body.decode() == f"{HEADER}1,{time},Receive,{shown}\n"


def test_a_stop_keeps_what_was_recorded_and_records_no_more(rest, bus):
    record(rest)
    node = bus()
    node.send(0x123)
    rows = rows_of(rest, 1)
    with rest.says():
        assert rest.post("/traffic/1", {"option": 0}).body == SUCCESS
    node.send(0x124)
    # Once the value of the next frame is there the port has no frame before it left to record.
    node.send(0x182, "A500000000000000")
    rest.gateway.tags.wait_for("can_proprietary/drive/state_value", "A5")
    assert rest.get("/traffic/1").data == {"action": 0, "response": rows}


def test_a_new_start_empties_the_log(rest, bus):
    record(rest)
    bus().send(0x123)
    rows_of(rest, 1)
    record(rest)
    assert rest.get("/traffic/1").data == {"action": 1, "response": []}
    assert rest.get("/traffic-export/1").body.decode() == HEADER


def test_ports_record_for_themselves_and_count_rows_together(rest, bus):
    record(rest, 2)
    record(rest, 1)
    bus(lane.PORTS[0]).send(0x123)
    assert rows_of(rest, 1, 1)[0]["canId"] == 0x123
    bus(lane.PORTS[1]).send(0x124, extended=True)
    assert rows_of(rest, 1, 2)[0]["canId"] == 0x124
    numbers = [
        rest.get(f"/traffic-export/{port}").body.decode().splitlines()[1][0] for port in (1, 2)
    ]
    assert numbers == ["1", "2"]


def test_a_full_log_stops_by_itself(rest, gateway, bus):
    record(rest)
    gateway.path(FILES + "0.json").write_bytes(b'{"a":1}\n' * 48000)
    bus().send(0x123)
    wait_until(lambda: rest.get("/traffic/1").data["action"] == 0)
    assert len(rest.get("/traffic/1").data["response"]) == 48000


@pytest.mark.parametrize("value, line, code", [
    (2, "json_obj_get_number|The option input length 2 does not meet the length limit (0-1)\n", -1),
    (-1, "json_obj_get_number|The option input length -1 does not meet the length limit (0-1)\n", -1),
    ("1", "json_obj_get_number|Parameter option does not exist\n", -3),
    (True, "json_obj_get_number|Parameter option does not exist\n", -3),
    (None, "json_obj_get_number|Parameter option does not exist\n", -3),
])  # fmt: skip
def test_a_bad_option_changes_nothing(rest, value, line, code):
    record(rest)
    rest.refused(
        code, "POST", "/traffic/1", {"option": value}, line, f"{POST}|get traffic_option fail\n"
    )
    assert rest.get("/traffic/1").data["action"] == 1


@pytest.mark.parametrize("body", ["", None])
def test_no_body(rest, body):
    rest.refused(-1, "POST", "/traffic/x", body, f"{POST}|invalid input_data\n")


def test_the_port_is_judged_before_the_body_is_parsed(rest):
    rest.refused(-7, "POST", "/traffic/3", "{", f"{POST}|{OVER}")
    rest.refused(-1, "POST", "/traffic/1", "{", f"{POST}|invalid input_data\n")
    line = "json_obj_get_number|Parameter option does not exist\n"
    rest.refused(-3, "POST", "/traffic/1", "[]", line, f"{POST}|get traffic_option fail\n")


@pytest.mark.parametrize("suffix", ["", "/", "/x", "/99999999999999999999"])
def test_no_port_in_the_path(rest, suffix):
    lines = [f"{ID}|parse resource's ID fail\n"]
    rest.refused(
        -7, "POST", "/traffic" + suffix, {"option": 1}, *lines, f"{POST}|get_id_from_path fail\n"
    )
    rest.refused(-7, "GET", "/traffic" + suffix, None, *lines, f"{GET}|get_id_from_path fail\n")


@pytest.mark.parametrize("port", [3, 257, 65537, 2147483647])
def test_a_port_above_the_last_one(rest, port):
    rest.refused(-7, "POST", f"/traffic/{port}", {"option": 1}, f"{POST}|{OVER}")
    rest.refused(-7, "GET", f"/traffic/{port}", None, f"{GET}|{OVER}")


@pytest.mark.parametrize(
    "port, index", [(0, 65535), (-1, 65534), (-32768, 32767), (-65534, 1), (-65535, 0)]
)
def test_a_port_below_the_first_one_wraps_and_the_recorder_decides(rest, port, index):
    if index < len(lane.PORTS):
        assert rest.post(f"/traffic/{port}", {"option": 1}).status == 201
        assert rest.get(f"/traffic/{index + 1}").data["action"] == 1
        return
    invalid = f"port_idx({index}) invalid.\n"
    lines = [f"can_proprietary_traffic_init_start_time|{invalid}", f"{POST}|set action fail\n"]
    rest.refused(-8, "POST", f"/traffic/{port}", {"option": 1}, *lines)
    lines = [f"can_proprietary_traffic_stop|{invalid}", f"{POST}|set action fail\n"]
    rest.refused(-8, "POST", f"/traffic/{port}", {"option": 0}, *lines)
    lines = [f"can_proprietary_traffic_get_log|{invalid}", f"{GET}|output json fail\n"]
    rest.refused(-7, "GET", f"/traffic/{port}", None, *lines)


def test_a_log_that_cannot_be_opened_is_no_start(rest, gateway):
    gateway.path(FILES + "0.csv").mkdir()
    path = gateway.path(FILES + "0.csv")
    lines = [f"can_proprietary_traffic_start|open file {path} fail.\n", f"{POST}|set action fail\n"]
    rest.refused(-8, "POST", "/traffic/1", {"option": 1}, *lines)
    path.rmdir()


def test_a_log_that_was_never_recorded(rest):
    rest.refused(-7, "GET", "/traffic/1", None, f"{GET}|output json fail\n")


@pytest.mark.parametrize("content", ["{", "no JSON\n"])
def test_a_damaged_log(rest, gateway, content):
    gateway.path(FILES + "0.json").write_text(content)
    rest.refused(-7, "GET", "/traffic/1", None, f"{GET}|output json fail\n")


def not_exported(rest, path: str, *lines: str) -> None:
    with rest.unchanged(), rest.says(*lines):
        answer = rest.get(path)
    assert answer.status == 500 and answer.body == b""
    assert "content-type" not in answer.headers


INTERNAL = "get_http_status|error={}, return 500 internal server error\n"


def test_exports_that_fail_have_no_body(rest, gateway):
    not_exported(rest, "/traffic-export/3", f"{EXPORT}|{OVER}", INTERNAL.format(-7))
    lines = [f"{ID}|parse resource's ID fail\n", f"{EXPORT}|get_id_from_path fail\n"]
    not_exported(rest, "/traffic-export/x", *lines, INTERNAL.format(-7))
    for port, index in ((1, 0), (0, 65535)):
        not_exported(
            rest,
            f"/traffic-export/{port}",
            f"rest_export_file|open {gateway.path(FILES)}{index}.csv fail\n",
            "Error: : No such file or directory\n",
            f"{EXPORT}|\n",
            INTERNAL.format(-8),
        )


def test_an_empty_file_is_an_empty_download(rest, gateway):
    gateway.path(FILES + "0.csv").touch()
    answer = rest.get("/traffic-export/1")
    assert answer.status == 200 and answer.body == b""
    assert answer.headers["content-length"] == "0" and "content-disposition" in answer.headers
