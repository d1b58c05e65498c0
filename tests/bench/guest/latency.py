"""Group latency: from a bus to another process and back."""

import math
import pathlib
import subprocess
import time

import guest
from guest import BIN, Program, Service, rows

GROUP = "latency"
POINTS = ((0.5, "us p50"), (0.99, "us p99"), (0.999, "us p99.9"), (0.9999, "us p99.99"),
          (1.0, "us longest"))
BUSY_COUNT = 1000  # every instruction of a busy machine takes its time
GOALS = {"us p99": 1.15, "us p99.9": 1.3}
IN, OUT = 0x100, 0x200


def device():
    received = rows.consume("in", rows.frame(IN, 8, rows.tag("v", rows.U64, 0)))
    sent = rows.produce("out", rows.frame(OUT, 8, rows.tag("v", rows.U64, 0, access="wo")),
                        trigger=rows.ON_CHANGE)
    return rows.device("d", received, sent)


def run(what: str, identifier: int, name, count: int) -> list[float]:
    output = subprocess.run([BIN / "can-latency", what, "can0", hex(identifier), str(name),
                             str(count)], check=True, capture_output=True, text=True).stdout
    return sorted(float(line) for line in output.split())


def tell(report, case: str, who: str, found: list[float], goals=None) -> None:
    for part, quantity in POINTS:
        value = found[max(0, math.ceil(part * len(found)) - 1)]
        more = {"goal": {"against": "floor", "at_most": goals[quantity]}} \
            if goals and quantity in goals else {}
        report.value(GROUP, case, who, quantity, "us", [value], **more)


def start_load():
    return subprocess.Popen([BIN / "can-load", "paced", "can1", "9009", "0x400", "64", "3600"],
                            stdout=subprocess.DEVNULL)


def start_requests():
    script = ("import socket\nwhile True:\n s = socket.create_connection(('127.0.0.1', 8080))\n"
              " s.sendall(b'GET /CAN-proprietary/overview HTTP/1.1\\r\\nHost: localhost\\r\\n"
              "Connection: close\\r\\n\\r\\n')\n while s.recv(65536):\n  pass\n s.close()\n")
    return subprocess.Popen(["/usr/bin/python3", "-S", "-c", script], stderr=subprocess.DEVNULL)


def measure_both_ways(report, case: str, count: int) -> None:
    tell(report, f"frame to tag, {case}", "service",
         run("tag", IN, "can_proprietary/d/in_v", count), GOALS)
    tell(report, f"tag to frame, {case}", "service",
         run("write", OUT, "can_proprietary/d/out_v", count), GOALS)


def measure_floors(report, case: str, count: int) -> None:
    for case_of, who, floor, latency, identifier in (
            (f"frame to tag, {case}", "floor", "share", "share", IN),
            (f"tag to frame, {case}", "floor", "send", "store", OUT),
            (f"tag to frame, {case}", "one hop", "pipe", "pipe", OUT)):
        path = pathlib.Path(f"/dev/shm/can-floor-{floor}")
        with Program(BIN / "can-floor", floor, "can0", path):
            time.sleep(1)  # until it waits
            tell(report, case_of, who, run(latency, identifier, path, count))


def stop(*processes) -> None:
    for process in processes:
        process.kill()
        process.wait()


def measure(report, options) -> None:
    count = 300 if options.check else 10000
    report.line(group=GROUP, title="Latency")
    report.line(group=GROUP, note=(
        "A thousand instructions are a microsecond. A frame is sent, at changing distances of 0.3"
        " to 3 ms, and the time taken until another process, which sleeps and is woken by the tag"
        " store, has read the value; the floor is the bare loop that puts it in shared memory and"
        " wakes the process. The other way a tag is written until its frame is on the bus. The tag"
        " service has a thread of its own that learns of writes, so the floor hands the value on in"
        " the same two steps: a thread that a futex wakes wakes the port's by an eventfd. With one"
        " hop the writer puts the value into a pipe that the port's thread waits for. A floor has"
        " the port to itself and the precedence of a port's thread."))
    with Service(device()):
        measure_both_ways(report, "idle", count)
        if not options.check:
            processes = start_load(), start_requests()
            measure_both_ways(report, "other port full, REST busy", BUSY_COUNT)
            stop(*processes)
    measure_floors(report, "idle", count)
    if options.check:
        return
    with Service(rows.device("e"), ports=("can1",)):  # the floor is alone on its port, too
        processes = start_load(), start_requests()
        measure_floors(report, "other port full, REST busy", BUSY_COUNT)
        stop(*processes)
