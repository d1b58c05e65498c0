"""Hold counted results against the stored baseline, or store them.

baseline.py check BASELINE RESULTS...
baseline.py store BASELINE RESULTS...

A count that grew by more than 3 % fails, as does one that the baseline has and the results of its
group have not. One that shrank by as much is told: stored, it cannot creep back.
"""

import json
import sys
from pathlib import Path

from results import name_of, read_groups

TOLERANCE = 0.03


def counts_of(paths: list[str]) -> tuple[set[str], dict[str, float]]:
    """The groups that were measured, and what they counted."""
    groups = read_groups(paths)
    return ({group.name for group in groups},
            {name_of(line): line["value"] for group in groups for line in group.lines})


def verdict(stored: float | None, value: float | None) -> tuple[bool, str]:
    if value is None:
        return False, "not measured"
    if stored is None:
        return False, f"{value:g}, not in the baseline"
    change = (value - stored) / stored if stored else float(value != 0)
    text = f"{value:g}, baseline {stored:g} ({change:+.1%})"
    if change > TOLERANCE:
        return False, text
    return True, text + (", to be stored" if change < -TOLERANCE else "")


def check(baseline: Path, paths: list[str]) -> int:
    groups, counts = counts_of(paths)
    stored = json.loads(baseline.read_text(encoding="utf-8"))
    stored = {name: value for name, value in stored.items() if name.split("/")[0] in groups}
    failed = 0
    for name in dict.fromkeys([*stored, *counts]):
        good, text = verdict(stored.get(name), counts.get(name))
        failed += not good
        print(f"bench: {'' if good else 'FAILED '}{name}: {text}")
    print(f"bench: {len(stored.keys() | counts.keys()) - failed} within 3 %, {failed} beyond")
    return 1 if failed or not counts else 0


def store(baseline: Path, paths: list[str]) -> int:
    """Groups that were not measured keep their counts."""
    groups, counts = counts_of(paths)
    stored = json.loads(baseline.read_text(encoding="utf-8")) if baseline.exists() else {}
    kept = {name: value for name, value in stored.items() if name.split("/")[0] not in groups}
    text = json.dumps({**kept, **counts}, indent=1, sort_keys=True)
    baseline.write_text(text + "\n", encoding="utf-8")
    return 0


def main() -> int:
    command, baseline, paths = sys.argv[1], Path(sys.argv[2]), sys.argv[3:]
    return {"check": check, "store": store}[command](baseline, paths)


if __name__ == "__main__":
    sys.exit(main())
