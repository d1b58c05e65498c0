"""The results of the benchmark drivers: one JSON object a line, as README.md describes them."""

import json
from dataclasses import dataclass, field
from pathlib import Path

MEASURED = ("group", "case", "who", "quantity", "value")


@dataclass
class Group:
    name: str
    title: str = ""
    notes: list[str] = field(default_factory=list)
    plots: list[dict] = field(default_factory=list)
    lines: list[dict] = field(default_factory=list)

    def value_of(self, line: dict, who: str) -> float | None:
        """What somebody else needs for the same."""
        for other in self.lines:
            if other["who"] == who and key_of(other) == key_of(line):
                return other["value"]
        return None


def key_of(line: dict) -> tuple[str, str]:
    return line["case"], line["quantity"]


def name_of(line: dict) -> str:
    return "/".join(line[key] for key in ("group", "case", "who", "quantity"))


def add(group: Group, line: dict) -> None:
    if "title" in line:
        group.title = line["title"]
    elif "note" in line:
        if line["note"] not in group.notes:  # of two runs of a group
            group.notes.append(line["note"])
    elif "plot" in line:
        group.plots.append(line)
    elif all(key in line for key in MEASURED):
        group.lines.append(line)
    else:
        raise ValueError("neither a measurement nor a note")


def read_groups(paths: list[str]) -> list[Group]:
    """The groups of all files, in the order in which they come."""
    groups: dict[str, Group] = {}
    for path in map(Path, paths):
        for number, text in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
            try:
                line = json.loads(text)
                add(groups.setdefault(line["group"], Group(line["group"])), line)
            except (ValueError, KeyError) as reason:
                raise ValueError(f"{path}:{number}: {reason}") from reason
    return list(groups.values())


@dataclass
class Verdict:
    ratio: float | None  # to what the goal names
    goal: str
    met: bool


def judge(group: Group, line: dict) -> Verdict | None:
    """None for a line without a goal, and for one whose peer was not measured."""
    goal = line.get("goal")
    if goal is None:
        return None
    against = goal.get("against")
    ratio, shown = None, line["value"]
    if against is not None:
        peer = group.value_of(line, against)
        if not peer:
            return None
        ratio = shown = line["value"] / peer
    if "at_most" in goal:
        text, met = f"≤ {goal['at_most']:g}", shown <= goal["at_most"]
    else:
        text, met = f"≥ {goal['at_least']:g}", shown >= goal["at_least"]
    return Verdict(ratio, text + (f" × {against}" if against else ""), met)
