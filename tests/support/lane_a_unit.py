#!/usr/bin/python3
"""Unit tests of the armhf build on this machine, under qemu-user.

lane_a_unit.py [--all] [--bin DIR] [--junit FILE] [--regex REGEX]

One run per program, a program per processor at a time. What is left out counts as skipped, with its
reason: what qemu-user cannot do runs on the emulated machine of lane_a.sh, what takes too long under
emulation runs with --all. --regex narrows, as ctest -R does.
Exit status: 0, 1 when a test failed, 77 when the lane cannot run here.
"""

import argparse
import concurrent.futures
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import time
import xml.etree.ElementTree as ElementTree

REPO = pathlib.Path(__file__).resolve().parents[2]
SYSROOT = REPO / "build/sysroot-armhf"
EMULATOR = "qemu-arm-static"
LIMIT_S = 1200

ROBUST = "qemu-user has no robust mutexes; arm_test.py of lane A runs it"
FILTERS = "qemu-user has no filters of system calls; arm_test.py of lane A runs it"
NOT_HERE = {
    "dx_cost.write_notify_and_read_make_no_system_call_while_nobody_watches": FILTERS,
    "dx_crash.registration_goes_on_after_its_owner_died_in_a_change": ROBUST,
    "dx_crash.stopped_owner_of_the_registration_is_an_error_and_no_hang": ROBUST,
}
# Faults at every step of something long: what they prove does not depend on the processor.
SLOW = {
    "cut_off.first_start",
    "cut_off.migration",
    "database.want_of_memory_removes_nothing",
    "dx_damage.random_damage_is_refused_or_served",
    "handlers_fault.every_value_that_cannot_be_built_fails_the_request_and_changes_nothing",
    "import_failure.lack_of_memory_in_the_database",
    "import_file.a_failed_import_of_many_rows_is_no_change_either",
    "import_file.truncated_at_any_byte_it_is_imported_or_refused_whole",
}


def unable(reason: str) -> None:
    print(f"lane A: cannot run here: {reason}")
    sys.exit(77)


def emulated(program: pathlib.Path, *arguments: str, **options) -> subprocess.CompletedProcess:
    return subprocess.run(
        [EMULATOR, "-L", str(SYSROOT), str(program), *arguments],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        errors="replace",
        **options,
    )


def tests_of(program: pathlib.Path) -> list[str]:
    listing = emulated(program, "--gtest_list_tests")
    if listing.returncode != 0:
        raise SystemExit(f"{program.name}: {listing.stdout}")
    names, suite = [], ""
    for line in listing.stdout.splitlines():
        text = line.split("#")[0].rstrip()
        if text.startswith("  "):
            names.append(suite + text.strip())
        elif text.endswith("."):
            suite = text
    return names


def skipped_case(name: str, reason: str) -> ElementTree.Element:
    suite, test = name.split(".", 1)
    case = ElementTree.Element("testcase", name=test, classname=suite, status="notrun")
    ElementTree.SubElement(case, "skipped", message=reason)
    return case


def failed_case(program: pathlib.Path, output: str) -> ElementTree.Element:
    case = ElementTree.Element("testcase", name="ends", classname=program.name)
    ElementTree.SubElement(case, "failure", message="no report").text = output[-4000:]
    return case


def run_program(program: pathlib.Path, names: list[str], folder: pathlib.Path):
    """Its test cases, and what it printed when one failed."""
    report = folder / f"{program.name}.xml"
    try:
        result = emulated(
            program,
            f"--gtest_filter={':'.join(names)}",
            f"--gtest_output=xml:{report}",
            "--gtest_brief=1",
            cwd=folder,
            timeout=LIMIT_S,
        )
        status, output = result.returncode, result.stdout
    except subprocess.TimeoutExpired as late:
        status, output = 1, f"not within {LIMIT_S} s\n{late.stdout or ''}"
    if report.exists():
        cases = list(ElementTree.parse(report).iter("testcase"))
        cases = [case for case in cases if case.get("status") == "run"]
    else:
        cases = [failed_case(program, output)]
    if status != 0 and not any(case.find("failure") is not None for case in cases):
        cases.append(failed_case(program, output))
    if len(cases) < len(names):
        cases.append(failed_case(program, f"{len(cases)} of {len(names)} tests ran\n{output}"))
    return cases, "" if status == 0 else output


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("--all", action="store_true")
    parser.add_argument("--bin", type=pathlib.Path, default=REPO / "build/armhf/bin")
    parser.add_argument("--junit", type=pathlib.Path)
    parser.add_argument("--regex", type=re.compile, default=re.compile(""))
    arguments = parser.parse_args()
    if not shutil.which(EMULATOR):
        unable(f"no {EMULATOR} (package qemu-user-static)")
    programs = sorted(arguments.bin.resolve().glob("*_test"))
    if not programs or not (SYSROOT / "complete").exists():
        unable("the armhf preset is not built")

    start = time.monotonic()
    left_out = dict(NOT_HERE)
    if not arguments.all:
        left_out |= dict.fromkeys(SLOW, "minutes under emulation; --all runs it")
    suites = ElementTree.Element("testsuites", name="lane A unit")
    processors = concurrent.futures.ThreadPoolExecutor(os.cpu_count())
    with processors, tempfile.TemporaryDirectory(prefix="kt-lane-a-") as folder:
        runs = {}
        listed = list(processors.map(tests_of, programs))
        if gone := set(left_out).difference(*listed):
            raise SystemExit(f"lane A: left out, but no tests: {' '.join(sorted(gone))}")
        for program, names in zip(programs, listed):
            names = [name for name in names if arguments.regex.search(name)]
            suite = ElementTree.SubElement(suites, "testsuite", name=program.name)
            suite.extend(skipped_case(n, left_out[n]) for n in names if n in left_out)
            names = [name for name in names if name not in left_out]
            if names:
                place = pathlib.Path(folder, program.name)
                place.mkdir()
                run = processors.submit(run_program, program, names, place)
                runs[run] = suite
        for run in concurrent.futures.as_completed(runs):
            cases, output = run.result()
            runs[run].extend(cases)
            print(output, end="")

    cases = list(suites.iter("testcase"))
    failed = [case for case in cases if case.find("failure") is not None]
    skipped = [case for case in cases if case.find("skipped") is not None]
    if arguments.junit:
        ElementTree.ElementTree(suites).write(arguments.junit, "utf-8", xml_declaration=True)
    print(
        f"lane A unit: {len(cases) - len(failed) - len(skipped)} passed, {len(failed)} failed,"
        f" {len(skipped)} skipped in {time.monotonic() - start:.0f} s"
    )
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
