"""What no test reaches, from gcovr's JSON.

coverage_report.py COVERAGE.json UNREACHED.txt

Prints a line for each source file and the sums; UNREACHED.txt gets every line that was not executed
and every branch that was not taken, with its text.
"""

import json
import pathlib
import sys


def unreached(file: dict, text: list[str]):
    """(line number, what is missing, text of the line)"""
    for line in file["lines"]:
        if line.get("gcovr/noncode"):
            continue
        number = line["line_number"]
        source = text[number - 1].strip() if number <= len(text) else ""
        branches = [branch["count"] for branch in line["branches"]]
        if line["count"] == 0:
            yield number, "line", source
        elif 0 in branches:
            yield number, f"{branches.count(0)} of {len(branches)} branches", source


def counts(file: dict) -> tuple[int, int, int, int]:
    lines = [line for line in file["lines"] if not line.get("gcovr/noncode")]
    branches = [branch["count"] for line in lines for branch in line["branches"]]
    return (
        sum(line["count"] > 0 for line in lines),
        len(lines),
        sum(count > 0 for count in branches),
        len(branches),
    )


def row(name: str, reached: tuple[int, int, int, int]) -> str:
    lines, all_lines, branches, all_branches = reached
    return f"{name:<40} {lines:5} of {all_lines:5} lines {branches:5} of {all_branches:5} branches"


def main() -> None:
    report, out = (pathlib.Path(name) for name in sys.argv[1:])
    sums = (0, 0, 0, 0)
    with out.open("w", encoding="utf-8") as missing:
        for file in json.loads(report.read_text("utf-8"))["files"]:
            text = pathlib.Path(file["file"]).read_text("utf-8").splitlines()
            reached = counts(file)
            sums = tuple(a + b for a, b in zip(sums, reached))
            print(row(file["file"], reached))
            for number, what, source in unreached(file, text):
                print(f"{file['file']}:{number}: {what}: {source}", file=missing)
    print(row("sum", sums))


if __name__ == "__main__":
    main()
