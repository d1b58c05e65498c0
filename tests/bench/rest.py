#!/usr/bin/python3
"""What requests cost: every endpoint on the largest configuration.

Handlers are called as the server calls them, next to the SQLite operations that they cannot do
without (bench_rest); the service is asked over HTTP for what a handler does not show: system calls,
and the rate of answers that need no database, next to a server that only answers (bench_http).
"""

import contextlib
import http.client
import json
import os
import pathlib
import sqlite3
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
import measuring

SMALLER = "32,64"  # devices and transactions: an eighth, which callgrind counts in seconds
WITHIN = {"against": "SQLite", "at_most": 1.2}
RATE = {"against": "libmicrohttpd", "at_least": 0.8}

TAG = ('{"blockType":0,"tagName":"%s","tagType":6,"tagSize":2,"access":"ro","startOffset":0,'
       '"swap":0,"scalingFunc":0}')
FRAMES = '"frameList":[{"canId":1,"dataLength":8,"blockList":[%s,%s]}]' % (TAG % "a", TAG % "b")
TRANSACTION = ('"transactionEnable":false,"transactionName":"%s","transactionType":1,'
               '"consumeToutEnable":false')
PORT = '{"frameFormat":%d,"baudrate":3,"initialDelay":0,"busOffReset":true,"resistor":false}'
# method, path, body; "%d" in a path counts the requests
TRACED = (
    ("GET", "/interface?portId=1", None),
    ("GET", "/device?deviceId=1", None),
    ("GET", "/overview", None),
    ("GET", "/config-change", None),
    ("GET", "/usedCANIds?portId=1", None),
    ("GET", "/diagnose?portId=1", None),
    ("POST", "/traffic/1", '{"option":1}'),
    ("GET", "/traffic/1", None),
    ("GET", "/traffic-export/1", None),
    ("GET", "/config-file", None),
    ("PATCH", "/interface/2", PORT % 0),
    ("PATCH", "/device/1", '{"deviceName":"renamed"}'),
    ("PATCH", "/transaction/2", "{" + TRANSACTION % "renamed" + "}"),
    ("PUT", "/frame/2", "{" + FRAMES + "}"),
    ("DELETE", "/transaction/%d", None),
    ("POST", "/transaction", '{"deviceId":1,' + TRANSACTION % "new%d" + "," + FRAMES + "}"),
    ("DELETE", "/device/%d", None),
    ("POST", "/device", '{"portId":1,"deviceName":"new"}'),
)
REQUESTS = 5
LAST = 255  # keys of devices end there, so a new one takes the place of a last one


@contextlib.contextmanager
def service(sql: str):
    """The service with a configuration, in a bus world."""
    from kt_system.gateway import Gateway

    with tempfile.TemporaryDirectory(dir="/dev/shm") as scratch:
        gateway = Gateway(pathlib.Path(scratch))
        gateway.configure(sql=sql)
        gateway.start()
        try:
            yield gateway
        finally:
            gateway.close()


def ask(client: http.client.HTTPConnection, method: str, path: str, body: str | None) -> bytes:
    client.request(method, "/CAN-proprietary" + path, body)
    answer = client.getresponse()
    content = answer.read()
    if answer.status >= 300:
        print(f"{method} {path} answered {answer.status}", file=sys.stderr)
        sys.exit(1)
    return content


def trace(lines: measuring.Lines, gateway, thread: int) -> None:
    client = http.client.HTTPConnection(gateway.rest_address)
    ask(client, "GET", "/config-change", None)
    for method, path, body in TRACED:
        def requests():
            for i in range(LAST - REQUESTS + 1, LAST + 1):
                ask(client, method, path.replace("%d", str(i)), body and body.replace("%d", str(i)))

        calls = measuring.system_calls(thread, requests)
        name = f"{method} {path.replace('%d', 'ID')}"
        # Now and then a request comes in two parts or the thread waits once more.
        lines.value(name, "service", "system calls", round(sum(calls.values()) / REQUESTS),
                    "per request")
    client.close()


def measure_system_calls(options, lines: measuring.Lines, largest: str) -> None:
    quiet = largest.replace("COMMIT;", "UPDATE transactions SET transactionEnable = 0; COMMIT;")
    with service(quiet) as gateway:
        client = http.client.HTTPConnection(gateway.rest_address)
        ask(client, "GET", "/config-change", None)
        trace(lines, gateway, measuring.threads(gateway.process.pid)["rest"])
        client.close()
    lines.note("System calls are those of the server's thread for requests on a connection that "
               "stays open, the transactions disabled so that the ports are quiet.")


@contextlib.contextmanager
def bare_server(options, body: bytes):
    with tempfile.NamedTemporaryFile() as file:
        file.write(body)
        file.flush()
        server = subprocess.Popen([options.bin / "bench_http", "serve", file.name], text=True,
                                  stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        try:
            port = int(server.stdout.readline())
            thread, = set(measuring.threads(server.pid).values()) - {server.pid}
            yield f"{thread}:{port}"
        finally:
            server.stdin.close()
            server.wait()


def compare(options, lines: measuring.Lines, name: str, gateway, path: str) -> None:
    """The service and a server that only answers, in alternation."""
    client = http.client.HTTPConnection(gateway.rest_address)
    body = ask(client, "GET", path, None)
    client.close()
    port = gateway.rest_address.rsplit(":", 1)[1]
    ours = f"{measuring.threads(gateway.process.pid)['rest']}:{port}"
    with bare_server(options, body) as bare:
        output = measuring.run(options.bin / "bench_http", "ask", 60, 100,
                               f"{ours}/CAN-proprietary{path}", f"{bare}/CAN-proprietary{path}")
    rows = [line.split() for line in output.splitlines()]
    for i, who in enumerate(("service", "libmicrohttpd")):
        for column, quantity in ((1, "answers/s"), (2, "answers/s of processor")):
            rates = [1e6 / float(row[column]) for row in rows if row[0] == str(i)]
            lines.values(name, who, quantity, rates, bytes=len(body))


@contextlib.contextmanager
def one_processor():
    """For client and servers: where they have two, an answer waits for one that fell asleep, or
    not, as the scheduler will have it."""
    every = os.sched_getaffinity(0)
    os.sched_setaffinity(0, {max(every)})
    try:
        yield
    finally:
        os.sched_setaffinity(0, every)


def measure_rates(options, lines: measuring.Lines, largest: str) -> None:
    few = ("INSERT INTO device VALUES (1, 1, 'drive');"
           + "".join(f"INSERT INTO transactions (transactionId, deviceId, transactionName, "
                     f"transactionType) VALUES ({i}, 1, 'state{i}', 1);"
                     f"INSERT INTO frame VALUES ({i}, {i}, {i}, 8, 1);" for i in range(1, 9)))
    with one_processor(), service(few) as gateway:
        compare(options, lines, "GET /config-change", gateway, "/config-change")
        compare(options, lines, "GET /diagnose, 8 transactions", gateway, "/diagnose?portId=1")
        client = http.client.HTTPConnection(gateway.rest_address)
        ask(client, "POST", "/traffic/1", '{"option":1}')
        ask(client, "POST", "/traffic/1", '{"option":0}')
        client.close()
        compare(options, lines, "GET /traffic, empty", gateway, "/traffic/1")
        compare(options, lines, "GET /traffic-export, empty", gateway, "/traffic-export/1")
    consuming = ("UPDATE transactions SET transactionType = 1; DELETE FROM block;"
                 "DELETE FROM frame WHERE frameType = 3; UPDATE frame SET frameType = 1;")
    with one_processor(), service(largest + consuming) as gateway:
        compare(options, lines, "GET /diagnose, 256 transactions", gateway, "/diagnose?portId=1")
    lines.note("The rates are those that one client gets on a connection that stays open, on one "
               "processor with the server; 'of processor' counts the time that the server's thread "
               "had, which a loaded machine does not stretch.")


def take_counts(lines: measuring.Lines, counted: dict[str, int]) -> None:
    for name, instructions in counted.items():
        who, case = name.split("/", 1)
        lines.value(case, who, "user instructions", instructions, "per request")


def measure_growth(options, lines: measuring.Lines) -> None:
    output = measuring.run(options.bin / "bench_rest", "--growth")
    lines.take(output, "per request")
    series = {}
    for line in output.splitlines():
        fields = json.loads(line)
        name, transactions = fields["case"].rsplit(", ", 1)
        series.setdefault(name, []).append([int(transactions.split()[0]), fields["value"]])
    lines.plot("rest-statements", "transactions of the device that is asked for",
               "SQL statements per request", **series)


def largest_sql(options) -> str:
    with tempfile.TemporaryDirectory() as folder:
        measuring.run(options.bin / "bench_configuration", "--files", folder)
        return pathlib.Path(folder, "largest.sql").read_text("ascii")


def main() -> None:
    options = measuring.arguments(__doc__)
    measuring.in_bus_world(options)
    lines = measuring.Lines("rest", options.out)
    lines.title("Requests")
    lines.goal("user instructions", WITHIN, "GET")
    lines.goal("us of processor", WITHIN, "GET")
    lines.goal("answers/s", RATE)
    lines.goal("answers/s of processor", RATE)
    program = options.bin / "bench_rest"
    if not program.exists():
        measuring.cannot("bench_rest is not built")
    largest = largest_sql(options)
    size = ("--size", SMALLER) if options.check else ()
    lines.take(measuring.run(program, *size, "--runs", 0 if options.check else 9), "per request")
    take_counts(lines, measuring.callgrind(program, *size))
    measure_growth(options, lines)
    # A body may come in a second part, which takes two calls more, so they are for the page.
    if not options.check:
        measure_system_calls(options, lines, largest)
        measure_rates(options, lines, largest)
    lines.note("'SQLite' opens the same file as the service does, with its pragmas and its "
               "integrity check, and executes the handler's statements, each text prepared once; "
               "for a GET on one connection. Copying whole databases (apply, discard) has no such "
               "floor.")


if __name__ == "__main__":
    main()
