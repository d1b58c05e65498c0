#!/usr/bin/python3
"""What the service takes on a 32-bit ARM gateway: bytes of its own code, and memory.

The memory is that of the armhf build on an emulated machine (lane A), at rest, with no
configuration and with the largest one, and what a port, a device, a transaction and a tag add.
"""

import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
import measuring

STRIP, SIZE = "arm-linux-gnueabihf-strip", "arm-linux-gnueabihf-size"
LANE_STEP = "tests/bench/footprint_on_arm.py"


def measure_sizes(options, lines: measuring.Lines) -> None:
    program = options.arm_bin / "kt-can-proprietary"
    if not program.exists():
        measuring.cannot("the armhf preset is not built")
    with tempfile.TemporaryDirectory() as folder:
        stripped = pathlib.Path(folder, program.name)
        measuring.run(STRIP, "-o", stripped, program)
        text, data, bss = (int(word) for word in
                           measuring.run(SIZE, stripped).splitlines()[1].split()[:3])
        lines.value("code", "service", "KiB", round((text + data) / 1024, 1), "text and data")
        lines.value("code, zeroed data", "service", "KiB", round(bss / 1024, 1), "bss")
        lines.value("code, file", "service", "KiB", round(stripped.stat().st_size / 1024, 1),
                    "stripped")
    needed = re.findall(r"NEEDED\s+(\S+)", measuring.run("objdump", "-p", program))
    lines.note("The gateway's libraries are linked into the program; it has no shared library of "
               f"its own and needs Debian's {', '.join(needed)}.")


def measure_memory(options, lines: measuring.Lines) -> None:
    """In lane A, whose only way in is a test; this one writes down what it sees."""
    lane = measuring.REPO / "tests/support/lane_a.sh"
    done = subprocess.run([lane, "--bin", options.arm_bin, "--timeout", "900", "-q", "-s",
                           "--noconftest", LANE_STEP], text=True, stdout=subprocess.PIPE,
                          env={**os.environ, "KT_CHOSEN_TESTS": "1"}, check=False)
    found = [json.loads(line) for line in re.findall(r"^memory: (\{.*\})", done.stdout, re.M)]
    if done.returncode == measuring.CANNOT:
        lines.note("Memory is missing: " + done.stdout.strip().splitlines()[-1])
        return
    if done.returncode != 0 or not found:
        print(done.stdout, file=sys.stderr)
        sys.exit(1)
    take_memory(lines, {row["case"]: row for row in found})


def take_memory(lines: measuring.Lines, found: dict[str, dict]) -> None:
    for case, row in found.items():
        for what in ("Rss", "Pss", "RssAnon", "RssShmem"):
            more = {"goal": {"at_most": 8192}} if (case, what) == ("largest", "Rss") else {}
            lines.value(f"memory, {case}", "service", f"KiB {what}", row[what], **more)

    def own(case: str) -> int:
        return found[case]["RssAnon"] + found[case]["RssShmem"]

    for what in ("device", "transaction", "tag"):
        row = found[f"more {what}s"]
        lines.value(f"memory of a {what}", "service", "bytes",
                    round(1024 * (own(row["case"]) - own(row["above"])) / row["count"]))
    lines.value("memory of a port", "service", "bytes", 1024 * (own("empty") - own("one port")))
    lines.note("What a device, a transaction, a tag and a port add is anonymous memory and the tag "
               "store, which other processes share.")


def main() -> None:
    options = measuring.arguments(__doc__)
    lines = measuring.Lines("footprint", options.out)
    lines.title("Footprint (armhf)")
    lines.goal("KiB", {"at_most": 400}, "code")
    measure_sizes(options, lines)
    if not options.check:
        measure_memory(options, lines)


if __name__ == "__main__":
    main()
