"""Input of people who mean no good: documented answers, and the databases row by row as before."""

import json

import pytest

from kt_system.rest import (
    PORT_JSON,
    consume_json,
    constant_json,
    device_json,
    frame_json,
    produce_json,
    request_json,
    serving,
    tag_json,
)
from kt_system.rows import consume, device, frame, tag


@pytest.fixture(scope="module")
def gateway(tmp_path_factory):
    configuration = (
        device("drive", consume("state", frame(0x181, 8, tag("speed")))),
        device("sensor", consume("state", frame(0x182, 8, tag("value"))), port=2),
    )
    yield from serving(tmp_path_factory.mktemp("gateway"), *configuration)


@pytest.fixture(autouse=True)
def fresh(rest):
    rest.discard()


# Every text of every body: how to put it there, its longest length, where it is stored.
TEXTS = {
    "device name": (
        lambda t: ("POST", "/device", {"portId": 1, "deviceName": t}),
        64,
        "deviceName",
        "device",
    ),
    "new device name": (
        lambda t: ("PATCH", "/device/1", {"deviceName": t}),
        64,
        "deviceName",
        "device",
    ),
    "transaction name": (
        lambda t: ("POST", "/transaction", {**consume_json(t), "deviceId": 1}),
        64,
        "transactionName",
        "transactions",
    ),
    "new transaction name": (
        lambda t: ("PATCH", "/transaction/1", consume_json(t)),
        64,
        "transactionName",
        "transactions",
    ),
    "nested transaction name": (
        lambda t: ("POST", "/device", device_json("d", consume_json(t))),
        64,
        "transactionName",
        "transactions",
    ),
    "tag name": (
        lambda t: ("PUT", "/frame/1", {"frameList": [frame_json(1, tag_json(t))]}),
        64,
        "tagName",
        "block",
    ),
    "constant name": (
        lambda t: ("PUT", "/frame/1", {"frameList": [frame_json(1, constant_json(t))]}),
        32,
        "constantName",
        "block",
    ),
    "fault data": (
        lambda t: ("PUT", "/frame/1", {"frameList": [frame_json(1, tag_json(fpData=t))]}),
        24,
        "fpData",
        "block",
    ),
    "access": (
        lambda t: ("PUT", "/frame/1", {"frameList": [frame_json(1, tag_json(access=t))]}),
        3,
        "access",
        "block",
    ),
}

QUOTED = [
    "'",
    "''",
    "o'clock",
    "'; --",
    "x', 2); --",
    "'||(SELECT 1)||'",
    "'); DROP TABLE device; --",
    "' WHERE 1=1 --",
    "'/*",
    "\u00e9'",
    "\\'",
]


def send(rest, place: str, text: str):
    method, path, body = TEXTS[place][0](text)
    return rest.request(method, path, body)


@pytest.mark.parametrize("place", TEXTS)
def test_a_quote_is_refused(rest, place):
    with rest.unchanged():
        for text in QUOTED:
            # An access keeps two bytes of three; a quote behind them is not stored.
            size = len(text.encode())
            if size <= TEXTS[place][1] and not (
                place == "access" and b"'" not in text.encode()[:2]
            ):
                assert send(rest, place, text).code == -8, text


HARMLESS = [
    '"',
    ";",
    "--",
    "/* */",
    "DROP TABLE device;",
    "a;DELETE FROM device",
    "%s%n%d%99999d",
    "\\",
    "\\u0041",
    "${HOME}`id`",
    "../../etc/passwd",
    "<script>",
    "\x01\x02\x1f\x7f",
    "\n\r\t",
    "\u00e9\u4e2d\U0001f600",
    " ",
    ",",
    "NULL",
    "0x10",
]


@pytest.mark.parametrize("place", TEXTS)
def test_other_texts_are_stored_and_shown_as_they_are(rest, place):
    """A text changes the rows that any other one changes, and stands where that one stood."""
    _, longest, column, table = TEXTS[place]
    kept = 2 if place == "access" else longest
    assert send(rest, place, "MARK"[:kept]).status in (200, 201)
    marked = rest.rows()
    rest.discard()
    for text in HARMLESS:
        if len(text.encode()) > longest:
            continue
        answer = send(rest, place, text)
        assert answer.status in (200, 201), (text, answer)
        stored = text.encode()[:kept].decode()
        assert (stored,) in rest.gateway.query(f"SELECT {column} FROM {table}")
        assert stored in texts_of(answer.json)
        assert rest.rows() == with_cells(marked, "MARK"[:kept], stored), text
        rest.discard()


def with_cells(rows: dict, mark: str, text: str) -> dict:
    """The rows with another text where the mark stands."""
    return {
        table: [tuple(text if cell == mark else cell for cell in row) for row in content]
        for table, content in rows.items()
    }


def texts_of(value) -> list[str]:
    if isinstance(value, str):
        return [value]
    if isinstance(value, dict):
        value = list(value.values())
    return [text for item in value for text in texts_of(item)] if isinstance(value, list) else []


@pytest.mark.parametrize("place", TEXTS)
def test_lengths_at_and_beyond_the_limit(rest, place):
    longest = TEXTS[place][1]
    for text in ("n" * longest, "\u00e9" * (longest // 2), "\u20ac" * (longest // 3)):
        if place == "access" and text == "\u20ac":
            continue
        assert send(rest, place, text).status in (200, 201)
        rest.discard()
    parse_fails = "transaction name" in place and not place.startswith("nested")
    with rest.unchanged():
        for text in ("n" * (longest + 1), "\u20ac" * (longest // 3 + 1), "n" * 100000):
            assert send(rest, place, text).code == (1 if parse_fails else -1)


def test_an_access_whose_kept_bytes_are_no_text_cannot_be_shown(rest):
    with rest.unchanged():
        assert send(rest, "access", "\u20ac").code == -6


@pytest.mark.parametrize("place", TEXTS)
def test_escapes_that_are_no_text(rest, place):
    method, path, body = TEXTS[place][0]("ESCAPE")
    with rest.unchanged():
        for escape in ("\\u0000", "a\\u0000b", "\\ud800", "\\udc00\\ud800", "\\x00", "\\u12"):
            text = json.dumps(body).replace("ESCAPE", escape)
            assert rest.request(method, path, text).code == -1, escape


@pytest.mark.parametrize("place", TEXTS)
def test_bytes_that_are_no_text(rest, place):
    method, path, body = TEXTS[place][0]("BYTES")
    with rest.unchanged():
        for raw in (
            b"\xff",
            b"\xc0\xaf",
            b"\xed\xa0\x80",
            b"\xf4\x90\x80\x80",
            b"\xe2\x82",
            b"\0",
            b"\x1f",
            b"\n",
        ):
            data = json.dumps(body).encode().replace(b"BYTES", raw)
            assert rest.request(method, path, data).code == -1, raw


BODIES = {  # every endpoint that reads one
    "action": ("POST", "/action", {"option": 2}),
    "port": ("PATCH", "/interface/1", PORT_JSON),
    "device": ("POST", "/device", device_json("new", produce_json("p", frame_json(1, tag_json("t"), constant_json())))),
    "name": ("PATCH", "/device/1", {"deviceName": "new"}),
    "transaction": ("POST", "/transaction", {**request_json("new", frame_json(1, tag_json("t", scalingFunc=1, interceptSlope=1, interceptOffset=2)), frame_json(2)), "deviceId": 1}),
    "settings": ("PATCH", "/transaction/1", produce_json("new", fpFunc=1, fpTimeout=100)),
    "consume": ("PATCH", "/transaction/1", consume_json("new", consumeToutEnable=True, consumeTimeout=1)),
    "frames": ("PUT", "/frame/1", {"frameList": [frame_json(1, tag_json("t", scalingFunc=2, pointSourceMin=0, pointSourceMax=1, pointTargetMin=0, pointTargetMax=1)), frame_json(2, constant_json())]}),
    "traffic": ("POST", "/traffic/1", {"option": 2}),
}  # fmt: skip


def members(value, path=()):
    """The way to every member, at every depth."""
    if isinstance(value, dict):
        for name, inner in value.items():
            yield (*path, name)
            yield from members(inner, (*path, name))
    elif isinstance(value, list):
        for index, inner in enumerate(value):
            yield from members(inner, (*path, index))


def replaced(body, path, value):
    copy = json.loads(json.dumps(body))
    holder = copy
    for step in path[:-1]:
        holder = holder[step]
    holder[path[-1]] = value
    return copy


EVERY_MEMBER = [
    pytest.param(name, path, id=f"{name}-{'.'.join(map(str, path))}")
    for name, (_, _, body) in BODIES.items()
    for path in members(body)
]
TYPES = [None, True, False, 0, -1, 1e300, "", "0", [], {}, [[]], [0], {"a": 0}]


def documented(answer) -> bool:
    """A success, or a failure that is one of the table to the last letter."""
    return answer.status in (200, 201) or answer.code in (1, -1, -3, -4, -7, -8, -12)


def same_kind(value, original) -> bool:
    numbers = all(
        isinstance(v, (int, float)) and not isinstance(v, bool) for v in (value, original)
    )
    return numbers or type(value) is type(original)


@pytest.mark.parametrize("name, path", EVERY_MEMBER)
def test_a_member_of_another_type(rest, name, path):
    method, target, body = BODIES[name]
    original = body
    for step in path:
        original = original[step]
    is_read = not (
        method == "PATCH" and "frameList" in path
    )  # changing a transaction leaves its frames
    before = rest.rows()
    for value in TYPES:
        answer = rest.request(method, target, replaced(body, path, value))
        assert documented(answer), (value, answer)
        if answer.status in (200, 201):
            assert same_kind(value, original) or not is_read, (value, answer)
            rest.discard()
        assert rest.rows() == before, value


# Every number of every body with its least and its greatest value; where another value would want
# other members beside it, what is within the limits is left out.
SHAPING = {"transactionType", "blockType", "fpFunc", "scalingFunc", "option"}
TRANSACTION_NUMBERS = {
    "transactionType": (0, 2),
    "trigger": (0, 2),
    "cyclicInterval": (10, 65535),
    "consumeTimeout": (0, 65535),
    "fpFunc": (0, 2),
    "fpTimeout": (100, 65535),
    "responseTimeout": (10, 65535),
    "timeoutRetry": (0, 5),
}
NUMBERS = {
    **TRANSACTION_NUMBERS,
    "option": (0, 1),
    "frameFormat": (0, 1),
    "baudrate": (0, 7),
    "initialDelay": (0, 120000),
    "portId": (1, 2),
    "canId": (0, 0x1FFFFFFF),
    "dataLength": (0, 8),
    "blockType": (0, 1),
    "tagType": (0, 13),
    "tagSize": (0, 8),
    "constantSize": (0, 8),
    "startOffset": (0, 7),
    "swap": (0, 5),
    "scalingFunc": (0, 2),
}
LIMITED = [
    pytest.param(name, path, id=f"{name}-{'.'.join(map(str, path))}")
    for name, (method, _, body) in BODIES.items()
    for path in members(body)
    if path[-1] in NUMBERS and not (method == "PATCH" and "frameList" in path)
]


def refusal_of(name: str, member: str) -> int:
    if member == "dataLength":
        return -4
    return 1 if member in TRANSACTION_NUMBERS and name != "device" else -1


def changed_rows(before: dict, after: dict) -> list[tuple]:
    return [
        (table, row)
        for table, content in after.items()
        for row in content
        if row not in before[table]
    ]


@pytest.mark.parametrize("name, path", LIMITED)
def test_numbers_at_and_beyond_their_limits(rest, name, path):
    method, target, body = BODIES[name]
    low, high = NUMBERS[path[-1]]
    beyond = [low - 1, high + 1, 2**31, 2**32, 2**32 + low, 2**63, 2**64 + high, 1e10, 1e300]
    with rest.unchanged():
        for value in beyond + [-(2**31) - 1, -(2**32) + low, -(2**63), -1e10, -1e300]:
            answer = rest.request(method, target, replaced(body, path, value))
            assert answer.code == refusal_of(name, path[-1]), value
    if path[-1] in SHAPING:
        return
    seen = []
    for value in (low, high):
        answer = rest.request(method, target, replaced(body, path, value))
        assert answer.status in (200, 201), (value, answer)
        seen.append(rest.rows())
        rest.discard()
    assert len(changed_rows(*seen)) == len(changed_rows(*reversed(seen))) == 1


SCALED = [
    pytest.param(name, path, id=f"{name}-{'.'.join(map(str, path))}")
    for name, (_, _, body) in BODIES.items()
    for path in members(body)
    if path[-1].startswith(("intercept", "point"))
]


@pytest.mark.parametrize("name, path", SCALED)
def test_scaling_numbers_are_held_within_32_bits(rest, name, path):
    method, target, body = BODIES[name]
    for value in (2**31, 2**64, 1e300):
        for sign, held in ((1, 2**31 - 1), (-1, -(2**31))):
            answer = rest.request(method, target, replaced(body, path, sign * value))
            assert answer.status in (200, 201), (value, answer)
            stored = rest.gateway.query(f"SELECT {path[-1]} FROM block WHERE tagName = 't'")
            assert stored == [(float(held),)]
            rest.discard()


NO_NUMBERS = [
    "NaN", "nan", "Infinity", "-Infinity", "1e400", "-1e400", "0x10", "01", "+1", "1.", ".5", "1e", "--1", "1,5",
    "True", "undefined", "1_000",
]  # fmt: skip


@pytest.mark.parametrize("name, path", EVERY_MEMBER)
def test_numbers_that_are_none(rest, name, path):
    method, target, body = BODIES[name]
    mark = json.dumps(replaced(body, path, "MARK"))
    with rest.unchanged():
        for text in NO_NUMBERS:
            assert rest.request(method, target, mark.replace('"MARK"', text)).code == -1, text


@pytest.mark.parametrize("name, path", EVERY_MEMBER)
def test_a_doubled_member(rest, name, path):
    method, target, body = BODIES[name]
    mark = json.dumps(replaced(body, path, "MARK"))
    member = f'"{path[-1]}": "MARK"'
    assert member in mark
    with rest.unchanged():
        doubled = mark.replace(member, f'"{path[-1]}": 1, "{path[-1]}": 1')
        assert rest.request(method, target, doubled).code == -1


NO_JSON = [
    "", " ", "{", "}", "[", "{}{}", "{},", "{'a':1}", '{"a":1,}', "{a:1}", "[1,]", "nul", "//", "{}//x",
    "\ufeff{}", "{}\x00x{", "<xml/>", "a=b&c=d", "\x00", "\x00{}",
]  # fmt: skip


@pytest.mark.parametrize("name", BODIES)
def test_a_body_that_is_no_json(rest, name):
    method, target, _ = BODIES[name]
    with rest.unchanged():
        for text in NO_JSON:
            answer = rest.request(method, target, text)
            if text.startswith("{}\x00"):
                assert documented(answer) and answer.status >= 400  # text ends at its zero
            else:
                assert answer.code == -1, text


@pytest.mark.parametrize("name", BODIES)
@pytest.mark.parametrize("opening, closing", [("[", "]"), ('{"a":', "}"), ('[{"option":', "}]")])
def test_deep_nesting(rest, name, opening, closing):
    method, target, _ = BODIES[name]
    levels = opening.count("[") + opening.count("{")
    with rest.unchanged():
        for depth in (99, 100, 101, 10000, 500000):
            answer = rest.request(method, target, opening * depth + "0" + closing * depth)
            assert documented(answer) and answer.status >= 400
            if depth * levels > 100:
                assert answer.code == -1


@pytest.mark.parametrize("name", BODIES)
def test_members_nested_deep_beside_good_ones(rest, name):
    method, target, body = BODIES[name]
    if name in ("action", "traffic"):
        body = {"option": 1} if name == "action" else {"option": 0}
    text = json.dumps(body)
    for depth, status in ((99, (200, 201)), (100, (400,))):
        extra = text[:-1] + ', "x":' + "[" * depth + "]" * depth + "}"
        assert rest.request(method, target, extra).status in status
        rest.discard()


@pytest.mark.parametrize("name", BODIES)
def test_a_large_body(rest, name):
    """8 MiB of members that nobody reads are read over; nothing suffers."""
    method, target, body = BODIES[name]
    text = json.dumps(body)[:-1] + ', "x": "' + "x" * (7 * 1024 * 1024) + '"}'
    answer = rest.request(method, target, text)
    assert documented(answer)
    rest.discard()


def test_long_lists(rest):
    """Everything that fits into 512 transactions lands; what does not leaves nothing."""
    blocks = [tag_json(f"t{i}", 5, 0, 1) for i in range(50)]
    frames = [frame_json(i, *blocks) for i in range(20)]
    data = rest.put("/frame/1", {"frameList": frames}).data
    assert len(data["frameList"]) == 20
    assert rest.gateway.query(
        "SELECT COUNT(*) FROM block JOIN frame USING (frameId) WHERE transactionId = 1"
    ) == [(1000,)]
    rest.discard()
    with rest.unchanged():
        answer = rest.post(
            "/device", device_json("d", *[consume_json(f"t{i}") for i in range(511)])
        )
        assert answer.code == -8
    assert (
        rest.post("/device", device_json("d", *[consume_json(f"t{i}") for i in range(510)])).status
        == 201
    )


PATHS = [
    "/device/' OR 1=1 --", "/device/1;DELETE", "/device/1' OR '1'='1", "/device/%00", "/device/1%00", "/device/9e9",
    "/device/..%2f1", "/device/" + "9" * 1000, "/device/%C3%A9", "/device/1#x", "/device/0x1",
]  # fmt: skip


@pytest.mark.parametrize("path", PATHS)
@pytest.mark.parametrize("method", ["PATCH", "DELETE"])
def test_paths_with_more_than_an_id(rest, method, path):
    before = rest.rows()
    answer = rest.request(method, path.replace(" ", "%20"), {"deviceName": "renamed"})
    rows = rest.gateway.query("SELECT deviceId FROM device")
    if path.startswith("/device/1"):
        # What stands behind the number is ignored: that very device, and no other.
        assert answer.status in (200, 204)
        assert rows == ([(2,)] if method == "DELETE" else [(1,), (2,)])
    else:
        assert answer.code in (-1, -8)
        assert rest.rows() == before


QUERIES = [
    "portId=1' OR 1=1",
    "portId=1;DROP TABLE device",
    "portId=-1 UNION SELECT 1",
    "portId=1%27",
    "portId=%27",
]


@pytest.mark.parametrize("query", QUERIES)
@pytest.mark.parametrize("path", ["/interface", "/usedCANIds", "/diagnose"])
def test_queries_with_more_than_an_id(rest, path, query):
    with rest.unchanged():
        answer = rest.get(f"{path}?{query.replace(' ', '%20')}")
    if query.startswith("portId=1"):
        assert answer.status == 200
    else:
        assert answer.code == -7
