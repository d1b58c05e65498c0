#!/usr/bin/python3
"""Runs a command on a machine whose processors stand still at random moments, each by itself.

    standstill.py [--busy MS] [--gap MS] [--longest MS] COMMAND...

As on a virtual machine whose host is busy, only more often: whatever a test takes for granted
instead of waiting for it shows sooner. Times are means of exponential distributions, up to the
longest. Needs the right to real-time priorities. Exit status: the command's, 128 + number after a
signal.
"""

import argparse
import multiprocessing
import os
import random
import signal
import subprocess
import sys
import time


def stand_still(
    processor: int, busy_s: float, gap_s: float, longest_s: float, parent: int, begun
) -> None:
    signal.signal(signal.SIGINT, signal.SIG_IGN)  # the command's end is its own
    os.sched_setaffinity(0, {processor})
    os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(50))
    begun.release()
    while os.getppid() == parent:
        end = time.monotonic() + min(random.expovariate(1 / busy_s), longest_s)
        while time.monotonic() < end:
            pass
        time.sleep(random.expovariate(1 / gap_s))


def main() -> int:
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("--busy", type=float, default=60)
    parser.add_argument("--gap", type=float, default=60)
    parser.add_argument("--longest", type=float, default=700)
    parser.add_argument("command", nargs=argparse.REMAINDER)
    options = parser.parse_args()
    if not options.command:
        parser.error("no command")
    seconds = [ms / 1000 for ms in (options.busy, options.gap, options.longest)]
    begun = multiprocessing.Semaphore(0)
    for processor in os.sched_getaffinity(0):
        arguments = (processor, *seconds, os.getpid(), begun)
        multiprocessing.Process(target=stand_still, args=arguments, daemon=True).start()
        if not begun.acquire(timeout=10):
            sys.exit("standstill.py: no right to real-time priorities here")
    status = subprocess.run(options.command).returncode
    return status if status >= 0 else 128 - status


if __name__ == "__main__":
    sys.exit(main())
