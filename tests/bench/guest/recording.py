"""Group recording: what a received frame costs while the traffic of its port is recorded."""

import pathlib

import guest
import receive
from guest import BIN, Program, Service

GROUP = "recording"
CASE = "4 tags, recorded"
FEW, MANY = 200, 1400  # a file is full after some 3000
FOLDER = pathlib.Path("/run/tmp/kt-can-proprietary")
CSV = FOLDER / "traffic-log0.csv"
JSON = FOLDER / "traffic-log0.json"


def record(service: Service, option: int) -> None:
    status, answer = service.rest("POST", "/traffic/1", b'{"option": %d}' % option)
    if status != 201:
        raise SystemExit(f"recording cannot be switched: {status} {answer!r}")


def recorded_rows() -> int:
    return CSV.read_bytes().count(b"\n") - 1


def recorded_burst(service: Service, count: int) -> int:
    record(service, 1)
    cost = guest.burst_cost(service, count)
    if recorded_rows() != count:
        raise SystemExit(f"{recorded_rows()} of {count} frames recorded")
    return cost


def floor_burst(floor: Program, count: int) -> int:
    for path in FOLDER.glob("floor.*"):
        path.write_text("")
    return guest.burst_cost(floor, count)


def per_frame(burst, program, runs: int) -> list[float]:
    burst(program, FEW)
    found = []
    for _ in range(runs):
        small = burst(program, FEW)
        found.append((burst(program, MANY) - small) / (MANY - FEW))
    return found


def measure_system_calls(report, service: Service) -> None:
    count = 1000
    record(service, 1)
    calls = guest.calls_of_burst(service, count)
    record(service, 0)
    report.value(GROUP, CASE, "service", "system calls", "per frame",
                 [round(sum(calls.values()) / count, 2)])
    named = ", ".join(f"{name} {number / count:.2f}" for name, number in sorted(calls.items()))
    report.line(group=GROUP, note=f"System calls of the service for a recorded frame: {named}."
                " select and recvfrom take the frame; flock is the lock on the kept file, and the"
                " unlock; fstat64, the one call that the floor has not, sees whether that file"
                " still has its name: others would lock another one; openat, _llseek, which tells"
                " the size, write and close append to each of the two files.")


def measure(report, options) -> None:
    runs = 3 if options.check else 5
    report.line(group=GROUP, title="Recording the traffic")
    report.line(group=GROUP, note=(
        "The floor receives the frame, takes a lock on a kept file, and for each of two files"
        " opens it, asks for its size, appends a line and closes it; the lines are put together"
        " by hand."))
    with Service(receive.device_of(1, 4)) as service:
        report.value(GROUP, CASE, "service", "instructions", "per frame",
                     per_frame(recorded_burst, service, runs),
                     goal={"against": "floor", "at_most": 1.1})
        measure_system_calls(report, service)
    with Program(BIN / "can-floor", "record", "can0", FOLDER / "floor") as floor:
        report.value(GROUP, CASE, "floor", "instructions", "per frame",
                     per_frame(floor_burst, floor, runs))
