"""Devices and ports changed over HTTP."""

import json

import pytest

from kt_system.gateway import PERSISTENT_DB, WORKING_DB
from kt_system.rest import (
    PORT_JSON,
    consume_json,
    device_json,
    frame_json,
    produce_json,
    request_json,
    serving,
    tag_json,
    without,
)
from kt_system.rows import consume, device, frame, tag

POST = "can_proprietary_rest_post_device_config"
PATCH = "can_proprietary_rest_patch_device_name_config"
DELETE = "can_proprietary_rest_delete_device_config"
PORT = "can_proprietary_rest_patch_interface_config"
INSERT_LIST = "can_proprietary_parse_array_transaction_json_to_insert_config"
INSERT_FRAMES = "can_proprietary_parse_array_frame_json_to_insert_config"
ID = "can_proprietary_get_id_from_path"
NAME_64 = "n" * 64


@pytest.fixture(scope="module")
def gateway(tmp_path_factory):
    configuration = (
        device("drive", consume("state", frame(0x181, 8, tag("speed")))),
        device("sensor", consume("state", frame(0x7FF, 8)), port=2),
    )
    yield from serving(tmp_path_factory.mktemp("gateway"), *configuration)


@pytest.fixture(autouse=True)
def fresh(rest):
    rest.discard()


def query(rest, sql: str):
    return rest.gateway.query(sql)


# POST /device ------------------------------------------------------------------------------------


def test_a_device_alone(rest):
    with rest.says():
        answer = rest.post("/device", {"portId": 2, "deviceName": "spare"})
    assert answer.status == 201
    assert answer.body == b'{"data":{"deviceId":3,"portId":2,"deviceName":"spare"}}'
    assert query(rest, "SELECT * FROM device WHERE deviceId = 3") == [(3, 2, "spare")]
    assert rest.gateway.query("SELECT COUNT(*) FROM device", database=PERSISTENT_DB) == [(2,)]


def test_a_device_with_an_empty_list_shows_it(rest):
    assert rest.post("/device", device_json("spare")).data["transactionList"] == []


def test_a_device_with_its_tree_reads_back_as_it_was_answered(rest):
    body = device_json(
        "pump",
        consume_json("state", frame_json(0x100, tag_json("a"), tag_json("b", offset=2))),
        produce_json("command", frame_json(0x101, tag_json("a", access="wo"))),
        request_json("poll", frame_json(0x102), frame_json(0x103, tag_json("c"))),
        port=2,
    )
    with rest.says():
        data = rest.post("/device", body).data
    assert rest.get(f"/device?deviceId={data['deviceId']}").data == data
    types = "SELECT frameType FROM frame JOIN transactions USING (transactionId) WHERE deviceId = 3"
    assert query(rest, types) == [(1,), (0,), (2,), (3,)]
    assert [t["deviceId"] for t in data["transactionList"]] == [3, 3, 3]


def test_the_device_of_an_element_is_not_read(rest):
    body = device_json("pump", consume_json("state", deviceId=1))
    assert rest.post("/device", body).data["transactionList"][0]["deviceId"] == 3


def test_what_an_element_does_not_carry_gets_its_default(rest):
    body = device_json("pump", produce_json("p", trigger=2), consume_json("c"))
    assert rest.post("/device", body).status == 201
    columns = "transactionEnable, triggerMode, cyclicInterval, consumeToutEnable, consumeTimeout"
    columns += ", timeoutRetry, responseTimeout, triggerByRTR, fpFunc, fpTimeout"
    rows = query(rest, f"SELECT {columns} FROM transactions WHERE deviceId = 3")
    assert rows == [
        (1, 2, 1000, 0, 10000, 0, 1000, 0, 0, 60000),
        (1, 0, 1000, 0, 10000, 0, 1000, 0, 0, 60000),
    ]


def test_keys_ascend_and_only_the_last_one_comes_again(rest):
    assert rest.post("/device", {"portId": 1, "deviceName": "a"}).data["deviceId"] == 3
    assert rest.delete("/device/1").status == 204
    assert rest.post("/device", {"portId": 1, "deviceName": "b"}).data["deviceId"] == 4
    assert rest.delete("/device/4").status == 204
    assert rest.post("/device", {"portId": 1, "deviceName": "c"}).data["deviceId"] == 4


def test_devices_may_share_a_name(rest):
    assert rest.post("/device", {"portId": 1, "deviceName": "drive"}).status == 201


@pytest.mark.parametrize("name", ["n", NAME_64, "\u00e9" * 32, 'a"b;--c', "a%sb%n", "\x01\x7f"])
def test_names_within_their_limits(rest, name):
    data = rest.post("/device", {"portId": 1, "deviceName": name}).data
    assert data["deviceName"] == name
    assert query(rest, "SELECT deviceName FROM device WHERE deviceId = 3") == [(name,)]
    assert rest.get("/device?deviceId=3").data["deviceName"] == name


def member_lines(function: str, name: str, value) -> list[str]:
    return [value, f"{function}|get {name} fail\n"]


NO_PORT = "json_obj_get_number|Parameter portId does not exist\n"
RANGE = "json_obj_get_number|The portId input length {} does not meet the length limit (1-2)\n"


@pytest.mark.parametrize(
    "port, shown",
    [(0, 0), (3, 3), (-1, -1), (0.99, 0), (257, 257), (1e10, 2147483647), (-1e300, -2147483648)],
)
def test_a_port_out_of_range(rest, port, shown):
    body = {"portId": port, "deviceName": "x"}
    rest.refused(-1, "POST", "/device", body, *member_lines(POST, "portId", RANGE.format(shown)))


@pytest.mark.parametrize("port", [1.0, 1.99, 2.9, 10e-1])
def test_a_port_is_truncated(rest, port):
    assert rest.post("/device", {"portId": port, "deviceName": "x"}).data["portId"] == int(port)


@pytest.mark.parametrize("port", ["1", True, None, [1], {"a": 1}])
def test_a_port_of_another_type(rest, port):
    body = {"portId": port, "deviceName": "x"}
    rest.refused(-3, "POST", "/device", body, *member_lines(POST, "portId", NO_PORT))


@pytest.mark.parametrize("body", [{"deviceName": "x"}, {}, [], 1, "text", None, [{"portId": 1}]])
def test_a_body_without_a_port(rest, body):
    text = "null" if body is None else json.dumps(body)
    rest.refused(-3, "POST", "/device", text, *member_lines(POST, "portId", NO_PORT))


NO_NAME = "json_obj_get_string|Parameter deviceName does not exist\n"
SHORT = "json_obj_get_string|The deviceName less than minium length (1)\n"
LONG = "json_obj_get_string|The deviceName exceeds the maximum length (64)\n"


@pytest.mark.parametrize("name", [1, True, None, ["x"], {"a": "x"}])
def test_a_name_of_another_type(rest, name):
    body = {"portId": 1, "deviceName": name}
    rest.refused(-3, "POST", "/device", body, *member_lines(POST, "deviceName", NO_NAME))


@pytest.mark.parametrize("name, line", [("", SHORT), (NAME_64 + "n", LONG), ("\u20ac" * 22, LONG)])
def test_a_name_outside_its_limits(rest, name, line):
    body = {"portId": 1, "deviceName": name}
    rest.refused(-1, "POST", "/device", body, *member_lines(POST, "deviceName", line))


def test_a_device_without_a_body(rest):
    rest.refused(-1, "POST", "/device", None, f"{POST}|invalid input_data\n")


def test_the_working_copy_is_opened_before_the_body_is_looked_at(rest):
    path = rest.gateway.path(WORKING_DB)
    away = path.with_suffix(".away")
    path.rename(away)
    try:
        answer = rest.post("/device", "no JSON")
    finally:
        away.rename(path)
    assert answer.code == -1
    assert rest.gateway.messages[-2].text == "param fail\n"


@pytest.mark.parametrize("value", [None, {}, 1, "[]", True])
def test_a_transaction_list_that_is_no_array(rest, value):
    rest.refused(
        -7,
        "POST",
        "/device",
        {"portId": 1, "deviceName": "x", "transactionList": value},
        f"{INSERT_LIST}|get transactionList fail\n",
        f"{POST}|{INSERT_LIST} fail \n",
    )


@pytest.mark.parametrize("element", [None, 1, "x", [], True])
def test_an_element_that_is_no_object(rest, element):
    rest.refused(
        -7,
        "POST",
        "/device",
        device_json("x", consume_json("a"), element),
        f"{INSERT_LIST}|get transaction object fail\n",
        f"{POST}|{INSERT_LIST} fail \n",
    )


def test_an_element_that_does_not_parse_gives_the_parsers_own_code(rest):
    rest.refused(
        -3,
        "POST",
        "/device",
        device_json("x", consume_json("a"), without(consume_json("b"), "transactionEnable")),
        "json_obj_get_boolean|Parameter transactionEnable does not exist\n",
        "can_proprietary_parse_object_transaction_json|get transactionEnable fail\n",
        f"{INSERT_LIST}|can_proprietary_parse_object_transaction_json fail\n",
        f"{POST}|{INSERT_LIST} fail \n",
    )


def test_two_transactions_of_one_name(rest):
    rest.refused(
        -8,
        "POST",
        "/device",
        device_json("x", consume_json("a"), consume_json("a")),
        f"{INSERT_LIST}|can_proprietary_conf_insert_transaction_config fail\n",
        f"{POST}|{INSERT_LIST} fail \n",
    )


def test_a_bad_frame_of_the_second_transaction_takes_the_device_with_it(rest):
    rest.refused(
        -4,
        "POST",
        "/device",
        device_json(
            "x", consume_json("a", frame_json(1)), consume_json("b", frame_json(2, length=9))
        ),
        "json_obj_get_number|The dataLength input length 9 does not meet the length limit (0-8)\n",
        "can_proprietary_parse_object_frame_json|set dataLength fail\n",
        f"{INSERT_FRAMES}|can_proprietary_parse_object_frame_json fail\n",
        f"{INSERT_LIST}|{INSERT_FRAMES} fail\n",
        f"{POST}|{INSERT_LIST} fail \n",
    )


INSERT_DEVICE = "can_proprietary_conf_insert_device_config"


def test_a_device_beyond_the_largest_number(rest):
    # Foreign keys are off in a connection of the test's own, so the rows need no parents.
    values = ", ".join(f"({key}, 1, 'd')" for key in range(3, 256))
    rest.gateway.edit(WORKING_DB, sql=f"INSERT INTO device VALUES {values}")
    rest.refused(
        -8,
        "POST",
        "/device",
        {"portId": 1, "deviceName": "x"},
        f"{INSERT_DEVICE}|sqlite exec device is full\n",
        f"{POST}|{INSERT_DEVICE} fail \n",
    )
    assert rest.delete("/device/255").status == 204
    assert rest.post("/device", {"portId": 1, "deviceName": "x"}).data["deviceId"] == 255


def test_a_key_that_no_record_holds_is_refused_not_cut(rest):
    rest.gateway.edit(WORKING_DB, sql="INSERT INTO device VALUES (255, 1, 'last')")
    rest.refused(
        -8,
        "POST",
        "/device",
        {"portId": 1, "deviceName": "x"},
        f"{INSERT_DEVICE}|sqlite exec CHECK constraint failed: deviceId\n",
        f"{POST}|{INSERT_DEVICE} fail \n",
    )


def test_a_transaction_beyond_the_largest_number(rest):
    values = ", ".join(f"({key}, 1, 't{key}')" for key in range(3, 512))
    columns = "transactionId, deviceId, transactionName"
    rest.gateway.edit(WORKING_DB, sql=f"INSERT INTO transactions ({columns}) VALUES {values}")
    body = device_json("x", consume_json("a"), consume_json("b"))
    rest.refused(
        -8,
        "POST",
        "/device",
        body,
        "can_proprietary_conf_insert_transaction_config|sqlite exec transactions is full\n",
        f"{INSERT_LIST}|can_proprietary_conf_insert_transaction_config fail\n",
        f"{POST}|{INSERT_LIST} fail \n",
    )
    assert rest.post("/device", device_json("x", consume_json("a"))).status == 201


# PATCH /device/id --------------------------------------------------------------------------------


def test_a_rename_shows_port_0(rest):
    with rest.says():
        answer = rest.patch("/device/2", {"deviceName": "renamed"})
    assert answer.status == 200
    assert answer.body == b'{"data":{"deviceId":2,"portId":0,"deviceName":"renamed"}}'
    assert query(rest, "SELECT * FROM device") == [(1, 1, "drive"), (2, 2, "renamed")]


@pytest.mark.parametrize(
    "path", ["/device/2?x=1", "/device/2/extra", "/device/+2", "/device/02", "/device/2abc"]
)
def test_text_behind_the_id_is_ignored(rest, path):
    assert rest.patch(path, {"deviceName": "renamed"}).data["deviceId"] == 2


@pytest.mark.parametrize(
    "name, line, code",
    [
        ("", SHORT, -1),
        (NAME_64 + "n", LONG, -1),
        (None, NO_NAME, -3),
        (5, NO_NAME, -3),
        ([], NO_NAME, -3),
    ],
)
def test_a_bad_new_name_is_reported_as_portId(rest, name, line, code):
    rest.refused(
        code, "PATCH", "/device/1", {"deviceName": name}, *member_lines(PATCH, "portId", line)
    )


@pytest.mark.parametrize(
    "suffix", ["", "/", "/x", "/-", "/%31", "/2147483648", "/99999999999999999999"]
)
@pytest.mark.parametrize("method, function", [("PATCH", PATCH), ("DELETE", DELETE)])
def test_a_path_without_a_device_id(rest, method, function, suffix):
    lines = [f"{ID}|parse resource's ID fail\n", f"{function}|invalid uri\n"]
    rest.refused(-1, method, "/device" + suffix, {"deviceName": "x"}, *lines)


def test_a_body_is_parsed_before_the_id(rest):
    rest.refused(-1, "PATCH", "/device/x", "{", f"{PATCH}|invalid input_data\n")
    rest.refused(-1, "PATCH", "/device/x", None, f"{PATCH}|invalid input_data\n")


NO_DEVICES = [0, 3, -1, 255, 257, 65537, 2147483647, -2147483648]


@pytest.mark.parametrize("number", NO_DEVICES)
def test_renaming_a_device_that_does_not_exist(rest, number):
    rest.refused(
        -8,
        "PATCH",
        f"/device/{number}",
        {"deviceName": "x"},
        "can_proprietary_conf_update_device_config|device_id not found\n",
        f"{PATCH}|can_proprietary_conf_update_device_config fail",
    )


# DELETE /device/id -------------------------------------------------------------------------------


def test_a_delete_takes_transactions_frames_and_blocks_along(rest):
    with rest.says():
        answer = rest.delete("/device/1")
    assert answer.status == 204 and answer.body == b""
    assert "content-type" not in answer.headers
    counts = [
        query(rest, f"SELECT COUNT(*) FROM {t}")
        for t in ("device", "transactions", "frame", "block")
    ]
    assert counts == [[(1,)], [(1,)], [(1,)], [(0,)]]
    assert query(rest, "SELECT deviceName FROM device") == [("sensor",)]


@pytest.mark.parametrize("number", NO_DEVICES)
def test_deleting_a_device_that_does_not_exist(rest, number):
    rest.refused(
        -1,
        "DELETE",
        f"/device/{number}",
        None,
        "can_proprietary_conf_delete_device_config|device_id not found\n",
        f"{DELETE}|set action fail\n",
    )


def test_deleting_twice(rest):
    assert rest.delete("/device/1").status == 204
    assert rest.delete("/device/1").code == -1


# PATCH /interface/port ---------------------------------------------------------------------------


def test_a_port_is_set_and_the_body_echoed(rest):
    body = '{ "resistor":true,"busOffReset":true, "initialDelay":120000.9,"baudrate":7,"frameFormat":1,"x":[{}]}'
    with rest.says():
        answer = rest.patch("/interface/2", body)
    assert answer.status == 200
    assert answer.body == (
        b'{"data":{"resistor":true,"busOffReset":true,"initialDelay":120000.9,"baudrate":7,'
        b'"frameFormat":1,"x":[{}]}}'
    )
    assert query(rest, "SELECT * FROM interface_setting") == [
        (1, 0, 3, 0, 0, 0),
        (2, 1, 7, 120000, 1, 1),
    ]


@pytest.mark.parametrize(
    "member, top", [("frameFormat", 1), ("baudrate", 7), ("initialDelay", 120000)]
)
def test_numbers_of_a_port_at_and_beyond_their_limits(rest, member, top):
    for value in (0, -0.5, top, top + 0.5):
        assert rest.patch("/interface/1", {**PORT_JSON, member: value}).status == 200
    for value, shown in (
        (top + 1, top + 1),
        (-1, -1),
        (1e300, 2147483647),
        (4294967296, 2147483647),
    ):
        rest.refused(
            -1,
            "PATCH",
            "/interface/1",
            {**PORT_JSON, member: value},
            f"json_obj_get_number|The {member} input length {shown} does not meet the length limit (0-{top})\n",
            f"{PORT}|get {member} fail\n",
        )


@pytest.mark.parametrize("member", ["frameFormat", "baudrate", "initialDelay"])
def test_missing_numbers_of_a_port(rest, member):
    lines = [
        f"json_obj_get_number|Parameter {member} does not exist\n",
        f"{PORT}|get {member} fail\n",
    ]
    for body in [without(PORT_JSON, member)] + [
        {**PORT_JSON, member: v} for v in ("0", True, None, [0], {})
    ]:
        rest.refused(-3, "PATCH", "/interface/1", body, *lines)


@pytest.mark.parametrize("member", ["busOffReset", "resistor"])
def test_missing_flags_of_a_port(rest, member):
    lines = [
        f"json_obj_get_boolean|Parameter {member} does not exist\n",
        f"{PORT}|get {member} fail\n",
    ]
    for body in [without(PORT_JSON, member)] + [
        {**PORT_JSON, member: v} for v in ("true", 1, 0, None, [], {})
    ]:
        rest.refused(-3, "PATCH", "/interface/1", body, *lines)


def test_members_of_a_port_are_read_in_order(rest):
    body = {"frameFormat": 2, "baudrate": 8}
    first = (
        "json_obj_get_number|The frameFormat input length 2 does not meet the length limit (0-1)\n"
    )
    rest.refused(-1, "PATCH", "/interface/1", body, first, f"{PORT}|get frameFormat fail\n")


def test_standard_identifiers_need_frames_below_2048(rest):
    assert rest.patch("/interface/2", PORT_JSON).status == 200  # 2047 fits
    rest.gateway.edit(WORKING_DB, sql="UPDATE frame SET canId = 2048 WHERE canId = 2047")
    rest.refused(-12, "PATCH", "/interface/2", PORT_JSON, f"{PORT}|set canId fail\n")
    assert rest.patch("/interface/1", PORT_JSON).status == 200  # another port's frame
    assert rest.patch("/interface/2", {**PORT_JSON, "frameFormat": 1}).status == 200


@pytest.mark.parametrize("port", [0, 3, -1, 257, 65537])
def test_setting_a_port_that_does_not_exist(rest, port):
    rest.refused(
        -7,
        "PATCH",
        f"/interface/{port}",
        PORT_JSON,
        "can_proprietary_conf_get_port_config|portId not found\n",
        f"{PORT}|get config fail\n",
    )
    rest.refused(
        -8,
        "PATCH",
        f"/interface/{port}",
        {**PORT_JSON, "frameFormat": 1},
        "can_proprietary_conf_update_interface_config|port_id not found\n",
    )


def test_the_port_id_is_read_before_the_body(rest):
    lines = [f"{ID}|parse resource's ID fail\n", f"{PORT}|invalid uri\n"]
    rest.refused(-1, "PATCH", "/interface/x", "{", *lines)
    rest.refused(-1, "PATCH", "/interface/1", "{", f"{PORT}|invalid input_data\n")
    rest.refused(-1, "PATCH", "/interface/x", None, f"{PORT}|invalid input_data\n")


def test_a_port_without_members(rest):
    lines = [
        "json_obj_get_number|Parameter frameFormat does not exist\n",
        f"{PORT}|get frameFormat fail\n",
    ]
    for body in ("[]", "1", '"x"', "null", "{}"):
        rest.refused(-3, "PATCH", "/interface/1", body, *lines)
