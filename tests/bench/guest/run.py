"""Run groups of benchmarks on this emulated machine; see arm_guest.sh."""

import argparse
import importlib
import os
import pathlib

if " kt.lane=" not in pathlib.Path("/proc/cmdline").read_text("ascii"):
    raise SystemExit("run.py is for arm_guest.sh only: it empties the service's folders")

import guest  # noqa: E402


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--out", required=True)
    parser.add_argument("--check", action="store_true")
    parser.add_argument("--shift", type=int, default=0)
    parser.add_argument("--seconds", type=int, default=0)
    parser.add_argument("groups", nargs="+")
    options = parser.parse_args()
    guest.prepare_machine()
    report = guest.Report(options.out)
    for name in options.groups:
        importlib.import_module(name).measure(report, options)
        os.sync()


if __name__ == "__main__":
    main()
