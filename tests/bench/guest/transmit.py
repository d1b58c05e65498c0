"""Group transmit: what a transmit pass costs in which nothing is due."""

import subprocess

import guest

GROUP = "transmit"


def measure(report, options) -> None:
    report.line(group=GROUP, title="The transmit pass")
    report.line(group=GROUP, note=(
        "Produced and requested, cyclic and on a change, with fault protection; none is due. The"
        " least of 50 batches of 1000 calls of the port thread's own function, without system"
        " calls."))
    output = subprocess.run([guest.BIN / "can-transmit"], check=True, capture_output=True,
                            text=True).stdout
    for line in output.splitlines():
        if not line[:1].isdigit():
            continue
        transactions, cost = line.split()
        report.value(GROUP, f"nothing due, {transactions} transactions", "service",
                     "user instructions", "per pass", [float(cost)], goal={"at_most": 300})
