"""Print a short table from the reports of bench_rest and bench_import.

Times are processor time, the least of the repetitions: what a loaded machine disturbs least.
"""

import json
import sys

PAIRS = (
    ("GET of a device, alone in the file", "get_handler/1", "get_statements/1", "us", 3),
    ("GET of a device, one of 32", "get_handler/32", "get_statements/32", "us", 3),
    ("POST of a device, alone in the file", "post_handler/1", "post_statements/1", "us", 3),
    ("POST of a device, one of 32", "post_handler/32", "post_statements/32", "us", 3),
    ("import of the largest file", "import_file", "sqlite3_command", "ms", 2),
)
MEMORY = (
    ("the largest file", "memory_one_file"),
    ("behind 50 MiB of skipped lines", "memory_skipped_lines"),
    ("16 times over", "memory_sections_again"),
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


def main() -> None:
    runs = []
    for path in sys.argv[1:]:
        with open(path, encoding="utf-8") as file:
            runs += json.load(file)["benchmarks"]
    print(f"{'':38}{'service':>11}{'statements':>13}{'ratio':>8}{'goal':>6}")
    for title, ours, floor, unit, goal in PAIRS:
        one, other = least(runs, ours), least(runs, floor)
        print(f"{title:38}{one:8.0f} {unit}{other:10.0f} {unit}{one / other:8.1f}{goal:6}")
    print(f"{'memory that an import adds':38}{'file':>11}{'peak':>13}")
    for title, name in MEMORY:
        found = [run for run in runs if run["run_name"].startswith(name + "/")
                 and run["run_type"] == "iteration"]
        size = found[0]["file_bytes"] / 1024
        peak = min(run["peak_KiB"] for run in found)
        print(f"  {title:36}{size:7.0f} KiB{peak:9.0f} KiB")


if __name__ == "__main__":
    main()
