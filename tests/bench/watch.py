#!/usr/bin/python3
"""What a provider of tags pays for a watcher of the tag store (bench_watch)."""

import json
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import measuring

PAUSES = ((0, "frames without a pause"), (1000, "a frame each millisecond"),
          (20000, "a frame each 20 ms"))
WATCHERS = ("nobody", "bridge", "eager")


def main() -> None:
    options = measuring.arguments(__doc__)
    lines = measuring.Lines("watch", options.out)
    lines.title("Tags of a frame while somebody watches them")
    program = options.bin / "bench_watch"
    if not program.exists():
        measuring.cannot("bench_watch is not built (kt-dx-mqtt)")
    report = json.loads(measuring.run(program, "--benchmark_repetitions=3",
                                      "--benchmark_format=json"))
    runs = [run for run in report["benchmarks"] if run["run_type"] == "iteration"]
    for pause, title in PAUSES:
        for watcher in WATCHERS:
            found = [run for run in runs if run["name"].startswith(f"frame_{watcher}/{pause}/")]
            who = "service" if watcher == "nobody" else f"service, {watcher} watching"
            wakes = max(run["wake_ups"] for run in found)
            lines.value(title, who, "system calls", round(wakes, 3), "per frame",
                        goal={"at_most": 1})
            if not options.check:
                times = [run["real_time"] / 1000 for run in found]
                lines.values(title, who, "us", times, "per frame")


if __name__ == "__main__":
    main()
