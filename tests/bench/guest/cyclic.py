"""Group cyclic: how cyclic frames keep their time."""

import subprocess

from guest import BIN, Service, rows

GROUP = "cyclic"
# Number of transactions, their interval in milliseconds, and seconds: an hour where that takes less
# than three minutes.
CASES = ((1, 10, 60), (1, 100, 3600), (1, 1000, 3600), (100, 100, 60), (100, 1000, 3600),
         (250, 250, 60), (250, 1000, 60))


def measure_case(report, transactions: int, interval: int, seconds: int) -> None:
    produced = (rows.produce(f"c{n}", rows.frame(0x300 + n, 8), interval=interval)
                for n in range(transactions))
    with Service(rows.device("d", *produced)):
        words = subprocess.run([BIN / "can-period", "can0", "0x300", str(transactions),
                                str(interval), str(seconds)],
                               check=True, capture_output=True, text=True).stdout.split()
    frames, repeated = int(words[0]), int(words[1])
    if repeated != transactions:
        raise SystemExit(f"{repeated} of {transactions} cyclic transactions were sent twice")
    shortest, longest, drift, behind, farthest = map(float, words[2:])
    case = f"{transactions} of {interval} ms, {seconds} s"
    for quantity, unit, value in (
            ("frames", "sent", frames),
            ("shortest period", "ms more than the interval", shortest),
            ("longest period", "ms more than the interval", longest),
            ("mean period", "ms more than the interval", drift),
            ("at the end", "ms behind a fixed schedule", behind),
            ("at the end, the farthest", "ms behind a fixed schedule", farthest)):
        goal = {"goal": {"at_most": 1}} if quantity == "at the end, the farthest" else {}
        report.value(GROUP, case, "service", quantity, unit, [value], **goal)


def measure(report, options) -> None:
    report.line(group=GROUP, title="Cyclic frames")
    report.line(group=GROUP, note=(
        "A cyclic transaction is due again its interval after the millisecond in which it was sent,"
        " and a wait ends when the millisecond of what is due begins: what the sending takes, and"
        " by how much the kernel ends a wait late, does not add up while it is less than a"
        " millisecond."))
    for transactions, interval, seconds in CASES:
        measure_case(report, transactions, interval, options.seconds or seconds)
