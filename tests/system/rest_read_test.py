"""The read endpoints."""

import pytest

from kt_system import lane
from kt_system.gateway import PERSISTENT_DB, WORKING_DB
from kt_system.lane import wait_until
from kt_system.rest import device_json, serving
from kt_system.rows import (
    CONSUME,
    REQUEST,
    U16,
    consume,
    constant,
    device,
    frame,
    produce,
    slope,
    tag,
    transaction,
)

DEVICES = (
    device(
        "drive",
        consume("state", frame(0x181, 8, tag("speed", U16, **slope(2.5, -1)))),
        produce("command", frame(0x201, 2)),
        transaction(
            "poll", REQUEST, frame(0x301, 0), frame(0x302, 1), frame(0x302, 2, frameType=3)
        ),
    ),
    device("bare"),
    device("sensor", transaction("empty", CONSUME)),
)


@pytest.fixture(scope="module")
def gateway(tmp_path_factory):
    yield from serving(tmp_path_factory.mktemp("gateway"), *DEVICES)


@pytest.fixture(autouse=True)
def fresh(rest):
    rest.discard()


def test_interface_shows_the_port_and_its_devices_in_order(rest):
    with rest.unchanged(), rest.says():
        answer = rest.get("/interface?portId=1")
    assert answer.status == 200
    assert answer.headers["content-type"] == "application/json"
    assert answer.body == (
        b'{"data":{"portId":1,"frameFormat":0,"baudrate":3,"initialDelay":0,"busOffReset":false,'
        b'"resistor":false,"deviceList":[{"deviceId":1,"portId":1,"deviceName":"drive"},'
        b'{"deviceId":2,"portId":1,"deviceName":"bare"},'
        b'{"deviceId":3,"portId":1,"deviceName":"sensor"}]}}'
    )


def test_interface_flags_are_booleans(rest):
    rest.gateway.edit(WORKING_DB, sql="UPDATE interface_setting SET busOffReset = 2, resistor = 1")
    data = rest.get("/interface?portId=2").data
    assert data["busOffReset"] is True and data["resistor"] is True
    assert data["deviceList"] == []


QUERIES = {
    "/interface": ("can_proprietary_rest_get_interface_config", "portId"),
    "/usedCANIds": ("can_proprietary_rest_get_usedCANIds_config", "portId"),
    "/diagnose": ("can_proprietary_rest_get_diagnose", "portId"),
    "/device": ("can_proprietary_rest_get_device_config", "deviceId"),
}


@pytest.mark.parametrize("path", QUERIES)
@pytest.mark.parametrize(
    "query, result",
    [("", -8), ("?", -8), ("?portid=1", -8), ("?%N=1", -8), ("?x=1&N2=1", -8)]
    + [("?N=%zz", -10), ("?N=1%00", -10), ("?N=" + "1" * 64, -9)],
)
def test_a_query_that_does_not_hold_the_parameter(rest, path, query, result):
    function, name = QUERIES[path]
    line = f"{function}|rest_find_uri_query_val fail ({result}).\n"
    rest.refused(-1, "GET", path + query.replace("N", name), None, line)


NO_PORTS = [
    "0",
    "9",
    "-1",
    "257",
    "65537",
    "4294967297",
    "99999999999999999999",
    "",
    "can0",
    "1e400",
]


def is_first(number: str) -> bool:
    return number.startswith("1e")


@pytest.mark.parametrize("port", NO_PORTS)
def test_interface_of_a_port_that_does_not_exist(rest, port):
    if is_first(port):
        assert rest.get(f"/interface?portId={port}").data["portId"] == 1  # a number, then text
        return
    rest.refused(
        -7,
        "GET",
        f"/interface?portId={port}",
        None,
        "can_proprietary_conf_get_interface_config|portId not found\n",
        "can_proprietary_rest_get_interface_config|get config fail\n",
    )


@pytest.mark.parametrize(
    "query", ["portId=%31", "x=2&portId=1", "portId=1&portId=2", "portId=+1", "portId=1abc"]
)
def test_spellings_of_port_1(rest, query):
    assert rest.get(f"/interface?{query}").data["portId"] == 1


def test_device_shows_its_tree(rest):
    with rest.unchanged(), rest.says():
        data = rest.get("/device?deviceId=1").data
    assert [data[name] for name in ("deviceId", "portId", "deviceName")] == [1, 1, "drive"]
    names = [transaction["transactionName"] for transaction in data["transactionList"]]
    assert names == ["state", "command", "poll"]
    frames = [
        (frame["frameId"], frame["transactionId"], frame["canId"], frame["dataLength"])
        for transaction in data["transactionList"]
        for frame in transaction["frameList"]
    ]
    assert frames == [
        (1, 1, 0x181, 8),
        (2, 2, 0x201, 2),
        (3, 3, 0x301, 0),
        (4, 3, 0x302, 1),
        (5, 3, 0x302, 2),
    ]


def test_a_consumed_transaction_shows_seven_members(rest):
    shown = rest.get("/device?deviceId=1").data["transactionList"][0]
    assert list(shown) == [
        "transactionId", "deviceId", "transactionEnable", "transactionName", "transactionType",
        "consumeToutEnable", "consumeTimeout", "frameList",
    ]  # fmt: skip


def test_a_sent_transaction_shows_remote_trigger_and_no_response(rest):
    shown = rest.get("/device?deviceId=1").data["transactionList"][1]
    assert list(shown)[5:] == [
        "trigger",
        "cyclicInterval",
        "fpFunc",
        "fpTimeout",
        "triggerByRTR",
        "frameList",
    ]


def test_a_request_shows_its_response_and_no_remote_trigger(rest):
    shown = rest.get("/device?deviceId=1").data["transactionList"][2]
    assert list(shown)[5:] == [
        "trigger", "cyclicInterval", "fpFunc", "fpTimeout", "responseTimeout", "timeoutRetry", "frameList",
    ]  # fmt: skip


@pytest.mark.parametrize(
    "kind, shape", [(3, "consumeTimeout"), (4, "consumeTimeout"), (255, "consumeTimeout")]
)
def test_a_type_of_no_meaning_shows_as_consumed(rest, kind, shape):
    rest.gateway.edit(WORKING_DB, sql=f"UPDATE transactions SET transactionType = {kind}")
    shown = rest.get("/device?deviceId=1").data["transactionList"][0]
    assert shown["transactionType"] == kind and shape in shown and "trigger" not in shown


def test_slope_and_offset_show_as_source_points_too(rest):
    block = rest.get("/device?deviceId=1").data["transactionList"][0]["frameList"][0]["blockList"][
        0
    ]
    assert block == {
        "blockType": 0, "blockId": 1, "frameId": 1, "tagName": "speed", "tagType": U16, "tagSize": 2,
        "access": "ro", "startOffset": 0, "swap": 0, "fpData": "", "scalingFunc": 1,
        "interceptSlope": 2.5, "interceptOffset": -1, "pointSourceMin": 2.5, "pointSourceMax": -1,
        "pointTargetMin": 0, "pointTargetMax": 1,
    }  # fmt: skip


@pytest.mark.parametrize(
    "size, digits, shown",
    [(0, "", "0"), (0, "1A", "1A"), (2, "1A", "001A"), (8, "1A", "000000000000001A")]
    + [(8, "FEDCBA9876543210", "FEDCBA9876543210"), (1, "ABC", "ABC"), (2, "abc", "0ABC")],
)  # fmt: skip
def test_a_constant_shows_in_upper_case_at_its_width(rest, size, digits, shown):
    rest.gateway.edit(
        WORKING_DB, device("one", consume("t", frame(1, 8, constant("kind", digits, 3, size=size))))
    )
    blocks = rest.get("/device?deviceId=4").data["transactionList"][0]["frameList"][0]["blockList"]
    assert blocks == [
        {
            "blockType": 1, "blockId": 2, "frameId": 6, "constantName": "kind", "constantSize": size,
            "startOffset": 3, "constantValue": shown,
        }
    ]  # fmt: skip


def test_empty_lists_show_as_empty(rest):
    assert rest.get("/device?deviceId=2").data["transactionList"] == []
    assert rest.get("/device?deviceId=3").data["transactionList"][0]["frameList"] == []
    assert (
        rest.get("/device?deviceId=1").data["transactionList"][1]["frameList"][0]["blockList"] == []
    )


@pytest.mark.parametrize(
    "number", ["0", "4", "-1", "257", "4294967297", "99999999999999999999", "drive", ""]
)
def test_a_device_that_does_not_exist(rest, number):
    rest.refused(
        -7,
        "GET",
        f"/device?deviceId={number}",
        None,
        "can_proprietary_conf_get_device_config|deviceId not found\n",
        "can_proprietary_rest_get_device_config|get config fail\n",
    )


def test_a_block_of_no_known_type_fails_the_whole_device(rest):
    rest.gateway.edit(WORKING_DB, sql="UPDATE block SET blockType = 2")
    rest.refused(
        -7,
        "GET",
        "/device?deviceId=1",
        None,
        "block_get_row|param fail\n",
        "can_proprietary_conf_get_frame_config|block_get_row fail\n",
        "can_proprietary_conf_get_transaction_config|get_constant_config error\n",
        "can_proprietary_conf_get_device_config|get_device_all_transaction_config fail\n",
        "can_proprietary_rest_get_device_config|get config fail\n",
    )


def test_overview_lists_the_ports_in_order_with_and_without_devices(rest):
    with rest.unchanged(), rest.says():
        answer = rest.get("/overview")
    assert answer.body == (
        b'{"data":{"portNum":2,"portList":[{"portId":1,"deviceNum":3,"transactionNum":4},'
        b'{"portId":2,"deviceNum":0,"transactionNum":0}]}}'
    )


def test_overview_counts_transactions_in_8_bits(rest):
    many = [transaction(f"t{i}", CONSUME) for i in range(300 - 4)]
    rest.gateway.edit(WORKING_DB, device("many", *many))
    assert rest.get("/overview").data["portList"][0]["transactionNum"] == 300 % 256


def test_overview_without_port_rows(rest):
    rest.gateway.edit(WORKING_DB, sql="PRAGMA foreign_keys = ON; DELETE FROM interface_setting")
    rest.refused(
        -7,
        "GET",
        "/overview",
        None,
        "can_proprietary_conf_get_overview_port_num|db row count fail\n",
        "can_proprietary_rest_get_overview_config|get config fail\n",
    )


def test_config_change_follows_edits_apply_and_discard(rest):
    assert rest.get("/config-change").body == b'{"data":{"result":0}}'
    rest.wait_next_second()
    assert rest.post("/device", {"portId": 2, "deviceName": "new"}).status == 201
    assert rest.get("/config-change").data == {"result": 1}
    rest.discard()
    assert rest.get("/config-change").data == {"result": 0}
    for name in ("renamed", "bare"):
        rest.wait_next_second()
        assert rest.patch("/device/2", {"deviceName": name}).status == 200
        assert rest.get("/config-change").data == {"result": 1}
        rest.apply()
        assert rest.get("/config-change").data == {"result": 0}


def test_config_change_is_untouched_by_refused_requests(rest):
    rest.wait_next_second()
    assert rest.post("/device", {"portId": 3, "deviceName": "new"}).status == 400
    assert rest.post("/device", device_json("new", {})).status == 400
    assert rest.get("/config-change").data == {"result": 0}


def test_used_identifiers_in_frame_order_without_merging(rest):
    with rest.unchanged(), rest.says():
        answer = rest.get("/usedCANIds?portId=1")
    assert answer.body == (
        b'{"data":[{"deviceId":1,"transactionId":1,"transactionType":1,"canId":[385]},'
        b'{"deviceId":1,"transactionId":2,"transactionType":0,"canId":[513]},'
        b'{"deviceId":1,"transactionId":3,"transactionType":2,"canId":[769,770,770]},'
        b'{"deviceId":3,"transactionId":4,"transactionType":1,"canId":[]}]}'
    )


def test_used_identifiers_of_a_port_without_devices(rest):
    assert rest.get("/usedCANIds?portId=2").body == b'{"data":[]}'


@pytest.mark.parametrize("port", [number for number in NO_PORTS if not is_first(number)])
def test_used_identifiers_of_a_port_that_does_not_exist(rest, port):
    rest.refused(
        -7,
        "GET",
        f"/usedCANIds?portId={port}",
        None,
        "can_proprietary_conf_get_port_config|portId not found\n",
        "can_proprietary_rest_get_usedCANIds_config|get config fail\n",
    )


def test_diagnose_counts_frames_and_shows_the_transactions(rest, bus):
    before = rest.get("/diagnose?portId=1").data
    assert list(before) == [
        "state", "rxCount", "txCount", "crcError", "bitError", "stuffError", "busOffCount",
        "busLoading", "transactionCount", "transactionList",
    ]  # fmt: skip
    node = bus()
    for _ in range(5):
        node.send(0x181, "0100000000000000")
    after = wait_until(
        lambda: (data := rest.get("/diagnose?portId=1").data)["rxCount"] >= before["rxCount"] + 5
        and data
    )
    assert after["state"] == "Normal"
    assert after["transactionCount"] == len(after["transactionList"]) == 4
    shown = [(entry["deviceName"], entry["transactionName"]) for entry in after["transactionList"]]
    assert sorted(shown) == [
        ("drive", "command"),
        ("drive", "poll"),
        ("drive", "state"),
        ("sensor", "empty"),
    ]
    assert set(after["transactionList"][0]) == {
        "deviceName", "transactionName", "transactionState", "failedCount",
    }  # fmt: skip


@pytest.mark.parametrize("port", [number for number in NO_PORTS if not is_first(number)] + ["3"])
def test_diagnose_of_a_port_that_does_not_exist(rest, port):
    ports = len(lane.PORTS)
    line = f"can_proprietary_rest_get_diagnose|port index over range ( 1 ~ {ports} )\n"
    rest.refused(-7, "GET", f"/diagnose?portId={port}", None, line)


def test_head_has_the_headers_and_no_body(rest):
    answer = rest.request("HEAD", "/interface?portId=1")
    assert answer.status == 200 and answer.body == b""
    assert int(answer.headers["content-length"]) == len(rest.get("/interface?portId=1").body)


@pytest.mark.parametrize(
    "path", ["/overview", "/overview/", "/overview/1", "/overview?x=1", "/overview/a/b?c"]
)
def test_more_behind_the_path_reaches_the_same_handler(rest, path):
    assert rest.get(path).data["portNum"] == 2


def test_reads_see_the_working_copy_and_the_bus_the_applied_one(rest):
    rest.gateway.edit(WORKING_DB, device("edited"))
    assert rest.get("/device?deviceId=4").data["deviceName"] == "edited"
    assert rest.gateway.query("SELECT COUNT(*) FROM device", database=PERSISTENT_DB) == [(3,)]
