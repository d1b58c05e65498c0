#!/usr/bin/python3
"""What the configuration costs: import and export of the largest one next to the sqlite3 command
line (bench_configuration), and, of the service itself, how long it takes from its start and from an
apply to the first frame of that configuration.
"""

import errno
import http.client
import pathlib
import re
import shutil
import socket
import struct
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
import measuring
import rest

SMALLER = "32,64"  # devices and transactions: an eighth, which callgrind counts in seconds
TABLES = ("interface_setting", "device", "transactions", "frame", "block")
CYCLE_MS = 10
FIRST_ID, NEXT_ID = 0x10, 0x20
FRAME = struct.Struct("=IB3x8s")


def count_command(folder: pathlib.Path, what: str) -> int:
    """Instructions of the sqlite3 command line."""
    database = folder / "counted.db"
    if what == "import":
        shutil.copy(folder / "empty.db", database)
        with open(folder / "largest.sql", "rb") as script:
            return measuring.callgrind("sqlite3", "-bail", database, whole=True, stdin=script)[""]
    selects = [f"SELECT * FROM {table}" for table in TABLES]
    return measuring.callgrind("sqlite3", "-csv", "-header", database, *selects, whole=True)[""]


def measure_files(options, lines: measuring.Lines) -> None:
    program = options.bin / "bench_configuration"
    size = ("--size", SMALLER) if options.check else ()
    if not options.check:
        lines.take(measuring.run(program, "--runs", 9))
    counted = measuring.callgrind(program, *size)
    with tempfile.TemporaryDirectory(dir="/dev/shm") as name:
        folder = pathlib.Path(name)
        measuring.run(program, *size, "--files", folder)
        for part, instructions in sorted(counted.items(), reverse=True):
            case = part.split("/", 1)[1]
            lines.value(case, "service", "user instructions", instructions, "a run")
            lines.value(case, "sqlite3", "user instructions",
                        count_command(folder, case.split(" ", 1)[0]), "a run")


def producing(sql: str) -> str:
    """Each transaction of a configuration as one that sends its frame in a short cycle."""
    return sql + (f"UPDATE transactions SET transactionType = 0, cyclicInterval = {CYCLE_MS},"
                  "fpFunc = 0;"
                  "DELETE FROM frame WHERE frameType = 3; UPDATE frame SET frameType = 0;"
                  f"UPDATE frame SET canId = {FIRST_ID};")


def one_frame() -> str:
    return ("INSERT INTO device VALUES (1, 1, 'drive'); INSERT INTO transactions (transactionId,"
            "deviceId, transactionName, transactionType, cyclicInterval)"
            f" VALUES (1, 1, 'state', 0, {CYCLE_MS});"
            f"INSERT INTO frame VALUES (1, 1, {FIRST_ID}, 8, 0);")


def wait_frame(node: socket.socket, identifier: int) -> float:
    while True:
        try:
            if FRAME.unpack(node.recv(16))[0] == identifier:
                return time.monotonic()
        except OSError as error:
            if error.errno != errno.ENETDOWN:  # as it is while the service sets the bit rate
                raise


def measure_times(lines: measuring.Lines, name: str, sql: str, runs: int) -> None:
    from kt_system.gateway import WORKING_DB, Gateway

    starts, applies = [], []
    with socket.socket(socket.AF_CAN, socket.SOCK_RAW, socket.CAN_RAW) as node:
        node.bind(("can0",))
        node.settimeout(60)
        for _ in range(runs):
            with tempfile.TemporaryDirectory(dir="/dev/shm") as scratch:
                gateway = Gateway(pathlib.Path(scratch))
                gateway.configure(sql=sql)
                began = time.monotonic()
                gateway.start(wait=False)
                starts.append(1000 * (wait_frame(node, FIRST_ID) - began))
                gateway.edit(WORKING_DB, sql=f"UPDATE frame SET canId = {NEXT_ID}")
                applies.append(1000 * apply(gateway, node))
                gateway.close()
                drain(node)
    lines.values(f"start to first frame, {name}", "service", "ms", starts)
    lines.values(f"apply to first frame, {name}", "service", "ms", applies)


def apply(gateway, node: socket.socket) -> float:
    """Seconds from the request to the first frame of the configuration that it applies."""
    client = http.client.HTTPConnection(gateway.rest_address)
    client.connect()
    began = time.monotonic()
    rest.ask(client, "POST", "/action", '{"option":0}')
    client.close()
    return wait_frame(node, NEXT_ID) - began


def drain(node: socket.socket) -> None:
    node.setblocking(False)
    try:
        while node.recv(16):
            pass
    except OSError:
        pass  # nothing more, or the port is down
    node.settimeout(60)


def count_openings(lines: measuring.Lines, sql: str) -> None:
    """Openings of the working copy and its kin by a start and by an apply."""
    from kt_system.gateway import WORKING_DB, Gateway

    with tempfile.TemporaryDirectory(dir="/dev/shm") as scratch, \
            socket.socket(socket.AF_CAN, socket.SOCK_RAW, socket.CAN_RAW) as node:
        node.bind(("can0",))
        node.settimeout(60)
        gateway = Gateway(pathlib.Path(scratch))
        gateway.configure(sql=sql)
        out = pathlib.Path(scratch, "trace")

        def openings() -> int:
            """Once the other port, too, has read its configuration."""
            counted = -1
            while (text := out.read_text("utf-8")) and counted != (
                    now := len(re.findall(r'can_proprietary\.db", O_RDWR', text))):
                counted = now
                time.sleep(1)
            return counted

        # With -D the process that is started is the service, not its tracer.
        tracer = ("strace", "-D", "-f", "-e", "trace=openat", "-o", str(out))
        gateway.start(wrapper=tracer)
        wait_frame(node, FIRST_ID)
        started = openings()
        gateway.edit(WORKING_DB, sql=f"UPDATE frame SET canId = {NEXT_ID}")
        apply(gateway, node)
        applied = openings()
        gateway.close()
    lines.value("start", "service", "database opens", started)
    lines.value("apply", "service", "database opens", applied - started)


def main() -> None:
    options = measuring.arguments(__doc__)
    measuring.in_bus_world(options)
    lines = measuring.Lines("configuration", options.out)
    lines.title("Configuration")
    lines.goal("user instructions", {"against": "sqlite3", "at_most": 1.5}, "import")
    lines.goal("ms of processor", {"against": "sqlite3", "at_most": 1.5}, "import")
    measure_files(options, lines)
    # An apply was seen with 7 and with 8: no count to be held against another.
    if not options.check:
        count_openings(lines, one_frame())
    if not options.check:
        measure_times(lines, "one transaction", one_frame(), 9)
        largest = rest.largest_sql(options)
        measure_times(lines, "512 transactions, 4096 tags", producing(largest), 5)
        lines.note("A port looks at the wish to restart once per cycle, and a bus comes up at "
                   "once: initialDelay is 0. The service runs over kt-softcan.")


if __name__ == "__main__":
    main()
