"""docs/openapi.yaml against the running service: every example is sent, every answer judged."""

import contextlib
import json
import re
import socket

import jsonschema
import pytest
import yaml

from kt_system import lane
from kt_system.bus import Bus
from kt_system.gateway import WORKING_DB
from kt_system.lane import wait_until
from kt_system.rest import BASE, MESSAGES, MULTIPART, STATUSES, Rest, multipart, serving
from kt_system.rows import (
    ON_CHANGE,
    U16,
    I16,
    consume,
    constant,
    device,
    frame,
    points,
    produce,
    request,
    slope,
    tag,
)

METHODS = ("get", "post", "put", "patch", "delete")
DOCUMENT = yaml.safe_load((lane.REPO / "docs/openapi.yaml").read_text("utf-8"))

# The configuration that the examples speak of.
DRIVE = device(
    "drive",
    consume("state", frame(385, 8, tag("speed", U16, swap=1, **slope(2.5, -1))), timeout=5000),
    produce(
        "command",
        frame(513, 8, tag("target", U16, access="wo", fpData="0000"), constant("kind", "001A", 6)),
        trigger=ON_CHANGE,
        fpFunc=2,
        fpTimeout=500,
    ),
)
SENSOR = device(
    "sensor",
    request(
        "climate",
        frame(801, 0),
        frame(802, 8, tag("temperature", I16, **points((0, 1000), (-40, 60)))),
        interval=100,
        timeout=200,
        retry=1,
        fpTimeout=60000,
    ),
)
LEGACY = device("legacy", consume("state", frame(0x18FF50E5, 8)), port=2)
# Slots that no scaling fills, as the API leaves them.
SLOTS = """
    UPDATE block SET interceptSlope = 0, interceptOffset = 1 WHERE tagName = 'target';
    UPDATE interface_setting SET frameFormat = 1 WHERE portId = 2;
"""

# Answers that vary: judged by their schema alone.
VARYING = {"getDiagnose", "getTraffic", "exportTraffic"}
MIB = 1024 * 1024
TOKEN = "correct-horse-battery-staple"


def resolve(node):
    while isinstance(node, dict) and "$ref" in node:
        target = DOCUMENT
        for key in node["$ref"].removeprefix("#/").split("/"):
            target = target[key]
        node = target
    return node


class Operation:
    def __init__(self, path: str, method: str):
        item = DOCUMENT["paths"][path]
        self.path, self.method, self.node = path, method, item[method]
        self.id = self.node["operationId"]
        listed = item.get("parameters", []) + self.node.get("parameters", [])
        self.parameters = [resolve(parameter) for parameter in listed]
        self.bodies = {
            name: (kind, resolve(example)["value"])
            for kind, media in self.node.get("requestBody", {}).get("content", {}).items()
            for name, example in media["examples"].items()
        }

    def target(self, example: str) -> str:
        path = self.path
        query = []
        for parameter in self.parameters:
            examples = parameter["examples"]
            value = str(examples.get(example, examples["usual"])["value"])
            if parameter["in"] == "path":
                path = path.replace("{%s}" % parameter["name"], value)
            elif example != "missing query":
                query.append(f"{parameter['name']}={value}")
        return path + ("?" + "&".join(query) if query else "")

    def body(self, example: str) -> tuple[bytes | None, dict]:
        """The body of that name with its headers; without one the first, none for "no body"."""
        if not self.bodies or example == "no body":
            return None, {}
        kind, value = self.bodies.get(example) or next(iter(self.bodies.values()))
        if kind == "multipart/form-data":
            return multipart(value["file"]), MULTIPART
        text = value if isinstance(value, str) else json.dumps(value)
        return text.encode(), {"Content-Type": kind}

    def send(self, rest: Rest, example: str = "usual", headers: dict | None = None, body=None):
        own, fields = self.body(example)
        body = own if body is None else body
        fields = {**fields, **(headers or {})}
        return rest.request(self.method.upper(), self.target(example), body, fields)


OPERATIONS = [
    Operation(path, method)
    for path, item in DOCUMENT["paths"].items()
    for method in METHODS
    if method in item
]


def exchanges():
    """Every operation, status and example that the service itself answers."""
    for operation in OPERATIONS:
        for status, response in operation.node["responses"].items():
            response = resolve(response)
            if status == "default" or is_of_server(response):
                continue
            content = response.get("content", {})
            names = [name for media in content.values() for name in media.get("examples", ())]
            for name in names or [response.get("x-example", "usual")]:
                yield pytest.param(operation, status, name, id=f"{operation.id}-{status}-{name}")


def is_of_server(response: dict) -> bool:
    return any("example" in media for media in response.get("content", {}).values())


def judge_answer(operation: Operation, status: str, answer, example: str | None = None) -> None:
    """The answer against the documented response: status, type, headers, schema, example."""
    response = resolve(operation.node["responses"][status])
    assert str(answer.status) == status, answer
    judge_content(response, answer, example, operation.id not in VARYING)
    exercised.add((operation.path, operation.method, status))


def judge_content(response: dict, answer, example: str | None, is_exact: bool) -> None:
    for name, header in response.get("headers", {}).items():
        validate(resolve(header)["schema"], answer.headers[name.lower()])
    if "content" not in response:
        assert answer.body == b"" and "content-type" not in answer.headers
        return
    ((kind, media),) = response["content"].items()
    assert answer.headers["content-type"] == kind
    value = answer.json if kind == "application/json" else answer.body.decode()
    validate(media["schema"], value)
    wanted = media.get("example")
    if example in media.get("examples", ()):
        wanted = resolve(media["examples"][example])["value"]
    if wanted is not None and is_exact:
        assert value == wanted


def validate(schema: dict, value) -> None:
    resolver = jsonschema.RefResolver("", DOCUMENT)
    if value is not None and schema.get("type") == "integer" and isinstance(value, str):
        value = int(value)  # a header
    jsonschema.Draft4Validator(schema, resolver=resolver).validate(value)


exercised: set[tuple[str, str, str]] = set()


@pytest.fixture(scope="module")
def gateway(tmp_path_factory):
    yield from serving(tmp_path_factory.mktemp("gateway"), DRIVE, SENSOR, LEGACY, sql=SLOTS)


@pytest.fixture(scope="module")
def guarded(tmp_path_factory):
    """The same with a token, in front of the module's own."""
    folder = tmp_path_factory.mktemp("guarded")
    (folder / "token").write_text(TOKEN + "\n")
    (folder / "token").chmod(0o600)
    if lane.KERNEL:
        pytest.skip("one service at a time there")
    yield from serving(folder, environment={"KT_REST_TOKEN_FILE": str(folder / "token")})


@contextlib.contextmanager
def configuration_away(rest: Rest):
    path = rest.gateway.path(WORKING_DB)
    away = path.with_suffix(".away")
    path.rename(away)
    yield
    away.rename(path)


@contextlib.contextmanager
def conflict(rest: Rest):
    rest.gateway.edit(WORKING_DB, device("rival", consume("state", frame(385, 0))))
    yield


@contextlib.contextmanager
def new_pass(rest: Rest):
    """It begins after the answer, and would make a working copy where an example has none."""
    before = rest.port_threads()
    yield
    rest.wait_new_pass(before)


@contextlib.contextmanager
def recording(rest: Rest):
    bus = Bus(lane.PORTS[0])

    def recorded() -> bool:
        seen = rest.get("/traffic/1")
        if seen.status == 200 and seen.data["action"] == 1 and seen.data["response"]:
            return True
        if seen.status != 200 or seen.data["action"] == 0:
            rest.post("/traffic/1", {"option": 1})
        bus.send(385, "01A0")
        return False

    wait_until(recorded)
    bus.close()
    yield
    assert rest.post("/traffic/1", {"option": 0}).status == 201


GIVEN = {
    "unavailable": configuration_away,
    "conflicting identifiers": conflict,
    "apply": new_pass,
    "recorded": recording,
}


@pytest.mark.parametrize("operation, status, example", exchanges())
def test_the_service_answers_an_example_as_documented(rest, operation, status, example):
    wait_until(lambda: rest.get("/diagnose?portId=1").status == 200)
    rest.discard()
    with GIVEN.get(example, lambda _: contextlib.nullcontext())(rest):
        answer = operation.send(rest, example)
    judge_answer(operation, status, answer, example)
    if status.startswith("2") and operation.body(example)[0] and operation.id != "postConfigFile":
        schema = operation.node["requestBody"]["content"]["application/json"]["schema"]
        validate(schema, operation.bodies[example][1])


def with_doubled_header(rest: Rest, operation: Operation) -> bytes:
    with socket.create_connection(rest.address) as client:
        start = f"{operation.method.upper()} {BASE}{operation.target('usual')} HTTP/1.1\r\n"
        client.sendall(start.encode() + b"Host: localhost\r\nHost: localhost\r\n\r\n")
        client.shutdown(socket.SHUT_WR)
        return b"".join(iter(lambda: client.recv(65536), b""))


def server_responses(name: str):
    reference = f"#/components/responses/{name}"
    for operation in OPERATIONS:
        for status, response in operation.node["responses"].items():
            if response.get("$ref") == reference:
                yield pytest.param(operation, status, id=operation.id)


@pytest.mark.parametrize("operation, status", server_responses("BadRequest"))
def test_doubled_headers_are_a_bad_request(rest, operation, status):
    head, _, body = with_doubled_header(rest, operation).partition(b"\r\n\r\n")
    assert head.startswith(b"HTTP/1.1 400 ")
    response = resolve(operation.node["responses"][status])
    assert json.loads(body) == response["content"]["application/json"]["example"]
    exercised.add((operation.path, operation.method, status))


@pytest.mark.parametrize("operation, status", server_responses("Unauthorized"))
def test_a_token_is_wanted_where_one_is_set(guarded, operation, status):
    rest = Rest(guarded)
    judge_answer(operation, status, operation.send(rest))
    judge_answer(operation, status, operation.send(rest, headers={"Authorization": "Bearer no"}))
    wrong_scheme = {"Authorization": f"Basic {TOKEN}"}
    judge_answer(operation, status, operation.send(rest, headers=wrong_scheme))


def test_the_token_opens(guarded):
    rest = Rest(guarded)
    answer = rest.get("/overview", headers={"Authorization": f"Bearer {TOKEN}"})
    assert answer.data["portNum"] == len(lane.PORTS)
    assert TOKEN not in guarded.stderr


@pytest.mark.parametrize("operation, status", server_responses("Forbidden"))
@pytest.mark.parametrize("header", ["Host", "Origin"])
def test_a_page_from_elsewhere_is_refused(rest, operation, status, header):
    value = {"Host": "gateway.example", "Origin": "http://gateway.example"}[header]
    with rest.unchanged():
        judge_answer(operation, status, operation.send(rest, headers={header: value}))


@pytest.mark.parametrize("operation, status", server_responses("TooLarge"))
def test_a_body_beyond_the_limit_is_refused(rest, operation, status):
    headers = {"Content-Length": str(8 * 1024 * 1024 + 1)}
    with rest.unchanged():
        judge_answer(operation, status, operation.send(rest, headers=headers, body=b"{"))


def test_bodies_under_way_take_the_room_of_others(rest):
    """32 MiB for all. A body takes up to twice its size while it grows, so smaller ones fill up what
    larger ones leave; those that find no room are no matter."""
    head = (
        f"POST {BASE}/config-file HTTP/1.1\r\nHost: localhost\r\nContent-Length: {8 * MIB}\r\n\r\n"
    )
    clients = []
    to_come = 64 * 1024
    for length in [8 * MIB] * 3 + [MIB] * 10 + [MIB // 4] * 10:
        clients.append(socket.create_connection(rest.address))
        clients[-1].sendall(head.encode() + bytes(length - to_come))
    large = b" " * (MIB + MIB // 2)

    def go_on() -> None:
        """Each by a byte: one that idles is closed, and its room comes back."""
        for client in clients:
            client.sendall(b" ")

    def has_no_room() -> bool:
        go_on()
        return rest.post("/action", large).status == 503

    def full() -> bool:
        """For good: while bodies still grow, room comes and goes; one more fills what is left."""
        if all(has_no_room() for _ in range(20)):
            return True
        if len(clients) < 30:
            clients.append(socket.create_connection(rest.address))
            clients[-1].sendall(head.encode() + bytes(MIB - to_come))
        return False

    wait_until(full, 20, "the bodies to arrive")
    for operation in OPERATIONS:
        go_on()
        judge_answer(operation, "503", operation.send(rest, body=large))
    assert rest.post("/action", {"option": 1}).status == 201  # small ones still find room
    for client in clients:
        client.close()
    wait_until(lambda: rest.post("/action", large).status == 400, what="room")


@pytest.mark.parametrize("path", DOCUMENT["paths"])
def test_other_methods_of_a_path_are_not_allowed(rest, path):
    # A path with an id and the same without are one route.
    route = path.split("/{")[0]
    allowed = {
        operation.method.upper()
        for operation in OPERATIONS
        if operation.path.split("/{")[0] == route
    }
    response = DOCUMENT["components"]["responses"]["MethodNotAllowed"]
    if "GET" in allowed:
        allowed.add("HEAD")
    with rest.unchanged():
        for method in ("GET", "POST", "PUT", "PATCH", "DELETE", "OPTIONS", "PROPFIND"):
            if method in allowed:
                continue
            answer = rest.request(method, route + "/1")
            assert answer.status == 405
            assert set(answer.headers["allow"].split(", ")) == allowed
            judge_content(response, answer, None, True)


@pytest.mark.parametrize(
    "path",
    [
        "",
        "/",
        "/devices",
        "/Device",
        "/interface2/1",
        "/traffic-exports/1",
        "/frame%2F1",
        "//device",
    ],
)
def test_unlisted_paths_are_not_found(rest, path):
    response = DOCUMENT["components"]["responses"]["NotFound"]
    answer = rest.get(path)
    assert answer.status == 404
    judge_content(response, answer, None, True)


def documented_members(schema: dict, value, path=()):
    """Way, schema and necessity of every member of a body, at every depth."""
    schema = resolve(schema)
    for part in schema.get("allOf", ()):
        yield from documented_members(part, value, path)
    for part in schema.get("oneOf", ()):
        with contextlib.suppress(jsonschema.ValidationError):
            validate(resolve(part), value)
            yield from documented_members(part, value, path)
    if isinstance(value, list):
        for index, inner in enumerate(value):
            yield from documented_members(schema["items"], inner, (*path, index))
        return
    for name, inner in schema.get("properties", {}).items():
        if name in value:
            here = (*path, name)
            yield here, resolve(inner), name in schema.get("required", ())
            yield from documented_members(inner, value[name], here)


def successes(operation: Operation) -> set[str]:
    """The examples that are answered with a success."""
    responses = operation.node["responses"]
    answers = [resolve(responses[status]) for status in ("200", "201") if status in responses]
    contents = [media for answer in answers for media in answer["content"].values()]
    return {name for media in contents for name in media.get("examples", ())}


def accepted_bodies():
    for operation in OPERATIONS:
        for name, (kind, value) in operation.bodies.items():
            if kind == "application/json" and name in successes(operation):
                yield operation, name, value


def members_with_limits():
    for operation, example, value in accepted_bodies():
        schema = operation.node["requestBody"]["content"]["application/json"]["schema"]
        for path, member, is_required in documented_members(schema, value):
            name = f"{operation.id}-{example}-{'.'.join(map(str, path))}"
            yield pytest.param(operation, value, path, member, is_required, id=name)


def with_member(body, path, *value):
    """A copy with another value there, or none."""
    copy = json.loads(json.dumps(body))
    holder = copy
    for step in path[:-1]:
        holder = holder[step]
    if value:
        holder[path[-1]] = value[0]
    else:
        del holder[path[-1]]
    return copy


def limits(member: dict) -> tuple[list, list]:
    """Values at the documented limits, and right beyond them."""
    if "enum" in member and member["type"] == "integer":
        return member["enum"], [min(member["enum"]) - 1, max(member["enum"]) + 1]
    if "maximum" in member:
        low, high = member["minimum"], member["maximum"]
        held = member["type"] == "number"  # these are held within their limits
        return [low, high], [] if held else [low - 1, high + 1]
    if "maxLength" in member:
        low, high = member.get("minLength", 0), member["maxLength"]
        return ["0" * low, "0" * high], ["0" * (high + 1)] + ([""] if low else [])
    return [], []


# Another value of these wants other members beside it, or names another row.
SHAPING = {
    "transactionType", "trigger", "fpFunc", "blockType", "scalingFunc", "deviceId", "option",
}  # fmt: skip


@pytest.mark.parametrize("operation, body, path, member, is_required", members_with_limits())
def test_documented_limits_are_those_of_the_service(
    rest, operation, body, path, member, is_required
):
    rest.discard()
    within, beyond = limits(member)
    refused = [with_member(body, path, value) for value in beyond]
    refused += [with_member(body, path)] if is_required else []
    with rest.unchanged():
        for changed in refused:
            answer = operation.send(rest, body=json.dumps(changed).encode())
            assert answer.code < 0 or answer.code == 1, changed
            validate(DOCUMENT["components"]["schemas"]["Failure"], answer.json)
    for value in [] if path[-1] in SHAPING else within:
        answer = operation.send(rest, body=json.dumps(with_member(body, path, value)).encode())
        assert answer.status in (200, 201), (value, answer)
        rest.discard()
    if not is_required:
        answer = operation.send(rest, body=json.dumps(with_member(body, path)).encode())
        assert answer.status in (200, 201) or is_wanted_by_another(path[-1])
        rest.discard()


def is_wanted_by_another(name: str) -> bool:
    """Members that only some types want are required by these, which the schema says in words."""
    return name in {
        "consumeToutEnable", "consumeTimeout", "trigger", "cyclicInterval", "fpFunc", "fpTimeout",
        "responseTimeout", "timeoutRetry", "triggerByRTR",
    }  # fmt: skip


def test_every_documented_status_was_exercised(request):
    """Runs last; of a selection of this file's tests it says nothing."""
    if sum(item.module.__name__ == __name__ for item in request.session.items) < 230:
        pytest.skip("not every test of this file runs")
    documented = {
        (operation.path, operation.method, status)
        for operation in OPERATIONS
        for status in operation.node["responses"]
        if status != "default"
    }
    assert documented - exercised == set()
    assert len(OPERATIONS) == 20


def test_the_document_names_every_code_with_its_message_and_status():
    rows = re.findall(r"^\| (-\d+) \| ([^|]+) \| (\d+) \|", DOCUMENT["info"]["description"], re.M)
    found = {int(code): (message, int(status)) for code, message, status in rows}
    assert found == {code: (MESSAGES[code], STATUSES[code]) for code in MESSAGES if code < 0}


def references(node):
    if isinstance(node, dict):
        if isinstance(node.get("$ref"), str):
            yield node["$ref"]
        for value in node.values():
            yield from references(value)
    elif isinstance(node, list):
        for value in node:
            yield from references(value)


def schemas(node):
    if isinstance(node, dict):
        if isinstance(node.get("schema"), dict):
            yield node["schema"]
        for value in node.values():
            yield from schemas(value)
    elif isinstance(node, list):
        for value in node:
            yield from schemas(value)


def test_the_document_is_sound():
    assert DOCUMENT["openapi"].startswith("3.0.")
    used = set(references(DOCUMENT))
    for reference in used:
        assert resolve({"$ref": reference}) is not None, reference
    for kind, parts in DOCUMENT["components"].items():
        for name in parts:
            unused = f"#/components/{kind}/{name}" not in used
            assert (
                not unused or kind == "securitySchemes" or name in ("NotFound", "MethodNotAllowed")
            )
    for schema in (*schemas(DOCUMENT["paths"]), *DOCUMENT["components"]["schemas"].values()):
        jsonschema.Draft4Validator.check_schema(schema)
    ids = [operation.id for operation in OPERATIONS]
    assert len(ids) == len(set(ids))
    for operation in OPERATIONS:
        assert {p["name"] for p in operation.parameters if p["in"] == "path"} == set(
            re.findall(r"{(\w+)}", operation.path)
        )
        for response in operation.node["responses"].values():
            assert resolve(response)["description"]
