"""The REST API as a client on the gateway's network sees it."""

import contextlib
import http.client
import json
import pathlib
import re
import sqlite3
import time
from typing import NamedTuple

from . import lane
from .gateway import DEFAULT_DB, PERSISTENT_DB, WORKING_DB, Gateway
from .lane import scaled, wait_until

BASE = "/CAN-proprietary"
ADDRESS_FILE = "/run/kt-rest/CAN-proprietary.address"
LISTEN = {"KT_REST_LISTEN": "127.0.0.1:0"}
TABLES = ("interface_setting", "device", "transactions", "frame", "block")

# Codes and their messages as clients know them; 1 is no code of the table and shares a message.
MESSAGES = {
    1: "Internal error",
    -1: "Invalid parameters",
    -2: "Error malloc",
    -3: "Parameter does not exist",
    -4: "Internal error",
    -5: "Internal error",
    -6: "Internal error",
    -7: "Fail to get",
    -8: "Fail to set",
    -9: "Totol input data length exceeds limitation",
    -10: "Totol output data length exceeds limitation",
    -11: "Internal error",
    -12: "canId lengh does not match current frame format",
    -13: "import config fail",
}
STATUSES = {1: 500, -2: 500, -12: 500} | dict.fromkeys(range(-11, -3), 500)
STATUSES |= {-1: 400, -3: 400, -13: 400}

MESSAGE = re.compile(r"\x1b\[91mERROR: (\w+)\([1-9][0-9]*\): ([^\x1b]*)\x1b\[0m")


class Answer(NamedTuple):
    status: int
    headers: dict[str, str]  # names in lower case
    body: bytes

    @property
    def json(self):
        return json.loads(self.body)

    @property
    def data(self):
        """What a success carries."""
        assert self.status in (200, 201), f"{self.status} {self.body}"
        content = self.json
        assert list(content) == ["data"], content
        return content["data"]

    @property
    def code(self) -> int:
        """The result code of a failure, its whole answer judged."""
        content = self.json
        code = content["error"]["code"]
        assert content == {"error": {"code": code, "message": MESSAGES[code]}}
        assert self.status == STATUSES[code]
        assert self.headers["content-type"] == "application/json"
        return code


def failure_lines(code: int) -> list[str]:
    """What the mapping of a code to its status says."""
    if code in (1, -2, -12):
        return [f"CAN_PROPREITARY_REST_RET option({code}) has not been set\n"]
    meaning = "400 bad request" if STATUSES[code] == 400 else "500 internal server error"
    return [f"get_http_status|error={code}, return {meaning}\n"]


def split_log(text: str) -> list[str]:
    """Standard error as "function|message" per message; what has another format as it stands."""
    found = []
    end = 0
    for match in MESSAGE.finditer(text):
        if match.start() > end:
            found.append(text[end : match.start()])
        found.append(f"{match[1]}|{match[2]}")
        end = match.end()
    return found + ([text[end:]] if end < len(text) else [])


class Rest:
    """Requests to the service of a gateway, each on a connection of its own."""

    def __init__(self, gateway: Gateway):
        self.gateway = gateway
        gateway.environment.update(LISTEN)

    @property
    def address(self) -> tuple[str, int]:
        """Where it listens, once it does."""

        def read():
            with contextlib.suppress(FileNotFoundError):
                return self.gateway.path(ADDRESS_FILE).read_text("ascii").strip()

        host, _, port = wait_until(read, 10.0, "the server's address").rpartition(":")
        return host, int(port)

    def url(self, path: str) -> str:
        host, port = self.address
        return f"http://{host}:{port}{BASE}{path}"

    def connect(self, timeout: float = 30.0) -> http.client.HTTPConnection:
        return http.client.HTTPConnection(*self.address, timeout=scaled(timeout))

    def request(self, method: str, path: str, body=None, headers: dict | None = None) -> Answer:
        """body: bytes or text as it stands, anything else as JSON."""
        if body is not None and not isinstance(body, (bytes, str)):
            body = json.dumps(body)
        if isinstance(body, str):
            body = body.encode()
        connection = self.connect()
        try:
            connection.request(method, BASE + path, body, headers or {})
            response = connection.getresponse()
            fields = {name.lower(): value for name, value in response.getheaders()}
            return Answer(response.status, fields, response.read())
        finally:
            connection.close()

    def get(self, path: str, **options) -> Answer:
        return self.request("GET", path, **options)

    def post(self, path: str, body=None, **options) -> Answer:
        return self.request("POST", path, body, **options)

    def put(self, path: str, body=None, **options) -> Answer:
        return self.request("PUT", path, body, **options)

    def patch(self, path: str, body=None, **options) -> Answer:
        return self.request("PATCH", path, body, **options)

    def delete(self, path: str, **options) -> Answer:
        return self.request("DELETE", path, **options)

    def upload(self, content: bytes | str) -> Answer:
        """A configuration file as browsers send one."""
        return self.post("/config-file", multipart(content), headers=MULTIPART)

    def apply(self) -> None:
        """Apply and wait for the ports to run what was applied."""
        before = self.port_threads()
        assert self.post("/action", {"option": 0}).status == 201
        self.wait_new_pass(before)

    def wait_new_pass(self, before: set[str]) -> None:
        """Every port runs in a thread that is none of those before."""
        wait_until(
            lambda: len(self.port_threads() - before) == len(lane.PORTS), 5.0, "the next pass"
        )
        self.gateway.wait_ready()

    def wait_port_threads(self) -> set[str]:
        """The numbers of all, once every port has its thread."""

        def of_every_port() -> set[str] | None:
            found = self.port_threads()
            return found if len(found) == len(lane.PORTS) else None

        return wait_until(of_every_port, 10.0, "every port's thread")

    def port_threads(self) -> set[str]:
        """Their numbers; each pass has new ones."""
        tasks = pathlib.Path(f"/proc/{self.gateway.process.pid}/task")
        found = set()
        for task in tasks.iterdir():
            with contextlib.suppress(OSError):  # it may just have ended
                if (task / "comm").read_text().endswith("-port\n"):
                    found.add(task.name)
        return found

    def discard(self) -> None:
        assert self.post("/action", {"option": 1}).status == 201

    def wait_next_second(self) -> None:
        """Until a change shows: times of files are compared in whole seconds, and their clock is a
        few milliseconds late."""
        changed = int(self.gateway.path(WORKING_DB).stat().st_mtime)
        wait_until(lambda: time.time() > changed + 1.05, 3.0, "the next second")

    # What a request did ------------------------------------------------------------------------

    def rows(self, *databases: str) -> dict[str, list[tuple]]:
        """Every row of every table, by database and table, and their definitions."""
        found = {}
        for database in databases or (DEFAULT_DB, PERSISTENT_DB, WORKING_DB):
            path = self.gateway.path(database)
            with contextlib.closing(sqlite3.connect(f"file:{path}?mode=ro", uri=True)) as db:
                for table in (*TABLES, "sqlite_master"):
                    found[f"{database} {table}"] = db.execute(f"SELECT * FROM {table}").fetchall()
        return found

    @contextlib.contextmanager
    def unchanged(self):
        """The databases are after the block what they were before it, row by row."""
        before = self.rows()
        yield
        assert self.rows() == before

    @contextlib.contextmanager
    def says(self, *lines: str):
        """The block makes the service say exactly this, "function|message" or a text as it is."""
        start = len(self.gateway.stderr)
        yield
        assert split_log(self.gateway.stderr[start:]) == list(lines)

    def refused(self, code: int, method: str, path: str, body=None, *lines: str) -> None:
        """The answer is that code, nothing changes, and exactly these messages appear, followed by
        that of the status."""
        with self.unchanged(), self.says(*lines, *failure_lines(code)):
            answer = self.request(method, path, body)
        assert answer.code == code, answer


def serving(scratch, *devices, sql: str = "", environment: dict | None = None):
    """A gateway that runs with this configuration, for the fixture of a whole module. A discard
    brings the configuration back."""
    machine = Gateway(scratch)
    machine.environment.update(LISTEN)
    machine.configure(*devices, sql=sql)
    machine.start(environment=environment)
    yield machine
    machine.close()


MULTIPART = {"Content-Type": "multipart/form-data; boundary=kt-boundary"}


def multipart(content: bytes | str) -> bytes:
    data = content.encode() if isinstance(content, str) else content
    head = b'Content-Disposition: form-data; name="file"; filename="c.csv"\r\n'
    return b"--kt-boundary\r\n" + head + b"\r\n" + data + b"\r\n--kt-boundary--\r\n"


# Bodies that are accepted, for tests to change a part of ----------------------------------------


def tag_json(name: str = "value", kind: int = 6, offset: int = 0, size: int = 2, **members) -> dict:
    return {
        "blockType": 0,
        "tagName": name,
        "tagType": kind,
        "tagSize": size,
        "access": "ro",
        "startOffset": offset,
        "swap": 0,
        "scalingFunc": 0,
        **members,
    }


def constant_json(name: str = "kind", value: str = "5A", offset: int = 7, **members) -> dict:
    return {
        "blockType": 1,
        "constantName": name,
        "constantSize": (len(value) + 1) // 2,
        "startOffset": offset,
        "constantValue": value,
        **members,
    }


def frame_json(can_id: int = 0x181, *blocks: dict, length: int = 8, **members) -> dict:
    return {"canId": can_id, "dataLength": length, "blockList": list(blocks), **members}


def consume_json(name: str = "state", *frames: dict, **members) -> dict:
    return {
        "transactionEnable": True,
        "transactionName": name,
        "transactionType": 1,
        "consumeToutEnable": False,
        "frameList": list(frames),
        **members,
    }


def produce_json(name: str = "command", *frames: dict, **members) -> dict:
    return {
        "transactionEnable": True,
        "transactionName": name,
        "transactionType": 0,
        "trigger": 0,
        "cyclicInterval": 1000,
        "fpFunc": 0,
        "triggerByRTR": False,
        "frameList": list(frames),
        **members,
    }


def request_json(name: str = "poll", *frames: dict, **members) -> dict:
    return {
        "transactionEnable": True,
        "transactionName": name,
        "transactionType": 2,
        "trigger": 0,
        "cyclicInterval": 1000,
        "fpFunc": 0,
        "responseTimeout": 1000,
        "timeoutRetry": 0,
        "frameList": list(frames),
        **members,
    }


def device_json(name: str = "drive", *transactions: dict, port: int = 1) -> dict:
    return {"portId": port, "deviceName": name, "transactionList": list(transactions)}


PORT_JSON = {
    "frameFormat": 0,
    "baudrate": 3,
    "initialDelay": 0,
    "busOffReset": False,
    "resistor": False,
}


def without(body: dict, *names: str) -> dict:
    return {name: value for name, value in body.items() if name not in names}
