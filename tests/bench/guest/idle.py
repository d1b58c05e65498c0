"""Group idle: how often the threads wake up while nothing is due."""

import pathlib
import time

import guest
import receive
from guest import Service

GROUP = "idle"
SECONDS = 60


def switches(service: Service) -> dict[str, int]:
    found = {}
    for name, thread in service.threads().items():
        status = pathlib.Path(f"/proc/{service.pid}/task/{thread}/status").read_text()
        for line in status.splitlines():
            if line.startswith("voluntary_ctxt_switches:"):
                found[name] = int(line.split()[1])
    return found


def measure(report, options) -> None:
    report.line(group=GROUP, title="Doing nothing")
    report.line(group=GROUP, note=(
        "Two ports with a consumed frame each, no frame, no request. A port looks at the stop flag"
        " once a second, on purpose."))
    with Service(receive.device_of(1, 4)) as service:
        time.sleep(5)
        before = switches(service)
        spent = {name: service.instructions(thread) for name, thread in service.threads().items()}
        time.sleep(SECONDS)
        after = switches(service)
        for name, thread in service.threads().items():
            goal = {"goal": {"at_most": 61 if name.endswith("-port") else 0}}
            report.value(GROUP, f"thread {name}", "service", "wake-ups/min", "a minute",
                         [after[name] - before[name]], **goal)
        total = sum(service.instructions(thread) - spent[name]
                    for name, thread in service.threads().items())
        report.value(GROUP, "all threads", "service", "instructions", "a minute", [total])
