"""Group receive: what a received frame costs."""

import guest
from guest import BIN, Allocations, Program, Service, rows

GROUP = "receive"
FOUR_TAGS = "4 tags with swap and scaling"
WAKE_UP = "4 tags, each frame wakes the thread"
FEW, MANY = 400, 3400


def consumer(number: int, tags: int, *, scaled=True):
    """A consumed frame of 8 bytes with that many tags of equal size, 2 bytes at most."""
    size = 2 if tags <= 4 else 1
    kind = rows.I16 if size == 2 else rows.I8
    more = {"swap": rows.SWAP_BYTES, **rows.slope(0.5, 10.0)} if scaled else {}
    blocks = [rows.tag(f"t{n}", kind, n * size, **more) for n in range(tags)]
    return rows.consume(f"c{number}", rows.frame(0x100 + number, 8, *blocks))


def device_of(transactions: int, tags: int, *, scaled=True):
    return rows.device("d", *(consumer(n, tags, scaled=scaled) for n in range(transactions)))


def received(service: Service) -> int:
    return service.diagnose()["rxCount"]


def measure_service(report, runs: int) -> list[float]:
    with Service(device_of(1, 4)) as service:
        frames = guest.per_frame(service, FEW, MANY, runs)
        report.value(GROUP, FOUR_TAGS, "service", "instructions", "per frame", frames,
                     goal={"against": "floor", "at_most": 1.12})
        report.value(GROUP, WAKE_UP, "service", "instructions", "per frame",
                     guest.per_wake_up(service, 50, 450, 1000, runs),
                     goal={"against": "floor", "at_most": 1.08})
        measure_system_calls(report, service)
    return frames


def measure_system_calls(report, service: Service) -> None:
    count = 2000
    calls = guest.calls_of_burst(service, count)
    report.value(GROUP, FOUR_TAGS, "service", "system calls", "per frame",
                 [round(sum(calls.values()) / count, 2)], goal={"at_most": 2})
    named = ", ".join(f"{name} {number}" for name, number in sorted(calls.items()))
    report.line(group=GROUP, note=f"System calls for {count} frames that wait: {named}; the rest is"
                " the wait that ends the run.")


def measure_allocations(report) -> None:
    counter = Allocations()
    count = 2000
    with Service(device_of(1, 4), environment=counter.environment) as service:
        guest.send(100)
        service.settle()
        before = counter.count()
        seen = received(service)
        between = counter.count()
        guest.send(count)
        service.settle()
        after = counter.count()
        if before == 0 or received(service) - seen != count:
            raise SystemExit("the service did not take every frame, or allocations are not counted")
        report.value(GROUP, FOUR_TAGS, "service", "allocations", "per frame",
                     [(after - between) / count], goal={"at_most": 0})


def measure_floor(report, runs: int) -> None:
    with Program(BIN / "can-floor", "receive", "can0") as floor:
        report.value(GROUP, FOUR_TAGS, "floor", "instructions", "per frame",
                     guest.per_frame(floor, FEW, MANY, runs))
        report.value(GROUP, WAKE_UP, "floor", "instructions", "per frame",
                     guest.per_wake_up(floor, 50, 450, 1000, runs))


def measure_peer(report, frames, who: str, ratio: float | None, few: int, many: int,
                 *command) -> None:
    case = f"4 tags, beside {who}"
    goal = {} if ratio is None else {"goal": {"against": who, "at_most": ratio}}
    report.value(GROUP, case, "service", "instructions", "per frame", frames, **goal)
    with Program(*command) as program:
        report.value(GROUP, case, who, "instructions", "per frame",
                     guest.per_frame(program, few, many, 3))


def measure_tags(report, counts, runs: int) -> None:
    series = {}
    for name, scaled in (("plain tags", False), ("tags with scaling", True)):
        found = {}
        for tags in counts:
            with Service(device_of(1, tags, scaled=scaled)) as service:
                values = guest.per_frame(service, FEW, MANY, runs)
                found[tags] = report.value(GROUP, f"{tags} {name}", "service", "instructions",
                                           "per frame", values)
        slope = (found[counts[-1]] - found[counts[0]]) / (counts[-1] - counts[0])
        report.value(GROUP, name, "service", "instructions", "per further tag", [slope],
                     goal={"at_most": 30})
        series[name] = sorted(found.items())
    if len(counts) > 2:
        report.line(group=GROUP, plot="tags of a frame", x="tags", y="instructions per frame",
                    series=series)


def measure_transactions(report, runs: int) -> None:
    case = "250 transactions, frames of all of them"
    with Service(device_of(250, 4)) as service:
        report.value(GROUP, case, "service", "instructions", "per frame",
                     guest.per_frame(service, FEW, MANY, runs, ids=250),
                     goal={"against": "one transaction", "at_most": 1.05})
    with Service(device_of(1, 4)) as service:
        report.value(GROUP, case, "one transaction", "instructions", "per frame",
                     guest.per_frame(service, FEW, MANY, runs))


def measure(report, options) -> None:
    runs = 3 if options.check else 7
    report.line(group=GROUP, title="Receiving frames")
    report.line(group=GROUP, note=(
        "Frames of 8 bytes wait in the socket of a stopped program; what its thread takes for a"
        " number of them, less what it takes for fewer, is the cost. The floor is a loop of select"
        " on a socket and an eventfd and recvfrom, without threads, which does nothing with the"
        " frame. candump prints to /dev/null; python3-can is a loop that decodes the same tags."))
    frames = measure_service(report, runs)
    measure_floor(report, runs)
    measure_allocations(report)
    measure_tags(report, (1, 8) if options.check else (1, 2, 4, 6, 8), runs)
    measure_transactions(report, runs)
    measure_peer(report, frames, "candump", 0.65, 100, 700, "candump", "can0")
    if not options.check:
        measure_peer(report, frames, "candump -s 2", None, FEW, MANY, "candump", "-s", "2", "can0")
    measure_peer(report, frames, "python3-can", 0.125, 50, 350, "/usr/bin/python3",
                 guest.REPO / "tests/bench/guest/can_python.py", "can0")
