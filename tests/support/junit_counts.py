"""Print "PASSED FAILED SKIPPED" of a JUnit report.

junit_counts.py REPORT EXIT-STATUS

A report that is missing, or a lane that failed although its report shows no failure, counts as one
failure: a lane never passes by dying early. Status 5 is pytest's "nothing selected".
"""

import sys
import xml.etree.ElementTree as ElementTree


def counts(report: str) -> tuple[int, int, int]:
    passed = failed = skipped = 0
    for case in ElementTree.parse(report).iter("testcase"):
        if case.find("failure") is not None or case.find("error") is not None:
            failed += 1
        elif case.find("skipped") is not None:
            skipped += 1
        else:
            passed += 1
    return passed, failed, skipped


def main() -> None:
    report, status = sys.argv[1], int(sys.argv[2])
    try:
        passed, failed, skipped = counts(report)
    except (OSError, ElementTree.ParseError):
        passed = failed = skipped = 0
        status = status or 1
    if status not in (0, 5) and failed == 0:
        failed = 1
    print(passed, failed, skipped)


if __name__ == "__main__":
    main()
