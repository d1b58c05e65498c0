"""Write docs/performance.md and its plots from the results of every benchmark driver.

report.py PAGE IMAGES RESULTS...

PAGE is the document, IMAGES the folder of the plots, RESULTS their files in the order of the page. Prints the goals. gnuplot draws; without it the page has no plots.
"""

import datetime
import os
import platform
import re
import shutil
import subprocess
import sys
from pathlib import Path

from results import Group, Verdict, judge, read_groups

INTRODUCTION = """# Performance

Written by `./dev bench`; [the benchmarks](../tests/bench/README.md) say how each number comes about.

Two kinds of numbers stand here. *Counted instructions* are those of an emulated 32-bit ARM machine whose clock goes on by one
nanosecond an instruction, kernel and user together: they repeat to about one percent wherever they are taken and are the numbers of
record. Times are medians of a machine that does other things as well: only their ratios within one run mean something. A *floor* is a
program that makes the least system calls that the same result can be had with; every other peer is what one would use instead.
"""


def number(value: float) -> str:
    """Four significant digits, thousands apart."""
    if value == int(value) and abs(value) < 1e4:
        return str(int(value))
    digits = 0 if abs(value) >= 1000 else 1 if abs(value) >= 100 else 2 if abs(value) >= 10 else 3
    return f"{value:,.{digits}f}".replace(",", " ")


def output_of(*command: str) -> str:
    try:
        done = subprocess.run(command, capture_output=True, text=True, check=False)
        return done.stdout.splitlines()[0] if done.stdout else "-"
    except OSError:
        return "-"


def processor() -> str:
    for line in Path("/proc/cpuinfo").read_text(encoding="utf-8").splitlines():
        if line.startswith("model name"):
            return line.partition(":")[2].strip()
    return platform.machine()


def machine() -> str:
    rows = (
        ("processor", f"{processor()}, {os.cpu_count()} of them"),
        ("kernel", f"{platform.system()} {platform.release().split('-')[0]}"),
        ("compiler", output_of("g++", "--version")),
        ("ARM compiler", output_of("arm-linux-gnueabihf-g++", "--version")),
        ("emulator", output_of("qemu-system-arm", "--version")),
        ("date", datetime.date.today().isoformat()),
    )
    lines = ["## The machine of these numbers", "", "| | |", "| --- | --- |"]
    return "\n".join(lines + [f"| {name} | {value} |" for name, value in rows]) + "\n"


def others(group: Group) -> list[str]:
    """Who is measured beside the service, in the order of the results."""
    seen = dict.fromkeys(line["who"] for line in group.lines)
    return [who for who in seen if who != "service"]


def row_of(group: Group, case: str, quantity: str, peers: list[str]) -> str:
    lines = {
        line["who"]: line for line in group.lines
        if (line["case"], line["quantity"]) == (case, quantity)
    }
    ours = lines.get("service")
    unit = next(iter(lines.values())).get("unit", "")
    if unit in quantity.split():
        unit = ""
    cells = [case, f"{quantity} {unit}".strip(), number(ours["value"]) if ours else "–"]
    for who in peers:
        other = lines.get(who)
        cell = number(other["value"]) if other else "–"
        if ours and other and other["value"]:
            cell += f" (× {ours['value'] / other['value']:.2f})"
        cells.append(cell)
    verdict = judge(group, ours) if ours else None
    if verdict is None:
        cells.append("")
    else:
        cells.append(f"{verdict.goal}: {'met' if verdict.met else '**missed**'}")
    return "| " + " | ".join(cells) + " |"


def section(group: Group, images: str) -> str:
    peers = others(group)
    heads = ["", "", "service", *peers, "goal"]
    lines = [f"## {group.title or group.name}", ""]
    lines += [note + "\n" for note in group.notes]
    lines += ["| " + " | ".join(heads) + " |", "|" + " --- |" * 2 + " ---: |" * (len(peers) + 1)
              + " --- |"]
    for case, quantity in dict.fromkeys((line["case"], line["quantity"]) for line in group.lines):
        lines.append(row_of(group, case, quantity, peers))
    for plot in group.plots:
        lines += ["", f"![{plot['plot']}]({images}/{picture_name(group, plot)})"]
    return "\n".join(lines) + "\n"


def picture_name(group: Group, plot: dict) -> str:
    return f"performance-{group.name}-{re.sub('[^a-z0-9]+', '-', plot['plot'].lower())}.svg"


def draw(plot: dict, path: Path) -> None:
    script = [
        "set terminal svg size 760,360 dynamic font 'sans-serif,12' background 'white'",
        f"set output {quoted(str(path))}",
        f"set title {quoted(plot['plot'])} noenhanced",
        f"set xlabel {quoted(plot.get('x', ''))} noenhanced",
        f"set ylabel {quoted(plot.get('y', ''))} noenhanced",
        "set key outside right noenhanced", "set grid",
        *(f"set logscale {axis}" for axis in plot.get("logarithmic", "")),
    ]
    data, curves = [], []
    for index, (name, points) in enumerate(plot["series"].items()):
        block = f"$series{index}"
        data += [f"{block} << EOD", *(f"{x} {y}" for x, y in points), "EOD"]
        curves.append(f"{block} using 1:2 with linespoints title {quoted(name)}")
    script += [*data, "plot " + ", ".join(curves)]
    subprocess.run(["gnuplot"], input="\n".join(script) + "\n", text=True, check=True)


def quoted(text: str) -> str:
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'


def goals(groups: list[Group]) -> list[tuple[Group, dict, Verdict]]:
    found = []
    for group in groups:
        for line in group.lines:
            verdict = judge(group, line)
            if verdict is not None:
                found.append((group, line, verdict))
    return found


def print_goals(groups: list[Group]) -> None:
    for group, line, verdict in goals(groups):
        shown = f"{number(line['value'])} {line.get('unit', '')}".strip()
        ratio = f" (× {verdict.ratio:.3f})" if verdict.ratio is not None else ""
        print(f"{'met   ' if verdict.met else 'MISSED'} {group.name}: {line['case']},"
              f" {line['quantity']}: {shown}{ratio}, goal {verdict.goal}")


def main() -> None:
    page, images, results = Path(sys.argv[1]), Path(sys.argv[2]), sys.argv[3:]
    groups = read_groups(results)
    drawing = shutil.which("gnuplot") is not None
    for old in images.glob("performance-*.svg"):
        old.unlink()
    for group in groups:
        if not drawing:
            group.plots.clear()
        for plot in group.plots:
            draw(plot, images / picture_name(group, plot))
    relative = os.path.relpath(images, page.parent)
    page.write_text("\n".join([INTRODUCTION, *(section(group, relative) for group in groups),
                               machine()]), encoding="utf-8")
    print_goals(groups)


if __name__ == "__main__":
    main()
