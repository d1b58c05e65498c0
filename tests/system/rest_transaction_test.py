"""Transactions, frames and blocks changed over HTTP."""

import pytest

from kt_system.rest import (
    consume_json,
    constant_json,
    frame_json,
    produce_json,
    request_json,
    serving,
    tag_json,
    without,
)
from kt_system.rows import ON_CHANGE, consume, device, frame, produce, request, tag

POST = "can_proprietary_rest_post_transaction_config"
PATCH = "can_proprietary_rest_patch_transaction_config"
DELETE = "can_proprietary_rest_delete_transaction_config"
PUT = "can_proprietary_rest_put_frame_config"
PARSE = "can_proprietary_parse_object_transaction_json"
PARSE_FRAME = "can_proprietary_parse_object_frame_json"
INSERT = "can_proprietary_parse_array_frame_json_to_insert_config"
REPLACE = "can_proprietary_parse_array_frame_json_to_replace_config"
BLOCKS = "can_proprietary_parse_array_block_json_to_insert_config"
ID = "can_proprietary_get_id_from_path"


@pytest.fixture(scope="module")
def gateway(tmp_path_factory):
    configuration = (
        device(
            "drive",
            consume("state", frame(0x181, 8, tag("speed"))),
            produce("command", frame(0x201, 8, tag("target", access="wo")), trigger=ON_CHANGE),
        ),
        device("sensor", request("poll", frame(0x301, 0), frame(0x302, 8, tag("value"))), port=2),
    )
    yield from serving(tmp_path_factory.mktemp("gateway"), *configuration)


@pytest.fixture(autouse=True)
def fresh(rest):
    rest.discard()


def range_line(name: str, value: int, limits: str) -> str:
    return f"json_obj_get_number|The {name} input length {value} does not meet the length limit ({limits})\n"


def missing_line(name: str, kind: str = "number") -> str:
    return f"json_obj_get_{kind}|Parameter {name} does not exist\n"


def get_line(name: str, function: str = PARSE) -> str:
    return f"{function}|get {name} fail\n"


def posted(body: dict) -> dict:
    return {"deviceId": 1, **body}


# POST /transaction -------------------------------------------------------------------------------


@pytest.mark.parametrize(
    "body, types",
    [
        (consume_json("new", frame_json(1), frame_json(2)), [(1,), (1,)]),
        (produce_json("new", frame_json(1), frame_json(2)), [(0,), (0,)]),
        (request_json("new", frame_json(1), frame_json(2), frame_json(2)), [(2,), (3,), (3,)]),
        (request_json("new"), []),
    ],
)
def test_a_posted_transaction_reads_back_as_it_was_answered(rest, body, types):
    with rest.says():
        answer = rest.post("/transaction", posted(body))
    assert answer.status == 201
    assert answer.data["transactionId"] == 4 and answer.data["deviceId"] == 1
    assert rest.get("/device?deviceId=1").data["transactionList"][2] == answer.data
    assert rest.gateway.query("SELECT frameType FROM frame WHERE transactionId = 4") == types


def test_the_same_name_on_another_device(rest):
    assert rest.post("/transaction", {**consume_json("state"), "deviceId": 2}).status == 201


def test_a_taken_name(rest):
    lines = [f"{POST}|can_proprietary_conf_insert_transaction_config fail\n"]
    rest.refused(-8, "POST", "/transaction", posted(consume_json("state")), *lines)


@pytest.mark.parametrize("number", [0, 3, 255, -1])
def test_a_device_that_does_not_exist(rest, number):
    rest.refused(
        -8,
        "POST",
        "/transaction",
        {**consume_json("new"), "deviceId": number},
        "can_proprietary_conf_insert_transaction_config|sqlite exec FOREIGN KEY constraint failed\n",
        f"{POST}|can_proprietary_conf_insert_transaction_config fail\n",
    )


@pytest.mark.parametrize("number", [257, -255, 1.9])
def test_a_device_id_is_cut_to_8_bits(rest, number):
    assert (
        rest.post("/transaction", {**consume_json("new"), "deviceId": number}).data["deviceId"] == 1
    )


@pytest.mark.parametrize("value", ["1", None, True, [], {}])
def test_a_device_id_of_another_type(rest, value):
    lines = [missing_line("deviceId"), get_line("deviceId", POST)]
    rest.refused(-3, "POST", "/transaction", {**consume_json("new"), "deviceId": value}, *lines)


def test_a_transaction_without_device_id_or_object(rest):
    lines = [missing_line("deviceId"), get_line("deviceId", POST)]
    for body in (consume_json("new"), "[]", "1", "null", '""'):
        rest.refused(-3, "POST", "/transaction", body, *lines)
    for body in ("", None):
        rest.refused(-1, "POST", "/transaction", body, f"{POST}|invalid input_data\n")
    for body in ("{", "{} {}", "nul", "'a'", "\x00", "{}\x00{"):
        if body.startswith("{}\x00"):
            rest.refused(-3, "POST", "/transaction", body, *lines)  # text ends at its zero
        else:
            rest.refused(-1, "POST", "/transaction", body, f"{POST}|invalid input_data\n")


SENT = produce_json("new", trigger=0, fpFunc=1, fpTimeout=100)
REQUESTED = request_json("new", trigger=0, fpFunc=2, fpTimeout=100)
WATCHED = consume_json("new", consumeToutEnable=True, consumeTimeout=0)

NUMBERS = [
    (SENT, "transactionType", 0, 2),
    (SENT, "trigger", 0, 2),
    (SENT, "cyclicInterval", 10, 65535),
    (SENT, "fpFunc", 0, 2),
    (SENT, "fpTimeout", 100, 65535),
    (REQUESTED, "trigger", 0, 2),
    (REQUESTED, "cyclicInterval", 10, 65535),
    (REQUESTED, "fpTimeout", 100, 65535),
    (REQUESTED, "responseTimeout", 10, 65535),
    (REQUESTED, "timeoutRetry", 0, 5),
    (WATCHED, "consumeTimeout", 0, 65535),
]


def bad_transaction(rest, body: dict, *lines: str) -> None:
    """Both endpoints answer a body that does not parse with 1, which is no code of the table."""
    last = f"{POST}|can_proprietary_parse_object_transaction_json fail\n"
    rest.refused(1, "POST", "/transaction", posted(body), *lines, last)
    # the PATCH handler names the other one, without a newline
    last = f"{PATCH}|can_proprietary_rest_post_transaction_config fail"
    rest.refused(1, "PATCH", "/transaction/1", body, *lines, last)


@pytest.mark.parametrize("body, name, low, high", NUMBERS)
def test_numbers_of_a_transaction_at_and_beyond_their_limits(rest, body, name, low, high):
    columns = {"trigger": "triggerMode"}
    for value in (low, high, high + 0.9):
        if name == "transactionType":
            break  # other types want other members
        answer = rest.patch("/transaction/2", {**body, name: value})
        assert answer.data[name] == int(value)
        stored = f"SELECT {columns.get(name, name)} FROM transactions WHERE transactionId = 2"
        assert rest.gateway.query(stored) == [(int(value),)]
    beyond = [(low - 1, low - 1), (high + 1, high + 1), (1e300, 2147483647), (-1e300, -2147483648)]
    for value, shown in beyond:
        line = range_line(name, shown, f"{low}-{high}")
        bad_transaction(rest, {**body, name: value}, line, get_line(name))


@pytest.mark.parametrize("body, name", [(body, name) for body, name, _, _ in NUMBERS])
def test_numbers_of_a_transaction_of_another_type(rest, body, name):
    lines = [missing_line(name), get_line(name)]
    bad_transaction(rest, without(body, name), *lines)
    for value in ("1", True, None, [1], {"a": 1}):
        bad_transaction(rest, {**body, name: value}, *lines)


@pytest.mark.parametrize(
    "body, name",
    [(SENT, "transactionEnable"), (SENT, "triggerByRTR"), (WATCHED, "consumeToutEnable")],
)
def test_flags_of_a_transaction_of_another_type(rest, body, name):
    lines = [missing_line(name, "boolean"), get_line(name)]
    bad_transaction(rest, without(body, name), *lines)
    for value in ("true", 1, 0, None, [True], {}):
        bad_transaction(rest, {**body, name: value}, *lines)


@pytest.mark.parametrize("value", [1, True, None, ["a"], {}])
def test_names_of_a_transaction_of_another_type(rest, value):
    lines = [missing_line("transactionName", "string"), get_line("transactionName")]
    bad_transaction(rest, {**SENT, "transactionName": value}, *lines)


def test_names_of_a_transaction_outside_their_limits(rest):
    short = "json_obj_get_string|The transactionName less than minium length (1)\n"
    long = "json_obj_get_string|The transactionName exceeds the maximum length (64)\n"
    bad_transaction(rest, {**SENT, "transactionName": ""}, short, get_line("transactionName"))
    bad_transaction(rest, {**SENT, "transactionName": "n" * 65}, long, get_line("transactionName"))
    assert rest.post("/transaction", posted({**SENT, "transactionName": "n" * 64})).status == 201


def test_members_of_a_transaction_are_read_in_order(rest):
    bad_transaction(
        rest,
        {"transactionType": 7, "frameList": []},
        missing_line("transactionEnable", "boolean"),
        get_line("transactionEnable"),
    )


@pytest.mark.parametrize("trigger", [1, 2])
def test_the_interval_of_another_trigger_is_not_read(rest, trigger):
    body = produce_json("new", trigger=trigger, cyclicInterval=9)
    assert rest.post("/transaction", posted(body)).data["cyclicInterval"] == 1000


def test_the_time_of_no_fault_protection_is_not_read(rest):
    body = produce_json("new", fpFunc=0, fpTimeout=1)
    assert rest.post("/transaction", posted(body)).data["fpTimeout"] == 60000


def test_the_time_of_no_consume_timeout_is_not_read(rest):
    body = consume_json("new", consumeToutEnable=False, consumeTimeout="x")
    assert rest.post("/transaction", posted(body)).data["consumeTimeout"] == 10000


def test_members_of_other_types_are_not_read(rest):
    body = consume_json("new", trigger=9, fpFunc="x", timeoutRetry=9, triggerByRTR=1)
    assert rest.post("/transaction", posted(body)).status == 201


@pytest.mark.parametrize("value", ["absent", None, {}, 1, "[]"])
def test_a_frame_list_that_is_none(rest, value):
    body = posted(consume_json("new", frameList=value))
    if value == "absent":
        del body["frameList"]
    rest.refused(
        -7, "POST", "/transaction", body, f"{INSERT}|frameList fail\n", f"{POST}|{INSERT} fail\n"
    )
    lines = [f"{REPLACE}|frameList fail\n", f"{PUT}|{REPLACE} fail\n"]
    rest.refused(-7, "PUT", "/frame/1", without(body, "deviceId"), *lines)


# Frames and blocks, through both endpoints that take them ----------------------------------------


def bad_frame(rest, code: int, element, *lines: str) -> None:
    """The second of two frames is refused, and the first goes with it."""
    frames = [frame_json(1, tag_json("a")), element]
    tail = [f"{INSERT}|{lines[-1]}", f"{POST}|{INSERT} fail\n"]
    rest.refused(
        code, "POST", "/transaction", posted(consume_json("new", *frames)), *lines[:-1], *tail
    )
    tail = [f"{REPLACE}|{lines[-1]}", f"{PUT}|{REPLACE} fail\n"]
    rest.refused(code, "PUT", "/frame/1", {"frameList": frames}, *lines[:-1], *tail)


@pytest.mark.parametrize("element", [None, 1, "x", [], True])
def test_a_frame_that_is_no_object(rest, element):
    bad_frame(rest, -7, element, "get frame object fail\n")


NOT_PARSED = f"{PARSE_FRAME} fail\n"


@pytest.mark.parametrize(
    "value, shown", [(-1, -1), (0x20000000, 0x20000000), (1e10, 2147483647), (-1e10, -2147483648)]
)
def test_an_identifier_outside_its_limits(rest, value, shown):
    line = range_line("canId", shown, "0-536870911")
    bad_frame(rest, -1, frame_json(value), line, f"{PARSE_FRAME}|set canId fail\n", NOT_PARSED)


@pytest.mark.parametrize("value", ["1", None, True, [1], {}])
def test_an_identifier_of_another_type(rest, value):
    lines = [missing_line("canId"), f"{PARSE_FRAME}|set canId fail\n", NOT_PARSED]
    bad_frame(rest, -3, frame_json(value), *lines)
    bad_frame(rest, -3, without(frame_json(1), "canId"), *lines)


@pytest.mark.parametrize("value, shown", [(-1, -1), (9, 9), (1e10, 2147483647)])
def test_a_data_length_outside_its_limits_is_an_internal_error(rest, value, shown):
    line = range_line("dataLength", shown, "0-8")
    bad_frame(
        rest,
        -4,
        frame_json(1, length=value),
        line,
        f"{PARSE_FRAME}|set dataLength fail\n",
        NOT_PARSED,
    )


@pytest.mark.parametrize("value", ["1", None, True, [1], {}])
def test_a_data_length_of_another_type_is_an_internal_error(rest, value):
    lines = [missing_line("dataLength"), f"{PARSE_FRAME}|set dataLength fail\n", NOT_PARSED]
    bad_frame(rest, -4, frame_json(1, length=value), *lines)
    bad_frame(rest, -4, without(frame_json(1), "dataLength"), *lines)


@pytest.mark.parametrize("can_id", [0, 0x7FF, 0x1FFFFFFF, 1.9])
@pytest.mark.parametrize("length", [0, 8, 8.9, -0.9])
def test_frames_within_their_limits(rest, can_id, length):
    data = rest.put("/frame/1", {"frameList": [frame_json(can_id, length=length)]}).data
    assert data == {
        "frameList": [
            {
                "frameId": 5,
                "transactionId": 1,
                "canId": int(can_id),
                "dataLength": int(length),
                "blockList": [],
            }
        ]
    }


def bad_block(rest, code: int, element, *lines: str) -> None:
    bad_frame(rest, code, frame_json(2, tag_json("a"), element), *lines, f"{BLOCKS} fail\n")


@pytest.mark.parametrize("value", ["absent", None, {}, 1])
def test_a_block_list_that_is_none(rest, value):
    body = (
        without(frame_json(1), "blockList") if value == "absent" else frame_json(1, blockList=value)
    )
    bad_frame(rest, -7, body, f"{BLOCKS}|blockList fail\n", f"{BLOCKS} fail\n")


@pytest.mark.parametrize("element", [None, 1, "x", [], True])
def test_a_block_that_is_no_object(rest, element):
    bad_block(rest, -7, element, f"{BLOCKS}|get block object fail\n")


TAG = tag_json("b")
CONSTANT = constant_json()
# Member, limits and the name that its failure shows.
BLOCK_NUMBERS = [
    (TAG, "blockType", 0, 1, "blockType"),
    (TAG, "tagType", 0, 13, "tagType"),
    (TAG, "tagSize", 0, 8, "tagType"),
    (TAG, "startOffset", 0, 7, "startOffset"),
    (TAG, "swap", 0, 5, "swap"),
    (TAG, "scalingFunc", 0, 2, "scalingFunc"),
    (CONSTANT, "constantSize", 0, 8, "constantSize"),
    (CONSTANT, "startOffset", 0, 7, "startOffset"),
]


@pytest.mark.parametrize("body, name, low, high, logged", BLOCK_NUMBERS)
def test_numbers_of_a_block_at_and_beyond_their_limits(rest, body, name, low, high, logged):
    for value in (low, high, high + 0.5, -0.5):
        if name in ("blockType", "scalingFunc"):
            break  # other kinds want other members
        data = rest.put("/frame/1", {"frameList": [frame_json(1, {**body, name: value})]}).data
        assert data["frameList"][0]["blockList"][0][name] == int(value)
    for value, shown in ((low - 1, low - 1), (high + 1, high + 1), (1e300, 2147483647)):
        line = range_line(name, shown, f"{low}-{high}")
        bad_block(rest, -1, {**body, name: value}, line, f"{BLOCKS}|set {logged} fail\n")


@pytest.mark.parametrize(
    "body, name, logged", [(b, n, logged) for b, n, _, _, logged in BLOCK_NUMBERS]
)
def test_numbers_of_a_block_of_another_type(rest, body, name, logged):
    lines = [missing_line(name), f"{BLOCKS}|set {logged} fail\n"]
    bad_block(rest, -3, without(body, name), *lines)
    for value in ("1", True, None, [1], {}):
        bad_block(rest, -3, {**body, name: value}, *lines)


BLOCK_TEXTS = [  # member, getter, least and most bytes, verb of its failure
    (TAG, "tagName", "string", 1, 64, "get"),
    (TAG, "access", "string_safe", 0, 3, "get"),
    (TAG, "fpData", "string_safe", 0, 24, "set"),
    (CONSTANT, "constantName", "string", 1, 32, "get"),
    (CONSTANT, "constantValue", "string", 0, 16, "set"),
]


@pytest.mark.parametrize("body, name, getter, low, high, verb", BLOCK_TEXTS)
def test_texts_of_a_block_at_and_beyond_their_limits(rest, body, name, getter, low, high, verb):
    for text in ("0" * low, "0" * high):
        data = rest.put("/frame/1", {"frameList": [frame_json(1, {**body, name: text})]}).data
        shown = data["frameList"][0]["blockList"][0][name]
        if name != "constantValue":
            assert shown == text[: 2 if name == "access" else 64]
    last = f"{BLOCKS}|{verb} {name} fail\n"
    long = f"json_obj_get_{getter}|The {name} exceeds the maximum length ({high})\n"
    for text in ("0" * (high + 1), "\u20ac" * (high // 3 + 1), "0" * 5000):
        bad_block(rest, -1, {**body, name: text}, long, last)
    if low > 0:
        short = f"json_obj_get_{getter}|The {name} less than minium length ({low})\n"
        bad_block(rest, -1, {**body, name: ""}, short, last)


@pytest.mark.parametrize(
    "body, name, getter, verb", [(b, n, g, v) for b, n, g, _, _, v in BLOCK_TEXTS]
)
def test_texts_of_a_block_of_another_type(rest, body, name, getter, verb):
    lines = [missing_line(name, getter), f"{BLOCKS}|{verb} {name} fail\n"]
    if name != "fpData":  # the one that may be missing
        bad_block(rest, -3, without(body, name), *lines)
    for value in (1, True, None, ["a"], {}):
        bad_block(rest, -3, {**body, name: value}, *lines)


SCALING = {
    1: ["interceptSlope", "interceptOffset"],
    2: ["pointSourceMin", "pointSourceMax", "pointTargetMin", "pointTargetMax"],
}


@pytest.mark.parametrize(
    "kind, name", [(kind, name) for kind, names in SCALING.items() for name in names]
)
def test_scaling_numbers(rest, kind, name):
    body = {**TAG, "scalingFunc": kind, **dict.fromkeys(SCALING[kind], 5)}
    lines = [missing_line(name), f"{BLOCKS}|set {name} fail\n"]
    bad_block(rest, -3, without(body, name), *lines)
    bad_block(rest, -3, {**body, name: "5"}, *lines)
    for value, stored in [(2.9, 2), (-2.9, -2), (1e300, 2147483647), (-1e300, -2147483648)]:
        data = rest.put("/frame/1", {"frameList": [frame_json(1, {**body, name: value})]}).data
        assert data["frameList"][0]["blockList"][0][name] == stored
        assert rest.gateway.query(f"SELECT {name} FROM block WHERE frameId = 5") == [
            (float(stored),)
        ]


def test_scaling_numbers_share_two_slots(rest):
    body = {
        **TAG,
        "scalingFunc": 1,
        "interceptSlope": 2,
        "interceptOffset": -1,
        "pointTargetMax": 9,
    }
    shown = rest.put("/frame/1", {"frameList": [frame_json(1, body)]}).data["frameList"][0][
        "blockList"
    ][0]
    names = SCALING[1] + SCALING[2]
    assert [shown[name] for name in names] == [2, -1, 2, -1, 0, 1]
    columns = ", ".join(names)
    assert rest.gateway.query(f"SELECT {columns} FROM block WHERE frameId = 5") == [
        (2, -1, 2, -1, 0, 1)
    ]


def test_two_tags_of_one_name_in_a_frame(rest):
    line = f"{BLOCKS}|can_proprietary_conf_insert_tag_block_config fail\n"
    bad_block(rest, -8, tag_json("a", offset=2), line)


def test_tags_of_one_name_in_two_frames_and_constants_of_one_name(rest):
    blocks = [tag_json("a"), constant_json("c"), constant_json("c", offset=6)]
    assert (
        rest.put("/frame/1", {"frameList": [frame_json(1, *blocks), frame_json(2, *blocks)]}).status
        == 200
    )


@pytest.mark.parametrize(
    "text, size, value, shown",
    [
        ("A1B2", 8, 41394, "000000000000A1B2"),
        ("A1B2", 0, 41394, "A1B2"),
        ("a1b2", 1, 41394, "A1B2"),
        ("ABC", 2, 0xABC, "0ABC"),
        ("", 1, 0, "00"),
        ("0102", 2, 258, "0102"),
        ("FFFFFFFFFFFFFFFF", 8, 2**64 - 1, "FFFFFFFFFFFFFFFF"),
        ("12xy", 1, 0x12, "12"),
        ("xy", 1, 0, "00"),
    ],
)
def test_constant_values(rest, text, size, value, shown):
    body = {"frameList": [frame_json(1, constant_json("c", text, 0, constantSize=size))]}
    block = rest.put("/frame/1", body).data["frameList"][0]["blockList"][0]
    assert (block["constantSize"], block["constantValue"]) == (size, shown)
    assert int(block["constantValue"], 16) == value
    stored = "SELECT constantSize, constantValue FROM block WHERE frameId = 5"
    assert rest.gateway.query(stored) == [(size, shown)]


def test_defaults_of_a_tag(rest):
    block = rest.put("/frame/1", {"frameList": [frame_json(1, TAG)]}).data["frameList"][0][
        "blockList"
    ][0]
    assert block["fpData"] == ""
    assert [block[name] for name in SCALING[1] + SCALING[2]] == [0, 1, 0, 1, 0, 1]


# PUT /frame --------------------------------------------------------------------------------------


def test_replacing_frames_makes_them_sent_ones(rest):
    body = {"frameList": [frame_json(1, tag_json("a")), frame_json(2), frame_json(3)]}
    with rest.says():
        answer = rest.put("/frame/3", body)
    assert answer.status == 200
    rows = rest.gateway.query("SELECT canId, frameType FROM frame WHERE transactionId = 3")
    assert rows == [(1, 0), (2, 0), (3, 0)]
    shown = rest.get("/device?deviceId=2").data["transactionList"][0]["frameList"]
    assert shown == answer.data["frameList"]


def test_removing_every_frame_even_where_there_is_none(rest):
    for _ in range(2):
        with rest.says():
            assert rest.put("/frame/1", {"frameList": []}).data == {"frameList": []}
    assert rest.gateway.query("SELECT * FROM frame WHERE transactionId = 1") == []
    assert rest.gateway.query("SELECT COUNT(*) FROM block") == [(2,)]


NO_TRANSACTIONS = [0, 4, -1, 65537, 65536 + 3, 2147483647, -2147483648]


@pytest.mark.parametrize("number", NO_TRANSACTIONS)
def test_frames_of_a_transaction_that_does_not_exist(rest, number):
    rest.refused(
        -3,
        "PUT",
        f"/frame/{number}",
        {"frameList": []},
        "can_proprietary_conf_delete_frame_config|transaction_id not found\n",
        f"{REPLACE}|can_proprietary_conf_delete_frame_config fail\n",
        f"{PUT}|{REPLACE} fail\n",
    )


# PATCH and DELETE /transaction -------------------------------------------------------------------


def test_a_change_leaves_the_frames_alone(rest):
    frames = rest.gateway.query("SELECT * FROM frame")
    with rest.says():
        answer = rest.patch("/transaction/1", produce_json("state", cyclicInterval=20))
    assert answer.status == 200
    assert answer.body == (
        b'{"data":{"transactionId":1,"deviceId":255,"transactionEnable":true,"transactionName":"state",'
        b'"transactionType":0,"trigger":0,"cyclicInterval":20,"fpFunc":0,"fpTimeout":60000,"triggerByRTR":false}}'
    )
    assert rest.gateway.query("SELECT * FROM frame") == frames
    row = rest.gateway.query("SELECT * FROM transactions WHERE transactionId = 1")
    assert row == [(1, 1, 1, "state", 0, 0, 20, 0, 60000, 0, 0, 10000, 0, 1000)]


def test_a_rename_to_the_name_of_a_sibling(rest):
    lines = [f"{PATCH}|can_proprietary_conf_update_transaction_config fail"]
    rest.refused(-8, "PATCH", "/transaction/1", consume_json("command"), *lines)
    assert rest.patch("/transaction/3", consume_json("command")).status == 200  # another device's


@pytest.mark.parametrize("number", NO_TRANSACTIONS)
def test_changing_a_transaction_that_does_not_exist(rest, number):
    rest.refused(
        -8,
        "PATCH",
        f"/transaction/{number}",
        consume_json("new"),
        "can_proprietary_conf_update_transaction_config|transaction_id not found\n",
        f"{PATCH}|can_proprietary_conf_update_transaction_config fail",
    )


@pytest.mark.parametrize("number", NO_TRANSACTIONS)
def test_deleting_a_transaction_that_does_not_exist(rest, number):
    rest.refused(
        -1,
        "DELETE",
        f"/transaction/{number}",
        None,
        "can_proprietary_conf_delete_transaction_config|transaction_id not found\n",
        f"{DELETE}|set action fail\n",
    )


def test_a_delete_takes_frames_and_blocks_along(rest):
    with rest.says():
        answer = rest.delete("/transaction/3")
    assert answer.status == 204 and answer.body == b""
    counts = [
        rest.gateway.query(f"SELECT COUNT(*) FROM {t}") for t in ("transactions", "frame", "block")
    ]
    assert counts == [[(2,)], [(2,)], [(2,)]]


@pytest.mark.parametrize("suffix", ["", "/", "/x", "/2147483648"])
@pytest.mark.parametrize(
    "method, path, function, body",
    [
        ("PATCH", "/transaction", PATCH, consume_json("new")),
        ("DELETE", "/transaction", DELETE, None),
        ("PUT", "/frame", PUT, {"frameList": []}),
    ],
)
def test_a_path_without_an_id(rest, method, path, function, body, suffix):
    lines = [f"{ID}|parse resource's ID fail\n", f"{function}|invalid uri\n"]
    rest.refused(-1, method, path + suffix, body, *lines)


@pytest.mark.parametrize(
    "method, path, function", [("PATCH", "/transaction/x", PATCH), ("PUT", "/frame/x", PUT)]
)
def test_a_body_is_parsed_before_the_id(rest, method, path, function):
    for body in (None, "{", "\x00"):
        rest.refused(-1, method, path, body, f"{function}|invalid input_data\n")
