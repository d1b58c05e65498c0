"""Print a short table from the reports of bench_rest, bench_import and, if there, bench_watch.

Times are processor time, the least of the repetitions: what a loaded machine disturbs least.
"""

import json
import sys

REQUESTS = (
    ("GET of a device, alone in the file", "get", 1),
    ("GET of a device, one of 32", "get", 32),
    ("POST of a device, alone in the file", "post", 1),
    ("POST of a device, one of 32", "post", 32),
)
MEMORY = (
    ("the largest file", "memory_one_file"),
    ("behind 50 MiB of skipped lines", "memory_skipped_lines"),
    ("16 times over", "memory_sections_again"),
)
PAUSES = (
    ("frames without a pause", 0),
    ("a frame each millisecond", 1000),
    ("a frame each 20 ms", 20000),
)


def least(runs: list[dict], name: str) -> float:
    times = []
    for run in runs:
        if run["run_type"] != "iteration":
            continue
        base = run["run_name"]
        if base == name:
            times.append(run["cpu_time"])
        elif base == f"{name}/manual_time":
            times.append(run["real_time"])
    return min(times)


def print_watch(runs: list[dict]) -> None:
    print(f"{'tags of a frame, watched by':38}{'nobody':>11}{'the bridge':>24}{'an eager one':>24}")
    for title, pause in PAUSES:
        line = f"  {title:36}"
        for watcher in ("nobody", "bridge", "eager"):
            found = [run for run in runs if run["run_type"] == "iteration"
                     and run["run_name"].startswith(f"frame_{watcher}/{pause}/")]
            time = min(run["real_time"] for run in found) / 1000
            line += f"{time:8.1f} us"
            if watcher != "nobody":
                line += f"{max(run['wake_ups'] for run in found):6.2f} wakes"
        print(line)


def main() -> None:
    runs = []
    for path in sys.argv[1:]:
        with open(f"{path}.json", encoding="utf-8") as file:
            runs += json.load(file)["benchmarks"]
    print(f"{'':38}{'service':>11}{'its SQL':>11}{'ratio':>8}{'goal':>6}{'prepared SQL':>14}")
    for title, name, devices in REQUESTS:
        ours, texts, prepared = (
            least(runs, f"{name}_{kind}/{devices}") for kind in ("handler", "texts", "statements")
        )
        print(f"{title:38}{ours:8.0f} us{texts:8.0f} us{ours / texts:8.2f}{3:6}{prepared:11.0f} us")
    ours, command = least(runs, "import_file"), least(runs, "sqlite3_command")
    print(f"{'':38}{'service':>11}{'sqlite3':>11}{'ratio':>8}{'goal':>6}")
    title = "import of the largest file"
    print(f"{title:38}{ours:8.0f} ms{command:8.0f} ms{ours / command:8.2f}{2:6}")
    print(f"{'memory that an import adds':38}{'file':>11}{'peak':>13}")
    for title, name in MEMORY:
        found = [run for run in runs if run["run_name"].startswith(name + "/")
                 and run["run_type"] == "iteration"]
        size = found[0]["file_bytes"] / 1024
        peak = min(run["peak_KiB"] for run in found)
        print(f"  {title:36}{size:7.0f} KiB{peak:9.0f} KiB")
    if any(run["name"].startswith("frame_nobody") for run in runs):
        print_watch(runs)


if __name__ == "__main__":
    main()
