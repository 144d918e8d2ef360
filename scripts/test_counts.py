"""Tells what became of each test, from a file that ctest wrote with --output-junit.

    test_counts.py FILE

Prints a line "TESTS PASSED SKIPPED FAILED" and then, a line each, the skipped tests with the reason that each gave and
the failed ones.
"""

import re
import sys
import xml.etree.ElementTree


def reason_of(case):
    output = case.findtext("system-out") or ""
    found = re.search(r": Skipped\s*\n(.+)|skipped: ([^\\\n]+)|skipped=\d+.*|\bskipped '(.+)'", output)
    if found:
        return next(filter(None, found.groups()), found.group(0))
    # Where a library without an interpreter stands in for Python's.
    if ".pyc doest not exist" in output:
        return "needs a compiled example script, and there is no Python to compile it"
    if case.find("skipped").get("message") == "SKIP_RETURN_CODE=77":
        return "needs a Python for Windows, and none is at hand"
    return "gave no reason"


def main(file):
    passed, skipped, failed = 0, [], []
    for case in xml.etree.ElementTree.parse(file).iter("testcase"):
        if case.get("status") == "run":
            passed += 1
        elif case.get("status") == "notrun" and case.find("skipped") is not None:
            skipped.append("skipped: %s: %s" % (case.get("name"), reason_of(case)))
        else:
            failed.append("FAILED: %s" % case.get("name"))
    print(passed + len(skipped) + len(failed), passed, len(skipped), len(failed))
    for line in skipped + failed:
        print(line)


main(sys.argv[1])
